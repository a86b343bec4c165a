// The model's modules and directory hooks, registered when the library
// loads: one module per namespace, and a newEntityForDir hook for every
// entity type so that any of them can be created inside a Mox::Dir by
// type name. None of them takes arguments beyond its name.
#include "platform/model/ControllerdbStatus.h"
#include "platform/model/EvpnCapability.h"
#include "platform/model/OrbBrIdList.h"
#include "platform/model/OrbEvpnConfig.h"
#include "platform/model/VniFdbStatusV2.h"
#include "platform/model/VniStatusDirV2.h"
#include "platform/mox/Dir.h"

namespace {

template< class T >
const Mox::Type* typeOf() {
   return &Mox::TypeImpl< T >::instance();
}

template< class T, class Make >
void hookIs( Make make ) {
   Mox::newEntityForDirIs(
      T::moxTypeName,
      [ make ]( const Mox::String& name,
                const std::vector< Mox::GenericValue >& args ) -> Mox::Ptr< Mox::Entity > {
         if ( !args.empty() ) {
            MOX_THROW( Mox::NewEntityArgumentsException,
                       "{} takes no arguments besides its name, got {}", T::moxTypeName,
                       args.size() );
         }
         return make( name );
      } );
}

Mox::Module vxlanControllerModule(
   "VxlanController",
   { typeOf< VxlanController::MacVtepV2 >(), typeOf< VxlanController::MacVtepFloodListV2 >(),
     typeOf< VxlanController::MacVtepMultiPathV2 >(), typeOf< VxlanController::VniFdbStatusV2 >(),
     typeOf< VxlanController::VniStatusV2 >(), typeOf< VxlanController::VniStatusDirV2 >() } );
Mox::Module controllerdbModule( "Controllerdb", { typeOf< Controllerdb::Status >() } );
Mox::Module orbEvpnModelModule( "OrbEvpnModel",
                                { typeOf< OrbEvpn::EvpnCapability >(),
                                  typeOf< OrbEvpn::OrbEvpnConfig >(),
                                  typeOf< OrbEvpn::OrbBrIdList >() } );

bool registerModel() {
   Mox::moxModuleIs( &vxlanControllerModule );
   Mox::moxModuleIs( &controllerdbModule );
   Mox::moxModuleIs( &orbEvpnModelModule );

   using namespace VxlanController;
   hookIs< MacVtepFloodListV2 >(
      []( const Mox::String& n ) { return MacVtepFloodListV2::MacVtepFloodListV2Is( n ); } );
   hookIs< MacVtepMultiPathV2 >(
      []( const Mox::String& n ) { return MacVtepMultiPathV2::MacVtepMultiPathV2Is( n ); } );
   hookIs< VniFdbStatusV2 >(
      []( const Mox::String& n ) { return VniFdbStatusV2::VniFdbStatusV2Is( n ); } );
   hookIs< VniStatusV2 >( []( const Mox::String& n ) { return VniStatusV2::VniStatusV2Is( n ); } );
   hookIs< VniStatusDirV2 >( &VniStatusDirV2::VniStatusDirV2Is );
   hookIs< Controllerdb::Status >( &Controllerdb::Status::StatusIs );
   hookIs< OrbEvpn::EvpnCapability >( &OrbEvpn::EvpnCapability::EvpnCapabilityIs );
   hookIs< OrbEvpn::OrbEvpnConfig >( &OrbEvpn::OrbEvpnConfig::OrbEvpnConfigIs );
   hookIs< OrbEvpn::OrbBrIdList >( &OrbEvpn::OrbBrIdList::OrbBrIdListIs );
   return true;
}

const bool registered = registerModel();

}  // namespace

