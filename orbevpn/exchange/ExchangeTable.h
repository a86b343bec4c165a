// ExchangeTable<Derived, Traits>: the body shared by HostTable and FloodTable.
//
// A table is an entity whose one collection attribute (id 258) lives in a
// Lumen shared-memory table. It plays one of two roles, fixed when made:
//
//  - Writer (made by the factory): entries live in process memory until
//    the table gets a parent; handleParent then attaches it at
//    "<parent full name>/<name>" and the entries move to shared memory,
//    where other processes read them. A table attaches once; losing its
//    parent detaches it (the content stays for the next writer).
//    Every write, remove and commit notifies attribute 258 with the key,
//    synchronously, before the call returns.
//
//  - Reader (made by the ...ReaderIs creators): mounted on the shared table
//    another process writes; writes are refused. The host program polls
//    fd() and calls dispatch(), which notifies attribute 258 once for each
//    key whose entry (presence or value) differs from what the table last
//    told, and reports quiesce and mount status to the collection control.
//    Lookups, presence, count and iteration answer from what the table has
//    told (the mount's content before the first dispatch), never from
//    changes not yet notified: a handler reads exactly the entry it is
//    notified of, an entry that comes and goes between two dispatches is
//    never seen, and a removal is notified only for an entry that was.
//
// Writer role: a per-VNI index of the table's keys (internal/VniIndex.h)
// answers entryKeysOfVni. It is built from the table on first use, follows
// every change made through this class from then on (write, remove, remove
// all, commit, the generic interface, which calls these), and is dropped
// when the table attaches, since a takeover merges a dead writer's content
// in; the next use rebuilds it. A process that never asks never builds it.
//
// Counters ("<entry>Is", "<entry>Del", "<entry>Notify") are the process's
// named counters. Corruption found by a write goes to the corruption
// handler (doCorruptionDetected), which must not return; corruption found
// by a reader-side lookup or iteration is reported to the reader
// corruption handler and the record counts as absent.
//
// Single-threaded: runs on the notification thread.
#pragma once

#include "orbevpn/exchange/internal/VniIndex.h"
#include "platform/lumen/Table.h"
#include "platform/lumen/binding/CollectionControl.h"
#include "platform/mox/Assert.h"
#include "platform/mox/Counters.h"
#include "platform/mox/Dir.h"
#include "platform/trace/DualLog.h"
#include "platform/values/Vni.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace OrbEvpn {

enum class TableRole : uint8_t { writer, reader };

namespace internal {

const Trace::Handle& tableTrace();
// Default handlers: report on stderr; the write-side one then aborts.
void defaultCorruptionHandler( const std::string& message );
void defaultReaderCorruptionHandler( const std::string& message );

// Notified when the table's count falls to zero: hands the table to its
// collection control (so a holder of the control keeps it reachable),
// releases the table's control and leaves the notifiee list.
// `Table` is the ExchangeTable base, not the derived class: the notifiee is
// made in the base's constructor, before the derived object exists.
template< class Table >
class TableZeroReferencesNotifiee : public Mox::PtrInterface::NotifieeConst {
 public:
   explicit TableZeroReferencesNotifiee( Table* t )
         : NotifieeConst( t, Hold::weak ), table_( t ) {}
   void onZeroReferences() override {
      Table* t = table_;
      if ( !t ) {
         return;
      }
      table_ = nullptr;
      t->zeroReferencesIs( false );
      isRegisteredNotifieeIs( false );
      Mox::Ptr< MoxLumen::CollectionControl > ctrl = t->control_;
      if ( ctrl ) {
         ctrl->entityIs( Mox::Ptr< Mox::Entity >( t ) );
         t->control_ = nullptr;
      }
   }

 private:
   Table* table_;   // uncounted: the table owns this notifiee
};

template< class Derived, class Traits >
class ExchangeTable : public Mox::Entity {
 public:
   using Entry = typename Traits::Entry;
   using Key = typename Traits::Key;
   using Writer = Lumen::Writer< Entry >;
   using Reader = Lumen::Reader< Entry >;

