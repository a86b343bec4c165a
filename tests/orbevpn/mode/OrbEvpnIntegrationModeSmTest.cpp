// OrbEvpnIntegrationModeSm: the flag from its two inputs, writes, traces, reactors, generic interface.
#include "tests/support/ModeSmFixture.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using Mox::Ptr;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const std::string setSignature = "void OrbEvpn::OrbEvpnIntegrationModeSm::setOrbEvpnIntegrationMode()";
const std::string initSignature = "void OrbEvpn::OrbEvpnIntegrationModeSm::handleInitialized()";
constexpr const char* on = "Turning orbEvpnIntegrationMode ON";
constexpr const char* off = "Turning orbEvpnIntegrationMode OFF";

// The records of one recompute.
std::vector< std::string > recompute( bool enabled, bool evpnEnabled, const char* verdict ) {
   return { setSignature,
            fmt::format( "controllerdbStatus()->enabled() {} evpnCapability()->evpnEnabled() {}",
                         enabled, evpnEnabled ),
            verdict, setSignature + " return " };
}

class ModeSm : public ModeSmFixture {
 protected:
   void SetUp() override {
      ModeSmFixture::SetUp();
      trace_.levelsIs( 1u << 8 );
   }
   std::vector< std::string > traced() const { return capture_.texts( "OrbEvpnModeSm" ); }
   void clear() {
      capture_.clear();
      written_.clear();
   }
};

TEST_F( ModeSm, TruthTableAtConstructionAndOnChange ) {
   const struct {
      bool enabled, evpnEnabled, mode;
      const char* verdict;
   } rows[] = { { false, false, false, off }, { false, true, false, off }, { true, false, false, off },
                { true, true, true, on } };
   for ( const auto& row : rows ) {
      SCOPED_TRACE( ::testing::Message() << row.enabled << " " << row.evpnEnabled );
      // Construction: the stale opposite value is overwritten at once.
      config_->orbEvpnIntegrationModeIs( !row.mode );
      status_->enabledIs( row.enabled );
      capability_->evpnEnabledIs( row.evpnEnabled );
      clear();
      auto sm = create();
      EXPECT_THAT( written_, ElementsAre( row.mode ) );
      // handleInitialized brackets exactly one recompute.
      auto expected = recompute( row.enabled, row.evpnEnabled, row.verdict );
      expected.insert( expected.begin(), initSignature );
      expected.push_back( initSignature + " return " );
      EXPECT_THAT( traced(), ElementsAreArray( expected ) );
      for ( const auto& line : capture_.lines() ) EXPECT_EQ( line.level, 8 ) << line.text;
      // The same row reached by a change of each input from the opposite.
      status_->enabledIs( !row.enabled );
      capability_->evpnEnabledIs( !row.evpnEnabled );
      clear();
      status_->enabledIs( row.enabled );
      EXPECT_THAT( traced(), ElementsAreArray( recompute( row.enabled, !row.evpnEnabled,
                                                          row.enabled && !row.evpnEnabled ? on : off ) ) );
      capture_.clear();
      capability_->evpnEnabledIs( row.evpnEnabled );
      EXPECT_THAT( traced(), ElementsAreArray( recompute( row.enabled, row.evpnEnabled, row.verdict ) ) );
      EXPECT_TRUE( written_.size() == 2u && written_.back() == row.mode );
   }
}

TEST_F( ModeSm, WritesOnEveryRecomputeAndOnlyWatchedChangesRecompute ) {
   status_->enabledIs( true );
   capability_->evpnEnabledIs( true );
   auto sm = create();
   capability_->evpnEnabledIs( true );
   status_->enabledIs( true );
   status_->enabledIs( false );
   capability_->evpnEnabledIs( true );   // consulted never, written still
   EXPECT_THAT( written_, ElementsAre( true, true, true, false, false ) );
   // Unwatched attributes, and the entity a reactor already watches: no recompute.
   clear();
   status_->connectedIs( true );
   status_->versionIs( 2 );
   sm->controllerdbStatusReactor()->notifierIs( status_ );
   sm->evpnCapabilityReactor()->notifierIs( capability_ );
   EXPECT_THAT( written_, IsEmpty() );
   EXPECT_THAT( traced(), IsEmpty() );
   // Another entity is a recompute.
   auto enabled = Controllerdb::Status::StatusIs( "enabled" );
   enabled->enabledIs( true );
   sm->controllerdbStatusReactor()->notifierIs( enabled );
   EXPECT_THAT( traced(), ElementsAreArray( recompute( true, true, on ) ) );
   EXPECT_EQ( sm->controllerdbStatus(), enabled );
   sm->evpnCapabilityReactor()->notifierIs( OrbEvpn::EvpnCapability::EvpnCapabilityIs( "off" ) );
   EXPECT_THAT( written_, ElementsAre( true, false ) );
}

TEST_F( ModeSm, ZombieStopsBothReactorsAndDestroyingLeavesTheFlag ) {
   auto sm = create();
   written_.clear();
   sm->moxDoZombieReactors( true );
   status_->enabledIs( true );
   capability_->evpnEnabledIs( true );
   EXPECT_THAT( written_, IsEmpty() );
   sm->moxDoZombieReactors( false );
   capability_->evpnEnabledIs( false );
   status_->enabledIs( true );
   capability_->evpnEnabledIs( true );
   EXPECT_THAT( written_, ElementsAre( false, false, true ) );
   // Reactors that outlive the machine reach nobody, even revived.
   Ptr< Sm::MoxControllerdbStatus > status = sm->controllerdbStatusReactor();
   Ptr< Sm::MoxEvpnCapability > capability = sm->evpnCapabilityReactor();
   clear();
   sm = nullptr;
   EXPECT_TRUE( status->owner == nullptr && capability->owner == nullptr );
   status->moxDoZombieReactors( false ), capability->moxDoZombieReactors( false );
   status_->enabledIs( false ), capability_->evpnEnabledIs( false );
   EXPECT_TRUE( written_.empty() && traced().empty() );
   EXPECT_TRUE( config_->orbEvpnIntegrationMode() );
}

