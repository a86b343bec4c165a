// Writer and readers in different processes: visibility and notifications,
// torn-read stress, a writer killed mid-stream and the one-writer rule.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <set>

using namespace LumenTest;
using Lumen::MountStatus;
using Clock = std::chrono::steady_clock;

namespace {

struct Pipe {
   int fds[ 2 ];
   Pipe() { EXPECT_EQ( ::pipe( fds ), 0 ); }
   ~Pipe() {
      ::close( fds[ 0 ] );
      ::close( fds[ 1 ] );
   }
   void signal() { EXPECT_EQ( ::write( fds[ 1 ], "x", 1 ), 1 ); }
   bool wait() {
      char c;
      return ::read( fds[ 0 ], &c, 1 ) == 1;
   }
};

}  // namespace

TEST( LumenCrossProcess, ForkedReaderSeesEntriesAndChanges ) {
   TempRoot root;
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/xproc" );
   for ( uint32_t n = 0; n < 100; ++n ) {
      writer.write( HostRec::of( n, 1 ) );
   }
   Pipe ready;
   pid_t child = startChild( [ & ] {
      Lumen::Reader< HostRec > reader( "/lumen/xproc" );
      for ( uint32_t n = 0; n < 100; ++n ) {
         if ( reader.lookup( MacKey::of( n ) ) != HostRec::of( n, 1 ) ) {
            return 1;
         }
      }
      std::set< MacKey > changed;
      reader.onKeyIs( [ & ]( const MacKey& k ) { changed.insert( k ); } );
      ready.signal();
      if ( !dispatchUntil( reader, [ & ] { return changed.size() == 60; } ) ) {
         return 2;
      }
      for ( uint32_t n = 50; n < 150; ++n ) {
         HostRec expected = n < 60 ? HostRec{} : HostRec::of( n, n < 100 ? 1 : 2 );
         if ( reader.lookup( MacKey::of( n ) ) != expected ) {
            return 3;
         }
         if ( ( n < 60 || n >= 100 ) != ( changed.count( MacKey::of( n ) ) == 1 ) ) {
            return 4;
         }
      }
      return 0;
   } );
   ASSERT_TRUE( ready.wait() );
   for ( uint32_t n = 100; n < 150; ++n ) {
      writer.write( HostRec::of( n, 2 ) );
   }
   for ( uint32_t n = 50; n < 60; ++n ) {
      writer.remove( MacKey::of( n ) );
   }
   EXPECT_EQ( waitChild( child ), 0 );
}

namespace {

// Half the traffic goes to 32 hot keys, so reads and rewrites of one slot
// overlap often; the rest spreads over 3000 keys so the table grows and shrinks.
uint32_t hotOrAny( std::mt19937& rng ) {
   return rng() % 2 ? rng() % 32 : rng() % 3000;
}

// A writer rewrites records whose fields all derive from one counter while a
// reader in another process checks every record it gets.
template< class R >
void tornReadStress( int milliseconds ) {
   TempRoot root;
   Lumen::Writer< R > writer( R{}, { 64, 1u << 20, 256 } );
   writer.attach( "/lumen/torn" );
   Pipe ready;
   Pipe stop;
   pid_t child = startChild( [ & ] {
      Lumen::Reader< R > reader( "/lumen/torn" );
      reader.onKeyIs( []( const MacKey& ) {} );
      ready.signal();
      std::mt19937 rng( 5 );
      uint64_t bad = 0;
      uint64_t hits = 0;
      std::vector< MacKey > keys( 32 );
      std::vector< R > out( 32 );
      while ( !readable( stop.fds[ 0 ], 0 ) ) {
         for ( int i = 0; i < 1000; ++i ) {
            uint32_t n = hotOrAny( rng );
            R r = reader.lookup( MacKey::of( n ) );
            if ( r.key() == MacKey::of( n ) ) {
               ++hits;
               bad += !r.consistent();
            } else {
               bad += !( r == R{} );
            }
         }
         for ( auto& k : keys ) {
            k = MacKey::of( hotOrAny( rng ) );
         }
         reader.lookupBatch( keys.data(), out.data(), keys.size() );
         for ( size_t i = 0; i < keys.size(); ++i ) {
            bad += out[ i ].key() == keys[ i ] ? !out[ i ].consistent() : !( out[ i ] == R{} );
         }
         Lumen::Hint h;
         for ( int i = 0; i < 200; ++i ) {
            auto e = reader.next( h );
            if ( !e ) {
               break;
            }
            bad += !e->first.consistent();
            h = e->second;
         }
         reader.dispatch();
      }
      return bad == 0 && hits > 0 ? 0 : 1;
   } );
   ASSERT_TRUE( ready.wait() );
   // Rewrite records, and swing the size so generations change under the
   // reader: grow towards 3000 entries, then shrink back.
   std::mt19937 rng( 6 );
   uint32_t counter = 0;
   auto end = Clock::now() + std::chrono::milliseconds( milliseconds );
   while ( Clock::now() < end ) {
      bool growing = ( counter / 20000 ) % 2 == 0;
      for ( int i = 0; i < 1000; ++i, ++counter ) {
         uint32_t n = hotOrAny( rng );
         if ( n < 32 || rng() % 100 < ( growing ? 80u : 10u ) ) {
            writer.write( R::of( n, counter ) );
         } else {
            writer.remove( MacKey::of( n ) );
         }
      }
   }
   stop.signal();
   EXPECT_EQ( waitChild( child ), 0 ) << "reader saw torn or foreign records";
   writer.sanityCheck();
}

}  // namespace

