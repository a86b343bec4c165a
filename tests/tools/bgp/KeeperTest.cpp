// The handover of gobgpd between runs of orbevpn-bgp: the instance lock,
// the claim, and the keeper that stops a daemon nobody took over. Against
// real gobgpd processes (no BGP started: they only serve their API socket).
// The departing run is a forked child that the test kills; the keeper runs
// on a thread of the test.
#include "tests/support/ChildProcess.h"
#include "tools/bgp/Daemon.h"
#include "tools/bgp/Handover.h"
#include "tools/bgp/Keeper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace OrbEvpn::Bgp;
using namespace std::chrono_literals;

const char* gobgpd = "/usr/bin/gobgpd";

// A process standing for a run of orbevpn-bgp (or any process of ours):
// it waits until killed.
class Process {
 public:
   Process() {
      pid_ = ::fork();
      if ( pid_ == 0 ) {
         for ( ;; ) ::pause();
      }
      pidFd_ = int( ::syscall( SYS_pidfd_open, pid_, 0 ) );
   }
   ~Process() {
      end();
      ::close( pidFd_ );
   }
   void end() {
      if ( pid_ > 0 ) {
         ::kill( pid_, SIGKILL );
         ::waitpid( pid_, nullptr, 0 );
         pid_ = -1;
      }
   }
   pid_t pid() const { return pid_; }
   int pidFd() const { return pidFd_; }

 private:
   pid_t pid_ = -1;
   int pidFd_ = -1;
};

class KeeperTest : public ::testing::Test {
 protected:
   void SetUp() override {
      if ( ::access( gobgpd, X_OK ) != 0 ) {
         GTEST_SKIP() << gobgpd << " is not installed (package gobgpd)";
      }
      char tmpl[] = "/tmp/orbevpn-keeper-test-XXXXXX";
      ASSERT_NE( ::mkdtemp( tmpl ), nullptr );
      dir = tmpl;
   }
   void TearDown() override {
      for ( pid_t pid : daemons ) {
         ::kill( pid, SIGKILL );
         ::waitpid( pid, nullptr, 0 );
      }
      if ( !dir.empty() ) {
         std::error_code ec;
         std::filesystem::remove_all( dir, ec );
      }
   }
   DaemonOptions daemonOptions( const std::string& name = "state" ) const {
      DaemonOptions o;
      o.program = gobgpd;
      o.stateDir = dir + "/" + name;
      o.logLevel = "warn";
      o.lockWait = 200ms;
      return o;
   }
   // A gobgpd started by a run that has gone (its Daemon released it and
   // let the lock go), claimed by `token`.
   pid_t leftBehind( uint64_t token, const std::string& name = "state" ) {
      DaemonOptions o = daemonOptions( name );
      o.ownerToken = token;
      Daemon d( o );
      d.start();
      // Until it has exec'd, the child is no gobgpd to anyone.
      for ( int i = 0; i < 200; ++i ) {
         int fd = openGobgpd( d.pid(), gobgpd, d.socketPath() );
         if ( fd >= 0 ) {
            ::close( fd );
            break;
         }
         std::this_thread::sleep_for( 10ms );
      }
      pid_t pid = d.release();
      daemons.push_back( pid );   // our child: reaped at the end
      return pid;
   }
   std::future< KeeperEnd > keeper( uint64_t token, const Process& owner, std::chrono::milliseconds window ) {
      KeeperOptions k;
      k.stateDir = dir + "/state";
      k.program = gobgpd;
      k.ownerToken = token;
      k.ownerPidFd = owner.pidFd();
      k.window = window;
      k.stopGrace = 3s;
      return std::async( std::launch::async, [ this, k ] { return runKeeper( k, log ); } );
   }

   std::string dir;
   std::vector< pid_t > daemons;
   std::ostringstream log;
};

TEST_F( KeeperTest, InstanceLockKeepsOutASecondRunUntilTheFirstEnds ) {
   auto first = std::make_unique< Daemon >( daemonOptions() );
   EXPECT_TRUE( InstanceLock::held( dir + "/state" ) );
   try {
      Daemon second( daemonOptions() );
      ADD_FAILURE() << "a second run took the state directory of a running one";
   } catch ( const std::runtime_error& e ) {
      EXPECT_EQ( std::string( e.what() ),
                 "another orbevpn-bgp runs over " + dir + "/state (it holds " + dir + "/state/lock)" );
   }
   first.reset();
   EXPECT_FALSE( InstanceLock::held( dir + "/state" ) );
   Daemon second( daemonOptions() );
}

