// Lumen tables: typed hash tables in POSIX shared memory, written by one
// process and read, lock-free, by any number of others that map them by path.
//
// Ownership: a table's files live under the Lumen::root() of when its writer
// attached (a reader looks under the root of when it was made). The Writer
// bound to a path owns them while it is attached (an exclusive flock on the
// control file; a dead writer's lock is released by the kernel, so the next
// writer takes over). Content outlives writers: detaching or dying leaves it
// in place.
//
// What a Reader delivers: lookup, contains, count, next and lookupBatch all
// answer from one state, the one the last dispatch() delivered (before the
// first dispatch, the one the Reader mounted). A consumer never reads a
// state it has not been told about. dispatch() calls onKey once for each key
// whose state (presence or record bytes) differs from that delivered state,
// and applies the key's new state just before its callback runs, so the
// callback reads exactly what it has been told and no later change. A key
// that comes and goes between two dispatches is never reported; a removal is
// reported only for a key the consumer was told of. After any resync (the
// reader lapped by the feed, a writer restart or takeover, the table
// replaced) every key whose delivered state differs is reported, framed by
// onQuiesced( true ) and onQuiesced( false ), so nothing stale is kept.
// For this the Reader keeps a private replica of the delivered state in the
// table's own slot format (no more bytes per entry than the shared table);
// mounting copies the shared generation slot for slot. The *Shared reads
// (lookupShared, containsShared, countShared, nextShared,
// lookupBatchShared) read shared memory as it is now, changes not yet
// delivered included: for tools and measurements, not for consumers of
// dispatch(). Figures and the full contract: docs/lumen-reader.md.
//
// Threading: a Writer is used from one thread. A Reader is used from one
// thread (its lookups and dispatch()). The writer makes a reader's fd()
// readable itself (a non-blocking send to the reader's socket); each Reader
// also runs one low-rate internal thread that notices a writer that died.
// Readers never take a lock the writer could hold and the writer never waits
// for readers.
//
// Invariants: records are trivially copyable and stored by value (no
// pointers in shared memory); every index read from shared memory is bounds
// checked; a reader never returns a record copied while the writer changed it
// (per-slot sequence word, re-checked after the copy); a generation is frozen
// once the writer has moved to the next, so a probe of any one generation,
// hit or miss, can be trusted.
// Segment layout: docs/lumen-format.md.
#pragma once

#include "platform/lumen/CorruptionDetectedException.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/internal/Segment.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Lumen {

template< class Record >
class Reader;

template< class Record >
class Writer {
 public:
   using Key = std::decay_t< decltype( std::declval< const Record& >().key() ) >;
   static_assert( std::is_trivially_copyable_v< Record >, "Lumen records are copied as bytes" );
   static_assert( std::is_trivially_copyable_v< Key >, "Lumen keys are copied as bytes" );

   // Unattached: entries live in process memory until attach().
   explicit Writer( const Record& defaultValue = Record{}, Options options = {} );
   ~Writer();   // detaches; the segment and its content stay for the next writer
   Writer( const Writer& ) = delete;
   Writer& operator=( const Writer& ) = delete;

   // Creates the table at `path` or takes it over (validating what is there);
   // existing content is kept, then entries written while unattached are merged
   // in (they win). Throws WriterConflictException if a live writer holds it.
   void attach( const std::string& path );
   // Keeps the content, as a copy-on-write view of the segment: what this
   // writer changes afterwards stays in its own memory, and the segment
   // stays as it is for readers and the next writer.
   void detach();
   bool attached() const { return control_ != nullptr; }
   const std::string& path() const { return path_; }

   void write( const Record& r );                 // insert or replace
   std::optional< Record > remove( const Key& k );
   Record lookup( const Key& k ) const;
   std::optional< Record > find( const Key& k ) const;   // lookup and contains in one probe
   bool contains( const Key& k ) const;
   uint32_t count() const;
   uint32_t capacity() const;

   // Memory for editing k's record in place, holding its current value (or the
   // default value with key k). The edit becomes visible, in one piece, at
   // commit( ptr ); until then readers keep seeing the committed value. A
   // write or remove of k meanwhile gives the image k's new value.
   Record* slotFor( const Key& k );
   void commit( const Record* inPlace );

   // First entry at or after `from`, in slot order, with the hint of the slot
   // after it. Removing the returned entry and continuing from that hint
   // neither skips nor repeats entries (removals never move entries).
   std::optional< std::pair< Record, Hint > > next( Hint from = {} ) const;

   void corruptionHandlerIs( CorruptionHandler h ) { corruptionHandler_ = std::move( h ); }
   // Walks every slot and probe sequence; throws CorruptionDetectedException.
   void sanityCheck() const;

