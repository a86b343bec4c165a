// Generic-interface binding of Collection members.
//
// TypeBuilder::collection(name, access, set, del) declares a collection
// attribute: get (0) looks a key up, set (1) stores a value at a key,
// delete (2) removes a key, count (3) gives the size, 4 yields 0, existence
// (5) tests a key; iteration comes with it. `access` returns the member;
// `set`/`del` go through the owner's own setters so that owners keep their
// invariants. Omit them for read-only collections.
#pragma once

#include "platform/mox/Collection.h"
#include "platform/mox/Type.h"

namespace Mox {

template< class T, class C, class Del >
class CollectionGenericIterator : public GenericIterator {
 public:
   CollectionGenericIterator( T& owner, const C& c, Del del )
         : owner_( owner ), it_( c.iterator() ), del_( std::move( del ) ) {
      owner.newRef();
   }
   ~CollectionGenericIterator() override { owner_.delRef(); }
   bool iterNonnull() const override { return !it_.done(); }
   void iterInc() override { ++it_; }
   void iterKey( GenericValue& r ) const override { r.set( it_.key() ); }
   void iterObj( GenericValue& r ) const override { r.set( it_.value() ); }
   void iterDel() override {
      if constexpr ( std::is_null_pointer_v< Del > ) {
         // A read-only collection: refuse rather than loop forever.
         MOX_THROW( Exception, "collection is read-only: iterDel refused" );
      } else {
         auto k = it_.key();
         ++it_;
         del_( owner_, k );
      }
   }

 private:
   T& owner_;
   typename C::Iterator it_;
   Del del_;
};

template< class T, class Access, class Set, class Del >
void bindCollection( TypeBuilder< T >& b, std::string name, Access access, Set set,
                     Del del ) {
   using C = std::decay_t< std::invoke_result_t< Access, const T& > >;
   using K = typename C::Key;
   using V = typename C::Value;
   b.custom(
      std::move( name ), AttrKind::collection,
      [ access, set, del ]( GenericValue& r, T& self, int op, const void* arg,
                            const void* arg2 ) -> int {
         const C& c = access( self );
         switch ( op ) {
          case genericOpGet:
            if ( !arg ) {
               return genericNotAllowed;
            }
            r.set( c.get( *static_cast< const K* >( arg ) ) );
            return genericDone;
          case genericOpSet:
            if constexpr ( !std::is_null_pointer_v< Set > ) {
               if ( arg && arg2 ) {
                  set( self, *static_cast< const K* >( arg ),
                       *static_cast< const V* >( arg2 ) );
                  return genericDone;
               }
            }
            return genericNotAllowed;
          case genericOpDel:
            if constexpr ( !std::is_null_pointer_v< Del > ) {
               if ( arg ) {
                  del( self, *static_cast< const K* >( arg ) );
                  return genericDone;
               }
            }
            return genericNotAllowed;
          case genericOpCount:
            r.set( c.size() );
            return genericDone;
          case genericOpCountAlt:
            r.set( size_t( 0 ) );
            return genericDone;
          case genericOpExists:
            if ( !arg ) {
               return genericNotAllowed;
            }
            r.set( c.contains( *static_cast< const K* >( arg ) ) );
            return genericDone;
          default:
            return genericNotAllowed;
         }
      },
      [ access, del ]( T& self ) -> std::unique_ptr< GenericIterator > {
         return std::make_unique< CollectionGenericIterator< T, C, Del > >(
            self, access( self ), del );
      } );
}

}  // namespace Mox
