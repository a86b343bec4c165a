// orbevpn-bgp: the EVPN agent of the boundary on BGP EVPN, through a
// gobgpd child that it configures over gRPC on a private Unix socket.
//
// One thread: poll() over the table readers, the route-event queue, the
// child's pidfd and a signalfd. SIGINT and SIGTERM end the loop and hand
// the child over: it goes on with its sessions and our routes, and the
// next run over the same state directory takes it over and reconciles, so
// that a restart withdraws nothing; the keeper forked at the start
// (Keeper.h) stops it if no run has taken it over within the handover
// window. A killed run leaves it the same way. With a window of 0, SIGINT
// and SIGTERM stop the child at once, withdrawing our routes. The tables
// are left as they are (the capability included), for the next run.
#include "tools/bgp/Keeper.h"
#include "tools/bgp/Speaker.h"

#include "tools/common/ProgramOptions.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

OrbEvpn::Bgp::NeighborConfig neighborOf( const std::string& text ) {
   auto comma = text.find( ',' );
   if ( comma == std::string::npos ) {
      throw CLI::ValidationError( "--neighbor", "expected ADDR,AS: " + text );
   }
   OrbEvpn::Bgp::NeighborConfig n;
   n.address = text.substr( 0, comma );
   if ( !OrbEvpn::Bgp::parseIp( n.address ) ) {
      throw CLI::ValidationError( "--neighbor", "not an IPv4 address: " + n.address );
   }
   try {
      size_t used = 0;
      unsigned long as = std::stoul( text.substr( comma + 1 ), &used );
      if ( used != text.size() - comma - 1 || as == 0 || as > 0xFFFFFFFFul ) {
         throw std::out_of_range( "as" );
      }
      n.asn = uint32_t( as );
   } catch ( const std::exception& ) {
      throw CLI::ValidationError( "--neighbor", "bad AS number in " + text );
   }
   return n;
}

}  // namespace

