// A Lumen reader mounting whatever table files it finds. The input is
// decoded into a table's control, data and wake files under a private root
// (format below); a Reader of that table then mounts them, dispatches,
// iterates and looks up, both its delivered state and shared memory.
// Damage must surface as CorruptionDetectedException or
// TableAccessException (or as a waiting or gone writer), never as a crash,
// a hang or a sanitizer report; and the delivered state must agree with
// itself: what next() walks is what count() says, and every key it walks is
// found by contains().
//
// Input: one byte of flags, then files until the input ends.
//   flags  bit 0: the table's record type: 0 OrbEvpn::Host, 1 OrbEvpn::FloodEntry
//          bit 1: hold the writer lock on the control file while reading
//   file   kind (1 byte): bits 0-1 0 control, 1 data, 2 wake, 3 a stray scratch file;
//                         bit 2 pad with a hole rather than written zeros;
//                         bit 3 a FIFO instead of a regular file
//          generation (1 byte, data files), size (3 bytes, little endian),
//          length (2 bytes, little endian), then `length` bytes of content;
//          the file is the content padded with zeros to `size`.
// FUZZ_LUMEN_WRITE_SEEDS=DIR writes real tables in that form to DIR and exits.
#include "fuzz/Check.h"
#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/Table.h"
#include "platform/lumen/internal/Segment.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string tablePath = "/orbevpn/evpn/table";
std::string root;

enum Kind : uint8_t { control = 0, data = 1, wake = 2, scratch = 3 };
constexpr uint8_t holeBit = 4, fifoBit = 8;
constexpr uint8_t floodBit = 1, lockBit = 2;
constexpr uint32_t maxFileSize = 1u << 22;

void clearRoot() {
   DIR* d = ::opendir( root.c_str() );
   Fuzz::check( d != nullptr, "cannot open the root" );
   std::vector< std::string > names;
   while ( dirent* e = ::readdir( d ) ) {
      if ( std::strcmp( e->d_name, "." ) != 0 && std::strcmp( e->d_name, ".." ) != 0 ) {
         names.push_back( root + "/" + e->d_name );
      }
   }
   ::closedir( d );
   for ( const auto& n : names ) {
      ::unlink( n.c_str() );
   }
}

std::string fileName( uint8_t kind, uint8_t generation ) {
   namespace I = Lumen::internal;
   switch ( kind & 3 ) {
    case control: return I::controlFileName( root, tablePath );
    case data: return I::dataFileName( root, tablePath, generation );
    case wake: return I::wakeFileName( root, tablePath );
    default: return I::controlFileName( root, tablePath ) + "@new.1.1";
   }
}

void writeFile( uint8_t kind, uint8_t generation, uint32_t size, const uint8_t* content, size_t length ) {
   const std::string name = fileName( kind, generation );
   ::unlink( name.c_str() );
   if ( kind & fifoBit ) {
      ::mkfifo( name.c_str(), 0640 );
      return;
   }
   const int fd = ::open( name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640 );
   Fuzz::check( fd >= 0, "cannot create a table file" );
   Fuzz::check( ::write( fd, content, length ) == ssize_t( length ), "cannot write a table file" );
   if ( size > length ) {
      if ( kind & holeBit ) {
         Fuzz::check( ::ftruncate( fd, size ) == 0, "cannot extend a table file" );
      } else {
         const std::vector< uint8_t > zeros( size - length );
         Fuzz::check( ::write( fd, zeros.data(), zeros.size() ) == ssize_t( zeros.size() ),
                      "cannot write a table file" );
      }
   }
   ::close( fd );
}

// Decodes the files; returns the flags.
uint8_t decode( const uint8_t* p, size_t size ) {
   if ( size == 0 ) {
      return 0;
   }
   const uint8_t flags = p[ 0 ];
   size_t at = 1;
   while ( at + 7 <= size ) {
      const uint8_t kind = p[ at ];
      const uint8_t generation = p[ at + 1 ];
      const uint32_t fileSize = ( p[ at + 2 ] | p[ at + 3 ] << 8 | p[ at + 4 ] << 16 ) % maxFileSize;
      size_t length = size_t( p[ at + 5 ] | p[ at + 6 ] << 8 );
      at += 7;
      length = std::min( length, size - at );
      writeFile( kind, generation, fileSize, p + at, length );
      at += length;
   }
   return flags;
}

