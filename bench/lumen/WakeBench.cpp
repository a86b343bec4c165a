// lumen_wake_bench: what idle and busy readers cost a Lumen writer.
//
// Reader processes (forked, each a Lumen::Reader opened by path) poll fd()
// and call dispatch(), whose key callback reads the record back. The parent
// writes replaces of random keys and is timed:
//   one reader, writer unpaced       -> the reference rate
//   --readers readers, unpaced       -> must keep >= 80% of the reference
//   --paced-readers readers, writer paced at --pace changes/s -> must keep it
// Every figure is printed as a key=value line; medians over --runs.
//
// The writer's rate is given twice: per second of wall time, and per second
// of the writer thread's own CPU time. On a machine with fewer cores than
// busy readers, the readers also take processor time from the writer; the
// CPU-time rate is the writer's cost per change alone, which is what the
// readers must not raise.
#include "bench/lumen/HostRecord.h"
#include "platform/lumen/Table.h"
#include "platform/lumen/internal/Format.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Bench::Host24;

struct Config {
   std::string shmDir = "/dev/shm";
   double seconds = 1.0;
   int readers = 64;
   int pacedReaders = 150;
   double pace = 20000;
   uint32_t keys = 1000;
   int runs = 3;
};

// Shared with the reader processes.
struct Shared {
   std::atomic< int > stop;
   std::atomic< int > ready;
   std::atomic< uint64_t > dispatches;
   std::atomic< uint64_t > keys;
   std::atomic< uint64_t > torn;
   std::atomic< int > failed;
};

struct Result {
   double wallRate = 0;     // changes per wall second
   double cpuRate = 0;      // changes per second of writer CPU
   double dispatchRate = 0; // reader dispatches per second, all readers
   double keyRate = 0;      // keys delivered per second, all readers
   uint32_t registered = 0;
   uint64_t torn = 0;
   int failed = 0;
};

double nowSeconds( clockid_t clock ) {
   timespec ts {};
   ::clock_gettime( clock, &ts );
   return double( ts.tv_sec ) + double( ts.tv_nsec ) * 1e-9;
}

int runReader( Shared* shared, const std::string& path ) {
   Lumen::Reader< Host24 > reader( path );
   uint64_t dispatches = 0;
   uint64_t keys = 0;
   uint64_t torn = 0;
   reader.onKeyIs( [ & ]( const Bench::HostKey& k ) {
      Host24 r = reader.lookup( k );
      torn += !Bench::selfConsistent( r );
      ++keys;
   } );
   reader.dispatch();
   shared->ready.fetch_add( 1 );
   while ( !shared->stop.load( std::memory_order_relaxed ) ) {
      pollfd p{ reader.fd(), POLLIN, 0 };
      if ( ::poll( &p, 1, 50 ) == 1 ) {
         reader.dispatch();
         ++dispatches;
      }
   }
   shared->dispatches.fetch_add( dispatches );
   shared->keys.fetch_add( keys );
   shared->torn.fetch_add( torn );
   return 0;
}

uint32_t registrations( const std::string& root, const std::string& flat ) {
   namespace li = Lumen::internal;
   int fd = ::open( ( root + "/" + flat + "@wake" ).c_str(), O_RDONLY );
   if ( fd < 0 ) {
      return 0;
   }
   void* p = ::mmap( nullptr, li::wakeSegmentSize, PROT_READ, MAP_SHARED, fd, 0 );
   ::close( fd );
   if ( p == MAP_FAILED ) {
      return 0;
   }
   const auto* slots = reinterpret_cast< const li::ReaderSlot* >( static_cast< const uint8_t* >( p ) +
                                                                  sizeof( li::WakeHeader ) );
   uint32_t n = 0;
   for ( uint32_t i = 0; i < li::wakeReaderSlots; ++i ) {
      n += slots[ i ].pid.load() != 0;
   }
   ::munmap( p, li::wakeSegmentSize );
   return n;
}

