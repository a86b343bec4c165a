// The reactor frame: one small observer per watched input of a state machine.
//
// A reactor is a const notifiee of one input entity with a raw back pointer
// (`owner`) to the machine that owns it. It maps attribute ids of its input
// to the owner's handlers: onAttribute(id, key) calls the handler of a
// watched id, ignores every other id, and delivers nothing once the reactor
// is marked for deletion (a zombie). The ids come from the type registry by
// attribute name, resolved once per reactor class.
//
// Three flavours, whose differences are deliberate and tested:
//  - collection: notifierIs only moves the registration.
//  - scalar: notifierIs to a different entity re-runs the owner's handler
//    (replacing an input re-evaluates the machine).
//  - scalarOwnerChecked: as scalar, and onAttribute also does nothing when
//    the owner pointer is null (a reactor that outlived its machine).
// Collection and plain scalar reactors rely on the owner's destructor
// having made them zombies before the owner goes.
//
// Declare a reactor inside its machine with ORBEVPN_REACTOR, which reads as
// a table: name, owner, input type, flavour, then one watch per attribute.
#pragma once

#include "platform/mox/Assert.h"
#include "platform/mox/PtrInterface.h"
#include "platform/mox/Type.h"

#include <span>
#include <type_traits>
#include <vector>

namespace OrbEvpn {

enum class ReactorFlavor : uint8_t { collection, scalar, scalarOwnerChecked };

// One watched attribute: its registered name and the owner's handler.
struct Watch {
   const char* attribute;
   void ( *handler )( void* owner, const void* key );
};

namespace internal {

template< class M >
struct MethodTraits;
template< class C, class R >
struct MethodTraits< R ( C::* )() > {
   using Class = C;
   static constexpr int arity = 0;
};
template< class C, class R, class A >
struct MethodTraits< R ( C::* )( A ) > {
   using Class = C;
   using Arg = std::decay_t< A >;
   static constexpr int arity = 1;
};

template< auto method >
void callHandler( void* owner, const void* key ) {
   using T = MethodTraits< decltype( method ) >;
   auto* o = static_cast< typename T::Class* >( owner );
   if constexpr ( T::arity == 0 ) {
      ( o->*method )();
   } else {
      ( o->*method )( *static_cast< const typename T::Arg* >( key ) );
   }
}

}  // namespace internal

// watch< &Owner::handler >( "attribute" ): the handler takes the changed key
// (collections) or nothing (scalars).
template< auto method >
constexpr Watch watch( const char* attribute ) {
   return Watch{ attribute, &internal::callHandler< method > };
}

template< class Self, class Owner, class Input, ReactorFlavor flavor >
class Reactor : public Mox::PtrInterface::NotifieeConst {
 public:
   Reactor( const Mox::Ptr< const Input >& input, Owner* o ) : owner( o ) {
      // The base operation: registering runs no handler.
      NotifieeConst::notifierIs( input );
      isRegisteredNotifieeIs( true );
   }
   ~Reactor() override { moxDoZombieReactors( true ); }

   // Uncounted: the owner holds the reactor, never the reverse. Cleared by
   // the owner's destructor.
   Owner* owner;

   Mox::Ptr< const Input > notifier() const {
      return Mox::Ptr< const Input >(
         static_cast< const Input* >( NotifieeConst::notifier() ) );
   }

   // An object of another type than Input counts as null.
   void notifierIs( const Mox::Ptr< const Mox::PtrInterface >& n ) {
      const Input* in = dynamic_cast< const Input* >( n.ptr() );
      if ( static_cast< const Mox::PtrInterface* >( in ) == NotifieeConst::notifier() ) {
         return;
      }
      NotifieeConst::notifierIs( Mox::Ptr< const Mox::PtrInterface >( in ) );
      if constexpr ( flavor != ReactorFlavor::collection ) {
         if ( !isMarkedForDeletion() && owner ) {
            Self::moxWatches()[ 0 ].handler( owner, nullptr );
         }
      }
      isRegisteredNotifieeIs( true );
   }

   void onAttribute( Mox::AttributeId id, const void* key ) override {
      const auto watches = Self::moxWatches();
      const auto& ids = watchIds();
      for ( size_t i = 0; i < ids.size(); ++i ) {
         if ( ids[ i ] != id ) {
            continue;
         }
         if ( isMarkedForDeletion() ) {
            return;
         }
         if constexpr ( flavor == ReactorFlavor::scalarOwnerChecked ) {
            if ( !owner ) {
               return;
            }
         }
         watches[ i ].handler( owner, key );
         return;
      }
   }

   // The ids this reactor watches, as the registry reports them.
   static const std::vector< Mox::AttributeId >& watchIds() {
      static const std::vector< Mox::AttributeId > ids = [] {
         std::vector< Mox::AttributeId > v;
         for ( const Watch& w : Self::moxWatches() ) {
            const Mox::AttributeId id =
               Mox::TypeImpl< Input >::instance().attributeId( w.attribute );
            MOX_ASSERT( id != 0 );
            v.push_back( id );
         }
         return v;
      }();
      return ids;
   }
};

}  // namespace OrbEvpn

// ORBEVPN_REACTOR( MoxHostTable, OrbEvpnRxSm, OrbEvpn::HostTable, collection,
//                  OrbEvpn::watch< &OrbEvpnRxSm::mox_handleHostTable_host >( "host" ) );
#define ORBEVPN_REACTOR( Name, Owner, Input, Flavor, ... )                      \
   class Name                                                                  \
         : public ::OrbEvpn::Reactor< Name, Owner, Input,                      \
                                      ::OrbEvpn::ReactorFlavor::Flavor > {     \
      MOX_ALLOC_TRACKED( Name )                                                \
                                                                               \
    public:                                                                    \
      using Name::Reactor::Reactor;                                            \
      static std::span< const ::OrbEvpn::Watch > moxWatches() {                \
         static const ::OrbEvpn::Watch w[] = { __VA_ARGS__ };                  \
         return w;                                                             \
      }                                                                        \
   }

// The generated forwarding member of a watched collection attribute:
// ORBEVPN_FORWARD( HostTable, host, handleHost, const OrbEvpn::MacVniPair& )
// declares mox_handleHostTable_host( key ), which calls handleHost( key ).
#define ORBEVPN_FORWARD( ReactorSuffix, attribute, handlerName, KeyType )       \
   void mox_handle##ReactorSuffix##_##attribute( KeyType key ) { handlerName( key ); }
