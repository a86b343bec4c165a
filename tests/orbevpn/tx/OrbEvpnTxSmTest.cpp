// OrbEvpnTxSm: children per entry, start-up reconciliation, the stale sweep, lifecycle, assertions, generic interface.
#include "tests/orbevpn/tx/TxTestSupport.h"
#include "tests/support/NotifieeRecorder.h"

#include <array>

namespace {

using namespace TxTest;
using TxRoot = TxFixture;
using TxRootDeathTest = TxFixture;

TEST_F( TxRoot, StartUpSweepsVanishedVnisBeforeTheWalk ) {
   brIds->brIdListIs( brId( 30 ), true );   // left by an earlier run
   hosts->hostIs( host( mac1, 30, vtepA, 1 ) );
   hosts->hostIs( host( mac1, 300, vtepA, 1 ) );
   floods->floodEntryIs( FloodEntry( flood( 30, vtepB ) ) );
   addVni( 10 );
   addVni( 20 )->macVtepTableIs( entry( mac2, vtepB, 4, 20 ) );
   start();
   ASSERT_EQ( tx->vniFdbStatusSms(), 2u );
   EXPECT_TRUE( child( 10 )->initialized() && child( 20 )->initialized() );
   EXPECT_EQ( count( "VniFdbStatusSm(10)::handleHost()" ), 1u );
   EXPECT_EQ( brIdSet(), std::set< uint32_t >{ 20 } );   // published by the child that has entries
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 300, vtepA, 1 ), host( mac2, 20, vtepB, 4, 20 ) ) );
   EXPECT_THAT( floodSet(), IsEmpty() );
   const Lines l = lines();
   ASSERT_GE( l.size(), 10u );
   EXPECT_THAT( Lines( l.begin(), l.begin() + 10 ),
                ElementsAre( line( 3, "OrbEvpnTxSm()::handleInitialized()" ),
                             line( 3, "OrbEvpnTxSm()::handleVniFdbStatus()" ),
                             line( 3, "OrbEvpnTxSm()::cleanupStaleBrIdEntries()" ),
                             line( 3, "OrbEvpnTxSm()::cleanupStaleVniEntries()" ),
                             line( 3, "OrbEvpnTxSm()::cleanupStaleVniEntries() Deleting stale VNI 30" ),
                             line( 8, "OrbEvpnTxSm()::cleanupStaleVniEntries(30) Deleting stale host entry "
                                      "(macAddr: 00:1a:2b:3c:4d:01, ip: 10.0.0.1)" ),
                             line( 8, "OrbEvpnTxSm()::cleanupStaleVniEntries(30) Deleting stale flood list "
                                      "entry (ip: 10.0.0.2)" ),
                             line( 4, "OrbEvpnTxSm()::cleanupStaleVniEntries() return" ),
                             line( 4, "OrbEvpnTxSm()::cleanupStaleBrIdEntries() return" ),
                             line( 3, "OrbEvpnTxSm()::handleVniFdbStatus(10)" ) ) );
   EXPECT_EQ( l.back(), line( 4, "OrbEvpnTxSm()::handleInitialized() return" ) );
}

TEST_F( TxRoot, NamesAreReadAsBase10NumbersAndOtherTypesAreDeletions ) {
   start();
   addVni( 16777215 );
   addVni( 5, "abc" )->macVtepTableIs( entry( mac1, vtepA, 1 ) );   // no number: VNI 0
   addVni( 7, "7abc" );
   EXPECT_TRUE( child( 16777215 ) && child( 0 ) && child( 7 ) && !child( 5 ) );
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 0, vtepA, 1 ) ) );
   for ( const char* name : { "16777216", "-1" } ) {
      capture_.clear();
      EXPECT_THAT( [ & ] { addVni( 9, name )->macVtepTableIs( entry( mac2, vtepB, 1 ) ); },
                   ::testing::ThrowsMessage< Mox::RangeException >( ::testing::StrEq(
                      "Vxlan::Vni::value < Vxlan::Vni::min or > Vxlan::Vni::max not allowed" ) ) );
      EXPECT_TRUE( tx->vniFdbStatusSms() == 3u && hostList().size() == 1u && lines().size() == 1u );   // no change
      EXPECT_THROW( vniDir->entityPtrDel( name ), Mox::RangeException );
   }
   addVni( 20 )->macVtepTableIs( entry( mac2, vtepB, 2 ) );
   vniDir->entityPtrIs( Mox::String( "20" ), OrbEvpnConfig::OrbEvpnConfigIs( "20" ) );
   EXPECT_TRUE( !child( 20 ) && hostList().size() == 1u );
   EXPECT_EQ( count( "OrbEvpnTxSm()::cleanupStaleVniEntries() Deleting stale VNI 20" ), 1u );
   EXPECT_EQ( count( "VniFdbStatusSm(20)::cleanup()" ), 1u );
}