// One measurement: `readers` reader processes, the writer unpaced (pace 0)
// or paced.
Result measure( const Config& cfg, int readers, double pace ) {
   std::string tmpl = cfg.shmDir + "/lumenwake.XXXXXX";
   if ( ::mkdtemp( tmpl.data() ) == nullptr ) {
      std::fprintf( stderr, "lumen_wake_bench: mkdtemp under %s failed\n", cfg.shmDir.c_str() );
      std::exit( 1 );
   }
   std::string root = tmpl;
   Lumen::rootIs( root );
   const std::string path = "/bench/wake";
   auto* shared = static_cast< Shared* >( ::mmap( nullptr, sizeof( Shared ), PROT_READ | PROT_WRITE,
                                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0 ) );
   new ( shared ) Shared{};
   Result result;
   {
      Lumen::Writer< Host24 > writer( Host24{}, { std::max( cfg.keys, 1024u ), 1u << 20, 4096 } );
      writer.attach( path );
      uint32_t version = 1;
      for ( uint32_t i = 0; i < cfg.keys; ++i ) {
         writer.write( Bench::recordFor( Bench::keyFor( i ), version ) );
      }
      std::vector< pid_t > children;
      for ( int r = 0; r < readers; ++r ) {
         pid_t pid = ::fork();
         if ( pid == 0 ) {
            int rc = 1;
            try {
               rc = runReader( shared, path );
            } catch ( ... ) {
               shared->failed.fetch_add( 1 );
            }
            ::_exit( rc );
         }
         children.push_back( pid );
      }
      for ( int waited = 0; shared->ready.load() < readers && waited < 60000; waited += 10 ) {
         ::usleep( 10000 );
      }
      result.registered = registrations( root, "bench.wake" );
      ::usleep( 100000 );   // let every reader reach its poll()

      Bench::IndexStream index( cfg.keys, 12345 );
      uint64_t written = 0;
      double wall0 = nowSeconds( CLOCK_MONOTONIC );
      double cpu0 = nowSeconds( CLOCK_THREAD_CPUTIME_ID );
      double wall = wall0;
      if ( pace <= 0 ) {
         while ( wall - wall0 < cfg.seconds ) {
            for ( int n = 0; n < 256; ++n ) {
               writer.write( Bench::recordFor( Bench::keyFor( index.next() ), ++version ) );
            }
            written += 256;
            wall = nowSeconds( CLOCK_MONOTONIC );
         }
      } else {
         // Ticks of 1 ms, each with its share of changes; a writer that
         // falls behind does not sleep until it has caught up.
         const double tick = 0.001;
         for ( uint64_t k = 1; wall - wall0 < cfg.seconds; ++k ) {
            uint64_t due = uint64_t( double( k ) * tick * pace );
            while ( written < due ) {
               writer.write( Bench::recordFor( Bench::keyFor( index.next() ), ++version ) );
               ++written;
            }
            double next = wall0 + double( k ) * tick;
            wall = nowSeconds( CLOCK_MONOTONIC );
            if ( wall < next ) {
               timespec ts{ time_t( next ), long( ( next - double( time_t( next ) ) ) * 1e9 ) };
               ::clock_nanosleep( CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr );
               wall = nowSeconds( CLOCK_MONOTONIC );
            }
         }
      }
      double cpu = nowSeconds( CLOCK_THREAD_CPUTIME_ID ) - cpu0;
      double elapsed = wall - wall0;
      result.wallRate = double( written ) / elapsed;
      result.cpuRate = cpu > 0 ? double( written ) / cpu : 0;
      shared->stop.store( 1 );
      for ( pid_t pid : children ) {
         int status = 0;
         ::waitpid( pid, &status, 0 );
         if ( !WIFEXITED( status ) || WEXITSTATUS( status ) != 0 ) {
            shared->failed.fetch_add( 1 );
         }
      }
      result.dispatchRate = double( shared->dispatches.load() ) / elapsed;
      result.keyRate = double( shared->keys.load() ) / elapsed;
      result.torn = shared->torn.load();
      result.failed = shared->failed.load();
   }
   ::munmap( shared, sizeof( Shared ) );
   std::error_code ec;
   std::filesystem::remove_all( root, ec );
   return result;
}

double median( std::vector< double > v ) {
   std::sort( v.begin(), v.end() );
   return v.empty() ? 0 : v[ v.size() / 2 ];
}

void usage() {
   std::printf( "usage: lumen_wake_bench [--shm-dir DIR] [--seconds S] [--readers N] "
                "[--paced-readers N] [--pace CHANGES_PER_S] [--keys N] [--runs N]\n" );
}

}  // namespace

