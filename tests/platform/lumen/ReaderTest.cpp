// Reader behaviour within one process: resynchronisation after the feed laps
// it, generations that change under an iteration, and change callbacks
// (coalesced, re-entered, throwing), a table replaced under the reader.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

using namespace LumenTest;

TEST( LumenReader, LappedReaderResynchronisesAcrossGrowthAndShrink ) {
   LumenRoot root;
   Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 8 } );
   writer.attach( "/lumen/lapped" );
   for ( uint32_t n = 0; n < 60; ++n ) {
      writer.write( HostRec::of( n, 0 ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/lapped" );
   std::vector< MacKey > keys;
   std::vector< bool > quiesced;
   reader.onKeyIs( [ & ]( const MacKey& k ) { keys.push_back( k ); } );
   reader.onQuiescedIs( [ & ]( bool q ) { quiesced.push_back( q ); } );
   auto expectSameState = [ & ] {
      EXPECT_EQ( reader.count(), writer.count() );
      std::vector< MacKey > all;
      for ( uint32_t n = 0; n < 1400; ++n ) {
         all.push_back( MacKey::of( n ) );
      }
      std::vector< HostRec > batch( all.size() );
      reader.lookupBatch( all.data(), batch.data(), all.size() );
      for ( uint32_t n = 0; n < 1400; ++n ) {
         ASSERT_EQ( reader.lookup( all[ n ] ), writer.lookup( all[ n ] ) ) << n;
         ASSERT_EQ( batch[ n ], writer.lookup( all[ n ] ) ) << n;
      }
   };
   std::map< MacKey, int > visits;
   Lumen::Hint h;
   for ( int i = 0; i < 20; ++i ) {
      auto e = reader.next( h );
      ASSERT_TRUE( e );
      ++visits[ e->first.key() ];
      h = e->second;
   }

   // Far more changes than the 8-entry feed holds: removals of keys the reader
   // knew, growth through several generations halfway through its iteration
   // (with lookups between them, which map the newer ones), keys that come
   // and go unseen, then a shrink.
   uint32_t initial = writer.capacity();
   for ( uint32_t n = 0; n < 60; n += 2 ) {
      writer.remove( MacKey::of( n ) );
   }
   for ( uint32_t n = 1000; n < 1400; ++n ) {
      writer.write( HostRec::of( n, 1 ) );
      if ( n % 64 == 0 ) {
         EXPECT_EQ( reader.lookup( MacKey::of( n ) ), HostRec::of( n, 1 ) );
      }
   }
   uint32_t grown = writer.capacity();
   ASSERT_GT( grown, initial );
   while ( auto e = reader.next( h ) ) {
      ++visits[ e->first.key() ];
      h = e->second;
   }
   for ( uint32_t n = 0; n < 60; ++n ) {
      int v = visits[ MacKey::of( n ) ];
      EXPECT_TRUE( n % 2 ? v == 1 : v <= 1 ) << "entry " << n << " visited " << v << " times";
   }
   for ( uint32_t n = 1000; n < 1400; ++n ) {
      if ( n % 50 != 0 ) {
         writer.remove( MacKey::of( n ) );
      }
   }
   writer.write( HostRec::of( 1, 7 ) );
   writer.write( HostRec::of( 1399, 3 ) );
   EXPECT_LT( writer.capacity(), grown );
   writer.sanityCheck();

   reader.dispatch();
   EXPECT_EQ( quiesced, ( std::vector< bool >{ true, false } ) );
   std::set< MacKey > expected;
   for ( uint32_t n = 0; n < 60; ++n ) {
      expected.insert( MacKey::of( n ) );   // present ones and removed ones
   }
   for ( auto e = writer.next(); e; e = writer.next( e->second ) ) {
      expected.insert( e->first.key() );
   }
   EXPECT_EQ( std::set< MacKey >( keys.begin(), keys.end() ), expected );
   expectSameState();

   // Back on the feed: no second resync; one callback per key, coalesced, in
   // order of first change; removing an absent key is not announced. A hook
   // may change the table, re-enter dispatch() (ignored: the next one brings
   // the change) and replace itself, from the next dispatch() on.
   keys.clear();
   quiesced.clear();
   std::vector< MacKey > later;
   reader.onKeyIs( [ & ]( const MacKey& k ) {
      keys.push_back( k );
      writer.write( HostRec::of( 8, 1 ) );
      reader.dispatch();
      EXPECT_EQ( reader.lookup( k ), writer.lookup( k ) );
      reader.onKeyIs( [ & ]( const MacKey& m ) { later.push_back( m ); } );
   } );
   writer.write( HostRec::of( 3, 1 ) );
   writer.write( HostRec::of( 1, 2 ) );
   writer.write( HostRec::of( 3, 2 ) );
   writer.remove( MacKey::of( 5 ) );
   writer.remove( MacKey::of( 99 ) );
   ASSERT_TRUE( readable( reader.fd(), 2000 ) );
   reader.dispatch();
   EXPECT_TRUE( quiesced.empty() );
   EXPECT_EQ( keys, ( std::vector< MacKey >{ MacKey::of( 3 ), MacKey::of( 1 ), MacKey::of( 5 ) } ) );
   expectSameState();
   writer.write( HostRec::of( 7, 1 ) );
   reader.dispatch();
   EXPECT_EQ( later, ( std::vector< MacKey >{ MacKey::of( 8 ), MacKey::of( 7 ) } ) );
}

// Whatever throws inside dispatch() (its own pass over a damaged table, or a
// callback) loses no change and leaves fd() readable until all is delivered.
TEST( LumenReader, AThrowInsideDispatchLosesNothingAndKeepsFdAlive ) {
   LumenRoot root;
   Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 8 } );
   writer.attach( "/lumen/throws" );
   Lumen::Reader< HostRec > reader( "/lumen/throws" );
   std::set< uint32_t > announced;
   std::vector< bool > quiesced;
   bool throwOnce = false;
   reader.onKeyIs( [ & ]( const MacKey& k ) {
      if ( std::exchange( throwOnce, false ) ) {
         throw std::runtime_error( "consumer failed" );
      }
      announced.insert( k.number() );
   } );
   reader.onQuiescedIs( [ & ]( bool q ) { quiesced.push_back( q ); } );
   reader.dispatch();

   // The resync's pass meets a generation that does not exist; once repaired,
   // the reader wakes by itself and announces the lapped window.
   auto setGeneration = [ & ]( uint64_t g ) {
      uint64_t old = 0;
      editFile( root.file( "lumen.throws" ), [ & ]( uint8_t* p, size_t ) {
         old = reinterpret_cast< Lumen::internal::ControlHeader* >( p )->generation.exchange( g );
      } );
      return old;
   };
   uint64_t generation = setGeneration( 4242 );
   for ( uint32_t n = 0; n < 20; ++n ) {   // laps the 8-entry feed
      writer.write( HostRec::of( n, n ) );
   }
   ASSERT_TRUE( readable( reader.fd(), 2000 ) );
   EXPECT_THROW( reader.dispatch(), Fable::CorruptionDetectedException );
   setGeneration( generation );
   ASSERT_TRUE( readable( reader.fd(), 2000 ) ) << "fell silent after the failed pass";
   reader.dispatch();
   EXPECT_EQ( announced.size(), 20u );
   EXPECT_EQ( quiesced, ( std::vector< bool >{ true, false } ) );

   // A callback throws in the middle of a resync: its key counts as
   // delivered, the others and quiesced(false) come with the next dispatch().
   announced.clear();
   quiesced.clear();
   for ( uint32_t n = 100; n < 120; ++n ) {
      writer.write( HostRec::of( n, n ) );
   }
   throwOnce = true;
   EXPECT_THROW( reader.dispatch(), std::runtime_error );
   EXPECT_EQ( quiesced, std::vector< bool >{ true } );
   ASSERT_TRUE( readable( reader.fd(), 0 ) ) << "events left undelivered, fd() not readable";
   reader.dispatch();
   EXPECT_EQ( quiesced, ( std::vector< bool >{ true, false } ) );
   EXPECT_EQ( announced.size(), 39u );   // 40 present keys, one taken by the throw
}

