#include "platform/trace/DualLog.h"

#include "platform/mox/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::atomic< int > rawFormats{ 0 };
std::atomic< int > ownedFormats{ 0 };

// Trivially copyable: kept as bytes and formatted when the ring is read.
struct Point {
   int x;
   int y;
};

// Owns memory: formatted when the statement runs.
struct Named {
   std::string name;
};

// Its formatter fails, as a buggy one might.
struct Broken {
   int unused;
};

}  // namespace

template <>
struct fmt::formatter< Point > {
   constexpr auto parse( format_parse_context& ctx ) { return ctx.begin(); }
   auto format( Point p, format_context& ctx ) const {
      ++rawFormats;
      return fmt::format_to( ctx.out(), "({}, {})", p.x, p.y );
   }
};

template <>
struct fmt::formatter< Named > {
   constexpr auto parse( format_parse_context& ctx ) { return ctx.begin(); }
   auto format( const Named& n, format_context& ctx ) const {
      ++ownedFormats;
      return fmt::format_to( ctx.out(), "<{}>", n.name );
   }
};

template <>
struct fmt::formatter< Broken > {
   constexpr auto parse( format_parse_context& ctx ) { return ctx.begin(); }
   auto format( Broken, format_context& ctx ) const -> decltype( ctx.out() ) {
      throw std::runtime_error( "formatter failed" );
   }
};

