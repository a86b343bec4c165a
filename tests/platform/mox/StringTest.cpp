// Strings, the text-parsing helpers, exceptions and fatal assertions.
#include "platform/mox/Assert.h"
#include "platform/mox/Exception.h"
#include "platform/mox/String.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace {

using Mox::String;

TEST( String, CopiesShareOneImmutableBuffer ) {
   String a( std::string( "hello" ) );
   String b = a;
   EXPECT_EQ( a.useCount(), 2 );
   EXPECT_EQ( a.c_str(), b.c_str() );
   EXPECT_EQ( b, String( "hello" ) );
   EXPECT_LT( String( "abc" ), String( "abd" ) );
   EXPECT_EQ( String().c_str(), std::string( "" ) );
   EXPECT_TRUE( String( "" ).empty() );
   EXPECT_EQ( String().begin(), String().end() );
   EXPECT_EQ( fmt::format( "<{}>", a ), "<hello>" );
   // FNV-1a, stable across processes.
   EXPECT_EQ( String( "" ).hash(), 2166136261u );
   EXPECT_EQ( String( "a" ).hash(), 0xe40c292cu );
}

// A value with a cursor constructor: "<a>:<b>", each read as an attribute.
struct Span {
   Span( String::IteratorConst& it, const String::IteratorConst& end ) {
      from = Mox::readAttribute( "from", [ & ] { return Mox::readUnsigned( it, end, 255 ); } );
      Mox::requireText( it, end, ":" );
      to = Mox::readAttribute( "to", [ & ] { return Mox::readUnsigned( it, end, 255 ); } );
   }
   uint64_t from = 0;
   uint64_t to = 0;
};

// Nests a Span under one more attribute.
struct Labelled {
   Labelled( String::IteratorConst& it, const String::IteratorConst& end ) {
      Mox::requireText( it, end, "span=" );
      Mox::readAttribute( "span", [ & ] { span.emplace( it, end ); } );
   }
   std::optional< Span > span;
};

TEST( Parsing, RequireTextAdvancesOnlyOnAMatch ) {
   const String s( "Value(x)" );
   auto it = s.begin();
   Mox::requireText( it, s.end(), "Value(" );
   EXPECT_EQ( *it, 'x' );
   const auto before = it;
   try {
      Mox::requireText( it, s.end(), "y)" );
      FAIL() << "mismatch accepted";
   } catch ( const Mox::ParseException& e ) {
      EXPECT_STREQ( e.what(), "expected \"y)\" at \"x)\"" );
   }
   EXPECT_EQ( it, before );
   // Running out of text is a mismatch too.
   EXPECT_THROW( Mox::requireText( it, s.end(), "x)z" ), Mox::ParseException );
   EXPECT_EQ( it, before );
}

TEST( Parsing, ReadUnsignedChecksRangeAndDigits ) {
   const String s( "0042rest" );
   auto it = s.begin();
   EXPECT_EQ( Mox::readUnsigned( it, s.end(), 42 ), 42u );
   EXPECT_EQ( *it, 'r' );
   const String big( "43" );
   auto b = big.begin();
   EXPECT_THROW( Mox::readUnsigned( b, big.end(), 42 ), Mox::RangeException );
   EXPECT_EQ( b, big.begin() );
   const String digit( "9" );
   auto d = digit.begin();
   EXPECT_THROW( Mox::readUnsigned( d, digit.end(), 5 ), Mox::RangeException );
   const String none( "x1" );
   auto n = none.begin();
   EXPECT_THROW( Mox::readUnsigned( n, none.end(), 42 ), Mox::RangeException );
   const String empty;
   auto e = empty.begin();
   EXPECT_THROW( Mox::readUnsigned( e, empty.end(), 42 ), Mox::RangeException );
}