 private:
   using Ops = internal::SlotOps< Record >;
   void insertNew( const Record& r, const Key& k, uint32_t slot );   // slot: where find() put k
   void rebuild( uint32_t newCapacity );
   // Puts every live record of this writer's table into `to`; returns how many.
   uint32_t copyLiveInto( internal::SlotArray& to );
   void keepUndo( uint32_t slot );   // before slot's live record is overwritten
   void publish( const Key& k );
   void refreshStaged( const Key& k, const Record* now );   // now: null = removed
   uint32_t shrinkTarget() const;

   // A Reader keeps its delivered state in an unattached Writer, and seeds
   // it slot for slot from the shared generation.
   friend class Reader< Record >;

   Record default_;
   Options options_;
   std::string path_;
   std::string root_;   // Lumen::root() when attached
   CorruptionHandler corruptionHandler_;
   internal::RecordLayout layout_;
   internal::SlotArray table_;                    // current generation
   std::unique_ptr< internal::Control > control_; // set while attached
   uint64_t undoGeneration_ = 0;   // generation stored in the undo image; 0 = none
   std::vector< std::unique_ptr< Record > > staged_;   // slotFor() images
};

template< class Record >
class Reader {
 public:
   using Key = std::decay_t< decltype( std::declval< const Record& >().key() ) >;
   static_assert( std::is_trivially_copyable_v< Record >, "Lumen records are copied as bytes" );
   static_assert( std::is_trivially_copyable_v< Key >, "Lumen keys are copied as bytes" );

   // Records for which `vacant` is true count as no record in the delivered
   // state: never delivered, and a delivered key that takes such a value is
   // reported removed. For record types whose consumers read a particular
   // value as "none", so that a writer storing it cannot show them a key
   // that is there and absent at once.
   using Vacant = bool ( * )( const Record& );

   // Never throws for a missing table: mountStatus() is then waitingForWriter
   // and the table is picked up when a writer creates it.
   explicit Reader( const std::string& path, const Record& defaultValue = Record{},
                    Vacant vacant = nullptr );
   ~Reader();
   Reader( const Reader& ) = delete;
   Reader& operator=( const Reader& ) = delete;

   // The delivered state (see the top of this file).
   Record lookup( const Key& k ) const;
   bool contains( const Key& k ) const;
   uint32_t count() const;
   std::optional< std::pair< Record, Hint > > next( Hint from = {} ) const;
   // Looks up n keys, overlapping their memory accesses.
   void lookupBatch( const Key* keys, Record* out, size_t n ) const;

   // Shared memory as it is now, undelivered changes included. An iteration
   // finishes on the generation it began on.
   Record lookupShared( const Key& k ) const;
   bool containsShared( const Key& k ) const;
   uint32_t countShared() const;
   std::optional< std::pair< Record, Hint > > nextShared( Hint from = {} ) const;
   void lookupBatchShared( const Key* keys, Record* out, size_t n ) const;

   MountStatus mountStatus() const;
   const std::string& path() const { return path_; }

   // The sequence the writer gives its next change (0 while no table is
   // mounted). It moves with every change the writer publishes, so a host
   // program that sees it stand still knows the writer has gone quiet.
   uint64_t feedHead() const;
   // True when dispatch() has something to deliver: a change published
   // since the last delivery, or a mount status not yet reported.
   bool dispatchPending() const;

   int fd() const;       // readable when dispatch() has work
   void dispatch();      // runs pending callbacks on the caller's thread
   void onKeyIs( std::function< void ( const Key& ) > f ) { onKey_ = std::move( f ); }
   void onQuiescedIs( std::function< void ( bool ) > f ) { onQuiesced_ = std::move( f ); }
   void onMountStatusIs( std::function< void ( MountStatus ) > f ) { onMountStatus_ = std::move( f ); }
   void corruptionHandlerIs( CorruptionHandler h ) { corruptionHandler_ = std::move( h ); }

 private:
   using Ops = internal::SlotOps< Record >;
   struct KeyHash {
      size_t operator()( const Key& k ) const { return k.hash(); }
   };

