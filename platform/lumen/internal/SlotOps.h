// Typed access to a SlotArray: probing, reading a slot whole, storing a
// record, and the hint arithmetic of iteration. Shared by the Writer and the
// Reader members (WriterImpl.h, ReaderImpl.h, ReaderDelivery.h), which platform/lumen/Table.h
// includes.
//
// Table scheme: open addressing with linear probing. A key's home slot is the
// top bits of its mixed hash, so slot order follows hash order and a cursor
// can be scaled from one generation's size to another's. Removal leaves a
// tombstone and never moves an entry, which is what makes a miss trustworthy
// within a generation and iteration stable under removal. Tombstones and size
// changes are handled by rebuilding into a new generation.
#pragma once

#include "platform/lumen/internal/Segment.h"
#include "platform/mox/Assert.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include <sys/mman.h>
#include <unistd.h>

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22
#define MADV_POPULATE_WRITE 23
#endif

namespace Lumen::internal {

inline constexpr uint32_t noSlot = ~0u;

// Runs inside store()'s write window, with the slot busy and half the record
// copied; null in use. Tests set it to hold the window open, so that a reader
// in another process overlaps a change often enough to show whether it
// could ever take a half-written record for a whole one.
inline std::atomic< void ( * )() > storeWindowHook{ nullptr };


// Hint bits: generation tag (24) | position in hash space (33). Slot i of
// S slots is position ceil( i * 2^32 / S ), the smallest mixed hash whose home
// is i or later, so a hint maps back to exactly i in its own generation and to
// the same point of hash order in any other.
inline uint64_t generationTag( uint64_t generation ) {
   return generation % 0xffffffULL + 1;
}

inline Hint makeHint( const SlotArray& t, uint64_t slot ) {
   // ceil( slot * 2^32 / S ) without a division per entry: the reciprocal
   // estimate is at most two below, and the loop steps up to the exact value.
   uint64_t position = ( slot * t.reciprocal() ) >> 32;
   while ( ( ( position * t.slotCount() ) >> 32 ) < slot ) {
      ++position;
   }
   return Hint{ generationTag( t.generation() ) << 40 | position };
}

inline uint64_t hintSlot( const SlotArray& t, Hint hint ) {
   uint64_t position = hint.value & ( ( uint64_t( 1 ) << 40 ) - 1 );
   return ( position * t.slotCount() ) >> 32;
}

inline bool hintIsFor( const SlotArray& t, Hint hint ) {
   return t && ( hint.value >> 40 ) == generationTag( t.generation() );
}

template< class Record >
struct SlotOps {
   using Key = std::decay_t< decltype( std::declval< const Record& >().key() ) >;

   static RecordLayout layout() {
      return RecordLayout{ uint32_t( sizeof( Record ) ), uint32_t( alignof( Record ) ),
                           uint32_t( sizeof( Key ) ), RecordTraits< Record >::name };
   }

   static Record recordAt( const SlotArray& t, uint32_t i ) {
      Record r;
      std::memcpy( static_cast< void* >( &r ), t.record( i ), sizeof( Record ) );
      return r;
   }

   static Record withKey( const Record& defaultValue, const Key& k ) {
      if constexpr ( requires( Record r ) { r.keyIs( k ); } ) {
         Record r = defaultValue;
         r.keyIs( k );
         return r;
      } else if constexpr ( std::is_aggregate_v< Record > ) {
         (void)defaultValue;
         // An aggregate built from its key alone: the other fields take
         // their defaults, which is the point. Braces, not parentheses:
         // not every compiler builds an aggregate from ( key ).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
         return Record{ k };
#pragma GCC diagnostic pop
      } else {
         static_assert( std::is_constructible_v< Record, const Key& >,
                        "slotFor() needs Record( key ) or Record::keyIs( key )" );
         (void)defaultValue;
         return Record( k );
      }
   }

   struct Found {
      bool present;
      uint32_t slot;   // the key's slot, or where it would go
   };

   // Writer-side probe: the writer is the only mutator, so no retries.
   static Found find( const SlotArray& t, const Key& k, const std::string& path,
                      const CorruptionHandler& handler ) {
      uint32_t i = t.home( k.hash() );
      uint32_t freeSlot = noSlot;
      for ( uint32_t n = 0; n < t.slotCount(); ++n, i = i + 1 == t.slotCount() ? 0 : i + 1 ) {
         uint32_t state = t.word( i ).load( std::memory_order_relaxed ) & 3;
         if ( state == slotEmpty ) {
            return { false, freeSlot != noSlot ? freeSlot : i };
         }
         if ( state == slotTombstone ) {
            freeSlot = freeSlot != noSlot ? freeSlot : i;
         } else if ( state == slotBusy ) {
            raiseCorruption( handler, fmt::format( "Lumen table {}: slot {} was left mid-update",
                                                   path, i ) );
         } else if ( recordAt( t, i ).key() == k ) {
            return { true, i };
         }
      }
      raiseCorruption( handler, fmt::format( "Lumen table {}: probe from slot {} never ends", path,
                                             t.home( k.hash() ) ) );
   }

