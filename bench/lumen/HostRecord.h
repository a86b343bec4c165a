// Bench::Host24: the record every system in the Lumen benchmark stores.
//
// Shaped like a MAC table entry: a 12-byte key (6-byte MAC, 2 bytes of
// padding, 32-bit VNI) inside a 24-byte record. Keys and values are derived
// from an index and a version, so no process needs a key array (a 12 MB array
// would add a DRAM miss of its own to every random lookup) and any process can
// tell a torn or misplaced record from a good one.
//
// Plain values, no state: safe to use from any thread or process.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Bench {

struct HostKey {
   uint8_t mac[ 6 ];
   uint8_t pad[ 2 ];
   uint32_t vni;

   // Every process must hash alike, so this is a fixed function of the
   // fields: the 48-bit MAC and the VNI folded into 64 bits, then a
   // full-avalanche finaliser so nearby MACs spread over all buckets.
   uint32_t hash() const noexcept {
      uint64_t x = mac48() ^ ( uint64_t( vni ) * 0x9E3779B97F4A7C15ull );
      x ^= x >> 30;
      x *= 0xBF58476D1CE4E5B9ull;
      x ^= x >> 27;
      x *= 0x94D049BB133111EBull;
      x ^= x >> 31;
      return uint32_t( x ^ ( x >> 32 ) );
   }
   // Whole-word compares: a defaulted == compares the MAC byte by byte, and
   // every system pays that on every probe.
   bool operator==( const HostKey& o ) const noexcept {
      return mac48() == o.mac48() && vni == o.vni;
   }
   // The MAC and its padding are read as one word (the padding is zero).
   uint64_t mac48() const noexcept {
      uint64_t m;
      std::memcpy( &m, mac, 8 );
      return m & ( ( 1ull << 48 ) - 1 );
   }
};

struct Host24 {
   HostKey k;
   uint32_t a;
   uint32_t b;
   uint8_t c;
   uint8_t pad[ 3 ];

   static constexpr const char* lumenTypeName = "Bench::Host24";
   HostKey key() const noexcept { return k; }
};

// What a key-value baseline stores under the key: the record without its
// key, so the key is stored once, as such a table's users would store it.
struct HostValue {
   uint32_t a;
   uint32_t b;
   uint8_t c;
   uint8_t pad[ 3 ];
};

inline HostValue valueOf( const Host24& r ) noexcept {
   HostValue v{};
   v.a = r.a;
   v.b = r.b;
   v.c = r.c;
   return v;
}

inline Host24 joined( const HostKey& k, const HostValue& v ) noexcept {
   Host24 r{};
   r.k = k;
   r.a = v.a;
   r.b = v.b;
   r.c = v.c;
   return r;
}

// A larger record, for the bytes-per-entry rows only: the same key inside 40
// bytes (a 28-byte value under a key-value baseline).
struct Host40 {
   HostKey k;
   uint32_t a;
   uint32_t b;
   uint8_t c;
   uint8_t pad[ 3 ];
   uint32_t extra[ 4 ];

   static constexpr const char* lumenTypeName = "Bench::Host40";
   HostKey key() const noexcept { return k; }
};

struct HostValue28 {
   uint32_t a;
   uint32_t b;
   uint8_t c;
   uint8_t pad[ 3 ];
   uint32_t extra[ 4 ];
};

static_assert( sizeof( HostKey ) == 12 );
static_assert( sizeof( Host24 ) == 24 );
static_assert( sizeof( HostValue ) == 12 );
static_assert( sizeof( Host40 ) == 40 );
static_assert( sizeof( HostValue28 ) == 28 );
static_assert( std::is_trivially_copyable_v< Host24 > );
static_assert( std::is_trivially_copyable_v< Host40 > );

// Key number i. The MAC is i times an odd constant modulo 2^48, a bijection,
// so keys 0..n-1 are distinct and their bytes look random (which also makes
// B-tree inserts land at random places rather than appending).
inline HostKey keyFor( uint64_t i ) noexcept {
   uint64_t m = ( i * 0x5DEECE66Dull + 0xB ) & ( ( 1ull << 48 ) - 1 );
   // Built in registers and stored whole: a key assembled byte by byte in
   // memory and then read back as words stalls store forwarding, a cost
   // every system would pay in the lookup loops.
   HostKey k{};
   std::memcpy( k.mac, &m, 8 );   // the MAC, and zero padding
   k.vni = 10000 + uint32_t( i & 255 );
   return k;
}

// A record whose value fields all derive from `version` and the key, so a
// reader can check that what it copied is one whole write.
inline Host24 recordFor( const HostKey& k, uint32_t version ) noexcept {
   Host24 r{};
   r.k = k;
   r.a = version;
   r.b = ~version ^ k.vni;
   r.c = uint8_t( version * 7 );
   return r;
}

inline Host40 record40For( const HostKey& k, uint32_t version ) noexcept {
   Host40 r{};
   r.k = k;
   r.a = version;
   r.b = ~version ^ k.vni;
   r.c = uint8_t( version * 7 );
   r.extra[ 0 ] = version;
   r.extra[ 1 ] = uint32_t( k.mac48() );
   return r;
}

inline HostValue28 value28Of( const Host40& r ) noexcept {
   HostValue28 v{};
   v.a = r.a;
   v.b = r.b;
   v.c = r.c;
   std::memcpy( v.extra, r.extra, sizeof( v.extra ) );
   return v;
}

inline bool selfConsistent( const Host24& r ) noexcept {
   return r.b == ( ~r.a ^ r.k.vni ) && r.c == uint8_t( r.a * 7 );
}

// Records written by the notification phase carry the writer's
// CLOCK_MONOTONIC time in ns instead; `c` marks them.
constexpr uint8_t kStampMark = 0xEE;

inline Host24 stampedRecord( const HostKey& k, uint64_t nowNs ) noexcept {
   Host24 r{};
   r.k = k;
   r.a = uint32_t( nowNs );
   r.b = uint32_t( nowNs >> 32 );
   r.c = kStampMark;
   return r;
}

inline bool stamped( const Host24& r ) noexcept { return r.c == kStampMark; }
inline uint64_t stampOf( const Host24& r ) noexcept {
   return uint64_t( r.a ) | ( uint64_t( r.b ) << 32 );
}

// Random key indices for lookups: xorshift plus Lemire's multiply-shift
// range reduction, a few cycles and no memory traffic.
class IndexStream {
 public:
   explicit IndexStream( uint64_t n, uint64_t seed ) : n_( n ), s_( seed | 1 ) {}
   uint64_t next() noexcept {
      s_ ^= s_ << 13;
      s_ ^= s_ >> 7;
      s_ ^= s_ << 17;
      return ( ( s_ >> 32 ) * n_ ) >> 32;
   }

 private:
   uint64_t n_;
   uint64_t s_;
};

}  // namespace Bench
