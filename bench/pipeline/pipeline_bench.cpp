// pipeline_bench: what the whole pipeline costs, from the controller's model
// to the shared tables and back, and the agent's start-up over the tables an
// earlier run left behind.
//
//   export   controller MAC changes through the per-VNI export machines into
//            the shared host table, unpaced (throughput, and the latency of
//            every change a reader in another process is told about,
//            resyncs included) and paced (the notification latency), next
//            to the raw Lumen insert rate of the same records
//   import   a peer process writes hosts into the EVPN side's host table;
//            time until the import's mirror in VniStatusDirV2 equals it
//   burst    V EVPN-side statuses appearing at once (each re-runs its VNI's
//            export pass)
//   ingest   JSON event lines parsed and applied to the controller model
//   startup  orbevpn-agent --until-steady, from exec to exit, over the
//            tables of a larger earlier run (every 16th VNI gone)
//
// Every figure is printed as a `pipeline <what> key=value ...` line, after
// the table it belongs to. See bench/README.md.
#include "bench/pipeline/Support.h"
#include "orbevpn/exchange/FloodTable.h"
#include "orbevpn/exchange/HostTable.h"
#include "orbevpn/rx/OrbEvpnRxSm.h"
#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/SweepMode.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/Table.h"
#include "platform/model/OrbBrIdList.h"
#include "platform/model/VniFdbStatusV2.h"
#include "platform/model/VniStatusDirV2.h"
#include "platform/mox/Dir.h"
#include "tools/agent/Demo.h"
#include "tools/agent/Event.h"
#include "tools/agent/Model.h"
#include "tools/common/BoundaryRecords.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace {

using namespace OrbEvpn;
using namespace VxlanController;
using Vxlan::Vni;
using Wire::EthAddr;
using Wire::IpAddr;
using namespace PipelineBench;

// ---- the export side as a hosting agent sets it up, in this process

struct ExportRig {
   ExportRig( uint32_t vnis, uint64_t preload ) {
      top->entityPtrIs( dir );
      dir->entityPtrIs( hosts ), dir->entityPtrIs( floods ), dir->entityPtrIs( brIds );
      for ( uint32_t v = 1; v <= vnis; ++v ) {
         auto s = VniFdbStatusV2::VniFdbStatusV2Is( Vni( v ) );
         vniDir->entityPtrIs( s->name(), s );
         statuses.push_back( s );
      }
      for ( uint64_t i = 0; i < preload; ++i ) change( i, 1 );
      tx = orbEvpnTxSmFactory( vniDir, evpnDir, brIds, hosts, floods );
   }
   ~ExportRig() {
      tx = nullptr;
      dir->entityPtrDelAll();
   }
   // The controller learns (or moves) host i.
   void change( uint64_t i, uint32_t seq ) {
      statuses[ i % statuses.size() ]->macVtepTableIs(
         MacVtepV2( macOf( i ), vtepOf( seq ), Keel::Seqno32( seq ), 16 ) );
   }

   Mox::Ptr< Mox::Dir > top = Mox::Dir::DirIs( "orbevpn" ), dir = Mox::Dir::DirIs( "export" );
   Mox::Ptr< Mox::Dir > vniDir = Mox::Dir::DirIs( "vniDir" );
   Mox::Ptr< VniStatusDirV2 > evpnDir = VniStatusDirV2::VniStatusDirV2Is( "vniStatusFromEvpn" );
   Mox::Ptr< OrbBrIdList > brIds = OrbBrIdList::OrbBrIdListIs( "brIdList" );
   Mox::Ptr< HostTable > hosts = hostTableFactory( "host" );
   Mox::Ptr< FloodTable > floods = floodTableFactory( "flood" );
   std::vector< Mox::Ptr< VniFdbStatusV2 > > statuses;
   Mox::Ptr< OrbEvpnTxSm > tx;
};

constexpr const char* exportHostPath = "/orbevpn/export/host";

// What the reader process reports.
struct NotifyFigures {
   double p50 = -1, p99 = -1, max = -1;
   uint64_t samples = 0, resyncs = 0, resyncedKeys = 0;
};
struct NotifyShared {
   std::atomic< int > ready{ 0 }, stop{ 0 }, done{ 0 };
   std::atomic< uint64_t > expected{ 0 };   // the newest sequence number written: the run ends with it
   NotifyFigures f;
};

