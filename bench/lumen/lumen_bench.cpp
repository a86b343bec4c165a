// lumen_bench: the Lumen shared-memory table next to Boost.Interprocess and
// LMDB, same workload, same run, printed side by side with ratios and the
// targets Lumen is held to. Only ratios taken in one run are compared: the
// machines this runs on are shared and noisy.
//
// Usage: lumen_bench [--sizes 1K,100K,1M] [--systems lumen,boost,lmdb,lmdb-wm]
//                    [--runs N] [--seconds S] [--notify-samples N]
//                    [--notify-period-us U] [--shm-dir DIR] [--markdown]

#include "bench/lumen/Harness.h"
#include "bench/lumen/Systems.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Bench {
namespace {

#ifdef ORBEVPN_BENCH_HAVE_LUMEN
constexpr bool kHaveLumen = true;
#else
constexpr bool kHaveLumen = false;
#endif

void usage( const char* argv0 ) {
   fmt::print( "usage: {} [--sizes 1K,100K,1M] [--systems lumen,boost,lmdb,lmdb-wm] [--runs N]\n"
               "       [--seconds S] [--notify-samples N] [--notify-period-us U]\n"
               "       [--paced-writes N] [--batch-writes N] [--shm-dir DIR] [--markdown]\n"
               "  --sizes             record counts (K = 1000, M = 1000000)\n"
               "  --systems           lmdb-wm is LMDB with MDB_WRITEMAP\n"
               "  --paced-writes      every writer's pace in the paced-reader row (default 100000/s)\n"
               "  --batch-writes      writes per LMDB transaction in the batched row (default 1000)\n"
               "  --runs              repeat everything N times, report medians (default 3)\n"
               "  --seconds           length of each time-bounded phase (default 0.4)\n"
               "  --notify-samples    stamped writes in the latency phase (default 8000)\n"
               "  --notify-period-us  pause between them (default 80)\n"
               "  --shm-dir           tmpfs directory for the fresh segment root (default /dev/shm)\n"
               "  --markdown          print tables as markdown\n",
               argv0 );
}

uint64_t parseSize( const std::string& s ) {
   size_t pos = 0;
   uint64_t v = std::stoull( s, &pos );
   std::string unit = s.substr( pos );
   if ( unit == "K" || unit == "k" ) {
      v *= 1000;
   } else if ( unit == "M" || unit == "m" ) {
      v *= 1000000;
   } else if ( !unit.empty() ) {
      throw std::invalid_argument( "bad size " + s );
   }
   if ( v == 0 || v > ( 1ull << 24 ) ) {
      throw std::invalid_argument( "size out of range: " + s );
   }
   return v;
}

std::vector< std::string > split( const std::string& s ) {
   std::vector< std::string > out;
   size_t start = 0;
   while ( start <= s.size() ) {
      size_t comma = s.find( ',', start );
      if ( comma == std::string::npos ) {
         comma = s.size();
      }
      if ( comma > start ) {
         out.push_back( s.substr( start, comma - start ) );
      }
      start = comma + 1;
   }
   return out;
}

Config parseArgs( int argc, char** argv ) {
   Config cfg;
   std::string sizes = "1K,100K,1M";
   std::string systems = kHaveLumen ? "lumen,boost,lmdb,lmdb-wm" : "boost,lmdb,lmdb-wm";
   for ( int i = 1; i < argc; ++i ) {
      std::string a = argv[ i ];
      auto value = [ & ]() -> std::string {
         if ( i + 1 >= argc ) {
            throw std::invalid_argument( a + " needs a value" );
         }
         return argv[ ++i ];
      };
      if ( a == "--sizes" ) {
         sizes = value();
      } else if ( a == "--systems" ) {
         systems = value();
      } else if ( a == "--runs" ) {
         cfg.runs = std::max( 1, std::stoi( value() ) );
      } else if ( a == "--seconds" ) {
         cfg.seconds = std::max( 0.05, std::stod( value() ) );
      } else if ( a == "--notify-samples" ) {
         cfg.notifySamples = std::max< uint64_t >( 100, std::stoull( value() ) );
      } else if ( a == "--notify-period-us" ) {
         cfg.notifyPeriodUs = uint32_t( std::max( 1, std::stoi( value() ) ) );
      } else if ( a == "--paced-writes" ) {
         cfg.pacedWritesPerSec = std::max( 1000.0, std::stod( value() ) );
      } else if ( a == "--batch-writes" ) {
         cfg.batchWrites = uint32_t( std::max( 1, std::stoi( value() ) ) );
      } else if ( a == "--shm-dir" ) {
         cfg.shmParent = value();
      } else if ( a == "--markdown" ) {
         cfg.markdown = true;
      } else if ( a == "-h" || a == "--help" ) {
         usage( argv[ 0 ] );
         std::exit( 0 );
      } else {
         throw std::invalid_argument( "unknown option " + a );
      }
   }
   for ( const auto& s : split( sizes ) ) {
      cfg.sizes.push_back( parseSize( s ) );
   }
   for ( const auto& s : split( systems ) ) {
      if ( s != "lumen" && s != "boost" && s != "lmdb" && s != "lmdb-wm" ) {
         throw std::invalid_argument( "unknown system " + s );
      }
      if ( s == "lumen" && !kHaveLumen ) {
         throw std::invalid_argument( "this build has no lumen library" );
      }
      cfg.systems.push_back( s );
   }
   if ( cfg.sizes.empty() || cfg.systems.empty() ) {
      throw std::invalid_argument( "nothing to run" );
   }
   return cfg;
}

// The machine is shared: say how busy it was, next to the numbers.
std::string loadAverage() {
   std::string text;
   if ( FILE* f = fopen( "/proc/loadavg", "r" ) ) {
      char buf[ 128 ] = {};
      if ( fgets( buf, sizeof( buf ), f ) ) {
         text = buf;
      }
      fclose( f );
   }
   while ( !text.empty() && text.back() == '\n' ) {
      text.pop_back();
   }
   return text.empty() ? "unknown" : text;
}

const char* displayName( const std::string& s ) {
   return s == "lumen"     ? "Lumen"
          : s == "boost"   ? "Boost.IPC"
          : s == "lmdb-wm" ? "LMDB WRITEMAP"
                           : "LMDB";
}

// The baselines' names in ratio columns and verdicts.
const char* shortName( const std::string& s ) {
   return s == "boost" ? "Boost" : s == "lmdb-wm" ? "LMDB-WM" : "LMDB";
}

const std::vector< std::string > kBaselines{ "boost", "lmdb", "lmdb-wm" };

std::string sizeLabel( uint64_t n ) {
   if ( n % 1000000 == 0 ) {
      return fmt::format( "{}M", n / 1000000 );
   }
   if ( n % 1000 == 0 ) {
      return fmt::format( "{}K", n / 1000 );
   }
   return fmt::format( "{}", n );
}

Metrics runOne( const Config& cfg, const std::string& system, uint64_t n ) {
   std::string dir = makeTempDir( cfg.shmParent, "lumenbench" );
   Metrics m;
   try {
      if ( system == "boost" ) {
         m = benchBoost( cfg, n, dir );
      } else if ( system == "lmdb" ) {
         m = benchLmdb( cfg, n, dir );
      } else if ( system == "lmdb-wm" ) {
         m = benchLmdbWriteMap( cfg, n, dir );
      }
#ifdef ORBEVPN_BENCH_HAVE_LUMEN
      else if ( system == "lumen" ) {
         m = benchLumen( cfg, n, dir );
      }
#endif
   } catch ( const std::exception& e ) {
      m.problems.push_back( fmt::format( "aborted: {}", e.what() ) );
   }
   removeTree( dir );
   return m;
}

// Medians over runs, field by field.
Metrics medianOf( const std::vector< Metrics >& runs ) {
   Metrics out;
   auto med = [ & ]( double Metrics::*f ) {
      std::vector< double > v;
      for ( const auto& m : runs ) {
         v.push_back( m.*f );
      }
      out.*f = median( v );
   };
   for ( auto f : { &Metrics::insertColdPerSec, &Metrics::insertBatchedPerSec,
                    &Metrics::insertPerSec, &Metrics::replacePerSec,
                    &Metrics::lookupLocalPerSec, &Metrics::lookupIdlePerSec,
                    &Metrics::lookupIdleBatchPerSec, &Metrics::lookupIdleUnlockedPerSec,
                    &Metrics::lookupPacedPerSec, &Metrics::writerPacedPerSec,
                    &Metrics::lookupBusyPerSec,
                    &Metrics::writerBusyPerSec, &Metrics::iterateMs, &Metrics::notifyP50Us,
                    &Metrics::notifyP99Us, &Metrics::notifyMaxUs, &Metrics::notifySlowWrites,
                    &Metrics::bytesPerEntry, &Metrics::bytesGrownPerEntry,
                    &Metrics::bytesGrown40PerEntry, &Metrics::readerPrivatePerEntry,
                    &Metrics::bytesGrownOneReaderPerEntry } ) {
      med( f );
   }
   for ( const auto& m : runs ) {
      out.problems.insert( out.problems.end(), m.problems.begin(), m.problems.end() );
   }
   return out;
}

enum class Better { higher, lower };

// One printed line: a metric, how to format it, and what Lumen must reach.
struct Row {
   std::string label;
   double Metrics::*field;
   Better better;
   std::function< std::string ( double ) > format;
   // Required Lumen advantage over each baseline, by system (none: no target).
   std::map< std::string, double > targets {};
   // Absolute bound on Lumen's own value (NaN: none): below it for metrics
   // where lower is better, inclusive or not; judged from limitFromN records.
   double limit = NAN;
   const char* limitText = "";
   bool limitInclusive = false;
   uint64_t limitFromN = 0;
   // Lumen's figure to set against the baselines' `field`, when that is
   // another metric (a baseline's variant row); null: the same field.
   double Metrics::*lumenField = nullptr;
   uint64_t ratioFromN = 0;   // ratio targets judged from this many records