int main( int argc, char** argv ) {
   Config cfg;
   for ( int i = 1; i < argc; ++i ) {
      std::string a = argv[ i ];
      auto value = [ & ]() -> std::string {
         if ( i + 1 >= argc ) {
            usage();
            std::exit( 1 );
         }
         return argv[ ++i ];
      };
      if ( a == "--shm-dir" ) {
         cfg.shmDir = value();
      } else if ( a == "--seconds" ) {
         cfg.seconds = std::atof( value().c_str() );
      } else if ( a == "--readers" ) {
         cfg.readers = std::atoi( value().c_str() );
      } else if ( a == "--paced-readers" ) {
         cfg.pacedReaders = std::atoi( value().c_str() );
      } else if ( a == "--pace" ) {
         cfg.pace = std::atof( value().c_str() );
      } else if ( a == "--keys" ) {
         cfg.keys = uint32_t( std::atoi( value().c_str() ) );
      } else if ( a == "--runs" ) {
         cfg.runs = std::max( 1, std::atoi( value().c_str() ) );
      } else {
         usage();
         return a == "--help" ? 0 : 1;
      }
   }
   double load[ 3 ] = {};
   ::getloadavg( load, 3 );
   std::printf( "wake.loadavg_start=%.2f\n", load[ 0 ] );
   struct Phase {
      const char* name;
      int readers;
      double pace;
      std::vector< Result > results;
   };
   std::vector< Phase > phases = { { "one_reader", 1, 0, {} },
                                   { "many_readers", cfg.readers, 0, {} },
                                   { "paced_readers", cfg.pacedReaders, cfg.pace, {} } };
   // Phases take turns within a run, so a ratio compares neighbours in time.
   for ( int run = 0; run < cfg.runs; ++run ) {
      for ( auto& p : phases ) {
         p.results.push_back( measure( cfg, p.readers, p.pace ) );
      }
   }
   bool problems = false;
   std::vector< double > wallRatios;
   std::vector< double > cpuRatios;
   for ( int run = 0; run < cfg.runs; ++run ) {
      wallRatios.push_back( phases[ 1 ].results[ run ].wallRate / phases[ 0 ].results[ run ].wallRate );
      cpuRatios.push_back( phases[ 1 ].results[ run ].cpuRate / phases[ 0 ].results[ run ].cpuRate );
   }
   for ( auto& p : phases ) {
      auto pick = [ & ]( auto field ) {
         std::vector< double > v;
         for ( auto& r : p.results ) {
            v.push_back( double( field( r ) ) );
         }
         return median( v );
      };
      std::printf( "wake.%s.readers=%d\n", p.name, p.readers );
      if ( p.pace > 0 ) {
         std::printf( "wake.%s.pace_per_s=%.0f\n", p.name, p.pace );
      }
      std::printf( "wake.%s.registered=%.0f\n", p.name, pick( []( auto& r ) { return r.registered; } ) );
      std::printf( "wake.%s.writes_per_s=%.0f\n", p.name, pick( []( auto& r ) { return r.wallRate; } ) );
      std::printf( "wake.%s.writes_per_writer_cpu_s=%.0f\n", p.name,
                   pick( []( auto& r ) { return r.cpuRate; } ) );
      std::printf( "wake.%s.dispatches_per_s=%.0f\n", p.name,
                   pick( []( auto& r ) { return r.dispatchRate; } ) );
      std::printf( "wake.%s.keys_delivered_per_s=%.0f\n", p.name,
                   pick( []( auto& r ) { return r.keyRate; } ) );
      for ( auto& r : p.results ) {
         if ( r.torn || r.failed ) {
            problems = true;
            std::printf( "wake.%s.problem=torn %llu, failed readers %d\n", p.name,
                         (unsigned long long)r.torn, r.failed );
         }
      }
   }
   double wallRatio = median( wallRatios );
   double cpuRatio = median( cpuRatios );
   double pacedKept = median( [ & ] {
      std::vector< double > v;
      for ( auto& r : phases[ 2 ].results ) {
         v.push_back( r.wallRate / cfg.pace );
      }
      return v;
   }() );
   std::printf( "wake.many_readers.ratio_to_one_reader_wall=%.3f\n", wallRatio );
   std::printf( "wake.many_readers.ratio_to_one_reader_writer_cpu=%.3f\n", cpuRatio );
   std::printf( "wake.many_readers.target=ratio_to_one_reader_writer_cpu>=0.80 %s\n",
                cpuRatio >= 0.8 ? "PASS" : "FAIL" );
   // The change rate as a user sees it: what the readers' own work takes
   // from the writer's processors counts here too.
   std::printf( "wake.many_readers.target_wall=ratio_to_one_reader_wall>=0.80 %s\n",
                wallRatio >= 0.8 ? "PASS" : "FAIL" );
   std::printf( "wake.paced_readers.pace_kept=%.3f\n", pacedKept );
   std::printf( "wake.paced_readers.target=pace_kept>=0.98 %s\n", pacedKept >= 0.98 ? "PASS" : "FAIL" );
   ::getloadavg( load, 3 );
   std::printf( "wake.loadavg_end=%.2f\n", load[ 0 ] );
   return problems ? 2 : 0;
}
