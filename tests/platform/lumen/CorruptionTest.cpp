// Damage is reported as CorruptionDetectedException, to handler and caller,
// never crashes a reader; a healthy writer is never reported.
#include "platform/lumen/Inspect.h"
#include "platform/lumen/Salvage.h"
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <set>
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
      fill( writer, 40 );
      copyTable( root, "lumen.good", "lumen.bad" );
   }
   std::string data() const { return root.file( "lumen.bad@1" ); }
   std::string control() const { return root.file( "lumen.bad" ); }

   // The exception names the path and `what`; the handler gets the same text.
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
      std::string inspected = "";   // what Lumen::inspect() says, without the record type
      Op op = []( auto& r ) { r.lookupShared( MacKey::of( 777 ) ); };
   };
   std::vector< Case > cases = {
      { false, []( uint8_t* p ) { p[ 0 ] ^= 0xff; }, "bad control magic", "bad control magic" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->typeName[ 0 ] = 'X'; }, "record layout XumenTest::HostRec",
        "layout signature" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->recordSize = 0; }, "record layout",
        "record layout 'LumenTest::HostRec' (0 bytes, alignment 4, key 12 bytes) is not one a writer makes" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->recordAlign = 3; }, "record layout", "is not one a writer makes" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->feedCapacity = 1u << 20; }, "feed of 1048576 entries" },
      { false, [ & ]( uint8_t* p ) { ctl( p )->generation = 42; }, "segment of generation 42 is missing",
        "segment of generation 42 is missing" },
      { true, [ & ]( uint8_t* p ) { dat( p )->slotCount = 1u << 28; }, "slots of 32 bytes do not fit" },
      { true, [ & ]( uint8_t* p ) { dat( p )->count = 1u << 30; }, "exceeds", "",
        []( auto& r ) { r.countShared(); } },
      // Counts the slots could hold, but the writer never leaves.
      { true, [ & ]( uint8_t* p ) { dat( p )->count = dat( p )->capacity + 1; }, "exceeds capacity", "",
        []( auto& r ) { r.countShared(); } },
      { true, [ & ]( uint8_t* p ) { dat( p )->tombstones = dat( p )->slotCount; },
        "removed slots exceed" },
      // Every slot claims to be live: a probe for a missing key would circle.
      { true, [ & ]( uint8_t* p ) {
           for ( uint32_t i = 0; i < dat( p )->slotCount; ++i ) {
              *slotWord( p, i ) = ( *slotWord( p, i ) & ~3u ) | li::slotLive;
           }
        }, "never ends" },
   };
   for ( const auto& c : cases ) {
      copyTable( root, "lumen.good", "lumen.bad" );
      editFile( c.inData ? data() : control(), [ & ]( uint8_t* p, size_t ) { c.edit( p ); } );
      expectCorruption( c.op, c.what );
      if ( !c.inspected.empty() ) {
         std::string msg = whatOf< Fable::CorruptionDetectedException >( [] { Lumen::inspect( "/lumen/bad" ); } );
         EXPECT_TRUE( msg.starts_with( "Lumen table /lumen/bad: " ) ) << msg;
         EXPECT_NE( msg.find( c.inspected ), std::string::npos ) << msg;
      }
   }
   // A damaged control segment also keeps a writer out and shows as its
   // writer gone.
   copyTable( root, "lumen.good", "lumen.bad" );
   editFile( control(), []( uint8_t* p, size_t ) { p[ 0 ] ^= 0xff; } );
   Lumen::Reader< HostRec > reader( "/lumen/bad" );
   EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::writerGone );
   Lumen::Writer< HostRec > writer;
   EXPECT_THROW( writer.attach( "/lumen/bad" ), Fable::CorruptionDetectedException );
}

