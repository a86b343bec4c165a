#include "tools/bgp/Daemon.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace OrbEvpn::Bgp {

namespace {

void makePrivateDir( const std::string& dir ) {
   if ( ::mkdir( dir.c_str(), 0700 ) != 0 && errno != EEXIST ) {
      throw std::runtime_error( fmt::format( "cannot make {}: {}", dir, std::strerror( errno ) ) );
   }
   struct stat st{};
   if ( ::lstat( dir.c_str(), &st ) != 0 || !S_ISDIR( st.st_mode ) || st.st_uid != ::geteuid() ) {
      throw std::runtime_error( fmt::format( "{} is not a folder of ours", dir ) );
   }
   if ( ( st.st_mode & 0777 ) != 0700 && ::chmod( dir.c_str(), 0700 ) != 0 ) {
      throw std::runtime_error( fmt::format( "cannot make {} private: {}", dir, std::strerror( errno ) ) );
   }
}

}  // namespace

Daemon::Daemon( DaemonOptions options ) : options_( std::move( options ) ) {
   makePrivateDir( options_.stateDir );
   socketDir_ = options_.stateDir + "/api";
   makePrivateDir( socketDir_ );
   socketPath_ = socketDir_ + "/gobgpd.sock";
}

Daemon::~Daemon() { stop(); }

std::string Daemon::logPath() const { return options_.stateDir + "/gobgpd.log"; }

std::string Daemon::pidPath() const { return options_.stateDir + "/gobgpd.pid"; }

namespace {

// The daemon's command line, NUL-separated arguments as one string each.
std::vector< std::string > cmdlineOf( pid_t pid ) {
   std::ifstream in( fmt::format( "/proc/{}/cmdline", pid ), std::ios::binary );
   std::vector< std::string > out;
   std::string arg;
   while ( std::getline( in, arg, '\0' ) ) {
      out.push_back( arg );
   }
   return out;
}

bool exitedNow( int pidFd ) {
   pollfd p{ pidFd, POLLIN, 0 };
   return ::poll( &p, 1, 0 ) > 0;
}

}  // namespace

bool Daemon::adopt() {
   if ( pid_ > 0 ) {
      return false;
   }
   std::ifstream in( pidPath() );
   long pid = 0;
   if ( !( in >> pid ) || pid <= 1 ) {
      return false;
   }
   // A pid reused by some other process must not be taken for ours: it has
   // to be a gobgpd serving our socket, and owned by us.
   auto args = cmdlineOf( pid_t( pid ) );
   bool ours = std::find( args.begin(), args.end(), "--api-hosts=unix://" + socketPath_ ) != args.end();
   struct stat st{};
   if ( !ours || ::stat( fmt::format( "/proc/{}", pid ).c_str(), &st ) != 0 || st.st_uid != ::geteuid() ) {
      return false;
   }
   if ( args[ 0 ] != options_.program ) {
      // Ours, but another program than we are told to run: it goes, or it
      // would hold the BGP port against the one we start.
      ::kill( pid_t( pid ), SIGKILL );
      return false;
   }
   int fd = int( ::syscall( SYS_pidfd_open, pid_t( pid ), 0 ) );
   if ( fd < 0 ) {
      return false;
   }
   if ( exitedNow( fd ) ) {
      ::close( fd );
      return false;
   }
   pid_ = pid_t( pid );
   pidFd_ = fd;
   adopted_ = true;
   return true;
}

void Daemon::start() {
   stop();
   ::unlink( socketPath_.c_str() );
   std::vector< std::string > args{ options_.program,
                                    "--api-hosts=unix://" + socketPath_,
                                    "--log-plain",
                                    "--log-level=" + options_.logLevel,
                                    "--pprof-disable" };
   std::vector< char* > argv;
   for ( auto& a : args ) {
      argv.push_back( a.data() );
   }
   argv.push_back( nullptr );
   int log = ::open( logPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600 );
   if ( log < 0 ) {
      throw std::runtime_error( fmt::format( "cannot open {}: {}", logPath(), std::strerror( errno ) ) );
   }
   pid_t pid = ::fork();
   if ( pid < 0 ) {
      ::close( log );
      throw std::runtime_error( fmt::format( "fork: {}", std::strerror( errno ) ) );
   }
   if ( pid == 0 ) {
      // Its own session: signals meant for our process group (a terminal's
      // interrupt) do not end it; we do, or it outlives us (see Daemon.h).
      ::setsid();
      sigset_t none;
      sigemptyset( &none );
      ::sigprocmask( SIG_SETMASK, &none, nullptr );
      ::dup2( log, 1 );
      ::dup2( log, 2 );
      int devNull = ::open( "/dev/null", O_RDONLY );
      if ( devNull >= 0 ) {
         ::dup2( devNull, 0 );
      }
      ::execv( argv[ 0 ], argv.data() );
      ::_exit( 127 );
   }
   ::close( log );
   pid_ = pid;
   pidFd_ = int( ::syscall( SYS_pidfd_open, pid, 0 ) );
   adopted_ = false;
   std::string tmp = pidPath() + ".new";
   {
      std::ofstream out( tmp, std::ios::trunc );
      out << pid << "\n";
   }
   std::filesystem::rename( tmp, pidPath() );
}

void Daemon::stop() {
   if ( pid_ <= 0 ) {
      return;
   }
   ::kill( pid_, SIGKILL );
   if ( adopted_ ) {
      // Not our child: its end shows on the pidfd (a SIGKILL is not
      // refused; the wait is bounded all the same).
      for ( int i = 0; i < 100 && pidFd_ >= 0 && !exitedNow( pidFd_ ); ++i ) {
         ::usleep( 20000 );
      }
   } else {
      int status = 0;
      while ( ::waitpid( pid_, &status, 0 ) < 0 && errno == EINTR ) {
      }
   }
   ::unlink( pidPath().c_str() );
   pid_ = -1;
   adopted_ = false;
   if ( pidFd_ >= 0 ) {
      ::close( pidFd_ );
      pidFd_ = -1;
   }
}

bool Daemon::reapIfExited( int* status ) {
   if ( pid_ <= 0 ) {
      return false;
   }
   int st = 0;
   if ( adopted_ ) {
      if ( pidFd_ < 0 || !exitedNow( pidFd_ ) ) {
         return false;
      }
      adopted_ = false;
   } else if ( ::waitpid( pid_, &st, WNOHANG ) != pid_ ) {
      return false;
   }
   if ( status ) {
      *status = st;
   }
   pid_ = -1;
   if ( pidFd_ >= 0 ) {
      ::close( pidFd_ );
      pidFd_ = -1;
   }
   return true;
}

}  // namespace OrbEvpn::Bgp
