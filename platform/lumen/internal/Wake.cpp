// The wake-up protocol: the writer pokes armed readers' sockets and wakes
// fallback sleepers on a futex; whoever meets a dead reader's leftovers
// (registration, socket, sleeper count) clears them.
#include "platform/lumen/internal/Files.h"
#include "platform/lumen/internal/Wake.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <thread>

namespace Lumen::internal {

int futexWakeAll( std::atomic< uint32_t >* word ) {
   return int( ::syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAKE, INT_MAX,
                          nullptr, nullptr, 0 ) );
}

void futexWait( std::atomic< uint32_t >* word, uint32_t expected, int timeoutMs ) {
   struct timespec ts { timeoutMs / 1000, long( timeoutMs % 1000 ) * 1000000L };
   ::syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAIT, expected, &ts, nullptr,
              0 );
}

bool registerFenceFreeWriter() {
   static const bool registered =
      ::syscall( SYS_membarrier, MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED, 0, 0 ) == 0;
   return registered;
}

void readerBarrier() {
   ::syscall( SYS_membarrier, MEMBARRIER_CMD_GLOBAL_EXPEDITED, 0, 0 );
}

WakeHeader& wakeHeader( const Mapping& m ) {
   return *reinterpret_cast< WakeHeader* >( m.data() );
}

ReaderSlot& readerSlot( const Mapping& m, uint32_t i ) {
   return reinterpret_cast< ReaderSlot* >( m.data() + sizeof( WakeHeader ) )[ i ];
}

bool wakeHeaderValid( const WakeHeader& w ) {
   return w.magic == wakeMagic && w.formatVersion == wakeFormatVersion &&
          w.headerSize == sizeof( WakeHeader ) && w.slotCount == wakeReaderSlots &&
          w.slotSize == sizeof( ReaderSlot );
}

bool restoreWakeHeader( WakeHeader& w ) {
   auto& magic = reinterpret_cast< std::atomic< uint64_t >& >( w.magic );
   uint64_t seen = magic.load( std::memory_order_acquire );
   if ( seen != wakeMagic && seen != 0 ) {
      return false;
   }
   if ( wakeHeaderValid( w ) ) {
      return true;
   }
   w.formatVersion = wakeFormatVersion;
   w.headerSize = sizeof( WakeHeader );
   w.slotCount = wakeReaderSlots;
   w.slotSize = sizeof( ReaderSlot );
   magic.store( wakeMagic, std::memory_order_release );
   return true;
}

namespace {

// Maps an open wake file if it is a regular file of `owner`, of the full
// size; closes fd either way.
Mapping mapWake( int fd, uid_t owner, FileIdentity* identity ) {
   struct stat st {};
   if ( ::fstat( fd, &st ) != 0 || !S_ISREG( st.st_mode ) || st.st_uid != owner ||
        size_t( st.st_size ) < wakeSegmentSize ) {
      ::close( fd );
      return {};
   }
   *identity = { uint64_t( st.st_dev ), uint64_t( st.st_ino ) };
   try {
      return mapClosing( fd, wakeSegmentSize, true );
   } catch ( const Mox::Exception& ) {
      return {};   // also called on a reader's thread, which must not throw
   }
}

}  // namespace

Mapping openWakeForWriter( const std::string& name, const FileAccess& access,
                           FileIdentity* identity ) {
   for ( int attempt = 0; attempt < 3; ++attempt ) {
      TableFile file = TableFile::open( name, O_RDWR, ::geteuid() );
      if ( file ) {
         file.conform( access.wakeMode, access.group );
         Mapping map = mapWake( file.release(), ::geteuid(), identity );
         if ( map && restoreWakeHeader( wakeHeader( map ) ) ) {
            return map;
         }
         // Ours but of another layout or size: readers mapping it notice it
         // replaced and move to the new one.
         if ( ::unlink( name.c_str() ) != 0 && errno != ENOENT ) {
            MOX_THROW( Mox::Exception, "Lumen cannot replace {}: {}", name, errnoText() );
         }
         continue;
      }
      if ( !file.absent() ) {
         file.require();   // a link, another user's file, not a regular file
      }
      file = TableFile::create( name, access.wakeMode, access.group );
      if ( file.exists() ) {
         continue;   // made meanwhile: open that one
      }
      file.require();
      if ( int err = reserve( file.fd(), wakeSegmentSize ) ) {
         ::unlink( name.c_str() );
         raiseSizeError( name, err );
      }
      Mapping map = mapWake( file.release(), ::geteuid(), identity );
      if ( !map ) {
         ::unlink( name.c_str() );
         MOX_THROW( Mox::Exception, "Lumen cannot map {}", name );
      }
      restoreWakeHeader( wakeHeader( map ) );   // magic last: readers wait for it
      return map;
   }
   MOX_THROW( Mox::Exception, "Lumen cannot settle on a wake file {}", name );
}

