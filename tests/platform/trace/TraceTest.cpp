// Trace handles and the level settings that configure them; the TRACE front
// end and both of its outputs: the text sink and the ring.
#include "platform/trace/DualLog.h"
#include "platform/trace/Handle.h"

#include "platform/mox/Exception.h"
#include "tests/support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using Line = TraceCapture::Line;

namespace {

std::atomic< int > pointFormats{ 0 }, namedFormats{ 0 };

struct Point { int x, y; };          // trivially copyable: the ring formats it when read
struct Named { std::string name; };  // owns memory: the ring formats it as the statement runs
struct Broken {};                    // its formatter fails, as a buggy one might

}  // namespace

template <> struct fmt::formatter< Point > : fmt::formatter< int > {
   auto format( Point p, format_context& ctx ) const {
      ++pointFormats;
      return fmt::format_to( ctx.out(), "({}, {})", p.x, p.y );
   }
};
template <> struct fmt::formatter< Named > : fmt::formatter< int > {
   auto format( const Named& n, format_context& ctx ) const {
      ++namedFormats;
      return fmt::format_to( ctx.out(), "<{}>", n.name );
   }
};
template <> struct fmt::formatter< Broken > : fmt::formatter< int > {
   auto format( Broken, format_context& ctx ) const -> decltype( ctx.out() ) {
      throw std::runtime_error( "formatter failed" );
   }
};

