// Export as the EVPN agent's reader-role tables see it: one change's road, and start-up over leftover state.
#include "orbevpn/rx/OrbEvpnRxSm.h"
#include "tests/orbevpn/tx/TxTestSupport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LumenRoot.h"

#include <poll.h>

#include <chrono>
#include <functional>

namespace {

using namespace TxTest;

class Export : public TxFixture {
 protected:
   void attach() {   // the outputs under orbevpn/export, as a hosting agent places them
      top->entityPtrIs( dir );
      dir->entityPtrIs( hosts ), dir->entityPtrIs( floods ), dir->entityPtrIs( brIds );
   }
   // The EVPN agent's view: dispatched before every look, for at most 5 s.
   bool agentSees( const std::function< bool() >& done ) {
      if ( !agentHosts ) {
         agentHosts = HostTable::HostTableReaderIs( "host", "/orbevpn/export/host" );
         agentFloods = FloodTable::FloodTableReaderIs( "flood", "/orbevpn/export/flood" );
         agentBrIds = OrbBrIdList::OrbBrIdListReaderIs( "brIdList", "/orbevpn/export/brIdList" );
      }
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 5 );
      for ( ;; ) {
         agentHosts->dispatch(), agentFloods->dispatch(), agentBrIds->dispatch();
         if ( done() || std::chrono::steady_clock::now() > deadline ) return done();
         pollfd fds[] = { { agentHosts->fd(), POLLIN, 0 }, { agentFloods->fd(), POLLIN, 0 },
                          { agentBrIds->fd(), POLLIN, 0 } };
         ::poll( fds, 3, 20 );
      }
   }
   void TearDown() override {
      tx = nullptr;
      dir->entityPtrDelAll();   // detach before the shared-memory folder goes
      TxFixture::TearDown();
   }
   LumenRoot root_;
   Mox::Ptr< Mox::Dir > top = Mox::Dir::DirIs( "orbevpn" ), dir = Mox::Dir::DirIs( "export" );
   Mox::Ptr< HostTable > agentHosts;
   Mox::Ptr< FloodTable > agentFloods;
   Mox::Ptr< OrbBrIdList > agentBrIds;
};

TEST_F( Export, TheRoadOfOneChange ) {
   attach();
   auto evpnHosts = hostTableFactory( "evpnHost" );   // what the EVPN agent learnt
   auto evpnFloods = floodTableFactory( "evpnFlood" );
   auto rx = VxlanController::orbEvpnRxSmFactory( evpnHosts, evpnFloods, evpnDir );
   auto s = addVni( 10 );
   start();
   const MacVniPair key( mac1, Vni( 10 ) );
   s->macVtepTableIs( entry( mac1, vtepA, 7, 20 ) );   // the controller learns mac1 behind vtepA
   EXPECT_TRUE( agentSees( [ & ] {
      return agentHosts->host( key ) == host( mac1, 10, vtepA, 7, 20 ) && agentBrIds->brIdListContains( brId( 10 ) );
   } ) );
   evpnHosts->hostIs( host( mac1, 10, vtepA, 7, 20 ) );   // EVPN provides the same entry
   EXPECT_EQ( evpnDir->vniStatusV2( Vni( 10 ) )->macVtepTable( mac1 ), entry( mac1, vtepA, 7, 20 ) );
   EXPECT_TRUE( agentSees( [ & ] { return !agentHosts->hostExists( key ); } ) );
   s->macVtepTableIs( entry( mac1, vtepA, 8, 20 ) );   // a newer sequence number
   EXPECT_TRUE( agentSees( [ & ] { return agentHosts->host( key ).seqNo() == Keel::Seqno32( 8 ); } ) );

   s->macVtepFloodListTableIs( bum )->vtepIpFloodListIs( vtepB, true );
   EXPECT_TRUE( agentSees( [ & ] { return agentFloods->floodEntryExists( flood( 10, vtepB ) ); } ) );
   evpnFloods->floodEntryIs( FloodEntry( flood( 10, vtepB ) ) );
   EXPECT_TRUE( agentSees( [ & ] { return !agentFloods->floodEntryExists( flood( 10, vtepB ) ); } ) );
   evpnFloods->floodEntryDel( flood( 10, vtepB ) );
   evpnHosts->hostDel( key );
   EXPECT_TRUE( !evpnDir->vniStatusV2( Vni( 10 ) ) && floodSet().size() == 1u && hostList().size() == 1u );

   vniDir->entityPtrDel( "10" );   // the VNI goes: everything of it is withdrawn
   EXPECT_TRUE( agentSees( [ & ] {
      return agentHosts->hosts() == 0 && agentFloods->floodEntries() == 0 && agentBrIds->brIdListSize() == 0;
   } ) );
}

TEST_F( Export, StartUpOverStateAnotherProcessLeftInSharedMemory ) {
   ASSERT_EQ( waitChild( startChild( [ & ] {   // an earlier exporter, which dies holding its tables
                 attach();
                 for ( uint32_t v : { 10u, 30u } ) {
                    brIds->brIdListIs( brId( v ), true );
                    floods->floodEntryIs( FloodEntry( flood( v, vtepA ) ) );
                 }
                 floods->floodEntryIs( FloodEntry( flood( 10, vtepB ) ) );   // no longer listed: swept
                 hosts->hostIs( host( mac1, 10, vtepA, 1 ) );   // still learnt: kept, updated
                 hosts->hostIs( host( mac2, 10, vtepB, 1 ) );   // forgotten: swept
                 hosts->hostIs( host( mac1, 30, vtepA, 1 ) );   // vanished VNI: swept
                 return 0;
              } ) ),
              0 );
   attach();   // the new writers take the leftovers over
   ASSERT_EQ( hostList().size(), 3u );
   auto s = addVni( 10 );
   s->macVtepTableIs( entry( mac1, vtepA, 2 ) );
   s->macVtepFloodListTableIs( bum )->vtepIpFloodListIs( vtepA, true );
   start();
   EXPECT_EQ( brIdSet(), std::set< uint32_t >{ 10 } );
   EXPECT_THAT( hostList(), ElementsAre( host( mac1, 10, vtepA, 2 ) ) );
   EXPECT_EQ( floodSet(), std::set< VniVtepPair >{ flood( 10, vtepA ) } );
   const auto t = capture_.texts();
   EXPECT_LT( std::find( t.begin(), t.end(), "OrbEvpnTxSm()::cleanupStaleVniEntries() Deleting stale VNI 30" ),
              std::find( t.begin(), t.end(), "OrbEvpnTxSm()::handleVniFdbStatus(10)" ) );
   EXPECT_TRUE( agentSees( [ & ] {
      return agentBrIds->brIdListSize() == 1 && agentHosts->hosts() == 1 && agentFloods->floodEntries() == 1 &&
             agentHosts->host( MacVniPair( mac1, Vni( 10 ) ) ) == host( mac1, 10, vtepA, 2 );
   } ) );
}

}  // namespace
