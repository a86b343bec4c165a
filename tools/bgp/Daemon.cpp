#include "tools/bgp/Daemon.h"

#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/prctl.h>
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
   pid_t parent = ::getpid();
   pid_t pid = ::fork();
   if ( pid < 0 ) {
      ::close( log );
      throw std::runtime_error( fmt::format( "fork: {}", std::strerror( errno ) ) );
   }
   if ( pid == 0 ) {
      ::prctl( PR_SET_PDEATHSIG, SIGKILL );
      if ( ::getppid() != parent ) {
         ::_exit( 127 );
      }
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
}

void Daemon::stop() {
   if ( pid_ <= 0 ) {
      return;
   }
   ::kill( pid_, SIGKILL );
   int status = 0;
   while ( ::waitpid( pid_, &status, 0 ) < 0 && errno == EINTR ) {
   }
   pid_ = -1;
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
   pid_t r = ::waitpid( pid_, &st, WNOHANG );
   if ( r != pid_ ) {
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