using ModeSmDeathTest = ModeSm;

// A missing input is read, and dies, only when a recompute needs it.
TEST_F( ModeSmDeathTest, ANullInputGivesNoReactorAndDiesOnlyWhenRead ) {
   trace_.levelsIs( 0 );   // tracing would read both inputs
   EXPECT_DEATH( OrbEvpn::orbEvpnIntegrationModeSmFactory( nullptr, capability_, config_ ), "" );
   // Built directly, so that activation is left to the test.
   Ptr< Sm > sm( new Sm( status_, nullptr, config_ ) );
   EXPECT_THAT( written_, ElementsAre( false ) );   // written before activation
   EXPECT_EQ( sm->evpnCapabilityReactor(), nullptr );
   EXPECT_EQ( sm->evpnCapability(), nullptr );
   const auto& reactor = sm->controllerdbStatusReactor();
   EXPECT_TRUE( reactor->hasNotificationActive() );   // on from its creation
   reactor->hasNotificationActiveIs( false );
   sm->hasNotificationActiveIs( true );
   EXPECT_TRUE( reactor->hasNotificationActive() );
   // Unchanged: the machine passes nothing on.
   reactor->hasNotificationActiveIs( false );
   sm->hasNotificationActiveIs( true );
   EXPECT_FALSE( reactor->hasNotificationActive() );
   sm->hasNotificationActiveIs( false );
   status_->enabledIs( false );
   EXPECT_THAT( written_, ElementsAre( false ) );
   sm->hasNotificationActiveIs( true );
   status_->enabledIs( false );
   EXPECT_THAT( written_, ElementsAre( false, false ) );
   EXPECT_DEATH( status_->enabledIs( true ), "" );
}

// Registered by name with its attributes in order (the inputs' ids are pinned with the model's).
TEST_F( ModeSm, GenericInterfaceByRegisteredNameFollowsTheReactorsAndConstructsAnActiveMachine ) {
   const Mox::Type* type = Mox::moxTypeByName( "OrbEvpn::OrbEvpnIntegrationModeSm" );
   ASSERT_EQ( type, &Mox::TypeImpl< Sm >::instance() );
   std::vector< std::pair< Mox::AttributeId, std::string > > attrs;
   for ( const auto& a : type->attributes() ) attrs.emplace_back( a.id, a.name );
   EXPECT_THAT( attrs, ElementsAre( std::pair( 130u, "controllerdbStatus" ), std::pair( 131u, "evpnCapability" ),
                                    std::pair( 132u, "orbEvpnConfig" ), std::pair( 133u, "setOrbEvpnIntegrationMode" ),
                                    std::pair( 134u, "initialized" ), std::pair( 135u, "handleInitialized" ) ) );
   EXPECT_THAT( Mox::moxModule( "OrbEvpnModeSm" )->types(), ElementsAre( type ) );
   auto sm = create();
   auto other = Controllerdb::Status::StatusIs( "other" );
   sm->controllerdbStatusReactor()->notifierIs( other );   // an input follows its reactor
   // Inputs changed silently: only an invoked handler writes, and it sees them.
   sm->hasNotificationActiveIs( false );
   other->enabledIs( true );
   capability_->evpnEnabledIs( true );
   written_.clear();
   Mox::GenericValue r;
   const bool yes = true;
   auto op = [ & ]( Mox::AttributeId id, int code, const void* arg = nullptr ) {
      return sm->fwkType()->genericIfAttributeOp( r, sm.ptr(), id, code, arg );
   };
   EXPECT_TRUE( op( 130, Mox::genericOpGet ) == Mox::genericDone && r.object().ptr() == other.ptr() );
   EXPECT_TRUE( op( 132, Mox::genericOpGet ) == Mox::genericDone && r.object().ptr() == config_.ptr() );
   EXPECT_EQ( op( 133, Mox::genericOpInvoke ), Mox::genericDone );
   EXPECT_EQ( op( 135, Mox::genericOpInvoke ), Mox::genericDone );
   EXPECT_THAT( written_, ElementsAre( true, true ) );   // one per invoked handler
   EXPECT_TRUE( op( 134, Mox::genericOpSet, &yes ) == Mox::genericDone && sm->initialized() );

   sm = nullptr;
   written_.clear();
   const Ptr< const Controllerdb::Status > status = status_;
   const Ptr< const OrbEvpn::EvpnCapability > capability = capability_;
   const void* args[] = { &status, &capability, &config_ };
   type->genericIfConstructFromCtorArgs( r, args );
   EXPECT_THAT( written_, ElementsAre( false ) );
   auto* made = dynamic_cast< const Sm* >( r.object().ptr() );
   ASSERT_NE( made, nullptr );
   EXPECT_EQ( made->evpnCapability(), capability_ );
   status_->enabledIs( true );   // active: the change is heard
   EXPECT_THAT( written_, ElementsAre( false, true ) );
   r.clear();   // the leak check proves the machine and its copies are gone
}

}  // namespace