namespace {

Trace::Handle& ringTh() {
   static Trace::Handle& h = Trace::handle( "RingSm" );
   return h;
}

std::vector< std::string > ringTexts() {
   std::vector< std::string > out;
   Trace::RingLog::visit( [ & ]( const Trace::Record& r ) { out.emplace_back( r.text ); } );
   return out;
}

class RingLogTest : public ::testing::Test {
 protected:
   void SetUp() override {
      previous_ = Trace::textSink();
      // The text trace would format every argument at once; without it, the
      // ring is the only consumer.
      Trace::textSinkIs( nullptr );
      Trace::RingLog::capacityIs( Trace::RingLog::defaultCapacity );
      ringTh().levelsIs( Trace::allLevels );
      rawFormats = 0;
      ownedFormats = 0;
   }
   void TearDown() override {
      Trace::textSinkIs( previous_ );
      Trace::RingLog::capacityIs( Trace::RingLog::defaultCapacity );
   }
   std::shared_ptr< Trace::Sink > previous_;
};

TEST_F( RingLogTest, KeepsArgumentValuesFromStatementTime ) {
   int n = 1;
   std::string s = "before";
   char buffer[ 16 ] = "array";
   Point p{ 1, 2 };
   Named named{ "first" };
   std::string_view view = s;
   const char* nullText = nullptr;
   TRACE( ringTh(), 5, "n={} s={} buf={} p={} named={} view={} null={} c={} d={:.2f} b={}",
          n, s, buffer, p, named, view, nullText, 'x', 2.5, false );
   n = 2;
   s = "AFTER!";  // same length: a dangling view would show the new bytes
   buffer[ 0 ] = 'A';
   p.x = 9;
   named.name = "second";

   EXPECT_THAT( ringTexts(), ElementsAre( "n=1 s=before buf=array p=(1, 2) named=<first> "
                                          "view=before null=(null) c=x d=2.50 b=false" ) );
}

TEST_F( RingLogTest, FormatsTriviallyCopyableArgumentsOnlyWhenRead ) {
   TRACE( ringTh(), 5, "{} {}", Point{ 1, 2 }, Point{ 3, 4 } );
   TRACE( ringTh(), 6, "{}", Named{ "x" } );
   TRACE( ringTh(), 7, "{}", Point{ 5, 6 } );
   EXPECT_EQ( rawFormats, 0 );
   EXPECT_EQ( ownedFormats, 1 );  // formatted as the statement ran

   std::vector< std::string > lines = Trace::RingLog::lines();
   EXPECT_EQ( rawFormats, 3 );
   EXPECT_EQ( ownedFormats, 1 );
   ASSERT_EQ( lines.size(), 3u );
   EXPECT_THAT( lines[ 0 ], ::testing::EndsWith( " RingSm 5 (1, 2) (3, 4)" ) );
   EXPECT_THAT( lines[ 1 ], ::testing::EndsWith( " RingSm 6 <x>" ) );
   EXPECT_THAT( lines[ 2 ], ::testing::EndsWith( " RingSm 7 (5, 6)" ) );

   std::ostringstream os;
   Trace::RingLog::dump( os );
   EXPECT_EQ( os.str(), lines[ 0 ] + "\n" + lines[ 1 ] + "\n" + lines[ 2 ] + "\n" );
   EXPECT_EQ( rawFormats, 6 );
}

TEST_F( RingLogTest, WrapKeepsTheNewestRecordsInOrder ) {
   Trace::RingLog::capacityIs( 1000 );
   // Uneven sizes, so records straddle the end of the ring at varied offsets.
   constexpr int statements = 500;
   for ( int i = 0; i < statements; ++i ) {
      TRACE( ringTh(), 1, "#{} {}", i, std::string( i % 37, static_cast< char >( 'a' + i % 26 ) ) );
   }
   std::vector< std::string > texts = ringTexts();
   EXPECT_EQ( texts.size(), Trace::RingLog::recordCount() );
   // At most 48 + 4 + 4 + 36 bytes a record: well over five fit.
   ASSERT_GE( texts.size(), 5u );
   ASSERT_LT( texts.size(), size_t( statements ) );
   int first = statements - static_cast< int >( texts.size() );
   for ( size_t k = 0; k < texts.size(); ++k ) {
      int i = first + static_cast< int >( k );
      EXPECT_EQ( texts[ k ],
                 fmt::format( "#{} {}", i, std::string( i % 37, static_cast< char >( 'a' + i % 26 ) ) ) );
   }
}

TEST_F( RingLogTest, OversizedRecordBecomesAMarker ) {
   Trace::RingLog::capacityIs( Trace::RingLog::minCapacity );
   TRACE( ringTh(), 2, "small {}", 1 );
   TRACE( ringTh(), 3, "huge {}", std::string( 5000, 'z' ) );
   TRACE( ringTh(), 4, "small {}", 2 );
   std::vector< std::string > texts = ringTexts();
   ASSERT_EQ( texts.size(), 3u );
   EXPECT_EQ( texts[ 0 ], "small 1" );
   EXPECT_THAT( texts[ 1 ], HasSubstr( "dropped" ) );
   EXPECT_THAT( texts[ 1 ], HasSubstr( "huge {}" ) );
   EXPECT_THAT( texts[ 1 ], ::testing::Not( HasSubstr( "zzz" ) ) );
   EXPECT_EQ( texts[ 2 ], "small 2" );
}

TEST_F( RingLogTest, BadFormatterSpoilsOnlyItsOwnRecord ) {
   TRACE( ringTh(), 1, "before" );
   TRACE( ringTh(), 1, "broken {}", Broken{ 0 } );
   TRACE( ringTh(), 1, "after" );
   std::vector< std::string > texts = ringTexts();
   ASSERT_EQ( texts.size(), 3u );
   EXPECT_EQ( texts[ 0 ], "before" );
   EXPECT_EQ( texts[ 1 ], "[trace record not formatted: formatter failed] broken {}" );
   EXPECT_EQ( texts[ 2 ], "after" );
}

TEST_F( RingLogTest, CapacityChangeEmptiesTheRingAndHasAFloor ) {
   TRACE( ringTh(), 1, "gone" );
   Trace::RingLog::capacityIs( 4096 );
   EXPECT_EQ( Trace::RingLog::capacity(), 4096u );
   EXPECT_EQ( Trace::RingLog::recordCount(), 0u );
   EXPECT_THROW( Trace::RingLog::capacityIs( Trace::RingLog::minCapacity - 1 ),
                 Mox::RangeException );
   EXPECT_EQ( Trace::RingLog::capacity(), 4096u );
   TRACE( ringTh(), 1, "kept" );
   Trace::RingLog::clear();
   EXPECT_EQ( Trace::RingLog::recordCount(), 0u );
   EXPECT_TRUE( ringTexts().empty() );
}

}  // namespace
