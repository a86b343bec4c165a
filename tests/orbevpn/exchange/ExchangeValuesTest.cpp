// Exchange keys and entries: layout, equality, hash, text forms, parsers, registration.
#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/FloodTable.h"
#include "orbevpn/exchange/Host.h"
#include "orbevpn/exchange/HostTable.h"
#include "orbevpn/exchange/VniVtepPair.h"
#include "platform/mox/Type.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <sstream>
#include <string>

using namespace OrbEvpn;
using Vxlan::Vni;
using Wire::EthAddr;
using Wire::IpAddr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

namespace {

const EthAddr mac1( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e ), mac2( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5f );
const IpAddr vtep1 = IpAddr::fromOctets( 10, 1, 2, 3 );

Host hostOf( const MacVniPair& k, IpAddr vtep, uint32_t seq, uint8_t pref ) {
   Host h( k );
   h.vtepAddrIs( vtep ), h.seqNoIs( Keel::Seqno32( seq ) ), h.preferenceIs( pref );
   return h;
}

template< class T >
std::array< uint8_t, sizeof( T ) > bytesOf( const T& v ) {
   std::array< uint8_t, sizeof( T ) > b;
   std::memcpy( b.data(), static_cast< const void* >( &v ), sizeof( T ) );
   return b;
}

// Written from the arithmetic description, not copied from the code.
uint32_t referenceMix( uint32_t h ) {
   h = h * 32767u - 1u;
   h ^= h >> 12;
   h *= 5u;
   h ^= h >> 4;
   h *= 2057u;
   return h ^ ( h >> 16 );
}

template< class T >
const Mox::Type& typeOf() { return Mox::TypeImpl< T >::instance(); }

}  // namespace

TEST( ExchangeValues, LayoutEqualityAndHashOfferedToOtherProcesses ) {
   static_assert( sizeof( MacVniPair ) == 12 && sizeof( Host ) == 24 );
   static_assert( sizeof( VniVtepPair ) == 8 && sizeof( FloodEntry ) == 8 );
   // A host laid out by hand as a separately built peer would, junk in every padding byte.
   std::array< uint8_t, 24 > b;
   b.fill( 0xee );
   const uint8_t mac[ 6 ] = { 0x02, 0x42, 0xac, 0x11, 0x00, 0x02 };
   std::memcpy( b.data(), mac, 6 );
   const uint32_t vni = 70000, vtep = 0xac100001, seq = 99, fwords[ 2 ] = { 0x123456, 0xc0a80101 };
   std::memcpy( b.data() + 8, &vni, 4 );
   std::memcpy( b.data() + 12, &vtep, 4 );
   std::memcpy( b.data() + 16, &seq, 4 );
   b[ 20 ] = 7;
   const Host h = hostOf( MacVniPair( EthAddr( mac ), Vni( vni ) ), IpAddr( vtep ), seq, 7 );
   Host dirty;
   std::memcpy( static_cast< void* >( &dirty ), b.data(), b.size() );
   EXPECT_EQ( dirty, h );
   EXPECT_EQ( dirty.key().hash(), h.key().hash() );
   auto hb = bytesOf( h );
   for ( size_t pad : { 6, 7, 21, 22, 23 } ) hb[ pad ] = 0xee;
   EXPECT_EQ( hb, b );

   const VniVtepPair f{ Vni( fwords[ 0 ] ), IpAddr( fwords[ 1 ] ) };
   EXPECT_EQ( std::memcmp( bytesOf( f ).data(), fwords, 8 ), 0 );
   EXPECT_EQ( bytesOf( FloodEntry( f ) ), bytesOf( f ) );

   const MacVniPair k( mac1, Vni( 10 ) );
   const Host base = hostOf( k, vtep1, 7, 16 );
   EXPECT_EQ( base, hostOf( k, vtep1, 7, 16 ) );
   for ( const Host& other :
         { hostOf( MacVniPair( mac2, Vni( 10 ) ), vtep1, 7, 16 ),
           hostOf( MacVniPair( mac1, Vni( 11 ) ), vtep1, 7, 16 ),
           hostOf( k, IpAddr( vtep1.value() + 1 ), 7, 16 ), hostOf( k, vtep1, 8, 16 ),
           hostOf( k, vtep1, 7, 17 ), hostOf( k, vtep1, 7, 0 ) } ) {
      EXPECT_NE( base, other ) << other;
   }
   // The key hash is the mix of the component hash xor the VNI.
   EXPECT_EQ( referenceMix( 0 ), 0xCAA3CAA3u );
   for ( uint32_t vni : { 0u, 1u, 4096u, 0xabcdefu, 0xffffffu } ) {
      SCOPED_TRACE( vni );
      const MacVniPair mk( mac1, Vni( vni ) );
      const VniVtepPair vk( Vni( vni ), vtep1 );
      EXPECT_EQ( mk.hash(), referenceMix( mac1.hash() ^ vni ) );
      EXPECT_EQ( vk.hash(), referenceMix( vtep1.hash() ^ vni ) );
      EXPECT_EQ( std::hash< MacVniPair >()( mk ), mk.hash() );
      EXPECT_EQ( std::hash< VniVtepPair >()( vk ), vk.hash() );
      EXPECT_EQ( typeOf< MacVniPair >().genericIfHash( &mk ), mk.hash() );
      EXPECT_EQ( typeOf< VniVtepPair >().genericIfHash( &vk ), vk.hash() );
   }
}

