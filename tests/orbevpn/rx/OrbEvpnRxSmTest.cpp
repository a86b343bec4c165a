#include "orbevpn/rx/OrbEvpnRxSm.h"

#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace VxlanController;
using OrbEvpn::FloodEntry;
using OrbEvpn::Host;
using OrbEvpn::MacVniPair;
using OrbEvpn::VniVtepPair;

const Wire::EthAddr mac1( 0, 0x1a, 0x2b, 0x3c, 0x4d, 0x01 );
const Wire::EthAddr mac2( 0, 0x1a, 0x2b, 0x3c, 0x4d, 0x02 );
const Wire::EthAddr zeroMac{};
const Vxlan::Vni vni10( 10 );
const Vxlan::Vni vni20( 20 );
const Wire::IpAddr vtepA = Wire::IpAddr::fromOctets( 10, 0, 0, 1 );
const Wire::IpAddr vtepB = Wire::IpAddr::fromOctets( 10, 0, 0, 2 );

Host makeHost( const Wire::EthAddr& mac, Vxlan::Vni vni, Wire::IpAddr vtep, uint32_t seq,
               uint8_t pref = 16 ) {
   Host h( MacVniPair( mac, vni ) );
   h.vtepAddrIs( vtep );
   h.seqNoIs( Keel::Seqno32( seq ) );
   h.preferenceIs( pref );
   return h;
}

class OrbEvpnRxSmTest : public ::testing::Test {
 protected:
   LeakCheck leaks;   // declared first: checked after everything below is gone
   Mox::Ptr< OrbEvpn::HostTable > hosts = OrbEvpn::hostTableFactory( "host" );
   Mox::Ptr< OrbEvpn::FloodTable > floods = OrbEvpn::floodTableFactory( "flood" );
   Mox::Ptr< VniStatusDirV2 > dir = VniStatusDirV2::VniStatusDirV2Is( "vniStatus" );
   Mox::Ptr< OrbEvpnRxSm > sm;

   void start() { sm = orbEvpnRxSmFactory( hosts, floods, dir ); }
   Mox::Ptr< VniStatusV2 > status( Vxlan::Vni v ) { return dir->vniStatusV2( v ); }
   Mox::Ptr< MacVtepFloodListV2 > floodList( Vxlan::Vni v ) {
      auto s = status( v );
      return s ? s->macVtepFloodListTable( zeroMac ) : nullptr;
   }
};

TEST_F( OrbEvpnRxSmTest, ConstructionImportsWhatTheTablesAlreadyHold ) {
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 5, 20 ) );
   hosts->hostIs( makeHost( mac2, vni20, vtepB, 6 ) );
   floods->floodEntryIs( FloodEntry( VniVtepPair( vni20, vtepA ) ) );
   start();

   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepTable( mac1 ),
              MacVtepV2( mac1, vtepA, Keel::Seqno32( 5 ), 20 ) );
   ASSERT_TRUE( status( vni20 ) );
   EXPECT_EQ( status( vni20 )->macVtepTable( mac2 ).seqNo(), Keel::Seqno32( 6 ) );
   ASSERT_TRUE( floodList( vni20 ) );
   EXPECT_TRUE( floodList( vni20 )->vtepIpFloodList( vtepA ) );
   EXPECT_EQ( floodList( vni20 )->vtepIpFloodListSize(), 1u );
   EXPECT_FALSE( floodList( vni10 ) );
   EXPECT_EQ( dir->vniStatusV2Size(), 2u );
}

TEST_F( OrbEvpnRxSmTest, HostsFollowTheTableAndTheLastHostTakesTheStatus ) {
   start();
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   hosts->hostIs( makeHost( mac2, vni10, vtepB, 2 ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepTableSize(), 2u );

   // A replaced host replaces the controller entry.
   hosts->hostIs( makeHost( mac1, vni10, vtepB, 3, 7 ) );
   EXPECT_EQ( status( vni10 )->macVtepTable( mac1 ),
              MacVtepV2( mac1, vtepB, Keel::Seqno32( 3 ), 7 ) );

   hosts->hostDel( MacVniPair( mac1, vni10 ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepTable( mac1 ), MacVtepV2() );
   hosts->hostDel( MacVniPair( mac2, vni10 ) );
   EXPECT_FALSE( status( vni10 ) );
}

TEST_F( OrbEvpnRxSmTest, AHostEqualToTheDefaultIsADeletion ) {
   start();
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 9 ) );
   ASSERT_TRUE( status( vni10 ) );
   // Zero VTEP, zero sequence number, preference 16: "no host".
   hosts->hostIs( Host( MacVniPair( mac1, vni10 ) ) );
   EXPECT_FALSE( status( vni10 ) );
   // Preference alone makes a host real.
   hosts->hostIs( makeHost( mac1, vni10, Wire::IpAddr(), 0, 17 ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepTable( mac1 ).preference(), 17 );
}

TEST_F( OrbEvpnRxSmTest, FloodListKeepsItsVtepsUntilTheLastGoes ) {
   start();
   floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepA ) ) );
   floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepB ) ) );
   ASSERT_TRUE( floodList( vni10 ) );
   EXPECT_EQ( floodList( vni10 )->vtepIpFloodListSize(), 2u );
   EXPECT_EQ( status( vni10 )->macVtepFloodListTableSize(), 1u );

   floods->floodEntryDel( VniVtepPair( vni10, vtepA ) );
   ASSERT_TRUE( floodList( vni10 ) );
   EXPECT_FALSE( floodList( vni10 )->vtepIpFloodListContains( vtepA ) );
   EXPECT_TRUE( floodList( vni10 )->vtepIpFloodList( vtepB ) );

   floods->floodEntryDel( VniVtepPair( vni10, vtepB ) );
   EXPECT_FALSE( status( vni10 ) );
}

