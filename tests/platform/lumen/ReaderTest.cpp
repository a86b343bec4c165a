// Reader behaviour within one process: mounting late, mount-status and change
// callbacks, resynchronisation after the feed laps it, and generations that
// change under an iteration.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace LumenTest;
using Lumen::MountStatus;

namespace {

struct Recorder {
   std::vector< MacKey > keys;
   std::vector< bool > quiesced;
   std::vector< MountStatus > statuses;

   void watch( Lumen::Reader< HostRec >& reader ) {
      reader.onKeyIs( [ this ]( const MacKey& k ) { keys.push_back( k ); } );
      reader.onQuiescedIs( [ this ]( bool q ) { quiesced.push_back( q ); } );
      reader.onMountStatusIs( [ this ]( MountStatus s ) { statuses.push_back( s ); } );
   }
   std::set< MacKey > keySet() const { return { keys.begin(), keys.end() }; }
};

// Every key a reader was told about, re-read, must match the writer.
void expectSameState( const Lumen::Reader< HostRec >& reader, const Lumen::Writer< HostRec >& writer,
                      uint32_t keySpace ) {
   EXPECT_EQ( reader.count(), writer.count() );
   for ( uint32_t n = 0; n < keySpace; ++n ) {
      ASSERT_EQ( reader.lookup( MacKey::of( n ) ), writer.lookup( MacKey::of( n ) ) ) << n;
   }
}

}  // namespace

TEST( LumenReader, WaitsForWriterThenPicksTableUp ) {
   TempRoot root;
   Lumen::Reader< HostRec > reader( "/lumen/late" );
   Recorder seen;
   seen.watch( reader );
   EXPECT_EQ( reader.mountStatus(), MountStatus::waitingForWriter );
   EXPECT_EQ( reader.lookup( MacKey::of( 1 ) ), HostRec{} );
   EXPECT_FALSE( readable( reader.fd(), 50 ) );

   auto writer = std::make_unique< Lumen::Writer< HostRec > >();
   writer->write( HostRec::of( 1, 1 ) );
   writer->write( HostRec::of( 2, 1 ) );
   writer->attach( "/lumen/late" );
   ASSERT_TRUE( readable( reader.fd(), 2000 ) ) << "attach did not wake the reader";
   reader.dispatch();
   EXPECT_EQ( seen.statuses, std::vector< MountStatus >{ MountStatus::mounted } );
   EXPECT_EQ( seen.quiesced, ( std::vector< bool >{ true, false } ) );
   EXPECT_EQ( seen.keySet(), ( std::set< MacKey >{ MacKey::of( 1 ), MacKey::of( 2 ) } ) );
   EXPECT_EQ( reader.lookup( MacKey::of( 2 ) ), HostRec::of( 2, 1 ) );

   // Changes arrive one callback per key, coalesced, in order of first change.
   seen.keys.clear();
   writer->write( HostRec::of( 3, 1 ) );
   writer->write( HostRec::of( 1, 2 ) );
   writer->write( HostRec::of( 3, 2 ) );
   writer->remove( MacKey::of( 2 ) );
   writer->remove( MacKey::of( 99 ) );   // absent: not announced
   ASSERT_TRUE( readable( reader.fd(), 2000 ) );
   reader.dispatch();
   EXPECT_EQ( seen.keys, ( std::vector< MacKey >{ MacKey::of( 3 ), MacKey::of( 1 ),
                                                  MacKey::of( 2 ) } ) );
   expectSameState( reader, *writer, 10 );

   writer.reset();
   ASSERT_TRUE( dispatchUntil( reader, [ & ] { return seen.statuses.size() == 2; } ) );
   EXPECT_EQ( seen.statuses.back(), MountStatus::writerGone );
   EXPECT_EQ( reader.lookup( MacKey::of( 3 ) ), HostRec::of( 3, 2 ) ) << "content outlives writer";
}