TEST( ExchangeValues, KeysOrderByTheirMajorFieldFirst ) {
   // MAC decides before VNI; VNI decides before the VTEP address.
   EXPECT_LT( MacVniPair( mac1, Vni( 2 ) ), MacVniPair( mac2, Vni( 1 ) ) );
   EXPECT_LT( MacVniPair( mac1, Vni( 1 ) ), MacVniPair( mac1, Vni( 2 ) ) );
   EXPECT_FALSE( MacVniPair( mac1, Vni( 1 ) ) < MacVniPair( mac1, Vni( 1 ) ) );
   EXPECT_LT( VniVtepPair( Vni( 5 ), IpAddr::fromOctets( 10, 0, 0, 9 ) ), VniVtepPair( Vni( 7 ), vtep1 ) );
   EXPECT_LT( VniVtepPair( Vni( 5 ), IpAddr::fromOctets( 9, 0, 0, 1 ) ),
              VniVtepPair( Vni( 5 ), IpAddr::fromOctets( 10, 0, 0, 1 ) ) );
}

TEST( ExchangeText, ExactFormsAndRoundTrips ) {
   const MacVniPair k( mac1, Vni( 4096 ) );
   const std::string kText =
      "Value('OrbEvpn::MacVniPair', ** {'macAddr': 00:1a:2b:3c:4d:5e, 'vni': 4096})";
   // 65 would print as 'A' if the preference were formatted as a character.
   const Host h = hostOf( k, vtep1, 4294967295u, 65 );
   const std::string hText = "Value('OrbEvpn::Host', ** {'key': " + kText +
                             ", 'vtepAddr': 10.1.2.3, 'seqNo': 4294967295, 'preference': 65})";
   const VniVtepPair f( Vni( 5000 ), IpAddr::fromOctets( 192, 168, 0, 1 ) );
   const std::string fText =
      "Value('OrbEvpn::VniVtepPair', ** {'vni': 5000, 'vtepAddr': 192.168.0.1})";
   EXPECT_EQ( valueToStrep( k ), kText );
   EXPECT_EQ( valueToStrep( h ), hText );
   EXPECT_EQ( valueToStrep( f ), fText );
   EXPECT_EQ( valueToStrep( FloodEntry( f ) ), fText );
   EXPECT_EQ( valueToStrep( Host() ),
              "Value('OrbEvpn::Host', ** {'key': Value('OrbEvpn::MacVniPair', ** {'macAddr': "
              "00:00:00:00:00:00, 'vni': 0}), 'vtepAddr': 0.0.0.0, 'seqNo': 0, "
              "'preference': 16})" );
   std::ostringstream os;
   os << k << '|' << h << '|' << f << '|' << FloodEntry( f );
   EXPECT_EQ( os.str(), kText + "|" + hText + "|" + fText + "|" + fText );
   EXPECT_EQ( fmt::format( "{}|{}|{}|{}", k, h, f, FloodEntry( f ) ), os.str() );

   const MacVniPair top( EthAddr( 0xff, 0xff, 0xff, 0xff, 0xff, 0xff ), Vni( Vni::max ) );
   for ( const Host& h : { Host(), hostOf( MacVniPair( mac1, Vni( 1 ) ), vtep1, 1, 0 ),
                           hostOf( top, IpAddr( 0xffffffff ), 4294967295u, 255 ) } ) {
      EXPECT_EQ( Mox::strepToValue< MacVniPair >( valueToStrep( h.key() ) ), h.key() );
      EXPECT_EQ( Mox::strepToValue< Host >( valueToStrep( h ) ), h );
   }
   for ( const VniVtepPair& f : { VniVtepPair(), VniVtepPair( Vni( Vni::max ), IpAddr( 0xffffffff ) ) } ) {
      EXPECT_EQ( Mox::strepToValue< VniVtepPair >( valueToStrep( f ) ), f );
      EXPECT_EQ( Mox::strepToValue< FloodEntry >( valueToStrep( f ) ), FloodEntry( f ) );
   }
}

namespace {

// "attribute|message" of the range error, or "|message" of the parse error, parsing `text`.
template< class T >
std::string errorOf( const std::string& text ) {
   try {
      Mox::strepToValue< T >( Mox::String( text ) );
   } catch ( const Mox::RangeException& e ) {
      return e.attribute() + "|" + e.what();
   } catch ( const Mox::ParseException& e ) {
      return std::string( "|" ) + e.what();
   } catch ( const std::exception& e ) {
      return std::string( "other error: " ) + e.what();
   }
   return "parsed: " + text;
}

const std::string mac = "00:1a:2b:3c:4d:5e";

std::string K( const std::string& m = mac, const std::string& vni = "10" ) {
   return "Value('OrbEvpn::MacVniPair', ** {'macAddr': " + m + ", 'vni': " + vni + "})";
}

std::string H( const std::string& key = K(), const std::string& vtep = "1.2.3.4",
               const std::string& seq = "1", const std::string& pref = "2" ) {
   return "Value('OrbEvpn::Host', ** {'key': " + key + ", 'vtepAddr': " + vtep +
          ", 'seqNo': " + seq + ", 'preference': " + pref + "})";
}

std::string F( const std::string& vni = "5", const std::string& vtep = "1.2.3.4" ) {
   return "Value('OrbEvpn::VniVtepPair', ** {'vni': " + vni + ", 'vtepAddr': " + vtep + "})";
}

}  // namespace

