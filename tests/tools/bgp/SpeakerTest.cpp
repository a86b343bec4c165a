// orbevpn-bgp's Speaker in-process, against a real gobgpd child (no peers,
// no BGP listener) and Lumen writers standing in for the agent's tables.
#include "tools/bgp/Speaker.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/LumenRoot.h"
#include "tests/tools/common/AgentTables.h"
#include "tools/bgp/GobgpClient.h"
#include "tools/bgp/GobgpPaths.h"
#include "tools/common/Boundary.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace B = OrbEvpn::Boundary;
using OrbEvpn::FloodEntry;
using OrbEvpn::Host;
using OrbEvpn::MacVniPair;
using OrbEvpn::VniVtepPair;
using OrbEvpn::Testing::AgentTables;
using namespace OrbEvpn::Bgp;

const std::string prefix = "/orbevpn";
const char* gobgpd = "/usr/bin/gobgpd";

Host hostOf( uint32_t vni, uint32_t i, uint32_t seq, uint8_t vtep = 1 ) {
   Host h( MacVniPair( Wire::EthAddr( 0x02, 0, 0, 0, uint8_t( i >> 8 ), uint8_t( i ) ), Vxlan::Vni( vni ) ) );
   h.vtepAddrIs( Wire::IpAddr::fromOctets( 198, 18, 1, vtep ) );
   h.seqNoIs( Keel::Seqno32( seq ) );
   return h;
}

// Steps the speaker until `done` holds or ten seconds pass.
template < typename Done >
bool stepUntil( Speaker& s, Done done ) {
   auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 10 );
   while ( !done() && std::chrono::steady_clock::now() < deadline ) {
      std::vector< pollfd > fds;
      for ( int fd : s.fds() ) fds.push_back( { fd, POLLIN, 0 } );
      ::poll( fds.data(), fds.size(), 50 );
      s.step();
   }
   return done();
}

class SpeakerTest : public ::testing::Test {
 protected:
   void SetUp() override {
      if ( ::access( gobgpd, X_OK ) != 0 ) {
         GTEST_SKIP() << gobgpd << " is not installed (package gobgpd)";
      }
      agent.flag( true );
      char tmpl[] = "/tmp/orbevpn-bgp-test-XXXXXX";
      ASSERT_NE( ::mkdtemp( tmpl ), nullptr );
      stateDir = tmpl;
   }
   void TearDown() override {
      if ( !stateDir.empty() ) {
         std::error_code ec;
         std::filesystem::remove_all( stateDir, ec );
      }
   }
   SpeakerOptions options() const {
      SpeakerOptions o;
      o.asn = 65001;
      o.routerId = "198.18.0.1";
      o.prefix = prefix;
      o.listenPort = -1;   // no BGP listener: nothing of this test reaches a network
      o.daemon.program = gobgpd;
      o.daemon.stateDir = stateDir + "/state";
      o.importHoldMs = 0;
      o.addBatch = 16;
      return o;
   }

   LumenRoot root;   // first: every table below lives in it
   AgentTables agent;
   std::string stateDir;
   std::ostringstream log;
};

// gobgpd refuses a MAC's route whose sequence number is below that of the
// MAC's route in another VNI. Sent in batches, whose routes the daemon
// checks against its table only, the lower one must still be refused, as it
// is one route at a time, and go in once the higher one is gone.
TEST_F( SpeakerTest, MacMobilityHoldsAcrossBatches ) {
   agent.list( 100 );
   agent.list( 200 );
   for ( uint32_t i = 0; i < 40; ++i ) agent.host.write( hostOf( 100, i, 1 ) );
   agent.host.write( hostOf( 100, 7, 5 ) );   // MAC 7: seq 5 in VNI 100 ...
   agent.host.write( hostOf( 200, 7, 3 ) );   // ... and seq 3 in VNI 200, in the same batch
   Speaker s( options(), log );
   ASSERT_TRUE( stepUntil( s, [ & ] { return s.advertised() == 40; } ) ) << s.advertised() << "\n" << log.str();
   EXPECT_EQ( s.refusedNow(), 1u );
   EXPECT_EQ( s.stats().refused, 1u );
   EXPECT_NE( log.str().find( "refuses 02:00:00:00:00:07 vni 200" ), std::string::npos ) << log.str();

   agent.host.remove( MacVniPair( hostOf( 100, 7, 5 ).macAddr(), Vxlan::Vni( 100 ) ) );
   EXPECT_TRUE( stepUntil( s, [ & ] { return s.refusedNow() == 0 && s.advertised() == 40; } ) )
      << s.refusedNow() << " refused, " << s.advertised() << " advertised\n" << log.str();
}

