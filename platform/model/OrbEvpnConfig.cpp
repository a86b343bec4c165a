#include "platform/model/OrbEvpnConfig.h"

#include "platform/model/internal/ChildTable.h"

namespace OrbEvpn {

void OrbEvpnConfig::moxDescribe( Mox::TypeBuilder< OrbEvpnConfig >& b ) {
   b.scalar( "orbEvpnIntegrationMode", &OrbEvpnConfig::orbEvpnIntegrationMode,
             &OrbEvpnConfig::orbEvpnIntegrationModeIs )
      .creator( &OrbEvpnConfig::OrbEvpnConfigIs );
}

Mox::Ptr< OrbEvpnConfig > OrbEvpnConfig::OrbEvpnConfigIs( const Mox::String& name ) {
   Mox::Ptr< OrbEvpnConfig > p( new OrbEvpnConfig( name ) );
   p->hasNotificationActiveIs( true );
   return p;
}

void OrbEvpnConfig::orbEvpnIntegrationModeIs( bool on ) {
   static const Mox::AttributeId id =
      Model::internal::attrIdOf< OrbEvpnConfig >( "orbEvpnIntegrationMode" );
   orbEvpnIntegrationMode_ = on;
   notify( id );
}

const Mox::Type* OrbEvpnConfig::fwkType() const {
   return &Mox::TypeImpl< OrbEvpnConfig >::instance();
}

}  // namespace OrbEvpn
