// The generic-interface binding of an exchange table: the collection
// attribute (get = lookup, set = write, delete = remove, count, 4 yields 0,
// existence, and iteration with removal under the cursor), the control
// attribute (get and set) and `name`.
#pragma once

#include "orbevpn/exchange/ExchangeTable.h"

namespace OrbEvpn::internal {

template< class Table >
class TableGenericIterator : public Mox::GenericIterator {
 public:
   explicit TableGenericIterator( Table& t ) : table_( &t ), cur_( t.entryNext() ) {}
   bool iterNonnull() const override { return cur_.has_value(); }
   void iterInc() override {
      if ( cur_ ) {
         cur_ = table_->entryNext( cur_->second );
      }
   }
   void iterKey( Mox::GenericValue& r ) const override {
      if ( cur_ ) {
         r.set( cur_->first.key() );
      }
   }
   void iterObj( Mox::GenericValue& r ) const override {
      if ( cur_ ) {
         r.set( cur_->first );
      }
   }
   void iterDel() override {
      if ( !cur_ ) {
         return;
      }
      const auto key = cur_->first.key();
      const Lumen::Hint next = cur_->second;
      table_->entryDel( key );
      cur_ = table_->entryNext( next );
   }

 private:
   Mox::Ptr< Table > table_;
   std::optional< std::pair< typename Table::Entry, Lumen::Hint > > cur_;
};

template< class Derived, class Traits >
void ExchangeTable< Derived, Traits >::describeTable( Mox::TypeBuilder< Derived >& b ) {
   using K = typename Traits::Key;
   using E = typename Traits::Entry;
   b.custom(
      Traits::collectionName, Mox::AttrKind::collection,
      []( Mox::GenericValue& r, Derived& t, int op, const void* arg, const void* arg2 ) -> int {
         switch ( op ) {
          case Mox::genericOpGet:
            if ( !arg ) {
               return Mox::genericNotAllowed;
            }
            r.set( t.entry( *static_cast< const K* >( arg ) ) );
            return Mox::genericDone;
          case Mox::genericOpSet: {
            // The value is the second argument when given, else the first.
            const void* v = arg2 ? arg2 : arg;
            if ( !v ) {
               return Mox::genericNotAllowed;
            }
            t.entryIs( *static_cast< const E* >( v ) );
            return Mox::genericDone;
          }
          case Mox::genericOpDel:
            if ( !arg ) {
               return Mox::genericNotAllowed;
            }
            r.set( t.entryDel( *static_cast< const K* >( arg ) ) );
            return Mox::genericDone;
          case Mox::genericOpCount:
            r.set( t.entryCount() );
            return Mox::genericDone;
          case Mox::genericOpCountAlt:
            r.set( uint32_t( 0 ) );
            return Mox::genericDone;
          case Mox::genericOpExists:
            if ( !arg ) {
               return Mox::genericNotAllowed;
            }
            r.set( t.entryExists( *static_cast< const K* >( arg ) ) );
            return Mox::genericDone;
          default:
            return Mox::genericNotAllowed;
         }
      },
      []( Derived& t ) -> std::unique_ptr< Mox::GenericIterator > {
         return std::make_unique< TableGenericIterator< Derived > >( t );
      } );
   b.custom( Traits::controlName, Mox::AttrKind::scalar,
             []( Mox::GenericValue& r, Derived& t, int op, const void* arg, const void* ) -> int {
                if ( op == Mox::genericOpGet ) {
                   r.set( t.control() );
                   return Mox::genericDone;
                }
                if ( op == Mox::genericOpSet && arg ) {
                   t.controlIs(
                      *static_cast< const Mox::Ptr< MoxLumen::CollectionControl >* >( arg ) );
                   return Mox::genericDone;
                }
                return Mox::genericNotAllowed;
             } );
   b.scalar( "name", &Derived::name );
}

}  // namespace OrbEvpn::internal