// gobgpd checks a withdrawal's MAC Mobility sequence number as it does an
// advertisement's: withdrawing a MAC's route below the sequence number of
// its route in another VNI (as when a host moved there) was refused, and the
// refusal restarted the daemon, dropping every session.
TEST_F( SpeakerTest, RouteIsWithdrawnBelowAHigherSequenceNumberOfItsMac ) {
   agent.list( 100 );
   agent.list( 200 );
   agent.host.write( hostOf( 100, 7, 3 ) );
   Speaker s( options(), log );
   ASSERT_TRUE( stepUntil( s, [ & ] { return s.advertised() == 1; } ) ) << log.str();
   agent.host.write( hostOf( 200, 7, 5 ) );   // moved to VNI 200, above 3
   ASSERT_TRUE( stepUntil( s, [ & ] { return s.stats().routesAdded == 2; } ) ) << log.str();
   agent.host.remove( MacVniPair( hostOf( 100, 7, 3 ).macAddr(), Vxlan::Vni( 100 ) ) );
   EXPECT_TRUE( stepUntil( s, [ & ] { return s.stats().routesWithdrawn == 1; } ) ) << log.str();
   EXPECT_EQ( s.advertised(), 1u );
   EXPECT_EQ( s.stats().daemonRestarts, 0u ) << log.str();
   GobgpClient c( Daemon::socketPathIn( options().daemon.stateDir ) );
   auto rib = c.localEvpnPaths();
   ASSERT_EQ( rib.size(), 1u );
   auto lp = learntOf( rib[ 0 ] );
   ASSERT_TRUE( lp && lp->mac );
   EXPECT_EQ( lp->mac->label, 200u );
}

// Withdrawals travel in the same AddPathStream messages as routes, in
// order: a pass that removes some hosts and changes others sends a few
// messages, not one per withdrawal, and leaves gobgpd with what is wanted.
TEST_F( SpeakerTest, WithdrawalsGoInBatchesWithRoutes ) {
   agent.list( 100 );
   for ( uint32_t i = 0; i < 40; ++i ) agent.host.write( hostOf( 100, i, 1 ) );
   for ( uint8_t v = 1; v <= 20; ++v ) {
      agent.flood.write( FloodEntry( VniVtepPair( Vxlan::Vni( 100 ), Wire::IpAddr::fromOctets( 198, 18, 0, v ) ) ) );
   }
   Speaker s( options(), log );
   ASSERT_TRUE( stepUntil( s, [ & ] { return s.advertised() == 60; } ) ) << log.str();
   uint64_t messages = s.stats().pathMessages;
   for ( uint32_t i = 0; i < 20; ++i ) {
      agent.host.remove( MacVniPair( hostOf( 100, i, 1 ).macAddr(), Vxlan::Vni( 100 ) ) );
   }
   for ( uint32_t i = 20; i < 30; ++i ) agent.host.write( hostOf( 100, i, 2 ) );
   for ( uint8_t v = 1; v <= 20; v += 2 ) {
      agent.flood.remove( VniVtepPair( Vxlan::Vni( 100 ), Wire::IpAddr::fromOctets( 198, 18, 0, v ) ) );
   }
   ASSERT_TRUE( stepUntil( s, [ & ] { return s.stats().routesWithdrawn == 30 && s.stats().routesAdded == 70; } ) )
      << s.stats().routesWithdrawn << " withdrawn, " << s.stats().routesAdded << " added\n" << log.str();
   // 30 type-2 changes in batches of 16, 10 type-3 withdrawals in one.
   EXPECT_LE( s.stats().pathMessages - messages, 3u );
   EXPECT_EQ( s.stats().daemonRestarts, 0u );

   GobgpClient c( Daemon::socketPathIn( options().daemon.stateDir ) );
   std::map< uint32_t, uint32_t > seqOf;   // host index -> sequence number
   std::set< uint8_t > vteps;
   for ( const auto& p : c.localEvpnPaths() ) {
      auto lp = learntOf( p );
      ASSERT_TRUE( lp );
      if ( lp->mac ) {
         seqOf[ lp->mac->mac.bytes()[ 5 ] ] = lp->mac->sequence.value_or( 0 );
      } else if ( lp->flood ) {
         vteps.insert( uint8_t( lp->flood->originator.value() & 0xff ) );
      }
   }
   std::map< uint32_t, uint32_t > wantSeq;
   for ( uint32_t i = 20; i < 40; ++i ) wantSeq[ i ] = i < 30 ? 2 : 1;
   EXPECT_EQ( seqOf, wantSeq );
   std::set< uint8_t > wantVteps;
   for ( uint8_t v = 2; v <= 20; v += 2 ) wantVteps.insert( v );
   EXPECT_EQ( vteps, wantVteps );
}