TEST( ExchangeText, ErrorsNameTheFieldBeingRead ) {
   const std::string vni = "vni: Vxlan::Vni::value < Vxlan::Vni::min or > Vxlan::Vni::max not allowed";
   const std::string openKey = K().substr( 0, K().size() - 2 ), trailing = "|unexpected text after value at offset";
   // A parse error inside a host's key passes through without a field name.
   const std::pair< std::string, std::string > cases[] = {
      { errorOf< MacVniPair >( K( "00:1a:2b:3c:4d:zz" ) ), "macAddr|macAddr: bad MAC address" },
      { errorOf< MacVniPair >( K( mac, "16777216" ) ), "vni|" + vni },
      { errorOf< Host >( H( K( "00:1a:2b:3c:4d" ) ) ), "key|key: macAddr: bad MAC address" },
      { errorOf< Host >( H( K(), "1.2.3.256" ) ), "vtepAddr|vtepAddr: bad IPv4 address" },
      { errorOf< Host >( H( K(), "1.2.3.4", "4294967296" ) ), "seqNo|seqNo: number exceeds 4294967295" },
      { errorOf< Host >( H( K(), "1.2.3.4", "1", "256" ) ), "preference|preference: number exceeds 255" },
      { errorOf< VniVtepPair >( F( "16777216" ) ), "vni|" + vni },
      { errorOf< VniVtepPair >( F( "5", "1.2.3" ) ), "vtepAddr|vtepAddr: bad IPv4 address" },
      { errorOf< FloodEntry >( F( "5", "1.2.3" ) ), "key|key: vtepAddr: bad IPv4 address" },
      { errorOf< MacVniPair >( "Value('OrbEvpn::MacVniPair', ** {'macAddr':" + mac + ", 'vni': 1})" ),
        "|expected \"'macAddr': \"" },
      { errorOf< VniVtepPair >( "Value('OrbEvpn::VniVtepPair', ** {'vni': 5,'vtepAddr': 1.2.3.4})" ),
        "|expected \", 'vtepAddr': \"" },
      { errorOf< Host >( H( "Value('OrbEvpn::MacVniPair', ** {'mac': " + mac + ", 'vni': 1})" ) ),
        "|expected \"'macAddr': \"" },
      { errorOf< Host >( K() ), "|expected \"Value('OrbEvpn::Host', ** {\"" },
      { errorOf< FloodEntry >( K() ), "|expected \"Value('OrbEvpn::VniVtepPair', ** {\"" },
      { errorOf< Host >( H().substr( 0, H().size() - 1 ) ), "|expected \"})\"" },
      { errorOf< Host >( H( openKey ) ), "|expected \"})\" at \", 'vtepAddr': " },
      { errorOf< Host >( H() + "x" ), trailing },
      { errorOf< FloodEntry >( F() + "\n" ), trailing },
   };
   for ( const auto& [ got, prefix ] : cases ) EXPECT_THAT( got, StartsWith( prefix ) );
   EXPECT_EQ( Mox::strepToValue< Host >( H( K(), "1.2.3.4", "1", "255" ) ).preference(), 255 );
}

TEST( ExchangeRegistry, AttributeIdsAndModule ) {
   auto attributesOf = []( const Mox::Type& t ) {
      std::string out;
      for ( const auto& a : t.attributes() ) out += a.name + "=" + std::to_string( a.id ) + " ";
      return out;
   };
   EXPECT_EQ( attributesOf( typeOf< MacVniPair >() ), "macAddr=2 vni=3 hash=4 " );
   EXPECT_EQ( attributesOf( typeOf< Host >() ),
              "key=2 macAddr=3 vni=4 vtepAddr=5 seqNo=6 preference=7 " );
   EXPECT_EQ( attributesOf( typeOf< VniVtepPair >() ), "vni=2 vtepAddr=3 hash=4 " );
   EXPECT_EQ( attributesOf( typeOf< FloodEntry >() ), "key=2 vni=3 vtepAddr=4 " );
   const Mox::Module* m = Mox::moxModule( "OrbEvpnLumen" );
   ASSERT_NE( m, nullptr );
   std::vector< std::string > names;
   for ( const Mox::Type* t : m->types() ) names.push_back( t->name() );
   EXPECT_THAT( names, UnorderedElementsAre( "OrbEvpn::MacVniPair", "OrbEvpn::Host",
                                             "OrbEvpn::VniVtepPair", "OrbEvpn::FloodEntry",
                                             "OrbEvpn::HostTable", "OrbEvpn::FloodTable" ) );
}