   bool mount() const;                 // maps the control segment if it exists
   const internal::SlotArray* current() const;   // current generation or null
   const internal::SlotArray* remap() const;     // current()'s slow path
   void retire() const;                          // current_ is replaced
   internal::StuckContext stuckContext() const {
      return { control_.get(), &path_, &corruptionHandler_ };
   }
   static void probeBatch( const internal::SlotArray& t, const Key* keys, Record* out, size_t n,
                           const Record& absent, const internal::StuckContext& ctx );
   void armForNextChange();                      // end of dispatch()
   bool readFeed( std::vector< Key >& keys );    // false: lapped
   void seed();                                  // the replica from the mounted table
   void seedByInsertion( const internal::SlotArray& from );
   static bool placedAsProbed( const internal::SlotArray& t );   // seed()'s copy is usable
   void clearReplica();
   bool deliveredState( const Key& k, Record& out ) const;
   bool sharedState( const Key& k, Record& out ) const;   // false: absent
   bool deliverable( const Record& r ) const { return !vacant_ || !vacant_( r ); }
   struct Changes;
   void note( Changes& changes, const Key& k, uint32_t hash, const Record* now,
              std::vector< uint64_t >* seen ) const;
   void gather();                                // queues what changed
   void resync( Changes& changes );              // queues every difference
   void remount();                               // the table was replaced
   // The mounted table is damaged beyond a slot or a key: it is dropped as
   // if its writer were gone, every delivered key is reported removed, and
   // the reader waits for a table under the name that is not this file.
   void condemn( const std::string& why );
   void dropAll();                               // condemn()'s reports
   bool intact() const;                          // the mapped headers still hold
   bool condemnedStill() const;                  // the damaged file is still there
   void deliver();                               // runs pending_'s callbacks

   std::string path_;
   std::string root_;   // Lumen::root() when constructed
   Record default_;
   Vacant vacant_;
   internal::RecordLayout layout_;
   CorruptionHandler corruptionHandler_;
   std::function< void ( const Key& ) > onKey_;
   std::function< void ( bool ) > onQuiesced_;
   std::function< void ( MountStatus ) > onMountStatus_;

   mutable std::unique_ptr< internal::Control > control_;
   mutable internal::SlotArray current_;
   // Older generations that an unfinished iteration is on, oldest first, and
   // the tags of the generations iterations are on.
   mutable std::vector< internal::SlotArray > retired_;
   mutable std::vector< uint64_t > iterating_;
   std::unique_ptr< internal::Notifier > notifier_;

   // Dispatch state, touched only by dispatch() and the constructor.
   struct Event {
      enum Kind { changed, quiescedTrue, quiescedFalse, mountStatus, none } kind;
      Key key;
      MountStatus status;
      bool present;   // changed: the key's new state, applied to replica_
      Record value;
      uint32_t hash = 0;   // changed: key.hash(), computed once per change
   };
   void queueInDeliveryOrder( std::vector< Event >& events );   // a pass's events, to pending_
   void reserveReplica( size_t adds );   // room for a pass's additions
   // The control file of a table found damaged; {} when none. Until a
   // file that is not this one bears the table's name, the reader mounts
   // nothing and reports writerGone.
   mutable internal::FileIdentity condemned_ {};
   uint64_t cursor_ = 0;           // next feed sequence to read
   bool synced_ = false;           // replica_ was compared with a full pass
   // The delivered state: what lookups answer from, and what gather()
   // compares the shared table with. Unattached, so process memory only.
   Writer< Record > replica_;
   MountStatus reportedStatus_ = MountStatus::unmounted;
   // Gathered, not yet delivered: a vector and the place of its first
   // event, so that a pass's million events are one allocation rather than
   // a block per few events, and are read in place.
   struct Pending {
      std::vector< Event > v;
      size_t head = 0;
      bool empty() const { return head == v.size(); }
      size_t size() const { return v.size() - head; }
      const Event& operator[]( size_t i ) const { return v[ head + i ]; }
      const Event& front() const { return v[ head ]; }
      void pop_front() {
         if ( ++head == v.size() ) {
            v.clear();
            head = 0;
         }
      }
      void push_back( const Event& e ) { v.push_back( e ); }
      void reserve( size_t more ) { v.reserve( v.size() + more ); }
      void shrink_to_fit() {
         if ( empty() ) {
            std::vector< Event >().swap( v );   // `v = {}` would keep the capacity
            head = 0;
         }
      }
   };
   Pending pending_;
   bool dispatching_ = false;
   // A resync queued enough to leave megabytes of freed heap behind once
   // delivered: handed back to the system then, or a reader lapped once
   // under load keeps the memory of its largest catch-up for good.
   bool trimAfterDelivery_ = false;
   bool replicaReserved_ = false;   // replica_ grown for a pass: no shrink until delivered
};

}  // namespace Lumen

#include "platform/lumen/internal/WriterImpl.h"
#include "platform/lumen/internal/ReaderImpl.h"
#include "platform/lumen/internal/ReaderDelivery.h"
