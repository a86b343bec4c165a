#include "tests/platform/lumen/LumenTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <vector>

namespace LumenTest {

MacKey MacKey::of( uint32_t n ) {
   MacKey k;
   k.mac[ 0 ] = 0x02;
   k.mac[ 2 ] = uint8_t( n >> 24 );
   k.mac[ 3 ] = uint8_t( n >> 16 );
   k.mac[ 4 ] = uint8_t( n >> 8 );
   k.mac[ 5 ] = uint8_t( n );
   k.vni = n % 7 + 100;
   return k;
}

uint32_t MacKey::hash() const {
   uint32_t h = 2166136261u;
   for ( uint8_t b : mac ) {
      h = ( h ^ b ) * 16777619u;
   }
   h ^= vni;
   // Thomas Wang's integer mix, as the real exchange keys use.
   h = ~h + ( h << 15 );
   h ^= h >> 12;
   h *= 5;
   h ^= h >> 4;
   h *= 2057;
   h ^= h >> 16;
   return h;
}

bool MacKey::operator<( const MacKey& o ) const {
   int c = std::memcmp( mac, o.mac, 6 );
   return c != 0 ? c < 0 : vni < o.vni;
}

HostRec HostRec::of( uint32_t n, uint32_t counter ) {
   HostRec r( MacKey::of( n ) );
   r.vtep = counter;
   r.seq = counter * 2654435761u;
   r.check = r.vtep ^ r.seq ^ n;
   return r;
}

bool HostRec::consistent() const {
   uint32_t n = uint32_t( k.mac[ 2 ] ) << 24 | uint32_t( k.mac[ 3 ] ) << 16 |
                uint32_t( k.mac[ 4 ] ) << 8 | k.mac[ 5 ];
   return seq == vtep * 2654435761u && check == ( vtep ^ seq ^ n ) && k == MacKey::of( n );
}

TempRoot::TempRoot() {
   char pattern[] = "/dev/shm/lumen-test-XXXXXX";
   if ( !::mkdtemp( pattern ) ) {
      throw std::runtime_error( "mkdtemp failed" );
   }
   dir_ = pattern;
   Lumen::rootIs( dir_ );
}

namespace {

std::vector< std::string > filesIn( const std::string& dir ) {
   std::vector< std::string > names;
   if ( DIR* d = ::opendir( dir.c_str() ) ) {
      while ( dirent* e = ::readdir( d ) ) {
         std::string name = e->d_name;
         if ( name != "." && name != ".." ) {
            names.push_back( name );
         }
      }
      ::closedir( d );
   }
   return names;
}

}  // namespace

TempRoot::~TempRoot() {
   for ( const auto& name : filesIn( dir_ ) ) {
      ::unlink( file( name ).c_str() );
   }
   ::rmdir( dir_.c_str() );
}

void TempRoot::copyTable( const std::string& from, const std::string& to ) const {
   for ( const auto& name : filesIn( dir_ ) ) {
      if ( name == from || name.rfind( from + "@", 0 ) == 0 ) {
         std::ifstream in( file( name ), std::ios::binary );
         std::ofstream out( file( to + name.substr( from.size() ) ), std::ios::binary );
         out << in.rdbuf();
      }
   }
}

pid_t startChild( const std::function< int () >& body ) {
   pid_t pid = ::fork();
   if ( pid == 0 ) {
      int rc = 99;
      try {
         rc = body();
      } catch ( ... ) {
         rc = 98;
      }
      ::_exit( rc );
   }
   return pid;
}

int waitChild( pid_t pid ) {
   int status = 0;
   ::waitpid( pid, &status, 0 );
   return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
}

int runChild( const std::function< int () >& body ) {
   return waitChild( startChild( body ) );
}

bool readable( int fd, int timeoutMs ) {
   pollfd p{ fd, POLLIN, 0 };
   return ::poll( &p, 1, timeoutMs ) == 1;
}

}  // namespace LumenTest
