// OrbEvpn::internal::VniIndex<Traits>: the keys of a writer's own records,
// grouped by VNI, in process memory, so that a sweep of one VNI visits that
// VNI's records instead of the whole shared table.
//
// Per VNI it keeps a flat vector of the key's remainder (the key without its
// VNI: a host's MAC, a flood entry's VTEP), the number of live keys and the
// number of removals not yet swept out of the vector. A remainder is stored
// in as many bytes as the VNI's widest one needs, not in its type's: a MAC
// held in a 64-bit remainder takes 6, so a host costs the index 6 bytes
// rather than 8.
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
#include <type_traits>
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
   // One pass over the table (walking it is what costs); vectors that grew
   // with slack are then trimmed to their size.
   template< class Each >
   void build( Each&& each ) {
      clear();
      each( [ & ]( const Key& k ) {
         Bucket& b = buckets_[ Traits::indexVni( k ) ];
         b.push( Traits::indexRest( k ) );
         ++b.live;
      } );
      for ( auto& [ vni, b ] : buckets_ ) {
         if ( b.bytes.capacity() > b.bytes.size() + b.bytes.size() / 4 ) {
            b.bytes.shrink_to_fit();
         }
      }
      built_ = true;
   }

   void inserted( const Key& k ) {
      if ( !built_ ) {
         return;
      }
      Bucket& b = buckets_[ Traits::indexVni( k ) ];
      b.push( Traits::indexRest( k ) );
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
      const Bucket& b = it->second;
      keys.reserve( b.size() );
      for ( size_t i = 0; i < b.size(); ++i ) {
         keys.push_back( Traits::indexKey( vni, b.at( i ) ) );
      }
      return keys;
   }

   // Keys held and heap bytes used (vectors' capacity plus the map's nodes
   // and buckets, approximately): for measurements and tests.
   size_t keys() const {
      size_t n = 0;
      for ( const auto& [ vni, b ] : buckets_ ) {
         n += b.size();
      }
      return n;
   }
   size_t bytes() const {
      size_t n = buckets_.bucket_count() * sizeof( void* );
      for ( const auto& [ vni, b ] : buckets_ ) {
         n += b.bytes.capacity() + sizeof( Bucket ) + 2 * sizeof( void* ) + sizeof( uint32_t );
      }
      return n;
   }

 private:
   static_assert( std::is_unsigned_v< Rest >, "VniIndex: a key's remainder is an unsigned integer" );

   // Bytes that hold r: its value's low-order bytes up to the highest
   // non-zero one (at least one).
   static uint8_t widthOf( Rest r ) {
      uint8_t w = 1;
      while ( w < sizeof( Rest ) && ( r >> ( 8 * w ) ) != 0 ) {
         ++w;
      }
      return w;
   }

   struct Bucket {
      std::vector< uint8_t > bytes;   // `width` bytes per key, low-order byte first
      uint32_t live = 0;
      uint32_t stale = 0;   // removals since the last compaction
      uint8_t width = 0;

      size_t size() const { return width == 0 ? 0 : bytes.size() / width; }
      Rest at( size_t i ) const {
         const uint8_t* p = bytes.data() + i * width;
         Rest r = 0;
         for ( uint8_t j = width; j-- > 0; ) {
            r = Rest( r << 8 | p[ j ] );
         }
         return r;
      }
      void push( Rest r ) {
         const uint8_t w = widthOf( r );
         if ( w > width ) {
            widen( w );
         }
         const size_t end = bytes.size();
         bytes.resize( end + width );
         for ( uint8_t j = 0; j < width; ++j ) {
            bytes[ end + j ] = uint8_t( r >> ( 8 * j ) );
         }
      }
      // Every key stored again at `w` bytes: rare, as a VNI's keys tend to
      // need the same width, and at most once per byte of Rest.
      void widen( uint8_t w ) {
         std::vector< Rest > all = unpack();
         bytes.clear();
         width = w;
         bytes.reserve( all.size() * w );
         for ( Rest r : all ) {
            push( r );
         }
      }
      std::vector< Rest > unpack() const {
         std::vector< Rest > all( size() );
         for ( size_t i = 0; i < all.size(); ++i ) {
            all[ i ] = at( i );
         }
         return all;
      }
      void repack( const std::vector< Rest >& all ) {
         uint8_t w = 0;
         for ( Rest r : all ) {
            w = std::max( w, widthOf( r ) );
         }
         bytes.clear();
         width = w;
         for ( Rest r : all ) {
            push( r );
         }
      }
   };
   using Iterator = typename std::unordered_map< uint32_t, Bucket >::iterator;

   // Removals tolerated beyond the live count before compacting: keeps a
   // small VNI that churns from compacting on every removal.
   static constexpr uint32_t compactSlack = 32;

   template< class Present >
   void compact( Iterator it, Present& present ) {
      const uint32_t vni = it->first;
      Bucket& b = it->second;
      std::vector< Rest > rest = b.unpack();
      std::erase_if( rest,
                     [ & ]( const Rest& r ) { return !present( Traits::indexKey( vni, r ) ); } );
      std::sort( rest.begin(), rest.end() );
      rest.erase( std::unique( rest.begin(), rest.end() ), rest.end() );
      MOX_ASSERT_MSG( rest.size() == b.live, "VniIndex: live count out of step" );
      b.stale = 0;
      if ( rest.empty() ) {
         buckets_.erase( it );
         return;
      }
      b.repack( rest );
      if ( b.bytes.capacity() > 2 * b.bytes.size() + 16 * size_t( b.width ) ) {
         b.bytes.shrink_to_fit();
      }
   }

   std::unordered_map< uint32_t, Bucket > buckets_;
   bool built_ = false;
};

}  // namespace OrbEvpn::internal
