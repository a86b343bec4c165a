#include "tools/bgp/Keeper.h"

#include "tools/bgp/Daemon.h"
#include "tools/bgp/Handover.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace OrbEvpn::Bgp {

namespace {

using Clock = std::chrono::steady_clock;

// Waits until one of `fds` is readable or `timeout` passes (-1: no limit).
void waitAny( const std::vector< int >& fds, int timeoutMs ) {
   std::vector< pollfd > p;
   for ( int fd : fds ) {
      p.push_back( { fd, POLLIN, 0 } );
   }
   while ( ::poll( p.data(), p.size(), timeoutMs ) < 0 && errno == EINTR ) {
   }
}

void closeAll( std::vector< int >& fds ) {
   for ( int fd : fds ) {
      ::close( fd );
   }
   fds.clear();
}

void dropExited( std::vector< int >& fds ) {
   std::erase_if( fds, []( int fd ) {
      if ( pidFdExited( fd ) ) {
         ::close( fd );
         return true;
      }
      return false;
   } );
}

bool takenOver( const KeeperOptions& o ) {
   auto owner = daemonOwner( o.stateDir );
   return owner && *owner != o.ownerToken;
}

// Signals through the pidfds only: each names the verified gobgpd itself,
// never a process that took its pid.
void signalAll( const std::vector< int >& fds, int sig ) {
   for ( int fd : fds ) {
      ::syscall( SYS_pidfd_send_signal, fd, sig, nullptr, 0 );
   }
}

bool waitExited( std::vector< int >& fds, std::chrono::milliseconds limit ) {
   auto end = Clock::now() + limit;
   for ( dropExited( fds ); !fds.empty() && Clock::now() < end; dropExited( fds ) ) {
      waitAny( fds, 50 );
   }
   return fds.empty();
}

std::string pidsText( const std::vector< int >& fds ) {
   std::string out;
   for ( int fd : fds ) {
      // Appended piece by piece: GCC 12 at -O3 takes "literal + string" here
      // for an overlapping copy.
      if ( !out.empty() ) {
         out.append( " " );
      }
      out.append( std::to_string( pidOfPidFd( fd ) ) );
   }
   return out;
}

}  // namespace

KeeperEnd runKeeper( const KeeperOptions& o, std::ostream& log ) {
   waitAny( { o.ownerPidFd }, -1 );
   const auto deadline = Clock::now() + o.window;
   const std::string socket = Daemon::socketPathIn( o.stateDir );
   std::vector< int > daemons = findGobgpds( o.program, socket );
   for ( ;; ) {
      if ( takenOver( o ) ) {
         closeAll( daemons );
         return KeeperEnd::takenOver;
      }
      dropExited( daemons );
      if ( daemons.empty() ) {
         // One the run had just forked may have exec'd since the last look.
         daemons = findGobgpds( o.program, socket );
         if ( daemons.empty() ) {
            return KeeperEnd::daemonGone;
         }
      }
      auto now = Clock::now();
      if ( now >= deadline ) {
         auto lock = InstanceLock::take( o.stateDir, std::chrono::milliseconds( 0 ) );
         if ( lock ) {
            if ( takenOver( o ) ) {   // a successor came and went meanwhile
               closeAll( daemons );
               return KeeperEnd::takenOver;
            }
            closeAll( daemons );
            daemons = findGobgpds( o.program, socket );
            log << fmt::format( "orbevpn-bgp keeper: no successor took gobgpd {} over within {} s; stopping it\n",
                                pidsText( daemons ), o.window.count() / 1000.0 );
            log.flush();
            signalAll( daemons, SIGTERM );
            if ( !waitExited( daemons, o.stopGrace ) ) {
               signalAll( daemons, SIGKILL );
               waitExited( daemons, std::chrono::seconds( 5 ) );
            }
            closeAll( daemons );
            // Ours to remove while we hold the lock: the daemon they name
            // is gone.
            ::unlink( Daemon::pidPathIn( o.stateDir ).c_str() );
            ::unlink( ownerPath( o.stateDir ).c_str() );
            return KeeperEnd::stopped;
         }
         // A successor is starting: it claims the daemon or lets the lock go.
      }
      // A claim shows in no descriptor: looked at ten times a second.
      auto left = std::chrono::ceil< std::chrono::milliseconds >( deadline - now ).count();
      waitAny( daemons, now >= deadline ? 100 : int( std::min< long long >( left, 100 ) ) );
   }
}

pid_t spawnKeeper( const KeeperOptions& options ) {
   pid_t pid = ::fork();
   if ( pid < 0 ) {
      throw std::runtime_error( fmt::format( "fork: {}", std::strerror( errno ) ) );
   }
   if ( pid > 0 ) {
      return pid;
   }
   // Its own session: a terminal's interrupt for orbevpn-bgp's process
   // group must not end the keeper too. It keeps none of our descriptors
   // but the standard ones and the run's pidfd: a table's writer lock held
   // here would keep the successor out.
   ::setsid();
   ::prctl( PR_SET_NAME, "orbevpn-keeper" );
   sigset_t none;
   sigemptyset( &none );
   ::sigprocmask( SIG_SETMASK, &none, nullptr );
   KeeperOptions o = options;
   if ( o.ownerPidFd != 3 ) {
      ::dup2( o.ownerPidFd, 3 );
      o.ownerPidFd = 3;
   }
   ::close_range( 4, ~0u, 0 );
   int rc = 0;
   try {
      runKeeper( o, std::cerr );
   } catch ( const std::exception& e ) {
      std::cerr << "orbevpn-bgp keeper: " << e.what() << "\n";
      rc = 1;
   }
   std::cerr.flush();
   ::_exit( rc );
}

}  // namespace OrbEvpn::Bgp
