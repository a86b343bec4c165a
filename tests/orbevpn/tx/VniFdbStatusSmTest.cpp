// VniFdbStatusSm: hosts unless EVPN has them, bridge id, sweeps, flood-list child, lifecycle, generic interface.
#include "platform/mox/Counters.h"
#include "tests/orbevpn/tx/TxTestSupport.h"

namespace {

using namespace TxTest;
using PerVni = TxFixture;
using PerVniDeathTest = TxFixture;
const std::string bumOnly = " ORB-EVPN only supports 'all BUM destination addresses' entries";

TEST_F( PerVni, ControllerEntriesBecomeHostsUnlessEvpnProvidedExactlyThem ) {
   auto s = addVni( 10 );
   start();
   capture_.clear();
   s->macVtepTableIs( entry( mac1, vtepA, 7 ) );
   const std::string h = "VniFdbStatusSm(10)::handleHost(00:1a:2b:3c:4d:01)", u = "VniFdbStatusSm(10)::updateBrIdList()";
   EXPECT_THAT( lines(), ElementsAre( line( 3, h ), line( 3, u ), line( 3, "OrbEvpnTxSm()::publishBrId(10)" ),
                                      line( 4, "OrbEvpnTxSm()::publishBrId(10) return" ), line( 4, u + " return" ),
                                      line( 4, h + " return" ) ) );
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 10, vtepA, 7, 16 ) ) );
   auto evpn = evpnDir->vniStatusV2Is( Vni( 10 ) );
   evpn->macVtepTableIs( entry( mac1, vtepA, 7 ) );   // equal in all four fields: withheld
   EXPECT_TRUE( child( 10 )->macEntryProvidedByEvpn( mac1 ) );
   EXPECT_THAT( hostList(), IsEmpty() );
   s->macVtepTableIs( entry( mac1, vtepA, 8, 20 ) );
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 10, vtepA, 8, 20 ) ) );
   const uint64_t dels = Mox::counter( "hostDel" ).value();
   evpn->macVtepTableIs( entry( mac2, vtepB, 1 ) );   // a MAC the controller lacks
   EXPECT_EQ( Mox::counter( "hostDel" ).value(), dels + 1 );
   capture_.clear();
   s->macVtepTableDel( mac1 );   // the delete path writes no "return" line
   EXPECT_TRUE( hostList().empty() && brIdSet().empty() && lines().size() == 5u );
   EXPECT_EQ( lines().back(), line( 4, u + " return" ) );
}

TEST_F( PerVni, AFullPassSweepsHostsOfItsVniWithoutAControllerEntry ) {
   hosts->hostIs( host( mac1, 10, vtepB, 1 ) );   // out of date: corrected by the pass
   hosts->hostIs( host( mac2, 10, vtepB, 2 ) );   // swept
   hosts->hostIs( host( mac2, 11, vtepB, 2 ) );   // another VNI
   addVni( 10 )->macVtepTableIs( entry( mac1, vtepA, 9 ) );
   start();
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 10, vtepA, 9 ), host( mac2, 11, vtepB, 2 ) ) );
   EXPECT_THAT( lines(), ::testing::Contains( line( 8, "VniFdbStatusSm(10)::cleanupStaleHostEntries() Deleting "
                                                       "stale host entry (macAddr: 00:1a:2b:3c:4d:02, ip: 10.0.0.2)" ) ) );
   evpnDir->vniStatusV2Is( Vni( 10 ) )->macVtepTableIs( entry( mac1, vtepA, 9 ) );
   EXPECT_EQ( hostList().size(), 1u );   // withheld
   capture_.clear();
   child( 10 )->vniStatusFromEvpnDel();   // re-runs both passes, now without EVPN
   EXPECT_EQ( count( "VniFdbStatusSm(10)::handleInitialized()" ), 1u );
   EXPECT_EQ( hostList().size(), 2u );
}