// A header claiming far more slots, over a sparse file of that size, passes
// every size check; scanning it would fill the filesystem. It is refused.
TEST_F( LumenCorruption, ASparseSegmentIsRefusedBeforeAnyScan ) {
   constexpr uint32_t slots = 1u << 22;   // 128 MiB of holes
   editFile( data(), [ & ]( uint8_t* p, size_t ) {
      auto* h = reinterpret_cast< li::DataHeader* >( p );
      h->slotCount = slots;
      h->capacity = slots / 2;
   } );
   ASSERT_EQ( ::truncate( data().c_str(), off_t( sizeof( li::DataHeader ) + uint64_t( slots ) * 32 ) ), 0 );
   expectCorruption( []( auto& r ) { r.lookupShared( MacKey::of( 777 ) ); }, "(a sparse file)" );
   expectCorruption( []( auto& r ) { r.nextShared(); }, "(a sparse file)" );
   Lumen::Writer< HostRec > writer;
   EXPECT_THROW( writer.attach( "/lumen/bad" ), Fable::CorruptionDetectedException );

   copyTable( root, "lumen.good", "lumen.bad" );
   struct stat st {};
   ASSERT_EQ( ::stat( control().c_str(), &st ), 0 );
   ASSERT_EQ( ::truncate( control().c_str(), st.st_size + ( off_t( 1 ) << 30 ) ), 0 );
   expectCorruption( []( auto& r ) { r.lookupShared( MacKey::of( 777 ) ); }, "control segment of" );
}

// Files truncated under a reader's mappings: no SIGBUS, the damage is
// reported. In a child, so death by SIGBUS fails the test.
TEST_F( LumenCorruption, AFileTruncatedUnderAReaderIsReportedNotFatal ) {
   // 224 KB of data segment, most of which a truncation to two pages takes away.
   Lumen::Writer< HostRec > big( HostRec{}, { 4096, 1u << 16, 64 } );
   big.attach( "/lumen/big" );
   fill( big, 3000 );
   struct Case {
      std::string table;
      uint32_t keys;
      std::string file;
      off_t size;
      std::string what;
   };
   std::string dataTruncated = "data segment of generation 1 was truncated under the reader";
   for ( const Case& c : { Case{ "lumen.good", 40, data(), 0, dataTruncated },
                           Case{ "lumen.big", 3000, data(), 8192, dataTruncated },
                           Case{ "lumen.good", 40, control(), 0, "control segment was truncated under the reader" } } ) {
      copyTable( root, c.table, "lumen.bad" );
      pid_t child = startChild( [ & ] {
         Lumen::Reader< HostRec > reader( "/lumen/bad" );
         for ( uint32_t n = 0; n < c.keys; ++n ) {
            if ( reader.lookup( MacKey::of( n ) ) != HostRec::of( n, n ) ) {
               return 2;
            }
         }
         if ( ::truncate( c.file.c_str(), c.size ) != 0 ) {
            return 3;
         }
         int reported = 0;
         for ( int round = 0; round < 3; ++round ) {
            try {
               for ( uint32_t n = 0; n < c.keys; ++n ) {
                  reader.lookupShared( MacKey::of( n ) );
               }
               reader.countShared();
               for ( auto e = reader.nextShared(); e; e = reader.nextShared( e->second ) ) {
               }
               reader.dispatch();
            } catch ( const Fable::CorruptionDetectedException& e ) {
               if ( std::string( e.what() ).find( c.what ) == std::string::npos ) {
                  std::fprintf( stderr, "unexpected: %s\n", e.what() );
                  return 4;
               }
               ++reported;
            }
         }
         return reported >= 2 ? 0 : 5;
      } );
      EXPECT_EQ( waitChild( child ), 0 ) << c.table << ": " << c.file << " truncated to " << c.size << ": " << 128 + SIGBUS
                                         << " is death by SIGBUS, 5 too few reports";
   }
}