int main( int argc, char** argv ) {
   CLI::App app{ "orbevpn-bgp: advertises the controller's hosts and flood lists as BGP EVPN routes and "
                 "imports remote ones, through a gobgpd child configured over gRPC" };
   OrbEvpn::Bgp::SpeakerOptions options;
   std::vector< std::string > neighbors;
   std::string rtScheme = "auto";
   OrbEvpn::Boundary::TableOptions tables;
   options.daemon.stateDir = "/run/orbevpn-bgp";
   app.add_option( "--asn", options.asn, "local AS number" )->required()->check( CLI::Range( 1u, 0xFFFFFFFFu ) );
   app.add_option( "--router-id", options.routerId, "BGP router id (IPv4), also the RD's administrator" )
      ->required();
   app.add_option( "--neighbor", neighbors, "a BGP peer, ADDR,AS (repeatable)" );
   app.add_option( "--rt-scheme", rtScheme, "route targets per VNI: auto (AS low 16 bits:VNI) or asn:vni" )
      ->default_val( rtScheme );
   OrbEvpn::Boundary::addTableOptions( app, tables );
   app.add_option( "--gobgpd", options.daemon.program, "the gobgpd program" )
      ->default_val( options.daemon.program );
   app.add_option( "--state-dir", options.daemon.stateDir,
                   "folder for the API socket (in a 0700 subfolder), the RD index, gobgpd.log, gobgpd.pid and "
                   "the lock that lets one run at a time use it (the gobgpd an earlier run left is taken over "
                   "from there)" )
      ->default_val( options.daemon.stateDir );
   app.add_option( "--listen-port", options.listenPort, "BGP port to listen on (0: do not listen)" )
      ->default_val( options.listenPort )
      ->check( CLI::Range( 0, 65535 ) );
   app.add_option( "--log-level", options.daemon.logLevel, "gobgpd's log level (panic..trace)" )
      ->default_val( options.daemon.logLevel );
   app.add_option( "--restart-time", options.restartTime, "graceful restart time announced to peers, seconds" )
      ->default_val( options.restartTime )
      ->check( CLI::Range( 1u, 4095u ) );
   std::optional< uint32_t > handoverSeconds;
   app.add_option( "--handover-seconds", handoverSeconds,
                   "after SIGTERM or SIGINT (or a kill), how long gobgpd goes on with its sessions and our routes "
                   "for the next run over the same --state-dir to take over before it is stopped (default: "
                   "--restart-time; 0: stop it at once, withdrawing our routes)" )
      ->check( CLI::Range( 0u, 86400u ) );
   app.add_option( "--import-hold-ms", options.importHoldMs,
                   "after a (re)start, keep imported entries this long for peers to confirm them" )
      ->default_val( options.importHoldMs );
   CLI11_PARSE( app, argc, argv );

   options.prefix = tables.prefix;
   try {
      options.rtScheme = OrbEvpn::Bgp::rtSchemeOf( rtScheme );
      for ( const auto& n : neighbors ) {
         options.neighbors.push_back( neighborOf( n ) );
      }
   } catch ( const std::exception& e ) {
      std::cerr << "orbevpn-bgp: " << e.what() << "\n";
      return 2;
   }

   // Forked before any thread and any descriptor of the speaker's: the
   // keeper holds nothing a successor needs.
   std::chrono::milliseconds window( uint64_t( handoverSeconds.value_or( options.restartTime ) ) * 1000 );
   try {
      options.daemon.ownerToken = OrbEvpn::Bgp::newOwnerToken();
      int self = int( ::syscall( SYS_pidfd_open, ::getpid(), 0 ) );
      if ( self < 0 ) {
         throw std::runtime_error( std::string( "pidfd_open: " ) + std::strerror( errno ) );
      }
      OrbEvpn::Bgp::KeeperOptions k;
      k.stateDir = options.daemon.stateDir;
      k.program = options.daemon.program;
      k.ownerToken = options.daemon.ownerToken;
      k.ownerPidFd = self;
      k.window = window;
      OrbEvpn::Bgp::spawnKeeper( k );
      ::close( self );
   } catch ( const std::exception& e ) {
      std::cerr << "orbevpn-bgp: cannot start the keeper: " << e.what() << "\n";
      return 1;
   }

   int sfd = OrbEvpn::Boundary::stopSignalFd();
   if ( sfd < 0 ) {
      std::perror( "orbevpn-bgp: signalfd" );
      return 1;
   }
   OrbEvpn::Boundary::useTableOptions( tables );

   std::optional< OrbEvpn::Bgp::Speaker > speaker;
   try {
      speaker.emplace( options, std::cerr );
   } catch ( const std::exception& e ) {
      std::cerr << "orbevpn-bgp: " << e.what() << "\n";
      return 1;
   }

   int rc = 0;
   bool handOver = false;   // on an error the daemon stops with us
   for ( ;; ) {
      std::vector< pollfd > pfds{ { sfd, POLLIN, 0 } };
      for ( int fd : speaker->fds() ) {
         pfds.push_back( { fd, POLLIN, 0 } );
      }
      int timeout = speaker->msUntilDue( std::chrono::steady_clock::now() );
      int n = ::poll( pfds.data(), pfds.size(), timeout );
      if ( n < 0 && errno != EINTR ) {
         std::perror( "orbevpn-bgp: poll" );
         rc = 1;
         break;
      }
      if ( n > 0 && ( pfds[ 0 ].revents & POLLIN ) ) {
         handOver = window.count() > 0;
         break;
      }
      try {
         speaker->step();
      } catch ( const std::exception& e ) {
         std::cerr << "orbevpn-bgp: " << e.what() << "\n";
         rc = 1;
         break;
      }
   }
   const auto& s = speaker->stats();
   std::cerr << "orbevpn-bgp: " << s.routesAdded << " routes added, " << s.routesWithdrawn << " withdrawn, "
             << s.refused << " refused, " << s.importEvents << " route events (" << s.importIgnored
             << " ignored), " << s.daemonRestarts << " daemon restarts\n";
   if ( handOver ) {
      pid_t pid = speaker->handOver();
      if ( pid > 0 ) {
         std::cerr << "orbevpn-bgp: leaving gobgpd " << pid << " with its sessions and routes to the next run over "
                   << options.daemon.stateDir << "; it is stopped if none takes it over within "
                   << window.count() / 1000 << " s\n";
      }
   }
   speaker.reset();
   ::close( sfd );
   return rc;
}
