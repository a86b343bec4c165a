// OrbEvpnRxSm: per-VNI status mirroring the host and flood tables, in process and across processes.
#include "orbevpn/rx/OrbEvpnRxSm.h"
#include "tests/orbevpn/tx/TxTestSupport.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/LumenRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <poll.h>
#include <random>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

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

Host makeHost( const Wire::EthAddr& mac, Vxlan::Vni vni, Wire::IpAddr vtep, uint32_t seq, uint8_t pref = 16 ) {
   Host h( MacVniPair( mac, vni ) );
   h.vtepAddrIs( vtep ), h.seqNoIs( Keel::Seqno32( seq ) ), h.preferenceIs( pref );
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
      return status( v ) ? status( v )->macVtepFloodListTable( zeroMac ) : nullptr;
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
   ASSERT_TRUE( status( vni20 ) && floodList( vni20 ) );
   EXPECT_EQ( status( vni20 )->macVtepTable( mac2 ).seqNo(), Keel::Seqno32( 6 ) );
   EXPECT_TRUE( floodList( vni20 )->vtepIpFloodList( vtepA ) && floodList( vni20 )->vtepIpFloodListSize() == 1u );
   EXPECT_TRUE( !floodList( vni10 ) && dir->vniStatusV2Size() == 2u );

   // Without a host table only the flood entries are imported.
   auto floodsOnly = VniStatusDirV2::VniStatusDirV2Is( "floodsOnly" );
   auto other = orbEvpnRxSmFactory( nullptr, floods, floodsOnly );
   EXPECT_TRUE( !other->hostTableReactor() && other->floodTableReactor() && !other->hostTable() );
   ASSERT_EQ( floodsOnly->vniStatusV2Size(), 1u );
   EXPECT_EQ( floodsOnly->vniStatusV2( vni20 )->macVtepTableSize(), 0u );
}

TEST_F( OrbEvpnRxSmTest, HostsFollowTheTableAndADefaultHostIsADeletion ) {
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

   // Zero VTEP, zero sequence number, preference 16: "no host".
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 9 ) );
   hosts->hostIs( Host( MacVniPair( mac1, vni10 ) ) );
   EXPECT_FALSE( status( vni10 ) );
   // Preference alone makes a host real.
   hosts->hostIs( makeHost( mac1, vni10, Wire::IpAddr(), 0, 17 ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepTable( mac1 ).preference(), 17 );

   // The control attribute of the table is not watched: no import, no assertion.
   const MacVniPair key( mac2, vni10 );
   sm->hostTableReactor()->onAttribute( 259, &key );
   EXPECT_EQ( status( vni10 )->macVtepTableSize(), 1u );
}

TEST_F( OrbEvpnRxSmTest, AVniStatusLivesFromItsFirstRecordToItsLastInEitherOrder ) {
   start();
   for ( bool hostFirst : { true, false } ) {
      SCOPED_TRACE( hostFirst ? "host deleted first" : "flood entries deleted first" );
      floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepA ) ) );
      floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepB ) ) );
      ASSERT_TRUE( floodList( vni10 ) );
      EXPECT_TRUE( floodList( vni10 )->vtepIpFloodListSize() == 2u && status( vni10 )->macVtepFloodListTableSize() == 1u );
      floods->floodEntryDel( VniVtepPair( vni10, vtepA ) );
      ASSERT_TRUE( floodList( vni10 ) );
      EXPECT_TRUE( !floodList( vni10 )->vtepIpFloodListContains( vtepA ) && floodList( vni10 )->vtepIpFloodList( vtepB ) );
      hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
      if ( hostFirst ) {
         hosts->hostDel( MacVniPair( mac1, vni10 ) );
         ASSERT_TRUE( status( vni10 ) );
         EXPECT_EQ( status( vni10 )->macVtepTableSize(), 0u );
         floods->floodEntryDel( VniVtepPair( vni10, vtepB ) );
      } else {
         floods->floodEntryDel( VniVtepPair( vni10, vtepB ) );
         ASSERT_TRUE( status( vni10 ) );
         EXPECT_TRUE( status( vni10 )->macVtepFloodListTableSize() == 0u && status( vni10 )->macVtepTableSize() == 1u );
         hosts->hostDel( MacVniPair( mac1, vni10 ) );
      }
      EXPECT_TRUE( !status( vni10 ) && dir->vniStatusV2Size() == 0u );
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
   EXPECT_TRUE( !status( vni10 ) && !status( vni20 ) && status( Vxlan::Vni( 30 ) ) && dir->vniStatusV2Size() == 1u );
   EXPECT_EQ( hosts->hosts(), 1u );   // the tables are untouched, and a new pass imports again
   sm->initSm();
   EXPECT_TRUE( status( vni10 ) && status( vni20 ) );
}

