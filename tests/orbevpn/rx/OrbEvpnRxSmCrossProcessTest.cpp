// The import driven by an EVPN-side writer in another process: the writer
// child fills and empties its shared tables; the parent mounts reader-role
// tables on the same paths and feeds their change feeds to the machine.
#include "orbevpn/rx/OrbEvpnRxSm.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace VxlanController;
using OrbEvpn::FloodEntry;
using OrbEvpn::Host;
using OrbEvpn::MacVniPair;
using OrbEvpn::VniVtepPair;

const Wire::EthAddr mac1( 2, 0, 0, 0, 0, 1 );
const Wire::EthAddr mac2( 2, 0, 0, 0, 0, 2 );
const Wire::IpAddr vtepA = Wire::IpAddr::fromOctets( 192, 0, 2, 1 );
const Wire::IpAddr vtepB = Wire::IpAddr::fromOctets( 192, 0, 2, 2 );

Host makeHost( const Wire::EthAddr& mac, uint32_t vni, Wire::IpAddr vtep, uint32_t seq ) {
   Host h( MacVniPair( mac, Vxlan::Vni( vni ) ) );
   h.vtepAddrIs( vtep );
   h.seqNoIs( Keel::Seqno32( seq ) );
   return h;
}

// One byte each way over a pair of pipes.
struct Channel {
   int toChild[ 2 ];
   int toParent[ 2 ];
   Channel() {
      if ( pipe( toChild ) || pipe( toParent ) ) {
         std::abort();
      }
   }
   static void send( int fd, char c ) {
      if ( write( fd, &c, 1 ) != 1 ) {
         _exit( 90 );
      }
   }
   static char receive( int fd ) {
      char c = 0;
      return read( fd, &c, 1 ) == 1 ? c : '\0';
   }
};

class RxCrossProcessTest : public ::testing::Test {
 protected:
   void SetUp() override {
      char tmpl[] = "/dev/shm/orbevpn-rx-XXXXXX";
      ASSERT_TRUE( mkdtemp( tmpl ) );
      root_ = tmpl;
      Lumen::rootIs( root_ );
   }
   void TearDown() override { std::filesystem::remove_all( root_ ); }

   // The EVPN side: a writer process driven step by step by the parent.
   pid_t startWriter( Channel& ch ) {
      pid_t pid = fork();
      if ( pid != 0 ) {
         return pid;
      }
      auto dir = Mox::Dir::DirIs( "evpn" );
      auto hosts = OrbEvpn::hostTableFactory( "host" );
      auto floods = OrbEvpn::floodTableFactory( "flood" );
      dir->entityPtrIs( hosts );
      dir->entityPtrIs( floods );
      for ( char step; ( step = Channel::receive( ch.toChild[ 0 ] ) ) != 'q'; ) {
         switch ( step ) {
          case 'f':   // fill
            hosts->hostIs( makeHost( mac1, 10, vtepA, 1 ) );
            hosts->hostIs( makeHost( mac2, 20, vtepB, 2 ) );
            floods->floodEntryIs( FloodEntry( VniVtepPair( Vxlan::Vni( 10 ), vtepA ) ) );
            floods->floodEntryIs( FloodEntry( VniVtepPair( Vxlan::Vni( 10 ), vtepB ) ) );
            break;
          case 'u':   // update one host, withdraw one flood VTEP
            hosts->hostIs( makeHost( mac1, 10, vtepB, 7 ) );
            floods->floodEntryDel( VniVtepPair( Vxlan::Vni( 10 ), vtepA ) );
            break;
          case 'e':   // empty
            hosts->hostDelAll();
            floods->floodEntryDelAll();
            break;
          default:
            _exit( 91 );
         }
         Channel::send( ch.toParent[ 1 ], step );
      }
      _exit( 0 );
   }

   // Dispatches both readers until `done` holds or 5 s pass.
   static bool pumpUntil( OrbEvpn::HostTable& h, OrbEvpn::FloodTable& f,
                          const std::function< bool() >& done ) {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 5 );
      while ( !done() ) {
         if ( std::chrono::steady_clock::now() > deadline ) {
            return false;
         }
         pollfd fds[] = { { h.fd(), POLLIN, 0 }, { f.fd(), POLLIN, 0 } };
         poll( fds, 2, 50 );
         h.dispatch();
         f.dispatch();
      }
      return true;
   }

   std::string root_;
};

