// Collection attributes of framework objects.
//
// A Collection<K, V, Order> is a member of its owning object. Every change
// (set, delete) notifies the owner's notifiees with the collection's
// attribute id and a pointer to the changed key, after the change is made.
// Lookups of absent keys yield the collection's default value.
//
// Order::ordered keeps keys sorted (std::map); Order::hashed keeps them in
// a hash map, keyed with the key's own 32-bit hash(). Iteration tolerates
// deletion of the current entry (and of any other): ordered cursors resume
// after the last key they stood on; hashed cursors walk a snapshot of the
// keys taken when iteration starts and skip keys deleted since. Keys added
// during a hashed iteration are not visited.
//
// Single-threaded: runs on the notification thread.
#pragma once

#include "platform/mox/PtrInterface.h"

#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Mox {

template< class K >
struct KeyHash {
   size_t operator()( const K& k ) const {
      if constexpr ( requires { k.hash(); } ) {
         return static_cast< size_t >( k.hash() );
      } else {
         return std::hash< K >()( k );
      }
   }
};

enum class Order : uint8_t { ordered, hashed };

template< class K, class V, Order order = Order::ordered >
class Collection {
 public:
   using Key = K;
   using Value = V;
   using Map = std::conditional_t< order == Order::ordered, std::map< K, V >,
                                   std::unordered_map< K, V, KeyHash< K > > >;

   // `owner` notifies; `id` is the collection's attribute id on the owner.
   Collection( const PtrInterface* owner, AttributeId id, V defaultValue = V() )
         : owner_( owner ), id_( id ), default_( std::move( defaultValue ) ) {}
   Collection( const Collection& ) = delete;
   Collection& operator=( const Collection& ) = delete;

   AttributeId attributeId() const { return id_; }

   // The stored value, or the default value when `k` is absent.
   V get( const K& k ) const {
      auto it = map_.find( k );
      return it == map_.end() ? default_ : it->second;
   }
   const V* find( const K& k ) const {
      auto it = map_.find( k );
      return it == map_.end() ? nullptr : &it->second;
   }
   bool contains( const K& k ) const { return map_.find( k ) != map_.end(); }
   size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }
   const V& defaultValue() const { return default_; }

   // Insert or replace, then notify (also when the value did not change).
   void set( const K& k, V v ) {
      if constexpr ( order == Order::ordered ) {
         // Keys often come in order (a table's dump, a resync's delivery):
         // offered the last key set as a hint, the tree inserts next to it
         // without a search from the root, and past the greatest key with
         // no step at all (a wrong hint costs a compare or two before the
         // plain search).
         const auto hint = lastSetValid_ ? lastSet_ : map_.end();
         lastSet_ = map_.insert_or_assign( hint, k, std::move( v ) );
         lastSetValid_ = true;
      } else {
         map_.insert_or_assign( k, std::move( v ) );
      }
      ++version_;
      notify( k );
   }

   // Returns the existing value at `k`, or stores make() there and notifies.
   template< class Make >
   V instantiate( const K& k, Make&& make ) {
      auto it = map_.find( k );
      if ( it != map_.end() ) {
         return it->second;
      }
      V v = make();
      map_.emplace( k, v );
      ++version_;
      notify( k );
      return v;
   }

   // Removes `k`; returns the removed value (nullopt if it was absent).
   // Notifies only when something was removed.
   std::optional< V > del( const K& k ) {
      auto it = map_.find( k );
      if ( it == map_.end() ) {
         return std::nullopt;
      }
      std::optional< V > old( std::move( it->second ) );
      K key = it->first;
      if constexpr ( order == Order::ordered ) {
         if ( lastSetValid_ && lastSet_ == it ) {
            lastSetValid_ = false;
         }
      }
      map_.erase( it );
      ++version_;
      notify( key );
      return old;
   }

   // Removes every entry, one notification per key.
   void delAll() {
      while ( !map_.empty() ) {
         K k = map_.begin()->first;
         del( k );
      }
   }

   class Iterator {
    public:
      bool done() const { return !cur_; }
      explicit operator bool() const { return cur_.has_value(); }
      const K& key() const { return *cur_; }
      // The current value; the default value if it was deleted meanwhile.
      V value() const { return c_->get( *cur_ ); }
      Iterator& operator++() {
         advance();
         return *this;
      }

    private:
      friend class Collection;
      explicit Iterator( const Collection* c ) : c_( c ) {
         if constexpr ( order == Order::hashed ) {
            keys_.reserve( c->map_.size() );
            for ( auto& [ k, v ] : c->map_ ) {
               keys_.push_back( k );
            }
            next_ = 0;
            advance();
         } else {
            if ( !c->map_.empty() ) {
               cur_ = c->map_.begin()->first;
            }
         }
      }
      void advance() {
         if constexpr ( order == Order::hashed ) {
            cur_.reset();
            while ( next_ < keys_.size() ) {
               const K& k = keys_[ next_++ ];
               if ( c_->contains( k ) ) {
                  cur_ = k;
                  return;
               }
            }
         } else {
            if ( !cur_ ) {
               return;
            }
            auto it = c_->map_.upper_bound( *cur_ );
            if ( it == c_->map_.end() ) {
               cur_.reset();
            } else {
               cur_ = it->first;
            }
         }
      }
      const Collection* c_;
      std::optional< K > cur_;
      std::vector< K > keys_;
      size_t next_ = 0;
   };

   Iterator iterator() const { return Iterator( this ); }

   // Read-only view of the underlying map for range-for loops that do not
   // change the collection.
   const Map& map() const { return map_; }

 private:
   void notify( const K& k ) const {
      if ( owner_ ) {
         owner_->notify( id_, &k );
      }
   }

   const PtrInterface* owner_;
   AttributeId id_;
   V default_;
   Map map_;
   typename Map::iterator lastSet_{};   // ordered: where set() last put a key
   bool lastSetValid_ = false;
   uint64_t version_ = 0;
};

}  // namespace Mox