TEST_F( TxRoot, ARemovedEntryIsSweptThenItsChildCleanedUp ) {
   auto s = addVni( 10 );
   s->macVtepTableIs( entry( mac1, vtepA, 5 ) );
   s->macVtepFloodListTableIs( bum )->vtepIpFloodListIs( vtepB, true );
   addVni( 100 )->macVtepTableIs( entry( mac1, vtepB, 1 ) );
   start();
   capture_.clear();
   vniDir->entityPtrDel( "10" );
   EXPECT_TRUE( !child( 10 ) && floodSet().empty() && brIdSet() == std::set< uint32_t >{ 100 } );
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 100, vtepB, 1 ) ) );
   const auto t = capture_.texts();
   auto at = [ & ]( const char* text ) { return std::find( t.begin(), t.end(), text ) - t.begin(); };
   EXPECT_EQ( t.front(), "OrbEvpnTxSm()::handleVniFdbStatus(10)" );
   EXPECT_LT( at( "OrbEvpnTxSm()::cleanupStaleVniEntries() return" ), at( "VniFdbStatusSm(10)::cleanup()" ) );
   EXPECT_LT( at( "VniFdbStatusSm(10)::cleanup()" ), at( "MacVtepFloodListSm(00:00:00:00:00:00)(10)::cleanup()" ) );
   EXPECT_EQ( lines().back(), line( 4, "OrbEvpnTxSm()::handleVniFdbStatus(10) return" ) );
}

TEST_F( TxRoot, EvpnStatusReachesOnlyTheChildOfItsVni ) {
   addVni( 10 )->macVtepTableIs( entry( mac1, vtepA, 5 ) );
   start();
   capture_.clear();
   auto evpn20 = evpnDir->vniStatusV2Is( Vni( 20 ) );   // no child: ignored
   EXPECT_THAT( lines(), ElementsAre( line( 8, "void OrbEvpn::OrbEvpnTxSm::handleVniStatusFromEvpn("
                                               "Vxlan::Vni) init true vni 20" ) ) );
   auto evpn10 = evpnDir->vniStatusV2Is( Vni( 10 ) );
   EXPECT_EQ( child( 10 )->vniStatusFromEvpn(), evpn10 );
   EXPECT_EQ( count( "VniFdbStatusSm(10)::handleInitialized()" ), 1u );
   evpnDir->vniStatusV2Del( Vni( 10 ) );
   EXPECT_FALSE( child( 10 )->vniStatusFromEvpn() );
   addVni( 20 );   // picks up the status already there
   EXPECT_TRUE( child( 20 ) && child( 20 )->vniStatusFromEvpn() == evpn20 );
}

TEST_F( TxRoot, CleanupEmptiesTheOutputsWholesaleAndSilencesTheRoot ) {
   addVni( 10 )->macVtepFloodListTableIs( bum )->vtepIpFloodListIs( vtepB, true );
   start();
   brIds->brIdListIs( brId( 40 ), true );   // owned by no child
   hosts->hostIs( host( mac2, 50, vtepB, 1 ) );
   tx->cleanup();
   EXPECT_TRUE( !tx->initialized() && tx->vniFdbStatusSms() == 0 );
   EXPECT_TRUE( brIdSet().empty() && hostList().empty() && floodSet().empty() );
   capture_.clear();
   addVni( 30 )->macVtepTableIs( entry( mac2, vtepA, 1 ) );
   brIds->brIdListIs( brId( 60 ), true );
   tx->cleanupStaleBrIdEntries();
   tx->cleanup();
   EXPECT_TRUE( lines().empty() && hostList().empty() && tx->vniFdbStatusSms() == 0 );
   tx->handleInitialized();   // starts over
   EXPECT_TRUE( tx->vniFdbStatusSms() == 2u && brIdSet() == ( std::set< uint32_t >{ 10, 30 } ) );
}

