// Controller event lines: what good ones mean, why bad ones are refused, line numbers.
#include "tools/agent/Event.h"
#include "tools/agent/EventLoop.h"
#include "tools/agent/Input.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>
#include <tuple>

#include <unistd.h>

using namespace Agent;
using ::testing::ElementsAre;
using ::testing::Pair;

namespace {

Event good( std::string_view line ) {
   Parsed p = parseEvent( line );
   if ( auto* why = std::get_if< std::string >( &p ) ) {
      ADD_FAILURE() << line << ": " << *why;
      return {};
   }
   return std::get< Event >( p );
}

std::string reason( std::string_view line ) {
   Parsed p = parseEvent( line );
   if ( std::holds_alternative< Event >( p ) ) {
      ADD_FAILURE() << line << " was accepted";
      return {};
   }
   return std::get< std::string >( p );
}

constexpr Mac mac1{ 0x02, 0, 0, 0, 0, 0x01 };

}  // namespace

TEST( EventParser, GoodLinesOfEveryKind ) {
   Event e = good( R"({"op":"mac","vni":10,"mac":"02:00:00:00:00:01","vtep":"192.0.2.1","seqNo":3,"preference":7})" );
   EXPECT_EQ( e.op, Event::Op::mac );
   EXPECT_EQ( e.vni, 10u );
   EXPECT_EQ( e.mac, mac1 );
   EXPECT_EQ( e.vtep, 0xC0000201u );
   EXPECT_EQ( e.seqNo, 3u );
   EXPECT_EQ( e.preference, 7 );
   // Preference defaults to 16; upper-case hex and the range ends are fine.
   e = good( R"({"op":"mac","vni":16777215,"mac":"02:AB:00:00:00:01","vtep":"255.255.255.255","seqNo":4294967295})" );
   EXPECT_EQ( e.preference, 16 );
   EXPECT_EQ( e.vni, 0xFFFFFFu );
   EXPECT_EQ( e.seqNo, 0xFFFFFFFFu );
   EXPECT_EQ( e.mac[ 1 ], 0xAB );

   e = good( R"({"op":"flood","vni":10,"vtep":"192.0.2.9"})" );
   EXPECT_EQ( e.op, Event::Op::flood );
   EXPECT_EQ( e.mac, Mac{} ) << "the all-BUM list unless told";
   EXPECT_TRUE( e.value );
   e = good( R"({"op":"flood","vni":10,"vtep":"192.0.2.9","value":false,"mac":"02:00:00:00:00:01"})" );
   EXPECT_FALSE( e.value );
   EXPECT_EQ( e.mac, mac1 );

   e = good( R"({"op":"multiPath","vni":10,"mac":"02:00:00:00:00:01","vteps":["192.0.2.1","192.0.2.2"]})" );
   EXPECT_THAT( e.vteps, ElementsAre( 0xC0000201u, 0xC0000202u ) );
   EXPECT_EQ( good( R"({"op":"controllerdb","enabled":false})" ).value, false );
   EXPECT_EQ( good( R"({"op":"synced"})" ).op, Event::Op::synced );
   EXPECT_EQ( good( R"({"op":"vniDel","vni":0})" ).op, Event::Op::vniDel );
   EXPECT_EQ( good( R"({"op":"floodDel","vni":3,"vtep":"10.0.0.1"})" ).vtep, 0x0A000001u );
   // Tables of the EVPN side parse, so that they can be refused by name.
   EXPECT_EQ( tableWritten( good( R"({"op":"capability","evpnEnabled":true})" ).op ), "evpn/capability" );
   EXPECT_EQ( tableWritten( Event::Op::mac ), "" );
}

