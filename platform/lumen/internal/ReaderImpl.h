// Lumen Reader members: mounting and seeding the replica, the delivered
// state and shared-memory reads (delivery: ReaderDelivery.h). Included by
// platform/lumen/Table.h only.
#pragma once

#include "platform/lumen/internal/SlotOps.h"

#include <numeric>

namespace Lumen {

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

// Visits 0 .. n-1 once each, in a scattered order: a step of about 0.618 n,
// coprime to n, so that any first stretch of the visit is spread evenly
// over the range. Slots visited in order hand out keys in the order of
// their homes; inserted that way into the replica, which grows as it fills,
// every generation's first keys would all have homes in its first few
// slots and pile up into one run that each further insert probes to its
// end (quadratic in the table's size).
template< class F >
void forEachScattered( uint32_t n, F&& f ) {
   if ( n == 0 ) {
      return;
   }
   uint64_t step = ( ( uint64_t( n ) * 0x9E3779B9u ) >> 32 ) | 1;
   while ( std::gcd( step, uint64_t( n ) ) != 1 ) {
      step += 2;
   }
   step %= n;
   uint64_t i = 0;
   for ( uint32_t k = 0; k < n; ++k ) {
      f( uint32_t( i ) );
      i += step;
      if ( i >= n ) {
         i -= n;
      }
   }
}

// Faults [begin, end) in with one call rather than a fault per page; a
// kernel without the advice faults as the caller goes.
inline void prefault( const uint8_t* begin, const uint8_t* end, int advice ) {
   uintptr_t page = uintptr_t( ::sysconf( _SC_PAGESIZE ) );
   uintptr_t from = uintptr_t( begin ) & ~( page - 1 );
   ::madvise( reinterpret_cast< void* >( from ), uintptr_t( end ) - from, advice );
}

}  // namespace internal

// Where a key is in a writer-side table, from its hash computed once by the
// caller (the replica is private: no concurrent writer, no retries).
template< class Record >
typename internal::SlotOps< Record >::Found
findWithHash( const internal::SlotArray& t, const typename internal::SlotOps< Record >::Key& k,
              uint32_t hash, const std::string& path, const CorruptionHandler& handler ) {
   const uint32_t n = t.slotCount();
   uint32_t i = t.home( hash );
   uint32_t freeSlot = internal::noSlot;
   for ( uint32_t steps = 0; steps < n; ++steps, i = i + 1 == n ? 0 : i + 1 ) {
      const uint32_t state = t.word( i ).load( std::memory_order_relaxed ) & 3;
      if ( state == internal::slotEmpty ) {
         return { false, freeSlot != internal::noSlot ? freeSlot : i };
      }
      if ( state == internal::slotTombstone ) {
         freeSlot = freeSlot != internal::noSlot ? freeSlot : i;
      } else if ( state == internal::slotLive ) [[likely]] {
         if ( internal::SlotOps< Record >::recordAt( t, i ).key() == k ) {
            return { true, i };
         }
      } else {
         // The writer's own find reports the busy slot.
         return internal::SlotOps< Record >::find( t, k, path, handler );
      }
   }
   return internal::SlotOps< Record >::find( t, k, path, handler );
}

// The keys one gather() found changed: their events, and where each key's
// event is, in a flat table over the key's hash (a cell holds an event's
// index plus one; zero is empty). Flat, so that noting a change allocates
// nothing of its own: a node per key was a malloc and a free per change.
template< class Record >
struct Reader< Record >::Changes {
   std::vector< Event > events;
   std::vector< uint32_t > cells;
   size_t adds = 0;   // events of keys the replica did not hold

   // The event queued for k, or null.
   Event* find( const Key& k, uint32_t hash ) {
      if ( cells.empty() ) {
         return nullptr;
      }
      const uint32_t c = cells[ cellOf( k, hash ) ];
      return c ? &events[ c - 1 ] : nullptr;
   }
   // Fetches k's first cell early (its address only: harmless if the
   // cells grow meanwhile).
   void prefetch( uint32_t hash ) const {
      if ( !cells.empty() ) {
         __builtin_prefetch( &cells[ internal::mixHash( hash ) & ( cells.size() - 1 ) ] );
      }
   }
   // Queues e (for k, not queued yet).
   void add( const Key& k, uint32_t hash, const Event& e ) {
      if ( ( events.size() + 1 ) * 2 > cells.size() ) {
         grow( events.size() + 1 );
      }
      cells[ cellOf( k, hash ) ] = uint32_t( events.size() + 1 );
      events.push_back( e );
   }
   // Room for n events without regrowing the cells.
   void reserve( size_t n ) {
      events.reserve( n );
      if ( n * 2 > cells.size() ) {
         grow( n );
      }
   }