TEST_F( TxRoot, BridgeIdsArePublishedOnceAndKeptOnlyByTheirCanonicalName ) {
   addVni( 7, "007" )->macVtepTableIs( entry( mac1, vtepA, 1 ) );   // VNI 7, yet not entry "7"
   addVni( 5 );
   start();
   ASSERT_TRUE( child( 7 ) );
   EXPECT_EQ( brIdSet(), std::set< uint32_t >{ 7 } );
   auto rec = NotifieeRecorder< BridgeId >::NotifieeRecorderIs( brIds );
   tx->publishBrId( brId( 9 ) );
   tx->publishBrId( brId( 9 ) );
   EXPECT_EQ( rec->events().size(), 1u );
   EXPECT_EQ( count( "OrbEvpnTxSm()::publishBrId(9) return" ), 2u );
   tx->cleanupStaleBrIdEntries();
   EXPECT_TRUE( brIdSet().empty() && hostList().empty() );
   EXPECT_EQ( count( "OrbEvpnTxSm()::cleanupStaleVniEntries() Deleting stale VNI 5" ), 0u );
   // An entry "7" of another type keeps the id from the stale sweep.
   vniDir->entityPtrIs( Mox::String( "7" ), OrbEvpnConfig::OrbEvpnConfigIs( "7" ) );
   tx->publishBrId( brId( 7 ) );
   tx->cleanupStaleBrIdEntries();
   tx->unpublishBrId( brId( 5 ) );   // absent: nothing
   EXPECT_EQ( brIdSet(), std::set< uint32_t >{ 7 } );
   EXPECT_EQ( rec->events().size(), 4u );   // 9 in, 7 and 9 out, 7 in
}

TEST_F( TxRoot, TheSweepGoesBridgeIdsFirstAndWalksEachTableOnce ) {
   start();
   for ( uint32_t v : { 7u, 70u, 700u } ) {
      hosts->hostIs( host( mac1, v, vtepA, 1 ) );
      brIds->brIdListIs( brId( v ), true );
      floods->floodEntryIs( FloodEntry( flood( v, vtepB ) ) );
   }
   for ( uint8_t i = 0; i < 100; ++i ) hosts->hostIs( host( EthAddr( 2, 0, 0, 0, 0, i ), 7, vtepA, i ) );
   capture_.clear();
   cleanupStaleVniEntries( tx, { Vni( 9 ), Vni( 7 ), Vni( 3 ) } );
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 70, vtepA, 1 ), host( mac1, 700, vtepA, 1 ) ) );
   EXPECT_EQ( floodSet(), ( std::set< VniVtepPair >{ flood( 70, vtepB ), flood( 700, vtepB ) } ) );
   EXPECT_EQ( brIdSet(), ( std::set< uint32_t >{ 70, 700 } ) );
   const Lines l = lines();
   ASSERT_EQ( l.size(), 107u );
   for ( int i : { 1, 2, 3 } ) {
      EXPECT_EQ( l[ i ].text, fmt::format( "OrbEvpnTxSm()::cleanupStaleVniEntries() Deleting stale VNI {}",
                                           std::array{ 3, 7, 9 }[ i - 1 ] ) );
   }
   EXPECT_EQ( l[ 105 ], line( 8, "OrbEvpnTxSm()::cleanupStaleVniEntries(7) Deleting stale flood list "
                                 "entry (ip: 10.0.0.2)" ) );
   capture_.clear();
   cleanupStaleVniEntries( tx, {} );
   EXPECT_EQ( capture_.texts(), ( std::vector< std::string >{ "OrbEvpnTxSm()::cleanupStaleVniEntries()",
                                                             "OrbEvpnTxSm()::cleanupStaleVniEntries() return" } ) );
}