// A reader in another process: polls the table's fd, dispatches, and for
// every key delivered takes now minus the time the writer stamped for the
// record's sequence number. Keys delivered by a resync count too.
pid_t startNotifyReader( NotifyShared* sh, std::atomic< uint64_t >* stamps, uint64_t nStamps ) {
   const pid_t pid = ::fork();
   if ( pid != 0 ) return pid;
   int rc = 0;
   try {
      Lumen::Reader< Host > r( exportHostPath, Host(), &HostTableTraits::vacant );
      std::vector< uint64_t > lat;
      lat.reserve( 1 << 22 );
      bool inResync = false;
      uint64_t resyncs = 0, resyncedKeys = 0, newest = 0;
      r.onQuiescedIs( [ & ]( bool q ) {
         inResync = q;
         if ( q ) ++resyncs;
      } );
      r.onKeyIs( [ & ]( const MacVniPair& k ) {
         const uint64_t t = nowNs();
         const uint64_t seq = r.lookup( k ).seqNo().value();
         if ( seq == 0 || seq >= nStamps ) return;
         const uint64_t s = stamps[ seq ].load( std::memory_order_acquire );
         if ( s == 0 ) return;
         lat.push_back( t > s ? t - s : 0 );
         newest = std::max( newest, seq );
         if ( inResync ) ++resyncedKeys;
      } );
      r.dispatch();   // the mount, before the clock starts
      lat.clear();
      resyncs = resyncedKeys = 0;
      sh->ready = 1;
      for ( ;; ) {
         pollfd p{ r.fd(), POLLIN, 0 };
         ::poll( &p, 1, 2 );
         r.dispatch();
         const uint64_t want = sh->expected.load();
         if ( sh->stop.load() && ( want == 0 || newest >= want || !r.dispatchPending() ) ) {
            r.dispatch();
            break;
         }
      }
      sh->f.samples = lat.size();
      sh->f.resyncs = resyncs;
      sh->f.resyncedKeys = resyncedKeys;
      if ( !lat.empty() ) {
         sh->f.p50 = percentile( lat, 0.50 );
         sh->f.p99 = percentile( lat, 0.99 );
         sh->f.max = double( *std::max_element( lat.begin(), lat.end() ) ) / 1000.0;
      }
   } catch ( const std::exception& e ) {
      std::fprintf( stderr, "pipeline_bench: reader: %s\n", e.what() );
      rc = 1;
   }
   sh->done = 1;
   ::_exit( rc );
}

struct ExportResult {
   double rawInsert = 0, insertRate = 0, updateRate = 0, changes = 0;
   NotifyFigures full, paced;
   double pacedRate = 0;
   bool ok = true;
};

ExportResult runExport( uint64_t hostsN, uint32_t vnis, double pace, double pacedSeconds ) {
   ExportResult res;
   TempRoot root( "export" );

   {   // The ceiling: the same records straight into a Lumen table, grown from the default capacity.
      Lumen::Writer< Host > raw;
      raw.attach( "/raw/host" );
      std::vector< Host > recs;
      recs.reserve( hostsN );
      for ( uint64_t i = 0; i < hostsN; ++i ) recs.push_back( hostOf( i, vnis, uint32_t( i + 1 ) ) );
      const uint64_t t0 = nowNs();
      for ( const Host& h : recs ) raw.write( h );
      res.rawInsert = double( hostsN ) / secondsSince( t0 );
   }

   const uint64_t pacedN = uint64_t( pace * pacedSeconds );
   const uint64_t nStamps = 2 * hostsN + pacedN + 2;
   auto* stamps = sharedNew< std::atomic< uint64_t > >( nStamps );
   auto* sh = sharedNew< NotifyShared >( 2 );
   {
      ExportRig rig( vnis, 0 );
      // Unpaced: every host learnt, then every host moved (a higher
      // sequence number, another VTEP), as fast as this process can.
      pid_t reader = startNotifyReader( &sh[ 0 ], stamps, nStamps );
      while ( !sh[ 0 ].ready.load() ) std::this_thread::sleep_for( std::chrono::microseconds( 200 ) );
      uint32_t seq = 0;
      uint64_t t0 = nowNs();
      for ( uint64_t i = 0; i < hostsN; ++i ) {
         stamps[ ++seq ].store( nowNs(), std::memory_order_release );
         rig.change( i, seq );
      }
      const double tInsert = secondsSince( t0 );
      const uint64_t t1 = nowNs();
      for ( uint64_t i = 0; i < hostsN; ++i ) {
         stamps[ ++seq ].store( nowNs(), std::memory_order_release );
         rig.change( i, seq );
      }
      const double tUpdate = secondsSince( t1 );
      res.insertRate = double( hostsN ) / tInsert;
      res.updateRate = double( hostsN ) / tUpdate;
      res.changes = double( 2 * hostsN ) / ( tInsert + tUpdate );
      if ( rig.hosts->hosts() != hostsN ) {
         std::fprintf( stderr, "! export: host table holds %u, expected %llu\n", rig.hosts->hosts(),
                       (unsigned long long)hostsN );
         res.ok = false;
      }
      sh[ 0 ].expected = seq;
      sh[ 0 ].stop = 1;
      res.ok &= waitChild( reader );

      // Paced: moves at `pace` changes/s; the writer sleeps between its ticks.
      ::prctl( PR_SET_TIMERSLACK, 1UL );
      reader = startNotifyReader( &sh[ 1 ], stamps, nStamps );
      while ( !sh[ 1 ].ready.load() ) std::this_thread::sleep_for( std::chrono::microseconds( 200 ) );
      t0 = nowNs();
      const uint64_t periodNs = uint64_t( 1e9 / pace );
      uint64_t k = 0, cursor = 0x9e3779b9u;
      while ( k < pacedN ) {
         const uint64_t due = std::min( pacedN, ( nowNs() - t0 ) / periodNs + 1 );
         for ( ; k < due; ++k ) {
            cursor = ( cursor + 0x9e3779b97f4a7c15ull ) % hostsN;
            stamps[ ++seq ].store( nowNs(), std::memory_order_release );
            rig.change( cursor, seq );
         }
         const uint64_t next = t0 + k * periodNs;
         const uint64_t now = nowNs();
         if ( next > now ) {
            timespec ts{ time_t( ( next - now ) / 1000000000u ), long( ( next - now ) % 1000000000u ) };
            ::nanosleep( &ts, nullptr );
         }
      }
      res.pacedRate = double( pacedN ) / secondsSince( t0 );
      sh[ 1 ].expected = seq;
      sh[ 1 ].stop = 1;
      res.ok &= waitChild( reader );
   }
   res.full = sh[ 0 ].f;
   res.paced = sh[ 1 ].f;
   sharedDelete( sh, 2 );
   sharedDelete( stamps, nStamps );
   return res;
}