// Until the run ends the keeper does nothing; once it has, and nobody took
// its daemon over within the window, the daemon is stopped and its files go.
TEST_F( KeeperTest, StopsTheDaemonOfARunNobodyTookOverAfterTheWindow ) {
   uint64_t token = newOwnerToken();
   pid_t daemon = leftBehind( token );
   Process owner;
   auto end = keeper( token, owner, 300ms );
   EXPECT_EQ( end.wait_for( 1s ), std::future_status::timeout ) << "the keeper acted while its run ran";
   EXPECT_TRUE( isRunning( daemon ) );

   owner.end();
   ASSERT_EQ( end.wait_for( 20s ), std::future_status::ready );
   EXPECT_EQ( end.get(), KeeperEnd::stopped ) << log.str();
   EXPECT_FALSE( isRunning( daemon ) );
   int status = 0;
   ASSERT_EQ( ::waitpid( daemon, &status, 0 ), daemon );
   EXPECT_TRUE( WIFEXITED( status ) ) << "not stopped by SIGTERM, as gobgpd's own shutdown";
   EXPECT_FALSE( std::filesystem::exists( dir + "/state/gobgpd.pid" ) );
   EXPECT_FALSE( std::filesystem::exists( ownerPath( dir + "/state" ) ) );
   EXPECT_NE( log.str().find( "no successor took gobgpd " + std::to_string( daemon ) + " over within 0.3 s" ),
              std::string::npos )
      << log.str();
   daemons.clear();
}

TEST_F( KeeperTest, LeavesTheDaemonToASuccessorThatAdoptsIt ) {
   uint64_t token = newOwnerToken();
   pid_t daemon = leftBehind( token );
   Process owner;
   auto end = keeper( token, owner, 60s );
   owner.end();
   Daemon successor( daemonOptions() );
   ASSERT_TRUE( successor.adopt() );
   EXPECT_EQ( successor.pid(), daemon );
   EXPECT_EQ( daemonOwner( dir + "/state" ), successor.ownerToken() );
   ASSERT_EQ( end.wait_for( 20s ), std::future_status::ready ) << "the keeper did not see the successor's claim";
   EXPECT_EQ( end.get(), KeeperEnd::takenOver );
   EXPECT_TRUE( isRunning( daemon ) );
}

// A successor holding the lock is starting: past the window the keeper
// waits for its claim, and stops the daemon only if it leaves without one.
TEST_F( KeeperTest, WaitsPastTheWindowForASuccessorThatHoldsTheLock ) {
   uint64_t token = newOwnerToken();
   pid_t daemon = leftBehind( token );
   Process owner;
   auto starting = InstanceLock::take( dir + "/state", 0ms );
   ASSERT_TRUE( starting );
   auto end = keeper( token, owner, 100ms );
   owner.end();
   EXPECT_EQ( end.wait_for( 1s ), std::future_status::timeout ) << log.str();
   EXPECT_TRUE( isRunning( daemon ) );
   starting.reset();
   ASSERT_EQ( end.wait_for( 20s ), std::future_status::ready );
   EXPECT_EQ( end.get(), KeeperEnd::stopped ) << log.str();
   EXPECT_FALSE( isRunning( daemon ) );
}

// Whatever the pid file names by the time the keeper looks (an unrelated
// process, the gobgpd of another state directory), only a gobgpd on the
// state directory's own socket is ours to stop.
TEST_F( KeeperTest, SignalsNoProcessButAGobgpdOnItsOwnSocket ) {
   uint64_t token = newOwnerToken();
   pid_t other = leftBehind( newOwnerToken(), "other" );
   Process unrelated;
   std::filesystem::create_directories( dir + "/state" );
   for ( pid_t named : { unrelated.pid(), other } ) {
      std::ofstream( dir + "/state/gobgpd.pid" ) << named << "\n";
      claimDaemon( dir + "/state", token );
      Process owner;
      auto end = keeper( token, owner, 0ms );
      owner.end();
      ASSERT_EQ( end.wait_for( 20s ), std::future_status::ready );
      EXPECT_EQ( end.get(), KeeperEnd::daemonGone ) << log.str();
   }
   EXPECT_TRUE( isRunning( unrelated.pid() ) );
   EXPECT_TRUE( isRunning( other ) );
   EXPECT_EQ( openGobgpd( other, gobgpd, Daemon::socketPathIn( dir + "/state" ) ), -1 );
   int fd = openGobgpd( other, gobgpd, Daemon::socketPathIn( dir + "/other" ) );
   EXPECT_GE( fd, 0 );
   ::close( fd );
   EXPECT_EQ( openGobgpd( other, "/usr/sbin/gobgpd", Daemon::socketPathIn( dir + "/other" ) ), -1 );
}

}  // namespace
