// Inspection without the record type: the writer's facts, damage named, a
// table changing under a live writer never called damaged.
#include "platform/lumen/Inspect.h"
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace LumenTest;
namespace li = Lumen::internal;

class LumenInspect : public ::testing::Test {
 protected:
   LumenRoot root;
};

TEST_F( LumenInspect, ReportsWhatTheWriterMadeAndWhetherItLives ) {
   EXPECT_FALSE( Lumen::inspect( "/lumen/none" ) );
   EXPECT_FALSE( Lumen::census( "/lumen/none" ) );
   EXPECT_THROW( Lumen::inspect( "lumen//bad" ), Mox::Exception );

   Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1024, 64 } );
   writer.attach( "/lumen/hosts" );
   fill( writer, 10 );
   writer.remove( MacKey::of( 3 ) );
   auto info = Lumen::inspect( "/lumen/hosts" );
   ASSERT_TRUE( info );
   EXPECT_EQ( info->typeName, "LumenTest::HostRec" );
   EXPECT_EQ( info->recordSize, sizeof( HostRec ) );
   EXPECT_EQ( info->keySize, sizeof( MacKey ) );
   EXPECT_EQ( info->count, 9u );
   EXPECT_EQ( info->capacity, writer.capacity() );
   EXPECT_EQ( info->writerPid, uint32_t( ::getpid() ) );
   EXPECT_TRUE( info->writerAlive );
   EXPECT_EQ( info->status, Lumen::MountStatus::mounted );
   EXPECT_GE( info->generation, 1u );
   EXPECT_EQ( info->owner, ::geteuid() );
   auto census = Lumen::census( "/lumen/hosts" );
   ASSERT_TRUE( census );
   EXPECT_TRUE( census->settled );
   EXPECT_EQ( census->live, 9u );
   EXPECT_EQ( census->headerCount, 9u );
   EXPECT_EQ( census->live + census->tombstones + census->empty, census->slotCount );

   // Detached, the writer is gone (killed while attached: LumenTool.LsListsEveryTableWithItsTypeCountAndWriter).
   writer.detach();
   info = Lumen::inspect( "/lumen/hosts" );
   EXPECT_FALSE( info->writerAlive );
   EXPECT_EQ( info->status, Lumen::MountStatus::writerGone );
}

TEST_F( LumenInspect, CensusFindsSlotsThatDisagreeWithTheHeaderAtRest ) {
   {
      Lumen::Writer< HostRec > writer;
      writer.attach( "/lumen/hosts" );
      fill( writer, 10 );
   }
   editFile( root.file( "lumen.hosts@1" ), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::DataHeader* >( p )->tombstones = 2;
   } );
   std::string msg = whatOf< Fable::CorruptionDetectedException >( [] { Lumen::census( "/lumen/hosts" ); } );
   EXPECT_NE( msg.find( "header counts 10 live and 2 removed slots, the slots of generation 1 hold "
                        "10 live, 0 removed and 0 busy" ),
              std::string::npos ) << msg;

   // More slots in use than a writer fills, each count within its bound.
   editFile( root.file( "lumen.hosts@1" ), []( uint8_t* p, size_t ) {
      auto* h = reinterpret_cast< li::DataHeader* >( p );
      uint32_t limit = h->slotCount - h->slotCount / 8;
      h->tombstones = 0;
      for ( uint32_t i = 0; i < h->slotCount && h->count + h->tombstones <= limit; ++i ) {
         if ( ( *slotWord( p, i ) & 3 ) == li::slotEmpty ) {
            *slotWord( p, i ) |= li::slotTombstone;
            ++h->tombstones;
         }
      }
   } );
   msg = whatOf< Fable::CorruptionDetectedException >( [] { Lumen::census( "/lumen/hosts" ); } );
   EXPECT_NE( msg.find( "1184 of 1352 slots are in use, more than the 1183 a writer ever fills" ),
              std::string::npos ) << msg;
}

TEST_F( LumenInspect, ATableChangingUnderTheWalkIsNeverCalledDamaged ) {
   Lumen::Writer< HostRec > writer( HostRec{}, { 16, 1u << 16, 256 } );
   writer.attach( "/lumen/busy" );
   std::atomic< bool > stop{ false };
   std::thread churn( [ & ] {
      uint32_t counter = 0;
      while ( !stop.load() ) {
         for ( uint32_t n = 0; n < 300; ++n ) {
            writer.write( HostRec::of( n, ++counter ) );
         }
         for ( uint32_t n = 0; n < 300; n += 2 ) {
            writer.remove( MacKey::of( n ) );
         }
      }
   } );
   for ( int i = 0; i < 2000; ++i ) {
      EXPECT_NO_THROW( Lumen::inspect( "/lumen/busy" ) );
      EXPECT_NO_THROW( Lumen::census( "/lumen/busy" ) );
   }
   stop = true;
   churn.join();
   auto census = Lumen::census( "/lumen/busy" );
   ASSERT_TRUE( census );
   EXPECT_TRUE( census->settled );
   EXPECT_EQ( census->live, writer.count() );
}
