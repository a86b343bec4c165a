// One winner per (MAC, VNI) among learnt routes; flood entries while any route names them.
#include "tools/bgp/ImportSelection.h"

#include <gtest/gtest.h>

namespace {

using namespace OrbEvpn::Bgp;
using OrbEvpn::FloodEntry;
using OrbEvpn::Host;
using OrbEvpn::MacVniPair;
using OrbEvpn::VniVtepPair;

const MacVniPair key( Wire::EthAddr( 0x02, 0, 0, 0, 0, 1 ), Vxlan::Vni( 10 ) );

Host host( uint32_t seq, uint8_t vtepLast, const MacVniPair& k = key ) {
   Host h( k );
   h.vtepAddrIs( Wire::IpAddr::fromOctets( 10, 9, 9, vtepLast ) );
   h.seqNoIs( Keel::Seqno32( seq ) );
   return h;
}

TEST( ImportSelection, HighestSequenceThenLowestVtepWins ) {
   ImportSelection s;
   ImportSelection::Touched t;
   s.hostIs( "a", host( 1, 5 ), t );
   s.hostIs( "b", host( 2, 9 ), t );
   EXPECT_EQ( s.winner( key ), host( 2, 9 ) ) << "higher sequence beats lower VTEP";
   s.hostIs( "c", host( 2, 3 ), t );
   EXPECT_EQ( s.winner( key ), host( 2, 3 ) ) << "same sequence: lower VTEP";
   // Order of arrival does not matter.
   ImportSelection r;
   r.hostIs( "c", host( 2, 3 ), t );
   r.hostIs( "b", host( 2, 9 ), t );
   r.hostIs( "a", host( 1, 5 ), t );
   EXPECT_EQ( r.winner( key ), host( 2, 3 ) );
   EXPECT_EQ( t.hosts, std::set< MacVniPair >{ key } );
}

TEST( ImportSelection, WithdrawalsAndReplacementsMoveTheWinner ) {
   ImportSelection s;
   ImportSelection::Touched t;
   s.hostIs( "a", host( 1, 5 ), t );
   s.hostIs( "b", host( 4, 9 ), t );
   s.sourceDel( "b", t );
   EXPECT_EQ( s.winner( key ), host( 1, 5 ) );
   // A source's new route replaces its old one, even for another key.
   MacVniPair other( Wire::EthAddr( 0x02, 0, 0, 0, 0, 2 ), Vxlan::Vni( 10 ) );
   t = {};
   s.hostIs( "a", host( 1, 5, other ), t );
   EXPECT_FALSE( s.winner( key ) );
   EXPECT_EQ( s.winner( other ), host( 1, 5, other ) );
   EXPECT_EQ( t.hosts, ( std::set< MacVniPair >{ key, other } ) );
   t = {};
   s.sourceDel( "unknown", t );
   EXPECT_TRUE( t.hosts.empty() && t.flood.empty() );
   s.clear( t );
   EXPECT_EQ( t.hosts, std::set< MacVniPair >{ other } );
   EXPECT_FALSE( s.winner( other ) );
   EXPECT_EQ( s.sources(), 0u );
}

TEST( ImportSelection, FloodEntryLastsWhileAnyRouteNamesIt ) {
   ImportSelection s;
   ImportSelection::Touched t;
   VniVtepPair k( Vxlan::Vni( 10 ), Wire::IpAddr::fromOctets( 10, 9, 9, 1 ) );
   s.floodIs( "x", FloodEntry( k ), t );
   s.floodIs( "y", FloodEntry( k ), t );
   s.sourceDel( "x", t );
   EXPECT_TRUE( s.floodPresent( k ) );
   s.sourceDel( "y", t );
   EXPECT_FALSE( s.floodPresent( k ) );
   EXPECT_EQ( t.flood, std::set< VniVtepPair >{ k } );
}

}  // namespace
