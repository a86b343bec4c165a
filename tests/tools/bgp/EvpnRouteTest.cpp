// Records of the boundary tables to EVPN route fields and back.
#include "tools/bgp/EvpnRoute.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace OrbEvpn::Bgp;
using OrbEvpn::FloodEntry;
using OrbEvpn::Host;
using OrbEvpn::MacVniPair;
using OrbEvpn::VniVtepPair;

const Wire::EthAddr mac1( 0x02, 0, 0, 0, 0, 0x01 );
const Wire::IpAddr vtep1 = Wire::IpAddr::fromOctets( 192, 0, 2, 7 );
const RouteDistinguisher rd{ Wire::IpAddr::fromOctets( 10, 0, 0, 1 ), 100 };

Host host( uint32_t vni, uint32_t seq, Wire::IpAddr vtep = vtep1 ) {
   Host h( MacVniPair( mac1, Vxlan::Vni( vni ) ) );
   h.vtepAddrIs( vtep );
   h.seqNoIs( Keel::Seqno32( seq ) );
   h.preferenceIs( 3 );
   return h;
}

TEST( EvpnRoute, HostBecomesTypeTwoFieldsAndComesBackWithDefaultPreference ) {
   RouteTarget rt{ RouteTarget::Type::twoOctetAs, 65001, 100 };
   MacRoute r = macRouteOf( host( 100, 7 ), rd, rt );
   EXPECT_EQ( r.rd, rd );
   EXPECT_EQ( r.mac, mac1 );
   EXPECT_EQ( r.label, 100u );
   EXPECT_EQ( r.nextHop, vtep1 );
   ASSERT_EQ( r.routeTargets.size(), 1u );
   EXPECT_EQ( r.routeTargets[ 0 ], rt );
   EXPECT_EQ( r.sequence, 7u );

   auto back = hostOf( r );
   ASSERT_TRUE( back );
   EXPECT_EQ( back->key(), MacVniPair( mac1, Vxlan::Vni( 100 ) ) );
   EXPECT_EQ( back->vtepAddr(), vtep1 );
   EXPECT_EQ( back->seqNo().value(), 7u );
   // The preference does not travel in a route.
   EXPECT_EQ( back->preference(), Host::defaultPreference );
}

TEST( EvpnRoute, LearntRoutesNeedARouteTargetNamingTheLabelsVni ) {
   MacRoute r;
   r.mac = mac1;
   r.label = 100;
   r.nextHop = vtep1;
   EXPECT_FALSE( hostOf( r ) ) << "no route target at all";
   r.routeTargets = { { RouteTarget::Type::twoOctetAs, 65001, 200 } };
   EXPECT_FALSE( hostOf( r ) ) << "route target of another VNI";
   r.routeTargets.push_back( { RouteTarget::Type::twoOctetAs, 64999, 100 } );
   EXPECT_TRUE( hostOf( r ) ) << "any AS, as peers in other ASes derive theirs from their own";
   // RFC 8365 type bits above the 24-bit VNI.
   r.routeTargets = { { RouteTarget::Type::twoOctetAs, 65001, 0x10000000u | 100 } };
   EXPECT_TRUE( hostOf( r ) );
   r.label = 0x1000000;   // not a VNI
   r.routeTargets = { { RouteTarget::Type::twoOctetAs, 65001, 0x1000000 } };
   EXPECT_FALSE( hostOf( r ) );
   // Without MAC mobility the sequence number is 0.
   r.label = 100;
   r.routeTargets = { { RouteTarget::Type::twoOctetAs, 65001, 100 } };
   r.sequence.reset();
   ASSERT_TRUE( hostOf( r ) );
   EXPECT_EQ( hostOf( r )->seqNo().value(), 0u );
}

TEST( EvpnRoute, FloodEntryBecomesTypeThreeAndBack ) {
   RouteTarget rt{ RouteTarget::Type::twoOctetAs, 65001, 300 };
   FloodEntry f( VniVtepPair( Vxlan::Vni( 300 ), vtep1 ) );
   FloodRoute r = floodRouteOf( f, rd, rt );
   EXPECT_EQ( r.originator, vtep1 );
   EXPECT_EQ( r.label, 300u );
   ASSERT_TRUE( floodEntryOf( r ) );
   EXPECT_EQ( *floodEntryOf( r ), f );
   r.routeTargets = { { RouteTarget::Type::twoOctetAs, 65001, 301 } };
   EXPECT_FALSE( floodEntryOf( r ) );
}

TEST( EvpnRoute, RouteTargetSchemes ) {
   EXPECT_EQ( rtSchemeOf( "auto" ), RtScheme::autoDerived );
   EXPECT_EQ( rtSchemeOf( "asn:vni" ), RtScheme::asnVni );
   EXPECT_THROW( rtSchemeOf( "vni" ), std::invalid_argument );

   // Two-octet ASN: both schemes give ASN:VNI, the VNI's full 24 bits.
   RouteTarget small{ RouteTarget::Type::twoOctetAs, 65001, 0xABCDEF };
   EXPECT_EQ( routeTargetOf( RtScheme::autoDerived, 65001, 0xABCDEF ), small );
   EXPECT_EQ( routeTargetOf( RtScheme::asnVni, 65001, 0xABCDEF ), small );

   // Four-octet ASN: auto keeps the low 16 bits (as FRR derives it) ...
   uint32_t big = 4200000001u;
   RouteTarget autoRt{ RouteTarget::Type::twoOctetAs, big & 0xFFFF, 100 };
   EXPECT_EQ( routeTargetOf( RtScheme::autoDerived, big, 100 ), autoRt );
   // ... asn:vni keeps the ASN, which leaves 16 bits for the VNI.
   RouteTarget four{ RouteTarget::Type::fourOctetAs, big, 100 };
   EXPECT_EQ( routeTargetOf( RtScheme::asnVni, big, 100 ), four );
   EXPECT_FALSE( routeTargetOf( RtScheme::asnVni, big, 70000 ) );
}

TEST( EvpnRoute, TextFormsParseBack ) {
   EXPECT_EQ( macText( mac1 ), "02:00:00:00:00:01" );
   EXPECT_EQ( parseMac( "02:00:00:00:00:01" ), mac1 );
   EXPECT_EQ( parseMac( "0e:AB:cd:00:10:ff" ), Wire::EthAddr( 0x0e, 0xab, 0xcd, 0, 0x10, 0xff ) );
   for ( const char* bad : { "", "02:00:00:00:00", "02:00:00:00:00:01:02", "2:00:00:00:00:01", "02:00:00:00:00:zz" } ) {
      EXPECT_FALSE( parseMac( bad ) ) << bad;
   }
   EXPECT_EQ( ipText( vtep1 ), "192.0.2.7" );
   EXPECT_EQ( parseIp( "192.0.2.7" ), vtep1 );
   for ( const char* bad : { "", "<nil>", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.x", "1..2.3" } ) {
      EXPECT_FALSE( parseIp( bad ) ) << bad;
   }
   EXPECT_EQ( text( rd ), "10.0.0.1:100" );
}

}  // namespace
