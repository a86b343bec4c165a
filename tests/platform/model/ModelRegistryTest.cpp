// Registration of the model: the attribute ids observers are built
// against, modules, and the directory hooks.
#include "platform/model/VniFdbStatusV2.h"
#include "platform/mox/Dir.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct IdCase {
   const char* type;
   const char* attribute;
   Mox::AttributeId id;
};

const IdCase idCases[] = {
   { "VxlanController::MacVtepV2", "macAddr", 2 },
   { "VxlanController::MacVtepV2", "preference", 5 },
   { "VxlanController::MacVtepFloodListV2", "vtepIpFloodList", 259 },
   { "VxlanController::VniFdbStatusV2", "macVtepTable", 258 },
   { "VxlanController::VniFdbStatusV2", "macVtepMultiPathTable", 259 },
   { "VxlanController::VniFdbStatusV2", "macVtepFloodListTable", 260 },
   { "VxlanController::VniStatusV2", "vni", 258 },
   { "VxlanController::VniStatusV2", "macVtepTable", 259 },
   { "VxlanController::VniStatusV2", "macVtepMultiPathTable", 260 },
   { "VxlanController::VniStatusV2", "macVtepFloodListTable", 261 },
   { "VxlanController::VniStatusDirV2", "vniStatusV2", 258 },
   { "Controllerdb::Status", "enabled", 260 },
   { "OrbEvpn::EvpnCapability", "evpnEnabled", 258 },
   { "OrbEvpn::OrbEvpnConfig", "orbEvpnIntegrationMode", 258 },
   { "OrbEvpn::OrbBrIdList", "brIdList", 258 },
};

TEST( ModelRegistry, AttributeIds ) {
   for ( const auto& c : idCases ) {
      SCOPED_TRACE( std::string( c.type ) + "::" + c.attribute );
      const Mox::Type* t = Mox::moxTypeByName( c.type );
      ASSERT_NE( t, nullptr );
      EXPECT_EQ( t->attributeId( c.attribute ), c.id );
   }
   EXPECT_NE( Mox::moxModule( "Controllerdb" )->type( "Controllerdb::Status" ), nullptr );
   EXPECT_NE( Mox::moxModule( "OrbEvpnModel" )->type( "OrbEvpn::OrbBrIdList" ), nullptr );
}

TEST( ModelRegistry, DirectoryHooksCreateByNameAndRefuseArguments ) {
   auto dir = Mox::Dir::DirIs( "vniDir" );
   auto status = Mox::ptrCast< VxlanController::VniFdbStatusV2 >(
      dir->newEntity( "VxlanController::VniFdbStatusV2", "100" ) );
   ASSERT_TRUE( status );
   EXPECT_EQ( status->vni(), Vxlan::Vni( 100 ) );
   EXPECT_EQ( status->fullName(), Mox::String( "vniDir/100" ) );
   EXPECT_EQ( status->fwkType(), Mox::moxTypeByName( "VxlanController::VniFdbStatusV2" ) );

   const std::vector< Mox::GenericValue > extra( 1 );
   EXPECT_THROW( dir->newEntity( "OrbEvpn::OrbBrIdList", "list", extra ),
                 Mox::NewEntityArgumentsException );
   // A VNI's status must be named by a valid VNI.
   EXPECT_THROW( dir->newEntity( "VxlanController::VniStatusV2", "five" ), Mox::RangeException );
   EXPECT_THROW( dir->newEntity( "VxlanController::VniStatusV2", "16777216" ), Mox::RangeException );
   EXPECT_EQ( dir->entityPtrs(), 1u );
}

}  // namespace