TEST_F( OrbEvpnRxSmTest, AZombieHearsNothingUntilRevivedAndADestroyedMachineRemovesNothing ) {
   start();
   sm->moxDoZombieReactors( true );
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   floods->floodEntryIs( FloodEntry( VniVtepPair( vni20, vtepA ) ) );
   EXPECT_EQ( dir->vniStatusV2Size(), 0u );
   sm->moxDoZombieReactors( false );
   hosts->hostIs( makeHost( mac2, vni10, vtepA, 1 ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_EQ( status( vni10 )->macVtepTableSize(), 1u );

   sm = nullptr;
   hosts->hostIs( makeHost( mac2, vni20, vtepA, 1 ) );
   hosts->hostDel( MacVniPair( mac2, vni10 ) );
   EXPECT_TRUE( status( vni10 ) && !status( vni20 ) );
}

TEST_F( OrbEvpnRxSmTest, RegistryAndGenericInterface ) {
   Mox::Ptr< const OrbEvpn::HostTable > h = hosts;
   Mox::Ptr< const OrbEvpn::FloodTable > f = floods;
   TxTest::Generic g( "VxlanController::OrbEvpnRxSm",
                      { "hostTable", "floodTable", "vniStatusDir", "maybeDeleteVniStatus", "deleteHostEntry",
                        "handleHost", "deleteFloodEntry", "handleFloodEntry", "cleanup", "initSm" },
                      { &h, &f, &dir } );
   ASSERT_TRUE( Mox::moxModule( "OrbEvpnRxSm" ) );
   EXPECT_EQ( Mox::moxModule( "OrbEvpnRxSm" )->type( "VxlanController::OrbEvpnRxSm" ), g.type );
   ASSERT_TRUE( Mox::ptrCast< OrbEvpnRxSm >( g.object ) );   // driven by attribute from here on
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   ASSERT_TRUE( status( vni10 ) );
   EXPECT_TRUE( g( 130, Mox::genericOpGet ) == Mox::genericDone &&
                g.r.object().ptr() == static_cast< const Mox::PtrInterface* >( hosts.ptr() ) );
   EXPECT_EQ( g( 130, Mox::genericOpSet, &h ), Mox::genericNotAllowed );
   EXPECT_EQ( g( 138, Mox::genericOpGet ), Mox::genericNotAllowed );
   EXPECT_EQ( g( 140, Mox::genericOpGet ), Mox::genericNoSuchAttribute );
   EXPECT_TRUE( g( 138, Mox::genericOpInvoke ) == Mox::genericDone && !status( vni10 ) );   // cleanup
   const MacVniPair key( mac1, vni10 );
   EXPECT_TRUE( g( 135, Mox::genericOpInvoke, &key ) == Mox::genericDone && status( vni10 ) );   // handleHost
}

using OrbEvpnRxSmDeathTest = OrbEvpnRxSmTest;

TEST_F( OrbEvpnRxSmDeathTest, DeletesOfStatesTheImportNeverProduces ) {
   start();
   EXPECT_DEATH( sm->handleHost( MacVniPair( mac1, vni10 ) ), "^vniStatus\n$" );
   EXPECT_DEATH( sm->handleFloodEntry( VniVtepPair( vni10, vtepA ) ), "^vniStatus\n$" );
   EXPECT_DEATH( sm->maybeDeleteVniStatus( vni20 ), "^vniStatus\n$" );
   hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) );
   EXPECT_DEATH( sm->handleFloodEntry( VniVtepPair( vni10, vtepA ) ), "^floodList\n$" );
   // A status another writer extended.
   status( vni10 )->macVtepMultiPathTablesIs( mac2 );
   EXPECT_DEATH( hosts->hostDel( MacVniPair( mac1, vni10 ) ),
                 "^!vniStatus->macVtepMultiPathTables\\(\\)\n$" );
   status( vni10 )->macVtepMultiPathTablesDel( mac2 );
   status( vni10 )->ipToMacTablesIs( vtepB, mac2 );
   EXPECT_DEATH( hosts->hostDel( MacVniPair( mac1, vni10 ) ),
                 "^!vniStatus->ipToMacTables\\(\\)\n$" );
}

