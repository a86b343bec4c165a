#include "platform/model/VniFdbStatusV2.h"

namespace VxlanController {

void VniFdbStatusV2::moxDescribe( Mox::TypeBuilder< VniFdbStatusV2 >& b ) {
   using C = VniFdbStatusV2;
   describeMacVtepTables( b );
   b.scalar( "vni", &C::vni );
   b.creator( static_cast< Mox::Ptr< C > ( * )( const Mox::String& ) >( &C::VniFdbStatusV2Is ) );
}

VniFdbStatusV2::VniFdbStatusV2( Vxlan::Vni vni )
      : MacVtepTables( Vxlan::valueToStrep( vni ) ), vni_( vni ) {}

VniFdbStatusV2::VniFdbStatusV2( const Mox::String& name )
      : MacVtepTables( name ), vni_( Vxlan::vniFromName( name ) ) {}

Mox::Ptr< VniFdbStatusV2 > VniFdbStatusV2::VniFdbStatusV2Is( const Mox::String& name ) {
   Mox::Ptr< VniFdbStatusV2 > p( new VniFdbStatusV2( name ) );
   p->hasNotificationActiveIs( true );
   return p;
}

Mox::Ptr< VniFdbStatusV2 > VniFdbStatusV2::VniFdbStatusV2Is( Vxlan::Vni vni ) {
   Mox::Ptr< VniFdbStatusV2 > p( new VniFdbStatusV2( vni ) );
   p->hasNotificationActiveIs( true );
   return p;
}

const Mox::Type* VniFdbStatusV2::fwkType() const {
   return &Mox::TypeImpl< VniFdbStatusV2 >::instance();
}

}  // namespace VxlanController
