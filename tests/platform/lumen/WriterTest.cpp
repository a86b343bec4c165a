// Writer-side behaviour: the table against a std::map model (growth, shrink,
// tombstones, removal during iteration) and the capacity limit.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

using namespace LumenTest;

namespace {

template< class T >
std::map< MacKey, HostRec > contents( const T& table ) {
   std::map< MacKey, HostRec > seen;
   for ( auto e = table.next(); e; e = table.next( e->second ) ) {
      EXPECT_TRUE( seen.emplace( e->first.key(), e->first ).second ) << "entry visited twice";
   }
   return seen;
}

void runOracle( Lumen::Writer< HostRec >& table, uint32_t seed ) {
   std::mt19937 rng( seed );
   std::map< MacKey, HostRec > model;
   for ( int step = 0; step < 20000; ++step ) {
      // Phases bias towards inserting or removing so the size swings widely.
      bool growing = ( step / 2500 ) % 2 == 0;
      uint32_t n = rng() % 600;
      MacKey k = MacKey::of( n );
      if ( rng() % 100 < ( growing ? 70u : 30u ) ) {
         table.write( model[ k ] = HostRec::of( n, uint32_t( step ) ) );
      } else {
         auto removed = table.remove( k );
         auto it = model.find( k );
         ASSERT_EQ( removed.has_value(), it != model.end() ) << "step " << step;
         if ( removed ) {
            ASSERT_EQ( *removed, it->second );
            model.erase( it );
         }
      }
      ASSERT_EQ( table.count(), model.size() );
      if ( step % 997 == 0 ) {
         table.sanityCheck();
         ASSERT_EQ( contents( table ), model );
      }
   }
   for ( uint32_t n = 0; n < 600; ++n ) {
      auto it = model.find( MacKey::of( n ) );
      ASSERT_EQ( table.contains( MacKey::of( n ) ), it != model.end() );
      ASSERT_EQ( table.lookup( MacKey::of( n ) ), it != model.end() ? it->second : HostRec{} );
   }
   // Removing every other entry just returned, continuing from its hint,
   // must neither skip nor repeat the rest.
   size_t visited = 0;
   size_t total = model.size();
   for ( auto e = table.next(); e; e = table.next( e->second ) ) {
      if ( ++visited % 2 == 0 ) {
         ASSERT_TRUE( table.remove( e->first.key() ) );
         model.erase( e->first.key() );
      }
   }
   EXPECT_EQ( visited, total );
   table.sanityCheck();
   ASSERT_EQ( contents( table ), model );
}

}  // namespace

TEST( LumenWriter, MatchesMapModelUnattachedAndAttached ) {
   LumenRoot root;
   Lumen::Writer< HostRec > unattached( HostRec{}, { 16, 1u << 20, 64 } );
   runOracle( unattached, 1 );

   Lumen::Writer< HostRec > attached( HostRec{}, { 16, 1u << 20, 64 } );
   attached.attach( "/lumen/oracle" );
   runOracle( attached, 2 );
   EXPECT_LT( attached.capacity(), 1024u ) << "never shrank after the removal phases";
}

TEST( LumenWriter, FullTableRefusesNewKeyAndChangesNothing ) {
   LumenRoot root;
   Lumen::Writer< HostRec > table( HostRec{}, { 4, 8, 64 } );
   table.attach( "/lumen/full" );
   for ( uint32_t n = 0; n < 8; ++n ) {
      table.write( HostRec::of( n, n ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/full" );
   reader.dispatch();
   std::vector< MacKey > notified;
   reader.onKeyIs( [ & ]( const MacKey& k ) { notified.push_back( k ); } );
   auto before = contents( table );
   EXPECT_EQ( whatOf< Lumen::TableFullException >( [ & ] { table.write( HostRec::of( 100, 1 ) ); } ),
              "Lumen table full (occupancy:8 tableSize:8) /lumen/full" );
   EXPECT_THROW( table.slotFor( MacKey::of( 100 ) ), Lumen::TableFullException );
   EXPECT_EQ( contents( table ), before );
   EXPECT_FALSE( table.contains( MacKey::of( 100 ) ) );
   EXPECT_EQ( table.capacity(), 8u );
   reader.dispatch();
   EXPECT_TRUE( notified.empty() ) << "a refused write was announced";

   // A present key can still be edited in place at the limit; readers see the
   // edit only once committed.
   HostRec* present = table.slotFor( MacKey::of( 3 ) );
   EXPECT_EQ( *present, HostRec::of( 3, 3 ) );
   *present = HostRec::of( 3, 77 );
   EXPECT_EQ( reader.lookup( MacKey::of( 3 ) ), HostRec::of( 3, 3 ) );
   table.commit( present );
   EXPECT_EQ( reader.lookup( MacKey::of( 3 ) ), HostRec::of( 3, 77 ) );
   reader.dispatch();
   EXPECT_EQ( notified, std::vector< MacKey >{ MacKey::of( 3 ) } );
   table.sanityCheck();
}