// ---- a writer child fills and empties shared tables; the parent mounts reader-role tables on them.
void send( int fd, char c ) {
   if ( write( fd, &c, 1 ) != 1 ) _exit( 90 );
}
char receive( int fd ) {
   char c = 0;
   return read( fd, &c, 1 ) == 1 ? c : '\0';
}

const Wire::EthAddr mac3( 0, 0x1a, 0x2b, 0x3c, 0x4d, 0x03 );
const Vxlan::Vni vni30( 30 );
const Vxlan::Vni vni31( 31 );
const Vxlan::Vni vni40( 40 );
const Vxlan::Vni quietVni( 999 );

class RxCrossProcessTest : public ::testing::Test {
 protected:
   void SetUp() override {
      ASSERT_TRUE( pipe( toChild_ ) == 0 && pipe( toParent_ ) == 0 );
      stop_ = static_cast< std::atomic< int >* >(
         mmap( nullptr, sizeof( int ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 ) );
      ASSERT_NE( stop_, MAP_FAILED );
      stop_->store( 0 );
   }
   void TearDown() override { munmap( stop_, sizeof( int ) ); }

   // Random hosts and flood entries in a few often-emptied VNIs until stopped; a host in quietVni marks the end.
   static void churn( OrbEvpn::HostTable& hosts, OrbEvpn::FloodTable& floods,
                      std::atomic< int >& stop ) {
      std::mt19937 rng( 17 );
      const pid_t parent = getppid();
      for ( uint32_t n = 1; !stop.load() && getppid() == parent; ++n ) {
         Vxlan::Vni vni( 100 + rng() % 4 );
         Wire::EthAddr mac( 0, 0x1a, 0x2b, 0x3c, 0x4d, uint8_t( rng() % 6 ) );
         Wire::IpAddr vtep = Wire::IpAddr::fromOctets( 10, 0, 1, uint8_t( rng() % 3 ) );
         switch ( rng() % 4 ) {
          case 0: hosts.hostIs( makeHost( mac, vni, vtep, n ) ); break;
          case 1: hosts.hostDel( MacVniPair( mac, vni ) ); break;
          case 2: floods.floodEntryIs( FloodEntry( VniVtepPair( vni, vtep ) ) ); break;
          default: floods.floodEntryDel( VniVtepPair( vni, vtep ) ); break;
         }
      }
      hosts.hostIs( makeHost( mac1, quietVni, vtepA, 1 ) );
   }

   // The EVPN side: a writer process driven step by step by the parent (whose death ends its wait).
   void startWriter() {
      if ( ( pid_ = fork() ) != 0 ) return;
      close( toChild_[ 1 ] ), close( toParent_[ 0 ] );
      auto dir = Mox::Dir::DirIs( "evpn" );
      auto hosts = OrbEvpn::hostTableFactory( "host" );
      auto floods = OrbEvpn::floodTableFactory( "flood" );
      dir->entityPtrIs( hosts ), dir->entityPtrIs( floods );
      for ( char step; ( step = receive( toChild_[ 0 ] ) ) != 'q'; ) {
         switch ( step ) {
          case 'f':   // fill
            hosts->hostIs( makeHost( mac1, vni10, vtepA, 1 ) ), hosts->hostIs( makeHost( mac2, vni20, vtepB, 2 ) );
            floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepA ) ) );
            floods->floodEntryIs( FloodEntry( VniVtepPair( vni10, vtepB ) ) );
            break;
          case 'u':   // update one host, withdraw one flood VTEP
            hosts->hostIs( makeHost( mac1, vni10, vtepB, 7 ) ), floods->floodEntryDel( VniVtepPair( vni10, vtepA ) );
            break;
          case 'e': hosts->hostDelAll(), floods->floodEntryDelAll(); break;
          case 't':   // a host and a flood entry, each in a VNI of its own, come and go
            hosts->hostIs( makeHost( mac3, vni30, vtepA, 3 ) );
            floods->floodEntryIs( FloodEntry( VniVtepPair( vni31, vtepB ) ) );
            hosts->hostDel( MacVniPair( mac3, vni30 ) ), floods->floodEntryDel( VniVtepPair( vni31, vtepB ) );
            break;
          case 'n': hosts->hostIs( makeHost( mac3, vni40, vtepA, 4 ) ); break;   // a new VNI
          case 'd':   // hosts with the default value: mac1's overwritten, one in a new VNI
            hosts->hostIs( Host( MacVniPair( mac1, vni10 ) ) ), hosts->hostIs( Host( MacVniPair( mac3, vni40 ) ) );
            break;
          case 'c': churn( *hosts, *floods, *stop_ ); break;
          default: _exit( 91 );
         }
         send( toParent_[ 1 ], step );
      }
      _exit( 0 );
   }
   void mountReaders() {
      hosts_ = OrbEvpn::HostTable::HostTableReaderIs( "host", "evpn/host" );
      floods_ = OrbEvpn::FloodTable::FloodTableReaderIs( "flood", "evpn/flood" );
   }
   char step( char c ) {
      send( toChild_[ 1 ], c );
      return receive( toParent_[ 0 ] );
   }
   void stopWriter() {
      send( toChild_[ 1 ], 'q' );
      int status = -1;
      waitpid( pid_, &status, 0 );
      EXPECT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) == 0 ) << status;
   }

   // Dispatches both readers until `done` holds or 5 s pass.
   bool pumpUntil( const std::function< bool() >& done ) {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 5 );
      while ( !done() ) {
         if ( std::chrono::steady_clock::now() > deadline ) return false;
         pumpOnce( 50 );
      }
      return true;
   }
   void pumpOnce( int ms ) {
      pollfd fds[] = { { hosts_->fd(), POLLIN, 0 }, { floods_->fd(), POLLIN, 0 } };
      poll( fds, 2, ms );
      hosts_->dispatch(), floods_->dispatch();
   }

   LumenRoot root_;
   std::atomic< int >* stop_ = nullptr;
   int toChild_[ 2 ], toParent_[ 2 ];
   pid_t pid_ = -1;
   Mox::Ptr< OrbEvpn::HostTable > hosts_;
   Mox::Ptr< OrbEvpn::FloodTable > floods_;
};

