#include "platform/model/VniStatusDirV2.h"

namespace VxlanController {

void VniStatusDirV2::moxDescribe( Mox::TypeBuilder< VniStatusDirV2 >& b ) {
   using C = VniStatusDirV2;
   Mox::bindCollection(
      b, "vniStatusV2", []( const C& c ) -> const VniStatusColl& { return c.vniStatusV2_; },
      []( C& c, const Vxlan::Vni& vni, const Mox::Ptr< VniStatusV2 >& child ) {
         Model::internal::childAdopt( c, c.vniStatusV2_, vni, child, "vniStatusV2" );
      },
      []( C& c, const Vxlan::Vni& vni ) { c.vniStatusV2Del( vni ); } );
   b.creator( &C::VniStatusDirV2Is );
}

VniStatusDirV2::VniStatusDirV2( const Mox::String& name )
      : Mox::Entity( name ),
        vniStatusV2_( this, Model::internal::attrIdOf< VniStatusDirV2 >( "vniStatusV2" ) ) {}

VniStatusDirV2::~VniStatusDirV2() { Model::internal::childrenOrphan( vniStatusV2_ ); }

Mox::Ptr< VniStatusDirV2 > VniStatusDirV2::VniStatusDirV2Is( const Mox::String& name ) {
   Mox::Ptr< VniStatusDirV2 > p( new VniStatusDirV2( name ) );
   p->hasNotificationActiveIs( true );
   return p;
}

Mox::Ptr< VniStatusV2 > VniStatusDirV2::vniStatusV2Is( Vxlan::Vni vni ) {
   return Model::internal::childIs( *this, vniStatusV2_, vni,
                                    [ & ] { return VniStatusV2::VniStatusV2Is( vni ); } );
}

void VniStatusDirV2::vniStatusV2Del( Vxlan::Vni vni ) {
   Model::internal::childDel( vniStatusV2_, vni );
}

const Mox::Type* VniStatusDirV2::fwkType() const {
   return &Mox::TypeImpl< VniStatusDirV2 >::instance();
}

}  // namespace VxlanController
