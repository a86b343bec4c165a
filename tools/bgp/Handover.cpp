#include "tools/bgp/Handover.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/random.h>
#include <thread>
#include <unistd.h>

namespace OrbEvpn::Bgp {

namespace {

std::string lockPath( const std::string& stateDir ) { return stateDir + "/lock"; }

int openLockFile( const std::string& stateDir ) {
   int fd = ::open( lockPath( stateDir ).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600 );
   if ( fd < 0 ) {
      throw std::runtime_error( fmt::format( "cannot open {}: {}", lockPath( stateDir ), std::strerror( errno ) ) );
   }
   return fd;
}

// An open-file-description lock, not a flock() or a process lock: it
// conflicts with every other open of the file, in this process too (the
// tests, the keeper), and closing some other descriptor of the file does
// not release it, as it would a process lock.
struct flock wholeFile( short type ) {
   struct flock l {};
   l.l_type = type;
   l.l_whence = SEEK_SET;
   return l;
}

}  // namespace

std::unique_ptr< InstanceLock > InstanceLock::take( const std::string& stateDir, std::chrono::milliseconds wait ) {
   int fd = openLockFile( stateDir );
   auto end = std::chrono::steady_clock::now() + wait;
   for ( ;; ) {
      struct flock l = wholeFile( F_WRLCK );
      if ( ::fcntl( fd, F_OFD_SETLK, &l ) == 0 ) {
         return std::unique_ptr< InstanceLock >( new InstanceLock( fd ) );
      }
      if ( ( errno != EAGAIN && errno != EACCES && errno != EINTR ) || std::chrono::steady_clock::now() >= end ) {
         ::close( fd );
         return nullptr;
      }
      std::this_thread::sleep_for( std::chrono::milliseconds( 50 ) );
   }
}

bool InstanceLock::held( const std::string& stateDir ) {
   int fd = openLockFile( stateDir );
   struct flock l = wholeFile( F_WRLCK );
   int rc = ::fcntl( fd, F_OFD_GETLK, &l );
   ::close( fd );
   return rc == 0 && l.l_type != F_UNLCK;
}

InstanceLock::~InstanceLock() { ::close( fd_ ); }

uint64_t newOwnerToken() {
   uint64_t t = 0;
   while ( t == 0 ) {
      if ( ::getrandom( &t, sizeof t, 0 ) != ssize_t( sizeof t ) ) {
         throw std::runtime_error( fmt::format( "getrandom: {}", std::strerror( errno ) ) );
      }
   }
   return t;
}

std::string ownerPath( const std::string& stateDir ) { return stateDir + "/gobgpd.owner"; }

void claimDaemon( const std::string& stateDir, uint64_t token ) {
   // Whole or not at all: a keeper reading it midway must not see a
   // truncated token, which it would take for a successor's.
   std::string tmp = ownerPath( stateDir ) + ".new";
   {
      std::ofstream out( tmp, std::ios::trunc );
      out << fmt::format( "{:016x}\n", token );
      if ( !out.flush() ) {
         throw std::runtime_error( fmt::format( "cannot write {}", tmp ) );
      }
   }
   if ( std::rename( tmp.c_str(), ownerPath( stateDir ).c_str() ) != 0 ) {
      throw std::runtime_error( fmt::format( "cannot write {}: {}", ownerPath( stateDir ), std::strerror( errno ) ) );
   }
}

std::optional< uint64_t > daemonOwner( const std::string& stateDir ) {
   std::ifstream in( ownerPath( stateDir ) );
   std::string text;
   if ( !( in >> text ) || text.size() != 16 ) {
      return std::nullopt;
   }
   try {
      size_t used = 0;
      uint64_t t = std::stoull( text, &used, 16 );
      return used == text.size() ? std::optional< uint64_t >( t ) : std::nullopt;
   } catch ( const std::exception& ) {
      return std::nullopt;
   }
}

}  // namespace OrbEvpn::Bgp
