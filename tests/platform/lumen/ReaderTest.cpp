// Reader behaviour within one process: resync, callbacks, a replaced table.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>
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
      EXPECT_EQ( reader.countShared(), writer.count() );
      std::vector< MacKey > all;
      for ( uint32_t n = 0; n < 1400; ++n ) {
         all.push_back( MacKey::of( n ) );
      }
      std::vector< HostRec > batch( all.size() ), shared( all.size() );
      reader.lookupBatch( all.data(), batch.data(), all.size() );
      reader.lookupBatchShared( all.data(), shared.data(), all.size() );
      for ( uint32_t n = 0; n < 1400; ++n ) {
         ASSERT_EQ( reader.lookup( all[ n ] ), writer.lookup( all[ n ] ) ) << n;
         ASSERT_EQ( reader.lookupShared( all[ n ] ), writer.lookup( all[ n ] ) ) << n;
         ASSERT_EQ( batch[ n ], writer.lookup( all[ n ] ) ) << n;
         ASSERT_EQ( shared[ n ], writer.lookup( all[ n ] ) ) << n;
      }
      EXPECT_EQ( contentsOf( reader ), contentsOf( writer ) );
   };
   std::map< MacKey, int > visits;
   Lumen::Hint h;
   for ( int i = 0; i < 20; ++i ) {
      auto e = reader.nextShared( h );
      ASSERT_TRUE( e );
      ++visits[ e->first.key() ];
      h = e->second;
   }

   // Lapping the 8-entry feed: removals, growth halfway through a shared
   // iteration, keys that come and go unseen, then a shrink.
   uint32_t initial = writer.capacity();
   for ( uint32_t n = 0; n < 60; n += 2 ) {
      writer.remove( MacKey::of( n ) );
   }
   for ( uint32_t n = 1000; n < 1400; ++n ) {
      writer.write( HostRec::of( n, 1 ) );
      if ( n % 64 == 0 ) {
         EXPECT_EQ( reader.lookupShared( MacKey::of( n ) ), HostRec::of( n, 1 ) );
         EXPECT_FALSE( reader.contains( MacKey::of( n ) ) ) << "an undelivered key is visible";
      }
   }
   uint32_t grown = writer.capacity();
   ASSERT_GT( grown, initial );
   while ( auto e = reader.nextShared( h ) ) {
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
   EXPECT_EQ( reader.count(), 60u ) << "the delivered state moved before dispatch()";

   // Exactly the keys whose state differs from the delivered one.
   reader.dispatch();
   EXPECT_EQ( quiesced, ( std::vector< bool >{ true, false } ) );
   std::set< MacKey > expected;
   for ( uint32_t n = 0; n < 60; n += 2 ) {
      expected.insert( MacKey::of( n ) );
   }
   expected.insert( MacKey::of( 1 ) );
   for ( uint32_t n = 1000; n < 1400; n += 50 ) {
      expected.insert( MacKey::of( n ) );
   }
   expected.insert( MacKey::of( 1399 ) );
   EXPECT_EQ( std::set< MacKey >( keys.begin(), keys.end() ), expected );
   EXPECT_EQ( keys.size(), expected.size() );
   expectSameState();

   // Back on the feed: one callback per key, coalesced, in order of first
   // change; no-op removals and rewrites unannounced. A hook may change the
   // table, re-enter dispatch() (ignored) and replace itself.
   keys.clear();
   quiesced.clear();
   std::vector< MacKey > later;
   reader.onKeyIs( [ & ]( const MacKey& k ) {
      keys.push_back( k );
      writer.write( HostRec::of( 8, 1 ) );
      reader.dispatch();
      EXPECT_EQ( reader.lookup( k ), writer.lookup( k ) );
      EXPECT_FALSE( reader.contains( MacKey::of( 8 ) ) ) << "an undelivered write is visible";
      reader.onKeyIs( [ & ]( const MacKey& m ) { later.push_back( m ); } );
   } );
   writer.write( HostRec::of( 3, 1 ) );
   writer.write( HostRec::of( 1, 2 ) );
   writer.write( HostRec::of( 3, 2 ) );
   writer.remove( MacKey::of( 5 ) );
   writer.remove( MacKey::of( 99 ) );
   writer.write( HostRec::of( 7, 0 ) );   // as it was
   ASSERT_TRUE( readable( reader.fd(), 2000 ) );
   reader.dispatch();
   EXPECT_TRUE( quiesced.empty() );
   EXPECT_EQ( keys, ( std::vector< MacKey >{ MacKey::of( 3 ), MacKey::of( 1 ), MacKey::of( 5 ) } ) );
   writer.write( HostRec::of( 7, 1 ) );
   reader.dispatch();
   EXPECT_EQ( later, ( std::vector< MacKey >{ MacKey::of( 8 ), MacKey::of( 7 ) } ) );
   expectSameState();
}