// ---- import

struct ImportShared {
   std::atomic< int > ready{ 0 }, go{ 0 }, stop{ 0 };
   std::atomic< uint64_t > t0{ 0 }, tWritten{ 0 };
};

struct ImportResult {
   double changes = 0, peerWrites = 0;
   bool ok = true;
};

ImportResult runImport( uint64_t hostsN, uint32_t vnis ) {
   ImportResult res;
   TempRoot root( "import" );
   auto* sh = sharedNew< ImportShared >();
   const pid_t peer = ::fork();
   if ( peer == 0 ) {   // the EVPN agent: writes what it learnt into its host table
      int rc = 0;
      try {
         Lumen::Writer< Host > w;
         w.attach( "/orbevpn/evpn/host" );
         std::vector< Host > recs;
         recs.reserve( hostsN );
         for ( uint64_t i = 0; i < hostsN; ++i ) recs.push_back( hostOf( i, vnis, 7 ) );
         sh->ready = 1;
         while ( !sh->go.load() ) std::this_thread::sleep_for( std::chrono::microseconds( 100 ) );
         sh->t0 = nowNs();
         for ( const Host& h : recs ) w.write( h );
         sh->tWritten = nowNs();
         while ( !sh->stop.load() ) std::this_thread::sleep_for( std::chrono::milliseconds( 1 ) );
      } catch ( const std::exception& e ) {
         std::fprintf( stderr, "pipeline_bench: peer: %s\n", e.what() );
         rc = 1;
      }
      ::_exit( rc );
   }
   while ( !sh->ready.load() ) std::this_thread::sleep_for( std::chrono::microseconds( 200 ) );
   {
      auto hostsIn = HostTable::HostTableReaderIs( "evpnHost", "/orbevpn/evpn/host" );
      auto floodsIn = FloodTable::FloodTableReaderIs( "evpnFlood", "/orbevpn/evpn/flood" );
      auto evpnDir = VniStatusDirV2::VniStatusDirV2Is( "vniStatusFromEvpn" );
      hostsIn->dispatch(), floodsIn->dispatch();
      auto rx = VxlanController::orbEvpnRxSmFactory( hostsIn, floodsIn, evpnDir );
      auto mirrored = [ & ] {
         size_t n = 0;
         for ( const auto& [ vni, s ] : evpnDir->vniStatusV2Coll().map() ) n += s->macVtepTableSize();
         return n;
      };
      sh->go = 1;
      const uint64_t deadline = nowNs() + 120ull * 1000000000u;
      uint64_t t1 = 0;
      for ( ;; ) {
         pollfd p{ hostsIn->fd(), POLLIN, 0 };
         ::poll( &p, 1, 1 );
         hostsIn->dispatch();
         if ( mirrored() == hostsN ) {
            t1 = nowNs();
            break;
         }
         if ( nowNs() > deadline ) {
            std::fprintf( stderr, "! import: mirror holds %zu of %llu after 120 s\n", mirrored(),
                          (unsigned long long)hostsN );
            res.ok = false;
            break;
         }
      }
      if ( t1 ) {
         res.changes = double( hostsN ) / ( double( t1 - sh->t0.load() ) / 1e9 );
         res.peerWrites = double( hostsN ) / ( double( sh->tWritten.load() - sh->t0.load() ) / 1e9 );
         // Untimed: the mirror equals the table, record for record.
         for ( uint64_t i = 0; i < hostsN; ++i ) {
            const Host h = hostOf( i, vnis, 7 );
            auto s = evpnDir->vniStatusV2( h.key().vni() );
            if ( !s || s->macVtepTable( h.key().macAddr() ) !=
                          MacVtepV2( h.key().macAddr(), h.vtepAddr(), h.seqNo(), h.preference() ) ) {
               std::fprintf( stderr, "! import: host %llu not mirrored\n", (unsigned long long)i );
               res.ok = false;
               break;
            }
         }
      }
      rx = nullptr;
   }
   sh->stop = 1;
   res.ok &= waitChild( peer );
   sharedDelete( sh );
   return res;
}

