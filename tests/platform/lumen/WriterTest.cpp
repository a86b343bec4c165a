// Writer-side behaviour: a std::map model, the capacity limit, a full filesystem.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace LumenTest;

namespace {

void runOracle( Lumen::Writer< HostRec >& table, uint32_t seed ) {
   std::mt19937 rng( seed );
   std::map< MacKey, HostRec > model;
   for ( int step = 0; step < 20000; ++step ) {
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
         ASSERT_EQ( contentsOf( table ), model );
      }
   }
   for ( uint32_t n = 0; n < 600; ++n ) {
      auto it = model.find( MacKey::of( n ) );
      ASSERT_EQ( table.contains( MacKey::of( n ) ), it != model.end() );
      ASSERT_EQ( table.lookup( MacKey::of( n ) ), it != model.end() ? it->second : HostRec{} );
   }
   // Removing every other entry just returned must neither skip nor repeat the rest.
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
   ASSERT_EQ( contentsOf( table ), model );
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
   fill( table, 8 );
   Lumen::Reader< HostRec > reader( "/lumen/full" );
   reader.dispatch();
   std::vector< MacKey > notified;
   reader.onKeyIs( [ & ]( const MacKey& k ) { notified.push_back( k ); } );
   auto before = contentsOf( table );
   EXPECT_EQ( whatOf< Lumen::TableFullException >( [ & ] { table.write( HostRec::of( 100, 1 ) ); } ),
              "Lumen table full (occupancy:8 tableSize:8) /lumen/full" );
   EXPECT_THROW( table.slotFor( MacKey::of( 100 ) ), Lumen::TableFullException );
   EXPECT_EQ( contentsOf( table ), before );
   EXPECT_FALSE( table.contains( MacKey::of( 100 ) ) );
   EXPECT_EQ( table.capacity(), 8u );
   reader.dispatch();
   EXPECT_TRUE( notified.empty() ) << "a refused write was announced";

   // At the limit a present key is still edited in place, seen once committed.
   HostRec* present = table.slotFor( MacKey::of( 3 ) );
   EXPECT_EQ( *present, HostRec::of( 3, 3 ) );
   *present = HostRec::of( 3, 77 );
   EXPECT_EQ( reader.lookupShared( MacKey::of( 3 ) ), HostRec::of( 3, 3 ) );
   table.commit( present );
   EXPECT_EQ( reader.lookupShared( MacKey::of( 3 ) ), HostRec::of( 3, 77 ) );
   reader.dispatch();
   EXPECT_EQ( notified, std::vector< MacKey >{ MacKey::of( 3 ) } );
   table.sanityCheck();
}

// A table kept at its capacity while keys come and go: every removal leaves a
// tombstone, and the room left for them before a same-size rebuild sweeps
// them is what a full table does not fill. Keys must stay findable, to the
// writer and in shared memory, through many such sweeps.
TEST( LumenWriter, FullTableChurnedWithNewKeysLosesNothing ) {
   LumenRoot root;
   constexpr uint32_t capacity = 1024;
   Lumen::Writer< HostRec > table( HostRec{}, { capacity, capacity, 4096 } );
   table.attach( "/lumen/churnfull" );
   std::map< MacKey, HostRec > model;
   std::vector< uint32_t > present;
   for ( uint32_t n = 0; n < capacity; ++n ) {
      table.write( model[ MacKey::of( n ) ] = HostRec::of( n, n ) );
      present.push_back( n );
   }
   Lumen::Reader< HostRec > reader( "/lumen/churnfull" );
   std::mt19937 rng( 7 );
   uint32_t fresh = capacity;
   for ( int step = 0; step < 30000; ++step ) {
      size_t victim = rng() % present.size();
      ASSERT_TRUE( table.remove( MacKey::of( present[ victim ] ) ) ) << "step " << step;
      model.erase( MacKey::of( present[ victim ] ) );
      present[ victim ] = fresh;
      table.write( model[ MacKey::of( fresh ) ] = HostRec::of( fresh, uint32_t( step ) ) );
      ++fresh;
      if ( step % 4999 == 0 ) {
         table.sanityCheck();
         ASSERT_EQ( contentsOf( table ), model ) << "step " << step;
         reader.dispatch();
         ASSERT_EQ( contentsOf( reader ), model ) << "step " << step;
      }
   }
   EXPECT_EQ( table.capacity(), capacity );
   EXPECT_EQ( table.count(), capacity );
   for ( const auto& [ k, r ] : model ) {
      ASSERT_EQ( table.lookup( k ), r );
      ASSERT_EQ( reader.lookupShared( k ), r );
   }
   reader.dispatch();
   EXPECT_EQ( contentsOf( reader ), model );
   table.sanityCheck();
}

