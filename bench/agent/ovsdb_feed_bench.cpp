// ovsdb_feed_bench: how fast remote MACs get from ovsdb-server into the
// agent's export table, next to the same changes arriving as JSON lines.
//
// For each size (10K and 100K remote MACs over 10 logical switches), in a
// fresh Lumen root with EVPN enabled, four runs of the real orbevpn-agent:
//   ovsdb_snapshot  the database already holds the MACs; the agent starts on
//                   --ovsdb and exports them (its timeToSteadyMs.total)
//   jsonl_snapshot  the events that run recorded, as an --input file
//   ovsdb_live      the agent runs on a database with the switches only; the
//                   MACs are inserted in transactions of 1000 rows, timed from
//                   the first transaction to the last MAC in the export table
//   jsonl_live      the events that run recorded after its snapshot, written
//                   to the agent's input socket in the same batches
// Prints key=value lines (rows per second, milliseconds). Skipped, with the
// reason, when ovsdb-server or the vtep schema is missing.
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/Table.h"
#include "tools/common/BoundaryRecords.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr const char* schema = "/usr/share/openvswitch/vtep.ovsschema";
constexpr uint32_t switches = 10, batchRows = 1000;

double msSince( Clock::time_point t ) {
   return std::chrono::duration< double, std::milli >( Clock::now() - t ).count();
}

std::string slurp( const std::string& path ) {
   std::ifstream f( path );
   std::stringstream s;
   s << f.rdbuf();
   return s.str();
}

[[noreturn]] void die( const std::string& why ) {
   std::fprintf( stderr, "ovsdb_feed_bench: %s\n", why.c_str() );
   std::exit( 2 );
}

pid_t spawn( const std::vector< std::string >& args, const std::string& out, const std::string& err ) {
   const pid_t pid = ::fork();
   if ( pid == 0 ) {
      const int o = ::open( out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600 );
      const int e = ::open( err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600 );
      ::dup2( o, 1 );
      ::dup2( e, 2 );
      std::vector< char* > argv;
      for ( const auto& a : args ) argv.push_back( const_cast< char* >( a.c_str() ) );
      argv.push_back( nullptr );
      ::execv( argv[ 0 ], argv.data() );
      ::_exit( 127 );
   }
   return pid;
}

int waitExit( pid_t pid ) {
   int st = 0;
   ::waitpid( pid, &st, 0 );
   return WIFEXITED( st ) ? WEXITSTATUS( st ) : 128 + WTERMSIG( st );
}

int connectUnix( const std::string& path, int tries = 400 ) {
   for ( int i = 0; i < tries; ++i ) {
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      std::snprintf( a.sun_path, sizeof a.sun_path, "%s", path.c_str() );
      const int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
      if ( ::connect( fd, reinterpret_cast< sockaddr* >( &a ), sizeof a ) == 0 ) return fd;
      ::close( fd );
      std::this_thread::sleep_for( std::chrono::milliseconds( 10 ) );
   }
   die( "nothing listens on " + path );
}

void writeAll( int fd, const std::string& s ) {
   for ( size_t done = 0; done < s.size(); ) {
      const ssize_t n = ::write( fd, s.data() + done, s.size() - done );
      if ( n <= 0 ) die( "write failed" );
      done += size_t( n );
   }
}

// A JSON-RPC connection to ovsdb-server for "transact", one request at a time.
class Db {
 public:
   explicit Db( const std::string& sock ) : fd_( connectUnix( sock ) ) {}
   ~Db() { ::close( fd_ ); }
   Json transact( Json ops ) {
      Json params = Json::array( { "hardware_vtep" } );
      for ( auto& op : ops ) params.push_back( std::move( op ) );
      writeAll( fd_, Json{ { "method", "transact" }, { "params", params }, { "id", ++id_ } }.dump() );
      std::string in;
      char buf[ 65536 ];
      for ( ;; ) {
         const ssize_t n = ::read( fd_, buf, sizeof buf );
         if ( n <= 0 ) die( "ovsdb-server closed the connection" );
         in.append( buf, size_t( n ) );
         if ( Json::accept( in ) ) break;
      }
      Json r = Json::parse( in );
      for ( const Json& res : r[ "result" ] ) {
         if ( res.contains( "error" ) ) die( "transaction failed: " + res.dump() );
      }
      return r[ "result" ];
   }

