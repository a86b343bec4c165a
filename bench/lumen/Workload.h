// The benchmark workload, written once and run against every system.
//
// Owned by bench/lumen. A system is a class with this shape (no virtual
// calls, so the timing loops hold nothing but the system's own work):
//
//   static constexpr const char* name;
//   static constexpr bool hasBatch;    // Reader::lookupBatch exists
//   static constexpr bool hasNotify;   // Reader::fd/dispatch/onKey exist
//   static constexpr bool hasUnlocked; // Reader::lookupUnlocked exists
//   static constexpr bool hasBatchWrites;   // writeBatch exists
//   void create( uint64_t n );         // fresh and empty, sized for n records
//   void createGrown( uint64_t n );    // fresh and empty, at the system's default size
//   void write( const Host24& );       // insert or replace
//   void writeBatch( const Host24*, size_t );   // several writes, one transaction
//   double bytes40PerEntry( uint64_t n );   // a grown table of n Host40, alone
//   bool lookup( const HostKey&, Host24& out );   // in the writer's process
//   uint64_t count();
//   void clear( uint64_t n );          // remove keys 0..n-1 (never timed)
//   uint64_t bytes();                  // memory the table's segments occupy
//   void destroy();                    // and delete every trace of it (the
//                                      // next create() starts from nothing)
//   class Reader { Reader( const System& ); bool ready( uint64_t n );
//                  bool lookup( const HostKey&, Host24& );
//                  uint64_t iterate( uint64_t& checksum ); ... };
//
// The parent process is the writer. Reader measurements run in a forked
// helper that opens the table by name, as an unrelated process would.
#pragma once

#include "bench/lumen/Harness.h"
#include "bench/lumen/HostRecord.h"

#include <fmt/format.h>

#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace Bench {

// Lookups between clock reads: enough to make the clock's cost vanish, few
// enough that even a starved reader notices the deadline.
constexpr int kChunk = 256;
constexpr int kBatch = 32;

// Runs `chunk` (which does kChunk operations) until `seconds` have passed;
// returns operations per second.
template< class Chunk >
double timedRate( double seconds, Chunk&& chunk, uint64_t* opsOut = nullptr ) {
   uint64_t start = nowNs();
   uint64_t deadline = start + uint64_t( seconds * 1e9 );
   uint64_t ops = 0;
   uint64_t now;
   do {
      chunk();
      ops += kChunk;
   } while ( ( now = nowNs() ) < deadline );
   if ( opsOut ) {
      *opsOut = ops;
   }
   return double( ops ) * 1e9 / double( now - start );
}

// Random lookups of present keys; counts misses and records that are not
// one whole write. Returns lookups per second.
template< class Lookup >
double lookupLoop( double seconds, uint64_t n, uint64_t seed, Lookup&& lookup,
                   ChildResult& r ) {
   IndexStream idx( n, seed );
   uint64_t sum = 0;
   double rate = timedRate( seconds, [ & ] {
      for ( int j = 0; j < kChunk; ++j ) {
         HostKey k = keyFor( idx.next() );
         Host24 out;
         if ( !lookup( k, out ) ) {
            ++r.misses;
            continue;
         }
         if ( !selfConsistent( out ) ) {
            ++r.torn;
         }
         sum += out.a;
      }
   }, &r.lookups );
   asm volatile( "" : : "r"( sum ) );
   return rate;
}

template< class Reader >
double batchLoop( double seconds, uint64_t n, uint64_t seed, Reader& rd,
                  ChildResult& r ) {
   IndexStream idx( n, seed );
   uint64_t sum = 0;
   HostKey keys[ kBatch ];
   Host24 outs[ kBatch ];
   double rate = timedRate( seconds, [ & ] {
      for ( int j = 0; j < kChunk; j += kBatch ) {
         for ( int i = 0; i < kBatch; ++i ) {
            keys[ i ] = keyFor( idx.next() );
         }
         rd.lookupBatch( keys, outs, kBatch );
         for ( int i = 0; i < kBatch; ++i ) {
            if ( !( outs[ i ].k == keys[ i ] ) ) {
               ++r.misses;
            } else if ( !selfConsistent( outs[ i ] ) ) {
               ++r.torn;
            }
            sum += outs[ i ].a;
         }
      }
   } );
   asm volatile( "" : : "r"( sum ) );
   return rate;
}

