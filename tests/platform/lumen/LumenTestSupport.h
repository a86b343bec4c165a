// Shared pieces of the Lumen tests: records shaped like the real exchange
// records, a private root folder per test, and a forked-child runner.
#pragma once

#include "platform/lumen/Table.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace LumenTest {

// 12-byte key: 6-byte MAC, 2 padding bytes, 32-bit VNI.
struct MacKey {
   uint8_t mac[ 6 ] = {};
   uint8_t pad[ 2 ] = {};
   uint32_t vni = 0;

   static MacKey of( uint32_t n );
   uint32_t hash() const;
   bool operator==( const MacKey& o ) const {
      return std::memcmp( mac, o.mac, 6 ) == 0 && vni == o.vni;
   }
   bool operator<( const MacKey& o ) const;
};
static_assert( sizeof( MacKey ) == 12 );

// 24-byte record. `vtep`, `seq` and `check` all derive from one counter, so a
// reader can tell a torn copy from a whole one.
struct HostRec {
   static constexpr const char* lumenTypeName = "LumenTest::HostRec";
   MacKey k;
   uint32_t vtep = 0;
   uint32_t seq = 0;
   uint32_t check = 16;

   HostRec() = default;
   explicit HostRec( const MacKey& key ) : k( key ) {}
   static HostRec of( uint32_t n, uint32_t counter );
   bool consistent() const;
   MacKey key() const { return k; }
   bool operator==( const HostRec& o ) const {
      return k == o.k && vtep == o.vtep && seq == o.seq && check == o.check;
   }
};
static_assert( sizeof( HostRec ) == 24 );

// 256-byte record: a copy takes long enough that a reader which skipped its
// version re-check would be caught returning a torn record.
struct BigRec {
   static constexpr const char* lumenTypeName = "LumenTest::BigRec";
   MacKey k;
   uint32_t words[ 61 ] = {};

   static BigRec of( uint32_t n, uint32_t counter ) {
      BigRec r;
      r.k = MacKey::of( n );
      for ( uint32_t i = 0; i < 61; ++i ) {
         r.words[ i ] = counter * 61 + i;
      }
      return r;
   }
   bool consistent() const {
      for ( uint32_t i = 0; i < 61; ++i ) {
         if ( words[ i ] != words[ 0 ] + i ) {
            return false;
         }
      }
      return true;
   }
   MacKey key() const { return k; }
   bool operator==( const BigRec& o ) const {
      return k == o.k && std::memcmp( words, o.words, sizeof( words ) ) == 0;
   }
};
static_assert( sizeof( BigRec ) == 256 );

// 8-byte record whose key hashes to one value: every key collides.
struct CollidingKey {
   uint32_t vni = 0;
   uint32_t ip = 0;
   uint32_t hash() const { return 7; }
   bool operator==( const CollidingKey& o ) const { return vni == o.vni && ip == o.ip; }
};
struct FloodRec {
   static constexpr const char* lumenTypeName = "LumenTest::FloodRec";
   CollidingKey k;
   CollidingKey key() const { return k; }
};
static_assert( sizeof( FloodRec ) == 8 );

// Makes a fresh folder under /dev/shm the Lumen root; removes it afterwards.
class TempRoot {
 public:
   TempRoot();
   ~TempRoot();
   const std::string& dir() const { return dir_; }
   std::string file( const std::string& name ) const { return dir_ + "/" + name; }
   // Copies every file of table `from` to table `to` (same root).
   void copyTable( const std::string& from, const std::string& to ) const;

 private:
   std::string dir_;
};

// Runs `body` in a forked child; returns its exit code (or 128 + signal).
int runChild( const std::function< int () >& body );
pid_t startChild( const std::function< int () >& body );
int waitChild( pid_t pid );

// Polls `fd` and dispatches until `done` or the timeout; true if done.
template< class R, class Done >
bool dispatchUntil( Lumen::Reader< R >& reader, Done done, int timeoutMs = 5000 );

bool readable( int fd, int timeoutMs );

template< class R, class Done >
bool dispatchUntil( Lumen::Reader< R >& reader, Done done, int timeoutMs ) {
   for ( int waited = 0; !done() && waited < timeoutMs; waited += 10 ) {
      readable( reader.fd(), 10 );
      reader.dispatch();
   }
   return done();
}

}  // namespace LumenTest
