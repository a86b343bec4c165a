// orbevpn-peer: the stand-in EVPN agent for the demo and the tests.
//
// One thread: poll() over the readers' descriptors and a signalfd, so that
// SIGINT and SIGTERM end the loop between two reconciliations and the
// tables are left as they are (the capability included).
#include "tools/peer/Peer.h"

#include "tools/common/ProgramOptions.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

int main( int argc, char** argv ) {
   CLI::App app{ "orbevpn-peer: stand-in EVPN agent; advertises remote hosts and flood VTEPs for every "
                 "VNI whose bridge id the agent lists while integration mode is on" };
   OrbEvpn::Peer::PeerOptions options;
   OrbEvpn::Boundary::TableOptions tables;
   std::string logPath;
   bool untilSteady = false;
   double duration = 0;
   int steadyMs = 1000;
   OrbEvpn::Boundary::addTableOptions( app, tables );
   app.add_option( "--log", logPath, "write one JSON line per table write to FILE" );
   app.add_option( "--remote-hosts-per-vni", options.remoteHostsPerVni, "remote hosts per advertised VNI" )
      ->default_val( options.remoteHostsPerVni )
      ->check( CLI::Range( 0u, 65535u ) );
   app.add_option( "--echo-per-vni", options.echoPerVni,
                   "hosts per VNI copied from the export table (plus one flood VTEP if > 0)" )
      ->default_val( options.echoPerVni );
   app.add_option( "--seed", options.seed, "seed of the remote VTEPs, sequence numbers and echo choice" )
      ->default_val( options.seed );
   app.add_flag( "--until-steady", untilSteady,
                 "exit 0 once the tables match what to advertise and nothing changed for --steady-ms" );
   app.add_option( "--steady-ms", steadyMs, "quiet time that counts as steady" )->default_val( steadyMs );
   app.add_option( "--duration", duration, "exit after SECONDS (non-zero with --until-steady if not steady)" );
   CLI11_PARSE( app, argc, argv );

   options.prefix = tables.prefix;
   int sfd = OrbEvpn::Boundary::stopSignalFd();
   if ( sfd < 0 ) {
      std::perror( "orbevpn-peer: signalfd" );
      return 1;
   }
   OrbEvpn::Boundary::useTableOptions( tables );
   std::ofstream logFile;
   std::ostream* log = nullptr;
   if ( !logPath.empty() ) {
      logFile.open( logPath, std::ios::app );
      if ( !logFile ) {
         std::cerr << "orbevpn-peer: cannot open log " << logPath << "\n";
         return 1;
      }
      log = &logFile;
   }

   std::optional< OrbEvpn::Peer::Peer > peer;
   try {
      peer.emplace( options, log );
   } catch ( const std::exception& e ) {
      std::cerr << "orbevpn-peer: " << e.what() << "\n";
      return 1;
   }

   const auto start = Clock::now();
   auto quietSince = start;
   std::optional< Clock::time_point > deadline;
   if ( duration > 0 ) {
      deadline = start + std::chrono::milliseconds( int64_t( duration * 1000 ) );
   }
   int rc = 0;
   for ( ;; ) {
      std::vector< pollfd > pfds{ { sfd, POLLIN, 0 } };
      for ( int fd : peer->fds() ) {
         pfds.push_back( { fd, POLLIN, 0 } );
      }
      auto now = Clock::now();
      int timeout = 100;
      int due = peer->msUntilDue( now );
      if ( due >= 0 ) {
         timeout = std::min( timeout, due );
      }
      if ( deadline ) {
         timeout = std::min< int >(
            timeout, int( std::max< int64_t >(
                        0, std::chrono::ceil< std::chrono::milliseconds >( *deadline - now ).count() ) ) );
      }
      int n = ::poll( pfds.data(), pfds.size(), timeout );
      if ( n < 0 && errno != EINTR ) {
         std::perror( "orbevpn-peer: poll" );
         rc = 1;
         break;
      }
      if ( n > 0 && ( pfds[ 0 ].revents & POLLIN ) ) {
         break;
      }
      bool input = false;
      for ( size_t i = 1; i < pfds.size(); ++i ) {
         input = input || ( pfds[ i ].revents & POLLIN );
      }
      try {
         if ( input ) {
            peer->dispatch();
         }
         now = Clock::now();
         if ( peer->msUntilDue( now ) == 0 ) {
            peer->reconcile();
         }
      } catch ( const std::exception& e ) {
         std::cerr << "orbevpn-peer: " << e.what() << "\n";
         rc = 1;
         break;
      }
      now = Clock::now();
      if ( input || !peer->idle() ) {
         quietSince = now;
      }
      if ( untilSteady && peer->idle() && now - quietSince >= std::chrono::milliseconds( steadyMs ) ) {
         break;
      }
      if ( deadline && now >= *deadline ) {
         if ( untilSteady ) {
            std::cerr << "orbevpn-peer: not steady after " << duration << " s\n";
            rc = 1;
         }
         break;
      }
   }
   std::cerr << "orbevpn-peer: " << peer->writes() << " writes, " << peer->advertisedVnis().size()
             << " VNIs advertised\n";
   peer.reset();
   if ( logFile.is_open() ) {
      logFile.flush();
   }
   ::close( sfd );
   return rc;
}
