#include "platform/model/MacVtepFloodListV2.h"

#include "platform/model/internal/ChildTable.h"
#include "platform/mox/CollectionAttr.h"

namespace VxlanController {

void MacVtepFloodListV2::moxDescribe( Mox::TypeBuilder< MacVtepFloodListV2 >& b ) {
   using C = MacVtepFloodListV2;
   b.scalar( "macAddr", &C::macAddr );
   Mox::bindCollection(
      b, "vtepIpFloodList", []( const C& c ) -> const VtepIpColl& { return c.vtepIpFloodList_; },
      []( C& c, const Wire::IpAddr& ip, bool on ) { c.vtepIpFloodListIs( ip, on ); },
      []( C& c, const Wire::IpAddr& ip ) { c.vtepIpFloodListDel( ip ); } );
   b.creator( static_cast< Mox::Ptr< C > ( * )( const Mox::String& ) >( &C::MacVtepFloodListV2Is ) );
}

MacVtepFloodListV2::MacVtepFloodListV2( const Wire::EthAddr& macAddr )
      : Mox::Entity( Wire::valueToStrep( macAddr ) ),
        macAddr_( macAddr ),
        vtepIpFloodList_( this, Model::internal::attrIdOf< MacVtepFloodListV2 >( "vtepIpFloodList" ) ) {}

Mox::Ptr< MacVtepFloodListV2 > MacVtepFloodListV2::MacVtepFloodListV2Is( const Mox::String& name ) {
   return MacVtepFloodListV2Is( Mox::strepToValue< Wire::EthAddr >( name ) );
}

Mox::Ptr< MacVtepFloodListV2 >
MacVtepFloodListV2::MacVtepFloodListV2Is( const Wire::EthAddr& macAddr ) {
   Mox::Ptr< MacVtepFloodListV2 > p( new MacVtepFloodListV2( macAddr ) );
   p->hasNotificationActiveIs( true );
   return p;
}

void MacVtepFloodListV2::vtepIpFloodListIs( const Wire::IpAddr& ip, bool on ) {
   vtepIpFloodList_.set( ip, on );
}

void MacVtepFloodListV2::vtepIpFloodListDel( const Wire::IpAddr& ip ) {
   vtepIpFloodList_.del( ip );
}

const Mox::Type* MacVtepFloodListV2::fwkType() const {
   return &Mox::TypeImpl< MacVtepFloodListV2 >::instance();
}

}  // namespace VxlanController