TEST( EventParser, EveryKindOfBadLineSaysWhy ) {
   EXPECT_EQ( reason( R"({"op":"mac","vni":10,"mac":"zz","vtep":"192.0.2.1","seqNo":1})" ), "bad MAC \"zz\"" );
   EXPECT_EQ( reason( R"({"op":"mac","vni":10,"mac":"02:00:00:00:00:0g","vtep":"1.2.3.4","seqNo":1})" ),
              "bad MAC \"02:00:00:00:00:0g\"" );
   EXPECT_EQ( reason( R"({"op":"mac","vni":10,"mac":"02-00-00-00-00-01","vtep":"1.2.3.4","seqNo":1})" ),
              "bad MAC \"02-00-00-00-00-01\"" );
   EXPECT_EQ( reason( R"({"op":"flood","vni":10,"vtep":"192.0.2.256"})" ), "bad VTEP \"192.0.2.256\"" );
   EXPECT_EQ( reason( R"({"op":"flood","vni":10,"vtep":"192.0.2"})" ), "bad VTEP \"192.0.2\"" );
   EXPECT_EQ( reason( R"({"op":"flood","vni":10,"vtep":"192.0.2.01"})" ), "bad VTEP \"192.0.2.01\"" );
   EXPECT_EQ( reason( R"({"op":"vni","vni":16777216})" ), "VNI 16777216 out of range 0..16777215" );
   EXPECT_EQ( reason( R"({"op":"vni","vni":-1})" ), "VNI -1 out of range 0..16777215" );
   EXPECT_EQ( reason( R"({"op":"vni","vni":1.5})" ), "\"vni\" is not a whole number: 1.5" );
   EXPECT_EQ( reason( R"({"op":"vni","vni":"10"})" ), "\"vni\" is not a whole number: \"10\"" );
   EXPECT_EQ( reason( R"({"op":"mac","vni":1,"mac":"02:00:00:00:00:01","vtep":"1.2.3.4","seqNo":4294967296})" ),
              "seqNo 4294967296 out of range 0..4294967295" );
   EXPECT_EQ( reason( R"({"op":"mac","vni":1,"mac":"02:00:00:00:00:01","vtep":"1.2.3.4","seqNo":1,"preference":256})" ),
              "preference 256 out of range 0..255" );
   EXPECT_EQ( reason( R"({"op":"mac","vni":1,"mac":"02:00:00:00:00:01","seqNo":1})" ), "missing \"vtep\"" );
   EXPECT_EQ( reason( R"({"vni":1})" ), "missing \"op\"" );
   EXPECT_EQ( reason( R"({"op":"learn","vni":1})" ), "unknown op \"learn\"" );
   EXPECT_EQ( reason( R"({"op":7})" ), "\"op\" is not a string: 7" );
   EXPECT_EQ( reason( R"({"op":"controllerdb","enabled":"yes"})" ), "\"enabled\" is not true or false: \"yes\"" );
   EXPECT_EQ( reason( R"({"op":"multiPath","vni":1,"mac":"02:00:00:00:00:01","vteps":"1.2.3.4"})" ),
              "\"vteps\" is not a list: \"1.2.3.4\"" );
   EXPECT_EQ( reason( R"({"op":"multiPath","vni":1,"mac":"02:00:00:00:00:01","vteps":["1.2.3.4",5]})" ),
              "\"vteps\" is not a string: 5" );
   EXPECT_EQ( reason( R"({"op":"vni","vni":10)" ),
              "not JSON at column 21: syntax error while parsing object - unexpected end of input; expected '}'" );
   EXPECT_THAT( reason( "{\"op\":\"vni\",\"vni\":\"\xff\"}" ), ::testing::StartsWith( "not JSON at column 20: " ) );
   EXPECT_EQ( reason( R"([1,2])" ), "not a JSON object" );
}