TEST( LumenReader, LappedReaderResynchronisesWithoutLosingAnything ) {
   TempRoot root;
   Lumen::Writer< HostRec > writer( HostRec{}, { 16, 1u << 20, 8 } );
   writer.attach( "/lumen/lapped" );
   for ( uint32_t n = 0; n < 50; ++n ) {
      writer.write( HostRec::of( n, 0 ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/lapped" );
   Recorder seen;
   seen.watch( reader );

   // Far more changes than the 8-entry feed holds, including removals of keys
   // the reader knew and keys that come and go unseen.
   for ( uint32_t n = 0; n < 50; n += 2 ) {
      writer.remove( MacKey::of( n ) );
   }
   for ( uint32_t n = 100; n < 130; ++n ) {
      writer.write( HostRec::of( n, 1 ) );
      if ( n % 3 == 0 ) {
         writer.remove( MacKey::of( n ) );
      }
   }
   writer.write( HostRec::of( 1, 7 ) );
   reader.dispatch();
   EXPECT_EQ( seen.quiesced, ( std::vector< bool >{ true, false } ) );
   std::set< MacKey > expected;
   for ( uint32_t n = 0; n < 50; ++n ) {
      expected.insert( MacKey::of( n ) );   // present ones and removed ones
   }
   Lumen::Hint h;
   while ( auto e = writer.next( h ) ) {
      expected.insert( e->first.key() );
      h = e->second;
   }
   EXPECT_EQ( seen.keySet(), expected );
   expectSameState( reader, writer, 200 );

   // After the resync the reader is back on the feed: no second resync.
   seen = {};
   seen.watch( reader );
   writer.write( HostRec::of( 3, 9 ) );
   reader.dispatch();
   EXPECT_TRUE( seen.quiesced.empty() );
   EXPECT_EQ( seen.keys, std::vector< MacKey >{ MacKey::of( 3 ) } );
}

TEST( LumenReader, IterationAndLookupsSurviveGrowthAndShrink ) {
   TempRoot root;
   Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 4096 } );
   writer.attach( "/lumen/resize" );
   for ( uint32_t n = 0; n < 60; ++n ) {
      writer.write( HostRec::of( n, 1 ) );
   }
   Lumen::Reader< HostRec > reader( "/lumen/resize" );
   std::map< MacKey, int > visits;
   Lumen::Hint h;
   for ( int i = 0; i < 20; ++i ) {
      auto e = reader.next( h );
      ASSERT_TRUE( e );
      ++visits[ e->first.key() ];
      h = e->second;
   }
   // Growth to a new generation while the reader is halfway through.
   uint32_t before = writer.capacity();
   for ( uint32_t n = 1000; n < 1400; ++n ) {
      writer.write( HostRec::of( n, 2 ) );
   }
   ASSERT_GT( writer.capacity(), before );
   for ( uint32_t n = 0; n < 60; ++n ) {
      ASSERT_EQ( reader.lookup( MacKey::of( n ) ), HostRec::of( n, 1 ) );
   }
   while ( auto e = reader.next( h ) ) {
      ++visits[ e->first.key() ];
      h = e->second;
   }
   for ( uint32_t n = 0; n < 60; ++n ) {
      EXPECT_EQ( visits[ MacKey::of( n ) ], 1 ) << "entry " << n;
   }

   // Shrink: remove nearly everything; the next insert builds a smaller table.
   uint32_t grown = writer.capacity();
   for ( uint32_t n = 1000; n < 1400; ++n ) {
      writer.remove( MacKey::of( n ) );
   }
   writer.write( HostRec::of( 5000, 3 ) );
   EXPECT_LT( writer.capacity(), grown );
   writer.sanityCheck();
   EXPECT_EQ( reader.count(), 61u );
   EXPECT_EQ( reader.lookup( MacKey::of( 1200 ) ), HostRec{} );
   EXPECT_EQ( reader.lookup( MacKey::of( 5000 ) ), HostRec::of( 5000, 3 ) );
   std::vector< MacKey > keys;
   for ( uint32_t n = 0; n < 70; ++n ) {
      keys.push_back( MacKey::of( n ) );
   }
   std::vector< HostRec > batch( keys.size() );
   reader.lookupBatch( keys.data(), batch.data(), keys.size() );
   for ( size_t i = 0; i < keys.size(); ++i ) {
      EXPECT_EQ( batch[ i ], writer.lookup( keys[ i ] ) );
   }
}

TEST( LumenReader, CallbackMayReplaceHooksAndReenterDispatch ) {
   TempRoot root;
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/reenter" );
   Lumen::Reader< HostRec > reader( "/lumen/reenter" );
   int first = 0;
   int second = 0;
   reader.onKeyIs( [ & ]( const MacKey& k ) {
      ++first;
      reader.dispatch();   // ignored while dispatching
      EXPECT_EQ( reader.lookup( k ).key(), k );
      reader.onKeyIs( [ & ]( const MacKey& ) { ++second; } );
   } );
   writer.write( HostRec::of( 1, 1 ) );
   writer.write( HostRec::of( 2, 1 ) );
   reader.dispatch();
   EXPECT_EQ( first, 2 ) << "the hook being run was replaced mid-dispatch";
   writer.write( HostRec::of( 3, 1 ) );
   reader.dispatch();
   EXPECT_EQ( second, 1 );
}