TEST( LumenCrossProcess, ReadersNeverSeeTornRecords ) {
   tornReadStress< HostRec >( 800 );
}

TEST( LumenCrossProcess, ReadersNeverSeeTornLargeRecords ) {
   tornReadStress< BigRec >( 800 );
}

TEST( LumenCrossProcess, KilledWriterIsTakenOverAndReadersContinue ) {
   TempRoot root;
   Lumen::Reader< HostRec > reader( "/lumen/crash" );
   std::vector< MountStatus > statuses;
   std::vector< bool > quiesced;
   reader.onMountStatusIs( [ & ]( MountStatus s ) { statuses.push_back( s ); } );
   reader.onQuiescedIs( [ & ]( bool q ) { quiesced.push_back( q ); } );
   reader.onKeyIs( []( const MacKey& ) {} );

   pid_t child = startChild( [] {
      Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1u << 20, 64 } );
      writer.attach( "/lumen/crash" );
      for ( uint32_t counter = 0;; ++counter ) {
         writer.write( HostRec::of( counter % 500, counter ) );
         if ( counter % 7 == 0 ) {
            writer.remove( MacKey::of( ( counter * 13 ) % 500 ) );
         }
      }
      return 0;
   } );
   ASSERT_TRUE( dispatchUntil( reader, [ & ] { return reader.count() > 300; } ) );
   ::usleep( 20000 );
   ::kill( child, SIGKILL );
   EXPECT_EQ( waitChild( child ), 128 + SIGKILL );
   ASSERT_TRUE( dispatchUntil( reader, [ & ] {
      return !statuses.empty() && statuses.back() == MountStatus::writerGone;
   } ) );
   uint32_t left = reader.count();
   Lumen::Hint h;
   while ( auto e = reader.next( h ) ) {
      EXPECT_TRUE( e->first.consistent() );
      h = e->second;
   }

   Lumen::Writer< HostRec > successor;
   successor.attach( "/lumen/crash" );
   // At most the one record the dead writer was changing is dropped.
   EXPECT_GE( successor.count() + 1, left );
   EXPECT_LE( successor.count(), left );
   successor.sanityCheck();
   quiesced.clear();
   ASSERT_TRUE( dispatchUntil( reader, [ & ] {
      return statuses.back() == MountStatus::mounted && quiesced.size() == 2;
   } ) );
   successor.write( HostRec::of( 9999, 1 ) );
   ASSERT_TRUE( dispatchUntil( reader, [ & ] { return reader.contains( MacKey::of( 9999 ) ); } ) );
   EXPECT_EQ( reader.count(), successor.count() );
   for ( uint32_t n = 0; n < 500; ++n ) {
      ASSERT_EQ( reader.lookup( MacKey::of( n ) ), successor.lookup( MacKey::of( n ) ) );
   }
}

TEST( LumenCrossProcess, WriterInAnotherProcessBlocksUntilItExits ) {
   TempRoot root;
   Pipe attached;
   Pipe release;
   pid_t child = startChild( [ & ] {
      Lumen::Writer< HostRec > writer;
      writer.attach( "/lumen/owner" );
      writer.write( HostRec::of( 1, 1 ) );
      attached.signal();
      release.wait();
      return 0;
   } );
   ASSERT_TRUE( attached.wait() );
   Lumen::Writer< HostRec > writer;
   try {
      writer.attach( "/lumen/owner" );
      FAIL() << "attached while another process holds the table";
   } catch ( const Lumen::WriterConflictException& e ) {
      EXPECT_EQ( std::string( e.what() ),
                 fmt::format( "Lumen table /lumen/owner already has a live writer (pid {})", child ) );
   }
   release.signal();
   EXPECT_EQ( waitChild( child ), 0 );
   writer.attach( "/lumen/owner" );
   EXPECT_EQ( writer.lookup( MacKey::of( 1 ) ), HostRec::of( 1, 1 ) );
}