   TableRole role() const { return role_; }
   bool initialized() const { return initialized_; }
   // The shared table's path ("" until attached or mounted).
   const std::string& path() const { return path_; }

   // ---- collection operations (generic names; Derived forwards)
   Entry entry( const Key& k ) const {
      return read( [ & ] { return reader_ ? reader_->lookup( k ) : writer_->lookup( k ); },
                   Traits::defaultEntry() );
   }
   // The entry of `k`, if there is one (one probe).
   std::optional< Entry > entryFind( const Key& k ) const {
      return read(
         [ & ]() -> std::optional< Entry > {
            if ( reader_ ) {
               return reader_->contains( k ) ? std::optional< Entry >( reader_->lookup( k ) )
                                             : std::nullopt;
            }
            return writer_->find( k );
         },
         std::optional< Entry >() );
   }
   bool entryExists( const Key& k ) const {
      return read( [ & ] { return reader_ ? reader_->contains( k ) : writer_->contains( k ); },
                   false );
   }
   uint32_t entryCount() const { return reader_ ? reader_->count() : writer_->count(); }

   void entryIs( const Entry& v ) {
      refuseIfReader( "write" );
      isCounter_.inc();
      write( [ & ] {
         const uint32_t before = writer_->count();
         writer_->write( v );
         if ( writer_->count() != before ) {
            index_.inserted( v.key() );
         }
      } );
      entryNotify( v.key() );
   }

   Entry entryDel( const Key& k ) {
      refuseIfReader( "remove" );
      delCounter_.inc();
      const std::optional< Entry > old = write( [ & ] { return writer_->remove( k ); } );
      if ( !old ) {
         return Traits::defaultEntry();
      }
      index_.removed( k, [ this ]( const Key& key ) { return writer_->contains( key ); } );
      entryNotify( k );
      return *old;
   }

   void entryDelAll() {
      refuseIfReader( "remove" );
      for ( auto e = entryNext(); e || entryCount() != 0; e = entryNext( e->second ) ) {
         if ( !e ) {
            // A handler put entries back behind the cursor: start over.
            e = entryNext();
            if ( !e ) {
               return;
            }
         }
         entryDel( e->first.key() );
      }
   }

   // Slot memory for `k` to edit in place; publish the edit with entryCommit.
   Entry* entryInPlace( const Key& k ) {
      refuseIfReader( "write" );
      return writer_->slotFor( k );
   }
   void entryCommit( const Entry* v ) {
      refuseIfReader( "commit" );
      isCounter_.inc();
      const Key k = v->key();
      write( [ & ] {
         const uint32_t before = writer_->count();
         writer_->commit( v );
         if ( writer_->count() != before ) {
            index_.inserted( k );
         }
      } );
      entryNotify( k );
   }

   // Iteration in slot order; `from` is the hint of the previous entry.
   std::optional< std::pair< Entry, Lumen::Hint > > entryNext( Lumen::Hint from = {} ) const {
      return read( [ & ] { return reader_ ? reader_->next( from ) : writer_->next( from ); },
                   std::optional< std::pair< Entry, Lumen::Hint > >() );
   }

   // The keys of the VNI's entries (writer role), from the per-VNI index,
   // each once and in no particular order. A copy: the caller may change the
   // table while visiting them, so it looks each one up (entryFind) before
   // acting on it.
   std::vector< Key > entryKeysOfVni( Vxlan::Vni vni ) {
      refuseIfReader( "index" );
      if ( !index_.built() ) {
         write( [ & ] {
            index_.build( [ & ]( auto&& f ) {
               for ( auto e = writer_->next(); e; e = writer_->next( e->second ) ) {
                  f( e->first.key() );
               }
            } );
         } );
      }
      return index_.keysOf( vni.value(),
                            [ this ]( const Key& key ) { return writer_->contains( key ); } );
   }
   // Keys held and heap bytes used by the index (0 until built).
   size_t entryIndexKeys() const { return index_.keys(); }
   size_t entryIndexBytes() const { return index_.bytes(); }

