// Lumen table templates: typed probing over a SlotArray, and the Writer and
// Reader members. Included by platform/lumen/Table.h only.
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
      } else {
         static_assert( std::is_constructible_v< Record, const Key& >,
                        "slotFor() needs Record( key ) or Record::keyIs( key )" );
         (void)defaultValue;
         // An aggregate built from its key alone: the other fields take
         // their defaults, which is the point.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
         return Record( k );
#pragma GCC diagnostic pop
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
      if ( r ) {
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

namespace Lumen {

// ---------------------------------------------------------------- Writer

template< class Record >
Writer< Record >::Writer( const Record& defaultValue, Options options )
   : default_( defaultValue ), options_( options ), layout_( Ops::layout() ) {
   options_.maxCapacity = std::max( options_.maxCapacity, 1u );
   options_.initialCapacity =
      std::clamp( options_.initialCapacity, 1u, options_.maxCapacity );
   table_ = internal::SlotArray::createAnonymous( layout_, options_.initialCapacity, 1 );
}

template< class Record >
Writer< Record >::~Writer() {
   if ( control_ ) {
      control_->markDetached();
      control_->wake();
   }
}

template< class Record >
void Writer< Record >::attach( const std::string& path ) {
   if ( !hardwareSupportsAtomics() ) {
      MOX_THROW( Mox::Exception, "Hardware does not support Atomics" );
   }
   if ( attached() ) {
      detach();
   }
   std::string root = Lumen::root();   // kept: later generations go where this one went
   auto access = internal::FileAccess::of( options_ );
   auto control =
      internal::Control::openForWriter( root, path, layout_, options_.feedCapacity, access,
                                        corruptionHandler_ );
   uint64_t oldGeneration = control->header().generation.load( std::memory_order_acquire );
   internal::SlotArray old;
   if ( oldGeneration != 0 ) {
      old = internal::SlotArray::openFile( root, path, layout_, oldGeneration, control->owner(),
                                           corruptionHandler_ );
      if ( !old ) {
         internal::raiseCorruption(
            corruptionHandler_,
            fmt::format( "Lumen table {}: segment of generation {} is missing", path,
                         oldGeneration ) );
      }
   }
   // Rebuilding rather than adopting the old generation in place drops
   // whatever a writer that died mid-update left behind, except a record it
   // was replacing: that one gets its previous value back from the undo
   // image, so the key keeps its old value or its new one. The copy is sized
   // by the live (and busy) slots, not by the header's count, which such a
   // writer may have left short of them.
   auto liveIn = []( const internal::SlotArray& t ) {
      uint64_t live = 0;
      for ( uint32_t i = 0; i < t.slotCount(); ++i ) {
         uint32_t state = t.word( i ).load( std::memory_order_acquire ) & 3;
         live += state == internal::slotLive || state == internal::slotBusy;
      }
      return live;
   };
   uint64_t entries = liveIn( table_ ) + ( old ? liveIn( old ) : 0 );
   uint64_t capacity = options_.initialCapacity;
   while ( capacity < entries && capacity < options_.maxCapacity ) {
      capacity *= 2;
   }
   capacity = std::min< uint64_t >( capacity, options_.maxCapacity );
   auto next = internal::SlotArray::createFile( root, path, layout_, uint32_t( capacity ),
                                                oldGeneration + 1, access );
   uint32_t count = 0;
   auto copyFrom = [ & ]( const internal::SlotArray& from, const internal::Control* undo ) {
      for ( uint32_t i = 0; i < from.slotCount(); ++i ) {
         uint32_t word = from.word( i ).load( std::memory_order_acquire );
         Record r;
         if ( ( word & 3 ) == internal::slotLive ) {
            r = Ops::recordAt( from, i );
         } else if ( const uint8_t* before = undo ? undo->undoFor( from.generation(), i, word )
                                                  : nullptr ) {
            std::memcpy( static_cast< void* >( &r ), before, sizeof( Record ) );
         } else {
            // Empty, removed, or a dead writer's torn insert or removal:
            // dropping it leaves the key as it was before, or after.
            continue;
         }
         auto f = Ops::find( next, r.key(), path, corruptionHandler_ );
         if ( !f.present ) {
            if ( count == next.capacity() ) {
               next.unlinkFile();
               MOX_THROW( TableFullException, "Lumen table full (occupancy:{} tableSize:{}) {}",
                          count, next.capacity(), path );
            }
            ++count;
         }
         Ops::store( next, f.slot, &r, internal::slotLive );
      }
   };
   if ( old ) {
      copyFrom( old, control.get() );
   }
   copyFrom( table_, nullptr );
   next.liveCountIs( count );

   control->header().generation.store( next.generation(), std::memory_order_release );
   if ( old ) {
      old.unlinkFile();
   }
   if ( oldGeneration > 1 ) {
      // Left behind by a writer that died between a flip and its unlink.
      ::unlink( internal::dataFileName( root, path, oldGeneration - 1 ).c_str() );
   }
   control->markAttached();
   // Readers rescan: the previous writer may have died between changing a
   // slot and announcing its key, and unattached entries were merged in.
   control->forceResync();
   control->wake();
   control_ = std::move( control );
   table_ = std::move( next );
   undoGeneration_ = 0;   // the image's generation is not ours yet
   path_ = path;
   root_ = root;
}

template< class Record >
void Writer< Record >::detach() {
   if ( !control_ ) {
      return;
   }
   auto copy = internal::SlotArray::createAnonymous( layout_, table_.capacity(),
                                                     table_.generation() );
   uint32_t count = 0;
   for ( uint32_t i = 0; i < table_.slotCount(); ++i ) {
      if ( ( table_.word( i ).load( std::memory_order_relaxed ) & 3 ) == internal::slotLive ) {
         Record r = Ops::recordAt( table_, i );
         auto f = Ops::find( copy, r.key(), path_, corruptionHandler_ );
         Ops::store( copy, f.slot, &r, internal::slotLive );
         ++count;
      }
   }
   copy.liveCountIs( count );
   control_->markDetached();
   control_->wake();
   control_.reset();
   table_ = std::move( copy );
}

template< class Record >
void Writer< Record >::publish( const Key& k ) {
   if ( control_ ) {
      control_->publish( &k );
   }
}

template< class Record >
uint32_t Writer< Record >::shrinkTarget() const {
   uint64_t live = uint64_t( table_.liveCount() ) + 1;
   uint32_t target = table_.capacity();
   if ( live * 8 <= target ) {
      while ( target / 2 >= options_.initialCapacity && live * 4 <= target / 2 ) {
         target /= 2;
      }
   }
   return target;
}

template< class Record >
void Writer< Record >::rebuild( uint32_t newCapacity ) {
   uint64_t generation = table_.generation() + 1;
   auto next = control_ ? internal::SlotArray::createFile( root_, path_, layout_, newCapacity,
                                                           generation,
                                                           internal::FileAccess::of( options_ ) )
                        : internal::SlotArray::createAnonymous( layout_, newCapacity, generation );
   uint32_t count = 0;
   for ( uint32_t i = 0; i < table_.slotCount(); ++i ) {
      if ( ( table_.word( i ).load( std::memory_order_relaxed ) & 3 ) == internal::slotLive ) {
         Record r = Ops::recordAt( table_, i );
         auto f = Ops::find( next, r.key(), path_, corruptionHandler_ );
         Ops::store( next, f.slot, &r, internal::slotLive );
         ++count;
      }
   }
   next.liveCountIs( count );
   if ( control_ ) {
      // Readers see the new generation from here on; ones still probing the
      // old mapping re-check the generation afterwards and retry.
      control_->header().generation.store( generation, std::memory_order_release );
      table_.unlinkFile();
   }
   table_ = std::move( next );
}

template< class Record >
void Writer< Record >::insertNew( const Record& r, const Key& k, uint32_t slot ) {
   uint32_t live = table_.liveCount();
   uint64_t generation = table_.generation();
   if ( live >= table_.capacity() ) {
      if ( table_.capacity() >= options_.maxCapacity ) {
         MOX_THROW( TableFullException, "Lumen table full (occupancy:{} tableSize:{}) {}", live,
                    table_.capacity(), path_ );
      }
      rebuild( uint32_t(
         std::min< uint64_t >( uint64_t( table_.capacity() ) * 2, options_.maxCapacity ) ) );
   } else if ( uint32_t target = shrinkTarget(); target < table_.capacity() ) {
      rebuild( target );
   }
   if ( table_.generation() != generation ) {
      slot = Ops::find( table_, k, path_, corruptionHandler_ ).slot;
   }
   bool reusesTombstone =
      ( table_.word( slot ).load( std::memory_order_relaxed ) & 3 ) == internal::slotTombstone;
   if ( !reusesTombstone &&
        table_.liveCount() + table_.tombstoneCount() + 1 > table_.usedLimit() ) {
      rebuild( table_.capacity() );   // sweeps tombstones so probes stay short
      slot = Ops::find( table_, k, path_, corruptionHandler_ ).slot;
   }
   Ops::store( table_, slot, &r, internal::slotLive );
   if ( reusesTombstone ) {
      table_.tombstoneCountAdd( -1 );
   }
   table_.liveCountAdd( 1 );
}

// Before a live record is overwritten: a copy of it, and which change it
// undoes (the word the slot will hold while busy), into the control
// segment's undo area. One word and one record copy into a line only this
// writer touches (the generation only when it changed); no fence, since
// only a later writer, which takes the lock after our death, reads it:
// compiler order alone puts the image before the busy word.
template< class Record >
void Writer< Record >::keepUndo( uint32_t slot ) {
   internal::UndoHeader& u = control_->undo();
   if ( undoGeneration_ != table_.generation() ) [[unlikely]] {
      undoGeneration_ = table_.generation();
      u.generation.store( undoGeneration_, std::memory_order_relaxed );
   }
   uint32_t word = table_.word( slot ).load( std::memory_order_relaxed );
   u.change.store( internal::undoChange( slot, ( ( word >> 2 ) + 1 ) << 2 | internal::slotBusy ),
                   std::memory_order_relaxed );
   std::memcpy( control_->undoRecord(), table_.record( slot ), sizeof( Record ) );
   std::atomic_signal_fence( std::memory_order_release );
}

template< class Record >
void Writer< Record >::write( const Record& r ) {
   if ( control_ ) {
      control_->noteWriterThread();
   }
   Key k = r.key();
   refreshStaged( k, &r );
   auto f = Ops::find( table_, k, path_, corruptionHandler_ );
   if ( f.present ) {
      if ( control_ ) {
         keepUndo( f.slot );
      }
      Ops::store( table_, f.slot, &r, internal::slotLive );
   } else {
      insertNew( r, k, f.slot );
   }
   publish( k );
}

template< class Record >
std::optional< Record > Writer< Record >::remove( const Key& k ) {
   if ( control_ ) {
      control_->noteWriterThread();
   }
   refreshStaged( k, nullptr );
   auto f = Ops::find( table_, k, path_, corruptionHandler_ );
   if ( !f.present ) {
      return std::nullopt;
   }
   Record old = Ops::recordAt( table_, f.slot );
   Ops::store( table_, f.slot, nullptr, internal::slotTombstone );
   table_.liveCountAdd( -1 );
   table_.tombstoneCountAdd( 1 );
   publish( k );
   return old;
}

template< class Record >
Record Writer< Record >::lookup( const Key& k ) const {
   auto f = Ops::find( table_, k, path_, corruptionHandler_ );
   return f.present ? Ops::recordAt( table_, f.slot ) : default_;
}

template< class Record >
bool Writer< Record >::contains( const Key& k ) const {
   return Ops::find( table_, k, path_, corruptionHandler_ ).present;
}

template< class Record >
uint32_t Writer< Record >::count() const {
   return table_.liveCount();
}

template< class Record >
uint32_t Writer< Record >::capacity() const {
   return table_.capacity();
}

template< class Record >
Record* Writer< Record >::slotFor( const Key& k ) {
   for ( auto& staged : staged_ ) {
      if ( staged->key() == k ) {
         return staged.get();
      }
   }
   auto f = Ops::find( table_, k, path_, corruptionHandler_ );
   if ( !f.present && count() >= table_.capacity() && table_.capacity() >= options_.maxCapacity ) {
      MOX_THROW( TableFullException, "Lumen table full (occupancy:{} tableSize:{}) {}", count(),
                 table_.capacity(), path_ );
   }
   Record image = f.present ? Ops::recordAt( table_, f.slot ) : Ops::withKey( default_, k );
   staged_.push_back( std::make_unique< Record >( image ) );
   return staged_.back().get();
}

// An uncommitted slotFor() image of a key that is written or removed takes
// the new value: the later change wins, and the image stays valid memory for
// whoever still holds it.
template< class Record >
void Writer< Record >::refreshStaged( const Key& k, const Record* now ) {
   if ( !staged_.empty() ) [[unlikely]] {
      for ( auto& image : staged_ ) {
         if ( image->key() == k ) {
            *image = now ? *now : Ops::withKey( default_, k );
         }
      }
   }
}

template< class Record >
void Writer< Record >::commit( const Record* inPlace ) {
   auto it = std::find_if( staged_.begin(), staged_.end(),
                           [ inPlace ]( const auto& s ) { return s.get() == inPlace; } );
   if ( it == staged_.end() ) {
      write( *inPlace );
      return;
   }
   Record r = **it;
   staged_.erase( it );
   write( r );
}

template< class Record >
std::optional< std::pair< Record, Hint > > Writer< Record >::next( Hint from ) const {
   for ( uint64_t i = internal::hintSlot( table_, from ); i < table_.slotCount(); ++i ) {
      uint32_t slot = uint32_t( i );
      uint32_t state = table_.word( slot ).load( std::memory_order_relaxed ) & 3;
      if ( state == internal::slotLive ) {
         return std::make_pair( Ops::recordAt( table_, slot ), internal::makeHint( table_, i + 1 ) );
      }
      if ( state == internal::slotBusy ) {
         // Only the writer changes slots and it never leaves one busy.
         internal::raiseCorruption(
            corruptionHandler_,
            fmt::format( "Lumen table {}: slot {} was left mid-update", path_, slot ) );
      }
   }
   return std::nullopt;
}

template< class Record >
void Writer< Record >::sanityCheck() const {
   auto fail = [ this ]( std::string what ) {
      internal::raiseCorruption( corruptionHandler_,
                                 fmt::format( "Lumen table {}: {}", path_, what ) );
   };
   uint32_t live = 0;
   uint32_t tombstones = 0;
   uint32_t empty = 0;
   for ( uint32_t i = 0; i < table_.slotCount(); ++i ) {
      uint32_t state = table_.word( i ).load( std::memory_order_relaxed ) & 3;
      if ( state == internal::slotBusy ) {
         fail( fmt::format( "slot {} was left mid-update", i ) );
      } else if ( state == internal::slotTombstone ) {
         ++tombstones;
      } else if ( state == internal::slotEmpty ) {
         ++empty;
      } else {
         ++live;
         Key k = Ops::recordAt( table_, i ).key();
         auto f = Ops::find( table_, k, path_, corruptionHandler_ );
         if ( !f.present || f.slot != i ) {
            fail( fmt::format( "entry in slot {} is not reachable from its home slot {}", i,
                               table_.home( k.hash() ) ) );
         }
      }
   }
   if ( live != table_.liveCount() || tombstones != table_.tombstoneCount() ) {
      fail( fmt::format( "header counts {} live and {} tombstones, slots hold {} and {}",
                         table_.liveCount(), table_.tombstoneCount(), live, tombstones ) );
   }
   if ( live > table_.capacity() || empty == 0 ) {
      fail( fmt::format( "{} live entries, {} empty slots for capacity {}", live, empty,
                         table_.capacity() ) );
   }
   if ( control_ &&
        control_->header().generation.load( std::memory_order_relaxed ) != table_.generation() ) {
      fail( fmt::format( "control names generation {} but the writer holds {}",
                         control_->header().generation.load(), table_.generation() ) );
   }
}

// ---------------------------------------------------------------- Reader

namespace internal {

// Options of a Reader's replica: it follows whatever the shared table holds,
// so it is never full, and it shrinks as far as the writer's table may.
inline Options replicaOptions() {
   Options o;
   o.initialCapacity = 1;
   o.maxCapacity = 1u << 30;
   return o;
}

// Faults [begin, end) in with one call rather than a fault per page; a
// kernel without the advice faults as the caller goes.
inline void prefault( const uint8_t* begin, const uint8_t* end, int advice ) {
   uintptr_t page = uintptr_t( ::sysconf( _SC_PAGESIZE ) );
   uintptr_t from = uintptr_t( begin ) & ~( page - 1 );
   ::madvise( reinterpret_cast< void* >( from ), uintptr_t( end ) - from, advice );
}

}  // namespace internal

// The keys one gather() found changed, by key: their events in pending_.
template< class Record >
struct Reader< Record >::Changes {
   std::unordered_map< Key, size_t, KeyHash > queued;
   std::vector< Event > events;
};

template< class Record >
Reader< Record >::Reader( const std::string& path, const Record& defaultValue, Vacant vacant )
   : path_( path ), root_( root() ), default_( defaultValue ), vacant_( vacant ), layout_( Ops::layout() ),
     replica_( defaultValue, internal::replicaOptions() ) {
   // Rejects a malformed or over-long path up front, as attach() does: a
   // table no writer can create must not leave its readers waiting.
   internal::controlFileName( root_, path );
   try {
      if ( mount() ) {
         seed();
         synced_ = true;
      }
   } catch ( const Fable::CorruptionDetectedException& ) {
      // Reported again, to the handler, by the first operation that needs it.
      control_.reset();
      clearReplica();
   }
   reportedStatus_ = mountStatus();
   notifier_ = std::make_unique< internal::Notifier >(
      root_, path_, control_ ? cursor_ : 0, reportedStatus_,
      control_ ? control_->identity() : internal::FileIdentity{} );
   armForNextChange();
}

template< class Record >
void Reader< Record >::clearReplica() {
   replica_.table_ = internal::SlotArray::createAnonymous( layout_, 1, 1 );
}

// The replica starts as a copy of the current generation, slot for slot (the
// same slot count gives every key the same home), which costs a copy of the
// table's bytes rather than a hash and an insert per entry. The feed head is
// read first: a key the writer changes while the copy runs is in the feed
// from there, and only such a key can have been copied twice (moved by a
// remove and re-insert) or missed, so those keys are copied again afterwards.
template< class Record >
void Reader< Record >::seed() {
   uint64_t head = control_->header().feedHead.load( std::memory_order_acquire );
   cursor_ = head;
   const internal::SlotArray* t = current();
   if ( !t ) {
      return;   // no generation yet
   }
   // Nothing below remaps: `from` stays the generation we began on, which
   // the writer no longer changes once it has flipped past it.
   const internal::SlotArray& from = *t;
   auto copy = internal::SlotArray::createAnonymous( layout_, from.capacity(), from.generation() );
   if ( copy.slotCount() != from.slotCount() ) {
      seedByInsertion( from );
      return;
   }
   internal::prefault( from.slot( 0 ), from.slot( from.slotCount() ), MADV_POPULATE_READ );
   internal::prefault( copy.slot( 0 ), copy.slot( copy.slotCount() ), MADV_POPULATE_WRITE );
   auto ctx = stuckContext();
   uint32_t live = 0;
   uint32_t tombstones = 0;
   Record r;
   for ( uint32_t i = 0; i < from.slotCount(); ++i ) {
      uint32_t state;
      try {
         state = Ops::read( from, i, r, ctx );
      } catch ( const Fable::CorruptionDetectedException& ) {
         // A slot its dead writer left mid-update: a tombstone keeps the
         // probes past it going; the takeover's resync settles the key.
         state = internal::slotTombstone;
      }
      if ( state == internal::slotLive && !deliverable( r ) ) {
         state = internal::slotTombstone;   // keeps the probes past it going
      }
      if ( state == internal::slotLive ) {
         std::memcpy( copy.record( i ), static_cast< const void* >( &r ), sizeof( Record ) );
         copy.word( i ).store( internal::slotLive, std::memory_order_relaxed );
         ++live;
      } else if ( state == internal::slotTombstone ) {
         copy.word( i ).store( internal::slotTombstone, std::memory_order_relaxed );
         ++tombstones;
      }
   }
   copy.liveCountIs( live );
   copy.tombstoneCountAdd( int( tombstones ) );
   replica_.table_ = std::move( copy );

   std::vector< Key > moved;
   if ( control_->header().feedHead.load( std::memory_order_acquire ) == head ) {
      return;
   }
   if ( !readFeed( moved ) ) {
      // Lapped while copying: any key may be there twice. Inserting drops
      // the doubles; the first dispatch() resyncs (cursor_ is still behind).
      seedByInsertion( from );
      return;
   }
   for ( const Key& k : moved ) {
      while ( replica_.remove( k ) ) {
      }
      try {
         if ( sharedState( k, r ) && deliverable( r ) ) {
            replica_.write( r );
         }
      } catch ( const Fable::CorruptionDetectedException& ) {
         // Left out: the takeover's resync reports it if it is there.
      }
   }
}

// The slow way, for a generation of an unexpected size or a copy the writer
// lapped: one insert per live slot, which never keeps a key twice.
template< class Record >
void Reader< Record >::seedByInsertion( const internal::SlotArray& from ) {
   clearReplica();
   auto ctx = stuckContext();
   Record r;
   for ( uint32_t i = 0; i < from.slotCount(); ++i ) {
      try {
         if ( Ops::read( from, i, r, ctx ) == internal::slotLive && deliverable( r ) ) {
            replica_.write( r );
         }
      } catch ( const Fable::CorruptionDetectedException& ) {
      }
   }
}

template< class Record >
void Reader< Record >::armForNextChange() {
   if ( !pending_.empty() ) {
      notifier_->poke();   // a callback threw: the rest is delivered next time
      return;
   }
   if ( !notifier_->arm() ) {
      notifier_->dispatched();
      return;
   }
   // A change published before the writer could see our flag pokes nobody:
   // look once more, now that any later change will poke us. Under a busy
   // writer the first look finds one, and the process-wide barrier that a
   // fence-free writer needs before a look that finds nothing is skipped.
   auto pending = [ this ] {
      try {
         return mountStatus() != reportedStatus_ ||
                ( control_ && control_->header().feedHead.load( std::memory_order_acquire ) != cursor_ );
      } catch ( const Fable::CorruptionDetectedException& ) {
         return true;   // the next dispatch() reports it
      }
   };
   if ( pending() || ( notifier_->barrierAfterArm() && pending() ) ) {
      notifier_->poke();
   }
}

template< class Record >
Reader< Record >::~Reader() = default;

template< class Record >
bool Reader< Record >::mount() const {
   if ( !control_ ) {
      control_ = internal::Control::openForReader( root_, path_, layout_, corruptionHandler_ );
   } else if ( control_->damaged() ) [[unlikely]] {
      internal::raiseCorruption(
         corruptionHandler_,
         fmt::format( "Lumen table {}: control segment was truncated under the reader", path_ ) );
   }
   return control_ != nullptr;
}

template< class Record >
const internal::SlotArray* Reader< Record >::current() const {
   // The one load of the control segment on a lookup's way.
   if ( control_ && current_ &&
        control_->header().generation.load( std::memory_order_acquire ) == current_.generation() &&
        !current_.damaged() ) [[likely]] {
      return &current_;
   }
   return remap();
}

template< class Record >
const internal::SlotArray* Reader< Record >::remap() const {
   if ( !mount() ) {
      return nullptr;
   }
   for ( int attempt = 0;; ++attempt ) {
      uint64_t generation = control_->header().generation.load( std::memory_order_acquire );
      if ( generation == 0 ) {
         return nullptr;
      }
      if ( current_ && current_.generation() == generation ) {
         if ( current_.damaged() ) {
            internal::raiseCorruption(
               corruptionHandler_,
               fmt::format( "Lumen table {}: data segment of generation {} was truncated under the "
                            "reader", path_, generation ) );
         }
         return &current_;
      }
      auto opened = internal::SlotArray::openFile( root_, path_, layout_, generation,
                                                   control_->owner(), corruptionHandler_ );
      if ( opened ) {
         retire();
         current_ = std::move( opened );
         return &current_;
      }
      // The writer may have flipped again and removed it meanwhile.
      if ( attempt > 100 &&
           control_->header().generation.load( std::memory_order_acquire ) == generation ) {
         internal::raiseCorruption(
            corruptionHandler_,
            fmt::format( "Lumen table {}: segment of generation {} is missing", path_,
                         generation ) );
      }
      std::this_thread::yield();
   }
}

// ---- the delivered state

template< class Record >
Record Reader< Record >::lookup( const Key& k ) const {
   return replica_.lookup( k );
}

template< class Record >
bool Reader< Record >::contains( const Key& k ) const {
   return replica_.contains( k );
}

template< class Record >
uint32_t Reader< Record >::count() const {
   return replica_.count();
}

template< class Record >
std::optional< std::pair< Record, Hint > > Reader< Record >::next( Hint from ) const {
   return replica_.next( from );
}

template< class Record >
void Reader< Record >::lookupBatch( const Key* keys, Record* out, size_t n ) const {
   probeBatch( replica_.table_, keys, out, n, default_, stuckContext() );
}

template< class Record >
bool Reader< Record >::deliveredState( const Key& k, Record& out ) const {
   auto f = Ops::find( replica_.table_, k, path_, corruptionHandler_ );
   if ( f.present ) {
      out = Ops::recordAt( replica_.table_, f.slot );
   }
   return f.present;
}

// ---- shared memory as it is now

template< class Record >
bool Reader< Record >::sharedState( const Key& k, Record& out ) const {
   const internal::SlotArray* t = control_ ? current() : nullptr;
   return t && Ops::probe( *t, k, out, stuckContext() );
}

template< class Record >
Record Reader< Record >::lookupShared( const Key& k ) const {
   const internal::SlotArray* t = current();
   Record out;
   if ( t && Ops::probe( *t, k, out, stuckContext() ) ) [[likely]] {
      return out;
   }
   return default_;
}

template< class Record >
bool Reader< Record >::containsShared( const Key& k ) const {
   const internal::SlotArray* t = current();
   Record out;
   return t && Ops::probe( *t, k, out, stuckContext() );
}

template< class Record >
void Reader< Record >::lookupBatchShared( const Key* keys, Record* out, size_t n ) const {
   const internal::SlotArray* t = current();
   if ( !t ) {
      std::fill( out, out + n, default_ );
      return;
   }
   probeBatch( *t, keys, out, n, default_, stuckContext() );
}

template< class Record >
void Reader< Record >::probeBatch( const internal::SlotArray& t, const Key* keys, Record* out,
                                   size_t n, const Record& absent,
                                   const internal::StuckContext& ctx ) {
   // Homes are computed `ahead` keys early and their lines prefetched, so
   // that many cache misses are in flight while earlier keys are probed.
   constexpr size_t ahead = 16;
   uint32_t homes[ ahead ];
   for ( size_t j = 0; j < std::min( ahead, n ); ++j ) {
      homes[ j ] = t.home( keys[ j ].hash() );
      __builtin_prefetch( t.slot( homes[ j ] ) );
   }
   for ( size_t j = 0; j < n; ++j ) {
      uint32_t home = homes[ j % ahead ];
      if ( j + ahead < n ) {
         homes[ j % ahead ] = t.home( keys[ j + ahead ].hash() );
         __builtin_prefetch( t.slot( homes[ j % ahead ] ) );
      }
      if ( !Ops::probeAt( t, home, keys[ j ], out[ j ], ctx ) ) {
         out[ j ] = absent;
      }
   }
}

template< class Record >
uint32_t Reader< Record >::countShared() const {
   const internal::SlotArray* t = current();
   if ( !t ) {
      return 0;
   }
   uint32_t n = t->liveCount();
   if ( n > t->slotCount() ) {
      internal::raiseCorruption(
         corruptionHandler_,
         fmt::format( "Lumen table {}: count {} exceeds {} slots", path_, n, t->slotCount() ) );
   }
   return n;
}

template< class Record >
std::optional< std::pair< Record, Hint > > Reader< Record >::nextShared( Hint from ) const {
   const internal::SlotArray* t = current();
   // An iteration finishes on the generation it began on: the mapping
   // outlives the file, and the writer no longer changes it. Resuming on a
   // newer one would rescale the hint by hash order, which linear probing
   // only roughly follows.
   if ( t && from.value != 0 && !internal::hintIsFor( *t, from ) ) {
      for ( const auto& old : retired_ ) {
         if ( internal::hintIsFor( old, from ) ) {
            t = &old;
            break;
         }
      }
   }
   if ( !t ) {
      return std::nullopt;
   }
   uint64_t tag = internal::generationTag( t->generation() );
   auto ctx = stuckContext();
   Record r;
   for ( uint64_t i = internal::hintSlot( *t, from ); i < t->slotCount(); ++i ) {
      if ( Ops::read( *t, uint32_t( i ), r, ctx ) == internal::slotLive ) {
         // Noted when an iteration arrives on t, not at every step.
         bool arrives = ( from.value >> 40 ) != tag;
         if ( arrives && std::find( iterating_.begin(), iterating_.end(), tag ) == iterating_.end() ) {
            iterating_.push_back( tag );
         }
         return std::make_pair( r, internal::makeHint( *t, i + 1 ) );
      }
   }
   std::erase( iterating_, tag );
   std::erase_if( retired_, [ & ]( const auto& old ) {
      return internal::generationTag( old.generation() ) == tag;
   } );
   return std::nullopt;
}

// current_ is being replaced: keep it while an iteration is on it. Iterations
// abandoned midway would pin generations for good, so only the newest few are
// kept; an iteration older than those resumes, approximately, on the newest.
template< class Record >
void Reader< Record >::retire() const {
   constexpr size_t keep = 3;
   uint64_t tag = current_ ? internal::generationTag( current_.generation() ) : 0;
   if ( current_ && std::find( iterating_.begin(), iterating_.end(), tag ) != iterating_.end() ) {
      if ( retired_.size() == keep ) {
         std::erase( iterating_, internal::generationTag( retired_.front().generation() ) );
         retired_.erase( retired_.begin() );
      }
      retired_.push_back( std::move( current_ ) );
   }
   current_ = {};
}

template< class Record >
MountStatus Reader< Record >::mountStatus() const {
   try {
      if ( !mount() ) {
         return MountStatus::waitingForWriter;
      }
   } catch ( const Fable::CorruptionDetectedException& ) {
      return MountStatus::unmounted;
   }
   return control_->status();
}

template< class Record >
uint64_t Reader< Record >::feedHead() const {
   try {
      if ( !mount() ) {
         return 0;
      }
   } catch ( const Fable::CorruptionDetectedException& ) {
      return 0;
   }
   return control_->header().feedHead.load( std::memory_order_acquire );
}

template< class Record >
bool Reader< Record >::dispatchPending() const {
   if ( !pending_.empty() ) {
      return true;
   }
   if ( mountStatus() != reportedStatus_ ) {
      return true;
   }
   return control_ && feedHead() != cursor_;
}

template< class Record >
int Reader< Record >::fd() const {
   return notifier_->fd();
}

// ---- delivery

template< class Record >
bool Reader< Record >::readFeed( std::vector< Key >& keys ) {
   uint64_t head = control_->header().feedHead.load( std::memory_order_acquire );
   // A head seen moving backwards is damage or a new writer: never wait for
   // it to come back to the cursor. (The seed at mount runs before the
   // notifier exists, from a cursor it has just read.)
   if ( ( notifier_ && notifier_->feedRewound() ) || head < cursor_ || head - cursor_ > control_->feedCapacity() ) {
      return false;
   }
   for ( uint64_t seq = cursor_; seq < head; ++seq ) {
      Key k;
      if ( !control_->readFeed( seq, &k ) ) {
         return false;
      }
      keys.push_back( k );
   }
   cursor_ = head;
   return true;
}

// Compares k's state in shared memory (`now`, null: absent) with the one
// delivered, and queues k with its new state if they differ. A key noted
// again in the same gather (repeated in the feed, or moved under a pass)
// keeps its first place and takes the later state; if that is the delivered
// one after all, nothing is reported.
template< class Record >
void Reader< Record >::note( Changes& changes, const Key& k, const Record* now ) const {
   if ( now && !deliverable( *now ) ) {
      now = nullptr;
   }
   Record mine;
   bool had = deliveredState( k, mine );
   bool differs = had != ( now != nullptr ) ||
                  ( had && std::memcmp( static_cast< const void* >( &mine ),
                                        static_cast< const void* >( now ), sizeof( Record ) ) != 0 );
   Event e{ differs ? Event::changed : Event::none, k, {}, now != nullptr, now ? *now : default_ };
   auto it = changes.queued.find( k );
   if ( it != changes.queued.end() ) {
      changes.events[ it->second ] = e;
   } else if ( differs ) {
      changes.queued.emplace( k, changes.events.size() );
      changes.events.push_back( e );
   }
}

// The table's files were removed (and maybe created anew) under us: the
// reader follows whatever table now bears the name, from a full pass (which,
// with no table, reports every delivered key removed).
template< class Record >
void Reader< Record >::remount() {
   control_.reset();
   current_ = {};
   retired_.clear();
   iterating_.clear();
   synced_ = false;
   notifier_->reopen();
}

// Every difference between shared memory and the delivered state, both ways.
// The head is read before the pass, so a change made during it is compared
// again next time; nothing moves until the pass has succeeded.
template< class Record >
void Reader< Record >::resync( Changes& changes ) {
   uint64_t head = control_ ? control_->header().feedHead.load( std::memory_order_acquire ) : 0;
   const internal::SlotArray* t = control_ ? current() : nullptr;
   Record r;
   if ( t ) {
      // Nothing in this loop remaps: t stays valid throughout.
      const internal::SlotArray& shared = *t;
      auto ctx = stuckContext();
      for ( uint32_t i = 0; i < shared.slotCount(); ++i ) {
         try {
            if ( Ops::read( shared, i, r, ctx ) == internal::slotLive ) {
               note( changes, r.key(), &r );
            }
         } catch ( const Fable::CorruptionDetectedException& ) {
            // A slot its dead writer left mid-update, already reported to
            // the handler; the rest of the table is still worth comparing.
         }
      }
   }
   // Delivered keys the pass did not queue: gone, or passed over while they
   // moved; a probe tells which.
   const internal::SlotArray& mine = replica_.table_;
   for ( uint32_t i = 0; i < mine.slotCount(); ++i ) {
      if ( ( mine.word( i ).load( std::memory_order_relaxed ) & 3 ) != internal::slotLive ) {
         continue;
      }
      Key k = Ops::recordAt( mine, i ).key();
      if ( changes.queued.count( k ) ) {
         continue;
      }
      try {
         note( changes, k, sharedState( k, r ) ? &r : nullptr );
      } catch ( const Fable::CorruptionDetectedException& ) {
         // Left as delivered: a lookup of it reports the damage.
      }
   }
   cursor_ = head;
   synced_ = control_ != nullptr;
   pending_.push_back( { Event::quiescedTrue, {}, {}, false, default_ } );
   for ( const Event& e : changes.events ) {
      pending_.push_back( e );
   }
   pending_.push_back( { Event::quiescedFalse, {}, {}, false, default_ } );
}

template< class Record >
void Reader< Record >::gather() {
   MountStatus status = mountStatus();
   bool replaced = false;
   if ( control_ && status != MountStatus::mounted && control_->replaced() ) {
      remount();
      status = mountStatus();
      replaced = true;
   }
   if ( status != reportedStatus_ ) {
      reportedStatus_ = status;
      pending_.push_back( { Event::mountStatus, {}, status, false, default_ } );
   }
   if ( !control_ && !replaced ) {
      return;
   }
   Changes changes;
   std::vector< Key > keys;
   if ( control_ && synced_ && readFeed( keys ) ) {
      // One callback per changed key, in the order of first change.
      Record r;
      for ( const Key& k : keys ) {
         try {
            note( changes, k, sharedState( k, r ) ? &r : nullptr );
         } catch ( const Fable::CorruptionDetectedException& ) {
            // Reported to the handler; the key stays as delivered, and a
            // shared lookup of it reports the damage to whoever asks.
         }
      }
      for ( const Event& e : changes.events ) {
         pending_.push_back( e );
      }
      return;
   }
   resync( changes );
}

// Each event leaves the queue before its callback runs, and its state is
// applied to the replica just before: a callback that throws has had its
// event, and the rest wait for the next dispatch().
template< class Record >
void Reader< Record >::deliver() {
   // Copies, so a callback may replace any hook while it runs.
   auto onMountStatus = onMountStatus_;
   auto onQuiesced = onQuiesced_;
   auto onKey = onKey_;
   while ( !pending_.empty() ) {
      Event e = pending_.front();
      pending_.pop_front();
      if ( e.kind == Event::changed ) {
         if ( e.present ) {
            replica_.write( e.value );
         } else {
            replica_.remove( e.key );
         }
         if ( onKey ) {
            onKey( e.key );
         }
      } else if ( e.kind == Event::mountStatus ) {
         if ( onMountStatus ) {
            onMountStatus( e.status );
         }
      } else if ( e.kind != Event::none && onQuiesced ) {
         onQuiesced( e.kind == Event::quiescedTrue );
      }
   }
}

template< class Record >
void Reader< Record >::dispatch() {
   if ( dispatching_ ) {
      return;   // a callback called dispatch(): the outer call delivers
   }
   dispatching_ = true;
   struct Reset {
      bool& flag;
      ~Reset() { flag = false; }
   } reset{ dispatching_ };
   // Whatever throws below, fd() must not fall silent: armed, or readable
   // while anything is left to deliver. Arming comes after the callbacks
   // (it may cost a process-wide barrier, which should not delay them).
   struct Rearm {
      Reader* reader;
      ~Rearm() { reader->armForNextChange(); }
   } rearm{ this };

   notifier_->drain();
   // What a throwing callback left goes first: changes are gathered against
   // the delivered state, so nothing may be waiting when they are.
   deliver();
   gather();
   deliver();
}

}  // namespace Lumen
