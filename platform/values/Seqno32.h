// Keel::Seqno32: a 32-bit sequence number (the sequence number of a host
// advertisement).
//
// One unsigned 32-bit word, a plain 4-byte field of shared-memory records:
// trivially copyable, do not add members. Immutable value type, safe to
// share between threads. Comparison is plain numeric (no wrap-around
// arithmetic); hash() is FNV-1a over the four bytes, most significant first.
// Text form: decimal.
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

namespace Keel {

class Seqno32 {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "Keel::Seqno32";

   constexpr Seqno32() = default;
   constexpr explicit Seqno32( uint32_t value ) : value_( value ) {}
   // Parses the decimal text form at `it` and leaves `it` after the digits.
   Seqno32( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   constexpr uint32_t value() const { return value_; }

   constexpr bool operator==( const Seqno32& ) const = default;
   constexpr auto operator<=>( const Seqno32& ) const = default;

   uint32_t hash() const;

   static void moxDescribe( Mox::TypeBuilder< Seqno32 >& b );

 private:
   uint32_t value_ = 0;
};

Mox::String valueToStrep( Seqno32 s );
std::ostream& operator<<( std::ostream& os, Seqno32 s );

}  // namespace Keel

template<>
struct std::hash< Keel::Seqno32 > {
   size_t operator()( Keel::Seqno32 s ) const { return s.hash(); }
};

template<>
struct fmt::formatter< Keel::Seqno32 > : fmt::formatter< std::string_view > {
   auto format( Keel::Seqno32 s, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( Keel::valueToStrep( s ).view(), ctx );
   }
};