TEST( Parsing, ReadUnsignedAtTheTopOfTheRange ) {
   constexpr uint64_t max = std::numeric_limits< uint64_t >::max();
   const String top( "18446744073709551615" );
   auto it = top.begin();
   EXPECT_EQ( Mox::readUnsigned( it, top.end(), max ), max );
   EXPECT_EQ( it, top.end() );
   // One past the top, and a value whose digits wrap a 64-bit accumulator.
   for ( const char* text : { "18446744073709551616", "99999999999999999999",
                              "184467440737095516150" } ) {
      const String s( text );
      auto p = s.begin();
      EXPECT_THROW( Mox::readUnsigned( p, s.end(), max ), Mox::RangeException ) << text;
   }
   const String u32( "4294967296" );
   auto p = u32.begin();
   EXPECT_THROW( Mox::readUnsigned( p, u32.end(), 0xFFFFFFFFu ), Mox::RangeException );
}

TEST( Parsing, StrepToValueParsesTheWholeText ) {
   const auto span = Mox::strepToValue< Span >( "3:200" );
   EXPECT_EQ( span.from, 3u );
   EXPECT_EQ( span.to, 200u );
   try {
      Mox::strepToValue< Span >( "3:200 " );
      FAIL() << "trailing text accepted";
   } catch ( const Mox::ParseException& e ) {
      EXPECT_STREQ( e.what(), "unexpected text after value at offset 5 of \"3:200 \"" );
   }
   EXPECT_THROW( Mox::strepToValue< Span >( "3;200" ), Mox::ParseException );
   EXPECT_THROW( Mox::strepToValue< Span >( "" ), Mox::RangeException );
}

TEST( Parsing, RangeErrorsAreRaisedUnderTheAttribute ) {
   try {
      Mox::strepToValue< Span >( "3:256" );
      FAIL() << "out of range accepted";
   } catch ( const Mox::RangeException& e ) {
      EXPECT_EQ( e.attribute(), "to" );
      EXPECT_STREQ( e.what(), "to: number exceeds 255" );
   }
   // The outermost reader names the error; the inner name stays in the text.
   try {
      Mox::strepToValue< Labelled >( "span=300:1" );
      FAIL() << "out of range accepted";
   } catch ( const Mox::RangeException& e ) {
      EXPECT_EQ( e.attribute(), "span" );
      EXPECT_STREQ( e.what(), "span: from: number exceeds 255" );
      EXPECT_NE( e.line(), 0 );
   }
}

TEST( Parsing, ReadAttributePassesOtherErrorsAndValuesThrough ) {
   EXPECT_EQ( Mox::readAttribute( "a", [] { return 7; } ), 7 );
   try {
      Mox::readAttribute( "a", []() -> int { MOX_THROW( Mox::ParseException, "bad {}", 1 ); } );
      FAIL();
   } catch ( const Mox::RangeException& ) {
      FAIL() << "a parse error became a range error";
   } catch ( const Mox::ParseException& e ) {
      EXPECT_STREQ( e.what(), "bad 1" );
   }
   EXPECT_THROW( Mox::readAttribute( "a", []() -> int { throw std::logic_error( "x" ); } ),
                 std::logic_error );
   // A parse error inside a nested value is not renamed either.
   try {
      Mox::strepToValue< Labelled >( "span=3-1" );
      FAIL();
   } catch ( const Mox::ParseException& e ) {
      EXPECT_STREQ( e.what(), "expected \":\" at \"-1\"" );
   }
}

// ---- exceptions and assertions

TEST( Exception, CarriesTheRaisingLocation ) {
   int line = 0;
   try {
      line = __LINE__ + 1;
      MOX_THROW( Mox::RangeException, "value {} above {}", 300, 255 );
   } catch ( const Mox::Exception& e ) {
      EXPECT_STREQ( e.what(), "value 300 above 255" );
      EXPECT_EQ( e.line(), line );
      EXPECT_TRUE( std::string( e.file() ).ends_with( "StringTest.cpp" ) ) << e.file();
      EXPECT_STREQ( e.function(), "TestBody" );
      EXPECT_TRUE( dynamic_cast< const Mox::RangeException* >( &e ) );
      EXPECT_EQ( static_cast< const Mox::RangeException& >( e ).attribute(), "" );
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

}  // namespace
