// Damaged segments are reported as CorruptionDetectedException, to the
// handler and the caller, and never crash a reader; a healthy writer is never
// reported.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <thread>
#include <vector>

using namespace LumenTest;
namespace li = Lumen::internal;

class LumenCorruption : public ::testing::Test {
 protected:
   using Op = std::function< void ( Lumen::Reader< HostRec >& ) >;
   void SetUp() override {
      Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1024, 64 } );
      writer.attach( "/lumen/good" );
      for ( uint32_t n = 0; n < 40; ++n ) {
         writer.write( HostRec::of( n, n ) );
      }
      copyTable( root, "lumen.good", "lumen.bad" );
   }
   std::string data() const { return root.file( "lumen.bad@1" ); }
   std::string control() const { return root.file( "lumen.bad" ); }

   // The damage must surface as the exception, naming the path and `what`,
   // and reach the handler with the same text.
   template< class Op >
   void expectCorruption( Op op, const std::string& what ) {
      Lumen::Reader< HostRec > reader( "/lumen/bad" );
      std::string handled;
      reader.corruptionHandlerIs( [ & ]( const std::string& m ) { handled = m; } );
      std::string msg = whatOf< Fable::CorruptionDetectedException >( [ & ] { op( reader ); } );
      EXPECT_NE( msg.find( "Lumen table /lumen/bad: " ), std::string::npos ) << what;
      EXPECT_NE( msg.find( what ), std::string::npos ) << msg;
      EXPECT_EQ( handled, msg );
   }

   LumenRoot root;
};

TEST_F( LumenCorruption, DamagedSegmentsAreDetected ) {
   auto ctl = []( uint8_t* p ) { return reinterpret_cast< li::ControlHeader* >( p ); };
   auto dat = []( uint8_t* p ) { return reinterpret_cast< li::DataHeader* >( p ); };
   struct Case {
      bool inData;
      std::function< void ( uint8_t* ) > edit;
      std::string what;
      Op op = []( auto& r ) { r.lookupShared( MacKey::of( 777 ) ); };
   };
   std::vector< Case > cases = {
      { false, []( uint8_t* p ) { p[ 0 ] ^= 0xff; }, "bad control magic" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->typeName[ 0 ] = 'X'; }, "record layout XumenTest::HostRec" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->feedCapacity = 1u << 20; }, "feed of 1048576 entries" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->generation = 42; }, "segment of generation 42 is missing" },
      { true, [ & ]( uint8_t* p ) { dat( p )->slotCount = 1u << 28; }, "slots of 32 bytes do not fit" },
      { true, [ & ]( uint8_t* p ) { dat( p )->count = 1u << 30; }, "exceeds", []( auto& r ) { r.countShared(); } },
      // Every slot claims to be live: a probe for a missing key would circle.
      { true, [ & ]( uint8_t* p ) {
           for ( uint32_t i = 0; i < dat( p )->slotCount; ++i ) {
              auto* word = p + sizeof( li::DataHeader ) + size_t( i ) * dat( p )->slotSize;
              auto* w = reinterpret_cast< uint32_t* >( word );
              *w = ( *w & ~3u ) | li::slotLive;
           }
        }, "never ends" },
   };
   for ( const auto& c : cases ) {
      copyTable( root, "lumen.good", "lumen.bad" );
      editFile( c.inData ? data() : control(), [ & ]( uint8_t* p, size_t ) { c.edit( p ); } );
      expectCorruption( c.op, c.what );
   }
   // A damaged control segment also keeps a writer out and shows as unmounted.
   copyTable( root, "lumen.good", "lumen.bad" );
   editFile( control(), []( uint8_t* p, size_t ) { p[ 0 ] ^= 0xff; } );
   Lumen::Reader< HostRec > reader( "/lumen/bad" );
   EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::unmounted );
   Lumen::Writer< HostRec > writer;
   EXPECT_THROW( writer.attach( "/lumen/bad" ), Fable::CorruptionDetectedException );
}

TEST_F( LumenCorruption, RandomBytesNeverCrashAReader ) {
   std::mt19937 rng( 11 );
   int reported = 0;
   for ( int round = 0; round < 300; ++round ) {
      copyTable( root, "lumen.good", "lumen.bad" );
      switch ( round % 3 ) {
       case 0:   // everything random
         for ( const auto& name : { control(), data() } ) {
            std::string bytes( rng() % 8192, '\0' );
            std::generate( bytes.begin(), bytes.end(), [ & ] { return char( rng() ); } );
            std::ofstream( name, std::ios::binary | std::ios::trunc ) << bytes;
         }
         break;
       case 1:   // valid headers, random slots
         editFile( data(), [ & ]( uint8_t* p, size_t size ) {
            std::generate( p + sizeof( li::DataHeader ), p + size, [ & ] { return uint8_t( rng() ); } );
         } );
         break;
       case 2:   // a few random bytes anywhere in either file
         for ( const auto& name : { control(), data() } ) {
            editFile( name, [ & ]( uint8_t* p, size_t size ) {
               for ( int i = 0; i < 4; ++i ) {
                  p[ rng() % std::min< size_t >( size, 256 ) ] = uint8_t( rng() );
               }
            } );
         }
         break;
      }
      try {
         Lumen::Reader< HostRec > reader( "/lumen/bad" );
         reader.dispatch();
         for ( uint32_t n = 0; n < 50; ++n ) {
            reader.lookup( MacKey::of( n ) );
            reader.lookupShared( MacKey::of( n ) );
         }
         reader.count();
         reader.countShared();
         int steps = 0;
         for ( auto e = reader.next(); e && ++steps < 5000; e = reader.next( e->second ) ) {
         }
         steps = 0;
         for ( auto e = reader.nextShared(); e && ++steps < 5000; e = reader.nextShared( e->second ) ) {
         }
      } catch ( const Fable::CorruptionDetectedException& ) {
         ++reported;
      }
   }
   EXPECT_GT( reported, 100 ) << "random headers were accepted";
}