// ---- burst

struct BurstResult {
   uint32_t vnis = 0;
   uint64_t hosts = 0;
   bool walk = false;
   double seconds = 0;
   bool ok = true;
};

BurstResult runBurst( uint32_t vnis, uint64_t hostsN, bool walk ) {
   BurstResult res{ vnis, hostsN, walk, 0, true };
   sweepModeIs( walk ? SweepMode::walk : SweepMode::index );
   struct Restore {
      ~Restore() { sweepModeIs( SweepMode::index ); }
   } restore;
   TempRoot root( "burst" );
   ExportRig rig( vnis, hostsN );   // every host exported before the clock starts
   const uint64_t t0 = nowNs();
   for ( uint32_t v = 1; v <= vnis; ++v ) rig.evpnDir->vniStatusV2Is( Vni( v ) );
   res.seconds = secondsSince( t0 );
   if ( rig.hosts->hosts() != hostsN ) {
      std::fprintf( stderr, "! burst: host table holds %u, expected %llu\n", rig.hosts->hosts(),
                    (unsigned long long)hostsN );
      res.ok = false;
   }
   return res;
}

// ---- ingest

struct IngestResult {
   uint64_t lines = 0;
   double perSecond = 0;
   bool ok = true;
};

IngestResult runIngest( uint32_t vnis, uint32_t macs ) {
   IngestResult res;
   Agent::DemoOptions o;
   o.vnis = vnis, o.macs = macs;
   Agent::Demo demo( o );
   std::vector< Agent::Event > events;
   while ( demo.snapshot( events, 1 << 16 ) ) {
   }
   demo.churn( events, events.size() );
   std::vector< std::string > lines;
   lines.reserve( events.size() );
   for ( const auto& e : events ) lines.push_back( Agent::eventJson( e ) );
   events.clear();
   Agent::Model model;
   const uint64_t t0 = nowNs();
   for ( const std::string& l : lines ) {
      Agent::Parsed p = Agent::parseEvent( l );
      if ( auto* e = std::get_if< Agent::Event >( &p ) ) {
         model.apply( *e );
      } else {
         res.ok = false;
      }
   }
   res.perSecond = double( lines.size() ) / secondsSince( t0 );
   res.lines = lines.size();
   return res;
}

// ---- start-up

std::string agentBin = ORBEVPN_AGENT_BIN;

bool agentHasSweepOption() {
   const std::string cmd = agentBin + " --help 2>&1";
   FILE* f = ::popen( cmd.c_str(), "r" );
   if ( !f ) return false;
   std::string out;
   char buf[ 4096 ];
   size_t n;
   while ( ( n = std::fread( buf, 1, sizeof buf, f ) ) > 0 ) out.append( buf, n );
   ::pclose( f );
   return out.find( "--sweep" ) != std::string::npos;
}

struct RunResult {
   double seconds = 0;
   uint64_t peakRss = 0;
   int status = -1;
   std::string lastLine;
};