 private:
   int fd_;
   int id_ = 0;
};

std::string macOf( uint32_t i ) {
   return fmt::format( "02:00:{:02x}:{:02x}:{:02x}:{:02x}", i >> 24 & 255, i >> 16 & 255, i >> 8 & 255, i & 255 );
}

class Run {
 public:
   Run( const std::string& agent, const std::string& top, uint32_t macs, const std::string& name )
         : agent_( agent ), dir_( top + "/" + name ), macs_( macs ) {
      fs::create_directories( dir_ + "/root" );
      Lumen::rootIs( dir_ + "/root" );
      enableEvpn();
   }
   ~Run() {
      stopServer();
      capability_.reset();
      fs::remove_all( dir_ );
   }

   void startServer() {
      const std::string db = dir_ + "/vtep.db";
      if ( !fs::exists( db ) &&
           std::system( fmt::format( "ovsdb-tool create {} {} >/dev/null 2>&1", db, schema ).c_str() ) != 0 )
         die( "ovsdb-tool create failed" );
      server_ = spawn( { "/usr/sbin/ovsdb-server", "--remote=punix:" + sock(), "--unixctl=" + dir_ + "/ovsdb.ctl",
                         "--no-chdir", "--log-file=" + dir_ + "/ovsdb.log", db },
                       "/dev/null", "/dev/null" );
      ::close( connectUnix( sock() ) );
   }
   void stopServer() {
      if ( server_ > 0 ) {
         ::kill( server_, SIGTERM );
         waitExit( server_ );
         server_ = -1;
      }
   }
   std::string sock() const { return dir_ + "/ovsdb.sock"; }

   // Switches 1..10 keyed by their number, a flood list each; returns their uuids.
   std::vector< std::string > addSwitches( Db& db ) {
      Json ops = Json::array();
      for ( uint32_t v = 1; v <= switches; ++v ) {
         ops.push_back( { { "op", "insert" }, { "table", "Logical_Switch" }, { "uuid-name", fmt::format( "s{}", v ) },
                          { "row", { { "name", fmt::format( "ls{}", v ) }, { "tunnel_key", v } } } } );
      }
      Json r = db.transact( ops );
      std::vector< std::string > uuids;
      for ( const Json& x : r ) uuids.push_back( x[ "uuid" ][ 1 ] );
      return uuids;
   }
   // Locators 192.0.2.1..50 (made once, referenced by every batch).
   std::vector< std::string > addLocators( Db& db, const std::vector< std::string >& sw ) {
      // A non-root row lives only while referenced: make them with a first MAC each.
      Json ops = Json::array();
      for ( uint32_t l = 1; l <= 50; ++l ) {
         ops.push_back( { { "op", "insert" }, { "table", "Physical_Locator" }, { "uuid-name", fmt::format( "l{}", l ) },
                          { "row", { { "encapsulation_type", "vxlan_over_ipv4" }, { "dst_ip", fmt::format( "192.0.2.{}", l ) } } } } );
         ops.push_back( { { "op", "insert" }, { "table", "Ucast_Macs_Remote" },
                          { "row", { { "MAC", macOf( 0xff000000u + l ) }, { "logical_switch", { "uuid", sw[ 0 ] } },
                                     { "locator", { "named-uuid", fmt::format( "l{}", l ) } } } } } );
      }
      Json r = db.transact( ops );
      std::vector< std::string > uuids;
      for ( size_t i = 0; i < r.size(); i += 2 ) uuids.push_back( r[ i ][ "uuid" ][ 1 ] );
      return uuids;
   }
   Json macBatch( const std::vector< std::string >& sw, const std::vector< std::string >& loc, uint32_t from,
                  uint32_t n ) const {
      Json ops = Json::array();
      for ( uint32_t i = from; i < from + n; ++i ) {
         ops.push_back( { { "op", "insert" }, { "table", "Ucast_Macs_Remote" },
                          { "row", { { "MAC", macOf( i ) }, { "logical_switch", { "uuid", sw[ i % sw.size() ] } },
                                     { "locator", { "uuid", loc[ i % loc.size() ] } } } } } );
      }
      return ops;
   }

