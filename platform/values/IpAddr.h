// Wire::IpAddr: an IPv4 address, such as a VTEP's.
//
// One 32-bit word in host byte order (10.0.0.1 is 0x0a000001), a plain
// 4-byte field of shared-memory records: trivially copyable, do not add
// members. Immutable value type, safe to share between threads. Order is
// numeric; hash() is FNV-1a over the four bytes in wire order, the same in
// every process. Text form: dotted decimal, "10.0.0.1".
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

class IpAddr {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "Wire::IpAddr";

   constexpr IpAddr() = default;
   constexpr explicit IpAddr( uint32_t value ) : value_( value ) {}
   static constexpr IpAddr fromOctets( uint8_t a, uint8_t b, uint8_t c, uint8_t d ) {
      return IpAddr( uint32_t( a ) << 24 | uint32_t( b ) << 16 | uint32_t( c ) << 8 | d );
   }
   // Parses the dotted-decimal form at `it` and leaves `it` after it.
   IpAddr( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   constexpr uint32_t value() const { return value_; }
   constexpr bool isZero() const { return value_ == 0; }

   constexpr bool operator==( const IpAddr& ) const = default;
   constexpr auto operator<=>( const IpAddr& ) const = default;

   uint32_t hash() const;

   static void moxDescribe( Mox::TypeBuilder< IpAddr >& b );

 private:
   uint32_t value_ = 0;
};

Mox::String valueToStrep( IpAddr a );
std::ostream& operator<<( std::ostream& os, IpAddr a );

}  // namespace Wire

template<>
struct std::hash< Wire::IpAddr > {
   size_t operator()( Wire::IpAddr a ) const { return a.hash(); }
};

template<>
struct fmt::formatter< Wire::IpAddr > : fmt::formatter< std::string_view > {
   auto format( Wire::IpAddr a, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( Wire::valueToStrep( a ).view(), ctx );
   }
};
