#include "platform/lumen/binding/CollectionControl.h"

namespace MoxLumen {

namespace {

Mox::AttributeId attr( const char* name ) {
   return Mox::TypeImpl< CollectionControl >::instance().attributeId( name );
}

}  // namespace

void CollectionControl::moxDescribe( Mox::TypeBuilder< CollectionControl >& b ) {
   using C = CollectionControl;
   b.scalar( "quiesced", &C::quiesced, &C::quiescedIs )
      .scalar( "mountStatus", &C::mountStatus, &C::mountStatusIs )
      .scalar( "entity", &C::entity, &C::entityIs );
}

Mox::Ptr< CollectionControl > CollectionControl::CollectionControlIs() {
   Mox::Ptr< CollectionControl > c( new CollectionControl );
   c->hasNotificationActiveIs( true );
   return c;
}

void CollectionControl::quiescedIs( bool q ) {
   quiesced_ = q;
   notify( attr( "quiesced" ) );
}

void CollectionControl::mountStatusIs( Lumen::MountStatus s ) {
   mountStatus_ = s;
   notify( attr( "mountStatus" ) );
}

void CollectionControl::entityIs( const Mox::Ptr< Mox::Entity >& e ) {
   entity_ = e;
   notify( attr( "entity" ) );
}

const Mox::Type* CollectionControl::fwkType() const {
   return &Mox::TypeImpl< CollectionControl >::instance();
}

namespace {

Mox::Module module( "MoxLumen", { &Mox::TypeImpl< CollectionControl >::instance() } );
const bool registered = ( Mox::moxModuleIs( &module ), true );

}  // namespace

}  // namespace MoxLumen