TEST_F( RxCrossProcessTest, ImportFollowsAWriterInAnotherProcess ) {
   Channel ch;
   pid_t pid = startWriter( ch );
   Channel::send( ch.toChild[ 1 ], 'f' );
   ASSERT_EQ( Channel::receive( ch.toParent[ 0 ] ), 'f' );

   auto hosts = OrbEvpn::HostTable::HostTableReaderIs( "host", "evpn/host" );
   auto floods = OrbEvpn::FloodTable::FloodTableReaderIs( "flood", "evpn/flood" );
   auto dir = VniStatusDirV2::VniStatusDirV2Is( "vniStatus" );
   auto sm = orbEvpnRxSmFactory( hosts, floods, dir );

   // Imported by the constructor's full pass.
   ASSERT_EQ( dir->vniStatusV2Size(), 2u );
   EXPECT_EQ( dir->vniStatusV2( Vxlan::Vni( 10 ) )->macVtepTable( mac1 ),
              MacVtepV2( mac1, vtepA, Keel::Seqno32( 1 ), 16 ) );
   EXPECT_EQ( dir->vniStatusV2( Vxlan::Vni( 20 ) )->macVtepTable( mac2 ).vtepAddr(), vtepB );
   auto list = dir->vniStatusV2( Vxlan::Vni( 10 ) )->macVtepFloodListTable( Wire::EthAddr() );
   ASSERT_TRUE( list );
   EXPECT_EQ( list->vtepIpFloodListSize(), 2u );

   // Live changes arrive through the change feeds.
   Channel::send( ch.toChild[ 1 ], 'u' );
   ASSERT_EQ( Channel::receive( ch.toParent[ 0 ] ), 'u' );
   ASSERT_TRUE( pumpUntil( *hosts, *floods, [ & ] {
      auto s = dir->vniStatusV2( Vxlan::Vni( 10 ) );
      return s && s->macVtepTable( mac1 ).seqNo() == Keel::Seqno32( 7 ) &&
             list->vtepIpFloodListSize() == 1;
   } ) );
   EXPECT_EQ( dir->vniStatusV2( Vxlan::Vni( 10 ) )->macVtepTable( mac1 ),
              MacVtepV2( mac1, vtepB, Keel::Seqno32( 7 ), 16 ) );
   EXPECT_TRUE( list->vtepIpFloodList( vtepB ) );

   Channel::send( ch.toChild[ 1 ], 'e' );
   ASSERT_EQ( Channel::receive( ch.toParent[ 0 ] ), 'e' );
   EXPECT_TRUE( pumpUntil( *hosts, *floods, [ & ] { return dir->vniStatusV2Size() == 0; } ) );

   Channel::send( ch.toChild[ 1 ], 'q' );
   int status = -1;
   waitpid( pid, &status, 0 );
   EXPECT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) == 0 ) << status;
}

TEST_F( RxCrossProcessTest, AMachineStartedBeforeTheWriterPicksItsTablesUp ) {
   auto hosts = OrbEvpn::HostTable::HostTableReaderIs( "host", "evpn/host" );
   auto floods = OrbEvpn::FloodTable::FloodTableReaderIs( "flood", "evpn/flood" );
   EXPECT_EQ( hosts->hostControl()->mountStatus(), Lumen::MountStatus::waitingForWriter );
   auto dir = VniStatusDirV2::VniStatusDirV2Is( "vniStatus" );
   auto sm = orbEvpnRxSmFactory( hosts, floods, dir );
   EXPECT_EQ( dir->vniStatusV2Size(), 0u );

   Channel ch;
   pid_t pid = startWriter( ch );
   Channel::send( ch.toChild[ 1 ], 'f' );
   ASSERT_EQ( Channel::receive( ch.toParent[ 0 ] ), 'f' );
   EXPECT_TRUE( pumpUntil( *hosts, *floods, [ & ] {
      auto s = dir->vniStatusV2( Vxlan::Vni( 10 ) );
      return dir->vniStatusV2Size() == 2 && s && s->macVtepFloodListTableSize() == 1 &&
             s->macVtepFloodListTable( Wire::EthAddr() )->vtepIpFloodListSize() == 2;
   } ) );
   EXPECT_EQ( hosts->hostControl()->mountStatus(), Lumen::MountStatus::mounted );

   Channel::send( ch.toChild[ 1 ], 'q' );
   int status = -1;
   waitpid( pid, &status, 0 );
   EXPECT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) == 0 ) << status;
}

}  // namespace
