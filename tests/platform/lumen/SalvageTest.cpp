// Salvage: a table judged at rest tells what a dead writer may leave from
// damage, and a damaged one moved aside is created anew by the next writer
// while its readers follow.
#include "platform/lumen/Salvage.h"
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace LumenTest;
namespace li = Lumen::internal;
namespace fs = std::filesystem;

class LumenSalvage : public ::testing::Test {
 protected:
   LumenRoot root;

   // A table of ten records whose writer has gone.
   void leaveTable( const std::string& path ) {
      Lumen::Writer< HostRec > writer;
      writer.attach( path );
      fill( writer, 10 );
   }
   // Marks the first `n` live slots busy.
   void markBusy( const std::string& file, uint32_t n ) {
      editFile( root.file( file ), [ n ]( uint8_t* p, size_t ) {
         auto* h = reinterpret_cast< li::DataHeader* >( p );
         for ( uint32_t i = 0, done = 0; i < h->slotCount && done < n; ++i ) {
            if ( ( *slotWord( p, i ) & 3 ) == li::slotLive ) {
               *slotWord( p, i ) |= 3;
               ++done;
            }
         }
      } );
   }
};

TEST_F( LumenSalvage, WhatADeadWriterLeavesIsNotDamageButMoreIs ) {
   EXPECT_FALSE( Lumen::damageAtRest( "/lumen/none" ) );
   leaveTable( "/lumen/hosts" );
   EXPECT_FALSE( Lumen::damageAtRest( "/lumen/hosts" ) );

   // Killed in the middle of one change: one busy slot, the count one off.
   markBusy( "lumen.hosts@1", 1 );
   editFile( root.file( "lumen.hosts@1" ), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::DataHeader* >( p )->count = 11;
   } );
   EXPECT_FALSE( Lumen::damageAtRest( "/lumen/hosts" ) );

   markBusy( "lumen.hosts@1", 1 );   // a second one
   auto why = Lumen::damageAtRest( "/lumen/hosts" );
   ASSERT_TRUE( why );
   EXPECT_EQ( *why, "Lumen table /lumen/hosts: 2 slots of generation 1 were left mid-update; a "
                    "writer that dies leaves at most one" );

   leaveTable( "/lumen/counts" );
   editFile( root.file( "lumen.counts@1" ), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::DataHeader* >( p )->count = 7;
   } );
   why = Lumen::damageAtRest( "/lumen/counts" );
   ASSERT_TRUE( why );
   EXPECT_EQ( *why, "Lumen table /lumen/counts: header counts 7 live and 0 removed slots, the slots of "
                    "generation 1 hold 10 live, 0 removed and 0 busy" );

   // Headers as a reader validates them.
   leaveTable( "/lumen/magic" );
   editFile( root.file( "lumen.magic@1" ), []( uint8_t* p, size_t ) { p[ 0 ] ^= 0xff; } );
   why = Lumen::damageAtRest( "/lumen/magic" );
   ASSERT_TRUE( why );
   EXPECT_NE( why->find( "Lumen table /lumen/magic" ), std::string::npos ) << *why;
}

TEST_F( LumenSalvage, ATableALiveWriterHoldsIsNotJudged ) {
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/live" );
   writer.write( HostRec::of( 1, 1 ) );
   markBusy( "lumen.live@1", 1 );
   markBusy( "lumen.live@1", 1 );
   EXPECT_FALSE( Lumen::damageAtRest( "/lumen/live" ) );
}

TEST_F( LumenSalvage, MovedAsideTheTableIsCreatedAnewAndItsReaderFollows ) {
   leaveTable( "/lumen/hosts" );
   leaveTable( "/lumen/other" );
   Lumen::Reader< HostRec > reader( "/lumen/hosts" );
   ASSERT_EQ( reader.count(), 10u );
   std::vector< MacKey > removed;
   reader.onKeyIs( [ & ]( const MacKey& k ) {
      if ( !reader.contains( k ) ) {
         removed.push_back( k );
      }
   } );

   EXPECT_EQ( Lumen::moveAside( "/lumen/none", "nothing" ), "" );
   const std::string folder = Lumen::moveAside( "/lumen/hosts", "scribbled on" );
   ASSERT_FALSE( folder.empty() );
   EXPECT_EQ( fs::path( folder ).parent_path(), fs::path( root.dir() ) / "lumen-damaged" );
   EXPECT_TRUE( fs::exists( folder + "/lumen.hosts" ) );
   EXPECT_TRUE( fs::exists( folder + "/lumen.hosts@1" ) );
   EXPECT_TRUE( fs::exists( folder + "/lumen.hosts@wake" ) );
   EXPECT_FALSE( fs::exists( root.file( "lumen.hosts" ) ) );
   EXPECT_FALSE( fs::exists( root.file( "lumen.hosts@1" ) ) );
   std::ifstream reason( folder + "/reason" );
   std::string text;
   std::getline( reason, text );
   EXPECT_EQ( text, "scribbled on" );
   // Another table's files stay.
   EXPECT_TRUE( fs::exists( root.file( "lumen.other" ) ) );
   EXPECT_TRUE( fs::exists( root.file( "lumen.other@1" ) ) );

   // The next writer starts empty; the reader drops what it had and follows.
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/hosts" );
   EXPECT_EQ( writer.count(), 0u );
   writer.write( HostRec::of( 42, 1 ) );
   ASSERT_TRUE( dispatchUntil( reader, [ & ] { return reader.count() == 1 && removed.size() == 10; } ) );
   EXPECT_TRUE( reader.contains( MacKey::of( 42 ) ) );
   EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::mounted );
}
