// The per-VNI key index on its own, over a std::set standing in for the table: lazy removal and compaction
// keep each live key listed once and the vectors near the live count; changes it cannot account for are fatal.
#include "orbevpn/exchange/internal/VniIndex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <utility>

namespace {

using Key = std::pair< uint32_t, uint32_t >;   // (VNI, rest)

struct Traits {
   using Key = ::Key;
   using IndexRest = uint32_t;
   static uint32_t indexVni( const Key& k ) { return k.first; }
   static uint32_t indexRest( const Key& k ) { return k.second; }
   static Key indexKey( uint32_t vni, uint32_t rest ) { return { vni, rest }; }
};

// A table and its index, changed together as the exchange table does.
struct Indexed {
   std::set< Key > table;
   OrbEvpn::internal::VniIndex< Traits > index;
   std::function< bool( const Key& ) > present = [ this ]( const Key& k ) { return table.contains( k ); };

   void build() {
      index.build( [ & ]( auto&& f ) {
         for ( const Key& k : table ) f( k );
      } );
   }
   void insert( Key k ) {
      if ( table.insert( k ).second ) index.inserted( k );
   }
   void remove( Key k ) {
      if ( table.erase( k ) ) index.removed( k, present );
   }
   std::vector< Key > keysOf( uint32_t vni ) {
      auto v = index.keysOf( vni, present );
      std::sort( v.begin(), v.end() );
      return v;
   }
   std::vector< Key > tableKeysOf( uint32_t vni ) const {
      std::vector< Key > v;
      for ( const Key& k : table ) {
         if ( k.first == vni ) v.push_back( k );
      }
      return v;
   }
};

TEST( VniIndex, ListsEachLiveKeyOnceThroughRemovalsAndRewrites ) {
   Indexed t;
   for ( uint32_t r = 0; r < 5; ++r ) t.insert( { 7, r } ), t.insert( { 8, r } );
   t.build();
   t.remove( { 7, 1 } );
   t.insert( { 7, 1 } );   // removed and written again: listed once, not twice
   t.remove( { 7, 3 } );
   t.insert( { 9, 0 } );   // a VNI the build never saw
   EXPECT_EQ( t.keysOf( 7 ), t.tableKeysOf( 7 ) );
   EXPECT_EQ( t.keysOf( 8 ), t.tableKeysOf( 8 ) );
   EXPECT_EQ( t.keysOf( 9 ), t.tableKeysOf( 9 ) );
   EXPECT_TRUE( t.keysOf( 10 ).empty() );
   EXPECT_EQ( t.index.keys(), t.table.size() );
}

TEST( VniIndex, RemovalsCompactTheVniSoItStaysNearItsLiveKeys ) {
   Indexed t;
   t.build();
   for ( uint32_t r = 0; r < 10000; ++r ) t.insert( { 7, r } );
   for ( uint32_t r = 10; r < 10000; ++r ) t.remove( { 7, r } );
   EXPECT_LE( t.index.keys(), 2 * 10 + 33u );   // compacted on the way, without being asked for keys
   EXPECT_LT( t.index.bytes(), 4096u );          // and its memory given back
   for ( uint32_t r = 0; r < 10; ++r ) t.remove( { 7, r } );
   EXPECT_TRUE( t.keysOf( 7 ).empty() );
   EXPECT_EQ( t.index.keys(), 0u );
}

TEST( VniIndex, IgnoresChangesUntilBuiltAndForgetsOnClear ) {
   Indexed t;
   t.insert( { 7, 1 } );
   t.remove( { 7, 1 } );   // not built: no removal of an unknown key
   t.insert( { 7, 2 } );
   EXPECT_FALSE( t.index.built() );
   EXPECT_EQ( t.index.keys(), 0u );
   t.build();
   EXPECT_EQ( t.keysOf( 7 ), t.tableKeysOf( 7 ) );
   t.index.clear();
   EXPECT_FALSE( t.index.built() );
   EXPECT_EQ( t.index.keys(), 0u );
}

// Remainders are kept in as few bytes as the VNI's widest needs: keys of
// every width, arriving narrow first and wide later (and the reverse),
// through the build, later inserts and compactions, come back unchanged.
TEST( VniIndex, KeysOfEveryWidthComeBackWhole ) {
   using Key64 = std::pair< uint32_t, uint64_t >;
   struct Traits64 {
      using Key = Key64;
      using IndexRest = uint64_t;
      static uint32_t indexVni( const Key64& k ) { return k.first; }
      static uint64_t indexRest( const Key64& k ) { return k.second; }
      static Key64 indexKey( uint32_t vni, uint64_t rest ) { return { vni, rest }; }
   };
   std::set< Key64 > table;
   OrbEvpn::internal::VniIndex< Traits64 > index;
   auto present = [ & ]( const Key64& k ) { return table.contains( k ); };
   auto insert = [ & ]( Key64 k ) {
      if ( table.insert( k ).second ) index.inserted( k );
   };
   auto listed = [ & ]( uint32_t vni ) {
      auto v = index.keysOf( vni, present );
      std::sort( v.begin(), v.end() );
      return v;
   };
   auto inTable = [ & ]( uint32_t vni ) {
      std::vector< Key64 > v;
      for ( const Key64& k : table ) {
         if ( k.first == vni ) v.push_back( k );
      }
      return v;
   };
   std::vector< uint64_t > values{ 0, 1, 0xff, 0x100, 0xbeef, 0x12345678, 0x02a0b0c0d0e0ull,
                                   0x0100000000000000ull, ~0ull };
   for ( uint64_t v : values ) table.insert( { 7, v } );                     // narrow first
   for ( auto v = values.rbegin(); v != values.rend(); ++v ) table.insert( { 8, *v } );   // wide first
   index.build( [ & ]( auto&& f ) {
      for ( const Key64& k : table ) f( k );
   } );
   EXPECT_EQ( listed( 7 ), inTable( 7 ) );
   EXPECT_EQ( listed( 8 ), inTable( 8 ) );
   insert( { 9, 0x42 } );
   insert( { 9, 0x02a0b0c0d0e1ull } );   // widens a VNI first seen narrow
   insert( { 9, 0x43 } );
   EXPECT_EQ( listed( 9 ), inTable( 9 ) );
   for ( uint64_t r = 0; r < 100; ++r ) insert( { 10, 0x0200000000ull + r } );
   for ( uint64_t r = 0; r < 90; ++r ) {   // removals compact the VNI as they go
      table.erase( { 10, 0x0200000000ull + r } );
      index.removed( { 10, 0x0200000000ull + r }, present );
   }
   EXPECT_EQ( listed( 10 ), inTable( 10 ) );
   EXPECT_EQ( index.keys(), table.size() );
}

TEST( VniIndexDeathTest, AChangeThatBypassedItIsFatal ) {
   Indexed t;
   t.insert( { 7, 1 } );
   t.build();
   t.table.insert( { 8, 1 } );   // behind the index's back
   EXPECT_DEATH( t.remove( { 8, 1 } ), "^VniIndex: removal of a key it never held\n$" );
   t.index.inserted( { 7, 2 } );   // said to be there, but the table lacks it
   t.remove( { 7, 1 } );
   EXPECT_DEATH( t.keysOf( 7 ), "^VniIndex: live count out of step\n$" );
}

}  // namespace
