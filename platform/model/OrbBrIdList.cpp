#include "platform/model/OrbBrIdList.h"

#include "platform/model/internal/ChildTable.h"
#include "platform/mox/CollectionAttr.h"

namespace OrbEvpn {

void OrbBrIdList::moxDescribe( Mox::TypeBuilder< OrbBrIdList >& b ) {
   using C = OrbBrIdList;
   Mox::bindCollection(
      b, "brIdList", []( const C& c ) -> const BrIdColl& { return c.brIdList_; },
      []( C& c, const Bridging::BridgeId& brId, bool value ) { c.brIdListIs( brId, value ); },
      []( C& c, const Bridging::BridgeId& brId ) { c.brIdListDel( brId ); } );
   b.creator( &C::OrbBrIdListIs );
}

OrbBrIdList::OrbBrIdList( const Mox::String& name )
      : Mox::Entity( name ), brIdList_( this, Model::internal::attrIdOf< OrbBrIdList >( "brIdList" ) ) {}

Mox::Ptr< OrbBrIdList > OrbBrIdList::OrbBrIdListIs( const Mox::String& name ) {
   Mox::Ptr< OrbBrIdList > p( new OrbBrIdList( name ) );
   p->hasNotificationActiveIs( true );
   return p;
}

void OrbBrIdList::brIdListIs( Bridging::BridgeId brId, bool value ) { brIdList_.set( brId, value ); }

void OrbBrIdList::brIdListDel( Bridging::BridgeId brId ) { brIdList_.del( brId ); }

void OrbBrIdList::brIdListDelAll() { brIdList_.delAll(); }

const Mox::Type* OrbBrIdList::fwkType() const { return &Mox::TypeImpl< OrbBrIdList >::instance(); }

}  // namespace OrbEvpn