template< class Record >
void read() {
   using Key = typename Lumen::Reader< Record >::Key;
   // Each operation on its own: one that reports damage does not keep the
   // others from running.
   auto guarded = [ & ]( const std::function< void() >& op ) {
      try {
         op();
      } catch ( const Fable::CorruptionDetectedException& ) {
      } catch ( const Lumen::TableAccessException& ) {
      }
   };
   std::unique_ptr< Lumen::Reader< Record > > reader;
   guarded( [ & ] { reader = std::make_unique< Lumen::Reader< Record > >( tablePath ); } );
   if ( !reader ) {
      return;
   }
   std::vector< Key > keys;
   reader->corruptionHandlerIs( []( const std::string& ) {} );
   reader->onKeyIs( [ & ]( const Key& k ) { keys.push_back( k ); } );
   guarded( [ & ] { (void)reader->mountStatus(); } );
   guarded( [ & ] { (void)reader->dispatchPending(); } );
   guarded( [ & ] { reader->dispatch(); } );
   guarded( [ & ] { reader->dispatch(); } );

   // The delivered state agrees with itself.
   guarded( [ & ] {
      uint32_t walked = 0;
      Lumen::Hint h;
      while ( auto e = reader->next( h ) ) {
         Fuzz::check( ++walked <= ( 1u << 22 ), "an iteration of the delivered state does not end" );
         Fuzz::check( reader->contains( e->first.key() ), "a delivered entry is not found by its key" );
         h = e->second;
         keys.push_back( e->first.key() );
      }
      Fuzz::check( walked == reader->count(), "the delivered state's count differs from its entries" );
   } );
   guarded( [ & ] {
      uint32_t walked = 0;
      Lumen::Hint h;
      while ( auto e = reader->nextShared( h ) ) {
         Fuzz::check( ++walked <= ( 1u << 22 ), "an iteration of shared memory does not end" );
         h = e->second;
         keys.push_back( e->first.key() );
      }
   } );
   if ( keys.size() > 4096 ) {
      keys.resize( 4096 );
   }
   for ( const Key& k : keys ) {
      guarded( [ & ] { (void)reader->lookup( k ); } );
      guarded( [ & ] { (void)reader->lookupShared( k ); } );
      guarded( [ & ] { (void)reader->containsShared( k ); } );
   }
   std::vector< Record > out( keys.size() );
   guarded( [ & ] { reader->lookupBatch( keys.data(), out.data(), keys.size() ); } );
   guarded( [ & ] { reader->lookupBatchShared( keys.data(), out.data(), keys.size() ); } );
   guarded( [ & ] { (void)reader->countShared(); } );
   guarded( [ & ] { (void)reader->feedHead(); } );
   guarded( [ & ] { reader->dispatch(); } );
}

// ---- seeds: real tables, encoded

void encodeFile( std::string& out, uint8_t kind, uint8_t generation, const std::string& name ) {
   std::ifstream in( name, std::ios::binary );
   if ( !in ) {
      return;
   }
   std::string content( ( std::istreambuf_iterator< char >( in ) ), std::istreambuf_iterator< char >() );
   const uint32_t size = uint32_t( content.size() );
   while ( !content.empty() && content.back() == 0 ) {
      content.pop_back();
   }
   Fuzz::check( content.size() < 65536 && size < maxFileSize, "a seed table is too large" );
   const uint16_t length = uint16_t( content.size() );
   out += char( kind );
   out += char( generation );
   out += char( size & 0xFF );
   out += char( size >> 8 & 0xFF );
   out += char( size >> 16 & 0xFF );
   out += char( length & 0xFF );
   out += char( length >> 8 );
   out += content;
}

