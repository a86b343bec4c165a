// OrbEvpn::OrbEvpnConfig: the configuration that this system publishes.
//
// One flag, orbEvpnIntegrationMode: true exactly when the controller and
// the EVPN agent are to be coupled. Written only by the integration-mode
// machine; read by agents outside this system, some of which count the
// writes, so orbEvpnIntegrationModeIs stores and notifies on every call,
// even when the value does not change.
//
// Attribute ids: orbEvpnIntegrationMode 258. Threading: the notification
// thread only.
#pragma once

#include "platform/mox/Entity.h"

namespace OrbEvpn {

class OrbEvpnConfig : public Mox::Entity {
   MOX_ALLOC_TRACKED( OrbEvpnConfig )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "OrbEvpn::OrbEvpnConfig";
   static void moxDescribe( Mox::TypeBuilder< OrbEvpnConfig >& b );

   explicit OrbEvpnConfig( const Mox::String& name ) : Mox::Entity( name ) {}
   static Mox::Ptr< OrbEvpnConfig > OrbEvpnConfigIs( const Mox::String& name );

   bool orbEvpnIntegrationMode() const { return orbEvpnIntegrationMode_; }
   void orbEvpnIntegrationModeIs( bool on );

   const Mox::Type* fwkType() const override;

 private:
   bool orbEvpnIntegrationMode_ = false;
};

}  // namespace OrbEvpn