// Any SIGBUS outside Lumen's mappings reaches the earlier handler, or kills.
TEST_F( LumenCorruption, OtherBusErrorsGoWhereTheyWentBefore ) {
   auto touchTruncated = [ this ] {
      std::string name = root.file( "plain" );
      int fd = ::open( name.c_str(), O_RDWR | O_CREAT, 0600 );
      EXPECT_EQ( ::ftruncate( fd, 8192 ), 0 );
      auto* p = static_cast< volatile uint8_t* >( ::mmap( nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0 ) );
      EXPECT_EQ( ::ftruncate( fd, 0 ), 0 );
      return p[ 4096 ];
   };
   static int seen = 0;
   pid_t child = startChild( [ & ] {
      struct sigaction own {};
      own.sa_handler = []( int ) { ::_exit( 40 + seen ); };
      ::sigaction( SIGBUS, &own, nullptr );
      Lumen::Reader< HostRec > reader( "/lumen/good" );   // guards its mappings
      seen = 2;
      reader.lookup( MacKey::of( 1 ) );
      touchTruncated();
      return 0;
   } );
   EXPECT_EQ( waitChild( child ), 42 );
   // Without a handler: ends as without Lumen (SIGBUS, or a sanitizer report).
   int without = waitChild( startChild( [ & ] {
      touchTruncated();
      return 0;
   } ) );
   EXPECT_NE( without, 0 );
   child = startChild( [ & ] {
      Lumen::Reader< HostRec > reader( "/lumen/good" );
      reader.lookup( MacKey::of( 1 ) );
      touchTruncated();
      return 0;
   } );
   EXPECT_EQ( waitChild( child ), without );
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

// Damaged placement: entries moved where no probe for their keys reaches
// (past an empty slot), and a key copied into a second slot. The reader's
// delivered state still agrees with itself: it walks what it counts, finds
// every key it walks, holds each key once, and holds the moved ones.
TEST_F( LumenCorruption, MisplacedEntriesLeaveTheDeliveredStateConsistent ) {
   std::vector< uint32_t > moved;
   editFile( data(), [ & ]( uint8_t* p, size_t ) {
      const auto* h = reinterpret_cast< const li::DataHeader* >( p );
      auto slot = [ & ]( uint32_t i ) { return p + sizeof( li::DataHeader ) + size_t( i ) * h->slotSize; };
      auto state = [ & ]( uint32_t i ) { return *reinterpret_cast< uint32_t* >( slot( i ) ) & 3; };
      auto keyAt = [ & ]( uint32_t i ) {
         HostRec r;
         std::memcpy( &r, slot( i ) + h->recordOffset, sizeof r );
         return r.k.number();
      };
      // Each of the first three live slots moves to the empty slot half the
      // table away and leaves an empty slot behind.
      for ( uint32_t i = 0; i < h->slotCount && moved.size() < 3; ++i ) {
         const uint32_t j = ( i + h->slotCount / 2 ) % h->slotCount;
         if ( state( i ) == 1 && state( j ) == 0 ) {
            moved.push_back( keyAt( i ) );
            std::memcpy( slot( j ), slot( i ), h->slotSize );
            *reinterpret_cast< uint32_t* >( slot( i ) ) = 0;
         }
      }
      // And one more live entry copied into another empty slot.
      for ( uint32_t i = 0, copied = 0; i < h->slotCount && !copied; ++i ) {
         const uint32_t j = ( i + h->slotCount / 3 ) % h->slotCount;
         if ( state( i ) == 1 && state( j ) == 0 ) {
            std::memcpy( slot( j ), slot( i ), h->slotSize );
            copied = 1;
         }
      }
   } );
   ASSERT_EQ( moved.size(), 3u );
   Lumen::Reader< HostRec > reader( "/lumen/bad" );
   reader.dispatch();
   std::set< uint32_t > walked;
   for ( auto e = reader.next(); e; e = reader.next( e->second ) ) {
      EXPECT_TRUE( reader.contains( e->first.key() ) ) << "key " << e->first.k.number();
      EXPECT_TRUE( walked.insert( e->first.k.number() ).second ) << "key " << e->first.k.number() << " twice";
      ASSERT_LE( walked.size(), 40u );
   }
   EXPECT_EQ( walked.size(), reader.count() );
   EXPECT_EQ( walked.size(), 40u );
   for ( uint32_t n : moved ) {
      EXPECT_TRUE( reader.contains( MacKey::of( n ) ) ) << "key " << n;
      EXPECT_EQ( reader.lookup( MacKey::of( n ) ), HostRec::of( n, n ) ) << "key " << n;
   }
}

// A slot stuck busy under a live writer ends every read path in the
// exception instead of an endless retry.
TEST_F( LumenCorruption, SlotStuckBusyUnderALiveWriterIsReported ) {
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/bad" );   // takes the copy over: generation 2
   MacKey k = MacKey::of( 5 );
   uint32_t stuck = ~0u;
   editFile( root.file( "lumen.bad@2" ), [ & ]( uint8_t* p, size_t ) {
      auto* h = reinterpret_cast< li::DataHeader* >( p );
      for ( uint32_t i = 0; i < h->slotCount; ++i ) {
         auto* slot = reinterpret_cast< uint8_t* >( slotWord( p, i ) );
         if ( std::memcmp( slot + h->recordOffset, &k, sizeof( k ) ) == 0 ) {
            *slotWord( p, i ) |= li::slotBusy;
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

// The stuck-slot verdict judges the writing thread, not its process: a worker
// pinned with four busy siblings to one CPU (often preempted mid-copy) while
// the main thread sleeps once looked stuck within a second or two.
TEST( LumenStuckSlot, AHealthyWriterThreadOfABusyProcessIsNeverReportedStuck ) {
   LumenRoot root;
   auto* stop = sharedValue< std::atomic< int > >( 0 );
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
         Lumen::Writer< SlabRec > writer( SlabRec{}, { 64, 1024, 64 } );
         writer.attach( "/lumen/busy" );
         for ( uint32_t counter = 0; !stop->load(); ++counter ) {
            writer.write( SlabRec::of( 1, counter ) );
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
      Lumen::Reader< SlabRec > reader( "/lumen/busy" );
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

// A header of the mapped table scribbled on under a reader: the next
// dispatch drops the table, reports every key it had delivered as removed
// and shows the writer gone; the damaged file is not mounted again, and the
// table its writer makes anew is followed.
TEST_F( LumenCorruption, AHeaderDamagedUnderAReaderDropsTheTableUntilItIsMadeAnew ) {
   auto writer = std::make_unique< Lumen::Writer< HostRec > >();
   writer->attach( "/lumen/live" );
   fill( *writer, 10 );
   Lumen::Reader< HostRec > reader( "/lumen/live" );
   std::vector< MacKey > removed;
   std::vector< Lumen::MountStatus > statuses;
   std::string handled;
   reader.onKeyIs( [ & ]( const MacKey& k ) {
      if ( !reader.contains( k ) ) {
         removed.push_back( k );
      }
   } );
   reader.onMountStatusIs( [ & ]( Lumen::MountStatus s ) { statuses.push_back( s ); } );
   reader.corruptionHandlerIs( [ & ]( const std::string& m ) { handled = m; } );
   ASSERT_EQ( reader.count(), 10u );

   editFile( root.file( "lumen.live@1" ), []( uint8_t* p, size_t ) { p[ 0 ] ^= 0xff; } );
   writer->write( HostRec::of( 10, 10 ) );
   ASSERT_TRUE( dispatchUntil( reader, [ & ] { return removed.size() == 10; } ) );
   EXPECT_EQ( reader.count(), 0u );
   EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::writerGone );
   ASSERT_FALSE( statuses.empty() );
   EXPECT_EQ( statuses.back(), Lumen::MountStatus::writerGone );
   EXPECT_EQ( handled, "Lumen table /lumen/live: a header of the mapped table changed under the reader; "
                       "the table is dropped until its writer makes it anew" );
   writer->write( HostRec::of( 11, 11 ) );
   reader.dispatch();
   EXPECT_EQ( reader.count(), 0u );   // the damaged file stays dropped

   writer.reset();
   Lumen::moveAside( "/lumen/live", "scribbled on" );
   Lumen::Writer< HostRec > anew;
   anew.attach( "/lumen/live" );
   for ( uint32_t n = 0; n < 3; ++n ) {
      anew.write( HostRec::of( n, n + 100 ) );
   }
   ASSERT_TRUE( dispatchUntil( reader, [ & ] { return reader.count() == 3; } ) );
   EXPECT_EQ( reader.lookup( MacKey::of( 2 ) ), HostRec::of( 2, 102 ) );
   EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::mounted );
}