// The writer's fill as output: mac1 at vtep/seq, mac2 as written, floodVteps VTEPs (vtepB among them) in VNI 10.
bool filled( const VniStatusDirV2& d, Wire::IpAddr vtep, uint32_t seq, size_t floodVteps ) {
   auto s = d.vniStatusV2( vni10 );
   auto t = d.vniStatusV2( vni20 );
   auto list = s ? s->macVtepFloodListTable( zeroMac ) : nullptr;
   return d.vniStatusV2Size() == 2 && t && list && s->macVtepFloodListTableSize() == 1 &&
          s->macVtepTable( mac1 ) == MacVtepV2( mac1, vtep, Keel::Seqno32( seq ), 16 ) &&
          t->macVtepTable( mac2 ) == MacVtepV2( mac2, vtepB, Keel::Seqno32( 2 ), 16 ) &&
          list->vtepIpFloodListSize() == floodVteps && list->vtepIpFloodList( vtepB );
}

// One machine starts before the writer exists, one on the filled tables; both follow the writer.
TEST_F( RxCrossProcessTest, ImportFollowsAWriterInAnotherProcess ) {
   mountReaders();
   EXPECT_EQ( hosts_->hostControl()->mountStatus(), Lumen::MountStatus::waitingForWriter );
   auto early = VniStatusDirV2::VniStatusDirV2Is( "early" );
   auto earlySm = orbEvpnRxSmFactory( hosts_, floods_, early );
   EXPECT_EQ( early->vniStatusV2Size(), 0u );

   startWriter();
   ASSERT_EQ( step( 'f' ), 'f' );
   ASSERT_TRUE( pumpUntil( [ & ] { return filled( *early, vtepA, 1, 2 ); } ) );
   EXPECT_EQ( hosts_->hostControl()->mountStatus(), Lumen::MountStatus::mounted );
   auto late = VniStatusDirV2::VniStatusDirV2Is( "late" );
   auto lateSm = orbEvpnRxSmFactory( hosts_, floods_, late );
   EXPECT_TRUE( filled( *late, vtepA, 1, 2 ) );

   ASSERT_EQ( step( 'u' ), 'u' );
   EXPECT_TRUE( pumpUntil(
      [ & ] { return filled( *early, vtepB, 7, 1 ) && filled( *late, vtepB, 7, 1 ); } ) );
   ASSERT_EQ( step( 'e' ), 'e' );
   EXPECT_TRUE( pumpUntil(
      [ & ] { return early->vniStatusV2Size() == 0 && late->vniStatusV2Size() == 0; } ) );
   stopWriter();
}

