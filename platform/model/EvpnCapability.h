// OrbEvpn::EvpnCapability: what the EVPN agent says it can do.
//
// Written by the EVPN agent; read (and watched) by the integration-mode
// machine. evpnEnabledIs stores and then notifies its id with no key on
// every call, changed or not.
//
// Attribute ids: evpnEnabled 258. Threading: the notification thread only.
#pragma once

#include "platform/mox/Entity.h"

namespace OrbEvpn {

class EvpnCapability : public Mox::Entity {
   MOX_ALLOC_TRACKED( EvpnCapability )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "OrbEvpn::EvpnCapability";
   static void moxDescribe( Mox::TypeBuilder< EvpnCapability >& b );

   explicit EvpnCapability( const Mox::String& name ) : Mox::Entity( name ) {}
   static Mox::Ptr< EvpnCapability > EvpnCapabilityIs( const Mox::String& name );

   bool evpnEnabled() const { return evpnEnabled_; }
   void evpnEnabledIs( bool e );

   const Mox::Type* fwkType() const override;

 private:
   bool evpnEnabled_ = false;
};

}  // namespace OrbEvpn