// Removing a table's files under a reader: what it held is announced gone,
// and the reader wakes by itself for the table created anew under the name.
TEST( LumenReader, AReplacedTableIsAnnouncedGoneAndTheNewOneFollowed ) {
   LumenRoot root;
   auto writer = std::make_unique< Lumen::Writer< HostRec > >();
   writer->attach( "/lumen/replaced" );
   writer->write( HostRec::of( 1, 1 ) );
   Lumen::Reader< HostRec > reader( "/lumen/replaced" );
   std::vector< MacKey > keys;
   std::vector< Lumen::MountStatus > statuses;
   reader.onKeyIs( [ & ]( const MacKey& k ) { keys.push_back( k ); } );
   reader.onMountStatusIs( [ & ]( Lumen::MountStatus s ) { statuses.push_back( s ); } );
   writer.reset();
   ASSERT_TRUE( readable( reader.fd(), 2000 ) );
   reader.dispatch();   // detached
   std::vector< std::filesystem::path > files;
   for ( const auto& e : std::filesystem::directory_iterator( root.dir() ) ) {
      files.push_back( e.path() );
   }
   for ( const auto& f : files ) {
      std::filesystem::remove( f );
   }
   ASSERT_TRUE( readable( reader.fd(), 2000 ) ) << "the removal went unnoticed";
   reader.dispatch();
   EXPECT_EQ( keys, std::vector< MacKey >{ MacKey::of( 1 ) } );
   EXPECT_EQ( reader.lookup( MacKey::of( 1 ) ), HostRec{} );
   EXPECT_EQ( statuses.back(), Lumen::MountStatus::waitingForWriter );

   keys.clear();
   Lumen::Writer< HostRec > again;
   again.attach( "/lumen/replaced" );
   again.write( HostRec::of( 2, 2 ) );
   for ( int i = 0; i < 3 && keys.empty(); ++i ) {
      ASSERT_TRUE( readable( reader.fd(), 2000 ) ) << "the new table did not wake the reader";
      reader.dispatch();
   }
   EXPECT_EQ( keys, std::vector< MacKey >{ MacKey::of( 2 ) } );
   EXPECT_EQ( reader.lookup( MacKey::of( 2 ) ), HostRec::of( 2, 2 ) );
   EXPECT_EQ( statuses.back(), Lumen::MountStatus::mounted );
}
