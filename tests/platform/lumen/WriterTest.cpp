// Writer-side behaviour: the table against a std::map model, iteration under
// removal, capacity limits, in-place commits, attach/detach and the writer lock.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <random>
#include <set>

using namespace LumenTest;

namespace {

template< class W >
std::map< MacKey, HostRec > contents( const W& table ) {
   std::map< MacKey, HostRec > seen;
   Lumen::Hint h;
   while ( auto e = table.next( h ) ) {
      EXPECT_TRUE( seen.emplace( e->first.key(), e->first ).second ) << "entry visited twice";
      h = e->second;
   }
   return seen;
}

// Random inserts, replaces and removes over a small key space, so the table
// grows, shrinks and fills with tombstones; checked against std::map.
void runOracle( Lumen::Writer< HostRec >& table, uint32_t seed ) {
   std::mt19937 rng( seed );
   std::map< MacKey, HostRec > model;
   for ( int step = 0; step < 20000; ++step ) {
      // Phases bias towards inserting or removing so the size swings widely.
      bool growing = ( step / 2500 ) % 2 == 0;
      uint32_t n = rng() % 600;
      MacKey k = MacKey::of( n );
      if ( rng() % 100 < ( growing ? 70u : 30u ) ) {
         HostRec r = HostRec::of( n, uint32_t( step ) );
         table.write( r );
         model[ k ] = r;
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
   table.sanityCheck();
   ASSERT_EQ( contents( table ), model );
   for ( uint32_t n = 0; n < 600; ++n ) {
      auto it = model.find( MacKey::of( n ) );
      ASSERT_EQ( table.contains( MacKey::of( n ) ), it != model.end() );
      ASSERT_EQ( table.lookup( MacKey::of( n ) ), it != model.end() ? it->second : HostRec{} );
   }
}

}  // namespace

TEST( LumenWriter, MatchesMapModelUnattachedAndAttached ) {
   TempRoot root;
   Lumen::Writer< HostRec > unattached( HostRec{}, { 16, 1u << 20, 64 } );
   runOracle( unattached, 1 );

   Lumen::Writer< HostRec > attached( HostRec{}, { 16, 1u << 20, 64 } );
   attached.attach( "/lumen/oracle" );
   runOracle( attached, 2 );
   EXPECT_LT( attached.capacity(), 1024u ) << "never shrank after the removal phases";
}

TEST( LumenWriter, CollidingKeysProbePastTombstones ) {
   TempRoot root;
   Lumen::Writer< FloodRec > table( FloodRec{}, { 8, 1024, 64 } );
   table.attach( "/lumen/colliding" );
   std::set< std::pair< uint32_t, uint32_t > > model;
   std::mt19937 rng( 3 );
   for ( int step = 0; step < 5000; ++step ) {
      CollidingKey k{ uint32_t( rng() % 40 ), 1 };
      if ( rng() % 2 ) {
         table.write( FloodRec{ k } );
         model.insert( { k.vni, k.ip } );
      } else {
         ASSERT_EQ( table.remove( k ).has_value(), model.erase( { k.vni, k.ip } ) == 1 );
      }
      ASSERT_EQ( table.count(), model.size() );
   }
   table.sanityCheck();
   for ( uint32_t v = 0; v < 40; ++v ) {
      EXPECT_EQ( table.contains( { v, 1 } ), model.count( { v, 1 } ) == 1 );
   }
}

TEST( LumenWriter, RemovingCurrentEntryDuringIterationVisitsEachOnce ) {
   TempRoot root;
   Lumen::Writer< HostRec > table( HostRec{}, { 64, 1u << 20, 64 } );
   table.attach( "/lumen/iterate" );
   for ( uint32_t n = 0; n < 500; ++n ) {
      table.write( HostRec::of( n, n ) );
   }
   std::set< MacKey > visited;
   Lumen::Hint h;
   int removed = 0;
   while ( auto e = table.next( h ) ) {
      EXPECT_TRUE( visited.insert( e->first.key() ).second );
      // Remove every other entry just returned, then continue past it.
      if ( visited.size() % 2 == 0 ) {
         ASSERT_TRUE( table.remove( e->first.key() ) );
         ++removed;
      }
      h = e->second;
   }
   EXPECT_EQ( visited.size(), 500u );
   EXPECT_EQ( table.count(), 500u - removed );
   table.sanityCheck();

   // Emptying the table the same way removes everything.
   h = {};
   while ( auto e = table.next( h ) ) {
      table.remove( e->first.key() );
      h = e->second;
   }
   EXPECT_EQ( table.count(), 0u );
   EXPECT_FALSE( table.next() );
}

TEST( LumenWriter, FullTableRefusesNewKeyAndChangesNothing ) {
   TempRoot root;
   Lumen::Writer< HostRec > table( HostRec{}, { 4, 8, 64 } );
   table.attach( "/lumen/full" );
   for ( uint32_t n = 0; n < 8; ++n ) {
      table.write( HostRec::of( n, n ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/full" );
   reader.dispatch();
   auto before = contents( table );
   try {
      table.write( HostRec::of( 100, 1 ) );
      FAIL() << "write into a full table succeeded";
   } catch ( const Lumen::TableFullException& e ) {
      EXPECT_STREQ( e.what(), "Lumen table full (occupancy:8 tableSize:8) /lumen/full" );
   }
   EXPECT_EQ( contents( table ), before );
   EXPECT_FALSE( table.contains( MacKey::of( 100 ) ) );
   EXPECT_EQ( table.capacity(), 8u );
   int notified = 0;
   reader.onKeyIs( [ & ]( const MacKey& ) { ++notified; } );
   reader.dispatch();
   EXPECT_EQ( notified, 0 ) << "a refused write was announced";
   EXPECT_THROW( table.slotFor( MacKey::of( 100 ) ), Lumen::TableFullException );

   // Replacing a present key still works at the limit.
   table.write( HostRec::of( 3, 77 ) );
   EXPECT_EQ( table.lookup( MacKey::of( 3 ) ), HostRec::of( 3, 77 ) );
   table.sanityCheck();
}

TEST( LumenWriter, InPlaceEditIsInvisibleUntilCommit ) {
   TempRoot root;
   Lumen::Writer< HostRec > table;
   table.attach( "/lumen/inplace" );
   table.write( HostRec::of( 1, 1 ) );
   Lumen::Reader< HostRec > reader( "/lumen/inplace" );

   HostRec* present = table.slotFor( MacKey::of( 1 ) );
   EXPECT_EQ( *present, HostRec::of( 1, 1 ) );
   *present = HostRec::of( 1, 5 );
   EXPECT_EQ( reader.lookup( MacKey::of( 1 ) ), HostRec::of( 1, 1 ) );

   HostRec* absent = table.slotFor( MacKey::of( 2 ) );
   EXPECT_EQ( absent->key(), MacKey::of( 2 ) );
   EXPECT_EQ( absent->check, 16u ) << "not the default value with the key";
   absent->vtep = 9;

   std::vector< MacKey > notified;
   reader.onKeyIs( [ & ]( const MacKey& k ) { notified.push_back( k ); } );
   table.commit( present );
   table.commit( absent );
   EXPECT_EQ( reader.lookup( MacKey::of( 1 ) ), HostRec::of( 1, 5 ) );
   EXPECT_EQ( reader.lookup( MacKey::of( 2 ) ).vtep, 9u );
   reader.dispatch();
   EXPECT_EQ( notified, ( std::vector< MacKey >{ MacKey::of( 1 ), MacKey::of( 2 ) } ) );
}

TEST( LumenWriter, AttachKeepsContentAndUnattachedEntriesWin ) {
   TempRoot root;
   {
      Lumen::Writer< HostRec > first;
      first.attach( "/lumen/keep" );
      for ( uint32_t n = 0; n < 100; ++n ) {
         first.write( HostRec::of( n, 1 ) );
      }
   }
   Lumen::Writer< HostRec > second;
   second.write( HostRec::of( 5, 2 ) );
   second.write( HostRec::of( 500, 2 ) );
   second.attach( "/lumen/keep" );
   EXPECT_EQ( second.count(), 101u );
   EXPECT_EQ( second.lookup( MacKey::of( 5 ) ), HostRec::of( 5, 2 ) );
   EXPECT_EQ( second.lookup( MacKey::of( 6 ) ), HostRec::of( 6, 1 ) );
   second.sanityCheck();

   second.detach();
   EXPECT_FALSE( second.attached() );
   second.write( HostRec::of( 7, 3 ) );   // process memory only now
   EXPECT_EQ( second.lookup( MacKey::of( 6 ) ), HostRec::of( 6, 1 ) );
   Lumen::Reader< HostRec > reader( "/lumen/keep" );
   EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::writerGone );
   EXPECT_EQ( reader.lookup( MacKey::of( 7 ) ), HostRec::of( 7, 1 ) );
   EXPECT_EQ( reader.count(), 101u );
}

TEST( LumenWriter, SecondLiveWriterIsRefusedWithPathAndPid ) {
   TempRoot root;
   Lumen::Writer< HostRec > holder;
   holder.attach( "/lumen/owned" );
   Lumen::Writer< HostRec > intruder;
   try {
      intruder.attach( "/lumen/owned" );
      FAIL() << "second writer attached";
   } catch ( const Lumen::WriterConflictException& e ) {
      EXPECT_EQ( std::string( e.what() ),
                 fmt::format( "Lumen table /lumen/owned already has a live writer (pid {})",
                              ::getpid() ) );
   }
   EXPECT_FALSE( intruder.attached() );
   holder.detach();
   intruder.attach( "/lumen/owned" );
   EXPECT_TRUE( intruder.attached() );
}

TEST( LumenWriter, RejectsMalformedPaths ) {
   TempRoot root;
   Lumen::Writer< HostRec > w;
   for ( const char* bad : { "", "/", "noslash", "/a//b", "/a/../b", "/a/b/", "/a@b" } ) {
      EXPECT_THROW( w.attach( bad ), Mox::Exception ) << bad;
   }
}
