// Fault guard: keeps a reader alive when a file it maps read-only is
// truncated under it. An access past the new end of a file raises SIGBUS;
// for an address inside a guarded mapping the handler maps zero pages over
// the rest of that mapping, so the access completes (reading zeros), and
// flags the mapping damaged, which the reader reports as corruption at its
// next check. Any other SIGBUS goes to the handler that was there before.
//
// The registry is a fixed array of atomics, so the handler takes no lock and
// allocates nothing. A mapping is unguarded before it is unmapped, by the
// thread that uses it, so the handler never maps over an address range that
// has been given to something else meanwhile.
#include "platform/lumen/internal/Files.h"

#include <cerrno>
#include <csignal>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

namespace Lumen::internal {

namespace {

struct GuardedRange {
   // end == 0: free; 1: being claimed; else one past the mapping's last byte.
   std::atomic< uintptr_t > end;
   std::atomic< uintptr_t > begin;
   std::atomic< uint32_t > damaged;
};

constexpr uint32_t maxGuarded = 1024;
GuardedRange ranges[ maxGuarded ];
std::atomic< uint32_t > rangesUsed{ 0 };   // one past the highest ever claimed
struct sigaction previousAction {};
uintptr_t pageSize = 4096;

void chain( int sig, siginfo_t* info, void* context ) {
   if ( previousAction.sa_flags & SA_SIGINFO ) {
      if ( previousAction.sa_sigaction ) {
         previousAction.sa_sigaction( sig, info, context );
         return;
      }
   } else if ( previousAction.sa_handler == SIG_IGN ) {
      if ( info->si_code <= 0 ) {
         return;   // sent, not a fault: ignored as before
      }
   } else if ( previousAction.sa_handler != SIG_DFL ) {
      previousAction.sa_handler( sig );
      return;
   }
   // The default action: terminate with SIGBUS (and a core), from the
   // faulting access itself once we return, or from the signal re-raised.
   struct sigaction dfl {};
   dfl.sa_handler = SIG_DFL;
   ::sigemptyset( &dfl.sa_mask );
   ::sigaction( SIGBUS, &dfl, nullptr );
   ::raise( SIGBUS );
}

void onSigbus( int sig, siginfo_t* info, void* context ) {
   int savedErrno = errno;
   if ( info && info->si_code == BUS_ADRERR ) {
      auto addr = reinterpret_cast< uintptr_t >( info->si_addr );
      uint32_t used = rangesUsed.load( std::memory_order_acquire );
      for ( uint32_t i = 0; i < used; ++i ) {
         uintptr_t end = ranges[ i ].end.load( std::memory_order_acquire );
         uintptr_t begin = ranges[ i ].begin.load( std::memory_order_relaxed );
         if ( end <= 1 || addr < begin || addr >= end ) {
            continue;
         }
         uintptr_t page = addr & ~( pageSize - 1 );
         void* zeros = ::mmap( reinterpret_cast< void* >( page ), end - page, PROT_READ,
                               MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
         if ( zeros != MAP_FAILED ) {
            ranges[ i ].damaged.store( 1, std::memory_order_relaxed );
            errno = savedErrno;
            return;
         }
         break;
      }
   }
   errno = savedErrno;
   chain( sig, info, context );
}

void installHandler() {
   pageSize = uintptr_t( ::sysconf( _SC_PAGESIZE ) );
   struct sigaction action {};
   action.sa_sigaction = onSigbus;
   action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
   ::sigemptyset( &action.sa_mask );
   ::sigaction( SIGBUS, &action, &previousAction );
}

const std::atomic< uint32_t > neverDamaged{ 0 };

}  // namespace

const std::atomic< uint32_t >* guardMapping( void* addr, size_t size, int* index ) {
   static std::once_flag installed;
   std::call_once( installed, installHandler );
   for ( uint32_t i = 0; i < maxGuarded; ++i ) {
      uintptr_t free = 0;
      if ( ranges[ i ].end.compare_exchange_strong( free, 1, std::memory_order_acq_rel ) ) {
         ranges[ i ].damaged.store( 0, std::memory_order_relaxed );
         ranges[ i ].begin.store( reinterpret_cast< uintptr_t >( addr ), std::memory_order_relaxed );
         ranges[ i ].end.store( reinterpret_cast< uintptr_t >( addr ) + size, std::memory_order_release );
         uint32_t used = rangesUsed.load( std::memory_order_relaxed );
         while ( used < i + 1 &&
                 !rangesUsed.compare_exchange_weak( used, i + 1, std::memory_order_release ) ) {
         }
         *index = int( i );
         return &ranges[ i ].damaged;
      }
   }
   // More mappings than the registry holds: this one stays unguarded.
   *index = -1;
   return &neverDamaged;
}

void unguardMapping( int index ) {
   if ( index >= 0 ) {
      ranges[ index ].end.store( 0, std::memory_order_release );
   }
}

const std::atomic< uint32_t >* unguardedFlag() {
   return &neverDamaged;
}

}  // namespace Lumen::internal
