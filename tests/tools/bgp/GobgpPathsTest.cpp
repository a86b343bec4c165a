// Routes in gobgpd's API form: the fields the daemon and its peers read, and the way back.
#include "tools/bgp/GobgpPaths.h"

#include "attribute.pb.h"

#include <gtest/gtest.h>

namespace {

using namespace OrbEvpn::Bgp;

MacRoute sampleMac() {
   MacRoute r;
   r.rd = { Wire::IpAddr::fromOctets( 10, 0, 0, 1 ), 4242 };
   r.mac = Wire::EthAddr( 0x02, 0xaa, 0, 0, 0, 0x10 );
   r.label = 0xABCDEF;
   r.nextHop = Wire::IpAddr::fromOctets( 192, 0, 2, 9 );
   r.routeTargets = { { RouteTarget::Type::twoOctetAs, 65001, 0xABCDEF } };
   r.sequence = 12;
   return r;
}

FloodRoute sampleFlood() {
   FloodRoute r;
   r.rd = { Wire::IpAddr::fromOctets( 10, 0, 0, 1 ), 7 };
   r.originator = Wire::IpAddr::fromOctets( 192, 0, 2, 9 );
   r.label = 300;
   r.routeTargets = { { RouteTarget::Type::fourOctetAs, 4200000001u, 300 } };
   return r;
}

template < class T >
std::vector< T > attrs( const apipb::Path& p ) {
   std::vector< T > out;
   for ( const auto& a : p.pattrs() ) {
      T t;
      if ( a.UnpackTo( &t ) ) out.push_back( t );
   }
   return out;
}

TEST( GobgpPaths, TypeTwoCarriesWhatPeersNeed ) {
   apipb::Path p = pathOf( sampleMac() );
   EXPECT_EQ( p.family().afi(), apipb::Family::AFI_L2VPN );
   EXPECT_EQ( p.family().safi(), apipb::Family::SAFI_EVPN );
   apipb::EVPNMACIPAdvertisementRoute n;
   ASSERT_TRUE( p.nlri().UnpackTo( &n ) );
   apipb::RouteDistinguisherIPAddress rd;
   ASSERT_TRUE( n.rd().UnpackTo( &rd ) ) << "a type-1 RD";
   EXPECT_EQ( rd.admin(), "10.0.0.1" );
   EXPECT_EQ( rd.assigned(), 4242u );
   EXPECT_EQ( n.esi().type(), 0u );
   EXPECT_EQ( n.esi().value(), std::string( 9, '\0' ) ) << "gobgpd wants the zero ESI spelled out";
   EXPECT_EQ( n.ethernet_tag(), 0u );
   EXPECT_EQ( n.mac_address(), "02:aa:00:00:00:10" );
   EXPECT_EQ( n.ip_address(), "" );
   ASSERT_EQ( n.labels_size(), 1 );
   EXPECT_EQ( n.labels( 0 ), 0xABCDEFu ) << "the whole 24-bit VNI";

   ASSERT_EQ( attrs< apipb::OriginAttribute >( p ).size(), 1u );
   auto nh = attrs< apipb::NextHopAttribute >( p );
   ASSERT_EQ( nh.size(), 1u );
   EXPECT_EQ( nh[ 0 ].next_hop(), "192.0.2.9" );
   auto ext = attrs< apipb::ExtendedCommunitiesAttribute >( p );
   ASSERT_EQ( ext.size(), 1u );
   int rts = 0, encaps = 0, mms = 0;
   for ( const auto& c : ext[ 0 ].communities() ) {
      apipb::TwoOctetAsSpecificExtended rt;
      apipb::EncapExtended encap;
      apipb::MacMobilityExtended mm;
      if ( c.UnpackTo( &rt ) ) {
         ++rts;
         EXPECT_TRUE( rt.is_transitive() );
         EXPECT_EQ( rt.sub_type(), 2u );
         EXPECT_EQ( rt.asn(), 65001u );
         EXPECT_EQ( rt.local_admin(), 0xABCDEFu );
      } else if ( c.UnpackTo( &encap ) ) {
         ++encaps;
         EXPECT_EQ( encap.tunnel_type(), 8u ) << "VXLAN";
      } else if ( c.UnpackTo( &mm ) ) {
         ++mms;
         EXPECT_EQ( mm.sequence_num(), 12u );
         EXPECT_FALSE( mm.is_sticky() );
      }
   }
   EXPECT_EQ( rts, 1 );
   EXPECT_EQ( encaps, 1 );
   EXPECT_EQ( mms, 1 );
}

TEST( GobgpPaths, TypeThreeCarriesIngressReplication ) {
   apipb::Path p = pathOf( sampleFlood() );
   apipb::EVPNInclusiveMulticastEthernetTagRoute n;
   ASSERT_TRUE( p.nlri().UnpackTo( &n ) );
   EXPECT_EQ( n.ip_address(), "192.0.2.9" );
   EXPECT_EQ( n.ethernet_tag(), 0u );
   auto pmsi = attrs< apipb::PmsiTunnelAttribute >( p );
   ASSERT_EQ( pmsi.size(), 1u );
   EXPECT_EQ( pmsi[ 0 ].type(), 6u ) << "ingress replication";
   EXPECT_EQ( pmsi[ 0 ].label(), 300u );
   EXPECT_EQ( pmsi[ 0 ].id(), std::string( "\xc0\x00\x02\x09", 4 ) );
   auto nh = attrs< apipb::NextHopAttribute >( p );
   ASSERT_EQ( nh.size(), 1u );
   EXPECT_EQ( nh[ 0 ].next_hop(), "192.0.2.9" ) << "next hop = originator";
   auto ext = attrs< apipb::ExtendedCommunitiesAttribute >( p );
   ASSERT_EQ( ext.size(), 1u );
   apipb::FourOctetAsSpecificExtended rt;
   ASSERT_TRUE( ext[ 0 ].communities( 0 ).UnpackTo( &rt ) );
   EXPECT_EQ( rt.asn(), 4200000001u );
}

// A received path names its next hop in MP_REACH and its peer by address.
apipb::Path asReceived( apipb::Path p, const std::string& neighbor ) {
   apipb::Path out = p;
   out.clear_pattrs();
   for ( const auto& a : p.pattrs() ) {
      apipb::NextHopAttribute nh;
      if ( a.UnpackTo( &nh ) ) {
         apipb::MpReachNLRIAttribute reach;
         reach.add_next_hops( nh.next_hop() );
         out.add_pattrs()->PackFrom( reach );
      } else {
         *out.add_pattrs() = a;
      }
   }
   out.set_neighbor_ip( neighbor );
   return out;
}

TEST( GobgpPaths, RoutesReadBackAsSentLocalOnesMarked ) {
   auto mac = learntOf( asReceived( pathOf( sampleMac() ), "10.0.0.2" ) );
   ASSERT_TRUE( mac && mac->mac );
   EXPECT_EQ( *mac->mac, sampleMac() );
   EXPECT_FALSE( mac->local );
   EXPECT_EQ( mac->nlriKey, "2 10.0.0.1:4242 0 02:aa:00:00:00:10 " );

   auto flood = learntOf( asReceived( pathOf( sampleFlood() ), "10.0.0.2" ) );
   ASSERT_TRUE( flood && flood->flood );
   EXPECT_EQ( *flood->flood, sampleFlood() );

   // gobgpd's listing of what we added through the API.
   for ( const char* ours : { "<nil>", "" } ) {
      auto local = learntOf( asReceived( pathOf( sampleMac() ), ours ) );
      ASSERT_TRUE( local );
      EXPECT_TRUE( local->local ) << '"' << ours << '"';
   }
}

TEST( GobgpPaths, WithdrawalsNeedOnlyTheirNlriOthersAreIgnored ) {
   apipb::Path w = pathOf( sampleMac() );
   w.clear_pattrs();
   w.set_is_withdraw( true );
   w.set_neighbor_ip( "10.0.0.2" );
   auto lw = learntOf( w );
   ASSERT_TRUE( lw );
   EXPECT_TRUE( lw->withdraw );
   EXPECT_EQ( lw->nlriKey, "2 10.0.0.1:4242 0 02:aa:00:00:00:10 " );

   apipb::Path noAttrs = pathOf( sampleMac() );
   noAttrs.clear_pattrs();
   EXPECT_FALSE( learntOf( noAttrs ) ) << "an advertisement without next hop";

   apipb::Path v4 = pathOf( sampleMac() );
   v4.mutable_family()->set_afi( apipb::Family::AFI_IP );
   v4.mutable_family()->set_safi( apipb::Family::SAFI_UNICAST );
   EXPECT_FALSE( learntOf( v4 ) );
}

// What we send to withdraw our own route: its NLRI, flagged, and no MAC
// Mobility community, which gobgpd would check against other routes for
// the MAC and refuse.
TEST( GobgpPaths, OurWithdrawalKeepsTheNlriAndDropsTheSequenceNumber ) {
   apipb::Path w = withdrawalOf( pathOf( sampleMac() ) );
   EXPECT_TRUE( w.is_withdraw() );
   EXPECT_EQ( w.nlri().SerializeAsString(), pathOf( sampleMac() ).nlri().SerializeAsString() );
   auto ext = attrs< apipb::ExtendedCommunitiesAttribute >( w );
   ASSERT_EQ( ext.size(), 1u );
   int mobility = 0, targets = 0;
   for ( const auto& c : ext[ 0 ].communities() ) {
      mobility += c.Is< apipb::MacMobilityExtended >();
      targets += c.Is< apipb::TwoOctetAsSpecificExtended >();
   }
   EXPECT_EQ( mobility, 0 );
   EXPECT_EQ( targets, 1 );
   auto lw = learntOf( w );
   ASSERT_TRUE( lw && lw->mac );
   EXPECT_TRUE( lw->withdraw );
   EXPECT_FALSE( lw->mac->sequence );

   apipb::Path f = withdrawalOf( pathOf( sampleFlood() ) );
   EXPECT_TRUE( f.is_withdraw() );
   EXPECT_EQ( f.nlri().SerializeAsString(), pathOf( sampleFlood() ).nlri().SerializeAsString() );
}

}  // namespace
