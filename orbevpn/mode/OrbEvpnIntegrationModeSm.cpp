#include "orbevpn/mode/OrbEvpnIntegrationModeSm.h"

#include "platform/trace/DualLog.h"

namespace OrbEvpn {

namespace {

const Trace::Handle& th() {
   static const Trace::Handle& h = Trace::handle( "OrbEvpnModeSm" );
   return h;
}

constexpr const char* setSignature =
   "void OrbEvpn::OrbEvpnIntegrationModeSm::setOrbEvpnIntegrationMode()";
constexpr const char* initSignature =
   "void OrbEvpn::OrbEvpnIntegrationModeSm::handleInitialized()";

}  // namespace

void OrbEvpnIntegrationModeSm::moxDescribe( Mox::TypeBuilder< OrbEvpnIntegrationModeSm >& b ) {
   using C = OrbEvpnIntegrationModeSm;
   b.input( "controllerdbStatus", &C::controllerdbStatus )
      .input( "evpnCapability", &C::evpnCapability )
      .output( "orbEvpnConfig", &C::orbEvpnConfig )
      .handler< void() >( "setOrbEvpnIntegrationMode", &C::setOrbEvpnIntegrationMode )
      .scalar( "initialized", &C::initialized, &C::initializedIs )
      .handler< void() >( "handleInitialized", &C::handleInitialized )
      .creator( &C::OrbEvpnIntegrationModeSmIs );
}

OrbEvpnIntegrationModeSm::OrbEvpnIntegrationModeSm(
   const Mox::Ptr< const Controllerdb::Status >& controllerdbStatus,
   const Mox::Ptr< const OrbEvpn::EvpnCapability >& evpnCapability,
   const Mox::Ptr< OrbEvpn::OrbEvpnConfig >& orbEvpnConfig )
      : controllerdbStatus_( makeReactor< MoxControllerdbStatus >( controllerdbStatus, this ) ),
        evpnCapability_( makeReactor< MoxEvpnCapability >( evpnCapability, this ) ),
        orbEvpnConfig_( orbEvpnConfig ) {
   handleInitialized();
}

OrbEvpnIntegrationModeSm::~OrbEvpnIntegrationModeSm() { moxRetire(); }

Mox::Ptr< OrbEvpnIntegrationModeSm > OrbEvpnIntegrationModeSm::OrbEvpnIntegrationModeSmIs(
   const Mox::Ptr< const Controllerdb::Status >& controllerdbStatus,
   const Mox::Ptr< const OrbEvpn::EvpnCapability >& evpnCapability,
   const Mox::Ptr< OrbEvpn::OrbEvpnConfig >& orbEvpnConfig ) {
   return moxCreate< OrbEvpnIntegrationModeSm >( controllerdbStatus, evpnCapability,
                                                 orbEvpnConfig );
}

Mox::Ptr< const Controllerdb::Status > OrbEvpnIntegrationModeSm::controllerdbStatus() const {
   return controllerdbStatus_ ? controllerdbStatus_->notifier() : nullptr;
}

Mox::Ptr< const OrbEvpn::EvpnCapability > OrbEvpnIntegrationModeSm::evpnCapability() const {
   return evpnCapability_ ? evpnCapability_->notifier() : nullptr;
}

void OrbEvpnIntegrationModeSm::handleInitialized() {
   TRACE( th(), 8, "{}", initSignature );
   setOrbEvpnIntegrationMode();
   TRACE( th(), 8, "{} return ", initSignature );
}

void OrbEvpnIntegrationModeSm::setOrbEvpnIntegrationMode() {
   TRACE( th(), 8, "{}", setSignature );
   TRACE( th(), 8, "controllerdbStatus()->enabled() {} evpnCapability()->evpnEnabled() {}",
          controllerdbStatus()->enabled(), evpnCapability()->evpnEnabled() );
   // Held for the whole call: a notification from the write may drop
   // the machine's own reference.
   Mox::Ptr< OrbEvpn::OrbEvpnConfig > config = orbEvpnConfig();
   if ( controllerdbStatus()->enabled() && evpnCapability()->evpnEnabled() ) {
      TRACE( th(), 8, "Turning orbEvpnIntegrationMode ON" );
      config->orbEvpnIntegrationModeIs( true );
   } else {
      TRACE( th(), 8, "Turning orbEvpnIntegrationMode OFF" );
      config->orbEvpnIntegrationModeIs( false );
   }
   TRACE( th(), 8, "{} return ", setSignature );
}

Mox::Ptr< OrbEvpnIntegrationModeSm > orbEvpnIntegrationModeSmFactory(
   const Mox::Ptr< const Controllerdb::Status >& controllerdbStatus,
   const Mox::Ptr< const OrbEvpn::EvpnCapability >& evpnCapability,
   const Mox::Ptr< OrbEvpn::OrbEvpnConfig >& orbEvpnConfig ) {
   return OrbEvpnIntegrationModeSm::OrbEvpnIntegrationModeSmIs( controllerdbStatus,
                                                                evpnCapability, orbEvpnConfig );
}

namespace {

Mox::Module modeModule( "OrbEvpnModeSm",
                        { &Mox::TypeImpl< OrbEvpnIntegrationModeSm >::instance() } );
const bool registered = ( Mox::moxModuleIs( &modeModule ), true );

}  // namespace

}  // namespace OrbEvpn
