// Shared pieces of the Lumen tests: records that can tell a torn copy from a
// whole one and raw access to a table's files (forked children: ChildProcess.h).
#pragma once

#include "platform/lumen/Table.h"
#include "platform/lumen/internal/Wake.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LumenRoot.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <optional>

namespace LumenTest {

// 12-byte key: 6-byte MAC, 2 padding bytes, 32-bit VNI.
struct MacKey {
   uint8_t mac[ 6 ] = {};
   uint8_t pad[ 2 ] = {};
   uint32_t vni = 0;

   static MacKey of( uint32_t n ) {
      return { { 0x02, 0, uint8_t( n >> 24 ), uint8_t( n >> 16 ), uint8_t( n >> 8 ), uint8_t( n ) },
               {}, n % 7 + 100 };
   }
   uint32_t number() const { return uint32_t( mac[ 2 ] ) << 24 | mac[ 3 ] << 16 | mac[ 4 ] << 8 | mac[ 5 ]; }
   uint32_t hash() const {
      uint32_t h = 2166136261u ^ vni;
      for ( uint8_t b : mac ) {
         h = ( h ^ b ) * 16777619u;
      }
      return h ^ ( h >> 15 );
   }
   bool operator==( const MacKey& o ) const { return std::memcmp( mac, o.mac, 6 ) == 0 && vni == o.vni; }
   bool operator<( const MacKey& o ) const { return std::memcmp( this, &o, sizeof( o ) ) < 0; }
};
static_assert( sizeof( MacKey ) == 12 );

// 24-byte record; vtep, seq and check all derive from one counter.
struct HostRec {
   static constexpr const char* lumenTypeName = "LumenTest::HostRec";
   MacKey k;
   uint32_t vtep = 0;
   uint32_t seq = 0;
   uint32_t check = 16;

   static HostRec of( uint32_t n, uint32_t counter ) {
      uint32_t seq = counter * 2654435761u;
      return { MacKey::of( n ), counter, seq, counter ^ seq ^ n };
   }
   bool consistent() const { return *this == of( k.number(), vtep ); }
   MacKey key() const { return k; }
   bool operator==( const HostRec& ) const = default;
};
static_assert( sizeof( HostRec ) == 24 );

// 256-byte record: a copy slow enough for a torn read to show.
struct BigRec {
   static constexpr const char* lumenTypeName = "LumenTest::BigRec";
   MacKey k;
   uint32_t words[ 61 ] = {};

   static BigRec of( uint32_t n, uint32_t counter ) {
      BigRec r{ MacKey::of( n ) };
      std::iota( r.words, r.words + 61, counter * 61 );
      return r;
   }
   bool consistent() const {
      return std::adjacent_find( words, words + 61, []( uint32_t a, uint32_t b ) { return b != a + 1; } ) ==
             words + 61;
   }
   MacKey key() const { return k; }
   bool operator==( const BigRec& ) const = default;
};
static_assert( sizeof( BigRec ) == 256 );

// 16 KB: a writer spends most of its time inside copies of one, so a kill
// or preemption usually lands mid-copy.
struct SlabRec {
   static constexpr const char* lumenTypeName = "LumenTest::SlabRec";
   MacKey k;
   uint32_t words[ 4093 ] = {};

