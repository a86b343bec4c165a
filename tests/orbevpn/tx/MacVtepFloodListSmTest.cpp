// MacVtepFloodListSm: per-address decision, EVPN list cases, shared-key cleanup, assertion, generic interface.
#include "tests/orbevpn/tx/TxTestSupport.h"

namespace {

using namespace TxTest;

class PerMac : public TxFixture {
 protected:
   void SetUp() override {
      TxFixture::SetUp();
      addVni( 10 );
      start();
      ctrl->vtepIpFloodListIs( vtepA, true );
      ctrl->vtepIpFloodListIs( vtepB, false );
      evpn->vtepIpFloodListIs( vtepA, false );   // the key alone counts on the EVPN side
   }
   Mox::Ptr< MacVtepFloodListSm > make( const EthAddr& mac, const Mox::Ptr< MacVtepFloodListV2 >& l ) {
      return macVtepFloodListSmFactory( mac, l, child( 10 ).ptr() );
   }
   Mox::Ptr< MacVtepFloodListV2 > ctrl = MacVtepFloodListV2::MacVtepFloodListV2Is( mac1 ),
                                  evpn = MacVtepFloodListV2::MacVtepFloodListV2Is( mac1 );
   const std::string prefix = "MacVtepFloodListSm(00:1a:2b:3c:4d:01)(10)::";
};
using PerMacDeathTest = PerMac;

TEST_F( PerMac, TrueAddressesAreWrittenUnlessEvpnListsThemAndEvpnChangesAreFollowed ) {
   auto m = make( mac1, ctrl );   // exports during construction
   EXPECT_EQ( floodSet(), std::set< VniVtepPair >{ flood( 10, vtepA ) } );
   capture_.clear();
   m->floodListFromEvpnIs( nullptr );   // none set, none given: nothing
   m->floodListFromEvpnIs( evpn );
   m->floodListFromEvpnIs( evpn );   // already set: nothing
   EXPECT_EQ( count( prefix + "handleInitialized()" ), 1u );
   EXPECT_THAT( lines(), ::testing::Contains( line( 4, prefix + "handleVtepIp(10.0.0.1) return" ) ) );
   EXPECT_TRUE( floodSet().empty() && m->floodIpProvidedByEvpn( vtepA ) );
   evpn->vtepIpFloodListDel( vtepA );
   EXPECT_EQ( floodSet().size(), 1u );
   auto r = m->floodListFromEvpnReactor();
   m->floodListFromEvpnIs( ctrl );   // the same reactor moves; ctrl lists vtepA
   EXPECT_TRUE( m->floodListFromEvpnReactor() == r && floodSet().empty() );
   m->floodListFromEvpnIs( nullptr );   // dropped and retired
   EXPECT_TRUE( !m->floodListFromEvpnReactor() && r->isMarkedForDeletion() && !r->owner && floodSet().size() == 1 );
   m->moxDoZombieReactors( true );
   m->floodListFromEvpnIs( evpn );   // made on a zombie machine: a zombie too
   EXPECT_TRUE( m->floodListFromEvpnReactor()->isMarkedForDeletion() );
   m->moxDoZombieReactors( false );
   r = m->floodListFromEvpnReactor();
   EXPECT_TRUE( m->floodListFromEvpnDel() == evpn && !r->hasNotificationActive() && !r->owner );
   EXPECT_FALSE( m->floodListFromEvpnDel() );
   m->cleanup();
}

TEST_F( PerMac, CleanupDeletesEveryListedKeyEvenOneAnotherListWroteAndLeavesItInert ) {
   auto m = make( mac1, ctrl );
   auto other = MacVtepFloodListV2::MacVtepFloodListV2Is( mac2 );
   other->vtepIpFloodListIs( vtepB, true );
   auto m2 = make( mac2, other );
   capture_.clear();
   m->cleanup();
   EXPECT_TRUE( floodSet().empty() && !m->initialized() );
   EXPECT_EQ( lines()[ 1 ], line( 8, prefix + "cleanup() Deleting flood list entry (ip: 10.0.0.1)" ) );
   EXPECT_EQ( lines().back(), line( 4, prefix + "cleanup() return" ) );
   capture_.clear();
   ctrl->vtepIpFloodListIs( vtepB, true );
   m->cleanup();
   EXPECT_TRUE( lines().empty() && floodSet().empty() );
   m2->cleanup();
}

TEST_F( PerMacDeathTest, TheEvpnTestNeedsAnInitialisedMachine ) {
   auto m = make( mac1, ctrl );
   m->cleanup();
   EXPECT_DEATH( m->floodIpProvidedByEvpn( vtepA ), "^initialized\\(\\)\n$" );
}

TEST_F( PerMac, GenericInterfaceReachesEveryAttributeByTypeName ) {
   Mox::Ptr< const MacVtepFloodListV2 > list = ctrl, e = evpn;
   VniFdbStatusSm* parent = child( 10 ).ptr();
   Generic g( "OrbEvpn::MacVtepFloodListSm",
              { "macAddr", "macVtepFloodList", "floodListFromEvpn", "floodIpProvidedByEvpn", "handleVtepIp",
                "cleanup", "initialized", "handleInitialized", "vniFdbStatusSm" },
              { &mac1, &list, &parent } );
   auto m = Mox::ptrCast< MacVtepFloodListSm >( g.object );
   ASSERT_TRUE( m && floodSet().size() == 1 );
   EXPECT_TRUE( g( 132, set, &e ) == done && floodSet().empty() );   // floodListFromEvpnIs
   EXPECT_TRUE( g( 133, invoke, &vtepA ) == done && g.r.get< bool >() );
   floods->floodEntryIs( FloodEntry( flood( 10, vtepA ) ) );
   EXPECT_TRUE( g( 134, invoke ) == done && floodSet().empty() );   // every address
   const bool off = false;
   EXPECT_TRUE( g( 136, set, &off ) == done && !m->initialized() );   // stores only
   EXPECT_TRUE( g( 138, get ) == done && g.r.object().ptr() == parent );
   EXPECT_TRUE( g( 131, set, &list ) == refused && g( 139, get ) == unknown );
}

}  // namespace
