// Lumen Reader members: mounting and seeding the replica, the delivered
// state, shared-memory reads, and delivery. Included by platform/lumen/Table.h
// only.
#pragma once

#include "platform/lumen/internal/SlotOps.h"

#include <malloc.h>

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
// one after all, nothing is reported. `hash` is k.hash(). `seen`, in a full
// pass, marks the replica slots of the keys noted: a key whose replica slot
// was not marked yet cannot have been queued, and needs no search for it.
template< class Record >
void Reader< Record >::note( Changes& changes, const Key& k, uint32_t hash, const Record* now,
                             std::vector< uint64_t >* seen ) const {
   if ( now && !deliverable( *now ) ) {
      now = nullptr;
   }
   const internal::SlotArray& mine = replica_.table_;
   const auto f = findWithHash< Record >( mine, k, hash, path_, corruptionHandler_ );
   const bool differs =
      f.present != ( now != nullptr ) ||
      ( f.present && std::memcmp( mine.record( f.slot ), static_cast< const void* >( now ),
                                  sizeof( Record ) ) != 0 );
   bool queued = true;
   if ( f.present && seen ) {
      uint64_t& w = ( *seen )[ f.slot / 64 ];
      const uint64_t bit = uint64_t( 1 ) << ( f.slot % 64 );
      queued = ( w & bit ) != 0;
      w |= bit;
   }
   Event* e = queued ? changes.find( k, hash ) : nullptr;
   if ( !e && !differs ) {
      return;
   }
   const Event ev{ differs ? Event::changed : Event::none, k, {}, now != nullptr,
                   now ? *now : default_, hash };
   if ( e ) {
      *e = ev;
   } else {
      changes.add( k, hash, ev );
      changes.adds += !f.present;
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
   const internal::SlotArray& mine = replica_.table_;
   // The replica slots whose keys the shared pass met: only the others can
   // be gone (or have been passed over while they moved).
   std::vector< uint64_t > seen( ( size_t( mine.slotCount() ) + 63 ) / 64 );
   Record r;
   if ( t ) {
      // Nothing in this loop remaps: t stays valid throughout.
      const internal::SlotArray& shared = *t;
      auto ctx = stuckContext();
      const uint32_t n = shared.slotCount();
      // Room for every key the pass may queue, so that neither the events
      // are copied nor the cells rehashed (at random) on the way up; event
      // pages not written cost nothing (the count is shared memory: bounded
      // by the slots, whatever a damaged header says).
      changes.reserve( std::min( shared.liveCount(), n ) );
      // The replica is probed at random: its home for the key `ahead`
      // slots on is fetched early, so that many misses are in flight while
      // the pass compares. The key is read unchecked, for the address only.
      // Its hash is kept for when the pass gets there, if the key is still
      // the same then.
      constexpr uint32_t ahead = 16;
      // Each entry is a key and its hash, whatever the slot held.
      Key aheadKeys[ ahead ] = {};
      uint32_t aheadHashes[ ahead ];
      std::fill( aheadHashes, aheadHashes + ahead, Key{}.hash() );
      auto prefetchHome = [ & ]( uint32_t j ) {
         if ( ( shared.word( j ).load( std::memory_order_relaxed ) & 3 ) == internal::slotLive ) {
            const Key k = Ops::recordAt( shared, j ).key();
            const uint32_t h = k.hash();
            aheadKeys[ j % ahead ] = k;
            aheadHashes[ j % ahead ] = h;
            __builtin_prefetch( mine.slot( mine.home( h ) ) );
            changes.prefetch( h );
         }
      };
      for ( uint32_t j = 0; j < std::min( ahead, n ); ++j ) {
         prefetchHome( j );
      }
      for ( uint32_t i = 0; i < n; ++i ) {
         if ( i + ahead < n ) {
            prefetchHome( i + ahead );
         }
         try {
            if ( Ops::read( shared, i, r, ctx ) == internal::slotLive ) {
               const Key k = r.key();
               const bool known = aheadKeys[ i % ahead ] == k;
               note( changes, k, known ? aheadHashes[ i % ahead ] : k.hash(), &r, &seen );
            }
         } catch ( const Fable::CorruptionDetectedException& ) {
            // A slot its dead writer left mid-update, already reported to
            // the handler; the rest of the table is still worth comparing.
         }
      }
   }
   // Delivered keys the pass did not meet: gone, or passed over while they
   // moved; a probe tells which.
   for ( uint32_t i = 0; i < mine.slotCount(); ++i ) {
      if ( ( seen[ i / 64 ] >> ( i % 64 ) & 1 ) != 0 ||
           ( mine.word( i ).load( std::memory_order_relaxed ) & 3 ) != internal::slotLive ) {
         continue;
      }
      const Key k = Ops::recordAt( mine, i ).key();
      try {
         note( changes, k, k.hash(), sharedState( k, r ) ? &r : nullptr, nullptr );
      } catch ( const Fable::CorruptionDetectedException& ) {
         // Left as delivered: a lookup of it reports the damage.
      }
   }
   cursor_ = head;
   synced_ = control_ != nullptr;
   reserveReplica( changes.adds );
   pending_.push_back( { Event::quiescedTrue, {}, {}, false, default_ } );
   queueInDeliveryOrder( changes.events );
   pending_.push_back( { Event::quiescedFalse, {}, {}, false, default_ } );
   // The pass's events come to about a hundred bytes a changed key, all
   // freed by the end of delivery but kept by the heap.
   constexpr size_t trimAbove = 16384;
   trimAfterDelivery_ = trimAfterDelivery_ || changes.events.size() > trimAbove;
}

// A pass may add far more keys than the replica holds (the first catch-up
// of a reader lapped while its writer filled the table): grown once to hold
// them all, rather than doubled step by step with every key moved at each
// step. Until they are delivered, the replica does not shrink below that.
template< class Record >
void Reader< Record >::reserveReplica( size_t adds ) {
   const uint64_t need = uint64_t( replica_.count() ) + adds;
   const uint32_t most = replica_.options_.maxCapacity;
   if ( need <= replica_.capacity() || replica_.capacity() >= most ) {
      return;
   }
   uint64_t capacity = replica_.capacity();
   while ( capacity < need && capacity < most ) {
      capacity *= 2;
   }
   capacity = std::min< uint64_t >( capacity, most );
   replica_.rebuild( uint32_t( capacity ) );
   replica_.options_.initialCapacity = uint32_t( capacity );
   replicaReserved_ = true;
}

// A pass queues keys in the order of their homes in shared memory, which
// deliver() must not hand to the growing replica as they are (they would
// pile up in its first slots). Keys with an order go in that order: a
// consumer that files them in ordered containers then inserts each next to
// the one before, rather than at random. Others go scattered.
template< class Record >
void Reader< Record >::queueInDeliveryOrder( std::vector< Event >& events ) {
   if constexpr ( requires( const Key& a, const Key& b ) {
                     { a < b } -> std::convertible_to< bool >;
                  } ) {
      // Sorted as (key, index) pairs: a fraction of the events' bytes to move.
      std::vector< std::pair< Key, uint32_t > > order;
      order.reserve( events.size() );
      for ( uint32_t i = 0; i < events.size(); ++i ) {
         if ( events[ i ].kind != Event::none ) {
            order.emplace_back( events[ i ].key, i );
         }
      }
      std::sort( order.begin(), order.end(),
                 []( const auto& a, const auto& b ) { return a.first < b.first; } );
      pending_.reserve( order.size() + 1 );
      for ( const auto& [ k, i ] : order ) {
         pending_.push_back( events[ i ] );
      }
   } else {
      internal::forEachScattered( uint32_t( events.size() ), [ & ]( uint32_t i ) {
         if ( events[ i ].kind != Event::none ) {
            pending_.push_back( events[ i ] );
         }
      } );
   }
}

template< class Record >
void Reader< Record >::condemn( const std::string& why ) {
   if ( corruptionHandler_ ) {
      corruptionHandler_( why );
   }
   condemned_ = control_ ? control_->identity() : internal::FileIdentity{};
   remount();
}

template< class Record >
void Reader< Record >::gather() {
   if ( !intact() ) {
      condemn( fmt::format( "Lumen table {}: a header of the mapped table changed under the reader; "
                            "the table is dropped until its writer makes it anew",
                            path_ ) );
      dropAll();
      return;
   }
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
      changes.reserve( keys.size() );
      // Both probes of a key land at random: the homes of the key `ahead`
      // places on are fetched early, so that many misses are in flight.
      constexpr size_t ahead = 8;
      uint32_t hashes[ ahead ];
      // The generation mapped now, for the addresses only (sharedState()
      // checks for a newer one, and reports damage, as it probes).
      const internal::SlotArray* shared = current_ ? &current_ : nullptr;
      const internal::SlotArray& mine = replica_.table_;
      auto prefetch = [ & ]( size_t j ) {
         const uint32_t h = keys[ j ].hash();
         hashes[ j % ahead ] = h;
         if ( shared ) {
            __builtin_prefetch( shared->slot( shared->home( h ) ) );
         }
         __builtin_prefetch( mine.slot( mine.home( h ) ) );
      };
      for ( size_t j = 0; j < std::min( ahead, keys.size() ); ++j ) {
         prefetch( j );
      }
      Record r;
      for ( size_t j = 0; j < keys.size(); ++j ) {
         const uint32_t h = hashes[ j % ahead ];
         if ( j + ahead < keys.size() ) {
            prefetch( j + ahead );
         }
         try {
            note( changes, keys[ j ], h, sharedState( keys[ j ], r ) ? &r : nullptr, nullptr );
         } catch ( const Fable::CorruptionDetectedException& ) {
            // Reported to the handler; the key stays as delivered, and a
            // shared lookup of it reports the damage to whoever asks.
         }
      }
      for ( const Event& e : changes.events ) {
         if ( e.kind != Event::none ) {
            pending_.push_back( e );
         }
      }
      return;
   }
   resync( changes );
}

