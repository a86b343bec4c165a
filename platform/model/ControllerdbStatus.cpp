#include "platform/model/ControllerdbStatus.h"

#include "platform/model/internal/ChildTable.h"

namespace Controllerdb {

void Status::moxDescribe( Mox::TypeBuilder< Status >& b ) {
   b.scalar( "version", &Status::version, &Status::versionIs )
      .scalar( "connected", &Status::connected, &Status::connectedIs )
      .scalar( "enabled", &Status::enabled, &Status::enabledIs )
      .creator( &Status::StatusIs );
}

Mox::Ptr< Status > Status::StatusIs( const Mox::String& name ) {
   Mox::Ptr< Status > p( new Status( name ) );
   p->hasNotificationActiveIs( true );
   return p;
}

void Status::versionIs( uint32_t v ) {
   static const Mox::AttributeId id = Model::internal::attrIdOf< Status >( "version" );
   version_ = v;
   notify( id );
}

void Status::connectedIs( bool c ) {
   static const Mox::AttributeId id = Model::internal::attrIdOf< Status >( "connected" );
   connected_ = c;
   notify( id );
}

void Status::enabledIs( bool e ) {
   static const Mox::AttributeId id = Model::internal::attrIdOf< Status >( "enabled" );
   enabled_ = e;
   notify( id );
}

const Mox::Type* Status::fwkType() const { return &Mox::TypeImpl< Status >::instance(); }

}  // namespace Controllerdb