template< class Reader >
void waitForContent( Reader& rd, uint64_t n ) {
   if ( !spinUntil( [ & ] { return rd.ready( n ); }, 20.0 ) ) {
      throw std::runtime_error(
         fmt::format( "reader never saw all {} records", n ) );
   }
}

// Cross-process, writer idle: lookups, batched lookups, full passes.
template< class System >
ChildResult measureIdleReader( System& sys, const Config& cfg, uint64_t n ) {
   ChildProcess cp;
   cp.start( [ & ]( ChildResult& r, SharedFlags& ) {
      typename System::Reader rd( sys );
      waitForContent( rd, n );
      auto lookup = [ & ]( const HostKey& k, Host24& out ) { return rd.lookup( k, out ); };
      ChildResult warm;
      lookupLoop( std::min( 0.1, cfg.seconds ), n, 99, lookup, warm );
      r.lookupPerSec = lookupLoop( cfg.seconds, n, 7, lookup, r );
      if constexpr ( System::hasUnlocked ) {
         auto unlocked = [ & ]( const HostKey& k, Host24& out ) {
            return rd.lookupUnlocked( k, out );
         };
         r.lookupUnlockedPerSec = lookupLoop( cfg.seconds, n, 7, unlocked, r );
      }
      if constexpr ( System::hasBatch ) {
         r.lookupBatchPerSec = batchLoop( cfg.seconds, n, 11, rd, r );
      }
      // Small tables take microseconds per pass: repeat for a readable time.
      uint64_t passes = 0, checksum = 0, start = nowNs(), now;
      do {
         r.iterated = rd.iterate( checksum );
         ++passes;
      } while ( ( now = nowNs() ) - start < 50000000ull );
      asm volatile( "" : : "r"( checksum ) );
      r.iterateMs = double( now - start ) / 1e6 / double( passes );
      if ( r.iterated != n ) {
         snprintf( r.error, sizeof( r.error ), "iteration saw %lu of %lu records",
                   ( unsigned long )r.iterated, ( unsigned long )n );
      }
   } );
   return cp.wait( 120 );
}

// Cross-process, writer busy: the parent replaces records for as long as the
// helper looks up, as fast as it can (pace 0: a writer that never pauses,
// which measures how a lock treats readers under starvation), or at `pace`
// writes per second, in 1 ms ticks (a writer behind does not sleep).
template< class System >
ChildResult measureBusyReader( System& sys, const Config& cfg, uint64_t n,
                               double& writerRate, uint32_t& version, double pace = 0 ) {
   ChildProcess cp;
   cp.start( [ & ]( ChildResult& r, SharedFlags& f ) {
      typename System::Reader rd( sys );
      waitForContent( rd, n );
      auto lookup = [ & ]( const HostKey& k, Host24& out ) { return rd.lookup( k, out ); };
      ChildResult warm;
      lookupLoop( std::min( 0.1, cfg.seconds ), n, 99, lookup, warm );
      f.readerReady.store( 1 );
      spinUntil( [ & ] { return f.writerGo.load() != 0; }, 30.0 );
      r.lookupPerSec = lookupLoop( cfg.seconds, n, 13, lookup, r );
      f.readerDone.store( 1 );
   } );
   SharedFlags& f = cp.flags();
   spinUntil( [ & ] { return f.readerReady.load() != 0; }, 60.0 );
   IndexStream idx( n, 5 );
   uint64_t writes = 0, start = 0;
   uint64_t limit = nowNs() + uint64_t( ( cfg.seconds * 4 + 30 ) * 1e9 );
   // Paced: kChunk writes per tick of kChunk / pace seconds.
   uint64_t tickNs = pace > 0 ? uint64_t( double( kChunk ) * 1e9 / pace ) : 0;
   uint64_t ticks = 0;
   for ( bool going = false;; ) {
      if ( tickNs && going ) {
         sleepUntil( start + ++ticks * tickNs );
      }
      for ( int j = 0; j < kChunk; ++j ) {
         sys.write( recordFor( keyFor( idx.next() ), ++version ) );
      }
      writes += kChunk;
      if ( !going ) {
         // Only now is the writer really busy: start the reader's clock.
         going = true;
         start = nowNs();
         writes = 0;
         f.writerGo.store( 1 );
      }
      if ( f.readerDone.load() || ( writes % ( ( tickNs ? 1 : 64 ) * kChunk ) == 0 &&
                                    ( cp.finished() || nowNs() > limit ) ) ) {
         break;
      }
   }
   writerRate = double( writes ) * 1e9 / double( nowNs() - start );
   return cp.wait( 60 );
}