   double Metrics::*lumenMetric() const { return lumenField ? lumenField : field; }
};

// Below this many records a table's fixed parts (headers, the change feed,
// allocator arenas) dominate its size, so bytes per record says little.
constexpr uint64_t kMinRecordsForBytesTarget = 100000;

std::string rate( double v ) {
   if ( std::isnan( v ) ) {
      return "-";
   }
   if ( v >= 1e6 ) {
      return fmt::format( "{:.2f}M", v / 1e6 );
   }
   if ( v >= 1e3 ) {
      return fmt::format( "{:.0f}K", v / 1e3 );
   }
   return fmt::format( "{:.0f}", v );
}

std::function< std::string ( double ) > fixed( int digits ) {
   return [ digits ]( double v ) {
      return std::isnan( v ) ? std::string( "-" ) : fmt::format( "{:.{}f}", v, digits );
   };
}

std::vector< Row > rows( const Config& cfg ) {
   std::string paced = fmt::format( "lookup/s, 2nd process, writers paced at {}/s",
                                    rate( cfg.pacedWritesPerSec ) );
   std::string batched = fmt::format( "  LMDB: {} writes per transaction, cold", cfg.batchWrites );
   std::vector< Row > out;
   auto add = [ & ]( Row r ) { out.push_back( std::move( r ) ); };
   add( { "insert/s, cold (fresh table, fresh keys)", &Metrics::insertColdPerSec, Better::higher,
          rate, { { "boost", 2 }, { "lmdb-wm", 5 } } } );
   Row b{ batched, &Metrics::insertBatchedPerSec, Better::higher, rate };
   b.lumenField = &Metrics::insertColdPerSec;
   add( b );
   add( { "insert/s, sized for n (warm refills below 200K)", &Metrics::insertPerSec,
          Better::higher, rate, { { "boost", 2 }, { "lmdb", 10 } } } );
   add( { "replace/s", &Metrics::replacePerSec, Better::higher, rate,
          { { "boost", 2 }, { "lmdb", 10 } } } );
   add( { "lookup/s, writer's process", &Metrics::lookupLocalPerSec, Better::higher, rate } );
   add( { "lookup/s, 2nd process, writer idle (Boost locked)", &Metrics::lookupIdlePerSec,
          Better::higher, rate, { { "boost", 3 }, { "lmdb", 4 } } } );
   Row u{ "  Boost without its lock (writer idle)", &Metrics::lookupIdleUnlockedPerSec,
          Better::higher, rate, { { "boost", 2 } } };
   u.lumenField = &Metrics::lookupIdlePerSec;
   add( u );
   add( { "  same, batched (lookupBatch)", &Metrics::lookupIdleBatchPerSec, Better::higher,
          rate } );
   add( { paced, &Metrics::lookupPacedPerSec, Better::higher, rate, { { "boost", 3 } } } );
   add( { "  writer's write/s meanwhile (paced)", &Metrics::writerPacedPerSec, Better::higher,
          rate } );
   add( { "lookup/s, 2nd process, writer unpaced (lock starvation)", &Metrics::lookupBusyPerSec,
          Better::higher, rate, { { "boost", 20 }, { "lmdb", 4 } } } );
   add( { "  writer's write/s meanwhile (unpaced)", &Metrics::writerBusyPerSec, Better::higher,
          rate } );
   add( { "iterate all, 2nd process (ms)", &Metrics::iterateMs, Better::lower, fixed( 3 ) } );
   add( { "notify p50 (us)", &Metrics::notifyP50Us, Better::lower, fixed( 1 ) } );
   add( { "notify p99 (us)", &Metrics::notifyP99Us, Better::lower, fixed( 1 ), {}, 100.0,
          "p99 < 100us" } );
   add( { "notify max (us)", &Metrics::notifyMaxUs, Better::lower, fixed( 1 ) } );
   add( { "  paced writes taking > 100us", &Metrics::notifySlowWrites, Better::lower,
          fixed( 0 ) } );
   add( { "bytes/entry, table sized for n", &Metrics::bytesPerEntry, Better::lower, fixed( 1 ),
          {}, 64.0, "<= 64 B", true, kMinRecordsForBytesTarget } );
   Row g{ "bytes/entry, grown from default size", &Metrics::bytesGrownPerEntry, Better::lower,
          fixed( 1 ), { { "boost", 1 } } };
   g.ratioFromN = kMinRecordsForBytesTarget;
   add( g );
   add( { "  grown, 40-byte record", &Metrics::bytesGrown40PerEntry, Better::lower,
          fixed( 1 ) } );
   add( { "  private bytes/entry of each reader process", &Metrics::readerPrivatePerEntry,
          Better::lower, fixed( 1 ) } );
   add( { "  grown, shared + one reader's private", &Metrics::bytesGrownOneReaderPerEntry,
          Better::lower, fixed( 1 ) } );
   return out;
}

struct Verdict {
   std::string text;
   std::optional< bool > pass;
};

// Lumen's advantage over a baseline: > 1 means Lumen is better, whichever
// direction the metric runs.
// Each run's ratio is taken between systems measured side by side in that
// run; the median of those is what is judged, never a ratio of medians from
// different runs.
Verdict ratio( const Row& row, const std::vector< Metrics >& lumenRuns,
               const std::vector< Metrics >& otherRuns, double target, uint64_t n ) {
   std::vector< double > perRun;
   for ( size_t i = 0; i < std::min( lumenRuns.size(), otherRuns.size() ); ++i ) {
      double lumen = lumenRuns[ i ].*row.lumenMetric(), other = otherRuns[ i ].*row.field;
      if ( std::isnan( lumen ) || std::isnan( other ) || other <= 0 || lumen <= 0 ) {
         continue;
      }
      perRun.push_back( row.better == Better::higher ? lumen / other : other / lumen );
   }
   double r = median( perRun );
   if ( std::isnan( r ) ) {
      return { "", std::nullopt };
   }
   std::string text = r >= 10 ? fmt::format( "{:.0f}x", r ) : fmt::format( "{:.2f}x", r );
   if ( target <= 0 ) {
      return { text, std::nullopt };
   }
   if ( n < row.ratioFromN ) {
      return { fmt::format( "{} (judged from {} records)", text, row.ratioFromN ), std::nullopt };
   }
   bool pass = r >= target;
   return { fmt::format( "{} {} (>={:g}x)", text, pass ? "PASS" : "FAIL", target ), pass };
}

Verdict absolute( const Row& row, double lumen, uint64_t n ) {
   if ( std::isnan( row.limit ) || std::isnan( lumen ) ) {
      return { "", std::nullopt };
   }
   if ( n < row.limitFromN ) {
      return { fmt::format( "n/a below {} records", row.limitFromN ), std::nullopt };
   }
   bool pass = row.better == Better::lower
                  ? ( row.limitInclusive ? lumen <= row.limit : lumen < row.limit )
                  : ( row.limitInclusive ? lumen >= row.limit : lumen > row.limit );
   return { fmt::format( "{} ({})", pass ? "PASS" : "FAIL", row.limitText ), pass };
}

void printTable( const Config& cfg, const std::vector< std::vector< std::string > >& t ) {
   std::vector< size_t > width;
   for ( const auto& line : t ) {
      width.resize( std::max( width.size(), line.size() ) );
      for ( size_t c = 0; c < line.size(); ++c ) {
         width[ c ] = std::max( width[ c ], line[ c ].size() );
      }
   }
   for ( size_t l = 0; l < t.size(); ++l ) {
      std::string out;
      for ( size_t c = 0; c < t[ l ].size(); ++c ) {
         if ( cfg.markdown ) {
            out += "| " + t[ l ][ c ] + " ";
         } else {
            out += fmt::format( "{:<{}}  ", t[ l ][ c ], width[ c ] );
         }
      }
      fmt::print( "{}\n", cfg.markdown ? out + "|" : out );
      if ( cfg.markdown && l == 0 ) {
         fmt::print( "{}|\n", [ & ] {
            std::string sep;
            for ( size_t c = 0; c < t[ 0 ].size(); ++c ) {
               sep += c ? "|---:" : "|---";
            }
            return sep;
         }() );
      }
   }
}

struct Summary {
   int pass = 0;
   int fail = 0;
   std::vector< std::string > lines;
};

void report( const Config& cfg, uint64_t n,
             const std::map< std::string, std::vector< Metrics > >& runs,
             const std::vector< ChildResult >& floors, Summary& summary ) {
   std::map< std::string, Metrics > res;
   for ( const auto& [ s, v ] : runs ) {
      res[ s ] = medianOf( v );
   }
   fmt::print( "\n== {} records: 24-byte record, 12-byte key, stored once by the baselines "
               "({} of {} run{}) ==\n",
               sizeLabel( n ), cfg.runs > 1 ? "median" : "result", cfg.runs,
               cfg.runs > 1 ? "s" : "" );
   std::vector< std::vector< std::string > > t;
   std::vector< std::string > head{ "metric" };
   for ( const auto& s : cfg.systems ) {
      head.push_back( displayName( s ) );
   }
   bool haveLumen = res.count( "lumen" );
   std::vector< std::string > baselines;
   for ( const auto& b : kBaselines ) {
      if ( haveLumen && res.count( b ) ) {
         baselines.push_back( b );
         head.push_back( fmt::format( "Lumen vs {}", shortName( b ) ) );
      }
   }
   if ( haveLumen ) {
      head.push_back( "Lumen target" );
   }
   t.push_back( head );
   for ( const auto& row : rows( cfg ) ) {
      std::vector< std::string > line{ row.label };
      bool any = false;
      for ( const auto& s : cfg.systems ) {
         double v = res.at( s ).*( s == "lumen" ? row.lumenMetric() : row.field );
         any |= !std::isnan( v ) && s != "lumen";
         any |= !std::isnan( v ) && !row.lumenField;
         line.push_back( row.format( v ) );
      }
      if ( !any ) {
         continue;
      }
      auto record = [ & ]( const Verdict& v, const std::string& what ) {
         if ( v.pass ) {
            ( *v.pass ? summary.pass : summary.fail )++;
            summary.lines.push_back( fmt::format( "{:<5} {:>4}  {:<55} {}", *v.pass ? "PASS" : "FAIL",
                                                  sizeLabel( n ), row.label, what + ": " + v.text ) );
         }
         return v.text;
      };
      if ( haveLumen ) {
         double lumen = res.at( "lumen" ).*row.lumenMetric();
         for ( const auto& b : baselines ) {
            auto target = row.targets.find( b );
            line.push_back( record( ratio( row, runs.at( "lumen" ), runs.at( b ),
                                           target == row.targets.end() ? 0 : target->second, n ),
                                    fmt::format( "vs {}", shortName( b ) ) ) );
         }
         line.push_back( record( absolute( row, lumen, n ), "Lumen" ) );
      }
      t.push_back( line );
   }
   printTable( cfg, t );
   if ( !floors.empty() ) {
      std::vector< double > p50, p99, max;
      for ( const auto& f : floors ) {
         p50.push_back( f.p50Us );
         p99.push_back( f.p99Us );
         max.push_back( f.maxUs );
      }
      fmt::print( "  wake-up floor (bare cross-process futex wake, same pacing): "
                  "p50 {:.1f} us, p99 {:.1f} us, max {:.1f} us\n",
                  median( p50 ), median( p99 ), median( max ) );
   }
   for ( const auto& s : cfg.systems ) {
      for ( const auto& p : res.at( s ).problems ) {
         fmt::print( "  ! {}: {}\n", displayName( s ), p );
      }
   }
}

}  // namespace
}  // namespace Bench

