// The wake-up protocol: the writer pokes armed readers' sockets and wakes
// fallback sleepers on a futex.
#include "platform/lumen/internal/Files.h"
#include "platform/lumen/internal/Wake.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

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

Mapping openWakeWord( const std::string& name, const FileAccess* writer ) {
   int fd = openWakeFile( name, writer );
   if ( fd < 0 ) {
      return {};
   }
   // Whoever comes first sizes it; sizing twice to the same length is
   // harmless, and a segment of an older, shorter layout grows zero-filled.
   if ( fileSize( fd ) < wakeSegmentSize && ::ftruncate( fd, wakeSegmentSize ) != 0 ) {
      ::close( fd );
      return {};
   }
   Mapping map;
   try {
      map = mapClosing( fd, wakeSegmentSize, true );
   } catch ( const Mox::Exception& ) {
      return {};   // also called on a reader's thread, which must not throw
   }
   auto* h = reinterpret_cast< WakeHeader* >( map.data() );
   h->magic = wakeMagic;
   return map;
}

WakeHeader& wakeHeader( const Mapping& m ) {
   return *reinterpret_cast< WakeHeader* >( m.data() );
}

ReaderSlot& readerSlot( const Mapping& m, uint32_t i ) {
   return reinterpret_cast< ReaderSlot* >( m.data() + sizeof( WakeHeader ) )[ i ];
}

// Clears a reader's armed flag, keeping armedCount in step; true when it
// was armed (so exactly one of several racing callers sees true).
bool disarm( WakeHeader& w, ReaderSlot& slot ) {
   if ( slot.armed.exchange( 0, std::memory_order_acq_rel ) != 1 ) {
      return false;
   }
   w.armedCount.fetch_sub( 1, std::memory_order_relaxed );
   return true;
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
   // the feed head, then load the armed flags and sleepers; a reader sets its
   // flag, then loads the head. One side needs a store-load barrier. Paying
   // it here would stall every write on the write's own cache miss, so when
   // membarrier is available the reader pays it instead (readerBarrier())
   // and this is only a compiler barrier.
   if ( fenceFree_ ) {
      std::atomic_signal_fence( std::memory_order_seq_cst );
   } else {
      std::atomic_thread_fence( std::memory_order_seq_cst );
   }
   WakeHeader& w = wakeHeader( wake_ );
   if ( w.armedCount.load( std::memory_order_relaxed ) != 0 ) {
      pokeArmedReaders();
   }
   uint32_t sleepers = w.sleepers.load( std::memory_order_relaxed );
   if ( sleepers != 0 && sleepers != deadSleepers_ ) {
      w.seq.fetch_add( 1, std::memory_order_seq_cst );
      // A live sleeper is caught by some wake within a second of changes; a
      // count that none catches belongs to a reader killed mid-sleep. Not
      // waking it costs a live one nothing it cannot see itself: its wait is
      // bounded, and it re-checks the feed after it.
      if ( futexWakeAll( &w.seq ) > 0 ) {
         missedSince_ = {};
      } else if ( missedSince_ == std::chrono::steady_clock::time_point{} ) {
         missedSince_ = std::chrono::steady_clock::now();
      } else if ( std::chrono::steady_clock::now() - missedSince_ > std::chrono::seconds( 1 ) ) {
         deadSleepers_ = sleepers;
         missedSince_ = {};
      }
   }
}

void Control::pokeArmedReaders() {
   WakeHeader& w = wakeHeader( wake_ );
   uint32_t used = std::min( w.slotsUsed.load( std::memory_order_acquire ), wakeReaderSlots );
   for ( uint32_t i = 0; i < used; ++i ) {
      ReaderSlot& slot = readerSlot( wake_, i );
      if ( slot.armed.load( std::memory_order_relaxed ) == 1 && disarm( w, slot ) ) {
         poke( i, slot );
      }
   }
}

void Control::poke( uint32_t i, ReaderSlot& slot ) {
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
   // A live reader's socket exists before it registers, so a failure means
   // it died: free its slot (unless another reader took it meanwhile).
   if ( !processAlive( pid ) && slot.pid.compare_exchange_strong( pid, 0 ) ) {
      ::unlink( readerSocketName( root_, pid, nonce ).c_str() );
   }
}

}  // namespace Lumen::internal