// A full filesystem fails creation or growth with OutOfSpaceException (a
// TableFullException) naming the cause, never SIGBUS; the table stays whole
// for its readers, and a write that needs no new segment still succeeds,
// even when the table would like to shrink. Needs a private 1 MB tmpfs in a
// mount namespace, else skipped.
TEST( LumenWriter, FullFilesystemFailsCreationOrGrowthCleanlyNeverWithSigbus ) {
   char dir[] = "/tmp/lumen-fullfs-XXXXXX";
   ASSERT_TRUE( ::mkdtemp( dir ) );
   pid_t child = startChild( [ & ] {
      if ( ::unshare( CLONE_NEWNS ) != 0 ||
           ::mount( nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr ) != 0 ||
           ::mount( "tmpfs", dir, "tmpfs", 0, "size=1m" ) != 0 ) {
         return 77;
      }
      Lumen::rootIs( dir );
      auto noSpace = []( const Lumen::OutOfSpaceException& e ) {
         return std::string( e.what() ).find( "No space left on device" ) != std::string::npos;
      };
      Lumen::Writer< HostRec > table( HostRec{}, { 1024, 1u << 20, 256 } );
      table.attach( "/lumen/grows" );
      Lumen::Reader< HostRec > reader( "/lumen/grows" );
      uint32_t n = 0;
      try {
         for ( ; n < 100000; ++n ) {
            table.write( HostRec::of( n, n ) );
         }
         return 3;   // every page was had: the filesystem was not full
      } catch ( const Lumen::OutOfSpaceException& e ) {
         if ( !noSpace( e ) ) {
            return 4;
         }
      } catch ( const std::exception& ) {
         return 4;
      }
      if ( table.count() != n || table.contains( MacKey::of( n ) ) ) {
         return 5;
      }
      table.sanityCheck();
      reader.dispatch();
      if ( reader.count() != n ) {
         return 8;
      }
      for ( uint32_t i = 0; i < n; ++i ) {
         if ( reader.lookupShared( MacKey::of( i ) ) != HostRec::of( i, i ) ) {
            return 9;
         }
      }
      // Take the last pages, then empty the table down to where it would
      // shrink: a new key must still go in without a new segment.
      {
         std::string filler = std::string( dir ) + "/filler";
         int fd = ::open( filler.c_str(), O_CREAT | O_WRONLY, 0600 );
         std::vector< char > page( 4096, 'x' );
         while ( fd >= 0 && ::write( fd, page.data(), page.size() ) > 0 ) {
         }
         ::close( fd );
      }
      for ( uint32_t i = 0; i < n; ++i ) {
         if ( i % 64 != 0 ) {
            table.remove( MacKey::of( i ) );
         }
      }
      try {
         table.write( HostRec::of( n + 1, 1 ) );
      } catch ( const std::exception& ) {
         return 10;
      }
      if ( !table.contains( MacKey::of( n + 1 ) ) ) {
         return 11;
      }
      table.sanityCheck();
      Lumen::Writer< HostRec > big( HostRec{}, { 100000, 100000, 256 } );
      try {
         big.attach( "/lumen/big" );
      } catch ( const Lumen::OutOfSpaceException& e ) {
         return noSpace( e ) ? 0 : 6;
      } catch ( const std::exception& ) {
         return 6;
      }
      return 7;
   } );
   int status = waitChild( child );
   ::rmdir( dir );   // the mount went with the child's namespace
   if ( status == 77 ) {
      GTEST_SKIP() << "no private tmpfs mount here";
   }
   // 4/6: not OutOfSpaceException; 8/9: a reader saw a record lost; 10/11: a
   // write needing no new segment was refused.
   EXPECT_EQ( status, 0 ) << "128 + 7 is SIGBUS";
}

// A table made without its own maxCapacity takes the process-wide default.
TEST( LumenWriter, MaxCapacityDefaultCapsTablesThatSetNone ) {
   LumenRoot root;
   Lumen::maxCapacityDefaultIs( 16 );
   Lumen::Writer< HostRec > table;
   Lumen::maxCapacityDefaultIs( 1u << 24 );
   table.attach( "/lumen/capped" );
   fill( table, 16 );
   EXPECT_EQ( whatOf< Lumen::TableFullException >( [ & ] { table.write( HostRec::of( 16, 1 ) ); } ),
              "Lumen table full (occupancy:16 tableSize:16) /lumen/capped" );
   EXPECT_EQ( table.count(), 16u );
   table.remove( MacKey::of( 0 ) );
   table.write( HostRec::of( 16, 1 ) );   // a freed slot takes the new key
   EXPECT_TRUE( table.contains( MacKey::of( 16 ) ) );
   table.sanityCheck();
}

// An uncommitted slotFor() image follows later writes and removals of its key.
TEST( LumenWriter, UncommittedImagesFollowLaterChangesOfTheirKey ) {
   LumenRoot root;
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/staged" );
   writer.write( HostRec::of( 1, 1 ) );
   writer.slotFor( MacKey::of( 1 ) )->vtep = 12345;   // abandoned edit
   writer.write( HostRec::of( 1, 2 ) );
   HostRec* again = writer.slotFor( MacKey::of( 1 ) );
   EXPECT_EQ( *again, HostRec::of( 1, 2 ) );
   writer.commit( again );
   EXPECT_EQ( writer.lookup( MacKey::of( 1 ) ), HostRec::of( 1, 2 ) );
   HostRec* held = writer.slotFor( MacKey::of( 1 ) );
   writer.remove( MacKey::of( 1 ) );
   EXPECT_EQ( *held, HostRec{ MacKey::of( 1 ) } ) << "image of a removed key keeps old fields";
}