TEST_F( OrbEvpnRxSmTest, FloodListRemovalKeepsTheStatusWhileAHostRemains ) {
   start();
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepA ) ) );
   floods->floodEntryDel( VniVtepPair( vni10, vtepA ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepFloodListTableSize(), 0u );
   EXPECT_EQ( status( vni10 )->macVtepTableSize(), 1u );
}

TEST_F( OrbEvpnRxSmTest, HostAndFloodEntryOfOneVniGoInEitherOrder ) {
   start();
   for ( bool hostFirst : { true, false } ) {
      SCOPED_TRACE( hostFirst ? "host first" : "flood entry first" );
      hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
      floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepB ) ) );
      ASSERT_TRUE( status( vni10 ) );
      if ( hostFirst ) {
         hosts->hostDel( MacVniPair( mac1, vni10 ) );
         ASSERT_TRUE( status( vni10 ) );
         floods->floodEntryDel( VniVtepPair( vni10, vtepB ) );
      } else {
         floods->floodEntryDel( VniVtepPair( vni10, vtepB ) );
         ASSERT_TRUE( status( vni10 ) );
         hosts->hostDel( MacVniPair( mac1, vni10 ) );
      }
      EXPECT_FALSE( status( vni10 ) );
      EXPECT_EQ( dir->vniStatusV2Size(), 0u );
   }
}

TEST_F( OrbEvpnRxSmTest, CleanupRemovesExactlyTheMirror ) {
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   floods->floodEntryIs( FloodEntry( VniVtepPair( vni20, vtepA ) ) );
   start();
   // Something the controller holds that the tables did not bring.
   auto other = dir->vniStatusV2Is( Vxlan::Vni( 30 ) );
   other->macVtepTableIs( MacVtepV2( mac2, vtepB, Keel::Seqno32( 1 ), 16 ) );

   sm->cleanup();
   EXPECT_FALSE( status( vni10 ) );
   EXPECT_FALSE( status( vni20 ) );
   ASSERT_TRUE( status( Vxlan::Vni( 30 ) ) );
   EXPECT_EQ( dir->vniStatusV2Size(), 1u );
   // The tables themselves are untouched, and a new pass imports again.
   EXPECT_EQ( hosts->hosts(), 1u );
   sm->initSm();
   EXPECT_TRUE( status( vni10 ) );
   EXPECT_TRUE( status( vni20 ) );
}

TEST_F( OrbEvpnRxSmTest, ADestroyedMachineHearsNothingAndRemovesNothing ) {
   start();
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   sm = nullptr;
   ASSERT_TRUE( status( vni10 ) );
   hosts->hostIs( makeHost( mac2, vni20, vtepA, 1 ) );
   hosts->hostDel( MacVniPair( mac1, vni10 ) );
   EXPECT_TRUE( status( vni10 ) );
   EXPECT_FALSE( status( vni20 ) );
}

