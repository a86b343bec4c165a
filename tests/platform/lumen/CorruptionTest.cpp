// Damaged segments are reported as CorruptionDetectedException, to the
// handler and the caller, and never crash a reader.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

using namespace LumenTest;
namespace li = Lumen::internal;

namespace {

// Maps a table file writable, separately from any Lumen mapping.
template< class Edit >
void editFile( const std::string& name, Edit edit ) {
   int fd = ::open( name.c_str(), O_RDWR );
   ASSERT_GE( fd, 0 ) << name;
   struct stat st {};
   ::fstat( fd, &st );
   void* p = ::mmap( nullptr, size_t( st.st_size ), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
   ASSERT_NE( p, MAP_FAILED );
   edit( static_cast< uint8_t* >( p ), size_t( st.st_size ) );
   ::munmap( p, size_t( st.st_size ) );
   ::close( fd );
}

void writeRandomFile( const std::string& name, std::mt19937& rng, size_t size ) {
   std::string bytes( size, '\0' );
   for ( auto& c : bytes ) {
      c = char( rng() );
   }
   int fd = ::open( name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644 );
   ASSERT_EQ( ::write( fd, bytes.data(), size ), ssize_t( size ) );
   ::close( fd );
}

class LumenCorruption : public ::testing::Test {
 protected:
   void SetUp() override {
      Lumen::Writer< HostRec > writer( HostRec{}, { 64, 1024, 64 } );
      writer.attach( "/lumen/good" );
      for ( uint32_t n = 0; n < 40; ++n ) {
         writer.write( HostRec::of( n, n ) );
      }
      root.copyTable( "lumen.good", "lumen.bad" );
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
      try {
         op( reader );
         ADD_FAILURE() << "no corruption reported for " << what;
      } catch ( const Fable::CorruptionDetectedException& e ) {
         EXPECT_NE( std::string( e.what() ).find( "Lumen table /lumen/bad: " ), std::string::npos )
            << e.what();
         EXPECT_NE( std::string( e.what() ).find( what ), std::string::npos ) << e.what();
         EXPECT_EQ( handled, e.what() );
      }
   }

   TempRoot root;
};

auto lookupMissing = []( Lumen::Reader< HostRec >& r ) { r.lookup( MacKey::of( 777 ) ); };

}  // namespace

TEST_F( LumenCorruption, DamagedControlHeaderIsDetected ) {
   editFile( control(), []( uint8_t* p, size_t ) { p[ 0 ] ^= 0xff; } );
   expectCorruption( lookupMissing, "bad control magic" );
   Lumen::Reader< HostRec > reader( "/lumen/bad" );
   EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::unmounted );
   Lumen::Writer< HostRec > writer;
   EXPECT_THROW( writer.attach( "/lumen/bad" ), Fable::CorruptionDetectedException );
}

TEST_F( LumenCorruption, ForeignRecordLayoutIsDetected ) {
   editFile( control(), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::ControlHeader* >( p )->typeName[ 0 ] = 'X';
   } );
   expectCorruption( lookupMissing, "record layout XumenTest::HostRec" );
}

TEST_F( LumenCorruption, OutOfBoundsIndicesAreDetected ) {
   editFile( control(), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::ControlHeader* >( p )->feedCapacity = 1u << 20;
   } );
   expectCorruption( lookupMissing, "feed of 1048576 entries" );
   root.copyTable( "lumen.good", "lumen.bad" );

   editFile( data(), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::DataHeader* >( p )->slotShift = 28;
   } );
   expectCorruption( lookupMissing, "slots of 28 bytes do not fit" );
   root.copyTable( "lumen.good", "lumen.bad" );

   editFile( control(), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::ControlHeader* >( p )->generation = 42;
   } );
   expectCorruption( lookupMissing, "segment of generation 42 is missing" );
   root.copyTable( "lumen.good", "lumen.bad" );

   editFile( data(), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::DataHeader* >( p )->count = 1u << 30;
   } );
   expectCorruption( []( auto& r ) { r.count(); }, "exceeds" );
}

TEST_F( LumenCorruption, ProbeThatNeverEndsIsDetected ) {
   // Every slot claims to be live: a probe for a missing key would circle.
   editFile( data(), []( uint8_t* p, size_t ) {
      auto* h = reinterpret_cast< li::DataHeader* >( p );
      for ( uint32_t i = 0; i < ( 1u << h->slotShift ); ++i ) {
         auto* word = reinterpret_cast< uint32_t* >( p + sizeof( *h ) + size_t( i ) * h->slotSize );
         *word = ( *word & ~3u ) | li::slotLive;
      }
   } );
   expectCorruption( lookupMissing, "never ends" );
}

TEST_F( LumenCorruption, RandomBytesNeverCrashAReader ) {
   std::mt19937 rng( 11 );
   int reported = 0;
   for ( int round = 0; round < 300; ++round ) {
      root.copyTable( "lumen.good", "lumen.bad" );
      switch ( round % 3 ) {
       case 0:   // everything random
         writeRandomFile( control(), rng, rng() % 4096 );
         writeRandomFile( data(), rng, rng() % 8192 );
         break;
       case 1:   // valid headers, random slots
         editFile( data(), [ & ]( uint8_t* p, size_t size ) {
            for ( size_t i = sizeof( li::DataHeader ); i < size; ++i ) {
               p[ i ] = uint8_t( rng() );
            }
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
         for ( uint32_t n = 0; n < 50; ++n ) {
            reader.lookup( MacKey::of( n ) );
         }
         reader.count();
         Lumen::Hint h;
         for ( int i = 0; i < 5000; ++i ) {
            auto e = reader.next( h );
            if ( !e ) {
               break;
            }
            h = e->second;
         }
         reader.dispatch();
      } catch ( const Fable::CorruptionDetectedException& ) {
         ++reported;
      }
   }
   EXPECT_GT( reported, 100 ) << "random headers were accepted";
}
