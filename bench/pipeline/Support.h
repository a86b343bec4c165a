// pipeline_bench's helpers: clocks and rates, counts on the command line,
// memory shared with forked children, a private Lumen root, and the hosts
// every measure writes.
#pragma once

#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Options.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

namespace PipelineBench {

using namespace OrbEvpn;
using Vxlan::Vni;
using Wire::EthAddr;
using Wire::IpAddr;

inline uint64_t nowNs() {
   timespec t;
   ::clock_gettime( CLOCK_MONOTONIC, &t );
   return uint64_t( t.tv_sec ) * 1000000000u + uint64_t( t.tv_nsec );
}

inline double secondsSince( uint64_t t0 ) { return double( nowNs() - t0 ) / 1e9; }

inline std::string rate( double perSecond ) {
   if ( perSecond >= 1e6 ) return fmt::format( "{:.2f}M", perSecond / 1e6 );
   if ( perSecond >= 1e3 ) return fmt::format( "{:.0f}K", perSecond / 1e3 );
   return fmt::format( "{:.0f}", perSecond );
}

inline uint64_t parseCount( const std::string& s ) {
   size_t end = 0;
   const double v = std::stod( s, &end );
   double mult = 1;
   if ( end < s.size() ) {
      switch ( s[ end ] ) {
       case 'K': case 'k': mult = 1024; break;   // binary: 1K VNIs = 1024, 1M hosts = 2^20
       case 'M': case 'm': mult = 1024 * 1024; break;
       default: throw std::invalid_argument( "bad count " + s );
      }
   }
   return uint64_t( v * mult );
}

inline std::vector< std::string > split( const std::string& s, char sep ) {
   std::vector< std::string > out;
   size_t b = 0;
   while ( b <= s.size() ) {
      const size_t e = s.find( sep, b );
      out.push_back( s.substr( b, e == std::string::npos ? std::string::npos : e - b ) );
      if ( e == std::string::npos ) break;
      b = e + 1;
   }
   return out;
}

// Shared between the parent and a forked child: anonymous MAP_SHARED pages.
template< class T >
inline T* sharedNew( size_t n = 1 ) {
   void* p = ::mmap( nullptr, sizeof( T ) * n, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   if ( p == MAP_FAILED ) throw std::runtime_error( "mmap failed" );
   for ( size_t i = 0; i < n; ++i ) new ( static_cast< T* >( p ) + i ) T();
   return static_cast< T* >( p );
}
template< class T >
inline void sharedDelete( T* p, size_t n = 1 ) { ::munmap( p, sizeof( T ) * n ); }

// A fresh Lumen root under the shm folder, removed with everything in it.
inline std::string shmDir = "/dev/shm";
class TempRoot {
 public:
   explicit TempRoot( const char* what ) {
      std::string t = fmt::format( "{}/pipeline-{}.XXXXXX", shmDir, what );
      if ( !::mkdtemp( t.data() ) ) throw std::runtime_error( "mkdtemp " + t + ": " + std::strerror( errno ) );
      dir_ = t;
      Lumen::rootIs( dir_ );
   }
   ~TempRoot() {
      std::error_code ec;
      std::filesystem::remove_all( dir_, ec );
   }
   const std::string& dir() const { return dir_; }
   // Allocated bytes of every file under the root (sparse space not counted).
   uint64_t bytes() const {
      uint64_t n = 0;
      for ( const auto& f : std::filesystem::recursive_directory_iterator( dir_ ) ) {
         struct stat st;
         if ( ::stat( f.path().c_str(), &st ) == 0 && S_ISREG( st.st_mode ) ) n += uint64_t( st.st_blocks ) * 512;
      }
      return n;
   }

 private:
   std::string dir_;
};

inline EthAddr macOf( uint64_t i ) { return EthAddr( uint16_t( 0x0200 ), uint16_t( i >> 16 ), uint16_t( i ) ); }
inline IpAddr vtepOf( uint64_t i ) { return IpAddr::fromOctets( 10, 1, uint8_t( i >> 8 ), uint8_t( 1 + i % 250 ) ); }
inline Host hostOf( uint64_t i, uint32_t vnis, uint32_t seq ) {
   Host h( MacVniPair( macOf( i ), Vni( 1 + uint32_t( i % vnis ) ) ) );
   h.vtepAddrIs( vtepOf( seq ) );
   h.seqNoIs( Keel::Seqno32( seq ) );
   return h;
}

inline double percentile( std::vector< uint64_t >& v, double p ) {
   if ( v.empty() ) return -1;
   const size_t k = std::min( v.size() - 1, size_t( p * double( v.size() ) ) );
   std::nth_element( v.begin(), v.begin() + long( k ), v.end() );
   return double( v[ k ] ) / 1000.0;
}

inline bool waitChild( pid_t pid ) {
   int status = 0;
   while ( ::waitpid( pid, &status, 0 ) < 0 && errno == EINTR ) {
   }
   return WIFEXITED( status ) && WEXITSTATUS( status ) == 0;
}

}  // namespace PipelineBench
