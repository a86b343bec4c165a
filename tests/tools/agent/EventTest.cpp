// Controller event lines: what good ones mean, why bad ones are refused, line numbers.
#include "tools/agent/Event.h"
#include "tools/agent/EventLoop.h"
#include "tools/agent/Input.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

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
   EXPECT_EQ( reason( R"({"op":"vni","vni":10)" ), "not JSON" );
   EXPECT_EQ( reason( R"([1,2])" ), "not a JSON object" );
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