Mapping openWakeForReader( const std::string& name, uid_t owner, FileIdentity* identity ) {
   int fd = ::open( name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC );
   if ( fd < 0 ) {
      return {};
   }
   Mapping map = mapWake( fd, owner, identity );
   if ( map && !restoreWakeHeader( wakeHeader( map ) ) ) {
      return {};
   }
   return map;
}

bool reclaimIfDead( const Mapping& m, const std::string& root, uint32_t i ) {
   ReaderSlot& slot = readerSlot( m, i );
   uint32_t pid = slot.pid.load( std::memory_order_acquire );
   uint32_t nonce = slot.nonce.load( std::memory_order_acquire );
   if ( pid == 0 || processAlive( pid ) || !slot.pid.compare_exchange_strong( pid, 0 ) ) {
      return false;
   }
   // Its flag, if set, pokes nobody: a free registration is skipped.
   ::unlink( readerSocketName( root, pid, nonce ).c_str() );
   return true;
}

void dropSleeper( WakeHeader& w ) {
   uint32_t n = w.sleepers.load( std::memory_order_relaxed );
   while ( n != 0 && !w.sleepers.compare_exchange_weak( n, n - 1, std::memory_order_seq_cst ) ) {
   }
}

uint32_t reapDeadSleepers( WakeHeader& w ) {
   uint32_t reaped = 0;
   for ( auto& entry : w.sleeperPids ) {
      uint32_t pid = entry.load( std::memory_order_relaxed );
      if ( pid != 0 && !processAlive( pid ) && entry.compare_exchange_strong( pid, 0 ) ) {
         dropSleeper( w );
         ++reaped;
      }
   }
   return reaped;
}

// A non-blocking datagram socket connected to `name`, or -1.
int connectTo( const std::string& name ) {
   sockaddr_un addr {};
   addr.sun_family = AF_UNIX;
   if ( name.size() >= sizeof( addr.sun_path ) ) {
      return -1;
   }
   std::memcpy( addr.sun_path, name.c_str(), name.size() + 1 );
   int fd = ::socket( AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
   if ( fd >= 0 && ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof( addr ) ) != 0 ) {
      ::close( fd );
      fd = -1;
   }
   return fd;
}

// False when the peer is gone; a full queue is success: the socket is
// readable already.
bool sendPoke( int fd ) {
   char byte = 1;
   return ::send( fd, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL ) == 1 || errno == EAGAIN ||
          errno == EWOULDBLOCK;
}

void Control::wake() {
   if ( !wake_ ) {
      return;
   }
   // Dekker pairing with Notifier::arm() (and the fallback thread): we store
   // the feed head, then load the armed bits and sleepers; a reader sets its
   // bit, then loads the head. One side needs a store-load barrier. Paying
   // it here would stall every write on the write's own cache miss, so when
   // membarrier is available the reader pays it instead (readerBarrier())
   // and this is only a compiler barrier.
   if ( fenceFree_ ) {
      std::atomic_signal_fence( std::memory_order_seq_cst );
   } else {
      std::atomic_thread_fence( std::memory_order_seq_cst );
   }
   WakeHeader& w = wakeHeader( wake_ );
   // The whole bitmap, two cache lines: no count or bound that damage could
   // turn into silence. A line changes only when a reader arms, so its miss
   // is paid once per reader dispatch, not per change.
   uint64_t any = 0;
   for ( uint32_t k = 0; k < wakeReaderSlots / 64; ++k ) {
      any |= w.armed[ k ].load( std::memory_order_relaxed );
   }
   if ( any != 0 ) [[unlikely]] {
      pokeOrDefer();
   }
   uint32_t sleepers = w.sleepers.load( std::memory_order_relaxed );
   if ( sleepers != 0 && sleepers != deadSleepers_ ) [[unlikely]] {
      wakeSleepers( sleepers );
   }
   if ( ++changesSinceCheck_ >= 64 ) [[unlikely]] {
      changesSinceCheck_ = 0;
      auto now = std::chrono::steady_clock::now();
      if ( now - lastSweep_ >= std::chrono::seconds( 1 ) ) {
         sweepWake();
      }
   }
}

