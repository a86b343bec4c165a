// Mox::PtrInterface: the base of every framework object.
//
// It holds the reference count, the notification-active and
// marked-for-deletion flags, and the notifiee list: the observers that
// receive onAttribute(id, key) when the object notifies a change.
//
// Threading: counts are atomic when threadSafePointersIs(true) was set for
// the process, plain otherwise. Everything else (notification, flags) runs
// on the single notification thread and takes no lock.
//
// Notification is synchronous. Delivery tolerates a handler that adds or
// removes notifiees of the same notifier, or that drops the last reference
// to the notifier or to a notifiee: the notifier and each notifiee are held
// by a temporary reference while they are in use, removed notifiees are
// skipped, and notifiees added during delivery first hear the next change.
#pragma once

#include "platform/mox/AllocTrack.h"
#include "platform/mox/Ptr.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace Mox {

using AttributeId = uint32_t;
class Type;
template< class T >
class TypeBuilder;

// Process-wide setting: atomic reference counts (default on).
void threadSafePointersIs( bool on );
bool threadSafePointers();

class PtrInterface {
 public:
   class NotifieeConst;
   class NotifieeList;

   using MoxBase = void;
   static constexpr const char* moxTypeName = "Mox::PtrInterface";
   // Ids below 130 belong to the framework's own operations.
   static constexpr AttributeId moxFirstId = 130;
   static void moxDescribe( TypeBuilder< PtrInterface >& ) {}

   PtrInterface() = default;
   PtrInterface( const PtrInterface& ) = delete;
   PtrInterface& operator=( const PtrInterface& ) = delete;

   virtual NotifieeList* notifieeList() const;
   virtual void hasNotificationActiveIs( bool active );
   // While set, a count that falls to zero first tells the notifiees
   // (onZeroReferences); one of them may keep the object alive by taking a
   // reference. The observer clears it when it no longer wants the call.
   virtual void zeroReferencesIs( bool observed );
   virtual const Type* fwkType() const;
   virtual ~PtrInterface();
   virtual void moxDoZombieReactors( bool zombie );

   bool hasNotificationActive() const { return notificationActive_; }
   bool isMarkedForDeletion() const { return markedForDeletion_; }
   void isMarkedForDeletionIs( bool m ) { markedForDeletion_ = m; }
   bool zeroReferences() const { return zeroReferencesObserved_; }
   uint32_t references() const { return refCount_.load( std::memory_order_relaxed ); }

   void newRef() const noexcept;
   void delRef() const noexcept;

   // Delivers onAttribute(id, key) to every active notifiee.
   void notify( AttributeId id, const void* key = nullptr ) const;

   static void* moxMemAlloc( size_t bytes ) { return Mox::moxMemAlloc( bytes ); }
   static void moxMemFree( void* p, size_t bytes ) noexcept { Mox::moxMemFree( p, bytes ); }

 protected:
   // Destroys the object, or first lets zero-reference observers keep it.
   virtual void handleZeroRef() const noexcept;

 private:
   mutable std::atomic< uint32_t > refCount_{ 0 };
   bool notificationActive_ = false;
   bool markedForDeletion_ = false;
   bool zeroReferencesObserved_ = false;
   mutable NotifieeList* notifiees_ = nullptr;   // created on first registration
};

// The notifiees of one notifier, safe to change during delivery.
class PtrInterface::NotifieeList {
 public:
   void add( NotifieeConst* n );
   void remove( NotifieeConst* n );
   bool contains( const NotifieeConst* n ) const;
   size_t size() const;   // live entries
   bool empty() const { return size() == 0; }

   template< class F >
   void forEach( F&& f );

 private:
   std::vector< NotifieeConst* > v_;
   uint32_t delivering_ = 0;
   bool holes_ = false;
   void compact();
};

// A const observer of one notifier. The notifier is held counted, except
// for a "weak" notifiee (an object's own zero-reference observer), which
// must not keep its notifier alive.
class PtrInterface::NotifieeConst : public PtrInterface {
 public:
   enum class Hold : uint8_t { counted, weak };

   NotifieeConst() = default;
   explicit NotifieeConst( const PtrInterface* notifier, Hold hold = Hold::counted );
   ~NotifieeConst() override;

   const PtrInterface* notifier() const { return notifier_; }
   // Replaces the notifier. Registration moves along with it; no handler runs.
   void notifierIs( const Ptr< const PtrInterface >& n );
   bool isRegisteredNotifiee() const { return registered_; }
   void isRegisteredNotifieeIs( bool r );

   virtual void onZeroReferences() {}
   virtual void onAttribute( AttributeId, const void* ) {}
   void moxDoZombieReactors( bool zombie ) override;

 private:
   friend class PtrInterface;
   // The notifier is being destroyed: forget it, so that nothing later
   // reaches it through this notifiee.
   void notifierGone();

   const PtrInterface* notifier_ = nullptr;
   Hold hold_ = Hold::counted;
   bool registered_ = false;
};

template< class F >
void PtrInterface::NotifieeList::forEach( F&& f ) {
   ++delivering_;
   const size_t n = v_.size();
   try {
      for ( size_t i = 0; i < n; ++i ) {
         NotifieeConst* p = v_[ i ];
         if ( p && p->references() > 0 ) {
            Ptr< NotifieeConst > hold( p );
            f( p );
         } else if ( p ) {
            f( p );
         }
      }
   } catch ( ... ) {
      if ( --delivering_ == 0 && holes_ ) {
         compact();
      }
      throw;
   }
   if ( --delivering_ == 0 && holes_ ) {
      compact();
   }
}

}  // namespace Mox
