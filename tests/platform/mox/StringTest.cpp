// Strings, the text-parsing helpers, exceptions, fatal assertions and named
// statistics counters.
#include "platform/mox/Assert.h"
#include "platform/mox/Counters.h"
#include "platform/mox/Exception.h"
#include "platform/mox/String.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Mox::String;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

TEST( String, CopiesShareOneImmutableBufferAndHashIsStable ) {
   String a( std::string( "hello" ) );
   String b = a;
   EXPECT_EQ( a.useCount(), 2 );
   EXPECT_EQ( a.c_str(), b.c_str() );
   EXPECT_EQ( fmt::format( "<{}>", a ), "<hello>" );
   // FNV-1a, stable across processes.
   EXPECT_EQ( String( "" ).hash(), 2166136261u );
   EXPECT_EQ( String( "a" ).hash(), 0xe40c292cu );
}

// "<a>:<b>", each read as an attribute.
struct Span {
   Span( String::IteratorConst& it, const String::IteratorConst& end ) {
      from = Mox::readAttribute( "from", [ & ] { return Mox::readUnsigned( it, end, 255 ); } );
      Mox::requireText( it, end, ":" );
      to = Mox::readAttribute( "to", [ & ] { return Mox::readUnsigned( it, end, 255 ); } );
   }
   uint64_t from = 0, to = 0;
};

// Nests a Span under one more attribute.
struct Labelled {
   Labelled( String::IteratorConst& it, const String::IteratorConst& end ) {
      Mox::requireText( it, end, "span=" );
      Mox::readAttribute( "span", [ & ] { span.emplace( it, end ); } );
   }
   std::optional< Span > span;
};

// "attribute|message" of the RangeException that parsing `text` raises.
template< class T >
std::string rangeError( const char* text ) {
   try {
      Mox::strepToValue< T >( text );
   } catch ( const Mox::RangeException& e ) {
      EXPECT_NE( e.line(), 0 ) << "location lost";
      return e.attribute() + "|" + e.what();
   }
   return "accepted";
}

TEST( Parsing, RequireTextAndReadUnsignedAdvanceOnlyOnSuccessAndNeverWrap ) {
   const String s( "Value(x)" );
   auto it = s.begin();
   Mox::requireText( it, s.end(), "Value(" );
   EXPECT_EQ( *it, 'x' );
   const auto before = it;
   EXPECT_THAT( [ & ] { Mox::requireText( it, s.end(), "y)" ); },
                ThrowsMessage< Mox::ParseException >( StrEq( "expected \"y)\" at \"x)\"" ) ) );
   EXPECT_THROW( Mox::requireText( it, s.end(), "x)z" ), Mox::ParseException );   // runs out
   EXPECT_EQ( it, before );

   constexpr uint64_t max = std::numeric_limits< uint64_t >::max();
   const String n( "0042rest" ), top( "18446744073709551615" );
   it = n.begin();
   EXPECT_EQ( Mox::readUnsigned( it, n.end(), 42 ), 42u );
   EXPECT_EQ( *it, 'r' );
   it = top.begin();
   EXPECT_EQ( Mox::readUnsigned( it, top.end(), max ), max );
   // Past the limit, no digits, or digits that wrap a 64-bit accumulator.
   const struct {
      const char* text;
      uint64_t max;
   } bad[] = { { "43", 42 }, { "x1", 42 }, { "", 42 }, { "4294967296", 0xFFFFFFFFu },
               { "18446744073709551616", max }, { "99999999999999999999", max },
               { "184467440737095516150", max } };
   for ( const auto& c : bad ) {
      const String t( c.text );
      auto p = t.begin();
      EXPECT_THROW( Mox::readUnsigned( p, t.end(), c.max ), Mox::RangeException ) << c.text;
      EXPECT_EQ( p, t.begin() ) << c.text;
   }
}

TEST( Parsing, StrepToValueReadsTheWholeTextAndNamesTheOutermostAttribute ) {
   const auto span = Mox::strepToValue< Span >( "3:200" );
   EXPECT_EQ( span.from, 3u );
   EXPECT_EQ( span.to, 200u );
   EXPECT_THAT( [] { Mox::strepToValue< Span >( "3:200 " ); },
                ThrowsMessage< Mox::ParseException >(
                   StrEq( "unexpected text after value at offset 5 of \"3:200 \"" ) ) );
   EXPECT_EQ( rangeError< Span >( "" ), "from|from: expected a number at \"\"" );
   EXPECT_EQ( rangeError< Span >( "3:256" ), "to|to: number exceeds 255" );
   EXPECT_EQ( rangeError< Labelled >( "span=300:1" ), "span|span: from: number exceeds 255" );
   // Other errors pass through unchanged.
   EXPECT_THAT( [] { Mox::strepToValue< Labelled >( "span=3-1" ); },   // nested, not renamed
                ThrowsMessage< Mox::ParseException >( StrEq( "expected \":\" at \"-1\"" ) ) );

   int line = 0;
   try {
      line = __LINE__ + 1;
      MOX_THROW( Mox::RangeException, "value {} above {}", 300, 255 );
   } catch ( const Mox::Exception& e ) {
      EXPECT_STREQ( e.what(), "value 300 above 255" );
      EXPECT_EQ( e.line(), line );
      EXPECT_TRUE( std::string( e.file() ).ends_with( "StringTest.cpp" ) ) << e.file();
      EXPECT_STREQ( e.function(), "TestBody" );
      ASSERT_TRUE( dynamic_cast< const Mox::RangeException* >( &e ) );
   }
   EXPECT_NE( line, 0 );
}

TEST( AssertDeathTest, PrintsExactlyTheExpression ) {
   int x = 1;
   MOX_ASSERT( x == 1 );   // holds: nothing happens
   EXPECT_DEATH( MOX_ASSERT( x == 2 ), "^x == 2\n$" );
   EXPECT_DEATH( MOX_ASSERT_MSG( x == 2, "brType() == brTypeVni()" ),
                 "^brType\\(\\) == brTypeVni\\(\\)\n$" );
}

TEST( Counters, OneCounterPerNameSharedByEveryUserAndThread ) {
   Mox::Counter& a = Mox::counter( "moxTestB" );
   EXPECT_EQ( &a, &Mox::counter( std::string( "moxTestB" ) ) );
   const uint64_t start = a.value();
   a.inc();
   a.inc( 4 );
   // Each thread looks a fresh name up itself, racing the others.
   std::vector< std::thread > threads;
   for ( int t = 0; t < 4; ++t ) {
      threads.emplace_back( [] {
         for ( int i = 0; i < 20000; ++i ) {
            Mox::counter( "moxTestA" ).inc();
         }
      } );
   }
   for ( auto& t : threads ) {
      t.join();
   }
   const auto all = Mox::counters();
   EXPECT_TRUE( std::is_sorted( all.begin(), all.end() ) );
   EXPECT_THAT( all, ::testing::Contains( ::testing::Pair( "moxTestB", start + 5 ) ) );
   EXPECT_THAT( all, ::testing::Contains( ::testing::Pair( "moxTestA", 80000u ) ) );
}

}  // namespace
