#include "platform/model/VniStatusV2.h"

namespace VxlanController {

void VniStatusV2::moxDescribe( Mox::TypeBuilder< VniStatusV2 >& b ) {
   using C = VniStatusV2;
   b.scalar( "vni", &C::vni );
   describeMacVtepTables( b );
   Mox::bindCollection(
      b, "macVtepMultiPathTables",
      []( const C& c ) -> const MultiPathsColl& { return c.macVtepMultiPathTables_; },
      []( C& c, const Wire::EthAddr& mac, const Mox::Ptr< MacVtepMultiPathV2 >& child ) {
         Model::internal::childAdopt( c, c.macVtepMultiPathTables_, mac, child,
                                      "macVtepMultiPathTables" );
      },
      []( C& c, const Wire::EthAddr& mac ) { c.macVtepMultiPathTablesDel( mac ); } );
   Mox::bindCollection(
      b, "ipToMacTables", []( const C& c ) -> const IpToMacColl& { return c.ipToMacTables_; },
      []( C& c, const Wire::IpAddr& ip, const Wire::EthAddr& mac ) { c.ipToMacTablesIs( ip, mac ); },
      []( C& c, const Wire::IpAddr& ip ) { c.ipToMacTablesDel( ip ); } );
   b.creator( static_cast< Mox::Ptr< C > ( * )( const Mox::String& ) >( &C::VniStatusV2Is ) );
}

VniStatusV2::VniStatusV2( Vxlan::Vni vni )
      : MacVtepTables( Vxlan::valueToStrep( vni ) ),
        vni_( vni ),
        macVtepMultiPathTables_( this,
                                 Model::internal::attrIdOf< VniStatusV2 >( "macVtepMultiPathTables" ) ),
        ipToMacTables_( this, Model::internal::attrIdOf< VniStatusV2 >( "ipToMacTables" ) ) {}

VniStatusV2::~VniStatusV2() { Model::internal::childrenOrphan( macVtepMultiPathTables_ ); }

Mox::Ptr< VniStatusV2 > VniStatusV2::VniStatusV2Is( const Mox::String& name ) {
   return VniStatusV2Is( Mox::strepToValue< Vxlan::Vni >( name ) );
}

Mox::Ptr< VniStatusV2 > VniStatusV2::VniStatusV2Is( Vxlan::Vni vni ) {
   Mox::Ptr< VniStatusV2 > p( new VniStatusV2( vni ) );
   p->hasNotificationActiveIs( true );
   return p;
}

Mox::Ptr< MacVtepMultiPathV2 > VniStatusV2::macVtepMultiPathTablesIs( const Wire::EthAddr& mac ) {
   return Model::internal::childIs( *this, macVtepMultiPathTables_, mac, [ & ] {
      return MacVtepMultiPathV2::MacVtepMultiPathV2Is( mac );
   } );
}

void VniStatusV2::macVtepMultiPathTablesDel( const Wire::EthAddr& mac ) {
   Model::internal::childDel( macVtepMultiPathTables_, mac );
}

void VniStatusV2::ipToMacTablesIs( const Wire::IpAddr& ip, const Wire::EthAddr& mac ) {
   ipToMacTables_.set( ip, mac );
}

void VniStatusV2::ipToMacTablesDel( const Wire::IpAddr& ip ) { ipToMacTables_.del( ip ); }

const Mox::Type* VniStatusV2::fwkType() const { return &Mox::TypeImpl< VniStatusV2 >::instance(); }

}  // namespace VxlanController
