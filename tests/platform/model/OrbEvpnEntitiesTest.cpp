// The small entities: flags that notify on every write, the bridge-id
// list, and the flood list's flag values.
#include "platform/model/ControllerdbStatus.h"
#include "platform/model/EvpnCapability.h"
#include "platform/model/MacVtepFloodListV2.h"
#include "platform/model/OrbBrIdList.h"
#include "platform/model/OrbEvpnConfig.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Bridging::BridgeId;

// Writes true, true, false through `set`; every write must reach observers
// without a key, with the new value already stored.
template< class E >
void expectEveryWriteNotifies( const char* attribute, Mox::Ptr< E > e, void ( E::*set )( bool ),
                               bool ( E::*get )() const ) {
   SCOPED_TRACE( attribute );
   auto rec = NotifieeRecorder< int >::NotifieeRecorderIs( e );
   std::vector< bool > seen;
   rec->onEvent = [ & ]( Mox::AttributeId, const void* key ) {
      EXPECT_EQ( key, nullptr );
      seen.push_back( ( e.ptr()->*get )() );
   };
   for ( bool v : { true, true, false } ) {
      ( e.ptr()->*set )( v );
   }
   EXPECT_EQ( rec->keys( e->fwkType()->attributeId( attribute ) ).size(), 3u );
   EXPECT_THAT( seen, ElementsAre( true, true, false ) );
}

TEST( FlagEntities, EveryWriteStoresAndNotifies ) {
   LeakCheck leaks;
   using Controllerdb::Status;
   using namespace OrbEvpn;
   expectEveryWriteNotifies( "enabled", Status::StatusIs( "s" ), &Status::enabledIs, &Status::enabled );
   expectEveryWriteNotifies( "connected", Status::StatusIs( "s" ), &Status::connectedIs,
                             &Status::connected );
   expectEveryWriteNotifies( "evpnEnabled", EvpnCapability::EvpnCapabilityIs( "c" ),
                             &EvpnCapability::evpnEnabledIs, &EvpnCapability::evpnEnabled );
   expectEveryWriteNotifies( "orbEvpnIntegrationMode", OrbEvpnConfig::OrbEvpnConfigIs( "c" ),
                             &OrbEvpnConfig::orbEvpnIntegrationModeIs,
                             &OrbEvpnConfig::orbEvpnIntegrationMode );
}

TEST( OrbBrIdList, PresenceListInBridgeIdOrder ) {
   LeakCheck leaks;
   auto list = OrbEvpn::OrbBrIdList::OrbBrIdListIs( "brIdList" );
   auto rec = NotifieeRecorder< BridgeId >::NotifieeRecorderIs( list );
   const auto id = list->fwkType()->attributeId( "brIdList" );
   const BridgeId b7( Vxlan::Vni( 7 ) ), b5( Vxlan::Vni( 5 ) ), other( 0x1000005 );
   for ( BridgeId b : { b7, b5, other } ) {
      list->brIdListIs( b, true );
   }
   EXPECT_TRUE( list->brIdList( b5 ) );
   EXPECT_FALSE( list->brIdList( BridgeId( Vxlan::Vni( 6 ) ) ) );
   rec->clear();
   list->brIdListDel( BridgeId( Vxlan::Vni( 6 ) ) );   // absent: nothing
   EXPECT_THAT( rec->events(), IsEmpty() );
   // One removal per id, in order.
   list->brIdListDelAll();
   EXPECT_THAT( rec->events(), ElementsAre( Pair( id, other ), Pair( id, b5 ), Pair( id, b7 ) ) );
   EXPECT_EQ( list->brIdListSize(), 0u );
}

TEST( MacVtepFloodListV2, AFalseFlagIsStillAKey ) {
   LeakCheck leaks;
   auto list = VxlanController::MacVtepFloodListV2::MacVtepFloodListV2Is( "00:00:00:00:00:00" );
   auto rec = NotifieeRecorder< Wire::IpAddr >::NotifieeRecorderIs( list );
   const auto id = list->fwkType()->attributeId( "vtepIpFloodList" );
   const auto a = Wire::IpAddr::fromOctets( 10, 0, 0, 1 ), b = Wire::IpAddr::fromOctets( 10, 0, 0, 2 );
   list->vtepIpFloodListIs( a, false );
   list->vtepIpFloodListIs( b, true );
   EXPECT_FALSE( list->vtepIpFloodList( a ) );
   EXPECT_TRUE( list->vtepIpFloodListContains( a ) );
   list->vtepIpFloodListDel( a );
   list->vtepIpFloodListDel( a );
   EXPECT_THAT( rec->events(), ElementsAre( Pair( id, a ), Pair( id, b ), Pair( id, a ) ) );
   EXPECT_THROW( VxlanController::MacVtepFloodListV2::MacVtepFloodListV2Is( "00:00:00" ),
                 Mox::RangeException );
}

}  // namespace