RunResult runAgent( const std::vector< std::string >& args ) {
   RunResult r;
   int out[ 2 ];
   if ( ::pipe( out ) != 0 ) throw std::runtime_error( "pipe" );
   std::vector< char* > argv;
   argv.push_back( agentBin.data() );
   for ( const auto& a : args ) argv.push_back( const_cast< char* >( a.c_str() ) );
   argv.push_back( nullptr );
   const uint64_t t0 = nowNs();
   const pid_t pid = ::fork();
   if ( pid == 0 ) {
      ::dup2( out[ 1 ], 1 );
      ::close( out[ 0 ] ), ::close( out[ 1 ] );
      const int devnull = ::open( "/dev/null", O_RDONLY );
      ::dup2( devnull, 0 );
      ::execv( agentBin.c_str(), argv.data() );
      ::_exit( 127 );
   }
   ::close( out[ 1 ] );
   std::string text;
   char buf[ 65536 ];
   ssize_t n;
   while ( ( n = ::read( out[ 0 ], buf, sizeof buf ) ) > 0 || ( n < 0 && errno == EINTR ) ) {
      if ( n > 0 ) text.append( buf, size_t( n ) );
   }
   ::close( out[ 0 ] );
   int status = 0;
   rusage ru{};
   while ( ::wait4( pid, &status, 0, &ru ) < 0 && errno == EINTR ) {
   }
   r.seconds = secondsSince( t0 );
   r.peakRss = uint64_t( ru.ru_maxrss ) * 1024;
   r.status = WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
   while ( !text.empty() && text.back() == '\n' ) text.pop_back();
   const size_t nl = text.rfind( '\n' );
   r.lastLine = nl == std::string::npos ? text : text.substr( nl + 1 );
   return r;
}

struct StartupResult {
   uint32_t vnis = 0, macs = 0;
   uint64_t hosts = 0;
   bool walk = false;
   double seconds = 0, steadyMs = 0, takeover = 0, mount = 0, model = 0, sweeps = 0, exportMs = 0;
   double prepareSeconds = 0;
   uint64_t peakRss = 0, shm = 0;
   bool ok = true;
};

StartupResult runStartup( uint32_t vnis, uint64_t hostsN, bool walk, bool sweepOption ) {
   StartupResult res;
   res.vnis = vnis, res.walk = walk;
   res.macs = uint32_t( std::max< uint64_t >( 1, hostsN / vnis ) );
   res.hosts = uint64_t( res.macs ) * vnis;
   TempRoot root( "startup" );
   // The EVPN side is up and enabled, so that the agent exports.
   Lumen::Writer< EvpnCapabilityRecord > capability;
   capability.attach( "/orbevpn/evpn/capability" );
   EvpnCapabilityRecord on;
   on.evpnEnabled = 1;
   capability.write( on );
   const std::string demo = fmt::format( "{}:{}", vnis, res.macs );
   std::vector< std::string > common{ "--root", root.dir(), "--demo", demo, "--until-steady",
                                      "--status-period", "10", "--steady-timeout", "7200",
                                      "--control", root.dir() + "/agent.ctl" };
   // The earlier run: every VNI. Its tables stay when it exits.
   std::vector< std::string > prepare = common;
   if ( sweepOption ) prepare.insert( prepare.end(), { "--sweep", "index" } );
   const RunResult first = runAgent( prepare );
   res.prepareSeconds = first.seconds;
   if ( first.status != 0 ) {
      std::fprintf( stderr, "! startup %s: the preparing run exited %d\n", demo.c_str(), first.status );
      res.ok = false;
      return res;
   }
   // The timed run: every 16th VNI vanished while the agent was down.
   std::vector< std::string > timed = common;
   timed.insert( timed.end(), { "--demo-vanish-every", "16", "--stats-json" } );
   if ( sweepOption ) timed.insert( timed.end(), { "--sweep", walk ? "walk" : "index" } );
   const RunResult run = runAgent( timed );
   res.seconds = run.seconds;
   res.peakRss = run.peakRss;
   res.shm = root.bytes();
   if ( run.status != 0 ) {
      std::fprintf( stderr, "! startup %s: the timed run exited %d\n", demo.c_str(), run.status );
      res.ok = false;
      return res;
   }
   try {
      const auto j = nlohmann::json::parse( run.lastLine );
      const auto& t = j.at( "timeToSteadyMs" );
      res.steadyMs = t.at( "total" ).get< double >();
      res.takeover = t.at( "takeover" ).get< double >();
      res.mount = t.at( "mount" ).get< double >();
      res.model = t.at( "model" ).get< double >();
      res.sweeps = t.at( "sweeps" ).get< double >();
      res.exportMs = t.at( "export" ).get< double >();
   } catch ( const std::exception& e ) {
      std::fprintf( stderr, "! startup %s: stats: %s\n", demo.c_str(), e.what() );
      res.ok = false;
   }
   return res;
}