   static SlabRec of( uint32_t n, uint32_t counter ) {
      SlabRec r{ MacKey::of( n ) };
      std::fill( std::begin( r.words ), std::end( r.words ), counter );
      return r;
   }
   MacKey key() const { return k; }
};

// Writes HostRec::of( n, counter ) for every n below `count`; the counter is n unless given.
template< class W >
void fill( W& writer, uint32_t count, std::optional< uint32_t > counter = {} ) {
   for ( uint32_t n = 0; n < count; ++n ) {
      writer.write( HostRec::of( n, counter.value_or( n ) ) );
   }
}

// Copies every file of table `from` to table `to` ("lumen.a" -> "lumen.b").
inline void copyTable( const LumenRoot& root, const std::string& from, const std::string& to ) {
   namespace fs = std::filesystem;
   for ( const auto& e : fs::directory_iterator( root.dir() ) ) {
      std::string name = e.path().filename();
      if ( name == from || name.rfind( from + "@", 0 ) == 0 ) {
         fs::copy_file( e.path(), root.file( to + name.substr( from.size() ) ),
                        fs::copy_options::overwrite_existing );
      }
   }
}

// what() of the E that f() throws; empty if it throws nothing.
template< class E, class F >
std::string whatOf( F f ) {
   try {
      f();
   } catch ( const E& e ) {
      return e.what();
   }
   return "";
}

// Maps a whole file writable, separately from any Lumen mapping, for edit( bytes, size ).
template< class Edit >
void editFile( const std::string& name, Edit edit ) {
   int fd = ::open( name.c_str(), O_RDWR );
   size_t size = size_t( ::lseek( fd, 0, SEEK_END ) );
   void* p = ::mmap( nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
   ::close( fd );
   ASSERT_NE( p, MAP_FAILED ) << name;
   edit( static_cast< uint8_t* >( p ), size );
   ::munmap( p, size );
}

// An int-sized value shared with forked children; release with munmap.
template< class T, class V >
T* sharedValue( V initial ) {
   void* p = ::mmap( nullptr, sizeof( T ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   return new ( p ) T( initial );
}

// Every entry of a writer or reader, each visited once.
template< class T >
std::map< MacKey, HostRec > contentsOf( const T& table ) {
   std::map< MacKey, HostRec > seen;
   for ( auto e = table.next(); e; e = table.next( e->second ) ) {
      EXPECT_TRUE( seen.emplace( e->first.key(), e->first ).second ) << "entry visited twice";
   }
   return seen;
}

inline uint64_t generationOf( const LumenRoot& root, const std::string& flat ) {
   uint64_t generation = 0;
   editFile( root.file( flat ), [ & ]( uint8_t* p, size_t ) {
      generation = reinterpret_cast< Lumen::internal::ControlHeader* >( p )->generation;
   } );
   return generation;
}

// The state word of slot i of a mapped data segment.
inline uint32_t* slotWord( uint8_t* data, uint32_t i ) {
   auto* h = reinterpret_cast< Lumen::internal::DataHeader* >( data );
   return reinterpret_cast< uint32_t* >( data + sizeof( Lumen::internal::DataHeader ) + size_t( i ) * h->slotSize );
}

// A wake segment mapped on its own, as another process damaging it would.
struct WakeMap {
   Lumen::internal::WakeHeader* header = nullptr;
   explicit WakeMap( const std::string& name ) {
      int fd = ::open( name.c_str(), O_RDWR );
      EXPECT_GE( fd, 0 ) << name;
      void* p = ::mmap( nullptr, Lumen::internal::wakeSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
      ::close( fd );
      EXPECT_NE( p, MAP_FAILED );
      header = static_cast< Lumen::internal::WakeHeader* >( p );
   }
   ~WakeMap() { ::munmap( header, Lumen::internal::wakeSegmentSize ); }
   Lumen::internal::ReaderSlot* slots() const {
      return reinterpret_cast< Lumen::internal::ReaderSlot* >( header + 1 );
   }
   Lumen::internal::ReaderSlot* slotOf( pid_t pid ) const {
      auto* end = slots() + Lumen::internal::wakeReaderSlots;
      auto* it = std::find_if( slots(), end, [ & ]( auto& s ) { return s.pid == uint32_t( pid ); } );
      return it == end ? nullptr : it;
   }
   uint32_t registrationsOf( pid_t pid ) const {
      return uint32_t( std::count_if( slots(), slots() + Lumen::internal::wakeReaderSlots,
                                      [ & ]( auto& s ) { return s.pid == uint32_t( pid ); } ) );
   }
};

}  // namespace LumenTest