// Between dispatches the reader answers from what it delivered; a callback
// sees its own key's new state but not a later key's.
TEST( LumenReader, ReadsBetweenDispatchesSeeOnlyWhatWasDelivered ) {
   LumenRoot root;
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/delivered" );
   for ( uint32_t n = 0; n < 10; ++n ) {
      writer.write( HostRec::of( n, 1 ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/delivered" );
   auto before = contentsOf( reader );
   ASSERT_EQ( before.size(), 10u );

   writer.write( HostRec::of( 1, 2 ) );   // replaced
   writer.remove( MacKey::of( 2 ) );      // removed
   writer.write( HostRec::of( 20, 1 ) );  // added
   MacKey probe[] = { MacKey::of( 1 ), MacKey::of( 2 ), MacKey::of( 20 ) };
   HostRec batch[ 3 ];
   reader.lookupBatch( probe, batch, 3 );
   EXPECT_EQ( batch[ 0 ], HostRec::of( 1, 1 ) );
   EXPECT_EQ( batch[ 1 ], HostRec::of( 2, 1 ) );
   EXPECT_EQ( batch[ 2 ], HostRec{} );
   EXPECT_EQ( reader.lookup( MacKey::of( 1 ) ), HostRec::of( 1, 1 ) );
   EXPECT_TRUE( reader.contains( MacKey::of( 2 ) ) );
   EXPECT_FALSE( reader.contains( MacKey::of( 20 ) ) );
   EXPECT_EQ( reader.count(), 10u );
   EXPECT_EQ( contentsOf( reader ), before );
   EXPECT_EQ( reader.countShared(), 10u );   // shared memory has moved on
   EXPECT_EQ( reader.lookupShared( MacKey::of( 1 ) ), HostRec::of( 1, 2 ) );

   // In the feed's order: 1, 2, 20.
   std::vector< std::tuple< uint32_t, HostRec, bool, bool, uint32_t > > seen;
   reader.onKeyIs( [ & ]( const MacKey& k ) {
      seen.emplace_back( k.number(), reader.lookup( k ), reader.contains( MacKey::of( 2 ) ),
                         reader.contains( MacKey::of( 20 ) ), reader.count() );
   } );
   reader.dispatch();
   using Seen = std::tuple< uint32_t, HostRec, bool, bool, uint32_t >;
   EXPECT_EQ( seen, ( std::vector< Seen >{ { 1, HostRec::of( 1, 2 ), true, false, 10 },
                                           { 2, HostRec{}, false, false, 9 },
                                           { 20, HostRec::of( 20, 1 ), false, true, 10 } } ) );
}

// A key re-added while its removal was delivered, then removed before a
// resync, is reported gone (it was once held by the consumer for good).
TEST( LumenReader, AKeyReAddedWhileDeliveredAndRemovedBeforeAResyncIsReportedGone ) {
   for ( bool restart : { false, true } ) {
      SCOPED_TRACE( restart ? "writer restart" : "lapped feed" );
      LumenRoot root;
      auto writer = std::make_unique< Lumen::Writer< HostRec > >( HostRec{},
                                                                  Lumen::Options{ 64, 1u << 20, 8 } );
      writer->attach( "/lumen/stale" );
      for ( uint32_t n = 0; n < 5; ++n ) {
         writer->write( HostRec::of( n, 1 ) );
      }
      Lumen::Reader< HostRec > reader( "/lumen/stale" );
      auto held = contentsOf( reader );   // what the callbacks read
      bool reAdd = true;
      reader.onKeyIs( [ & ]( const MacKey& k ) {
         if ( k == MacKey::of( 3 ) && std::exchange( reAdd, false ) ) {
            writer->write( HostRec::of( 3, 2 ) );   // back while its removal is delivered
         }
         if ( reader.contains( k ) ) {
            held[ k ] = reader.lookup( k );
         } else {
            held.erase( k );
         }
      } );
      writer->remove( MacKey::of( 3 ) );
      reader.dispatch();
      writer->remove( MacKey::of( 3 ) );
      if ( restart ) {
         writer.reset();
         writer = std::make_unique< Lumen::Writer< HostRec > >();
         writer->attach( "/lumen/stale" );
      } else {
         for ( uint32_t n = 100; n < 120; ++n ) {
            writer->write( HostRec::of( n, 1 ) );
         }
      }
      ASSERT_TRUE( dispatchUntil( reader, [ & ] {
         return reader.mountStatus() == Lumen::MountStatus::mounted && reader.count() == writer->count();
      } ) );
      EXPECT_FALSE( held.count( MacKey::of( 3 ) ) ) << "a removed key is held for good";
      EXPECT_EQ( held, contentsOf( *writer ) );
   }
}

// A resync hands its changes over in key order, removals, changes and
// additions alike: a consumer that files keys in an ordered container then
// inserts each next to the one before rather than at random.
TEST( LumenReader, AResyncDeliversItsChangesInKeyOrder ) {
   LumenRoot root;
   Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 8 } );
   writer.attach( "/lumen/ordered" );
   for ( uint32_t n = 0; n < 600; n += 3 ) {
      writer.write( HostRec::of( n, 1 ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/ordered" );
   std::vector< MacKey > keys;
   std::vector< bool > quiesced;
   reader.onKeyIs( [ & ]( const MacKey& k ) { keys.push_back( k ); } );
   reader.onQuiescedIs( [ & ]( bool q ) { quiesced.push_back( q ); } );
   // In no order, lapping the 8-entry feed many times over.
   std::set< MacKey > expected;
   for ( uint32_t i = 0; i < 600; ++i ) {
      const uint32_t n = i * 97 % 600;
      if ( n % 3 == 0 && n % 2 == 0 ) {
         writer.remove( MacKey::of( n ) );
         expected.insert( MacKey::of( n ) );
      } else if ( n % 3 == 0 && n % 5 == 0 ) {
         writer.write( HostRec::of( n, 2 ) );
         expected.insert( MacKey::of( n ) );
      } else if ( n % 3 != 0 && n % 4 == 0 ) {
         writer.write( HostRec::of( n, 1 ) );
         expected.insert( MacKey::of( n ) );
      }
   }
   reader.dispatch();
   EXPECT_EQ( quiesced, ( std::vector< bool >{ true, false } ) ) << "delivered from the feed, not a resync";
   EXPECT_TRUE( std::is_sorted( keys.begin(), keys.end() ) );
   EXPECT_EQ( keys.size(), expected.size() );
   EXPECT_EQ( std::set< MacKey >( keys.begin(), keys.end() ), expected );
   EXPECT_EQ( contentsOf( reader ), contentsOf( writer ) );
}

// A throw inside dispatch() (a damaged table, or a callback) loses no change
// and leaves fd() readable until all is delivered.
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

   // The resync meets a missing generation; once repaired, the reader wakes.
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

   // A callback throwing mid-resync: its key counts as delivered, the rest
   // and quiesced(false) come with the next dispatch().
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
   EXPECT_EQ( announced.size(), 19u );   // 20 new keys, one taken by the throw
   EXPECT_EQ( reader.count(), 40u );
}

// A table's files removed under a reader: its keys are announced gone, and
// the reader wakes by itself for the table created anew.
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
   for ( const auto& f : std::vector< std::filesystem::directory_entry >(
            std::filesystem::directory_iterator( root.dir() ), {} ) ) {
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

// Feed head and an owed dispatch (how a host decides a table is quiet) follow
// the writer, including undelivered changes and a writer that comes late.
TEST( LumenReader, FeedHeadAndPendingDispatchFollowTheWriter ) {
   LumenRoot root;
   Lumen::Reader< HostRec > reader( "/lumen/head" );
   EXPECT_EQ( reader.feedHead(), 0u );
   std::optional< Lumen::Writer< HostRec > > writer;
   uint64_t head = 0;
   for ( int step = 0; step < 4; ++step ) {
      switch ( step ) {
       case 1: writer.emplace(), writer->attach( "/lumen/head" ), head = reader.feedHead(); break;
       case 2: writer->write( HostRec::of( 1, 1 ) ), writer->write( HostRec::of( 2, 1 ) ); break;
       case 3: writer->remove( MacKey::of( 1 ) ); break;
      }
      EXPECT_EQ( reader.dispatchPending(), step > 0 ) << step;
      if ( step >= 2 ) {
         EXPECT_EQ( reader.feedHead(), head + uint64_t( step == 2 ? 2 : 3 ) );
      }
      reader.dispatch();
      EXPECT_FALSE( reader.dispatchPending() ) << step;
   }
   EXPECT_EQ( reader.feedHead(), head + 3 ) << "a dispatch does not move the writer's head";
}

// A resync hands its keys to the replica in this order. Every index once,
// and any first stretch spread over the whole range: keys queued in the
// order of their homes must not reach the growing replica in that order.
TEST( LumenReader, ScatteredVisitCoversEveryIndexOnceAndSpreadsEveryPrefix ) {
   for ( uint32_t n : { 0u, 1u, 2u, 3u, 8u, 105u, 1000u, 1024u, 1800u, 65536u, 1835016u } ) {
      SCOPED_TRACE( n );
      std::vector< uint32_t > order;
      Lumen::internal::forEachScattered( n, [ & ]( uint32_t i ) { order.push_back( i ); } );
      ASSERT_EQ( order.size(), n );
      std::vector< bool > seen( n );
      for ( uint32_t i : order ) {
         ASSERT_LT( i, n );
         ASSERT_FALSE( seen[ i ] ) << "index " << i << " visited twice";
         seen[ i ] = true;
      }
      if ( n < 1000 ) {
         continue;
      }
      // The first n/64, n/16 and n/4 visits, counted in 16 equal parts of the range.
      for ( uint32_t prefix : { n / 64, n / 16, n / 4 } ) {
         if ( prefix < 256 ) {
            continue;   // too few to expect 16 in every part
         }
         std::vector< uint32_t > parts( 16 );
         for ( uint32_t k = 0; k < prefix; ++k ) {
            ++parts[ uint64_t( order[ k ] ) * 16 / n ];
         }
         for ( uint32_t c : parts ) {
            EXPECT_GE( c, prefix / 32 );
            EXPECT_LE( c, prefix / 8 );
         }
      }
   }
}

// A reader lapped under churn catches up with a pass whose map and queued
// events run to about a hundred bytes a changed key; delivered, that heap
// must go back to the system, or the reader's footprint keeps its largest
// catch-up for good (a step of tens of megabytes in a soak at 1M keys).
TEST( LumenReader, LappedResyncsLeaveNoResidentHeapBehind ) {
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
   GTEST_SKIP() << "the sanitizer's allocator quarantines freed memory, so resident size says nothing "
                   "about what the reader holds";
#endif
   auto residentBytes = [] {
      std::ifstream f( "/proc/self/statm" );
      uint64_t size = 0, resident = 0;
      f >> size >> resident;
      return resident * uint64_t( ::sysconf( _SC_PAGESIZE ) );
   };
   LumenRoot root;
   const uint32_t n = 200000;
   Lumen::Writer< HostRec > writer( HostRec{}, { 1024, 1u << 24, 256 } );
   writer.attach( "/lumen/resident" );
   for ( uint32_t i = 0; i < n; ++i ) {
      writer.write( HostRec::of( i, 1 ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/resident" );
   uint64_t delivered = 0;
   reader.onKeyIs( [ & ]( const MacKey& ) { ++delivered; } );
   const uint64_t before = residentBytes();
   for ( uint32_t round = 2; round < 6; ++round ) {
      for ( uint32_t i = 0; i < n; ++i ) {
         writer.write( HostRec::of( i, round ) );   // every key changed: the feed is lapped
      }
      reader.dispatch();
      ASSERT_EQ( reader.lookup( MacKey::of( n - 1 ) ), HostRec::of( n - 1, round ) );
   }
   EXPECT_EQ( delivered, 4u * n );
   EXPECT_EQ( reader.count(), n );
   const uint64_t grown = residentBytes() - std::min( before, residentBytes() );
   EXPECT_LT( grown, uint64_t( 4 ) << 20 ) << "resident size grew by " << grown << " bytes";
}
