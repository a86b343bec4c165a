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
   socketPath_ = socketPathIn( options_.stateDir );
   if ( options_.ownerToken == 0 ) {
      options_.ownerToken = newOwnerToken();
   }
   lock_ = InstanceLock::take( options_.stateDir, options_.lockWait );
   if ( !lock_ ) {
      throw std::runtime_error( fmt::format( "another orbevpn-bgp runs over {} (it holds {}/lock)",
                                             options_.stateDir, options_.stateDir ) );
   }
}

Daemon::~Daemon() { stop(); }

std::string Daemon::socketPathIn( const std::string& stateDir ) { return stateDir + "/api/gobgpd.sock"; }

std::string Daemon::pidPathIn( const std::string& stateDir ) { return stateDir + "/gobgpd.pid"; }

std::string Daemon::logPath() const { return options_.stateDir + "/gobgpd.log"; }

std::string Daemon::pidPath() const { return pidPathIn( options_.stateDir ); }

namespace {

// A process's command line, NUL-separated arguments as one string each.
std::vector< std::string > cmdlineOf( pid_t pid ) {
   std::ifstream in( fmt::format( "/proc/{}/cmdline", pid ), std::ios::binary );
   std::vector< std::string > out;
   std::string arg;
   while ( std::getline( in, arg, '\0' ) ) {
      out.push_back( arg );
   }
   return out;
}

int pidfdOpen( pid_t pid ) { return int( ::syscall( SYS_pidfd_open, pid, 0 ) ); }

}  // namespace

bool pidFdExited( int pidFd ) {
   pollfd p{ pidFd, POLLIN, 0 };
   return ::poll( &p, 1, 0 ) > 0;
}

pid_t pidOfPidFd( int pidFd ) {
   std::ifstream in( fmt::format( "/proc/self/fdinfo/{}", pidFd ) );
   std::string line;
   while ( std::getline( in, line ) ) {
      if ( line.rfind( "Pid:", 0 ) == 0 ) {
         return pid_t( std::stol( line.substr( 4 ) ) );
      }
   }
   return -1;
}

namespace {

// A pidfd on `pid` if it is a process of our user with its API on
// `socketPath` (its program in `program`); -1 otherwise. A pid reused by
// some other process must not be taken for ours: read after the pidfd is
// open and before it shows an exit, the command line and owner describe
// the pidfd's process.
int openOnSocket( pid_t pid, const std::string& socketPath, std::string& program ) {
   if ( pid <= 1 ) {
      return -1;
   }
   int fd = pidfdOpen( pid );
   if ( fd < 0 ) {
      return -1;
   }
   auto args = cmdlineOf( pid );
   bool onOurSocket = std::find( args.begin(), args.end(), "--api-hosts=unix://" + socketPath ) != args.end();
   struct stat st{};
   if ( !onOurSocket || ::stat( fmt::format( "/proc/{}", pid ).c_str(), &st ) != 0 || st.st_uid != ::geteuid() ||
        pidFdExited( fd ) ) {
      ::close( fd );
      return -1;
   }
   program = args[ 0 ];
   return fd;
}

}  // namespace

int openGobgpd( pid_t pid, const std::string& program, const std::string& socketPath ) {
   std::string running;
   int fd = openOnSocket( pid, socketPath, running );
   if ( fd >= 0 && running != program ) {
      ::close( fd );
      return -1;
   }
   return fd;
}

std::vector< int > findGobgpds( const std::string& program, const std::string& socketPath ) {
   std::vector< int > out;
   std::error_code ec;
   for ( const auto& e : std::filesystem::directory_iterator( "/proc", ec ) ) {
      const std::string name = e.path().filename().string();
      if ( name.empty() || name.find_first_not_of( "0123456789" ) != std::string::npos ) {
         continue;
      }
      pid_t pid = pid_t( std::stol( name ) );
      if ( pid == ::getpid() ) {
         continue;
      }
      int fd = openGobgpd( pid, program, socketPath );
      if ( fd >= 0 ) {
         out.push_back( fd );
      }
   }
   return out;
}

bool Daemon::adopt() {
   if ( pid_ > 0 ) {
      return false;
   }
   std::ifstream in( pidPath() );
   long pid = 0;
   if ( !( in >> pid ) || pid <= 1 ) {
      return false;
   }
   std::string running;
   int fd = openOnSocket( pid_t( pid ), socketPath_, running );
   if ( fd < 0 ) {
      return false;
   }
   if ( running != options_.program ) {
      // Ours, but another program than we are told to run: it goes, or it
      // would hold the BGP port against the one we start.
      ::syscall( SYS_pidfd_send_signal, fd, SIGKILL, nullptr, 0 );
      ::close( fd );
      return false;
   }
   pid_ = pid_t( pid );
   pidFd_ = fd;
   adopted_ = true;
   claimDaemon( options_.stateDir, options_.ownerToken );
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
   claimDaemon( options_.stateDir, options_.ownerToken );
}

void Daemon::stop() {
   if ( pid_ <= 0 ) {
      return;
   }
   if ( pidFd_ >= 0 ) {
      ::syscall( SYS_pidfd_send_signal, pidFd_, SIGKILL, nullptr, 0 );
   } else {
      ::kill( pid_, SIGKILL );   // our unreaped child: its pid is not reused
   }
   if ( adopted_ ) {
      // Not our child: its end shows on the pidfd (a SIGKILL is not
      // refused; the wait is bounded all the same).
      for ( int i = 0; i < 100 && pidFd_ >= 0 && !pidFdExited( pidFd_ ); ++i ) {
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

pid_t Daemon::release() {
   pid_t pid = pid_;
   pid_ = -1;
   adopted_ = false;
   if ( pidFd_ >= 0 ) {
      ::close( pidFd_ );
      pidFd_ = -1;
   }
   return pid;
}

bool Daemon::reapIfExited( int* status ) {
   if ( pid_ <= 0 ) {
      return false;
   }
   int st = 0;
   if ( adopted_ ) {
      if ( pidFd_ < 0 || !pidFdExited( pidFd_ ) ) {
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
