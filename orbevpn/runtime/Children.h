// Children<K, Child>: the owned child machines of a state machine, keyed by
// K, and the generic-interface binding of such a collection.
//
// A parent holds its children through counted pointers; a child holds an
// uncounted pointer back to its parent. The collection is a member of the
// parent and notifies the parent's notifiees (with its attribute id and
// the key) when a child comes or goes.
//
// Re-instantiation: a child's constructor inputs never change, so asking
// for the child at a key with another input than the one it was built on
// raises Mox::ReinstantiationException and changes nothing. The parent's
// `...Is` member does the check with childIs() below.
//
// Generic interface (bindChildren): get (0) looks a child up by key (a
// Ptr< PtrInterface >, as outputs are), set
// (1) instantiates with the key (first argument) and the child's input
// (second argument), delete (2) removes, count (3), 4 yields 0, existence
// (5); iteration with removal under the cursor. Removal never cleans the
// child up: callers that want its output withdrawn call its cleanup().
//
// Single-threaded: runs on the notification thread.
#pragma once

#include "platform/mox/Collection.h"
#include "platform/mox/CollectionAttr.h"
#include "platform/mox/Exception.h"

#include <string_view>
#include <type_traits>

namespace OrbEvpn {

template< class K, class Child >
using Children = Mox::Collection< K, Mox::Ptr< Child >, Mox::Order::ordered >;

// The child at `key`, made by make() and filed when absent; an existing
// child built on another input than `input` is refused.
template< class K, class Child, class Input, class Make >
Mox::Ptr< Child > childIs( Children< K, Child >& children, const K& key, const Input& input,
                           std::string_view attribute, Make&& make ) {
   if ( const auto* held = children.find( key ) ) {
      if ( ( *held )->moxChildInput() != input ) {
         MOX_THROW( Mox::ReinstantiationException,
                    "{}: the child at key {} was built on another input", attribute, key );
      }
      return *held;
   }
   return children.instantiate( key, make );
}

// Removes the child at `key` and hands it back (null if there was none).
template< class K, class Child >
Mox::Ptr< Child > childDel( Children< K, Child >& children, const K& key ) {
   auto old = children.del( key );
   return old ? *old : nullptr;
}

// Binds a Children collection as attribute `name`: `is` is the parent's
// create-or-get member (key, input), `del` its removal member.
template< class T, class K, class Child, class KArg, class In, class DelArg >
void bindChildren( Mox::TypeBuilder< T >& b, std::string name,
                   const Children< K, Child >& ( T::*access )() const,
                   Mox::Ptr< Child > ( T::*is )( KArg, const In& ),
                   Mox::Ptr< Child > ( T::*del )( DelArg ) ) {
   using C = Children< K, Child >;
   auto delFn = [ del ]( T& t, const K& k ) { ( t.*del )( k ); };
   b.custom(
      std::move( name ), Mox::AttrKind::collection,
      [ access, is, delFn ]( Mox::GenericValue& r, T& t, int op, const void* arg,
                             const void* arg2 ) -> int {
         const C& c = ( t.*access )();
         const K* key = static_cast< const K* >( arg );
         switch ( op ) {
          case Mox::genericOpGet:
            if ( !key ) {
               return Mox::genericNotAllowed;
            }
            r.set( Mox::Ptr< Mox::PtrInterface >( c.get( *key ) ) );
            return Mox::genericDone;
          case Mox::genericOpSet:
            if ( !key || !arg2 ) {
               return Mox::genericNotAllowed;
            }
            r.set( Mox::Ptr< Mox::PtrInterface >(
               ( t.*is )( *key, *static_cast< const In* >( arg2 ) ) ) );
            return Mox::genericDone;
          case Mox::genericOpDel:
            if ( !key ) {
               return Mox::genericNotAllowed;
            }
            delFn( t, *key );
            return Mox::genericDone;
          case Mox::genericOpCount:
            r.set( c.size() );
            return Mox::genericDone;
          case Mox::genericOpCountAlt:
            r.set( size_t( 0 ) );
            return Mox::genericDone;
          case Mox::genericOpExists:
            if ( !key ) {
               return Mox::genericNotAllowed;
            }
            r.set( c.contains( *key ) );
            return Mox::genericDone;
          default:
            return Mox::genericNotAllowed;
         }
      },
      [ access, delFn ]( T& t ) -> std::unique_ptr< Mox::GenericIterator > {
         return std::make_unique< Mox::CollectionGenericIterator< T, C, decltype( delFn ) > >(
            t, ( t.*access )(), delFn );
      } );
}

}  // namespace OrbEvpn
