// Writer liveness: whether a table's writer lives, and the verdict on a slot
// it left mid-update.
#include "platform/lumen/internal/Files.h"
#include "platform/lumen/internal/Wake.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <signal.h>
#include <thread>

namespace Lumen::internal {

bool processAlive( uint32_t pid ) {
   if ( pid == 0 || pid > uint32_t( INT_MAX ) ) {
      return false;
   }
   return ::kill( pid_t( pid ), 0 ) == 0 || errno == EPERM;
}

// The writer lock is an open-file-description lock, not a flock(), because
// only those can be tested without being taken: a reader that took the lock
// for a moment, even shared, could make a starting writer's attach fail.
// The whole file is locked, so a shared query conflicts with it.
bool takeWriterLock( int fd ) {
   struct flock lock {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   return ::fcntl( fd, F_OFD_SETLK, &lock ) == 0;
}

int writerLockHeld( int fd ) {
   if ( fd < 0 ) {
      return -1;
   }
   struct flock lock {};
   lock.l_type = F_RDLCK;
   lock.l_whence = SEEK_SET;
   if ( ::fcntl( fd, F_OFD_GETLK, &lock ) != 0 ) {
      return -1;
   }
   return lock.l_type != F_UNLCK;
}

// A pid alone proves nothing: kill( pid, 0 ) succeeds on a writer that was
// killed and not yet reaped (a zombie), and on whatever process got its pid
// since. The lock is dropped by the kernel when the writer's descriptors
// close, which happens before it becomes a zombie, and nobody else holds it.
bool writerAlive( const ControlHeader& h, int lockFd ) {
   int held = writerLockHeld( lockFd );
   if ( held >= 0 ) {
      return held == 1;
   }
   return processAlive( h.writerPid.load( std::memory_order_relaxed ) );
}

MountStatus statusOf( const ControlHeader& h, int lockFd ) {
   switch ( WriterState( h.writerState.load( std::memory_order_acquire ) ) ) {
    case WriterState::attached:
      return writerAlive( h, lockFd ) ? MountStatus::mounted : MountStatus::writerGone;
    case WriterState::detached:
      return MountStatus::writerGone;
    case WriterState::none:
      break;
   }
   return MountStatus::waitingForWriter;
}

namespace {

// Up to size - 1 bytes of a /proc file, NUL-terminated; false if unreadable.
bool readProc( const std::string& name, char* buf, size_t size ) {
   int fd = ::open( name.c_str(), O_RDONLY | O_CLOEXEC );
   ssize_t n = fd >= 0 ? ::read( fd, buf, size - 1 ) : -1;
   if ( fd >= 0 ) {
      ::close( fd );
   }
   if ( n <= 0 ) {
      return false;
   }
   buf[ n ] = 0;
   return true;
}

// The writer's changing thread as a /proc directory: its own when the header
// names it, else the process (whose figures then mix in every thread).
std::string writerTask( uint32_t pid, uint32_t tid ) {
   return tid ? fmt::format( "/proc/{}/task/{}", pid, tid ) : fmt::format( "/proc/{}", pid );
}

// CPU time the writer's thread has used so far, or -1 when it cannot be read.
int64_t cpuTimeNs( uint32_t pid, uint32_t tid ) {
   char buf[ 128 ];
   if ( readProc( writerTask( pid, tid ) + "/schedstat", buf, sizeof( buf ) ) ) {
      return int64_t( std::strtoull( buf, nullptr, 10 ) );
   }
   clockid_t clock;
   struct timespec ts {};
   if ( tid || ::clock_getcpuclockid( pid_t( pid ), &clock ) != 0 ||
        ::clock_gettime( clock, &ts ) != 0 ) {
      return -1;
   }
   return int64_t( ts.tv_sec ) * 1000000000 + ts.tv_nsec;
}

// True unless the writer's thread is runnable (or running): the scheduler
// state letter of its stat file. A thread that is gone while its process
// lives will never finish the copy, so it counts as idle.
bool writerIdle( uint32_t pid, uint32_t tid ) {
   char buf[ 512 ];
   if ( !readProc( writerTask( pid, tid ) + "/stat", buf, sizeof( buf ) ) ) {
      return tid != 0;
   }
   const char* paren = std::strrchr( buf, ')' );
   return paren && paren[ 1 ] == ' ' && paren[ 2 ] != 'R';
}

}  // namespace

namespace {
std::atomic< uint64_t > busySlotReadCount{ 0 };
}

uint64_t busySlotReads() {
   return busySlotReadCount.load( std::memory_order_relaxed );
}

uint32_t readBusySlot( const StuckContext& ctx, const std::atomic< uint32_t >& word, uint32_t slot,
                       void* out, const void* record, size_t size ) {
   busySlotReadCount.fetch_add( 1, std::memory_order_relaxed );
   auto since = std::chrono::steady_clock::now();
   uint32_t lastSeen = word.load( std::memory_order_relaxed );
   int64_t writerCpuSince = -1;
   for ( uint32_t spins = 1;; ++spins ) {
      uint32_t before = word.load( std::memory_order_acquire );
      uint32_t state = before & 3;
      if ( state == slotEmpty || state == slotTombstone ) {
         return state;
      }
      if ( state == slotLive ) {
         std::memcpy( out, record, size );
         std::atomic_thread_fence( std::memory_order_acquire );
         if ( word.load( std::memory_order_relaxed ) == before ) {
            return slotLive;
         }
      }
      if ( spins % 64 == 0 ) {
         std::this_thread::yield();
      }
      if ( spins % 256 != 0 ) {
         continue;
      }
      // A word that moves belongs to a writer making progress.
      auto now = std::chrono::steady_clock::now();
      if ( before != lastSeen ) {
         lastSeen = before;
         since = now;
         writerCpuSince = -1;
      }
      const ControlHeader& h = ctx.control->header();
      uint32_t writer = h.writerPid.load( std::memory_order_relaxed );
      const char* why = nullptr;
      if ( h.writerState.load( std::memory_order_acquire ) != uint32_t( WriterState::attached ) ) {
         why = "no writer is attached";
      } else if ( !ctx.control->writerAlive() ) {
         why = "its writer is gone";
      } else if ( now - since > slotStuckLimit ) {
         // A writer that merely lost its processor mid-copy is runnable and
         // has not run since; one that sleeps, or ran for a while, without
         // finishing a single record copy has abandoned the slot.
         uint32_t tid = h.writerTid.load( std::memory_order_relaxed );
         int64_t cpu = cpuTimeNs( writer, tid );
         writerCpuSince = writerCpuSince < 0 ? cpu : writerCpuSince;
         bool ran = cpu >= 0 && cpu - writerCpuSince >= 2000000;
         if ( ran || writerIdle( writer, tid ) || now - since > slotStuckHardLimit ) {
            why = "it stayed busy too long";
         }
      }
      // The verdict rests on facts gathered after `before` was loaded: a
      // copy that completed meanwhile clears the slot.
      if ( why && word.load( std::memory_order_acquire ) == before ) {
         raiseCorruption( *ctx.handler, fmt::format( "Lumen table {}: slot {} was left mid-update ({})",
                                                     *ctx.path, slot, why ) );
      }
   }
}

}  // namespace Lumen::internal