int main( int argc, char** argv ) {
   using namespace Bench;
   Config cfg;
   try {
      cfg = parseArgs( argc, argv );
   } catch ( const std::exception& e ) {
      fmt::print( stderr, "lumen_bench: {}\n", e.what() );
      usage( argv[ 0 ] );
      return 1;
   }
   fmt::print( "lumen_bench: Lumen vs Boost.Interprocess vs LMDB; ratios are Lumen's "
               "advantage (>1 = Lumen better)\n" );
   if ( !kHaveLumen ) {
      fmt::print( "(built without the lumen library: baselines only)\n" );
   }
   fmt::print( "load average at start: {}\n", loadAverage() );
   Summary summary;
   bool problems = false;
   for ( uint64_t n : cfg.sizes ) {
      std::map< std::string, std::vector< Metrics > > runs;
      std::vector< ChildResult > floors;
      // Systems take turns within each run so slow drift on a shared machine
      // hits them alike.
      for ( int r = 0; r < cfg.runs; ++r ) {
         for ( const auto& s : cfg.systems ) {
            fmt::print( stderr, "  {} {} run {}/{}...\n", sizeLabel( n ), displayName( s ),
                        r + 1, cfg.runs );
            runs[ s ].push_back( runOne( cfg, s, n ) );
         }
         if ( std::find( cfg.systems.begin(), cfg.systems.end(), "lumen" ) !=
              cfg.systems.end() ) {
            floors.push_back( measureWakeFloor( cfg ) );
         }
      }
      for ( const auto& [ s, v ] : runs ) {
         for ( const auto& m : v ) {
            problems |= !m.problems.empty();
         }
      }
      report( cfg, n, runs, floors, summary );
   }
   fmt::print( "\nload average at end: {}\n", loadAverage() );
   if ( !summary.lines.empty() ) {
      fmt::print( "\nTargets ({} PASS, {} FAIL):\n", summary.pass, summary.fail );
      for ( const auto& l : summary.lines ) {
         fmt::print( "  {}\n", l );
      }
   }
   return problems ? 2 : 0;
}
