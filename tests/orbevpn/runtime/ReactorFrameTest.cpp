// The reactor frame on a probe machine: registration, delivery, zombies, reactors outliving their machine.
#include "orbevpn/runtime/Reactor.h"
#include "orbevpn/runtime/StateMachine.h"
#include "platform/model/ControllerdbStatus.h"
#include "platform/model/EvpnCapability.h"
#include "platform/model/MacVtepFloodListV2.h"
#include "tests/support/LeakCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Mox::Ptr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using FloodList = VxlanController::MacVtepFloodListV2;

// One reactor of each flavour: collection, scalar with two watches, owner-checked scalar.
class Probe : public OrbEvpn::StateMachine< Probe > {
   MOX_ALLOC_TRACKED( Probe )

 public:
   using MoxBase = Mox::PtrInterface;
   static constexpr const char* moxTypeName = "OrbEvpnTest::Probe";
   static void moxDescribe( Mox::TypeBuilder< Probe >& ) {}

   ORBEVPN_REACTOR( MoxFloodList, Probe, FloodList, collection,
                    OrbEvpn::watch< &Probe::handleVtepIp >( "vtepIpFloodList" ) );
   ORBEVPN_REACTOR( MoxStatus, Probe, Controllerdb::Status, scalar,
                    OrbEvpn::watch< &Probe::handleEnabled >( "enabled" ),
                    OrbEvpn::watch< &Probe::handleConnected >( "connected" ) );
   ORBEVPN_REACTOR( MoxCapability, Probe, OrbEvpn::EvpnCapability, scalarOwnerChecked,
                    OrbEvpn::watch< &Probe::handleCapability >( "evpnEnabled" ) );

   Probe( const Ptr< const FloodList >& floodList, const Ptr< const Controllerdb::Status >& status,
          const Ptr< const OrbEvpn::EvpnCapability >& capability )
         : floodList_( makeReactor< MoxFloodList >( floodList, this ) ),
           status_( makeReactor< MoxStatus >( status, this ) ),
           capability_( makeReactor< MoxCapability >( capability, this ) ) {}
   ~Probe() override { moxRetire(); }

   auto moxReactors() { return std::tie( floodList_, status_, capability_ ); }

   void handleVtepIp( const Wire::IpAddr& ip ) { calls.push_back( "ip " + std::to_string( ip.value() ) ); }
   void handleEnabled() { calls.push_back( "enabled" ); }
   void handleConnected() { calls.push_back( "connected" ); }
   void handleCapability() { calls.push_back( "capability" ); }

   std::vector< std::string > calls;
   Ptr< MoxFloodList > floodList_;
   Ptr< MoxStatus > status_;
   Ptr< MoxCapability > capability_;
};

class ProbeFrame : public ::testing::Test {
 protected:
   LeakCheck leaks_;   // covers the probe and its reactors
   Ptr< FloodList > floodList_ = FloodList::MacVtepFloodListV2Is( Wire::EthAddr() );
   Ptr< Controllerdb::Status > status_ = Controllerdb::Status::StatusIs( "status" );
   Ptr< OrbEvpn::EvpnCapability > capability_ =
      OrbEvpn::EvpnCapability::EvpnCapabilityIs( "capability" );
};