TEST_F( PerVni, MultiPathAndFloodListsOfOtherMacsOnlyTraceTheBridgeIdFollowsAllThreeTables ) {
   auto s = addVni( 10 );
   start();
   EXPECT_EQ( count( "OrbEvpnTxSm()::unpublishBrId(10)" ), 2u );   // one per pass
   capture_.clear();
   s->macVtepMultiPathTableIs( mac1 );
   s->macVtepFloodListTableIs( mac2 );
   EXPECT_EQ( capture_.texts(), ( std::vector< std::string >{
                                   "VniFdbStatusSm(10)::handleMultiPath(00:1a:2b:3c:4d:01)",
                                   "VniFdbStatusSm(10)::handleMultiPath(00:1a:2b:3c:4d:01)" + bumOnly,
                                   "VniFdbStatusSm(10)::handleFloodList(00:1a:2b:3c:4d:02)",
                                   "VniFdbStatusSm(10)::handleFloodList(00:1a:2b:3c:4d:02)" + bumOnly } ) );
   EXPECT_EQ( lines()[ 3 ].level, 3 );
   EXPECT_TRUE( brIdSet().empty() && child( 10 )->macVtepFloodListSms() == 0 );
   child( 10 )->handleMultiPath();   // both tables count at the next evaluation
   EXPECT_EQ( brIdSet(), std::set< uint32_t >{ 10 } );
   s->macVtepMultiPathTableDel( mac1 );
   s->macVtepFloodListTableDel( mac2 );
   s->macVtepMultiPathTableIs( bum );
   EXPECT_EQ( count( "VniFdbStatusSm(10)::handleMultiPath(00:00:00:00:00:00) return" ), 1u );
   s->macVtepMultiPathTableDel( bum );
   EXPECT_TRUE( brIdSet().empty() && hostList().empty() );
}

TEST_F( PerVni, TheBumFloodListGetsAChildAndTheSweepKeepsListedVteps ) {
   for ( auto f : { flood( 10, vtepA ), flood( 10, vtepB ), flood( 11, vtepB ) } ) floods->floodEntryIs( FloodEntry( f ) );
   auto s = addVni( 10 );
   auto list = s->macVtepFloodListTableIs( bum );
   list->vtepIpFloodListIs( vtepA, false );   // kept by the sweep, deleted by the child
   start();
   EXPECT_EQ( count( "VniFdbStatusSm(10)::cleanupStaleFloodListEntries() Deleting stale flood list entry "
                     "(ip: 10.0.0.2)" ), 1u );
   EXPECT_EQ( count( "VniFdbStatusSm(10)::cleanupStaleFloodListEntries() Deleting stale flood list entry "
                     "(ip: 10.0.0.1)" ), 0u );
   EXPECT_EQ( floodSet(), std::set< VniVtepPair >{ flood( 11, vtepB ) } );
   auto c = child( 10 );
   auto g = c->macVtepFloodListSm( bum );
   ASSERT_TRUE( g && g->macVtepFloodList() == list && g->vniFdbStatusSm() == c.ptr() );
   EXPECT_THROW( c->macVtepFloodListSmIs( bum, MacVtepFloodListV2::MacVtepFloodListV2Is( bum ) ),
                 Mox::ReinstantiationException );
   list->vtepIpFloodListIs( vtepA, true );
   auto evpnList = evpnDir->vniStatusV2Is( Vni( 10 ) )->macVtepFloodListTableIs( bum );
   EXPECT_EQ( g->floodListFromEvpn(), evpnList );
   evpnList->vtepIpFloodListIs( vtepA, true );
   EXPECT_EQ( floodSet().size(), 1u );
   evpnDir->vniStatusV2Del( Vni( 10 ) );
   EXPECT_EQ( floodSet().size(), 2u );
   s->macVtepFloodListTableDel( bum );   // the child is cleaned up and dropped
   EXPECT_TRUE( c->macVtepFloodListSms() == 0 && !g->initialized() );
   EXPECT_EQ( floodSet(), std::set< VniVtepPair >{ flood( 11, vtepB ) } );
   floods->floodEntryIs( FloodEntry( flood( 10, vtepA ) ) );
   c->cleanupStaleFloodListEntries();   // no BUM list: every entry of the VNI goes
   EXPECT_EQ( floodSet(), std::set< VniVtepPair >{ flood( 11, vtepB ) } );
}

