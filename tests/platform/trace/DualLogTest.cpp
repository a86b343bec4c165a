#include "platform/trace/DualLog.h"

#include "tests/support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Formats as its value and counts how often fmt formatted it.
struct Counted {
   int value;
};
std::atomic< int > countedFormats{ 0 };

}  // namespace

template <>
struct fmt::formatter< Counted > : fmt::formatter< int > {
   auto format( Counted c, format_context& ctx ) const {
      ++countedFormats;
      return fmt::formatter< int >::format( c.value, ctx );
   }
};

namespace {

Trace::Handle& modeTh() {
   static Trace::Handle& h = Trace::handle( "OrbEvpnModeSm" );
   return h;
}

class DualLogTest : public ::testing::Test {
 protected:
   void SetUp() override {
      Trace::resetConfiguration();
      Trace::RingLog::clear();
      countedFormats = 0;
   }
   void TearDown() override { Trace::resetConfiguration(); }
};

TEST_F( DualLogTest, DisabledStatementEvaluatesNoArgument ) {
   TraceCapture capture( "OrbEvpnModeSm/8" );
   int evaluated = 0;
   auto arg = [ & ] { return ++evaluated; };
   for ( int level = Trace::minLevel; level <= Trace::maxLevel; ++level ) {
      TRACE( modeTh(), level, "level {} call {}", level, arg() );
   }
   EXPECT_EQ( evaluated, 1 );
   EXPECT_THAT( capture.lines(),
                ElementsAre( TraceCapture::Line{ "OrbEvpnModeSm", 8, "level 8 call 1" } ) );
   EXPECT_EQ( Trace::RingLog::recordCount(), 1u );
}

TEST_F( DualLogTest, EnabledStatementWritesExactTextAndRing ) {
   TraceCapture capture( "OrbEvpnModeSm/8,VxlanControllerEvpnTxSm/3+4" );
   Trace::Handle& tx = Trace::handle( "VxlanControllerEvpnTxSm" );
   bool on = true;
   TRACE( modeTh(), 8, "Turning orbEvpnIntegrationMode {}", on ? "ON" : "OFF" );
   TRACE( tx, 3, "OrbEvpnTxSm()::publishBrId({})", 10042u );
   TRACE( tx, 8, "not enabled" );
   TRACE( tx, 4, "OrbEvpnTxSm()::publishBrId({}) return", 10042u );
   TRACE( modeTh(), 8, "flags {} {}", on, !on );
   const char* nullText = nullptr;
   char array[] = "chars";
   TRACE( modeTh(), 8, "{} {} {}", nullText, array, std::string_view( "view" ) );

   EXPECT_THAT( capture.lines(),
                ElementsAre(
                   TraceCapture::Line{ "OrbEvpnModeSm", 8, "Turning orbEvpnIntegrationMode ON" },
                   TraceCapture::Line{ "VxlanControllerEvpnTxSm", 3,
                                       "OrbEvpnTxSm()::publishBrId(10042)" },
                   TraceCapture::Line{ "VxlanControllerEvpnTxSm", 4,
                                       "OrbEvpnTxSm()::publishBrId(10042) return" },
                   TraceCapture::Line{ "OrbEvpnModeSm", 8, "flags true false" },
                   TraceCapture::Line{ "OrbEvpnModeSm", 8, "(null) chars view" } ) );
   EXPECT_THAT( capture.texts( "VxlanControllerEvpnTxSm" ),
                ElementsAre( "OrbEvpnTxSm()::publishBrId(10042)",
                             "OrbEvpnTxSm()::publishBrId(10042) return" ) );

   // The ring holds the same statements, with handle and level.
   std::vector< std::string > ring;
   Trace::RingLog::visit( [ & ]( const Trace::Record& r ) {
      ring.push_back( fmt::format( "{} {} {}", r.handle, r.level, r.text ) );
   } );
   EXPECT_THAT( ring, ElementsAre( "OrbEvpnModeSm 8 Turning orbEvpnIntegrationMode ON",
                                   "VxlanControllerEvpnTxSm 3 OrbEvpnTxSm()::publishBrId(10042)",
                                   "VxlanControllerEvpnTxSm 4 OrbEvpnTxSm()::publishBrId(10042) return",
                                   "OrbEvpnModeSm 8 flags true false",
                                   "OrbEvpnModeSm 8 (null) chars view" ) );
}

TEST_F( DualLogTest, LineFormatIsUtcWithMicroseconds ) {
   // 2026-11-21 23:59:01 UTC is 1795305541 s after the epoch.
   Trace::Record r{ 1795305541'123456789, "OrbEvpnModeSm", 8,
                    "Turning orbEvpnIntegrationMode ON" };
   EXPECT_EQ( Trace::formatLine( r ),
              "2026-11-21 23:59:01.123456 OrbEvpnModeSm 8 Turning orbEvpnIntegrationMode ON" );
   r.timestamp = 0;
   r.text = "";
   EXPECT_EQ( Trace::formatLine( r ), "1970-01-01 00:00:00.000000 OrbEvpnModeSm 8 " );
   r.timestamp = -1000;  // a microsecond before the epoch
   EXPECT_EQ( Trace::formatLine( r ), "1969-12-31 23:59:59.999999 OrbEvpnModeSm 8 " );
}

TEST_F( DualLogTest, CaptureRestoresThePreviousSinkAndClears ) {
   modeTh().levelsIs( 1u << 8 );
   auto before = Trace::textSink();
   {
      TraceCapture outer;
      TRACE( modeTh(), 8, "one" );
      {
         TraceCapture inner;
         TRACE( modeTh(), 8, "two" );
         EXPECT_THAT( inner.texts(), ElementsAre( "two" ) );
      }
      TRACE( modeTh(), 8, "three" );
      EXPECT_THAT( outer.texts(), ElementsAre( "one", "three" ) );
      outer.clear();
      EXPECT_THAT( outer.texts(), IsEmpty() );
   }
   EXPECT_EQ( Trace::textSink(), before );
}

TEST_F( DualLogTest, WithoutTextSinkTheTextIsNeverFormatted ) {
   modeTh().levelsIs( 1u << 8 );
   auto before = Trace::textSink();
   Trace::textSinkIs( nullptr );
   TRACE( modeTh(), 8, "value {}", Counted{ 7 } );
   EXPECT_EQ( countedFormats, 0 );
   Trace::textSinkIs( before );
   {
      TraceCapture capture;
      TRACE( modeTh(), 8, "value {}", Counted{ 8 } );
      EXPECT_THAT( capture.texts(), ElementsAre( "value 8" ) );
   }
   EXPECT_EQ( countedFormats, 1 );
   EXPECT_THAT( Trace::RingLog::lines().size(), 2u );
}

TEST_F( DualLogTest, FileSinkAppendsFullLines ) {
   std::string path = ::testing::TempDir() + "trace_file_sink_" + std::to_string( ::getpid() );
   std::remove( path.c_str() );
   auto before = Trace::textSink();
   Trace::textSinkIs( Trace::fileSink( path ) );
   modeTh().levelsIs( 1u << 8 );
   TRACE( modeTh(), 8, "first {}", 1 );
   TRACE( modeTh(), 8, "second" );
   Trace::textSinkIs( before );

   std::ifstream in( path );
   std::vector< std::string > lines;
   for ( std::string l; std::getline( in, l ); ) {
      // Drop the time stamp: "YYYY-MM-DD HH:MM:SS.uuuuuu ".
      ASSERT_GT( l.size(), 27u ) << l;
      EXPECT_EQ( l[ 4 ], '-' ) << l;
      EXPECT_EQ( l[ 19 ], '.' ) << l;
      lines.push_back( l.substr( 27 ) );
   }
   EXPECT_THAT( lines, ElementsAre( "OrbEvpnModeSm 8 first 1", "OrbEvpnModeSm 8 second" ) );
   std::remove( path.c_str() );
   EXPECT_THROW( Trace::fileSink( "/nonexistent-dir/trace.log" ), std::system_error );
}

TEST_F( DualLogTest, ConcurrentStatementsLoseAndTearNothing ) {
   TraceCapture capture( "OrbEvpnModeSm/8" );
   constexpr int threads = 4;
   constexpr int perThread = 500;
   std::vector< std::thread > workers;
   for ( int t = 0; t < threads; ++t ) {
      workers.emplace_back( [ t ] {
         std::string payload( 10 + t, static_cast< char >( 'a' + t ) );
         for ( int i = 0; i < perThread; ++i ) {
            TRACE( modeTh(), 8, "t{} i{} {}", t, i, payload );
         }
      } );
   }
   // Reconfiguring while statements run must not disturb them.
   for ( int i = 0; i < 100; ++i ) {
      Trace::configure( "OrbEvpnModeSm/8,Other/1" );
   }
   for ( auto& w : workers ) {
      w.join();
   }

   // Per thread, the text trace has every line in order, and the ring a
   // consecutive run ending at the last one; no line is torn.
   auto check = [ & ]( const std::vector< std::string >& texts, bool complete ) {
      std::vector< int > next( threads, -1 );
      for ( const std::string& s : texts ) {
         int t = -1;
         int i = -1;
         char payload[ 64 ] = {};
         EXPECT_EQ( std::sscanf( s.c_str(), "t%d i%d %63s", &t, &i, payload ), 3 ) << s;
         if ( t < 0 || t >= threads ) {
            ADD_FAILURE() << s;
            continue;
         }
         EXPECT_EQ( std::string( payload ), std::string( 10 + t, 'a' + t ) ) << s;
         if ( next[ t ] >= 0 || complete ) {
            EXPECT_EQ( i, std::max( next[ t ], 0 ) ) << s;
         }
         next[ t ] = i + 1;
      }
      for ( int t = 0; t < threads; ++t ) {
         if ( complete || next[ t ] >= 0 ) {
            EXPECT_EQ( next[ t ], perThread ) << t;
         }
      }
   };
   check( capture.texts(), true );
   std::vector< std::string > ring;
   Trace::RingLog::visit( [ & ]( const Trace::Record& r ) { ring.emplace_back( r.text ); } );
   EXPECT_GT( ring.size(), 100u );
   check( ring, false );
}

}  // namespace