void Control::wakeSleepers( uint32_t sleepers ) {
   WakeHeader& w = wakeHeader( wake_ );
   w.seq.fetch_add( 1, std::memory_order_seq_cst );
   // A live sleeper is caught by some wake within a second of changes; a
   // count that none catches belongs to a reader killed mid-sleep. Those
   // that left their pid are taken off the count; for the rest the wake is
   // skipped until the count changes. Not waking them costs a live one
   // nothing it cannot see itself: its wait is bounded, and it re-checks the
   // feed after it.
   if ( futexWakeAll( &w.seq ) > 0 ) {
      missedSince_ = {};
   } else if ( missedSince_ == std::chrono::steady_clock::time_point{} ) {
      missedSince_ = std::chrono::steady_clock::now();
   } else if ( std::chrono::steady_clock::now() - missedSince_ > std::chrono::seconds( 1 ) ) {
      if ( reapDeadSleepers( w ) == 0 ) {
         deadSleepers_ = sleepers;
      }
      missedSince_ = {};
   }
}

namespace {

// How long a scan that poked k readers holds off the next, per reader (none
// for a single one): the writer's thread then spends at most about a
// poke's cost (a wake-up of a sleeping process, 1-3 us) per pokeSpacing on
// pokes, and a reader dispatches at most once per k * pokeSpacing while
// the table keeps changing. The readers' own work follows from that: each
// dispatch delivers what changed since the last, so on a small machine
// their dispatch rate decides how much processor time they take from the
// writer (64 readers: 100 us left the writer under half its one-reader
// rate in wall time on two cores, 400 us left it all). A first change
// after a quiet spell still reaches every reader at once.
constexpr auto pokeSpacing = std::chrono::microseconds( 400 );

int64_t sinceEpochNs( std::chrono::steady_clock::time_point t ) {
   return std::chrono::duration_cast< std::chrono::nanoseconds >( t.time_since_epoch() ).count();
}

}  // namespace

void Control::pokeOrDefer() {
   if ( flushPending_.load( std::memory_order_relaxed ) != 0 ) {
      return;   // the flusher scans at its time, and sees this change
   }
   auto now = std::chrono::steady_clock::now();
   if ( sinceEpochNs( now ) >= nextScanNs_.load( std::memory_order_relaxed ) &&
        pokeMutex_.try_lock() ) {
      scanArmed( now );
      pokeMutex_.unlock();
      return;
   }
   flushPending_.store( 1, std::memory_order_seq_cst );
   if ( !flusher_.joinable() ) {
      flusher_ = std::thread( [ this ] { runFlusher(); } );
   }
   futexWakeAll( &flushPending_ );
}

void Control::scanArmed( std::chrono::steady_clock::time_point now ) {
   WakeHeader& w = wakeHeader( wake_ );
   scannedHead_ = header().feedHead.load( std::memory_order_acquire );
   uint32_t poked = 0;
   for ( uint32_t k = 0; k < wakeReaderSlots / 64; ++k ) {
      if ( w.armed[ k ].load( std::memory_order_relaxed ) != 0 ) {
         poked += pokeArmed( k );
      }
   }
   auto holdOff = poked > 1 ? pokeSpacing * poked : std::chrono::microseconds( 0 );
   nextScanNs_.store( sinceEpochNs( now + holdOff ), std::memory_order_relaxed );
}