// The anonymous memory a reader process adds by opening the table and
// seeing all of it: what every reader costs beyond the shared table.
template< class System >
ChildResult measureReaderPrivate( System& sys, uint64_t n ) {
   ChildProcess cp;
   cp.start( [ & ]( ChildResult& r, SharedFlags& ) {
      uint64_t before = anonymousBytes();
      typename System::Reader rd( sys );
      waitForContent( rd, n );
      uint64_t after = anonymousBytes();
      r.privateBytes = after > before ? after - before : 0;
   } );
   return cp.wait( 120 );
}

// Writer-to-reader notification latency: the parent writes one stamped
// record every period; the helper, woken through the reader's fd, reads each
// notified key back and takes now minus the stamp.
template< class System >
ChildResult measureNotify( System& sys, const Config& cfg, uint64_t n,
                           uint64_t& slowWrites ) {
   ChildProcess cp;
   cp.start( [ & ]( ChildResult& r, SharedFlags& f ) {
      typename System::Reader rd( sys );
      waitForContent( rd, n );
      std::vector< uint64_t > lat;
      lat.reserve( cfg.notifySamples + 16 );
      bool measuring = false, quiesced = false;
      uint64_t last = 0;
      rd.onKey( [ & ]( const HostKey& k ) {
         uint64_t now = nowNs();
         if ( !measuring || quiesced ) {
            return;
         }
         Host24 rec;
         // Only the first sighting of each write counts; a resync or a
         // repeated key would report an old stamp as if it were late.
         if ( rd.lookup( k, rec ) && stamped( rec ) && stampOf( rec ) > last ) {
            last = stampOf( rec );
            lat.push_back( now - last );
         }
      } );
      rd.onQuiesced( [ & ]( bool q ) {
         quiesced = q;
         if ( q && measuring ) {
            ++r.resyncs;
         }
      } );
      pollfd p{ rd.fd(), POLLIN, 0 };
      // Whatever attaching queued (for example a first full pass) is not
      // part of the measurement.
      uint64_t quietSince = nowNs();
      while ( nowNs() - quietSince < 50000000ull ) {
         if ( poll( &p, 1, 10 ) > 0 ) {
            rd.dispatch();
            quietSince = nowNs();
         }
      }
      measuring = true;
      f.readerReady.store( 1 );
      while ( !f.writerStop.load() ) {
         if ( poll( &p, 1, 10 ) > 0 ) {
            rd.dispatch();
         }
      }
      while ( poll( &p, 1, 20 ) > 0 ) {
         rd.dispatch();
      }
      r.samples = lat.size();
      if ( const char* dump = getenv( "LUMEN_BENCH_LATENCY_DUMP" ) ) {
         if ( FILE* out = fopen( dump, "w" ) ) {
            for ( uint64_t v : lat ) {
               fprintf( out, "%lu\n", ( unsigned long )v );
            }
            fclose( out );
         }
      }
      r.p50Us = percentile( lat, 50 ) / 1e3;
      r.p99Us = percentile( lat, 99 ) / 1e3;
      r.maxUs = lat.empty() ? NAN : double( lat.back() ) / 1e3;
   } );
   SharedFlags& f = cp.flags();
   spinUntil( [ & ] { return f.readerReady.load() != 0; }, 60.0 );
   uint64_t period = uint64_t( cfg.notifyPeriodUs ) * 1000;
   // The writer sleeps between writes rather than spinning, so it does not
   // hold a core that the reader and its wake-up thread need (a spinning
   // writer on a 2-core machine mostly measures the scheduler). Timer slack
   // off keeps the pace close to the period.
   int oldSlack = prctl( PR_GET_TIMERSLACK, 0, 0, 0, 0 );
   prctl( PR_SET_TIMERSLACK, 1, 0, 0, 0 );
   uint64_t t0 = nowNs();
   for ( uint64_t i = 0; i < cfg.notifySamples; ++i ) {
      sleepUntil( t0 + i * period );
      // A different key each time, so no two writes coalesce.
      uint64_t stamp = nowNs();
      sys.write( stampedRecord( keyFor( i % n ), stamp ) );
      // A slow write call shows up as latency too; counting them tells a
      // stalled writer from a slow wake-up path.
      if ( nowNs() - stamp > 100000 ) {
         ++slowWrites;
      }
      if ( i % 256 == 255 && cp.finished() ) {
         break;
      }
   }
   if ( oldSlack > 0 ) {
      prctl( PR_SET_TIMERSLACK, oldSlack, 0, 0, 0 );
   }
   f.writerStop.store( 1 );
   return cp.wait( 60 );
}

