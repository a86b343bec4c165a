// Lumen Reader members: delivery. Reading the change feed, full passes
// against shared memory, the queue of events, and dispatch(). Included by
// platform/lumen/Table.h only, after ReaderImpl.h.
#pragma once

#include "platform/lumen/internal/ReaderImpl.h"

#include <malloc.h>

namespace Lumen {

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