   // `live`: the agent runs until stopped, else until steady.
   pid_t startAgent( std::vector< std::string > feed, const std::string& tag, bool live = false ) {
      std::vector< std::string > args{ agent_, "--root", dir_ + "/root", "--control", dir_ + "/agent.ctl",
                                       "--status-period", "20", "--stats-json",
                                       "--record-events", dir_ + "/" + tag + ".jsonl" };
      if ( !live ) args.push_back( "--until-steady" );
      args.insert( args.end(), feed.begin(), feed.end() );
      out_ = dir_ + "/" + tag + ".out";
      err_ = dir_ + "/" + tag + ".err";
      return spawn( args, out_, err_ );
   }
   Json finish( pid_t pid ) {
      const int rc = waitExit( pid );
      if ( rc != 0 ) die( fmt::format( "the agent exited {}: {}", rc, slurp( err_ ) ) );
      std::string s = slurp( out_ );
      while ( !s.empty() && s.back() == '\n' ) s.pop_back();
      return Json::parse( s.substr( s.rfind( '\n' ) + 1 ) );
   }
   uint32_t exported() const {
      Lumen::Reader< OrbEvpn::Host > r( "/orbevpn/export/host" );
      return r.countShared();
   }
   // Waits until the export table holds `n` hosts; the time since `t0`.
   double until( uint32_t n, Clock::time_point t0 ) const {
      Lumen::Reader< OrbEvpn::Host > r( "/orbevpn/export/host" );
      for ( ;; ) {
         if ( r.countShared() >= n ) return msSince( t0 );
         if ( msSince( t0 ) > 600000 ) die( "the export never reached the size" );
         std::this_thread::sleep_for( std::chrono::microseconds( 200 ) );
      }
   }
   void wipeRoot() {
      capability_.reset();
      fs::remove_all( dir_ + "/root" );
      fs::create_directories( dir_ + "/root" );
      enableEvpn();
   }
   // The EVPN side's capability, so that the agent exports.
   void enableEvpn() {
      capability_ = std::make_unique< Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > >();
      capability_->attach( "/orbevpn/evpn/capability" );
      OrbEvpn::EvpnCapabilityRecord r;
      r.evpnEnabled = 1;
      capability_->write( r );
   }
   const std::string& dir() const { return dir_; }

 private:
   std::string agent_, dir_;
   uint32_t macs_;
   pid_t server_ = -1;
   std::string out_, err_;
   std::unique_ptr< Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > > capability_;
};

void report( const std::string& key, uint32_t macs, double ms ) {
   std::printf( "%s_%uK_ms=%.1f\n%s_%uK_rows_per_s=%.0f\n", key.c_str(), macs / 1000, ms, key.c_str(), macs / 1000,
                macs / ( ms / 1000.0 ) );
   std::fflush( stdout );
}

