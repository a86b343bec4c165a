#include "platform/model/MacVtepMultiPathV2.h"

#include "platform/model/internal/ChildTable.h"
#include "platform/mox/CollectionAttr.h"

namespace VxlanController {

void MacVtepMultiPathV2::moxDescribe( Mox::TypeBuilder< MacVtepMultiPathV2 >& b ) {
   using C = MacVtepMultiPathV2;
   b.scalar( "macAddr", &C::macAddr );
   Mox::bindCollection(
      b, "vtepIpList", []( const C& c ) -> const VtepIpColl& { return c.vtepIpList_; },
      []( C& c, const Wire::IpAddr& ip, bool on ) { c.vtepIpListIs( ip, on ); },
      []( C& c, const Wire::IpAddr& ip ) { c.vtepIpListDel( ip ); } );
   b.creator( static_cast< Mox::Ptr< C > ( * )( const Mox::String& ) >( &C::MacVtepMultiPathV2Is ) );
}

MacVtepMultiPathV2::MacVtepMultiPathV2( const Wire::EthAddr& macAddr )
      : Mox::Entity( Wire::valueToStrep( macAddr ) ),
        macAddr_( macAddr ),
        vtepIpList_( this, Model::internal::attrIdOf< MacVtepMultiPathV2 >( "vtepIpList" ) ) {}

Mox::Ptr< MacVtepMultiPathV2 > MacVtepMultiPathV2::MacVtepMultiPathV2Is( const Mox::String& name ) {
   return MacVtepMultiPathV2Is( Mox::strepToValue< Wire::EthAddr >( name ) );
}

Mox::Ptr< MacVtepMultiPathV2 >
MacVtepMultiPathV2::MacVtepMultiPathV2Is( const Wire::EthAddr& macAddr ) {
   Mox::Ptr< MacVtepMultiPathV2 > p( new MacVtepMultiPathV2( macAddr ) );
   p->hasNotificationActiveIs( true );
   return p;
}

void MacVtepMultiPathV2::vtepIpListIs( const Wire::IpAddr& ip, bool on ) {
   vtepIpList_.set( ip, on );
}

void MacVtepMultiPathV2::vtepIpListDel( const Wire::IpAddr& ip ) {
   vtepIpList_.del( ip );
}

const Mox::Type* MacVtepMultiPathV2::fwkType() const {
   return &Mox::TypeImpl< MacVtepMultiPathV2 >::instance();
}

}  // namespace VxlanController
