// The demo generator: deterministic, a complete snapshot, churn that only moves forward.
#include "tools/agent/Demo.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace Agent;

namespace {

std::vector< Event > everything( const DemoOptions& o, size_t churn ) {
   Demo d( o );
   std::vector< Event > out;
   while ( d.snapshot( out, 333 ) ) {
   }
   d.churn( out, churn );
   return out;
}

// A whole snapshot, and what it announces per VNI.
struct Snapshot {
   std::vector< Event > events;
   size_t announcedSize = 0;   // Demo::snapshotSize()
   std::set< uint32_t > vnis;
   std::map< uint32_t, std::set< Mac > > macs;
   std::map< uint32_t, std::set< uint32_t > > flood;
};

Snapshot snapshotOf( const DemoOptions& o ) {
   Demo d( o );
   Snapshot s;
   while ( d.snapshot( s.events, 1000 ) ) {
   }
   s.announcedSize = d.snapshotSize();
   for ( const Event& e : s.events ) {
      if ( e.op == Event::Op::vni ) s.vnis.insert( e.vni );
      if ( e.op == Event::Op::mac ) s.macs[ e.vni ].insert( e.mac );
      if ( e.op == Event::Op::flood ) s.flood[ e.vni ].insert( e.vtep );
   }
   return s;
}

}  // namespace

TEST( Demo, SameOptionsSameEventsAndTheSeedMatters ) {
   DemoOptions o;
   o.vnis = 5;
   o.macs = 20;
   o.seed = 42;
   const auto a = everything( o, 500 );
   EXPECT_EQ( a, everything( o, 500 ) );
   // Batch size does not change the stream.
   Demo d( o );
   std::vector< Event > b;
   while ( d.snapshot( b, 1 ) ) {
   }
   d.churn( b, 200 );
   d.churn( b, 300 );
   EXPECT_EQ( a, b );
   o.seed = 43;
   EXPECT_NE( a, everything( o, 500 ) );
}

TEST( Demo, SnapshotHoldsEveryVniMacAndTwoFloodVtepsThenSynced ) {
   DemoOptions o;
   o.vnis = 4;
   o.macs = 300;
   o.skipVni = 2;
   Snapshot snap = snapshotOf( o );
   const std::vector< Event >& s = snap.events;
   ASSERT_EQ( s.size(), snap.announcedSize );
   EXPECT_EQ( s.size(), 1 + 3 + 3 * 300 + 3 * 2 + 1u );
   EXPECT_EQ( s.front().op, Event::Op::controllerdb );
   EXPECT_TRUE( s.front().value );
   EXPECT_EQ( s.back().op, Event::Op::synced );
   std::set< uint32_t > seen;
   for ( const Event& e : s ) {
      EXPECT_NE( e.vni, 2u ) << "the skipped VNI appears";
      if ( e.op == Event::Op::vni ) seen.insert( e.vni );
      if ( e.op == Event::Op::mac ) {
         EXPECT_TRUE( seen.count( e.vni ) ) << "a MAC before its VNI";
         EXPECT_EQ( e.vtep >> 8, 0xC00002u ) << "not in 192.0.2.0/24";
      }
   }
   EXPECT_EQ( snap.vnis, ( std::set< uint32_t >{ 1, 3, 4 } ) );
   for ( uint32_t v : snap.vnis ) {
      EXPECT_EQ( snap.macs[ v ].size(), 300u ) << v;
      EXPECT_EQ( snap.flood[ v ].size(), 2u ) << v;
   }
}

// A restart over the tables of a larger run: the multiples of N are gone,
// every other VNI keeps its MACs and flood VTEPs.
TEST( Demo, VanishEveryLeavesOutTheMultiplesOnly ) {
   DemoOptions o;
   o.vnis = 9;
   o.macs = 3;
   o.vanishEvery = 4;
   Snapshot snap = snapshotOf( o );
   ASSERT_EQ( snap.events.size(), snap.announcedSize );
   EXPECT_EQ( snap.events.size(), 1 + 7 + 7 * 3 + 7 * 2 + 1u );
   EXPECT_EQ( snap.vnis, ( std::set< uint32_t >{ 1, 2, 3, 5, 6, 7, 9 } ) );
   for ( uint32_t v : snap.vnis ) {
      auto& macs = snap.macs;
      auto& flood = snap.flood;
      EXPECT_EQ( macs[ v ], ( std::set< Mac >{ Demo::macOf( v, 0 ), Demo::macOf( v, 1 ), Demo::macOf( v, 2 ) } ) ) << v;
      EXPECT_EQ( flood[ v ], ( std::set< uint32_t >{ Demo::floodVtep( v, 0 ), Demo::floodVtep( v, 1 ) } ) ) << v;
   }
}

TEST( Demo, ChurnMovesForwardForgetsRelearnsAndRemovesOneVni ) {
   DemoOptions o;
   o.vnis = 3;
   o.macs = 50;
   Demo d( o );
   std::vector< Event > s;
   while ( d.snapshot( s, 1000 ) ) {
   }
   std::map< std::pair< uint32_t, Mac >, uint32_t > seq;
   for ( const Event& e : s ) {
      if ( e.op == Event::Op::mac ) seq[ { e.vni, e.mac } ] = e.seqNo;
   }
   std::vector< Event > c;
   d.churn( c, 2000 );
   size_t moves = 0, forgets = 0, relearns = 0, vniDels = 0;
   std::optional< uint32_t > removed;
   for ( const Event& e : c ) {
      if ( removed ) {
         EXPECT_NE( e.vni, *removed ) << "churn on a removed VNI";
      }
      const auto k = std::make_pair( e.vni, e.mac );
      switch ( e.op ) {
       case Event::Op::vniDel:
         ++vniDels;
         removed = e.vni;
         break;
       case Event::Op::macDel:
         ASSERT_TRUE( seq.count( k ) ) << "forgets a MAC it never learnt";
         seq.erase( k );
         ++forgets;
         break;
       case Event::Op::mac:
         if ( seq.count( k ) ) {
            EXPECT_GT( e.seqNo, seq[ k ] ) << "a move without a higher sequence number";
            ++moves;
         } else {
            EXPECT_EQ( e.seqNo, 1u );
            ++relearns;
         }
         seq[ k ] = e.seqNo;
         break;
       default:
         ADD_FAILURE() << "unexpected churn event " << opName( e.op );
      }
   }
   EXPECT_EQ( vniDels, 1u );
   EXPECT_EQ( removed, 3u ) << "the highest VNI goes";
   EXPECT_GT( moves, 1000u );
   EXPECT_GT( forgets, 50u );
   EXPECT_GT( relearns, 20u );
}

TEST( Demo, SizeText ) {
   DemoOptions o;
   EXPECT_TRUE( Demo::parseSize( "7:9", o ) );
   EXPECT_EQ( o.vnis, 7u );
   EXPECT_EQ( o.macs, 9u );
   for ( const char* bad : { "7", "7:", ":9", "0:9", "7:0", "7:65537", "16777216:1", "7:9x", "a:b" } ) {
      EXPECT_FALSE( Demo::parseSize( bad, o ) ) << bad;
   }
}