   // Seqlock write: readers that overlap see the busy state or a changed word.
   static void store( const SlotArray& t, uint32_t i, const Record* r, uint32_t state ) {
      auto& word = t.word( i );
      uint32_t version = word.load( std::memory_order_relaxed ) >> 2;
      word.store( ( version + 1 ) << 2 | slotBusy, std::memory_order_relaxed );
      std::atomic_thread_fence( std::memory_order_release );
      if ( auto hook = storeWindowHook.load( std::memory_order_relaxed ) ) [[unlikely]] {
         constexpr size_t half = sizeof( Record ) / 2;
         if ( r ) {
            std::memcpy( t.record( i ), static_cast< const void* >( r ), half );
         }
         hook();
         if ( r ) {
            std::memcpy( t.record( i ) + half, reinterpret_cast< const uint8_t* >( r ) + half,
                         sizeof( Record ) - half );
         }
      } else if ( r ) {
         std::memcpy( t.record( i ), static_cast< const void* >( r ), sizeof( Record ) );
      }
      word.store( ( version + 2 ) << 2 | state, std::memory_order_release );
   }

   // Reader-side slot read: copy, then re-check the word; the caller's copy
   // is only trusted if the word did not change meanwhile.
   static uint32_t read( const SlotArray& t, uint32_t i, Record& out, const StuckContext& ctx ) {
      const auto& word = t.word( i );
      uint32_t before = word.load( std::memory_order_acquire );
      uint32_t state = before & 3;
      if ( state == slotLive ) {
         std::memcpy( static_cast< void* >( &out ), t.record( i ), sizeof( Record ) );
         std::atomic_thread_fence( std::memory_order_acquire );
         if ( word.load( std::memory_order_relaxed ) == before ) [[likely]] {
            return slotLive;
         }
      } else if ( state != slotBusy ) {
         return state;
      }
      return readBusySlot( ctx, word, i, &out, t.record( i ), sizeof( Record ) );
   }

   // The common path, inline and call-free: copy each live slot and compare
   // keys on the copy; only a match is validated against the slot's word. A
   // mismatch needs no validation: a live slot's key bytes only change after
   // a removal of that entry, so a torn key can only hide a key that was not
   // there when the probe reached the slot.
   static bool probe( const SlotArray& t, const Key& k, Record& out, const StuckContext& ctx ) {
      return probeAt( t, t.home( k.hash() ), k, out, ctx );
   }

   static bool probeAt( const SlotArray& t, uint32_t i, const Key& k, Record& out,
                        const StuckContext& ctx ) {
      uint32_t n = t.slotCount();
      for ( uint32_t steps = 0; steps < n; ++steps ) {
         const auto& word = t.word( i );
         uint32_t before = word.load( std::memory_order_acquire );
         uint32_t state = before & 3;
         if ( state == slotLive ) [[likely]] {
            std::memcpy( static_cast< void* >( &out ), t.record( i ), sizeof( Record ) );
            if ( out.key() == k ) {
               std::atomic_thread_fence( std::memory_order_acquire );
               if ( word.load( std::memory_order_relaxed ) == before ) [[likely]] {
                  return true;
               }
               return probeFrom( t, i, k, out, ctx );
            }
         } else if ( state == slotEmpty ) {
            return false;
         } else if ( state == slotBusy ) {
            return probeFrom( t, i, k, out, ctx );
         }
         i = i + 1 == n ? 0 : i + 1;
      }
      endlessProbe( t, k, ctx );
   }

   [[noreturn]] static void endlessProbe( const SlotArray& t, const Key& k, const StuckContext& ctx ) {
      raiseCorruption( *ctx.handler, fmt::format( "Lumen table {}: probe from slot {} never ends",
                                                  *ctx.path, t.home( k.hash() ) ) );
   }

   // The careful path, taken from the first slot found busy or changed: every
   // slot is validated, and a busy one waited out. A probe needs no re-check
   // of the generation afterwards: the writer never changes a generation once
   // it has flipped to the next, and within a generation entries never move
   // and no slot becomes empty again, so whatever the probe returns held at
   // some instant during it.
   static bool probeFrom( const SlotArray& t, uint32_t i, const Key& k, Record& out,
                          const StuckContext& ctx ) {
      uint32_t n = t.slotCount();
      for ( uint32_t steps = 0; steps < n; ++steps ) {
         uint32_t state = read( t, i, out, ctx );
         if ( state == slotLive && out.key() == k ) [[likely]] {
            return true;
         }
         if ( state == slotEmpty ) {
            return false;
         }
         i = i + 1 == n ? 0 : i + 1;
      }
      endlessProbe( t, k, ctx );
   }
};

}  // namespace Lumen::internal