struct Config {
   std::vector< std::string > only{ "export", "import", "burst", "ingest", "startup" };
   uint64_t hosts = 1ull << 20;
   uint32_t vnis = 64;
   double pace = 100000, pacedSeconds = 2;
   std::vector< std::pair< uint32_t, uint64_t > > bursts{ { 1024, 1ull << 20 }, { 4096, 1ull << 20 } };
   std::vector< std::pair< uint32_t, uint64_t > > burstWalks{ { 1024, 100000 } };
   uint32_t ingestVnis = 64, ingestMacs = 4096;
   std::vector< std::pair< uint32_t, uint64_t > > startups{
      { 1024, 1ull << 20 }, { 4096, 1ull << 20 }, { 16384, 1ull << 20 }, { 1024, 1ull << 18 }, { 1024, 1ull << 22 } };
   std::vector< std::pair< uint32_t, uint64_t > > walks{ { 1024, 100000 }, { 4096, 1ull << 20 } };
   std::string plotData;
   bool has( const char* what ) const { return std::find( only.begin(), only.end(), what ) != only.end(); }
};

std::vector< std::pair< uint32_t, uint64_t > > parseGrid( const std::string& s ) {
   std::vector< std::pair< uint32_t, uint64_t > > out;
   if ( s == "none" ) return out;
   for ( const auto& item : split( s, ',' ) ) {
      const auto p = split( item, 'x' );
      if ( p.size() != 2 ) throw std::invalid_argument( "expected VxH, e.g. 4Kx1M: " + item );
      out.emplace_back( uint32_t( parseCount( p[ 0 ] ) ), parseCount( p[ 1 ] ) );
   }
   return out;
}

void usage() {
   std::puts(
      "pipeline_bench [options]\n"
      "  --only LIST          export,import,burst,ingest,startup (default: all)\n"
      "  --hosts N            hosts of the export and import runs (default 1M = 2^20)\n"
      "  --vnis N             VNIs they spread over (default 64)\n"
      "  --pace N             changes/s of the paced export run (default 100000)\n"
      "  --paced-seconds S    its length (default 2)\n"
      "  --burst LIST         VxH of the EVPN-status bursts (default 1Kx1M,4Kx1M)\n"
      "  --burst-walk LIST    the same with the plain walk (default 1Kx100000; none)\n"
      "  --ingest VxM         the demo snapshot (and as much churn) as JSON lines (default 64x4096)\n"
      "  --startup LIST       VxH of the start-up runs (default 1Kx1M,4Kx1M,16Kx1M,1Kx256K,1Kx4M)\n"
      "  --walk LIST          VxH of start-up runs with --sweep walk (default 1Kx100000,4Kx1M; none)\n"
      "  --shm-dir DIR        tmpfs folder for the tables (default /dev/shm)\n"
      "  --plot-data FILE     write the start-up rows for the plot\n"
      "  --agent PATH         the orbevpn-agent to start\n"
      "K = 1024, M = 2^20." );
}

}  // namespace