void Control::runFlusher() {
   WakeHeader& w = wakeHeader( wake_ );
   for ( ;; ) {
      while ( flushPending_.load( std::memory_order_acquire ) == 0 ) {
         if ( flusherStop_.load( std::memory_order_acquire ) ) {
            return;
         }
         futexWait( &flushPending_, 0, 100 );
      }
      if ( flusherStop_.load( std::memory_order_acquire ) ) {
         return;
      }
      std::this_thread::sleep_until( std::chrono::steady_clock::time_point(
         std::chrono::nanoseconds( nextScanNs_.load( std::memory_order_relaxed ) ) ) );
      std::lock_guard lock( pokeMutex_ );
      if ( header().feedHead.load( std::memory_order_acquire ) != scannedHead_ ) {
         scanArmed( std::chrono::steady_clock::now() );
      }
      // Dekker pairing with pokeOrDefer(): we clear the flag, then look for
      // a change; the writer stores the head, then looks at the flag. The
      // store-load barrier on the writer's side is ours to pay, as a
      // reader's is (see Control::wake()).
      flushPending_.store( 0, std::memory_order_seq_cst );
      if ( fenceFree_ ) {
         readerBarrier();
      } else {
         std::atomic_thread_fence( std::memory_order_seq_cst );
      }
      uint64_t any = 0;
      for ( const auto& word : w.armed ) {
         any |= word.load( std::memory_order_relaxed );
      }
      if ( any != 0 && header().feedHead.load( std::memory_order_acquire ) != scannedHead_ ) {
         flushPending_.store( 1, std::memory_order_relaxed );
      }
   }
}

// Stops the flusher and makes the scan it owed: on detach and destruction
// no change may be left unannounced.
void Control::stopFlusher() {
   if ( !flusher_.joinable() ) {
      return;
   }
   flusherStop_.store( true, std::memory_order_release );
   flushPending_.store( 1, std::memory_order_seq_cst );
   futexWakeAll( &flushPending_ );
   flusher_.join();
   std::lock_guard lock( pokeMutex_ );
   if ( header().feedHead.load( std::memory_order_acquire ) != scannedHead_ ) {
      scanArmed( std::chrono::steady_clock::now() );
   }
}

uint32_t Control::pokeArmed( uint32_t word ) {
   WakeHeader& w = wakeHeader( wake_ );
   uint64_t bits = w.armed[ word ].exchange( 0, std::memory_order_acq_rel );
   uint32_t poked = 0;
   while ( bits != 0 ) {
      uint32_t i = word * 64 + uint32_t( std::countr_zero( bits ) );
      bits &= bits - 1;
      poke( i );
      ++poked;
   }
   return poked;
}

void Control::poke( uint32_t i ) {
   ReaderSlot& slot = readerSlot( wake_, i );
   uint32_t pid = slot.pid.load( std::memory_order_acquire );
   uint32_t nonce = slot.nonce.load( std::memory_order_acquire );
   if ( pid == 0 ) {
      return;
   }
   Peer& peer = peers_[ i ];
   if ( peer.fd < 0 || peer.pid != pid || peer.nonce != nonce ) {
      if ( peer.fd >= 0 ) {
         ::close( peer.fd );
      }
      peer = { pid, nonce, connectTo( readerSocketName( root_, pid, nonce ) ) };
   }
   if ( peer.fd >= 0 && sendPoke( peer.fd ) ) {
      return;
   }
   if ( peer.fd >= 0 ) {
      ::close( peer.fd );
      peer.fd = -1;
   }
   // A live reader binds its socket before it first arms, so a failure means
   // it died (or its registration was damaged, which it repairs itself).
   reclaimIfDead( wake_, root_, i );
}

// Once a second of changes, and at attach: whatever damage or dead readers
// left in the segment that no poke would meet.
void Control::sweepWake() {
   std::lock_guard lock( pokeMutex_ );
   lastSweep_ = std::chrono::steady_clock::now();
   WakeHeader& w = wakeHeader( wake_ );
   if ( !wakeHeaderValid( w ) ) {
      restoreWakeHeader( w );
   }
   if ( w.writerFenceFree.load( std::memory_order_relaxed ) != ( fenceFree_ ? 1u : 0u ) ) {
      w.writerFenceFree.store( fenceFree_ ? 1 : 0, std::memory_order_seq_cst );
      std::atomic_thread_fence( std::memory_order_seq_cst );
   }
   for ( uint32_t i = 0; i < wakeReaderSlots; ++i ) {
      ReaderSlot& slot = readerSlot( wake_, i );
      Peer& peer = peers_[ i ];
      if ( slot.pid.load( std::memory_order_relaxed ) != 0 ) {
         reclaimIfDead( wake_, root_, i );
      }
      if ( peer.fd >= 0 && ( peer.pid != slot.pid.load( std::memory_order_relaxed ) ||
                             peer.nonce != slot.nonce.load( std::memory_order_relaxed ) ) ) {
         ::close( peer.fd );   // its reader left, or died
         peer = {};
      }
   }
   if ( reapDeadSleepers( w ) != 0 ) {
      deadSleepers_ = ~0u;
   }
}

}  // namespace Lumen::internal