void benchSize( const std::string& agent, const std::string& top, uint32_t macs ) {
   // Snapshot: the database holds everything before the agent starts.
   {
      Run run( agent, top, macs, fmt::format( "snapshot{}", macs ) );
      run.startServer();
      {
         Db db( run.sock() );
         auto sw = run.addSwitches( db );
         auto loc = run.addLocators( db, sw );
         for ( uint32_t i = 0; i < macs; i += batchRows ) db.transact( run.macBatch( sw, loc, i, std::min( batchRows, macs - i ) ) );
      }
      const uint32_t total = macs + 50;
      Json s = run.finish( run.startAgent( { "--ovsdb", "unix:" + run.sock() }, "ovsdb" ) );
      if ( s[ "exported" ][ "hosts" ] != total ) die( "ovsdb snapshot: exported " + s[ "exported" ].dump() );
      report( "ovsdb_snapshot", macs, s[ "timeToSteadyMs" ][ "total" ].get< double >() );
      run.stopServer();
      run.wipeRoot();
      s = run.finish( run.startAgent( { "--input", run.dir() + "/ovsdb.jsonl" }, "jsonl" ) );
      if ( s[ "exported" ][ "hosts" ] != total ) die( "jsonl snapshot: exported " + s[ "exported" ].dump() );
      report( "jsonl_snapshot", macs, s[ "timeToSteadyMs" ][ "total" ].get< double >() );
   }
   // Live: the agent follows inserts of 1000 rows each.
   {
      Run run( agent, top, macs, fmt::format( "live{}", macs ) );
      run.startServer();
      Db db( run.sock() );
      auto sw = run.addSwitches( db );
      auto loc = run.addLocators( db, sw );
      const pid_t pid = run.startAgent( { "--ovsdb", "unix:" + run.sock() }, "ovsdb", true );
      run.until( 50, Clock::now() );
      std::this_thread::sleep_for( std::chrono::milliseconds( 300 ) );
      const auto t0 = Clock::now();
      for ( uint32_t i = 0; i < macs; i += batchRows ) db.transact( run.macBatch( sw, loc, i, std::min( batchRows, macs - i ) ) );
      const double ms = run.until( macs + 50, t0 );
      report( "ovsdb_live", macs, ms );
      ::kill( pid, SIGTERM );
      run.finish( pid );
      run.stopServer();

      // The same events through the input socket, snapshot first.
      std::vector< std::string > head, tail;
      {
         std::ifstream f( run.dir() + "/ovsdb.jsonl" );
         bool synced = false;
         for ( std::string l; std::getline( f, l ); ) {
            ( synced ? tail : head ).push_back( l );
            synced = synced || l.find( "\"synced\"" ) != std::string::npos;
         }
      }
      run.wipeRoot();
      const std::string in = run.dir() + "/input.sock";
      const pid_t p2 = run.startAgent( { "--input", "unix:" + in }, "jsonl", true );
      const int fd = connectUnix( in );
      std::string text;
      for ( const auto& l : head ) text += l + "\n";
      writeAll( fd, text );
      run.until( 50, Clock::now() );
      std::this_thread::sleep_for( std::chrono::milliseconds( 300 ) );
      const auto t1 = Clock::now();
      for ( size_t i = 0; i < tail.size(); i += batchRows ) {
         text.clear();
         for ( size_t j = i; j < std::min( tail.size(), i + batchRows ); ++j ) text += tail[ j ] + "\n";
         writeAll( fd, text );
      }
      report( "jsonl_live", macs, run.until( macs + 50, t1 ) );
      ::close( fd );
      ::kill( p2, SIGTERM );
      run.finish( p2 );
   }
}

}  // namespace

int main( int argc, char** argv ) {
   std::vector< uint32_t > sizes{ 10000, 100000 };
   for ( int i = 1; i < argc; ++i ) {
      const std::string a = argv[ i ];
      if ( a == "--sizes" && i + 1 < argc ) {
         sizes.clear();
         std::stringstream s( argv[ ++i ] );
         for ( std::string x; std::getline( s, x, ',' ); ) {
            const bool k = !x.empty() && ( x.back() == 'K' || x.back() == 'k' );
            sizes.push_back( uint32_t( std::stoul( k ? x.substr( 0, x.size() - 1 ) : x ) * ( k ? 1000 : 1 ) ) );
         }
      } else {
         std::fprintf( stderr, "usage: ovsdb_feed_bench [--sizes 10K,100K]\n" );
         return 2;
      }
   }
   for ( const char* p : { "/usr/sbin/ovsdb-server", "/usr/bin/ovsdb-tool", schema } ) {
      if ( ::access( p, F_OK ) != 0 ) {
         std::printf( "ovsdb_feed_bench=skipped\nreason=%s missing (Debian package openvswitch-vtep)\n", p );
         return 0;
      }
   }
   const std::string top = fmt::format( "/dev/shm/ovsdb-feed-bench.{}", ::getpid() );
   fs::create_directories( top );
   std::printf( "agent=%s\nswitches=%u\nbatch_rows=%u\n", ORBEVPN_AGENT_BIN, switches, batchRows );
   for ( uint32_t n : sizes ) benchSize( ORBEVPN_AGENT_BIN, top, n );
   fs::remove_all( top );
   return 0;
}
