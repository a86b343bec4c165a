#include "platform/model/EvpnCapability.h"

#include "platform/model/internal/ChildTable.h"

namespace OrbEvpn {

void EvpnCapability::moxDescribe( Mox::TypeBuilder< EvpnCapability >& b ) {
   b.scalar( "evpnEnabled", &EvpnCapability::evpnEnabled, &EvpnCapability::evpnEnabledIs )
      .creator( &EvpnCapability::EvpnCapabilityIs );
}

Mox::Ptr< EvpnCapability > EvpnCapability::EvpnCapabilityIs( const Mox::String& name ) {
   Mox::Ptr< EvpnCapability > p( new EvpnCapability( name ) );
   p->hasNotificationActiveIs( true );
   return p;
}

void EvpnCapability::evpnEnabledIs( bool e ) {
   static const Mox::AttributeId id = Model::internal::attrIdOf< EvpnCapability >( "evpnEnabled" );
   evpnEnabled_ = e;
   notify( id );
}

const Mox::Type* EvpnCapability::fwkType() const {
   return &Mox::TypeImpl< EvpnCapability >::instance();
}

}  // namespace OrbEvpn