   // A cursor over the entries; removing the current entry is harmless.
   class IteratorConst {
    public:
      explicit operator bool() const { return cur_.has_value(); }
      const Entry& value() const { return cur_->first; }
      Key key() const { return cur_->first.key(); }
      IteratorConst& operator++() {
         cur_ = table_->entryNext( cur_->second );
         return *this;
      }

    private:
      friend class ExchangeTable;
      explicit IteratorConst( const ExchangeTable* t ) : table_( t ), cur_( t->entryNext() ) {}
      const ExchangeTable* table_;
      std::optional< std::pair< Entry, Lumen::Hint > > cur_;
   };
   IteratorConst entryIterConst() const { return IteratorConst( this ); }

   // ---- hooks of the table service
   void entryNotify( const Key& k ) {
      notify( Traits::collectionId(), &k );
      notifyCounter_.inc();
   }
   void entryNotifyQuiesced( bool q ) {
      if ( control_ ) {
         control_->quiescedIs( q );
      }
   }
   void entryNotifyMountStatus() {
      TRACE( tableTrace(), 5, "mountStatus {}", path_ );
      if ( control_ ) {
         control_->mountStatusIs( mountStatus() );
      }
   }
   Lumen::MountStatus mountStatus() const {
      if ( reader_ ) {
         return reader_->mountStatus();
      }
      return writer_->attached() ? Lumen::MountStatus::mounted : Lumen::MountStatus::unmounted;
   }

   Mox::Ptr< MoxLumen::CollectionControl > control() const { return control_; }
   void controlIs( const Mox::Ptr< MoxLumen::CollectionControl >& c ) {
      if ( c == control_ ) {
         return;
      }
      control_ = c;
      notify( Traits::controlId() );
   }

   // ---- reader role: the host program's event loop
   int fd() const { return reader_ ? reader_->fd() : -1; }
   void dispatch() {
      if ( reader_ ) {
         reader_->dispatch();
      }
   }
   // The shared table's feed head, and whether a dispatch is owed (reader
   // role; 0 and false for a writer): how a host program tells that the
   // table's writer is quiet and everything it wrote has been delivered.
   uint64_t feedHead() const { return reader_ ? reader_->feedHead() : 0; }
   bool dispatchPending() const { return reader_ && reader_->dispatchPending(); }

   // ---- corruption
   void corruptionHandlerIs( std::function< void( const std::string& ) > h ) {
      corruptionHandler_ = std::move( h );
   }
   void readerCorruptionHandlerIs( std::function< void( const std::string& ) > h ) {
      readerCorruptionHandler_ = std::move( h );
   }
   [[noreturn]] void doCorruptionDetected( const std::string& message ) {
      corruptionHandler_( message );
      MOX_ASSERT_MSG( false, "in no man's land" );
      __builtin_unreachable();
   }

   void handleParent( const Mox::Ptr< Mox::Entity >& parent ) override {
      if ( parent ) {
         const std::string full = fmt::format( "{}/{}", parent->fullName(), name() );
         if ( initialized_ ) {
            MOX_THROW( Mox::Exception, "Entity {} already initialized", full );
         }
         Mox::Entity::handleParent( parent );
         initialized_ = true;
         TRACE( tableTrace(), 5, "old:{} new:{}", path_, full );
         if ( role_ == TableRole::writer ) {
            if ( !Lumen::hardwareSupportsAtomics() ) {
               MOX_THROW( Mox::Exception, "Hardware does not support Atomics" );
            }
            // A takeover merges in what the previous writer left: the
            // index no longer knows the content and is rebuilt on next use.
            index_.clear();
            writer_->attach( lumenPath( full ) );
            path_ = full;
            entryNotifyMountStatus();
         }
      } else {
         Mox::Entity::handleParent( parent );
         TRACE( tableTrace(), 5, "{} is now an orphan", path_ );
         if ( role_ == TableRole::writer && writer_->attached() ) {
            writer_->detach();
            entryNotifyMountStatus();
         }
      }
   }

   // Generic-interface binding of the table's three attributes.
   static void describeTable( Mox::TypeBuilder< Derived >& b );