TEST_F( ProbeFrame, DeliveryAndNotifierChangesPerFlavour ) {
   auto probe = OrbEvpn::moxCreate< Probe >( floodList_, status_, capability_ );
   EXPECT_THAT( probe->calls, IsEmpty() );   // registering runs no handler

   floodList_->vtepIpFloodListIs( Wire::IpAddr( 7 ), true );
   status_->connectedIs( true );
   status_->versionIs( 3 );   // not watched
   status_->enabledIs( true );
   capability_->evpnEnabledIs( true );
   EXPECT_THAT( probe->calls, ElementsAre( "ip 7", "connected", "enabled", "capability" ) );

   // Ids are the input type's own: the capability's evpnEnabled id means nothing to the status reactor.
   probe->calls.clear();
   const auto evpnEnabledId = capability_->fwkType()->attributeId( "evpnEnabled" );
   const auto versionId = status_->fwkType()->attributeId( "version" );
   probe->status_->onAttribute( evpnEnabledId, nullptr );
   probe->status_->onAttribute( versionId, nullptr );
   probe->floodList_->onAttribute( versionId, nullptr );
   EXPECT_THAT( probe->calls, IsEmpty() );

   const Wire::IpAddr ip( 42 );
   probe->floodList_->onAttribute( floodList_->fwkType()->attributeId( "vtepIpFloodList" ), &ip );
   EXPECT_THAT( probe->calls, ElementsAre( "ip 42" ) );

   // notifierIs runs the first handler of a scalar, and only on a change.
   probe->calls.clear();
   auto otherList = FloodList::MacVtepFloodListV2Is( Wire::EthAddr( 1, 2, 3, 4, 5, 6 ) );
   auto otherStatus = Controllerdb::Status::StatusIs( "other" );
   probe->floodList_->notifierIs( floodList_ ), probe->status_->notifierIs( status_ );
   probe->floodList_->notifierIs( otherList );   // a collection: no handler
   EXPECT_THAT( probe->calls, IsEmpty() );
   probe->status_->notifierIs( otherStatus );
   EXPECT_THAT( probe->calls, ElementsAre( "enabled" ) );   // the first watch's handler

   // Registration moved along: the old inputs are no longer heard.
   probe->calls.clear();
   floodList_->vtepIpFloodListIs( Wire::IpAddr( 1 ), true );
   status_->enabledIs( true );
   EXPECT_THAT( probe->calls, IsEmpty() );
   otherList->vtepIpFloodListIs( Wire::IpAddr( 2 ), true );
   otherStatus->enabledIs( true );
   EXPECT_THAT( probe->calls, ElementsAre( "ip 2", "enabled" ) );

   probe->calls.clear();
   const auto statusRefs = status_->references();
   // An object of another type counts as null: the flood-list reactor drops its list.
   probe->floodList_->notifierIs( status_ );
   EXPECT_TRUE( probe->floodList_->notifier() == nullptr && status_->references() == statusRefs );
   otherList->vtepIpFloodListIs( Wire::IpAddr( 3 ), true );

   // Owner-checked: null is a change (one run), another wrong-typed object the same null (no run).
   probe->capability_->notifierIs( floodList_ );
   probe->capability_->notifierIs( status_ );
   probe->capability_->notifierIs( nullptr );
   EXPECT_EQ( probe->capability_->notifier(), nullptr );
   EXPECT_THAT( probe->calls, ElementsAre( "capability" ) );
   capability_->evpnEnabledIs( true );
   EXPECT_THAT( probe->calls, ElementsAre( "capability" ) );
}

TEST_F( ProbeFrame, ZombieStopsDeliveryUntilRevivedAndOutlivingReactorsLoseTheOwner ) {
   auto probe = OrbEvpn::moxCreate< Probe >( floodList_, status_, capability_ );
   probe->moxDoZombieReactors( true );
   EXPECT_TRUE( probe->status_->isMarkedForDeletion() );
   floodList_->vtepIpFloodListIs( Wire::IpAddr( 1 ), true );
   status_->enabledIs( true );
   capability_->evpnEnabledIs( true );
   // Nor does a direct delivery or a new notifier reach the handlers.
   probe->status_->onAttribute( status_->fwkType()->attributeId( "enabled" ), nullptr );
   probe->status_->notifierIs( Controllerdb::Status::StatusIs( "other" ) );
   probe->status_->notifierIs( status_ );
   EXPECT_THAT( probe->calls, IsEmpty() );
   // A second call is a no-op: a reactor revived meanwhile stays alive.
   probe->floodList_->moxDoZombieReactors( false );
   probe->moxDoZombieReactors( true );
   floodList_->vtepIpFloodListIs( Wire::IpAddr( 3 ), true );
   EXPECT_THAT( probe->calls, ElementsAre( "ip 3" ) );
   probe->calls.clear(), probe->moxDoZombieReactors( false );
   floodList_->vtepIpFloodListIs( Wire::IpAddr( 5 ), true );
   status_->enabledIs( false );
   capability_->evpnEnabledIs( false );
   EXPECT_THAT( probe->calls, ElementsAre( "ip 5", "enabled", "capability" ) );
   // Reactors that outlive their machine lose the owner.
   Ptr< Probe::MoxStatus > status = probe->status_;
   Ptr< Probe::MoxCapability > capability = probe->capability_;
   probe = nullptr;
   EXPECT_EQ( Probe::moxAllocTrackTypeInfo_.liveObjects(), 0 );
   EXPECT_TRUE( !status->owner && !capability->owner && capability->isMarkedForDeletion() );
   status_->enabledIs( true );   // a zombie: nothing is delivered
   capability_->evpnEnabledIs( true );
   // Revived, the owner-checked reactor still calls nobody.
   capability->moxDoZombieReactors( false );
   capability_->evpnEnabledIs( false );
   capability->notifierIs( OrbEvpn::EvpnCapability::EvpnCapabilityIs( "other" ) );
}

}  // namespace