// After condemn(): the table shows as its writer gone, and every key the
// consumer was told of is reported removed (a pass against no table).
template< class Record >
void Reader< Record >::dropAll() {
   if ( reportedStatus_ != MountStatus::writerGone ) {
      reportedStatus_ = MountStatus::writerGone;
      pending_.push_back( { Event::mountStatus, {}, reportedStatus_, false, default_ } );
   }
   Changes none;
   resync( none );
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
   constexpr size_t ahead = 8;
   internal::SlotArray& mine = replica_.table_;
   while ( !pending_.empty() ) {
      // The replica slot of a change a few events on, fetched early.
      if ( pending_.size() > ahead && pending_[ ahead ].kind == Event::changed ) {
         __builtin_prefetch( mine.slot( mine.home( pending_[ ahead ].hash ) ) );
      }
      Event e = pending_.front();
      pending_.pop_front();
      if ( e.kind == Event::changed ) {
         if ( e.present ) {
            const auto f = findWithHash< Record >( mine, e.key, e.hash, path_, corruptionHandler_ );
            if ( f.present ) {
               Ops::store( mine, f.slot, &e.value, internal::slotLive );
            } else {
               replica_.insertNew( e.value, e.key, f.slot );
            }
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
   if ( replicaReserved_ && pending_.empty() ) {
      replicaReserved_ = false;
      replica_.options_.initialCapacity = internal::replicaOptions().initialCapacity;
   }
   if ( trimAfterDelivery_ && pending_.empty() ) {
      trimAfterDelivery_ = false;
      pending_.shrink_to_fit();
      ::malloc_trim( 0 );
   }
}

}  // namespace Lumen