std::string encodeTable( uint8_t flags, bool withData = true, bool withWake = true ) {
   std::string out( 1, char( flags ) );
   encodeFile( out, control, 0, Lumen::internal::controlFileName( root, tablePath ) );
   for ( int g = 0; withData && g < 256; ++g ) {
      encodeFile( out, data, uint8_t( g ), Lumen::internal::dataFileName( root, tablePath, g ) );
   }
   if ( withWake ) {
      encodeFile( out, wake, 0, Lumen::internal::wakeFileName( root, tablePath ) );
   }
   return out;
}

OrbEvpn::Host host( uint32_t i ) {
   OrbEvpn::Host h( OrbEvpn::MacVniPair( Wire::EthAddr( 2, 0, 0, 0, uint8_t( i >> 8 ), uint8_t( i ) ),
                                         Vxlan::Vni( 10 + i % 3 ) ) );
   h.vtepAddrIs( Wire::IpAddr( 0xC0000201 + i % 5 ) );
   h.seqNoIs( Keel::Seqno32( i ) );
   return h;
}

void writeSeeds( const std::string& dir ) {
   Lumen::Options small;
   small.initialCapacity = 4;
   small.feedCapacity = 8;
   auto save = [ & ]( const std::string& name, const std::string& bytes ) {
      std::ofstream( dir + "/" + name, std::ios::binary ) << bytes;
   };
   // A host table of `n` hosts (every other one removed again when
   // `tombstones`), encoded while attached or after detaching.
   auto hosts = [ & ]( const std::string& name, uint32_t n, bool tombstones, bool detach, bool withData,
                       bool withWake ) {
      {
         Lumen::Writer< OrbEvpn::Host > w( OrbEvpn::Host(), small );
         w.attach( tablePath );
         for ( uint32_t i = 0; i < n; ++i ) {
            w.write( host( i ) );
         }
         for ( uint32_t i = 0; tombstones && i < n; i += 2 ) {
            w.remove( host( i ).key() );
         }
         if ( tombstones ) {
            auto h = host( 3 );
            h.preferenceIs( 7 );
            w.write( h );
         }
         if ( detach ) {
            w.detach();
         }
         save( name, encodeTable( detach ? 0 : lockBit, withData, withWake ) );
      }
      clearRoot();
   };
   hosts( "host-attached", 5, false, false, true, true );
   hosts( "host-detached", 5, false, true, true, true );
   hosts( "host-grown-with-tombstones", 24, true, false, true, true );
   hosts( "host-empty", 0, false, false, true, true );
   hosts( "host-control-only", 1, false, false, false, false );
   hosts( "host-no-wake", 1, false, false, true, false );
   {
      Lumen::Writer< OrbEvpn::FloodEntry > w( OrbEvpn::FloodEntry(), small );
      w.attach( tablePath );
      for ( uint32_t i = 0; i < 3; ++i ) {
         w.write( OrbEvpn::FloodEntry( OrbEvpn::VniVtepPair( Vxlan::Vni( 10 + i ), Wire::IpAddr( 0xC0000209 + i ) ) ) );
      }
      save( "flood-attached", encodeTable( floodBit | lockBit ) );
   }
   clearRoot();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize( int*, char*** ) {
   char dir[] = "/dev/shm/orbevpn-fuzz-lumen-XXXXXX";
   Fuzz::check( ::mkdtemp( dir ) != nullptr, "mkdtemp failed" );
   root = dir;
   Lumen::rootIs( root );
   std::atexit( [] {
      clearRoot();
      ::rmdir( root.c_str() );
   } );
   if ( const char* seeds = std::getenv( "FUZZ_LUMEN_WRITE_SEEDS" ) ) {
      writeSeeds( seeds );
      std::exit( 0 );
   }
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   clearRoot();
   const uint8_t flags = decode( data, size );
   int lockFd = -1;
   if ( flags & lockBit ) {
      lockFd = ::open( Lumen::internal::controlFileName( root, tablePath ).c_str(),
                       O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC );
      if ( lockFd >= 0 && !Lumen::internal::takeWriterLock( lockFd ) ) {
         ::close( lockFd );
         lockFd = -1;
      }
   }
   if ( flags & floodBit ) {
      read< OrbEvpn::FloodEntry >();
   } else {
      read< OrbEvpn::Host >();
   }
   if ( lockFd >= 0 ) {
      ::close( lockFd );
   }
   return 0;
}
