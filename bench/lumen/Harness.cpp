#include "bench/lumen/Harness.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>

#include <linux/futex.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace Bench {

uint64_t nowNs() noexcept {
   timespec ts;
   clock_gettime( CLOCK_MONOTONIC, &ts );
   return uint64_t( ts.tv_sec ) * 1000000000ull + uint64_t( ts.tv_nsec );
}

ChildProcess::ChildProcess() {
   void* p = mmap( nullptr, sizeof( SharedFlags ), PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   if ( p == MAP_FAILED ) {
      throw std::runtime_error( fmt::format( "mmap flags: {}", strerror( errno ) ) );
   }
   flags_ = new ( p ) SharedFlags;
}

ChildProcess::~ChildProcess() {
   if ( pid_ > 0 ) {
      kill( pid_, SIGKILL );
      waitpid( pid_, nullptr, 0 );
   }
   if ( readFd_ >= 0 ) {
      close( readFd_ );
   }
   munmap( flags_, sizeof( SharedFlags ) );
}

void ChildProcess::start(
      const std::function< void ( ChildResult&, SharedFlags& ) >& body ) {
   int fds[ 2 ];
   if ( pipe( fds ) != 0 ) {
      throw std::runtime_error( fmt::format( "pipe: {}", strerror( errno ) ) );
   }
   // Anything buffered would otherwise be printed twice.
   fflush( nullptr );
   pid_t pid = fork();
   if ( pid < 0 ) {
      throw std::runtime_error( fmt::format( "fork: {}", strerror( errno ) ) );
   }
   if ( pid == 0 ) {
      close( fds[ 0 ] );
      ChildResult r;
      try {
         body( r, *flags_ );
         r.ok = 1;
      } catch ( const std::exception& e ) {
         r.ok = 0;
         snprintf( r.error, sizeof( r.error ), "%s", e.what() );
      } catch ( ... ) {
         r.ok = 0;
         snprintf( r.error, sizeof( r.error ), "unknown exception" );
      }
      // Let a parent spinning on these flags move on even after a failure.
      flags_->readerReady.store( 1 );
      flags_->readerDone.store( 1 );
      [[maybe_unused]] ssize_t n = write( fds[ 1 ], &r, sizeof( r ) );
      _exit( 0 );
   }
   close( fds[ 1 ] );
   pid_ = pid;
   readFd_ = fds[ 0 ];
}

bool ChildProcess::finished() const {
   pollfd p{ readFd_, POLLIN, 0 };
   return poll( &p, 1, 0 ) > 0;
}

ChildResult ChildProcess::wait( double timeoutSec ) {
   ChildResult r;
   pollfd p{ readFd_, POLLIN, 0 };
   int ready = poll( &p, 1, int( timeoutSec * 1000 ) );
   if ( ready <= 0 ) {
      snprintf( r.error, sizeof( r.error ), "helper process timed out after %.0f s",
                timeoutSec );
      kill( pid_, SIGKILL );
   } else {
      ssize_t n = read( readFd_, &r, sizeof( r ) );
      if ( n != ssize_t( sizeof( r ) ) ) {
         r = ChildResult{};
         snprintf( r.error, sizeof( r.error ), "helper process died without a result" );
      }
   }
   int status = 0;
   waitpid( pid_, &status, 0 );
   pid_ = -1;
   close( readFd_ );
   readFd_ = -1;
   return r;
}

namespace {

void futexWait( std::atomic< uint32_t >* word, uint32_t expected, long timeoutNs ) {
   timespec ts{ 0, timeoutNs };
   syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAIT, expected, &ts,
            nullptr, 0 );
}

void futexWake( std::atomic< uint32_t >* word ) {
   syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAKE, INT_MAX, nullptr,
            nullptr, 0 );
}

}  // namespace

void sleepUntil( uint64_t deadlineNs ) {
   timespec ts{ time_t( deadlineNs / 1000000000ull ), long( deadlineNs % 1000000000ull ) };
   while ( clock_nanosleep( CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr ) == EINTR ) {
   }
}

