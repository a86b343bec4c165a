// The EVPN-learnt status directory, and the collections of VniStatusV2
// that only other writers fill.
#include "platform/model/VniStatusDirV2.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using Vxlan::Vni;
using VxlanController::VniStatusDirV2;
using VxlanController::VniStatusV2;

TEST( VniStatusDirV2, CreateOrGetNotifiesOnceAndIteratesInVniOrder ) {
   LeakCheck leaks;
   auto dir = VniStatusDirV2::VniStatusDirV2Is( "dir" );
   auto rec = NotifieeRecorder< Vni >::NotifieeRecorderIs( dir );
   const auto id = dir->fwkType()->attributeId( "vniStatusV2" );
   auto s7 = dir->vniStatusV2Is( Vni( 7 ) );
   EXPECT_EQ( dir->vniStatusV2Is( Vni( 7 ) ), s7 );
   EXPECT_EQ( s7->fullName(), Mox::String( "dir/7" ) );
   EXPECT_EQ( dir->vniStatusV2( Vni( 8 ) ), nullptr );
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
}

TEST( VniStatusV2, OtherWritersCollectionsAreCountedUnderTheirNames ) {
   LeakCheck leaks;
   auto s = VniStatusV2::VniStatusV2Is( Vni( 3 ) );
   const Wire::EthAddr mac( 0, 1, 2, 3, 4, 5 );
   const Wire::IpAddr ip = Wire::IpAddr::fromOctets( 192, 0, 2, 1 );
   auto mp = s->macVtepMultiPathTablesIs( mac );
   EXPECT_EQ( s->macVtepMultiPathTablesIs( mac ), mp );
   EXPECT_EQ( s->macVtepMultiPathTables(), 1u );
   EXPECT_EQ( s->macVtepMultiPathTableSize(), 0u );   // not the base table
   s->ipToMacTablesIs( ip, mac );
   EXPECT_EQ( s->ipToMacTables(), 1u );
   s->macVtepMultiPathTablesDel( mac );
   s->ipToMacTablesDel( ip );
   EXPECT_EQ( s->macVtepMultiPathTables(), 0u );
   EXPECT_EQ( s->ipToMacTables(), 0u );
}

}  // namespace