 private:
   size_t cellOf( const Key& k, uint32_t hash ) const {
      const size_t mask = cells.size() - 1;
      for ( size_t i = internal::mixHash( hash ) & mask;; i = ( i + 1 ) & mask ) {
         const uint32_t c = cells[ i ];
         if ( c == 0 || events[ c - 1 ].key == k ) {
            return i;
         }
      }
   }
   void grow( size_t n ) {
      size_t size = 1024;
      while ( size < n * 2 ) {
         size *= 2;
      }
      cells.assign( size, 0 );
      const size_t mask = size - 1;
      for ( uint32_t j = 0; j < events.size(); ++j ) {
         size_t i = internal::mixHash( events[ j ].hash ) & mask;
         while ( cells[ i ] ) {
            i = ( i + 1 ) & mask;
         }
         cells[ i ] = j + 1;
      }
   }
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
      // Damaged at mount: nothing delivered, and the table shows as its
      // writer gone (mountStatus()) until a writer makes it anew. Reported
      // again, to the handler, by the first operation that needs it.
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
   // A slot-for-slot copy is only as good as the placement it copies: a key
   // that damage left where its probe never reaches (or twice on one probe),
   // or too few empty slots to end a probe, would give a replica that walks
   // an entry its lookups cannot find and never removes it. Such a
   // generation is seeded by key instead.
   if ( live + tombstones > copy.slotCount() - copy.slotCount() / 8 || !placedAsProbed( copy ) ) {
      seedByInsertion( from );
      return;
   }
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

// True when a probe for each live slot's key, from the key's home, meets no
// empty slot and no other copy of the key before it reaches that slot.
template< class Record >
bool Reader< Record >::placedAsProbed( const internal::SlotArray& t ) {
   const uint32_t n = t.slotCount();
   auto state = [ & ]( uint32_t i ) { return t.word( i ).load( std::memory_order_relaxed ) & 3; };
   for ( uint32_t i = 0; i < n; ++i ) {
      if ( state( i ) != internal::slotLive ) {
         continue;
      }
      const Key k = Ops::recordAt( t, i ).key();
      for ( uint32_t j = t.home( k.hash() ); j != i; j = j + 1 == n ? 0 : j + 1 ) {
         const uint32_t s = state( j );
         if ( s == internal::slotEmpty || ( s == internal::slotLive && Ops::recordAt( t, j ).key() == k ) ) {
            return false;
         }
      }
   }
   return true;
}

// The slow way, for a generation of an unexpected size, a copy the writer
// lapped, or damaged placement: one insert per live slot, which never keeps
// a key twice.
template< class Record >
void Reader< Record >::seedByInsertion( const internal::SlotArray& from ) {
   clearReplica();
   auto ctx = stuckContext();
   Record r;
   internal::forEachScattered( from.slotCount(), [ & ]( uint32_t i ) {
      try {
         if ( Ops::read( from, i, r, ctx ) == internal::slotLive && deliverable( r ) ) {
            replica_.write( r );
         }
      } catch ( const Fable::CorruptionDetectedException& ) {
      }
   } );
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
bool Reader< Record >::condemnedStill() const {
   if ( condemned_.inode == 0 ) {
      return false;
   }
   if ( !internal::fileReplaced( internal::controlFileName( root_, path_ ), condemned_ ) ) {
      return true;
   }
   condemned_ = {};
   return false;
}

template< class Record >
bool Reader< Record >::intact() const {
   if ( !control_ ) {
      return true;
   }
   if ( control_->damaged() || control_->header().magic != internal::controlMagic ) {
      return false;
   }
   return !current_ || current_.headerIntact();
}

template< class Record >
bool Reader< Record >::mount() const {
   if ( !control_ ) {
      if ( condemnedStill() ) {
         return false;
      }
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
   if ( !control_ && condemnedStill() ) {
      return MountStatus::writerGone;
   }
   try {
      if ( !mount() ) {
         return MountStatus::waitingForWriter;
      }
   } catch ( const Fable::CorruptionDetectedException& ) {
      // A table its writer could not have left so: as good as no writer.
      return MountStatus::writerGone;
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

}  // namespace Lumen