int main( int argc, char** argv ) {
   Config c;
   try {
      for ( int i = 1; i < argc; ++i ) {
         const std::string a = argv[ i ];
         auto val = [ & ]() -> std::string {
            if ( i + 1 >= argc ) throw std::invalid_argument( a + " needs a value" );
            return argv[ ++i ];
         };
         if ( a == "--only" ) c.only = split( val(), ',' );
         else if ( a == "--hosts" ) c.hosts = parseCount( val() );
         else if ( a == "--vnis" ) c.vnis = uint32_t( parseCount( val() ) );
         else if ( a == "--pace" ) c.pace = std::stod( val() );
         else if ( a == "--paced-seconds" ) c.pacedSeconds = std::stod( val() );
         else if ( a == "--burst" ) c.bursts = parseGrid( val() );
         else if ( a == "--burst-walk" ) c.burstWalks = parseGrid( val() );
         else if ( a == "--ingest" ) {
            const auto g = parseGrid( val() );
            if ( g.size() != 1 ) throw std::invalid_argument( "--ingest takes one VxM" );
            c.ingestVnis = g[ 0 ].first, c.ingestMacs = uint32_t( g[ 0 ].second );
         } else if ( a == "--startup" ) c.startups = parseGrid( val() );
         else if ( a == "--walk" ) c.walks = parseGrid( val() );
         else if ( a == "--shm-dir" ) shmDir = val();
         else if ( a == "--plot-data" ) c.plotData = val();
         else if ( a == "--agent" ) agentBin = val();
         else if ( a == "--help" || a == "-h" ) {
            usage();
            return 0;
         } else throw std::invalid_argument( "unknown option " + a );
      }
   } catch ( const std::exception& e ) {
      std::fprintf( stderr, "pipeline_bench: %s\n", e.what() );
      usage();
      return 2;
   }
   bool ok = true;
   double load[ 3 ] = {};
   ::getloadavg( load, 3 );
   std::printf( "pipeline_bench: %u processors, load average %.2f %.2f %.2f\n\n",
                std::thread::hardware_concurrency(), load[ 0 ], load[ 1 ], load[ 2 ] );
   std::fflush( stdout );

   if ( c.has( "export" ) ) {
      const ExportResult r = runExport( c.hosts, c.vnis, c.pace, c.pacedSeconds );
      ok &= r.ok;
      std::printf( "Export: %llu hosts over %u VNIs, controller model -> VniFdbStatusSm -> shared host table\n\n",
                   (unsigned long long)c.hosts, c.vnis );
      std::printf( "| figure | value |\n|---|---:|\n" );
      std::printf( "| raw Lumen inserts/s (same records, Lumen::Writer) | %s |\n", rate( r.rawInsert ).c_str() );
      std::printf( "| export changes/s, learn pass (inserts) | %s |\n", rate( r.insertRate ).c_str() );
      std::printf( "| export changes/s, move pass (replaces) | %s |\n", rate( r.updateRate ).c_str() );
      std::printf( "| export changes/s, both passes | %s |\n", rate( r.changes ).c_str() );
      std::printf( "| export / raw insert | %.2f |\n", r.changes / r.rawInsert );
      std::printf( "| unpaced: notify p50 / p99 / max (us) | %.1f / %.1f / %.1f |\n", r.full.p50, r.full.p99,
                   r.full.max );
      std::printf( "| unpaced: samples, resyncs, keys delivered by resyncs | %llu, %llu, %llu |\n",
                   (unsigned long long)r.full.samples, (unsigned long long)r.full.resyncs,
                   (unsigned long long)r.full.resyncedKeys );
      std::printf( "| paced at %s/s (kept %s/s): notify p50 / p99 / max (us) | %.1f / %.1f / %.1f |\n",
                   rate( c.pace ).c_str(), rate( r.pacedRate ).c_str(), r.paced.p50, r.paced.p99, r.paced.max );
      std::printf( "| paced: samples, resyncs | %llu, %llu |\n\n", (unsigned long long)r.paced.samples,
                   (unsigned long long)r.paced.resyncs );
      std::printf( "pipeline export changes_per_s=%.0f raw_insert_per_s=%.0f notify_p50_us=%.1f notify_p99_us=%.1f\n",
                   r.changes, r.rawInsert, r.paced.p50, r.paced.p99 );
      std::printf(
         "pipeline export changes_per_s=%.0f raw_insert_per_s=%.0f notify_p50_us=%.1f notify_p99_us=%.1f resyncs=%llu\n\n",
         r.changes, r.rawInsert, r.full.p50, r.full.p99, (unsigned long long)r.full.resyncs );
      std::fflush( stdout );
   }
   if ( c.has( "import" ) ) {
      const ImportResult r = runImport( c.hosts, c.vnis );
      ok &= r.ok;
      std::printf( "Import: a peer process writes %llu hosts over %u VNIs; OrbEvpnRxSm mirrors them into "
                   "VniStatusDirV2\n\n",
                   (unsigned long long)c.hosts, c.vnis );
      std::printf( "| figure | value |\n|---|---:|\n" );
      std::printf( "| peer's own writes/s | %s |\n", rate( r.peerWrites ).c_str() );
      std::printf( "| mirrored changes/s (first write to mirror complete) | %s |\n\n", rate( r.changes ).c_str() );
      std::printf( "pipeline import changes_per_s=%.0f\n\n", r.changes );
      std::fflush( stdout );
   }
   if ( c.has( "ingest" ) ) {
      const IngestResult r = runIngest( c.ingestVnis, c.ingestMacs );
      ok &= r.ok;
      std::printf( "Ingest: %llu JSON event lines (demo %ux%u snapshot and as much churn), parsed and applied to the "
                   "controller model\n\n",
                   (unsigned long long)r.lines, c.ingestVnis, c.ingestMacs );
      std::printf( "pipeline ingest lines_per_s=%.0f\n\n", r.perSecond );
      std::fflush( stdout );
   }
   if ( c.has( "burst" ) ) {
      std::printf( "Burst: V EVPN-side statuses appear at once over H exported hosts\n\n" );
      std::vector< BurstResult > rows;
      for ( auto [ v, h ] : c.bursts ) {
         rows.push_back( runBurst( v, h, false ) );
         ok &= rows.back().ok;
      }
      for ( auto [ v, h ] : c.burstWalks ) {
         rows.push_back( runBurst( v, h, true ) );
         ok &= rows.back().ok;
      }
      std::printf( "| VNIs | hosts | sweep | seconds |\n|---:|---:|---|---:|\n" );
      for ( const auto& r : rows )
         std::printf( "| %u | %llu | %s | %.3f |\n", r.vnis, (unsigned long long)r.hosts, r.walk ? "walk" : "index",
                      r.seconds );
      std::printf( "\n" );
      for ( const auto& r : rows )
         std::printf( "pipeline burst vnis=%u seconds=%.3f%s\n", r.vnis, r.seconds, r.walk ? " sweep=walk" : "" );
      std::printf( "\n" );
      std::fflush( stdout );
   }
   if ( c.has( "startup" ) ) {
      const bool sweepOption = agentHasSweepOption();
      std::vector< StartupResult > rows;
      auto one = [ & ]( uint32_t v, uint64_t h, bool walk ) {
         // An agent without the knob has only the plain walk: every row is a walk row.
         rows.push_back( runStartup( v, h, walk || !sweepOption, sweepOption ) );
         ok &= rows.back().ok;
         const auto& r = rows.back();
         std::fprintf( stderr, "pipeline_bench: startup %ux%llu%s: %.2f s\n", r.vnis, (unsigned long long)r.hosts,
                       r.walk ? " (walk)" : "", r.seconds );
      };
      for ( auto [ v, h ] : c.startups ) one( v, h, false );
      if ( sweepOption ) {
         for ( auto [ v, h ] : c.walks ) one( v, h, true );
      }
      std::printf( "Start-up: orbevpn-agent --until-steady from exec to exit, over the tables of a run with every "
                   "VNI; every 16th VNI is gone%s\n\n",
                   sweepOption ? "" : " (this agent has no --sweep option: its sweeps are the plain walk)" );
      std::printf( "| VNIs | hosts | sweep | seconds | steady (ms) | takeover | mount | model | sweeps | export | peak "
                   "RSS MB | shm MB | bytes/host |\n|---:|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n" );
      for ( const auto& r : rows ) {
         std::printf( "| %u | %llu | %s | %.3f | %.0f | %.0f | %.0f | %.0f | %.0f | %.0f | %.0f | %.0f | %.0f |\n", r.vnis,
                      (unsigned long long)r.hosts, r.walk ? "walk" : "index", r.seconds, r.steadyMs, r.takeover,
                      r.mount, r.model, r.sweeps, r.exportMs, double( r.peakRss ) / 1048576.0,
                      double( r.shm ) / 1048576.0, double( r.peakRss + r.shm ) / double( r.hosts ) );
      }
      std::printf( "\n" );
      for ( const auto& r : rows ) {
         std::printf( "pipeline startup vnis=%u hosts=%llu seconds=%.3f peak_rss_mb=%.1f shm_mb=%.1f%s\n", r.vnis,
                      (unsigned long long)r.hosts, r.seconds, double( r.peakRss ) / 1048576.0,
                      double( r.shm ) / 1048576.0, r.walk ? " sweep=walk" : "" );
      }
      for ( const auto& r : rows ) {
         if ( r.vnis == 1024 && r.hosts == ( 1ull << 20 ) && r.ok ) {
            std::printf( "pipeline footprint hosts=%llu bytes_per_host=%.0f\n", (unsigned long long)r.hosts,
                         double( r.peakRss + r.shm ) / double( r.hosts ) );
            break;
         }
      }
      std::printf( "\n" );
      if ( !c.plotData.empty() ) {
         std::ofstream f( c.plotData );
         f << "# vnis hosts seconds sweep\n";
         for ( const auto& r : rows )
            if ( r.ok ) f << r.vnis << ' ' << r.hosts << ' ' << r.seconds << ' ' << ( r.walk ? "walk" : "index" ) << '\n';
      }
   }
   ::getloadavg( load, 3 );
   std::printf( "pipeline_bench: load average at the end %.2f %.2f %.2f\n", load[ 0 ], load[ 1 ], load[ 2 ] );
   return ok ? 0 : 2;
}