// The output equals the tables' content: every host and flood entry, and nothing else.
::testing::AssertionResult mirrors( const VniStatusDirV2& d, const OrbEvpn::HostTable& hosts,
                                    const OrbEvpn::FloodTable& floods ) {
   std::map< Vxlan::Vni, std::pair< size_t, size_t > > want;   // hosts, flood VTEPs
   for ( auto it = hosts.hostIterConst(); it; ++it ) {
      const Host& h = it.value();
      ++want[ it.key().vni() ].first;
      auto s = d.vniStatusV2( it.key().vni() );
      if ( !s || !( s->macVtepTable( it.key().macAddr() ) ==
                    MacVtepV2( it.key().macAddr(), h.vtepAddr(), h.seqNo(), h.preference() ) ) ) {
         return ::testing::AssertionFailure() << "host not mirrored, VNI " << it.key().vni().value();
      }
   }
   for ( auto it = floods.floodEntryIterConst(); it; ++it ) {
      ++want[ it.key().vni() ].second;
      auto s = d.vniStatusV2( it.key().vni() );
      auto list = s ? s->macVtepFloodListTable( zeroMac ) : nullptr;
      if ( !list || !list->vtepIpFloodList( it.key().vtepAddr() ) ) {
         return ::testing::AssertionFailure() << "flood entry not mirrored, VNI " << it.key().vni().value();
      }
   }
   for ( const auto& [ vni, n ] : want ) {
      auto s = d.vniStatusV2( vni );
      auto list = s->macVtepFloodListTable( zeroMac );
      if ( s->macVtepTableSize() != n.first || ( list ? list->vtepIpFloodListSize() : 0u ) != n.second ) {
         return ::testing::AssertionFailure() << "extra entries in VNI " << vni.value();
      }
   }
   if ( d.vniStatusV2Size() != want.size() ) {
      return ::testing::AssertionFailure() << d.vniStatusV2Size() << " VNIs for " << want.size();
   }
   return ::testing::AssertionSuccess();
}

// Transient entries in VNIs of their own, gone before the next dispatch(): nothing imported, nothing
// aborts. A host not yet dispatched is not part of what cleanup() removes.
TEST_F( RxCrossProcessTest, EntriesThatComeAndGoBetweenDispatchesNeverAbortTheImport ) {
   mountReaders();
   auto out = VniStatusDirV2::VniStatusDirV2Is( "out" );
   auto sm = orbEvpnRxSmFactory( hosts_, floods_, out );
   startWriter();
   ASSERT_EQ( step( 'f' ), 'f' );
   ASSERT_TRUE( pumpUntil( [ & ] { return filled( *out, vtepA, 1, 2 ); } ) );

   ASSERT_EQ( step( 't' ), 't' );
   ASSERT_EQ( step( 'u' ), 'u' );   // delivered after the transient entries
   ASSERT_TRUE( pumpUntil( [ & ] { return filled( *out, vtepB, 7, 1 ); } ) );
   EXPECT_TRUE( !out->vniStatusV2( vni30 ) && !out->vniStatusV2( vni31 ) );

   ASSERT_EQ( step( 'n' ), 'n' );
   sm->cleanup();
   EXPECT_EQ( out->vniStatusV2Size(), 0u );
   sm->initSm();
   EXPECT_TRUE( filled( *out, vtepB, 7, 1 ) );
   EXPECT_TRUE( pumpUntil( [ & ] { return out->vniStatusV2( vni40 ) != nullptr; } ) );
   EXPECT_TRUE( mirrors( *out, *hosts_, *floods_ ) );
   stopWriter();
}