// A writer that died before counting a filled slot leaves the count one
// short; takeover must size its copy by the live slots.
TEST( LumenWriter, TakeoverSizesTheCopyByLiveSlotsNotByTheCount ) {
   LumenRoot root;
   {
      Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 64 } );
      writer.attach( "/lumen/lagging" );
      fill( writer, 129 );
   }
   editFile( root.file( fmt::format( "lumen.lagging@{}", generationOf( root, "lumen.lagging" ) ) ),
             []( uint8_t* p, size_t ) {
      reinterpret_cast< Lumen::internal::DataHeader* >( p )->count.store( 128 );
   } );
   Lumen::Writer< HostRec > successor( HostRec{}, { 64, 1u << 20, 64 } );
   successor.attach( "/lumen/lagging" );
   EXPECT_EQ( successor.count(), 129u );
   EXPECT_EQ( successor.lookup( MacKey::of( 128 ) ), HostRec::of( 128, 128 ) );
}

// Changing the root moves no open table; new tables go to the new root.
TEST( LumenWriter, OpenTablesKeepTheirRootWhenItChanges ) {
   LumenRoot first;
   Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 64 } );
   writer.attach( "/lumen/moving" );
   Lumen::Reader< HostRec > reader( "/lumen/moving" );
   LumenRoot second;
   fill( writer, 300 );   // grows through new generations
   EXPECT_EQ( reader.lookupShared( MacKey::of( 299 ) ), HostRec::of( 299, 299 ) );
   EXPECT_TRUE( std::filesystem::is_empty( second.dir() ) );
   Lumen::Writer< HostRec > other;
   other.attach( "/lumen/moving" );   // the same path under the new root: another table
   EXPECT_EQ( other.count(), 0u );
}

namespace {

std::string bytesOf( const std::string& name ) {
   std::ifstream f( name, std::ios::binary );
   return std::string( std::istreambuf_iterator< char >( f ), {} );
}

// Detaching, then overwriting, removing and adding (through growth), then
// checking that the detached writer holds its own changes, the segment file
// kept every byte it had at the detach, and a successor takes over exactly
// that content.
void detachThenChange( LumenRoot& root, const std::string& path, bool unlinkFirst ) {
   const std::string flat = "lumen." + path.substr( path.rfind( '/' ) + 1 );
   Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 64 } );
   writer.attach( path );
   std::map< MacKey, HostRec > atDetach;
   for ( uint32_t n = 0; n < 200; ++n ) {
      writer.write( atDetach[ MacKey::of( n ) ] = HostRec::of( n, n ) );
   }
   writer.remove( MacKey::of( 199 ) );   // a tombstone in the detached table
   atDetach.erase( MacKey::of( 199 ) );
   const std::string data = root.file( fmt::format( "{}@{}", flat, generationOf( root, flat ) ) );
   const std::string before = bytesOf( data );
   std::string moved = data + ".aside";
   if ( unlinkFirst ) {
      // The name no longer leads to the mapped file: the detach must copy.
      ASSERT_EQ( ::rename( data.c_str(), moved.c_str() ), 0 );
   }
   writer.detach();
   EXPECT_FALSE( writer.attached() );
   EXPECT_EQ( contentsOf( writer ), atDetach );

   std::map< MacKey, HostRec > mine = atDetach;
   for ( uint32_t n = 0; n < 50; ++n ) {
      writer.write( mine[ MacKey::of( n ) ] = HostRec::of( n, n + 1000 ) );
   }
   for ( uint32_t n = 50; n < 100; ++n ) {
      EXPECT_TRUE( writer.remove( MacKey::of( n ) ) );
      mine.erase( MacKey::of( n ) );
   }
   for ( uint32_t n = 1000; n < 1400; ++n ) {   // grows the detached table
      writer.write( mine[ MacKey::of( n ) ] = HostRec::of( n, n ) );
   }
   writer.sanityCheck();
   EXPECT_EQ( writer.count(), mine.size() );
   EXPECT_EQ( contentsOf( writer ), mine );

   if ( unlinkFirst ) {
      EXPECT_EQ( bytesOf( moved ), before );
      ASSERT_EQ( ::rename( moved.c_str(), data.c_str() ), 0 );
   } else {
      EXPECT_EQ( bytesOf( data ), before ) << "the detached writer changed the shared segment";
   }
   Lumen::Writer< HostRec > successor( HostRec{}, { 64, 1u << 20, 64 } );
   successor.attach( path );
   EXPECT_EQ( contentsOf( successor ), atDetach );
   successor.sanityCheck();
}

}  // namespace

// A detached writer keeps its content and goes on changing it privately; the
// segment stays as it was for readers and for the writer taking over, whether
// the detach maps the file again or has to copy it.
TEST( LumenWriter, DetachedWriterChangesOnlyItsOwnCopy ) {
   LumenRoot root;
   detachThenChange( root, "/lumen/detached", false );
   detachThenChange( root, "/lumen/renamed", true );
}