TEST_F( TxRoot, LifecycleReachesGrandchildrenAndDestructionWithdrawsNothing ) {
   auto s = addVni( 10 );
   auto list = s->macVtepFloodListTableIs( bum );
   start();
   auto c = child( 10 );
   auto g = c->macVtepFloodListSm( bum );
   tx->moxDoZombieReactors( true );
   EXPECT_TRUE( c->isMarkedForDeletion() && g->macVtepFloodListReactor()->isMarkedForDeletion() );
   s->macVtepTableIs( entry( mac1, vtepA, 1 ) );
   list->vtepIpFloodListIs( vtepB, true );
   EXPECT_TRUE( hostList().empty() && floodSet().empty() );
   tx->moxDoZombieReactors( false );
   list->vtepIpFloodListIs( vtepA, true );
   EXPECT_EQ( floodSet(), std::set< VniVtepPair >{ flood( 10, vtepA ) } );
   tx->hasNotificationActiveIs( false );
   EXPECT_FALSE( c->hasNotificationActive() || g->macVtepFloodListReactor()->hasNotificationActive() );
   tx->hasNotificationActiveIs( true );
   EXPECT_TRUE( g->macVtepFloodListReactor()->hasNotificationActive() );

   EXPECT_EQ( tx->vniFdbStatusSmIs( Vni( 10 ), s ), c );
   EXPECT_THROW( tx->vniFdbStatusSmIs( Vni( 10 ), VniFdbStatusV2::VniFdbStatusV2Is( Vni( 10 ) ) ),
                 Mox::ReinstantiationException );
   tx = nullptr;
   EXPECT_TRUE( floodSet().size() == 1u && brIdSet() == std::set< uint32_t >{ 10 } );
   EXPECT_TRUE( g->isMarkedForDeletion() && g->initialized() );   // dropped as a zombie, without cleanup()
}

TEST_F( TxRootDeathTest, PublicationNeedsAnInitialisedRootAndListedIdsAreOfVniType ) {
   start();
   tx->cleanup();
   EXPECT_DEATH( tx->publishBrId( brId( 5 ) ), "^initialized\\(\\)\n$" );
   EXPECT_DEATH( tx->unpublishBrId( brId( 5 ) ), "^initialized\\(\\)\n$" );
   tx->initializedIs( true );
   brIds->brIdListIs( BridgeId( 0x1000005 ), true );
   EXPECT_DEATH( tx->cleanupStaleBrIdEntries(), "^brType\\(\\) == brTypeVni\\(\\)\n$" );
}

TEST_F( TxRoot, GenericInterfaceReachesEveryAttributeByTypeName ) {
   EXPECT_TRUE( Mox::moxModule( "OrbEvpnTxSm" )->type( "OrbEvpn::MacVtepFloodListSm" ) );
   Mox::Ptr< const Mox::Dir > d = vniDir;
   Mox::Ptr< const VniStatusDirV2 > e = evpnDir;
   Generic g( "OrbEvpn::OrbEvpnTxSm",
              { "vniDir", "vniStatusDirFromEvpn", "orbBrIdList", "hostTableOut", "floodTableOut", "publishBrId",
                "unpublishBrId", "vniFdbStatusSm", "handleVniStatusFromEvpn", "handleVniFdbStatus",
                "cleanupStaleBrIdEntries", "cleanup", "initialized", "handleInitialized" },
              { &d, &e, &brIds, &hosts, &floods } );
   tx = Mox::ptrCast< OrbEvpnTxSm >( g.object );
   ASSERT_TRUE( tx && tx->initialized() && tx->hasNotificationActive() );
   EXPECT_TRUE( g( 133, get ) == done && g.r.object() == hosts );
   EXPECT_TRUE( g( 130, set, &d ) == refused && g( 144, get ) == unknown );
   tx->vniDirReactor()->hasNotificationActiveIs( false );   // an entry the reactor misses...
   addVni( 10 )->macVtepTableIs( entry( mac1, vtepA, 1 ) );
   const Mox::String name( "10" );
   EXPECT_EQ( g( 139, invoke, &name ), done );   // ...handled by name
   EXPECT_EQ( hostList().size(), 1u );
   const Vni v10( 10 ), v20( 20 );
   Mox::Ptr< const VniFdbStatusV2 > s20 = VniFdbStatusV2::VniFdbStatusV2Is( v20 );
   EXPECT_EQ( g( 137, set, &v20, &s20 ), done );   // instantiates, no more
   EXPECT_TRUE( child( 20 ) && !child( 20 )->initialized() );
   EXPECT_THROW( g( 137, set, &v10, &s20 ), Mox::ReinstantiationException );
   EXPECT_TRUE( g( 137, get, &v10 ) == done && g.r.object() == child( 10 ) );
   EXPECT_TRUE( g( 137, Mox::genericOpDel, &v20 ) == done && !child( 20 ) );
   EXPECT_TRUE( g( 141, invoke ) == done && hostList().empty() );   // cleanup
   EXPECT_TRUE( g( 143, invoke ) == done && hostList().size() == 1 );   // handleInitialized
}

}  // namespace
