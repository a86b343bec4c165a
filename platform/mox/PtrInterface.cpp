#include "platform/mox/PtrInterface.h"

#include "platform/mox/Assert.h"
#include "platform/mox/Type.h"

#include <algorithm>

namespace Mox {

namespace {
std::atomic< bool > threadSafe{ true };
}

void threadSafePointersIs( bool on ) { threadSafe.store( on, std::memory_order_relaxed ); }
bool threadSafePointers() { return threadSafe.load( std::memory_order_relaxed ); }

void PtrInterface::newRef() const noexcept {
   if ( threadSafe.load( std::memory_order_relaxed ) ) {
      refCount_.fetch_add( 1, std::memory_order_relaxed );
   } else {
      refCount_.store( refCount_.load( std::memory_order_relaxed ) + 1,
                       std::memory_order_relaxed );
   }
}

void PtrInterface::delRef() const noexcept {
   uint32_t left;
   if ( threadSafe.load( std::memory_order_relaxed ) ) {
      left = refCount_.fetch_sub( 1, std::memory_order_acq_rel ) - 1;
   } else {
      left = refCount_.load( std::memory_order_relaxed ) - 1;
      refCount_.store( left, std::memory_order_relaxed );
   }
   if ( left == 0 ) {
      handleZeroRef();
   }
}

void PtrInterface::handleZeroRef() const noexcept {
   if ( zeroReferencesObserved_ && notifiees_ && !notifiees_->empty() ) {
      // Hold the object while its observers decide; one of them may take
      // a reference of its own and so keep it.
      refCount_.store( 1, std::memory_order_relaxed );
      notifiees_->forEach( []( NotifieeConst* n ) { n->onZeroReferences(); } );
      if ( refCount_.fetch_sub( 1, std::memory_order_acq_rel ) != 1 ) {
         return;
      }
   }
   delete const_cast< PtrInterface* >( this );
}

PtrInterface::~PtrInterface() {
   if ( notifiees_ ) {
      // Only weak notifiees can outlive their notifier's count; cut them loose.
      notifiees_->forEach( [ this ]( NotifieeConst* n ) {
         if ( n->notifier() == this ) {
            n->notifierGone();
         }
      } );
      delete notifiees_;
   }
}

PtrInterface::NotifieeList* PtrInterface::notifieeList() const {
   if ( !notifiees_ ) {
      notifiees_ = new NotifieeList;
   }
   return notifiees_;
}

void PtrInterface::hasNotificationActiveIs( bool active ) { notificationActive_ = active; }

void PtrInterface::zeroReferencesIs( bool observed ) { zeroReferencesObserved_ = observed; }

const Type* PtrInterface::fwkType() const { return &TypeImpl< PtrInterface >::instance(); }

void PtrInterface::moxDoZombieReactors( bool zombie ) { markedForDeletion_ = zombie; }

void PtrInterface::notify( AttributeId id, const void* key ) const {
   if ( !notifiees_ || notifiees_->empty() ) {
      return;
   }
   // A handler may drop the last reference to this notifier.
   Ptr< const PtrInterface > self( references() > 0 ? this : nullptr );
   notifiees_->forEach( [ id, key, this ]( NotifieeConst* n ) {
      if ( n->hasNotificationActive() && n->notifier() == this ) {
         n->onAttribute( id, key );
      }
   } );
}

// ---- NotifieeList

void PtrInterface::NotifieeList::add( NotifieeConst* n ) {
   if ( !contains( n ) ) {
      v_.push_back( n );
   }
}

void PtrInterface::NotifieeList::remove( NotifieeConst* n ) {
   auto it = std::find( v_.begin(), v_.end(), n );
   if ( it == v_.end() ) {
      return;
   }
   if ( delivering_ ) {
      *it = nullptr;   // keep positions stable for the running delivery
      holes_ = true;
   } else {
      v_.erase( it );
   }
}

bool PtrInterface::NotifieeList::contains( const NotifieeConst* n ) const {
   return n && std::find( v_.begin(), v_.end(), n ) != v_.end();
}

size_t PtrInterface::NotifieeList::size() const {
   return static_cast< size_t >(
      std::count_if( v_.begin(), v_.end(), []( auto* p ) { return p != nullptr; } ) );
}

void PtrInterface::NotifieeList::compact() {
   std::erase( v_, nullptr );
   holes_ = false;
}

// ---- NotifieeConst

PtrInterface::NotifieeConst::NotifieeConst( const PtrInterface* notifier, Hold hold )
      : hold_( hold ) {
   if ( notifier ) {
      if ( hold_ == Hold::counted ) {
         notifier->newRef();
      }
      notifier_ = notifier;
   }
}

PtrInterface::NotifieeConst::~NotifieeConst() {
   isRegisteredNotifieeIs( false );
   if ( notifier_ && hold_ == Hold::counted ) {
      std::exchange( notifier_, nullptr )->delRef();
   }
}

void PtrInterface::NotifieeConst::notifierIs( const Ptr< const PtrInterface >& n ) {
   const PtrInterface* np = n.ptr();
   if ( np == notifier_ ) {
      return;
   }
   const bool wasRegistered = registered_;
   isRegisteredNotifieeIs( false );
   if ( np && hold_ == Hold::counted ) {
      np->newRef();
   }
   const PtrInterface* old = std::exchange( notifier_, np );
   isRegisteredNotifieeIs( wasRegistered );
   if ( old && hold_ == Hold::counted ) {
      old->delRef();
   }
}

void PtrInterface::NotifieeConst::notifierGone() {
   isRegisteredNotifieeIs( false );
   // No count to drop: the notifier is already on its way out.
   notifier_ = nullptr;
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs( bool r ) {
   if ( r && notifier_ ) {
      notifier_->notifieeList()->add( this );
   } else if ( registered_ && notifier_ ) {
      notifier_->notifieeList()->remove( this );
   }
   registered_ = r && notifier_;
}

void PtrInterface::NotifieeConst::moxDoZombieReactors( bool zombie ) {
   if ( isMarkedForDeletion() == zombie ) {
      return;
   }
   if ( notifier_ ) {
      hasNotificationActiveIs( !zombie );
   }
   isMarkedForDeletionIs( zombie );
}

}  // namespace Mox
