// The value types: what they all share (printers that agree with the parser,
// the generic interface, registration, hashes that agree across processes),
// then what each one adds.
#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/BridgeId.h"
#include "platform/values/EthAddr.h"
#include "platform/values/IpAddr.h"
#include "platform/values/Seqno32.h"
#include "platform/values/Vni.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

namespace {

using Bridging::BridgeId;
using Vxlan::Vni;
using Wire::EthAddr;
using Wire::IpAddr;

template< class T >
constexpr bool plainWord = sizeof( T ) == 4 && std::is_trivially_copyable_v< T >;
static_assert( plainWord< Vni > && plainWord< IpAddr > && plainWord< BridgeId > );
static_assert( sizeof( EthAddr ) == 6 && alignof( EthAddr ) == 2 && std::is_trivially_copyable_v< EthAddr > );
// A shared-table key: MAC, 2 bytes of padding, 32-bit VNI at offset 8.
struct MacKey {
   EthAddr mac;
   uint32_t vni;
};
static_assert( sizeof( MacKey ) == 12 && offsetof( MacKey, vni ) == 8 );

// One non-default value of each type, with its exact text.
const auto samples = std::tuple(
   std::pair( Vni( 16777215 ), std::string( "16777215" ) ),
   std::pair( EthAddr( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e ), std::string( "00:1a:2b:3c:4d:5e" ) ),
   std::pair( IpAddr::fromOctets( 192, 168, 0, 255 ), std::string( "192.168.0.255" ) ),
   std::pair( Keel::Seqno32( 4294967295u ), std::string( "4294967295" ) ),
   std::pair( BridgeId( Vni( 100 ) ), std::string( "vni:100" ) ) );
template< class T >
std::pair< T, std::string > sample() { return std::get< std::pair< T, std::string > >( samples ); }

template< class T >
class ValueTypeTest : public ::testing::Test {};
using ValueTypes = ::testing::Types< Vni, EthAddr, IpAddr, Keel::Seqno32, BridgeId >;
TYPED_TEST_SUITE( ValueTypeTest, ValueTypes );

const auto vniOutOfRange = ::testing::ThrowsMessage< Mox::RangeException >(
   ::testing::StrEq( "Vxlan::Vni::value < Vxlan::Vni::min or > Vxlan::Vni::max not allowed" ) );

TYPED_TEST( ValueTypeTest, PrintersAgreeTheTextParsesBackAndTheGenericInterfaceWorks ) {
   using T = TypeParam;
   auto [ v, text ] = sample< T >();
   EXPECT_EQ( valueToStrep( v ).str(), text );
   EXPECT_EQ( fmt::format( "[{}]", v ), "[" + text + "]" );
   std::ostringstream os;
   os << v;
   EXPECT_EQ( os.str(), text );
   EXPECT_EQ( Mox::strepToValue< T >( Mox::String( text ) ), v );
   EXPECT_EQ( Mox::strepToValue< T >( valueToStrep( T() ) ), T() );
   // Nested in a larger text form, the cursor stops right after the value.
   const Mox::String s( text + ", next" );
   auto it = s.begin();
   EXPECT_EQ( T( it, s.end() ), v );
   EXPECT_EQ( std::string_view( it.ptr(), s.end() - it ), ", next" );
   EXPECT_THROW( Mox::strepToValue< T >( s ), Mox::ParseException );
   EXPECT_THROW( Mox::strepToValue< T >( Mox::String( "" ) ), Mox::RangeException );

   // The generic interface: hash, and the whole-value "is default?" query.
   const Mox::Type& type = Mox::TypeImpl< T >::instance();
   T zero;
   EXPECT_EQ( type.genericIfHash( &v ), v.hash() );
   EXPECT_EQ( std::hash< T >()( v ), v.hash() );
   Mox::GenericValue r;
   ASSERT_EQ( type.genericIfAttributeOp( r, &zero, 0, Mox::genericOpGet ), Mox::genericDone );
   EXPECT_TRUE( r.get< bool >() );
   ASSERT_EQ( type.genericIfAttributeOp( r, &v, 0, Mox::genericOpGet ), Mox::genericDone );
   EXPECT_FALSE( r.get< bool >() );
   EXPECT_EQ( type.genericIfAttributeOp( r, &v, 2, Mox::genericOpSet, &zero ),
              Mox::genericNotAllowed );
}

TEST( ValuesModule, RegistersAllFiveTypesByName ) {
   const Mox::Module* m = Mox::moxModule( "Values" );
   ASSERT_NE( m, nullptr );
   EXPECT_EQ( m->types().size(), 5u );
   for ( const char* name : { "Vxlan::Vni", "Wire::EthAddr", "Wire::IpAddr", "Keel::Seqno32",
                              "Bridging::BridgeId" } ) {
      const Mox::Type* t = Mox::moxTypeByName( name );
      ASSERT_NE( t, nullptr ) << name;
      EXPECT_EQ( t->module(), m ) << name;
      EXPECT_EQ( t->attributes().at( 0 ).id, 2u ) << name;
   }
   EXPECT_EQ( Mox::moxTypeByName( "Wire::EthAddr" )->attributeId( "word2" ), 4u );
   EXPECT_EQ( Mox::moxTypeByName( "Bridging::BridgeId" )->attributeId( "brType" ), 3u );
   EXPECT_THROW( Mox::strepToValue< Keel::Seqno32 >( "4294967296" ), Mox::RangeException );
   EXPECT_LT( Keel::Seqno32( 1 ), Keel::Seqno32( 0x80000000 ) );
}

// A shared table is hashed by one process and probed by another, so a hash
// may depend on nothing but the value. Expected numbers: FNV-1a, by hand.
TEST( ValuesHashDeathTest, PinnedAndTheSameInAFreshProcess ) {
   const std::vector< uint32_t > hashes = {
      Vni( 100 ).hash(), sample< EthAddr >().first.hash(),
      IpAddr::fromOctets( 10, 0, 0, 1 ).hash(), Keel::Seqno32( 7 ).hash(),
      BridgeId( Vni( 100 ) ).hash() };
   const std::vector< uint32_t > expected = { 0x67962129, 0x013759ab, 0x6c506a2c, 0x4495ea10,
                                              0xc7ee3a8b };
   EXPECT_EQ( hashes, expected );
   // "threadsafe" re-executes the binary: a fresh process, not a fork.
   const std::string style = GTEST_FLAG_GET( death_test_style );
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   EXPECT_EXIT( std::exit( hashes == expected ? 0 : 1 ), ::testing::ExitedWithCode( 0 ), "" );
   GTEST_FLAG_SET( death_test_style, style );
}

TEST( Vni, RangeEndsAt24BitsWhicheverWayItIsBuiltAndANameIsReadAsBase10ThenChecked ) {
   const auto& outOfRange = vniOutOfRange;
   EXPECT_THAT( [] { Vni( 16777216 ); }, outOfRange );
   EXPECT_THAT( [] { Mox::strepToValue< Vni >( "16777216" ); }, outOfRange );
   // 2^64 + 5: must not wrap round to the valid VNI 5.
   EXPECT_THAT( [] { Mox::strepToValue< Vni >( "18446744073709551621" ); }, outOfRange );
   uint32_t arg = 0x1000000;
   const void* args[] = { &arg };
   Mox::GenericValue r;
   const auto& type = Mox::TypeImpl< Vni >::instance();
   EXPECT_THAT( [ & ] { type.genericIfConstructFromCtorArgs( r, args ); }, outOfRange );
   // Text without digits: a range error, and the cursor stays.
   for ( const char* bad : { "-1", " 1", "x1" } ) {
      const Mox::String s( bad );
      auto it = s.begin();
      EXPECT_THROW( Vni( it, s.end() ), Mox::RangeException ) << bad;
      EXPECT_EQ( it, s.begin() );
   }
   const struct {
      const char* name;
      uint32_t vni;
   } good[] = { { "7", 7 }, { "007", 7 }, { "7abc", 7 }, { "abc", 0 }, { "", 0 },
                { "16777215", 16777215 }, { " 12", 12 }, { "4294967303", 7 } };
   for ( const auto& c : good ) {
      EXPECT_EQ( Vxlan::vniFromName( Mox::String( c.name ) ), Vxlan::Vni( c.vni ) ) << c.name;
   }
   for ( const char* bad : { "16777216", "-1", "4294967295", "99999999999999999999" } ) {
      EXPECT_THAT( [ & ] { Vxlan::vniFromName( Mox::String( bad ) ); }, outOfRange ) << bad;
   }
}

TEST( IpAddr, HeldInHostOrderReadAsFourOctetsAndOrderedNumerically ) {
   EXPECT_EQ( IpAddr::fromOctets( 10, 0, 0, 1 ).value(), 0x0a000001u );
   EXPECT_EQ( Mox::strepToValue< IpAddr >( "255.0.255.1" ), IpAddr( 0xff00ff01 ) );
   for ( const char* bad : { "10.0.0", "10.0.0.", "10.0.0.256", "10..0.1", "10.0.0.0001",
                             "10,0,0,1", ".1.2.3" } ) {
      EXPECT_THROW( Mox::strepToValue< IpAddr >( bad ), Mox::RangeException ) << bad;
   }
   EXPECT_THROW( Mox::strepToValue< IpAddr >( "10.0.0.1.5" ), Mox::ParseException );
   // As text "10.0.0.9" sorts after "10.0.0.10".
   EXPECT_LT( IpAddr::fromOctets( 10, 0, 0, 9 ), IpAddr::fromOctets( 10, 0, 0, 10 ) );
   EXPECT_LT( IpAddr::fromOctets( 9, 255, 255, 255 ), IpAddr::fromOctets( 10, 0, 0, 0 ) );
}

TEST( EthAddr, TextIsLowercaseAnyCaseParsesAndBadTextNamesTheProblem ) {
   const EthAddr a( 0xde, 0xad, 0xBE, 0xef, 0x00, 0x0F );
   EXPECT_EQ( valueToStrep( a ).str(), "de:ad:be:ef:00:0f" );
   EXPECT_EQ( Mox::strepToValue< EthAddr >( "DE:AD:bE:Ef:00:0F" ), a );
   EXPECT_TRUE( EthAddr().isZero() && !EthAddr( 0, 0, 0, 0, 0, 1 ).isZero() );
   for ( const char* bad : { "00:1a:2b:3c:4d", "00:1a:2b:3c:4d:5", "00:1g:2b:3c:4d:5e",
                             "00:1a-2b:3c:4d:5e", "001a:2b:3c:4d:5e", "0:1a:2b:3c:4d:5e",
                             "00:1a:2b:3c:4d:5e0" } ) {
      EXPECT_THROW( Mox::strepToValue< EthAddr >( bad ), Mox::RangeException ) << bad;
   }
   EXPECT_THAT( [] { Mox::strepToValue< EthAddr >( "00:1a:2b:3c:4d:zz" ); },
                ::testing::ThrowsMessage< Mox::RangeException >(
                   ::testing::StrEq( "bad MAC address \"00:1a:2b:3c:4d:zz\": "
                                     "expected two hex digits for byte 6" ) ) );
   EXPECT_THROW( Mox::strepToValue< EthAddr >( "00:1a:2b:3c:4d:5e:6f" ), Mox::ParseException );
}

TEST( EthAddr, ConstructorsAgreeOrderIsByteWiseAndHashIsPinned ) {
   const uint8_t raw[] = { 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e };
   EXPECT_EQ( EthAddr( raw ), EthAddr( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e ) );
   EXPECT_EQ( EthAddr( raw ),
              EthAddr( uint16_t( 0x001a ), uint16_t( 0x2b3c ), uint16_t( 0x4d5e ) ) );
   // The first differing byte decides, whatever the later ones are.
   EXPECT_LT( EthAddr( 0x01, 0xff, 0xff, 0xff, 0xff, 0xff ), EthAddr( 0x02, 0, 0, 0, 0, 0 ) );
   EXPECT_LT( EthAddr( 0, 0, 0, 0, 0, 0xfe ), EthAddr( 0, 0, 0, 0, 0, 0xff ) );
   EXPECT_FALSE( EthAddr( raw ) < EthAddr( raw ) );
   EXPECT_EQ( EthAddr().hash(), 0x7f77879du );   // FNV-1a by hand; another is pinned below
}

TEST( BridgeId, VniBridgeCarriesTheVniInTheLow24BitsAndBothKindsRoundTripAsText ) {
   EXPECT_EQ( BridgeId::fromVni( Vni( 100 ) ).value(), 0x2000064u );
   EXPECT_EQ( BridgeId( Vni( Vni::max ) ).vni(), Vni( Vni::max ) );
   EXPECT_EQ( BridgeId( Vni( Vni::max ) ).brType(), BridgeId::brTypeVni() );
   EXPECT_LT( BridgeId( 0x1ffffff ), BridgeId( Vni( 0 ) ) );
   EXPECT_EQ( valueToStrep( BridgeId( 0x1000005 ) ).str(), "type:1:5" );
   for ( uint32_t raw : { 0x0u, 0x2abcdefu, 0x1000005u, 0xffffffffu } ) {
      EXPECT_EQ( Mox::strepToValue< BridgeId >( valueToStrep( BridgeId( raw ) ) ).value(), raw );
   }
   EXPECT_EQ( valueToStrep( Mox::strepToValue< BridgeId >( "type:2:7" ) ).str(), "vni:7" );
   for ( const char* bad : { "vni:", "vni:16777216", "VNI:5", "type:256:0", "type:1",
                             "type:1:16777216", "5" } ) {
      EXPECT_THROW( Mox::strepToValue< BridgeId >( bad ), Mox::RangeException ) << bad;
   }
}

TEST( BridgeIdDeathTest, VniOfAnotherBridgeTypeIsFatal ) {
   for ( uint32_t raw : { 0x1000005u, 0x3000064u } ) {
      EXPECT_DEATH( BridgeId( raw ).vni(), "^brType\\(\\) == brTypeVni\\(\\)\n$" );
   }
}

}  // namespace