// A reason quotes the input escaped and cut short: a feed cannot forge a
// line of the agent's log, nor make one line of it megabytes long.
TEST( EventParser, QuotedInputCannotForgeALogLineNorGrowIt ) {
   EXPECT_EQ( reason( R"({"op":"learn\nline 9: forged\u001b[2J"})" ), R"(unknown op "learn\nline 9: forged\u001b[2J")" );
   EXPECT_EQ( reason( R"({"op":"h\u00e9"})" ), R"(unknown op "h\u00e9")" );
   const std::string hugeMac( 100000, 'a' );
   EXPECT_EQ( reason( R"({"op":"macDel","vni":1,"mac":")" + hugeMac + "\"}" ),
              "bad MAC \"" + std::string( 63, 'a' ) + "... (100002 bytes)" );
   const std::string garbage = "{\"op\":" + std::string( 100000, '\x01' );
   EXPECT_LT( reason( garbage ).size(), 250u );
   EXPECT_EQ( reason( garbage ).find_first_of( std::string( "\x01\n", 2 ) ), std::string::npos );
}

// No event names a file or a table: tables come from the op, through the
// boundary's list, and a value shaped like a path is refused as a value.
TEST( EventParser, NoEventFieldNamesAPath ) {
   EXPECT_EQ( reason( R"({"op":"vni","vni":"../../etc"})" ), R"("vni" is not a whole number: "../../etc")" );
   EXPECT_EQ( reason( R"({"op":"../evpn/host"})" ), R"(unknown op "../evpn/host")" );
   EXPECT_EQ( reason( R"({"op":"/orbevpn/evpn/host"})" ), R"(unknown op "/orbevpn/evpn/host")" );
   const Event e = good( R"({"op":"capability","evpnEnabled":true,"table":"/etc/passwd","path":"../x"})" );
   EXPECT_EQ( tableWritten( e.op ), "evpn/capability" );
}

// A refusal quotes the offending value; a list or an object only by its
// kind, since a line can nest deeper than writing it out could recurse.
TEST( EventParser, DeeplyNestedValuesAreRefusedWithoutWritingThemOut ) {
   const size_t depth = 200000;
   const std::string nested = std::string( depth, '[' ) + std::string( depth, ']' );
   EXPECT_EQ( reason( R"({"op":)" + nested + "}" ), "\"op\" is not a string: [...]" );
   EXPECT_EQ( reason( R"({"op":"mac","vni":1,"mac":)" + nested + R"(,"vtep":"1.2.3.4","seqNo":1})" ),
              "\"mac\" is not a string: [...]" );
   EXPECT_EQ( reason( R"({"op":"multiPath","vni":1,"mac":"02:00:00:00:00:01","vteps":[)" + nested + "]}" ),
              "\"vteps\" is not a string: [...]" );
   EXPECT_EQ( reason( R"({"op":"controllerdb","enabled":{"a":{"b":1}}})" ), "\"enabled\" is not true or false: {...}" );
   EXPECT_EQ( reason( R"({"op":"vni","vni":[1]})" ), "\"vni\" is not a whole number: [...]" );
}

TEST( EventParser, WrittenEventsReadBackTheSame ) {
   const char* lines[] = {
      R"({"op":"mac","vni":10,"mac":"02:00:00:00:00:01","vtep":"192.0.2.1","seqNo":3,"preference":7})",
      R"({"op":"flood","vni":10,"mac":"02:00:00:00:00:01","vtep":"192.0.2.9","value":false})",
      R"({"op":"floodDel","vni":10,"vtep":"192.0.2.9"})",
      R"({"op":"multiPath","vni":10,"mac":"02:00:00:00:00:01","vteps":["192.0.2.1"]})",
      R"({"op":"multiPathDel","vni":10,"mac":"02:00:00:00:00:01"})",
      R"({"op":"macDel","vni":10,"mac":"02:00:00:00:00:01"})",
      R"({"op":"controllerdb","enabled":true})",
      R"({"op":"vni","vni":7})",
      R"({"op":"synced"})",
   };
   for ( const char* l : lines ) {
      const Event e = good( l );
      EXPECT_EQ( good( eventJson( e ) ), e ) << l;
   }
   // The flood list's MAC is written only when it is not the all-BUM one.
   EXPECT_EQ( eventJson( good( R"({"op":"flood","vni":1,"vtep":"1.2.3.4"})" ) ),
              R"({"op":"flood","value":true,"vni":1,"vtep":"1.2.3.4"})" );
}

// Lines are numbered from 1 counting blank ones, a last line without a
// newline still counts, and lines around a bad one all arrive.
TEST( EventInput, EveryLineArrivesWithItsNumber ) {
   char path[] = "/tmp/agent-input-XXXXXX";
   const int fd = ::mkstemp( path );
   ASSERT_GE( fd, 0 );
   ::close( fd );
   {
      std::ofstream f( path );
      f << "{\"op\":\"vni\",\"vni\":1}\n\n{bad\n";
      for ( int i = 0; i < 10000; ++i ) {   // more than one read and one slice
         f << "{\"op\":\"vni\",\"vni\":" << i << "}\n";
      }
      f << "{\"op\":\"synced\"}";
   }
   EventLoop loop;
   std::vector< std::pair< uint64_t, std::string > > got;
   bool ended = false;
   Input in( loop, path, [ & ]( std::string_view l, uint64_t n ) { got.emplace_back( n, std::string( l ) ); },
             [ & ] {
                ended = true;
                loop.stop();
             } );
   loop.run();
   ::unlink( path );
   EXPECT_TRUE( ended );
   EXPECT_TRUE( in.ended() );
   ASSERT_EQ( got.size(), 10004u );
   EXPECT_THAT( std::vector( got.begin(), got.begin() + 4 ),
                ElementsAre( Pair( 1u, "{\"op\":\"vni\",\"vni\":1}" ), Pair( 2u, "" ), Pair( 3u, "{bad" ),
                             Pair( 4u, "{\"op\":\"vni\",\"vni\":0}" ) ) );
   for ( size_t i = 0; i < got.size(); ++i ) ASSERT_EQ( got[ i ].first, i + 1 );
   EXPECT_EQ( got.back().second, "{\"op\":\"synced\"}" );
}

// A line over the limit is counted, not kept: it reaches onTooLong with its
// number and length, and the lines around it arrive with their byte offsets.
TEST( EventInput, AnOverlongLineIsSkippedAndTheRestArrives ) {
   int fds[ 2 ];
   ASSERT_EQ( ::pipe( fds ), 0 );
   EventLoop loop;
   std::vector< std::tuple< uint64_t, uint64_t, std::string > > got;   // number, offset, text
   std::vector< std::pair< uint64_t, uint64_t > > tooLong;
   const std::string path = "/dev/fd/" + std::to_string( fds[ 0 ] );
   std::unique_ptr< Input > in;
   in = std::make_unique< Input >(
      loop, path, [ & ]( std::string_view l, uint64_t n ) { got.emplace_back( n, in->lineOffset(), std::string( l ) ); },
      [ & ] { loop.stop(); } );
   in->maxLineIs( 100 );
   in->onTooLongIs( [ & ]( uint64_t n, uint64_t bytes ) { tooLong.emplace_back( n, bytes ); } );
   ::close( fds[ 0 ] );
   // The writer: 8 MB without a newline cannot sit in a pipe, so the reader
   // takes it while it comes.
   std::thread writer( [ w = fds[ 1 ] ] {
      auto put = [ w ]( const std::string& s ) {
         for ( size_t off = 0; off < s.size(); ) {
            const ssize_t n = ::write( w, s.data() + off, s.size() - off );
            if ( n <= 0 ) return;
            off += size_t( n );
         }
      };
      put( "first\n" + std::string( 100, 'x' ) + "\n" );   // exactly the limit
      for ( int i = 0; i < 128; ++i ) put( std::string( 65536, 'y' ) );
      put( "\nthird\n" + std::string( 101, 'z' ) );          // the last line, over by one
      ::close( w );
   } );
   loop.run();
   writer.join();
   EXPECT_THAT( got, ElementsAre( std::make_tuple( 1u, 0u, "first" ), std::make_tuple( 2u, 6u, std::string( 100, 'x' ) ),
                                  std::make_tuple( 4u, 107u + 128u * 65536u + 1u, "third" ) ) );
   EXPECT_THAT( tooLong, ElementsAre( Pair( 3u, 128u * 65536u ), Pair( 5u, 101u ) ) );
}