inline void noteChild( Metrics& m, const char* phase, const ChildResult& r ) {
   if ( !r.ok || r.error[ 0 ] ) {
      m.problems.push_back( fmt::format( "{}: {}", phase,
                                         r.error[ 0 ] ? r.error : "helper failed" ) );
   }
   if ( r.misses ) {
      m.problems.push_back( fmt::format( "{}: {} of {} lookups missed a present key",
                                         phase, r.misses, r.lookups ) );
   }
   if ( r.torn ) {
      m.problems.push_back( fmt::format( "{}: {} torn records", phase, r.torn ) );
   }
   if ( r.resyncs ) {
      m.problems.push_back( fmt::format( "{}: {} resyncs", phase, r.resyncs ) );
   }
}

template< class System >
Metrics runWorkload( System& sys, const Config& cfg, uint64_t n ) {
   Metrics m;
   // Cold inserts: fresh keys into fresh tables sized for n. Creating the
   // table is timed with the inserts: a system that reserves its memory up
   // front (Lumen does) must not hide that work from the clock. Small tables
   // are made again (untimed removal) until the clock has seen enough work.
   uint64_t rounds = std::max< uint64_t >( 1, ( cfg.minInsertOps + n - 1 ) / n );
   {
      uint64_t ns = 0;
      for ( uint64_t r = 0; r < rounds; ++r ) {
         if ( r ) {
            sys.destroy();
         }
         uint64_t t0 = nowNs();
         sys.create( n );
         for ( uint64_t i = 0; i < n; ++i ) {
            sys.write( recordFor( keyFor( r * n + i ), 0 ) );
         }
         ns += nowNs() - t0;
      }
      m.insertColdPerSec = double( rounds * n ) * 1e9 / double( ns );
      if ( sys.count() != n ) {
         m.problems.push_back( fmt::format( "count {} after inserting {}", sys.count(), n ) );
      }
      sys.destroy();
   }
   if constexpr ( System::hasBatchWrites ) {
      std::vector< Host24 > batch( cfg.batchWrites );
      uint64_t ns = 0;
      for ( uint64_t r = 0; r < rounds; ++r ) {
         uint64_t t0 = nowNs();
         sys.create( n );
         for ( uint64_t i = 0; i < n; ) {
            size_t k = 0;
            for ( ; k < batch.size() && i < n; ++k, ++i ) {
               batch[ k ] = recordFor( keyFor( r * n + i ), 0 );
            }
            sys.writeBatch( batch.data(), k );
         }
         ns += nowNs() - t0;
         sys.destroy();
      }
      m.insertBatchedPerSec = double( rounds * n ) * 1e9 / double( ns );
   }

   // Memory: a table grown from the system's default size, what one reader
   // process adds to it, and 40-byte records.
   sys.createGrown( n );
   for ( uint64_t i = 0; i < n; ++i ) {
      sys.write( recordFor( keyFor( i ), 0 ) );
   }
   m.bytesGrownPerEntry = double( sys.bytes() ) / double( n );
   {
      ChildResult pr = measureReaderPrivate( sys, n );
      noteChild( m, "reader memory", pr );
      if ( pr.ok ) {
         m.readerPrivatePerEntry = double( pr.privateBytes ) / double( n );
         m.bytesGrownOneReaderPerEntry = m.bytesGrownPerEntry + m.readerPrivatePerEntry;
      }
   }
   sys.destroy();
   m.bytesGrown40PerEntry = sys.bytes40PerEntry( n );

   // Inserts into an empty table sized for n, as before: small tables are
   // emptied (untimed) and refilled, so most of these inserts reuse slots
   // or nodes the previous round warmed.
   uint64_t insertNs = nowNs();
   sys.create( n );
   insertNs = nowNs() - insertNs;
   for ( uint64_t r = 0; r < rounds; ++r ) {
      if ( r ) {
         sys.clear( n );
      }
      uint64_t t0 = nowNs();
      for ( uint64_t i = 0; i < n; ++i ) {
         sys.write( recordFor( keyFor( i ), 0 ) );
      }
      insertNs += nowNs() - t0;
   }
   m.insertPerSec = double( rounds * n ) * 1e9 / double( insertNs );
   if ( sys.count() != n ) {
      m.problems.push_back( fmt::format( "count {} after inserting {}", sys.count(), n ) );
   }

   uint32_t version = 0;
   {
      IndexStream idx( n, 3 );
      m.replacePerSec = timedRate( cfg.seconds, [ & ] {
         for ( int j = 0; j < kChunk; ++j ) {
            sys.write( recordFor( keyFor( idx.next() ), ++version ) );
         }
      } );
   }
   m.bytesPerEntry = double( sys.bytes() ) / double( n );

   {
      ChildResult local;
      m.lookupLocalPerSec = lookupLoop(
         cfg.seconds, n, 17,
         [ & ]( const HostKey& k, Host24& out ) { return sys.lookup( k, out ); }, local );
      local.ok = 1;
      noteChild( m, "writer-process lookups", local );
   }

   ChildResult idle = measureIdleReader( sys, cfg, n );
   noteChild( m, "idle reader", idle );
   m.lookupIdlePerSec = idle.lookupPerSec;
   m.lookupIdleBatchPerSec = idle.lookupBatchPerSec;
   m.lookupIdleUnlockedPerSec = idle.lookupUnlockedPerSec;
   m.iterateMs = idle.iterateMs;

   ChildResult paced =
      measureBusyReader( sys, cfg, n, m.writerPacedPerSec, version, cfg.pacedWritesPerSec );
   noteChild( m, "paced-writer reader", paced );
   m.lookupPacedPerSec = paced.lookupPerSec;

   ChildResult busy = measureBusyReader( sys, cfg, n, m.writerBusyPerSec, version );
   noteChild( m, "busy reader", busy );
   m.lookupBusyPerSec = busy.lookupPerSec;

   if constexpr ( System::hasNotify ) {
      uint64_t slowWrites = 0;
      ChildResult nr = measureNotify( sys, cfg, n, slowWrites );
      m.notifySlowWrites = double( slowWrites );
      noteChild( m, "notification", nr );
      m.notifyP50Us = nr.p50Us;
      m.notifyP99Us = nr.p99Us;
      m.notifyMaxUs = nr.maxUs;
      if ( nr.samples < cfg.notifySamples * 9 / 10 ) {
         m.problems.push_back( fmt::format( "notification: only {} samples of {} writes",
                                            nr.samples, cfg.notifySamples ) );
      }
   }

   sys.destroy();
   return m;
}

}  // namespace Bench
