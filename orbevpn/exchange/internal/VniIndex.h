// OrbEvpn::internal::VniIndex<Traits>: the keys of a writer's own records,
// grouped by VNI, in process memory, so that a sweep of one VNI visits that
// VNI's records instead of the whole shared table.
//
// Per VNI it keeps a flat vector of the key's remainder (the key without its
// VNI: 8 bytes for a host's MAC, 4 for a flood entry's VTEP), the number of
// live keys and the number of removals not yet swept out of the vector.
// Removal is lazy: it only counts. The vector is compacted (removed keys
// dropped, keys removed and written again deduplicated) when a caller asks
// for the VNI's keys, or when removals outnumber the live keys, so a VNI's
// vector never holds much more than twice its live keys and every operation
// costs O(1) amortised. Invariant: a VNI with no removal pending holds each
// of its live keys exactly once.
//
// The owner tells it of every key that appears (inserted) and disappears
// (removed) and gives a presence test when asked for keys or when removing
// (compaction checks the table itself, so a key counted twice can never be
// resurrected). Until built it ignores changes: a process that never asks
// pays nothing. Single-threaded, like its table.
#pragma once

#include "platform/mox/Assert.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace OrbEvpn::internal {

template< class Traits >
class VniIndex {
 public:
   using Key = typename Traits::Key;
   using Rest = typename Traits::IndexRest;

   bool built() const { return built_; }

   // Forgets everything (the table's content changed behind its back).
   void clear() {
      std::unordered_map< uint32_t, Bucket >().swap( buckets_ );
      built_ = false;
   }

   // From the table's content: `each( f )` calls f( key ) once per record.
   // Two passes, so that each vector is allocated once at its exact size.
   template< class Each >
   void build( Each&& each ) {
      clear();
      each( [ & ]( const Key& k ) { ++buckets_[ Traits::indexVni( k ) ].live; } );
      for ( auto& [ vni, b ] : buckets_ ) {
         b.rest.reserve( b.live );
      }
      each( [ & ]( const Key& k ) {
         buckets_.find( Traits::indexVni( k ) )->second.rest.push_back( Traits::indexRest( k ) );
      } );
      built_ = true;
   }

   void inserted( const Key& k ) {
      if ( !built_ ) {
         return;
      }
      Bucket& b = buckets_[ Traits::indexVni( k ) ];
      b.rest.push_back( Traits::indexRest( k ) );
      ++b.live;
   }

   template< class Present >
   void removed( const Key& k, Present&& present ) {
      if ( !built_ ) {
         return;
      }
      const uint32_t vni = Traits::indexVni( k );
      auto it = buckets_.find( vni );
      MOX_ASSERT_MSG( it != buckets_.end() && it->second.live != 0,
                      "VniIndex: removal of a key it never held" );
      Bucket& b = it->second;
      --b.live;
      ++b.stale;
      if ( b.stale > b.live + compactSlack ) {
         compact( it, present );
      }
   }

   // The VNI's live keys, each once (a copy: the caller may change the
   // table while it visits them).
   template< class Present >
   std::vector< Key > keysOf( uint32_t vni, Present&& present ) {
      std::vector< Key > keys;
      auto it = buckets_.find( vni );
      if ( it == buckets_.end() ) {
         return keys;
      }
      if ( it->second.stale != 0 ) {
         compact( it, present );
         it = buckets_.find( vni );
         if ( it == buckets_.end() ) {
            return keys;
         }
      }
      keys.reserve( it->second.rest.size() );
      for ( const Rest& r : it->second.rest ) {
         keys.push_back( Traits::indexKey( vni, r ) );
      }
      return keys;
   }

   // Keys held and heap bytes used (vectors' capacity plus the map's nodes
   // and buckets, approximately): for measurements and tests.
   size_t keys() const {
      size_t n = 0;
      for ( const auto& [ vni, b ] : buckets_ ) {
         n += b.rest.size();
      }
      return n;
   }
   size_t bytes() const {
      size_t n = buckets_.bucket_count() * sizeof( void* );
      for ( const auto& [ vni, b ] : buckets_ ) {
         n += b.rest.capacity() * sizeof( Rest ) + sizeof( Bucket ) + 2 * sizeof( void* ) +
              sizeof( uint32_t );
      }
      return n;
   }

 private:
   struct Bucket {
      std::vector< Rest > rest;
      uint32_t live = 0;
      uint32_t stale = 0;   // removals since the last compaction
   };
   using Iterator = typename std::unordered_map< uint32_t, Bucket >::iterator;

   // Removals tolerated beyond the live count before compacting: keeps a
   // small VNI that churns from compacting on every removal.
   static constexpr uint32_t compactSlack = 32;

   template< class Present >
   void compact( Iterator it, Present& present ) {
      const uint32_t vni = it->first;
      Bucket& b = it->second;
      std::erase_if( b.rest,
                     [ & ]( const Rest& r ) { return !present( Traits::indexKey( vni, r ) ); } );
      std::sort( b.rest.begin(), b.rest.end() );
      b.rest.erase( std::unique( b.rest.begin(), b.rest.end() ), b.rest.end() );
      MOX_ASSERT_MSG( b.rest.size() == b.live, "VniIndex: live count out of step" );
      b.stale = 0;
      if ( b.rest.empty() ) {
         buckets_.erase( it );
      } else if ( b.rest.capacity() > 2 * b.rest.size() + 16 ) {
         b.rest.shrink_to_fit();
      }
   }

   std::unordered_map< uint32_t, Bucket > buckets_;
   bool built_ = false;
};

}  // namespace OrbEvpn::internal