TEST_F( OrbEvpnRxSmTest, AZombieMachineIgnoresChangesUntilRevived ) {
   start();
   sm->moxDoZombieReactors( true );
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   EXPECT_FALSE( status( vni10 ) );
   sm->moxDoZombieReactors( false );
   hosts->hostIs( makeHost( mac2, vni10, vtepA, 1 ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepTableSize(), 1u );
}

TEST_F( OrbEvpnRxSmTest, NullInputsCreateNoReactorAndImportNothing ) {
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   sm = orbEvpnRxSmFactory( nullptr, floods, dir );
   EXPECT_FALSE( sm->hostTableReactor() );
   EXPECT_TRUE( sm->floodTableReactor() );
   EXPECT_FALSE( sm->hostTable() );
   EXPECT_EQ( dir->vniStatusV2Size(), 0u );
}

TEST_F( OrbEvpnRxSmTest, OnlyTheWatchedAttributeReachesTheHandler ) {
   start();
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   const MacVniPair key( mac2, vni10 );
   // The control attribute of the table is not watched: no import, no assertion.
   sm->hostTableReactor()->onAttribute( 259, &key );
   EXPECT_EQ( status( vni10 )->macVtepTableSize(), 1u );
}

TEST_F( OrbEvpnRxSmTest, RegistryAndGenericInterface ) {
   const Mox::Type* t = Mox::moxTypeByName( "VxlanController::OrbEvpnRxSm" );
   ASSERT_TRUE( t );
   ASSERT_TRUE( Mox::moxModule( "OrbEvpnRxSm" ) );
   EXPECT_EQ( Mox::moxModule( "OrbEvpnRxSm" )->type( "VxlanController::OrbEvpnRxSm" ), t );
   const char* names[] = { "hostTable",        "floodTable",       "vniStatusDir",
                           "maybeDeleteVniStatus", "deleteHostEntry", "handleHost",
                           "deleteFloodEntry", "handleFloodEntry", "cleanup",
                           "initSm" };
   Mox::AttributeId id = 130;
   for ( const char* n : names ) {
      EXPECT_EQ( t->attributeId( n ), id++ ) << n;
   }

   // Construct through the generic interface, then drive it by attribute.
   Mox::Ptr< const OrbEvpn::HostTable > h = hosts;
   Mox::Ptr< const OrbEvpn::FloodTable > f = floods;
   const void* args[] = { &h, &f, &dir };
   Mox::GenericValue made;
   t->genericIfConstructFromCtorArgs( made, args );
   auto machine = Mox::ptrCast< OrbEvpnRxSm >(
      Mox::Ptr< Mox::PtrInterface >( made.get< Mox::Ptr< Mox::PtrInterface > >() ) );
   ASSERT_TRUE( machine );
   EXPECT_EQ( machine->fwkType(), t );

   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   ASSERT_TRUE( status( vni10 ) );
   Mox::GenericValue r;
   EXPECT_EQ( t->genericIfAttributeOp( r, machine.ptr(), t->attributeId( "hostTable" ),
                                       Mox::genericOpGet ),
              Mox::genericDone );
   EXPECT_EQ( r.object().ptr(), static_cast< const Mox::PtrInterface* >( hosts.ptr() ) );
   EXPECT_EQ( t->genericIfAttributeOp( r, machine.ptr(), t->attributeId( "hostTable" ),
                                       Mox::genericOpSet, &h ),
              Mox::genericNotAllowed );
   EXPECT_EQ( t->genericIfAttributeOp( r, machine.ptr(), t->attributeId( "cleanup" ),
                                       Mox::genericOpGet ),
              Mox::genericNotAllowed );
   EXPECT_EQ( t->genericIfAttributeOp( r, machine.ptr(), 140, Mox::genericOpGet ),
              Mox::genericNoSuchAttribute );
   EXPECT_EQ( t->genericIfAttributeOp( r, machine.ptr(), t->attributeId( "cleanup" ),
                                       Mox::genericOpInvoke ),
              Mox::genericDone );
   EXPECT_FALSE( status( vni10 ) );
   const MacVniPair key( mac1, vni10 );
   EXPECT_EQ( t->genericIfAttributeOp( r, machine.ptr(), t->attributeId( "handleHost" ),
                                       Mox::genericOpInvoke, &key ),
              Mox::genericDone );
   EXPECT_TRUE( status( vni10 ) );
   r.clear();
   made.clear();
}

// ---- the assertions: states the import never produces

using OrbEvpnRxSmDeathTest = OrbEvpnRxSmTest;

TEST_F( OrbEvpnRxSmDeathTest, DeleteForAVniWithoutStatus ) {
   start();
   EXPECT_DEATH( sm->handleHost( MacVniPair( mac1, vni10 ) ), "^vniStatus\n$" );
   EXPECT_DEATH( sm->handleFloodEntry( VniVtepPair( vni10, vtepA ) ), "^vniStatus\n$" );
   EXPECT_DEATH( sm->maybeDeleteVniStatus( vni20 ), "^vniStatus\n$" );
}

TEST_F( OrbEvpnRxSmDeathTest, FloodDeleteWithoutFloodList ) {
   start();
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   EXPECT_DEATH( sm->handleFloodEntry( VniVtepPair( vni10, vtepA ) ), "^floodList\n$" );
}

TEST_F( OrbEvpnRxSmDeathTest, StatusExtendedByAnotherWriter ) {
   start();
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   status( vni10 )->macVtepMultiPathTablesIs( mac2 );
   EXPECT_DEATH( hosts->hostDel( MacVniPair( mac1, vni10 ) ),
                 "^!vniStatus->macVtepMultiPathTables\\(\\)\n$" );
   status( vni10 )->macVtepMultiPathTablesDel( mac2 );
   status( vni10 )->ipToMacTablesIs( vtepB, mac2 );
   EXPECT_DEATH( hosts->hostDel( MacVniPair( mac1, vni10 ) ),
                 "^!vniStatus->ipToMacTables\\(\\)\n$" );
}

}  // namespace