ChildResult measureWakeFloor( const Config& cfg ) {
   ChildProcess cp;
   cp.start( [ & ]( ChildResult& r, SharedFlags& f ) {
      std::vector< uint64_t > lat;
      lat.reserve( cfg.notifySamples + 16 );
      uint32_t seen = f.wakeWord.load();
      f.readerReady.store( 1 );
      while ( !f.writerStop.load() ) {
         futexWait( &f.wakeWord, seen, 10000000 );
         uint32_t now = f.wakeWord.load();
         if ( now == seen ) {
            continue;
         }
         uint64_t t = nowNs();
         seen = now;
         lat.push_back( t - f.wakeStamp.load() );
      }
      r.samples = lat.size();
      r.p50Us = percentile( lat, 50 ) / 1e3;
      r.p99Us = percentile( lat, 99 ) / 1e3;
      r.maxUs = lat.empty() ? NAN : double( lat.back() ) / 1e3;
   } );
   SharedFlags& f = cp.flags();
   spinUntil( [ & ] { return f.readerReady.load() != 0; }, 60.0 );
   int oldSlack = prctl( PR_GET_TIMERSLACK, 0, 0, 0, 0 );
   prctl( PR_SET_TIMERSLACK, 1, 0, 0, 0 );
   uint64_t period = uint64_t( cfg.notifyPeriodUs ) * 1000, t0 = nowNs();
   for ( uint64_t i = 0; i < cfg.notifySamples; ++i ) {
      sleepUntil( t0 + i * period );
      f.wakeStamp.store( nowNs() );
      f.wakeWord.fetch_add( 1 );
      futexWake( &f.wakeWord );
   }
   if ( oldSlack > 0 ) {
      prctl( PR_SET_TIMERSLACK, oldSlack, 0, 0, 0 );
   }
   // The last wake may be counted with a later stamp; it is one sample.
   f.writerStop.store( 1 );
   f.wakeWord.fetch_add( 1 );
   futexWake( &f.wakeWord );
   return cp.wait( 60 );
}

bool spinUntil( const std::function< bool () >& pred, double timeoutSec ) {
   uint64_t deadline = nowNs() + uint64_t( timeoutSec * 1e9 );
   while ( !pred() ) {
      if ( nowNs() > deadline ) {
         return false;
      }
   }
   return true;
}

uint64_t allocatedBytes( const std::string& path ) {
   namespace fs = std::filesystem;
   auto blocksOf = []( const fs::path& p ) -> uint64_t {
      struct stat st;
      return lstat( p.c_str(), &st ) == 0 && S_ISREG( st.st_mode )
                ? uint64_t( st.st_blocks ) * 512
                : 0;
   };
   std::error_code ec;
   if ( !fs::is_directory( path, ec ) ) {
      return blocksOf( path );
   }
   uint64_t total = 0;
   for ( const auto& e : fs::recursive_directory_iterator( path, ec ) ) {
      total += blocksOf( e.path() );
   }
   return total;
}

uint64_t anonymousBytes() {
   std::ifstream in( "/proc/self/smaps_rollup" );
   std::string field;
   while ( in >> field ) {
      if ( field == "Anonymous:" ) {
         uint64_t kb = 0;
         in >> kb;
         return kb * 1024;
      }
      in.ignore( 1 << 20, '\n' );
   }
   return 0;
}

std::string makeTempDir( const std::string& parent, const std::string& tag ) {
   std::string templ = fmt::format( "{}/{}.XXXXXX", parent, tag );
   std::vector< char > buf( templ.begin(), templ.end() );
   buf.push_back( '\0' );
   if ( !mkdtemp( buf.data() ) ) {
      throw std::runtime_error(
         fmt::format( "mkdtemp {}: {}", templ, strerror( errno ) ) );
   }
   return std::string( buf.data() );
}

void removeTree( const std::string& path ) {
   std::error_code ec;
   std::filesystem::remove_all( path, ec );
}

double percentile( std::vector< uint64_t >& v, double pct ) {
   if ( v.empty() ) {
      return NAN;
   }
   std::sort( v.begin(), v.end() );
   size_t idx = size_t( pct / 100.0 * double( v.size() - 1 ) + 0.5 );
   return double( v[ std::min( idx, v.size() - 1 ) ] );
}

double median( std::vector< double > v ) {
   std::erase_if( v, []( double d ) { return std::isnan( d ); } );
   if ( v.empty() ) {
      return NAN;
   }
   std::sort( v.begin(), v.end() );
   size_t m = v.size() / 2;
   return v.size() % 2 ? v[ m ] : ( v[ m - 1 ] + v[ m ] ) / 2;
}

}  // namespace Bench
