#include "platform/mox/Exception.h"
#include "platform/values/BridgeId.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using Bridging::BridgeId;
using Vxlan::Vni;

static_assert( sizeof( BridgeId ) == 4 && std::is_trivially_copyable_v< BridgeId > );

TEST( BridgeId, VniBridgeCarriesTheVniInTheLow24Bits ) {
   EXPECT_EQ( BridgeId::fromVni( Vni( 100 ) ).value(), 0x2000064u );
   EXPECT_EQ( BridgeId( Vni( 100 ) ).vni(), Vni( 100 ) );
   EXPECT_EQ( BridgeId( Vni( Vni::max ) ).vni(), Vni( Vni::max ) );
   EXPECT_EQ( BridgeId( Vni( Vni::max ) ).brType(), BridgeId::brTypeVni() );
   EXPECT_LT( BridgeId( 0x1ffffff ), BridgeId( Vni( 0 ) ) );
}

TEST( BridgeIdDeathTest, VniOfAnotherBridgeTypeIsFatal ) {
   EXPECT_DEATH( BridgeId( 0x1000005 ).vni(), "brType\\(\\) == brTypeVni\\(\\)" );
   EXPECT_DEATH( BridgeId( 0x3000064 ).vni(), "brType\\(\\) == brTypeVni\\(\\)" );
}

TEST( BridgeId, TextFormsOfBothKindsRoundTrip ) {
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

}  // namespace