TEST_F( PerVni, InertUntilInitialisedOnceAndAgainAfterCleanup ) {
   start();
   auto s = VniFdbStatusV2::VniFdbStatusV2Is( Vni( 10 ) );
   auto c = vniFdbStatusSmFactory( Vni( 10 ), s, tx.ptr() );
   capture_.clear();
   s->macVtepTableIs( entry( mac1, vtepA, 1 ) );
   s->macVtepFloodListTableIs( bum )->vtepIpFloodListIs( vtepA, true );
   c->handleHost(), c->handleFloodList(), c->cleanup();
   EXPECT_TRUE( lines().empty() && hostList().empty() );
   c->initializedIs( true );
   c->initializedIs( true );
   EXPECT_EQ( count( "VniFdbStatusSm(10)::handleInitialized()" ), 1u );
   EXPECT_TRUE( hostList().size() == 1u && floodSet().size() == 1u );
   capture_.clear();
   c->cleanup();   // drops the child, keeps hosts and the bridge id
   EXPECT_EQ( capture_.texts().front(), "VniFdbStatusSm(10)::cleanup()" );
   EXPECT_EQ( lines().back(), line( 4, "VniFdbStatusSm(10)::cleanup() return" ) );
   EXPECT_TRUE( floodSet().empty() && !c->initialized() && c->macVtepFloodListSms() == 0 );
   EXPECT_TRUE( hostList().size() == 1u && brIdSet() == std::set< uint32_t >{ 10 } );
   s->macVtepTableIs( entry( mac2, vtepA, 1 ) );
   EXPECT_EQ( hostList().size(), 1u );
}

TEST_F( PerVniDeathTest, TheExclusionTestAndTheBridgeIdNeedAnInitialisedMachine ) {
   start();
   auto c = vniFdbStatusSmFactory( Vni( 10 ), VniFdbStatusV2::VniFdbStatusV2Is( Vni( 10 ) ), tx.ptr() );
   EXPECT_DEATH( c->macEntryProvidedByEvpn( mac1 ), "^initialized\\(\\)\n$" );
   EXPECT_DEATH( c->updateBrIdList(), "^initialized\\(\\)\n$" );
}

TEST_F( PerVni, GenericInterfaceReachesEveryAttributeByTypeName ) {
   start();
   auto s = VniFdbStatusV2::VniFdbStatusV2Is( Vni( 10 ) );
   s->macVtepTableIs( entry( mac1, vtepA, 3 ) );
   const Vni v10( 10 );
   Mox::Ptr< const VniFdbStatusV2 > cs = s;
   OrbEvpnTxSm* parent = tx.ptr();
   Generic g( "OrbEvpn::VniFdbStatusSm",
              { "vni", "vniFdbStatus", "vniStatusFromEvpn", "macVtepFloodListSm", "initialized", "orbEvpnTxSm",
                "handleHost", "handleMultiPath", "macEntryProvidedByEvpn", "cleanupStaleHostEntries",
                "vniStatusFromEvpnDel", "handleInitialized", "handleFloodList", "updateBrIdList",
                "cleanupStaleFloodListEntries", "cleanup" },
              { &v10, &cs, &parent } );
   auto c = Mox::ptrCast< VniFdbStatusSm >( g.object );
   ASSERT_TRUE( c && c->hasNotificationActive() && !c->initialized() );
   const bool on = true;
   EXPECT_TRUE( g( 134, set, &on ) == done && hostList().size() == 1 );   // runs the passes
   auto e = VniStatusV2::VniStatusV2Is( v10 );
   e->macVtepTableIs( entry( mac1, vtepA, 3 ) );
   const Mox::Ptr< const VniStatusV2 > ce = e;
   EXPECT_TRUE( g( 132, set, &ce ) == done && hostList().empty() );   // vniStatusFromEvpnIs
   EXPECT_TRUE( g( 138, invoke, &mac1 ) == done && g.r.get< bool >() );
   EXPECT_TRUE( g( 140, invoke ) == done && hostList().size() == 1 );   // vniStatusFromEvpnDel
   hosts->hostDelAll();
   EXPECT_TRUE( g( 136, invoke, &mac1 ) == done && hostList().size() == 1 );   // handleHost( mac )
   Mox::Ptr< const MacVtepFloodListV2 > list = MacVtepFloodListV2::MacVtepFloodListV2Is( bum );
   EXPECT_EQ( g( 133, set, &bum, &list ), done );
   EXPECT_TRUE( g( 133, get, &bum ) == done && g.r.object() == c->macVtepFloodListSm( bum ) );
   EXPECT_TRUE( g( 135, get ) == done && g.r.object() == tx );
   EXPECT_TRUE( g( 131, set, &cs ) == refused && g( 146, get ) == unknown );
   EXPECT_TRUE( g( 145, invoke ) == done && !c->initialized() );   // cleanup
}

}  // namespace