// A slot that stays busy while its writer is alive and attached (a writer that
// failed mid-update, or a scribble) ends every read path in the exception
// instead of an endless retry.
TEST_F( LumenCorruption, SlotStuckBusyUnderALiveWriterIsReported ) {
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/bad" );   // takes the copy over: generation 2
   MacKey k = MacKey::of( 5 );
   uint32_t stuck = ~0u;
   editFile( root.file( "lumen.bad@2" ), [ & ]( uint8_t* p, size_t ) {
      auto* h = reinterpret_cast< li::DataHeader* >( p );
      for ( uint32_t i = 0; i < h->slotCount; ++i ) {
         uint8_t* slot = p + sizeof( li::DataHeader ) + size_t( i ) * h->slotSize;
         if ( std::memcmp( slot + h->recordOffset, &k, sizeof( k ) ) == 0 ) {
            *reinterpret_cast< uint32_t* >( slot ) |= li::slotBusy;
            stuck = i;
         }
      }
   } );
   for ( const Op& op : { Op( [ & ]( auto& r ) { r.lookupShared( k ); } ),
                          Op( [ & ]( auto& r ) { r.containsShared( k ); } ),
                          Op( [ & ]( auto& r ) { HostRec out[ 1 ]; r.lookupBatchShared( &k, out, 1 ); } ),
                          Op( []( auto& r ) { for ( auto e = r.nextShared(); e; e = r.nextShared( e->second ) ) {} } ) } ) {
      expectCorruption( op, fmt::format( "slot {} was left mid-update (it stayed busy too long)", stuck ) );
   }
   EXPECT_EQ( Lumen::Reader< HostRec >( "/lumen/bad" ).lookup( MacKey::of( 6 ) ), HostRec::of( 6, 6 ) );
}

namespace {

// 16 KB: a writer preempted while copying one holds its slot busy.
struct HugeRec {
   static constexpr const char* lumenTypeName = "LumenTest::HugeRec";
   MacKey k;
   uint32_t words[ 4093 ] = {};
   MacKey key() const { return k; }
};

}  // namespace

// The stuck-slot verdict must judge the thread that writes, not its process:
// here the writer is a worker thread, pinned with four busy siblings to one
// processor (so it is often preempted mid-copy for over 10 ms) while the main
// thread sleeps. Judged by the process's CPU time or its main thread's state,
// this healthy writer looked stuck within a second or two.
TEST( LumenStuckSlot, AHealthyWriterThreadOfABusyProcessIsNeverReportedStuck ) {
   LumenRoot root;
   auto* stop = static_cast< std::atomic< int >* >(
      ::mmap( nullptr, sizeof( int ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 ) );
   stop->store( 0 );
   auto pinTo = []( int cpu ) {
      cpu_set_t set;
      CPU_ZERO( &set );
      CPU_SET( cpu, &set );
      ::sched_setaffinity( 0, sizeof( set ), &set );
   };
   pid_t writerProcess = startChild( [ & ] {
      pinTo( 0 );   // inherited by the threads below
      std::vector< std::thread > threads;
      threads.emplace_back( [ & ] {
         Lumen::Writer< HugeRec > writer( HugeRec{}, { 64, 1024, 64 } );
         writer.attach( "/lumen/busy" );
         HugeRec r{ MacKey::of( 1 ) };
         for ( uint32_t counter = 0; !stop->load(); ++counter ) {
            std::fill( std::begin( r.words ), std::end( r.words ), counter );
            writer.write( r );
         }
      } );
      for ( int i = 0; i < 4; ++i ) {
         threads.emplace_back( [ & ] {
            while ( !stop->load() ) {
            }
         } );
      }
      for ( auto& t : threads ) {
         t.join();
      }
      return 0;
   } );
   pid_t readerProcess = startChild( [ & ] {
      pinTo( 1 );
      Lumen::Reader< HugeRec > reader( "/lumen/busy" );
      auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 3 );
      while ( std::chrono::steady_clock::now() < deadline ) {
         try {
            reader.lookupShared( MacKey::of( 1 ) );
         } catch ( const Fable::CorruptionDetectedException& e ) {
            std::fprintf( stderr, "%s\n", e.what() );
            return 1;
         }
      }
      return 0;
   } );
   int readerStatus = waitChild( readerProcess );
   stop->store( 1 );
   EXPECT_EQ( waitChild( writerProcess ), 0 );
   EXPECT_EQ( readerStatus, 0 ) << "a live, healthy writer was reported as corruption";
   ::munmap( stop, sizeof( int ) );
}
