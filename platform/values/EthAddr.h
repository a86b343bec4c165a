// Wire::EthAddr: a 48-bit Ethernet MAC address.
//
// Six bytes in wire order with 2-byte alignment: it is a field of records
// in shared memory (a MAC, two bytes of padding and a 32-bit VNI make a
// 12-byte key), so sizeof is 6, alignof is 2 and the type is trivially
// copyable. Do not add members. Immutable value type, safe to share between
// threads. The all-zero address is a meaningful key ("every BUM
// destination"), not an error.
//
// Order is lexicographic on the bytes; hash() is FNV-1a over the six bytes,
// the same in every process. Text form: "00:1a:2b:3c:4d:5e" (lowercase);
// the parser also takes uppercase hex digits.
#pragma once

#include "platform/mox/String.h"

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

namespace Mox {
template< class T >
class TypeBuilder;
}

namespace Wire {

class EthAddr {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "Wire::EthAddr";
   static constexpr size_t size = 6;

   constexpr EthAddr() = default;
   constexpr EthAddr( uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3, uint8_t b4,
                      uint8_t b5 )
         : bytes_{ b0, b1, b2, b3, b4, b5 } {}
   // Reads six bytes from `bytes` (wire order).
   explicit EthAddr( const uint8_t* bytes );
   // From three 16-bit words, most significant byte first in each; the
   // inverse of word0()..word2().
   constexpr EthAddr( uint16_t w0, uint16_t w1, uint16_t w2 )
         : EthAddr( hi( w0 ), lo( w0 ), hi( w1 ), lo( w1 ), hi( w2 ), lo( w2 ) ) {}
   // Parses the text form at `it` and leaves `it` after it.
   EthAddr( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   // The six bytes, wire order.
   constexpr const uint8_t* bytes() const { return bytes_; }
   constexpr uint16_t word0() const { return word( 0 ); }
   constexpr uint16_t word1() const { return word( 2 ); }
   constexpr uint16_t word2() const { return word( 4 ); }
   constexpr bool isZero() const { return *this == EthAddr(); }

   constexpr bool operator==( const EthAddr& ) const = default;
   // The bytes' lexicographic order, as one integer comparison: ordered
   // maps of addresses compare on every step of a lookup, and the defaulted
   // form calls memcmp for each.
   constexpr std::strong_ordering operator<=>( const EthAddr& o ) const {
      return orderKey() <=> o.orderKey();
   }

   uint32_t hash() const;

   static void moxDescribe( Mox::TypeBuilder< EthAddr >& b );

 private:
   static constexpr uint8_t hi( uint16_t w ) { return static_cast< uint8_t >( w >> 8 ); }
   static constexpr uint8_t lo( uint16_t w ) { return static_cast< uint8_t >( w ); }
   constexpr uint64_t orderKey() const {
      return uint64_t( bytes_[ 0 ] ) << 40 | uint64_t( bytes_[ 1 ] ) << 32 |
             uint64_t( bytes_[ 2 ] ) << 24 | uint64_t( bytes_[ 3 ] ) << 16 |
             uint64_t( bytes_[ 4 ] ) << 8 | uint64_t( bytes_[ 5 ] );
   }
   constexpr uint16_t word( int i ) const {
      return static_cast< uint16_t >( ( bytes_[ i ] << 8 ) | bytes_[ i + 1 ] );
   }

   alignas( 2 ) uint8_t bytes_[ size ] = {};
};

Mox::String valueToStrep( const EthAddr& a );
std::ostream& operator<<( std::ostream& os, const EthAddr& a );

}  // namespace Wire

template<>
struct std::hash< Wire::EthAddr > {
   size_t operator()( const Wire::EthAddr& a ) const { return a.hash(); }
};

template<>
struct fmt::formatter< Wire::EthAddr > : fmt::formatter< std::string_view > {
   auto format( const Wire::EthAddr& a, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( Wire::valueToStrep( a ).view(), ctx );
   }
};