// A killed orbevpn-bgp leaves its gobgpd running, with its sessions and our
// routes; the next one over the same state folder takes it over and finds
// every route in place: it adds none and withdraws none.
TEST_F( SpeakerTest, NextRunTakesOverTheDaemonOfAKilledOne ) {
   agent.list( 100 );
   for ( uint32_t i = 0; i < 20; ++i ) agent.host.write( hostOf( 100, i, 1 ) );
   agent.flood.write( FloodEntry( VniVtepPair( Vxlan::Vni( 100 ), Wire::IpAddr::fromOctets( 198, 18, 0, 1 ) ) ) );

   pid_t child = ::fork();
   ASSERT_GE( child, 0 );
   if ( child == 0 ) {
      std::ostringstream childLog;
      Speaker first( options(), childLog );
      bool done = stepUntil( first, [ & ] { return first.advertised() == 21; } );
      ::raise( done ? SIGKILL : SIGABRT );   // killed: no destructor stops the daemon
      ::_exit( 1 );
   }
   int status = 0;
   ASSERT_EQ( ::waitpid( child, &status, 0 ), child );
   ASSERT_TRUE( WIFSIGNALED( status ) && WTERMSIG( status ) == SIGKILL ) << "the first run did not advertise all";

   pid_t firstDaemon = 0;
   std::ifstream( options().daemon.stateDir + "/gobgpd.pid" ) >> firstDaemon;
   ASSERT_GT( firstDaemon, 1 );
   ASSERT_TRUE( isRunning( firstDaemon ) ) << "gobgpd did not outlive the killed run";
   {
      Speaker second( options(), log );
      EXPECT_NE( log.str().find( "adopting the running gobgpd" ), std::string::npos ) << log.str();
      EXPECT_EQ( second.stats().routesAdded, 0u );   // all were in place at the reconcile
      EXPECT_TRUE( stepUntil( second, [ & ] { return second.advertised() == 21; } ) ) << log.str();
      EXPECT_EQ( second.stats().routesAdded, 0u );
      EXPECT_EQ( second.stats().routesWithdrawn, 0u );
      EXPECT_EQ( second.stats().daemonRestarts, 0u );
   }
   // The second run stopped the daemon it took over; one it did not take
   // over is ended here, not left behind.
   if ( isRunning( firstDaemon ) ) {
      ADD_FAILURE() << "the first run's gobgpd outlived the second run";
      ::kill( firstDaemon, SIGKILL );
   }
}

// SIGTERM (a restart) hands the daemon over instead of stopping it: the
// next run adopts it with every route in place, withdrawing none.
TEST_F( SpeakerTest, HandedOverDaemonGoesToTheNextRunWithItsRoutes ) {
   agent.list( 100 );
   for ( uint32_t i = 0; i < 20; ++i ) agent.host.write( hostOf( 100, i, 1 ) );
   agent.flood.write( FloodEntry( VniVtepPair( Vxlan::Vni( 100 ), Wire::IpAddr::fromOctets( 198, 18, 0, 1 ) ) ) );
   pid_t daemon = -1;
   {
      Speaker first( options(), log );
      ASSERT_TRUE( stepUntil( first, [ & ] { return first.advertised() == 21; } ) ) << log.str();
      daemon = first.handOver();
      first.step();   // nothing left to do, and nothing fails
   }
   ASSERT_GT( daemon, 1 );
   ASSERT_TRUE( isRunning( daemon ) ) << "the handed-over gobgpd did not outlive its run";
   {
      Speaker second( options(), log );
      EXPECT_NE( log.str().find( fmt::format( "adopting the running gobgpd {}", daemon ) ), std::string::npos )
         << log.str();
      EXPECT_TRUE( stepUntil( second, [ & ] { return second.advertised() == 21; } ) ) << log.str();
      EXPECT_EQ( second.stats().routesAdded, 0u );
      EXPECT_EQ( second.stats().routesWithdrawn, 0u );
   }
   EXPECT_FALSE( isRunning( daemon ) ) << "the second run did not stop the daemon it took over";
   ::waitpid( daemon, nullptr, 0 );   // our child: the first run forked it
}

}  // namespace
