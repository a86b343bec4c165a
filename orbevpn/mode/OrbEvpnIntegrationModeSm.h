// OrbEvpnIntegrationModeSm: keeps the integration flag.
//
// orbEvpnIntegrationMode of the configuration is true exactly when the
// controller database is enabled and EVPN is enabled. The machine watches
// both status entities and writes the flag on every recompute (it keeps no
// copy of the last value), already once during construction. It has no
// state besides its inputs; destroying it leaves the flag as last written.
//
// The status input is required by every recompute, the capability input
// by every recompute that finds the database enabled (and by all of them
// while level-8 tracing is on): a missing one is a programming error.
//
// Single-threaded: runs on the notification thread.
#pragma once

#include "orbevpn/runtime/Reactor.h"
#include "orbevpn/runtime/StateMachine.h"
#include "platform/model/ControllerdbStatus.h"
#include "platform/model/EvpnCapability.h"
#include "platform/model/OrbEvpnConfig.h"

namespace OrbEvpn {

class OrbEvpnIntegrationModeSm : public StateMachine< OrbEvpnIntegrationModeSm > {
   MOX_ALLOC_TRACKED( OrbEvpnIntegrationModeSm )

 public:
   using MoxBase = Mox::PtrInterface;
   static constexpr const char* moxTypeName = "OrbEvpn::OrbEvpnIntegrationModeSm";
   static void moxDescribe( Mox::TypeBuilder< OrbEvpnIntegrationModeSm >& b );

   ORBEVPN_REACTOR( MoxControllerdbStatus, OrbEvpnIntegrationModeSm, Controllerdb::Status,
                    scalarOwnerChecked,
                    watch< &OrbEvpnIntegrationModeSm::setOrbEvpnIntegrationMode >(
                       "enabled" ) );
   ORBEVPN_REACTOR( MoxEvpnCapability, OrbEvpnIntegrationModeSm, OrbEvpn::EvpnCapability,
                    scalarOwnerChecked,
                    watch< &OrbEvpnIntegrationModeSm::setOrbEvpnIntegrationMode >(
                       "evpnEnabled" ) );

   OrbEvpnIntegrationModeSm( const Mox::Ptr< const Controllerdb::Status >& controllerdbStatus,
                             const Mox::Ptr< const OrbEvpn::EvpnCapability >& evpnCapability,
                             const Mox::Ptr< OrbEvpn::OrbEvpnConfig >& orbEvpnConfig );
   ~OrbEvpnIntegrationModeSm() override;

   static Mox::Ptr< OrbEvpnIntegrationModeSm >
   OrbEvpnIntegrationModeSmIs( const Mox::Ptr< const Controllerdb::Status >& controllerdbStatus,
                               const Mox::Ptr< const OrbEvpn::EvpnCapability >& evpnCapability,
                               const Mox::Ptr< OrbEvpn::OrbEvpnConfig >& orbEvpnConfig );

   // Inputs yield the reactor's current notifier (null without a reactor).
   Mox::Ptr< const Controllerdb::Status > controllerdbStatus() const;
   Mox::Ptr< const OrbEvpn::EvpnCapability > evpnCapability() const;
   Mox::Ptr< OrbEvpn::OrbEvpnConfig > orbEvpnConfig() const { return orbEvpnConfig_; }
   bool initialized() const { return initialized_; }
   // Only stores the flag; it does not run handleInitialized.
   void initializedIs( bool i ) { initialized_ = i; }

   void setOrbEvpnIntegrationMode();
   void handleInitialized();

   // The reactors themselves, for observers and tests.
   const Mox::Ptr< MoxControllerdbStatus >& controllerdbStatusReactor() const {
      return controllerdbStatus_;
   }
   const Mox::Ptr< MoxEvpnCapability >& evpnCapabilityReactor() const {
      return evpnCapability_;
   }

   auto moxReactors() { return std::tie( controllerdbStatus_, evpnCapability_ ); }

 private:
   Mox::Ptr< MoxControllerdbStatus > controllerdbStatus_;
   Mox::Ptr< MoxEvpnCapability > evpnCapability_;
   Mox::Ptr< OrbEvpn::OrbEvpnConfig > orbEvpnConfig_;
   bool initialized_ = false;
};

Mox::Ptr< OrbEvpnIntegrationModeSm >
orbEvpnIntegrationModeSmFactory( const Mox::Ptr< const Controllerdb::Status >& controllerdbStatus,
                                 const Mox::Ptr< const OrbEvpn::EvpnCapability >& evpnCapability,
                                 const Mox::Ptr< OrbEvpn::OrbEvpnConfig >& orbEvpnConfig );

}  // namespace OrbEvpn
