// StateMachine<Derived>: the frame shared by every state machine.
//
// A machine holds one reactor pointer per input (null when the input was
// null), then its outputs and plain arguments, then its own state. Derived
// lists its reactor members, in declaration order, through
//    auto moxReactors() { return std::tie( a_, b_ ); }
// and, when it owns child machines, passes activation and zombie calls on
// through moxChildrenActiveIs / moxChildrenZombieIs (defaults do nothing).
//
// Lifecycle: constructed (initial pass has run, notifications off), active
// (after the creator's hasNotificationActiveIs(true)), zombie (reactors
// deliver nothing), destroyed. Derived's destructor starts with
// moxRetire(): the machine becomes a zombie and every reactor loses its
// owner pointer before any member goes; members are then released in
// reverse declaration order (outputs, then reactors last to first).
//
// Single-threaded: everything runs on the notification thread.
#pragma once

#include "platform/mox/PtrInterface.h"
#include "platform/mox/Type.h"

#include <tuple>
#include <utility>

namespace OrbEvpn {

template< class Derived >
class StateMachine : public Mox::PtrInterface {
 public:
   void hasNotificationActiveIs( bool active ) override {
      if ( hasNotificationActive() == active ) {
         return;
      }
      Mox::PtrInterface::hasNotificationActiveIs( active );
      forEachReactor( [ active ]( auto& r ) { r->hasNotificationActiveIs( active ); } );
      derived().moxChildrenActiveIs( active );
   }

   void moxDoZombieReactors( bool zombie ) override {
      if ( isMarkedForDeletion() == zombie ) {
         return;
      }
      forEachReactor( [ zombie ]( auto& r ) {
         auto hold = r;
         hold->moxDoZombieReactors( zombie );
      } );
      derived().moxChildrenZombieIs( zombie );
      isMarkedForDeletionIs( zombie );
   }

   const Mox::Type* fwkType() const override { return &Mox::TypeImpl< Derived >::instance(); }

   // Hooks for machines that own children.
   void moxChildrenActiveIs( bool ) {}
   void moxChildrenZombieIs( bool ) {}

 protected:
   StateMachine() = default;

   // First statement of Derived's destructor.
   void moxRetire() noexcept {
      moxDoZombieReactors( true );
      forEachReactor( []( auto& r ) {
         auto hold = r;
         hold->owner = nullptr;
      } );
   }

   // A reactor on a non-null input, with notifications on; null otherwise.
   template< class R, class In >
   static Mox::Ptr< R > makeReactor( const Mox::Ptr< const In >& input, Derived* owner ) {
      if ( !input ) {
         return nullptr;
      }
      Mox::Ptr< R > r( new R( input, owner ) );
      r->hasNotificationActiveIs( true );
      return r;
   }

   // Takes a reactor out of its slot for good (a machine whose input is
   // replaced or withdrawn): a zombie first, so that nothing it still
   // receives reaches the owner, then without an owner. Returns it, null
   // when the slot was empty.
   template< class R >
   static Mox::Ptr< R > moxRetireReactor( Mox::Ptr< R >& slot ) {
      Mox::Ptr< R > r = std::move( slot );
      if ( r ) {
         r->moxDoZombieReactors( true );
         r->owner = nullptr;
      }
      return r;
   }

 private:
   Derived& derived() { return static_cast< Derived& >( *this ); }

   template< class F >
   void forEachReactor( F&& f ) {
      std::apply( [ & ]( auto&... r ) { ( ( r ? f( r ) : void() ), ... ); },
                  derived().moxReactors() );
   }
};

// The `<Class>Is` creator's body: allocate (tracked), construct, activate.
// A constructor that throws leaves nothing allocated; an activation that
// throws drops the reference.
template< class T, class... A >
Mox::Ptr< T > moxCreate( A&&... args ) {
   Mox::Ptr< T > p( new T( std::forward< A >( args )... ) );
   p->hasNotificationActiveIs( true );
   return p;
}

}  // namespace OrbEvpn