 protected:
   ExchangeTable( const Mox::String& name, TableRole role )
         : Mox::Entity( name ),
           role_( role ),
           writer_( std::make_unique< Writer >( Traits::defaultEntry() ) ),
           isCounter_( Mox::counter( Traits::isCounter ) ),
           delCounter_( Mox::counter( Traits::delCounter ) ),
           notifyCounter_( Mox::counter( Traits::notifyCounter ) ) {
      using Notifiee = typename Derived::ZeroReferencesNotifiee;
      Mox::Ptr< Notifiee > z( new Notifiee( this ) );
      z->hasNotificationActiveIs( true );
      zeroReferencesIs( true );
      z->isRegisteredNotifieeIs( true );
      zeroRefNotifiee_ = z;
      control_ = MoxLumen::CollectionControl::CollectionControlIs();
   }

   ~ExchangeTable() override {
      if ( zeroRefNotifiee_ ) {
         zeroRefNotifiee_->isRegisteredNotifieeIs( false );
      }
      control_ = nullptr;
      TRACE( tableTrace(), 2, "deleting state" );
      TRACE( tableTrace(), 2, "deleting state" );
      reader_.reset();
      writer_.reset();
   }

   // Reader role: mount on the shared table at `path`.
   void mountReader( const std::string& path ) {
      reader_ = std::make_unique< Reader >( lumenPath( path ), Traits::defaultEntry(), &Traits::vacant );
      reader_->onKeyIs( [ this ]( const Key& k ) { static_cast< Derived* >( this )->entryNotify( k ); } );
      reader_->onQuiescedIs( [ this ]( bool q ) { entryNotifyQuiesced( q ); } );
      reader_->onMountStatusIs( [ this ]( Lumen::MountStatus ) { entryNotifyMountStatus(); } );
      reader_->corruptionHandlerIs( [ this ]( const std::string& m ) { readerCorruptionHandler_( m ); } );
      path_ = path;
      entryNotifyMountStatus();
   }

 private:
   template< class T >
   friend class TableZeroReferencesNotifiee;

   // A table operation that may find corruption. Reader side: reported to
   // the reader corruption handler, and the record counts as absent
   // (`absent`). Writer side: handed to the corruption handler, which does
   // not return.
   template< class F, class T >
   T read( F&& op, T absent ) const {
      try {
         return op();
      } catch ( const Fable::CorruptionDetectedException& e ) {
         if ( !reader_ ) {
            const_cast< ExchangeTable* >( this )->doCorruptionDetected( e.what() );
         }
         readerCorruptionHandler_( e.what() );
         return absent;
      }
   }
   template< class F >
   auto write( F&& op ) -> decltype( op() ) {
      try {
         return op();
      } catch ( const Fable::CorruptionDetectedException& e ) {
         doCorruptionDetected( e.what() );
      }
   }

   // Shared-table paths are absolute; an entity tree rooted at a named
   // directory gives relative full names.
   static std::string lumenPath( const std::string& p ) {
      return !p.empty() && p.front() == '/' ? p : "/" + p;
   }

   void refuseIfReader( const char* what ) const {
      if ( role_ == TableRole::reader ) {
         MOX_THROW( Mox::Exception, "{} {} is mounted read-only: {} refused", Traits::typeName,
                    path_, what );
      }
   }

   TableRole role_;
   std::string path_;
   std::unique_ptr< Writer > writer_;
   std::unique_ptr< Reader > reader_;
   VniIndex< Traits > index_;
   Mox::Counter& isCounter_;
   Mox::Counter& delCounter_;
   Mox::Counter& notifyCounter_;
   Mox::Ptr< Mox::PtrInterface::NotifieeConst > zeroRefNotifiee_;
   bool initialized_ = false;
   Mox::Ptr< MoxLumen::CollectionControl > control_;
   std::function< void( const std::string& ) > corruptionHandler_ = defaultCorruptionHandler;
   std::function< void( const std::string& ) > readerCorruptionHandler_ =
      defaultReaderCorruptionHandler;
};

}  // namespace internal
}  // namespace OrbEvpn
