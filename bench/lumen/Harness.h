// Harness for the Lumen benchmark: clocks, forked helper processes, results.
//
// Owned by bench/lumen. Single-threaded: the parent process plays the writer
// and forks one helper process at a time for the cross-process measurements.
// A helper writes exactly one ChildResult into a pipe and leaves with
// _exit(), so it never runs destructors of objects it inherited (a Writer or
// a database handle that belongs to the parent).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Bench {

// What the command line sets.
struct Config {
   std::vector< uint64_t > sizes;
   std::vector< std::string > systems;
   int runs = 3;
   double seconds = 0.4;              // length of each time-bounded phase
   uint64_t minInsertOps = 200000;    // small tables are refilled until this many
   uint64_t notifySamples = 8000;
   uint32_t notifyPeriodUs = 80;
   double pacedWritesPerSec = 100000;   // every writer's pace in the paced-reader row
   uint32_t batchWrites = 1000;         // writes per transaction in the batched row
   std::string shmParent = "/dev/shm";
   bool markdown = false;
};

// One run of one system at one size. NaN means "not measured / n/a".
struct Metrics {
   double insertColdPerSec = NAN;      // fresh keys into fresh tables, creation included
   double insertBatchedPerSec = NAN;   // the same, batchWrites per transaction (LMDB only)
   double insertPerSec = NAN;
   double replacePerSec = NAN;
   double lookupLocalPerSec = NAN;
   double lookupIdlePerSec = NAN;
   double lookupIdleBatchPerSec = NAN;
   double lookupIdleUnlockedPerSec = NAN;   // Boost only: no sharable lock per lookup
   double lookupPacedPerSec = NAN;          // writer paced at Config::pacedWritesPerSec
   double writerPacedPerSec = NAN;
   double lookupBusyPerSec = NAN;
   double writerBusyPerSec = NAN;
   double iterateMs = NAN;
   double notifyP50Us = NAN;
   double notifyP99Us = NAN;
   double notifyMaxUs = NAN;
   double notifySlowWrites = NAN;   // paced writes whose write() took > 100 us
   double bytesPerEntry = NAN;
   double bytesGrownPerEntry = NAN;       // table grown from its default size
   double bytesGrown40PerEntry = NAN;     // same, 40-byte records
   double readerPrivatePerEntry = NAN;    // anonymous memory one reader process adds
   double bytesGrownOneReaderPerEntry = NAN;   // grown table plus one reader's private memory
   std::vector< std::string > problems;   // misses, torn reads, helper failures
};

uint64_t nowNs() noexcept;   // CLOCK_MONOTONIC, comparable across processes

// Flags shared with a forked helper through an anonymous shared mapping.
struct SharedFlags {
   std::atomic< uint32_t > readerReady{ 0 };   // helper: attached, warm
   std::atomic< uint32_t > writerGo{ 0 };      // parent: writer is running
   std::atomic< uint32_t > readerDone{ 0 };    // helper: measurement over
   std::atomic< uint32_t > writerStop{ 0 };    // parent: no more writes
   std::atomic< uint32_t > wakeWord{ 0 };      // parent: futex word of the wake floor
   std::atomic< uint64_t > wakeStamp{ 0 };     // parent: time of the last wake
};

// What a helper reports. Plain bytes, smaller than PIPE_BUF, so one write()
// delivers it whole.
struct ChildResult {
   double lookupPerSec = NAN;
   double lookupBatchPerSec = NAN;
   double lookupUnlockedPerSec = NAN;
   double iterateMs = NAN;
   uint64_t privateBytes = 0;
   uint64_t lookups = 0;
   uint64_t misses = 0;
   uint64_t torn = 0;
   uint64_t iterated = 0;
   double p50Us = NAN;
   double p99Us = NAN;
   double maxUs = NAN;
   uint64_t samples = 0;
   uint64_t resyncs = 0;
   int ok = 0;
   char error[ 256 ] = {};
};

// A forked helper process. start() forks and runs `body` in the child;
// the parent may keep working and poll finished(), then collect with wait().
class ChildProcess {
 public:
   ChildProcess();
   ~ChildProcess();
   ChildProcess( const ChildProcess& ) = delete;
   ChildProcess& operator=( const ChildProcess& ) = delete;

   SharedFlags& flags() { return *flags_; }
   void start( const std::function< void ( ChildResult&, SharedFlags& ) >& body );
   bool finished() const;   // result written or helper gone
   // Waits at most timeoutSec; a helper that overstays is killed and the
   // result says so.
   ChildResult wait( double timeoutSec );

 private:
   SharedFlags* flags_ = nullptr;
   pid_t pid_ = -1;
   int readFd_ = -1;
};

// What a cross-process wake-up costs on this machine right now, whatever
// the table: the parent stamps the time and wakes a helper blocked in
// FUTEX_WAIT on a shared word, paced like the notification phase; the helper
// takes now minus the stamp. No notification scheme that wakes a sleeping
// process can beat this, so it calibrates the notification row.
ChildResult measureWakeFloor( const Config& cfg );

// Sleeps until `deadlineNs` (CLOCK_MONOTONIC).
void sleepUntil( uint64_t deadlineNs );

// Spins until `pred` holds or `timeoutSec` passes; false on timeout.
bool spinUntil( const std::function< bool () >& pred, double timeoutSec );

// Bytes the files under `path` occupy (st_blocks * 512, recursively): what a
// tmpfs segment really costs, not its sparse size.
uint64_t allocatedBytes( const std::string& path );

// A fresh private directory under `parent`; removeTree() deletes it.
std::string makeTempDir( const std::string& parent, const std::string& tag );
void removeTree( const std::string& path );

// Anonymous resident memory of the calling process, in bytes.
uint64_t anonymousBytes();

// Percentile (0..100) of unsorted samples; sorts them.
double percentile( std::vector< uint64_t >& v, double pct );

double median( std::vector< double > v );   // ignores NaN; NaN if none

}  // namespace Bench
