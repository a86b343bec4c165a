// Lumen Writer members. Included by platform/lumen/Table.h only.
#pragma once

#include "platform/lumen/internal/SlotOps.h"

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
   // From here on the file must keep what it holds, for readers and for the
   // writer that takes the table over; what this writer does next is its
   // own. A copy-on-write view of the file gives both without copying the
   // table, whose pages the file holds anyway: only pages changed after the
   // detach cost memory of their own. Where the file cannot be mapped
   // again, the content is copied.
   internal::SlotArray copy = table_.privateView( layout_ );
   if ( !copy ) {
      copy = internal::SlotArray::createAnonymous( layout_, table_.capacity(),
                                                   table_.generation() );
      copy.liveCountIs( copyLiveInto( copy ) );
   }
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
uint32_t Writer< Record >::copyLiveInto( internal::SlotArray& to ) {
   uint32_t count = 0;
   for ( uint32_t i = 0; i < table_.slotCount(); ++i ) {
      if ( ( table_.word( i ).load( std::memory_order_relaxed ) & 3 ) == internal::slotLive ) {
         Record r = Ops::recordAt( table_, i );
         auto f = Ops::find( to, r.key(), path_, corruptionHandler_ );
         Ops::store( to, f.slot, &r, internal::slotLive );
         ++count;
      }
   }
   return count;
}

template< class Record >
void Writer< Record >::rebuild( uint32_t newCapacity ) {
   uint64_t generation = table_.generation() + 1;
   auto next = control_ ? internal::SlotArray::createFile( root_, path_, layout_, newCapacity,
                                                           generation,
                                                           internal::FileAccess::of( options_ ) )
                        : internal::SlotArray::createAnonymous( layout_, newCapacity, generation );
   next.liveCountIs( copyLiveInto( next ) );
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
      try {
         rebuild( target );
      } catch ( const OutOfSpaceException& ) {
         // Shrinking is housekeeping: the key fits where it is, so a root
         // too full for the smaller segment must not refuse it.
      }
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
std::optional< Record > Writer< Record >::find( const Key& k ) const {
   auto f = Ops::find( table_, k, path_, corruptionHandler_ );
   return f.present ? std::optional< Record >( Ops::recordAt( table_, f.slot ) ) : std::nullopt;
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

}  // namespace Lumen
