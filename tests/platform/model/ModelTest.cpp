// The model's registration (attribute ids, modules, directory hooks), its value
// type MacVtepV2, the flag and key-list entities, and the three per-MAC
// collections over both statuses that carry them.
#include "platform/model/ControllerdbStatus.h"
#include "platform/model/EvpnCapability.h"
#include "platform/model/MacVtepFloodListV2.h"
#include "platform/model/MacVtepV2.h"
#include "platform/model/OrbBrIdList.h"
#include "platform/model/OrbEvpnConfig.h"
#include "platform/model/VniFdbStatusV2.h"
#include "platform/model/VniStatusDirV2.h"
#include "platform/model/VniStatusV2.h"
#include "platform/mox/Dir.h"
#include "platform/mox/Type.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using Bridging::BridgeId;
using VxlanController::MacVtepV2;
using Vxlan::Vni;
using Wire::EthAddr;

TEST( ModelRegistry, AttributeIdsModulesAndDirectoryHooks ) {
   const struct {
      const char *type, *attribute;
      Mox::AttributeId id;
   } idCases[] = {
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
   for ( const auto& c : idCases ) {
      SCOPED_TRACE( std::string( c.type ) + "::" + c.attribute );
      const Mox::Type* t = Mox::moxTypeByName( c.type );
      ASSERT_NE( t, nullptr );
      EXPECT_EQ( t->attributeId( c.attribute ), c.id );
   }
   EXPECT_NE( Mox::moxModule( "Controllerdb" )->type( "Controllerdb::Status" ), nullptr );
   EXPECT_NE( Mox::moxModule( "OrbEvpnModel" )->type( "OrbEvpn::OrbBrIdList" ), nullptr );
   auto dir = Mox::Dir::DirIs( "vniDir" );
   const std::vector< Mox::GenericValue > extra( 1 );
   EXPECT_THROW( dir->newEntity( "OrbEvpn::OrbBrIdList", "list", extra ),
                 Mox::NewEntityArgumentsException );
}

TEST( VniFdbStatusV2, AnyNameGivesAStatusWhoseVniIsReadFromIt ) {
   LeakCheck leaks;
   using VxlanController::VniFdbStatusV2;
   const struct {
      const char* name;
      uint32_t vni;
   } cases[] = { { "5", 5 }, { "007", 7 }, { "7abc", 7 }, { "abc", 0 }, { "16777215", 16777215 } };
   auto dir = Mox::Dir::DirIs( "vniDir" );
   for ( const auto& c : cases ) {
      auto s = VniFdbStatusV2::VniFdbStatusV2Is( Mox::String( c.name ) );
      EXPECT_EQ( s->vni(), Vni( c.vni ) ) << c.name;
      EXPECT_EQ( s->name(), Mox::String( c.name ) );
      // Through the directory hook as well, filed under the name given.
      auto viaDir = Mox::ptrCast< VniFdbStatusV2 >(
         dir->newEntity( "VxlanController::VniFdbStatusV2", Mox::String( c.name ) ) );
      ASSERT_TRUE( viaDir );
      EXPECT_EQ( viaDir->vni(), Vni( c.vni ) );
      EXPECT_EQ( dir->entityPtr( Mox::String( c.name ) ), viaDir );
      EXPECT_EQ( viaDir->fullName(), Mox::String( std::string( "vniDir/" ) + c.name ) );
   }
   // A status named by an out-of-range number is refused; a VniStatusV2 needs a number.
   for ( const char* bad : { "16777216", "-1" } ) {
      EXPECT_THROW( VniFdbStatusV2::VniFdbStatusV2Is( Mox::String( bad ) ), Mox::RangeException );
   }
   for ( const char* name : { "five", "16777216" } ) {
      EXPECT_THROW( dir->newEntity( "VxlanController::VniStatusV2", name ), Mox::RangeException );
   }
   EXPECT_EQ( dir->entityPtrs(), std::size( cases ) );
   // Made from a VNI it is named by the VNI's text.
   EXPECT_EQ( VniFdbStatusV2::VniFdbStatusV2Is( Vni( 12 ) )->name(), Mox::String( "12" ) );
}

TEST( MacVtepV2, DefaultEqualityAndTextForm ) {
   using Keel::Seqno32;
   const Wire::EthAddr mac( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e );
   const Wire::IpAddr vtep = Wire::IpAddr::fromOctets( 10, 0, 0, 1 );
   EXPECT_EQ( MacVtepV2(), MacVtepV2( Wire::EthAddr(), Wire::IpAddr(), Seqno32(), 16 ) );
   // The generic whole-value query answers "is this the default?".
   const Mox::Type* t = Mox::moxTypeByName( "VxlanController::MacVtepV2" );
   Mox::GenericValue r;
   MacVtepV2 v;
   for ( bool isDefault : { true, false } ) {
      t->genericIfAttributeOp( r, static_cast< void* >( &v ), 0, Mox::genericOpGet );
      EXPECT_EQ( r.get< bool >(), isDefault );
      v.seqNoIs( Seqno32( 1 ) );
   }
   // Each field takes part in equality.
   const MacVtepV2 base( mac, vtep, Seqno32( 7 ), 20 );
   for ( const MacVtepV2& other : { MacVtepV2( Wire::EthAddr(), vtep, Seqno32( 7 ), 20 ),
                                    MacVtepV2( mac, Wire::IpAddr(), Seqno32( 7 ), 20 ),
                                    MacVtepV2( mac, vtep, Seqno32( 8 ), 20 ),
                                    MacVtepV2( mac, vtep, Seqno32( 7 ), 21 ) } ) {
      EXPECT_FALSE( base == other ) << other;
   }

   v = MacVtepV2( mac, vtep, Seqno32( 4000000000u ), 255 );
   const std::string text = "Value('VxlanController::MacVtepV2', ** {'macAddr': 00:1a:2b:3c:4d:5e, "
                            "'vtepAddr': 10.0.0.1, 'seqNo': 4000000000, 'preference': 255})";
   EXPECT_EQ( VxlanController::valueToStrep( v ), Mox::String( text ) );
   EXPECT_EQ( fmt::format( "{}", v ), text );
   EXPECT_EQ( Mox::strepToValue< MacVtepV2 >( text ), v );
   // A bad field is reported under its name; trailing text is refused.
   EXPECT_THAT( [ & ] { Mox::strepToValue< MacVtepV2 >( text.substr( 0, text.find( "255" ) ) + "256})" ); },
                ::testing::Throws< Mox::RangeException >(
                   ::testing::Property( &Mox::RangeException::attribute, "preference" ) ) );
   EXPECT_THROW( Mox::strepToValue< MacVtepV2 >( text + " " ), Mox::ParseException );
}

// Writes true, true, false: each must notify, key-less, after the store.
template< class E >
void expectEveryWriteNotifies( const char* attribute, Mox::Ptr< E > e, void ( E::*set )( bool ),
                               bool ( E::*get )() const ) {
   SCOPED_TRACE( attribute );
   auto rec = NotifieeRecorder< int >::NotifieeRecorderIs( e );
   std::vector< bool > seen;
   rec->onEvent = [ & ]( Mox::AttributeId, const void* key ) {
      EXPECT_EQ( key, nullptr );
      seen.push_back( ( e.ptr()->*get )() );
   };
   for ( bool v : { true, true, false } ) {
      ( e.ptr()->*set )( v );
   }
   EXPECT_EQ( rec->keys( e->fwkType()->attributeId( attribute ) ).size(), 3u );
   EXPECT_THAT( seen, ElementsAre( true, true, false ) );
}

TEST( SmallEntities, FlagsNotifyEveryWriteFloodListEachRealChange ) {
   LeakCheck leaks;
   using Controllerdb::Status;
   using namespace OrbEvpn;
   expectEveryWriteNotifies( "enabled", Status::StatusIs( "s" ), &Status::enabledIs, &Status::enabled );
   expectEveryWriteNotifies( "evpnEnabled", EvpnCapability::EvpnCapabilityIs( "c" ),
                             &EvpnCapability::evpnEnabledIs, &EvpnCapability::evpnEnabled );
   expectEveryWriteNotifies( "orbEvpnIntegrationMode", OrbEvpnConfig::OrbEvpnConfigIs( "c" ),
                             &OrbEvpnConfig::orbEvpnIntegrationModeIs,
                             &OrbEvpnConfig::orbEvpnIntegrationMode );

   // Key-only: a false flag is still a key; deleting an absent key is silent.
   auto flood = VxlanController::MacVtepFloodListV2::MacVtepFloodListV2Is( "00:00:00:00:00:00" );
   auto floodRec = NotifieeRecorder< Wire::IpAddr >::NotifieeRecorderIs( flood );
   const auto fid = flood->fwkType()->attributeId( "vtepIpFloodList" );
   const auto a = Wire::IpAddr::fromOctets( 10, 0, 0, 1 ), b = Wire::IpAddr::fromOctets( 10, 0, 0, 2 );
   flood->vtepIpFloodListIs( a, false );
   flood->vtepIpFloodListIs( b, true );
   EXPECT_TRUE( flood->vtepIpFloodListContains( a ) );
   flood->vtepIpFloodListDel( a );
   flood->vtepIpFloodListDel( a );
   EXPECT_THAT( floodRec->events(), ElementsAre( Pair( fid, a ), Pair( fid, b ), Pair( fid, a ) ) );
   EXPECT_THROW( VxlanController::MacVtepFloodListV2::MacVtepFloodListV2Is( "00:00:00" ),
                 Mox::RangeException );
}

const EthAddr bum;   // all zero: "every BUM destination"
const EthAddr macA( 0, 0, 0, 0, 0, 0xa );
const EthAddr macB( 0, 0, 0, 0, 0, 0xb );
const MacVtepV2 entryA( macA, Wire::IpAddr::fromOctets( 10, 0, 0, 1 ), Keel::Seqno32( 3 ) );

template< class S >
class MacVtepTablesTest : public ::testing::Test {
 protected:
   static Mox::AttributeId id( const char* name ) { return Mox::TypeImpl< S >::instance().attributeId( name ); }
   static Mox::Ptr< S > make() {
      Mox::GenericValue r;   // the creator by name, the same for both types
      const Mox::String name( "5" );
      const void* args[] = { &name };
      Mox::TypeImpl< S >::instance().genericIfConstructFromCtorArgs( r, args );
      return Mox::ptrCast< S >( r.get< Mox::Ptr< Mox::PtrInterface > >() );
   }
   LeakCheck leaks;   // declared first: checks once the objects below are gone
   Mox::Ptr< S > status = make();
   Mox::Ptr< NotifieeRecorder< EthAddr > > rec =
      NotifieeRecorder< EthAddr >::NotifieeRecorderIs( status );
};

using Statuses = ::testing::Types< VxlanController::VniFdbStatusV2, VxlanController::VniStatusV2 >;
TYPED_TEST_SUITE( MacVtepTablesTest, Statuses );

TYPED_TEST( MacVtepTablesTest, MacVtepTableNotifiesEverySetAndOnlyRealDeletesAlsoGenerically ) {
   auto* s = this->status.ptr();
   s->macVtepTableIs( entryA );
   s->macVtepTableIs( entryA );   // unchanged, still a notification
   s->macVtepTableDel( macB );    // absent: nothing
   EXPECT_EQ( s->macVtepTable( macA ), entryA );
   s->macVtepTableDel( macA );
   EXPECT_EQ( s->macVtepTable( macA ), MacVtepV2() );

   const Mox::Type* type = s->fwkType();
   const auto t = this->id( "macVtepTable" );
   Mox::GenericValue r;
   auto op = [ & ]( int code, const void* a = nullptr, const void* a2 = nullptr ) {
      return type->genericIfAttributeOp( r, s, t, code, a, a2 );
   };
   EXPECT_EQ( op( Mox::genericOpSet, &macA, &entryA ), Mox::genericDone );
   EXPECT_EQ( op( Mox::genericOpGet, &macA ), Mox::genericDone );
   EXPECT_EQ( r.get< MacVtepV2 >(), entryA );
   op( Mox::genericOpCount );
   EXPECT_EQ( r.get< size_t >(), 1u );
   // Filed under another MAC than its own, an entry would be unreachable.
   EXPECT_THROW( op( Mox::genericOpSet, &macB, &entryA ), Mox::Exception );
   EXPECT_EQ( op( Mox::genericOpDel, &macA ), Mox::genericDone );
   EXPECT_EQ( this->rec->events(), std::vector( 5, std::pair( t, macA ) ) );
}

TYPED_TEST( MacVtepTablesTest, ChildTablesCreateOrGetParentWhileFiledAndDieWithTheirOwner ) {
   auto* s = this->status.ptr();
   auto list = s->macVtepFloodListTableIs( bum );
   EXPECT_EQ( s->macVtepFloodListTableIs( bum ), list );
   EXPECT_EQ( list->fullName(), Mox::String( "5/00:00:00:00:00:00" ) );
   auto multi = s->macVtepMultiPathTableIs( macB );
   // Through the generic interface too, create-or-get never replaces a child.
   const auto fl = this->id( "macVtepFloodListTable" ), mp = this->id( "macVtepMultiPathTable" );
   auto other = VxlanController::MacVtepFloodListV2::MacVtepFloodListV2Is( bum );
   Mox::GenericValue r;
   EXPECT_THROW( s->fwkType()->genericIfAttributeOp( r, s, fl, Mox::genericOpSet, &bum, &other ),
                 Mox::ReinstantiationException );
   EXPECT_EQ( s->macVtepFloodListTable( bum ), list );
   s->macVtepFloodListTableDel( macA );
   s->macVtepFloodListTableDel( bum );
   EXPECT_THAT( this->rec->events(), ElementsAre( Pair( fl, bum ), Pair( mp, macB ), Pair( fl, bum ) ) );
   // Still held here but no longer filed: it must not point at its old owner.
   EXPECT_EQ( list->parent(), nullptr );
   EXPECT_EQ( multi->parent(), s );

   multi = nullptr;
   list = s->macVtepFloodListTableIs( bum );
   EXPECT_EQ( TypeParam::moxAllocTrackTypeInfo_.liveObjects(), 1 );
   this->rec = nullptr;
   this->status = nullptr;
   EXPECT_EQ( TypeParam::moxAllocTrackTypeInfo_.liveObjects(), 0 );
   EXPECT_EQ( list->parent(), nullptr );   // survives its owner and knows it has none
}

TEST( VniStatusDirV2, CreateOrGetNotifiesOnceIteratesInVniOrderAndCountsOthersCollections ) {
   LeakCheck leaks;
   auto dir = VxlanController::VniStatusDirV2::VniStatusDirV2Is( "dir" );
   auto rec = NotifieeRecorder< Vni >::NotifieeRecorderIs( dir );
   const auto id = dir->fwkType()->attributeId( "vniStatusV2" );
   auto s7 = dir->vniStatusV2Is( Vni( 7 ) );
   EXPECT_EQ( dir->vniStatusV2Is( Vni( 7 ) ), s7 );
   EXPECT_EQ( s7->fullName(), Mox::String( "dir/7" ) );
   dir->vniStatusV2Del( Vni( 8 ) );   // absent: nothing
   dir->vniStatusV2Del( Vni( 7 ) );
   EXPECT_THAT( rec->events(), ElementsAre( Pair( id, Vni( 7 ) ), Pair( id, Vni( 7 ) ) ) );
   EXPECT_EQ( s7->parent(), nullptr );

   // Numeric order, not that of the names ("10" < "9").
   for ( uint32_t v : { 10u, 9u, 0xFFFFFFu, 100u } ) {
      dir->vniStatusV2Is( Vni( v ) );
   }
   std::vector< uint32_t > seen;
   for ( auto it = dir->vniStatusV2Coll().iterator(); !it.done(); ++it ) {
      EXPECT_EQ( it.value()->vni(), it.key() );
      seen.push_back( it.key().value() );
   }
   EXPECT_THAT( seen, ElementsAre( 9u, 10u, 100u, 0xFFFFFFu ) );

   // Collections that only other writers fill are counted under their names.
   const Wire::EthAddr mac( 0, 1, 2, 3, 4, 5 );
   const Wire::IpAddr ip = Wire::IpAddr::fromOctets( 192, 0, 2, 1 );
   EXPECT_EQ( s7->macVtepMultiPathTablesIs( mac ), s7->macVtepMultiPathTablesIs( mac ) );
   EXPECT_EQ( s7->macVtepMultiPathTables(), 1u );
   EXPECT_EQ( s7->macVtepMultiPathTableSize(), 0u );   // not the base table
   s7->ipToMacTablesIs( ip, mac );
   EXPECT_EQ( s7->ipToMacTables(), 1u );
   s7->macVtepMultiPathTablesDel( mac );
   s7->ipToMacTablesDel( ip );
   EXPECT_EQ( s7->macVtepMultiPathTables() + s7->ipToMacTables(), 0u );
}

}  // namespace