namespace {

Trace::Handle& modeTh() {
   static Trace::Handle& h = Trace::handle( "OrbEvpnModeSm" );
   return h;
}

std::vector< Line > ringLines() {
   std::vector< Line > out;
   Trace::RingLog::visit( [ & ]( const Trace::Record& r ) {
      out.push_back( { std::string( r.handle ), r.level, std::string( r.text ) } );
   } );
   return out;
}

std::vector< std::string > ringTexts() {
   std::vector< std::string > out;
   for ( const Line& l : ringLines() ) {
      out.push_back( l.text );
   }
   return out;
}

constexpr uint32_t bits( std::initializer_list< int > levels ) {
   uint32_t m = 0;
   for ( int l : levels ) {
      m |= 1u << l;
   }
   return m;
}

class HandleTest : public ::testing::Test {
 protected:
   void SetUp() override { Trace::resetConfiguration(); }
   void TearDown() override { Trace::resetConfiguration(); }
};

TEST_F( HandleTest, OneHandlePerNameAcrossThreads ) {
   std::vector< const Trace::Handle* > seen( 8 );
   {
      std::vector< std::jthread > threads;
      for ( size_t i = 0; i < seen.size(); ++i ) {
         threads.emplace_back( [ &seen, i ] { seen[ i ] = &Trace::handle( "RaceSm" ); } );
      }
   }
   EXPECT_EQ( std::set< const Trace::Handle* >( seen.begin(), seen.end() ).size(), 1u );
   EXPECT_EQ( seen[ 0 ]->name(), "RaceSm" );
}

TEST_F( HandleTest, ConfigureSetsExistingAndLaterHandlesAndTheLastEntryWins ) {
   Trace::Handle& tx = Trace::handle( "VxlanControllerEvpnTxSm" );
   Trace::configure( "VxlanControllerEvpnTxSm/0-8,OrbEvpnModeSm/8" );
   EXPECT_EQ( tx.levels(), 0x1FFu );
   // Created only now: picks up what was configured for its name.
   EXPECT_EQ( Trace::handle( "OrbEvpnModeSm" ).levels(), bits( { 8 } ) );
   // A later setting replaces a named handle's levels and leaves the others.
   Trace::configure( "OrbEvpnModeSm/1+3" );
   EXPECT_EQ( Trace::handle( "OrbEvpnModeSm" ).levels(), bits( { 1, 3 } ) );
   EXPECT_EQ( tx.levels(), 0x1FFu );
   // The wildcard covers every handle, earlier and later, and discards
   // earlier per-name entries; later entries win.
   Trace::Handle& early = Trace::handle( "EarlySm" );
   Trace::configure( "Named/2" );
   Trace::configure( "*/0-9" );
   EXPECT_EQ( Trace::handle( "Named" ).levels(), Trace::allLevels );
   Trace::configure( "*/5,EarlySm/1,*/6,LateSm/0" );
   EXPECT_EQ( early.levels(), bits( { 6 } ) );
   EXPECT_EQ( Trace::handle( "LateSm" ).levels(), bits( { 0 } ) );
   EXPECT_EQ( Trace::handle( "LaterStillSm" ).levels(), bits( { 6 } ) );
   Trace::resetConfiguration();
   EXPECT_EQ( early.levels(), 0u );
}

TEST_F( HandleTest, GrammarAcceptsListsRangesAndBlanksAndAMalformedSettingChangesNothing ) {
   Trace::configure( " Foo / 1 + 3 - 5 + 9 ,\tBar.x:y-z/0-0 " );
   EXPECT_EQ( Trace::handle( "Foo" ).levels(), bits( { 1, 3, 4, 5, 9 } ) );
   EXPECT_EQ( Trace::handle( "Bar.x:y-z" ).levels(), bits( { 0 } ) );
   Trace::Handle& good = Trace::handle( "Good" );
   good.levelsIs( bits( { 4 } ) );
   // Empty entries and levels, a level of two digits, a backwards range, a
   // dangling '+' or '-', no name, blanks in a name, levels joined by ','.
   for ( const char* bad : { "Good/1,", "Good/1,,Bad/2", "Good", "Good/", "Good/10", "Good/5-3",
                             "Good/1+", "Good/1-", "Good/a", "/3", "Go od/3", "Good/1 Bad/2",
                             "Good/1,3", "*x/1", "Good/1;Bad/2" } ) {
      EXPECT_THROW( Trace::configure( bad ), Mox::RangeException ) << bad;
      EXPECT_EQ( good.levels(), bits( { 4 } ) ) << bad;
   }
   // Entries before the error are not applied to later handles either.
   EXPECT_THROW( Trace::configure( "*/0-9,Later/1,Bad" ), Mox::RangeException );
   EXPECT_EQ( Trace::handle( "Later" ).levels(), 0u );
   EXPECT_THAT( [] { Trace::configure( "Foo/1,Bar/12" ); },
                ::testing::ThrowsMessage< Mox::RangeException >(
                   ::testing::StrEq( "bad trace level setting \"Foo/1,Bar/12\": "
                                     "level out of range 0-9 at offset 11" ) ) );
}

TEST_F( HandleTest, EnvironmentVariableConfigures ) {
   ::setenv( Trace::environmentVariable, "VxlanControllerEvpnTxSm/0-8,OrbEvpnModeSm/8", 1 );
   Trace::configureFromEnvironment();
   ::setenv( Trace::environmentVariable, "OrbEvpnModeSm/", 1 );
   EXPECT_THROW( Trace::configureFromEnvironment(), Mox::RangeException );
   ::unsetenv( Trace::environmentVariable );
   Trace::configureFromEnvironment();   // unset: the earlier setting stays
   EXPECT_EQ( Trace::handle( "VxlanControllerEvpnTxSm" ).levels(), 0x1FFu );
   EXPECT_EQ( Trace::handle( "OrbEvpnModeSm" ).levels(), bits( { 8 } ) );
}

class DualLogTest : public ::testing::Test {
 protected:
   void SetUp() override {
      Trace::resetConfiguration();
      Trace::RingLog::capacityIs( Trace::RingLog::defaultCapacity );   // also empties it
      pointFormats = namedFormats = 0;
   }
   void TearDown() override {
      Trace::textSinkIs( previous_ );
      Trace::resetConfiguration();
   }
   // The ring alone: a text sink would format every argument at once.
   void ringOnly( size_t capacity = Trace::RingLog::defaultCapacity ) {
      Trace::textSinkIs( nullptr );
      modeTh().levelsIs( Trace::allLevels );
      Trace::RingLog::capacityIs( capacity );
   }
   const std::shared_ptr< Trace::Sink > previous_ = Trace::textSink();
};

TEST_F( DualLogTest, EnabledStatementWritesExactTextAndRingAndADisabledOneEvaluatesNothing ) {
   TraceCapture capture( "OrbEvpnModeSm/8,VxlanControllerEvpnTxSm/3+4" );
   Trace::Handle& tx = Trace::handle( "VxlanControllerEvpnTxSm" );
   int evaluated = 0;
   for ( int level = Trace::minLevel; level <= Trace::maxLevel; ++level ) {
      TRACE( modeTh(), level, "level {} call {}", level, ++evaluated );
   }
   EXPECT_EQ( evaluated, 1 );
   bool on = true;
   const char* nullText = nullptr;
   char array[] = "chars";
   TRACE( modeTh(), 8, "Turning orbEvpnIntegrationMode {}", on ? "ON" : "OFF" );
   TRACE( tx, 3, "OrbEvpnTxSm()::publishBrId({})", 10042u );
   TRACE( tx, 4, "OrbEvpnTxSm()::publishBrId({}) return", 10042u );
   TRACE( modeTh(), 8, "flags {} {}", on, !on );
   TRACE( modeTh(), 8, "{} {} {}", nullText, array, std::string_view( "view" ) );
   const std::vector< Line > expected = {
      { "OrbEvpnModeSm", 8, "level 8 call 1" },
      { "OrbEvpnModeSm", 8, "Turning orbEvpnIntegrationMode ON" },
      { "VxlanControllerEvpnTxSm", 3, "OrbEvpnTxSm()::publishBrId(10042)" },
      { "VxlanControllerEvpnTxSm", 4, "OrbEvpnTxSm()::publishBrId(10042) return" },
      { "OrbEvpnModeSm", 8, "flags true false" },
      { "OrbEvpnModeSm", 8, "(null) chars view" } };
   EXPECT_EQ( capture.lines(), expected );
   EXPECT_EQ( ringLines(), expected );
}

TEST_F( DualLogTest, LineFormatIsUtcWithMicrosecondsAndTheFileSinkAppendsIt ) {
   // 2026-11-21 23:59:01 UTC is 1795305541 s after the epoch.
   Trace::Record r{ 1795305541'123456789, "OrbEvpnModeSm", 8, "mode ON" };
   EXPECT_EQ( Trace::formatLine( r ), "2026-11-21 23:59:01.123456 OrbEvpnModeSm 8 mode ON" );
   r.timestamp = -1000;   // a microsecond before the epoch
   r.text = "";
   EXPECT_EQ( Trace::formatLine( r ), "1969-12-31 23:59:59.999999 OrbEvpnModeSm 8 " );

   const std::string path = ::testing::TempDir() + "trace_file_sink_" + std::to_string( ::getpid() );
   Trace::textSinkIs( Trace::fileSink( path ) );
   modeTh().levelsIs( 1u << 8 );
   TRACE( modeTh(), 8, "first {}", 1 );
   TRACE( modeTh(), 8, "second" );
   Trace::textSinkIs( previous_ );
   std::ifstream in( path );
   std::vector< std::string > lines;
   for ( std::string l; std::getline( in, l ); ) {
      EXPECT_TRUE( l.size() > 27 && l[ 4 ] == '-' && l[ 19 ] == '.' ) << l;   // time stamp
      lines.push_back( l.substr( std::min< size_t >( 27, l.size() ) ) );
   }
   EXPECT_THAT( lines, ElementsAre( "OrbEvpnModeSm 8 first 1", "OrbEvpnModeSm 8 second" ) );
   std::remove( path.c_str() );
   EXPECT_THROW( Trace::fileSink( "/nonexistent-dir/trace.log" ), std::system_error );
}

TEST_F( DualLogTest, ConcurrentStatementsLoseAndTearNothing ) {
   TraceCapture capture( "OrbEvpnModeSm/8" );
   constexpr int threads = 4, perThread = 500;
   {
      std::vector< std::jthread > workers;
      for ( int t = 0; t < threads; ++t ) {
         workers.emplace_back( [ t ] {
            const std::string payload( 10 + t, static_cast< char >( 'a' + t ) );
            for ( int i = 0; i < perThread; ++i ) {
               TRACE( modeTh(), 8, "t{} i{} {}", t, i, payload );
            }
         } );
      }
      for ( int i = 0; i < 100; ++i ) {
         Trace::configure( "OrbEvpnModeSm/8,Other/1" );   // must not disturb running statements
      }
   }
   // Per thread, the text trace has every line in order, and the ring a
   // consecutive run ending at the last one; no line is torn.
   auto check = [ & ]( const std::vector< std::string >& texts, bool complete ) {
      std::vector< int > next( threads, complete ? 0 : -1 );
      for ( const std::string& s : texts ) {
         int t = -1, i = -1;
         char payload[ 64 ] = {};
         ASSERT_EQ( std::sscanf( s.c_str(), "t%d i%d %63s", &t, &i, payload ), 3 ) << s;
         ASSERT_TRUE( t >= 0 && t < threads ) << s;
         EXPECT_EQ( std::string( payload ), std::string( 10 + t, 'a' + t ) ) << s;
         EXPECT_TRUE( next[ t ] < 0 || i == next[ t ] ) << s;
         next[ t ] = i + 1;
      }
      for ( int n : next ) {
         EXPECT_TRUE( n == perThread || ( !complete && n < 0 ) );
      }
   };
   check( capture.texts(), true );
   const auto ring = ringTexts();
   EXPECT_GT( ring.size(), 100u );
   check( ring, false );
}

TEST_F( DualLogTest, RingKeepsArgumentValuesFromStatementTimeAndFormatsCopiesWhenRead ) {
   ringOnly();
   int n = 1;
   std::string s = "before";
   char buffer[ 16 ] = "array";
   Point p{ 1, 2 };
   Named named{ "first" };
   std::string_view view = s;
   const char* nullText = nullptr;
   TRACE( modeTh(), 5, "n={} s={} buf={} p={} named={} view={} null={} c={} d={:.2f} b={}", n, s,
          buffer, p, named, view, nullText, 'x', 2.5, false );
   TRACE( modeTh(), 7, "{}", Point{ 5, 6 } );
   n = 2;
   s = "AFTER!";   // same length: a dangling view would show the new bytes
   buffer[ 0 ] = 'A';
   p.x = 9;
   named.name = "second";
   EXPECT_EQ( pointFormats, 0 );
   EXPECT_EQ( namedFormats, 1 );   // as the statement ran
   const std::vector< std::string > lines = Trace::RingLog::lines();
   EXPECT_EQ( pointFormats, 2 );
   EXPECT_EQ( namedFormats, 1 );
   EXPECT_THAT( lines, ElementsAre( EndsWith( " OrbEvpnModeSm 5 n=1 s=before buf=array p=(1, 2) "
                                              "named=<first> view=before null=(null) c=x d=2.50 "
                                              "b=false" ),
                                    EndsWith( " OrbEvpnModeSm 7 (5, 6)" ) ) );
   std::ostringstream os;
   Trace::RingLog::dump( os );
   EXPECT_EQ( os.str(), lines[ 0 ] + "\n" + lines[ 1 ] + "\n" );
}

TEST_F( DualLogTest, RingWrapKeepsTheNewestRecordsInOrderAndMarksTheUnstorable ) {
   ringOnly( 1000 );
   // Uneven sizes, so records straddle the end of the ring at varied offsets.
   constexpr int statements = 500;
   auto text = []( int i ) { return std::string( i % 37, static_cast< char >( 'a' + i % 26 ) ); };
   for ( int i = 0; i < statements; ++i ) {
      TRACE( modeTh(), 1, "#{} {}", i, text( i ) );
   }
   const std::vector< std::string > texts = ringTexts();
   EXPECT_EQ( texts.size(), Trace::RingLog::recordCount() );
   ASSERT_GE( texts.size(), 5u );
   ASSERT_LT( texts.size(), size_t( statements ) );
   const int first = statements - static_cast< int >( texts.size() );
   for ( size_t k = 0; k < texts.size(); ++k ) {
      EXPECT_EQ( texts[ k ], fmt::format( "#{} {}", first + k, text( first + int( k ) ) ) );
   }
   // Oversized and unformattable records are marked; the rest are kept.
   Trace::RingLog::capacityIs( 1000 );
   TRACE( modeTh(), 2, "small {}", 1 );
   TRACE( modeTh(), 3, "huge {}", std::string( 5000, 'z' ) );
   TRACE( modeTh(), 1, "broken {}", Broken{} );
   TRACE( modeTh(), 4, "small {}", 2 );
   EXPECT_THAT( ringTexts(),
                ElementsAre( "small 1",
                             AllOf( HasSubstr( "dropped" ), HasSubstr( "huge {}" ),
                                    ::testing::Not( HasSubstr( "zzz" ) ) ),
                             "[trace record not formatted: formatter failed] broken {}", "small 2" ) );
   EXPECT_THROW( Trace::RingLog::capacityIs( Trace::RingLog::minCapacity - 1 ),
                 Mox::RangeException );
   EXPECT_EQ( Trace::RingLog::capacity(), 1000u );
}

}  // namespace