// A default-value host ("no host") withdraws a host the import had and, in a new VNI, imports nothing:
// never a key present and absent at once, so no delete reaches a VNI the import never saw.
TEST_F( RxCrossProcessTest, AHostWithTheDefaultValueIsNoHost ) {
   mountReaders();
   auto out = VniStatusDirV2::VniStatusDirV2Is( "out" );
   auto sm = orbEvpnRxSmFactory( hosts_, floods_, out );
   startWriter();
   ASSERT_EQ( step( 'f' ), 'f' );
   ASSERT_TRUE( pumpUntil( [ & ] { return filled( *out, vtepA, 1, 2 ); } ) );
   ASSERT_EQ( step( 'd' ), 'd' );
   ASSERT_TRUE( pumpUntil( [ & ] { return out->vniStatusV2( vni10 )->macVtepTableSize() == 0; } ) );
   EXPECT_TRUE( !out->vniStatusV2( vni40 ) && !hosts_->hostExists( MacVniPair( mac3, vni40 ) ) );
   EXPECT_EQ( hosts_->hosts(), 1u );
   // Mounted afterwards, on the same shared memory: the same view.
   auto late = VniStatusDirV2::VniStatusDirV2Is( "late" );
   auto lateHosts = OrbEvpn::HostTable::HostTableReaderIs( "late", "evpn/host" );
   auto lateSm = orbEvpnRxSmFactory( lateHosts, floods_, late );
   EXPECT_TRUE( lateHosts->hosts() == 1u && !late->vniStatusV2( vni40 ) );
   EXPECT_TRUE( mirrors( *late, *lateHosts, *floods_ ) );
   stopWriter();
}

// Under churn from another process machines are made, cleaned up and kept following; none aborts, and
// once the writer is quiet the follower's output equals the tables, which equal shared memory.
TEST_F( RxCrossProcessTest, ImportUnderChurnFromAnotherProcessNeverAborts ) {
   mountReaders();
   auto follower = VniStatusDirV2::VniStatusDirV2Is( "follower" );
   auto sm = orbEvpnRxSmFactory( hosts_, floods_, follower );
   startWriter();
   ASSERT_EQ( step( 'f' ), 'f' );
   send( toChild_[ 1 ], 'c' );
   for ( int round = 0; round < 300; ++round ) {
      pumpOnce( 1 );
      auto dir = VniStatusDirV2::VniStatusDirV2Is( "passing" );
      auto passing = orbEvpnRxSmFactory( hosts_, floods_, dir );
      ASSERT_TRUE( mirrors( *dir, *hosts_, *floods_ ) ) << "round " << round;
      passing->cleanup();
      ASSERT_EQ( dir->vniStatusV2Size(), 0u ) << "round " << round;
      if ( round % 50 == 0 ) {
         sm->cleanup();
         sm->initSm();
      }
   }
   stop_->store( 1 );
   ASSERT_EQ( receive( toParent_[ 0 ] ), 'c' );
   ASSERT_TRUE( pumpUntil( [ & ] { return follower->vniStatusV2( quietVni ) != nullptr; } ) );
   EXPECT_TRUE( mirrors( *follower, *hosts_, *floods_ ) );
   // What the tables told is what shared memory holds.
   auto freshHosts = OrbEvpn::HostTable::HostTableReaderIs( "fresh", "evpn/host" );
   auto freshFloods = OrbEvpn::FloodTable::FloodTableReaderIs( "freshFlood", "evpn/flood" );
   EXPECT_TRUE( mirrors( *follower, *freshHosts, *freshFloods ) );
   EXPECT_TRUE( freshHosts->hosts() == hosts_->hosts() && freshFloods->floodEntries() == floods_->floodEntries() );
   stopWriter();
}

}  // namespace
