// Helpers shared by the value types of this library: the byte hash every
// type uses and the small cursor readers behind their text parsers.
//
// Header-only and stateless. The hash has no seed, so every process that
// loads this library (writer and readers of a shared table alike) computes
// the same number for the same value.
#pragma once

#include "platform/mox/String.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Values::internal {

inline constexpr uint32_t fnvOffsetBasis = 2166136261u;
inline constexpr uint32_t fnvPrime = 16777619u;

// FNV-1a over `n` bytes.
constexpr uint32_t fnv1a( const uint8_t* bytes, size_t n ) {
   uint32_t h = fnvOffsetBasis;
   for ( size_t i = 0; i < n; ++i ) {
      h = ( h ^ bytes[ i ] ) * fnvPrime;
   }
   return h;
}

// FNV-1a over the four bytes of `v`, most significant first, so the result
// does not depend on the host's byte order.
constexpr uint32_t fnv1a32( uint32_t v ) {
   const uint8_t b[ 4 ] = { static_cast< uint8_t >( v >> 24 ), static_cast< uint8_t >( v >> 16 ),
                            static_cast< uint8_t >( v >> 8 ), static_cast< uint8_t >( v ) };
   return fnv1a( b, 4 );
}

// Up to 40 characters of the text from `it`, for error messages.
inline std::string_view textAt( const Mox::String::IteratorConst& it,
                                const Mox::String::IteratorConst& end ) {
   std::string_view rest( it.ptr(), static_cast< size_t >( end - it ) );
   return rest.substr( 0, 40 );
}

inline bool isDecimalDigit( char c ) { return c >= '0' && c <= '9'; }

// Value of a hex digit, or -1.
inline int hexDigitValue( char c ) {
   if ( c >= '0' && c <= '9' ) {
      return c - '0';
   }
   if ( c >= 'a' && c <= 'f' ) {
      return c - 'a' + 10;
   }
   if ( c >= 'A' && c <= 'F' ) {
      return c - 'A' + 10;
   }
   return -1;
}

// Consumes every decimal digit at `it`. The value saturates just above
// `limit` instead of wrapping, so an overlong number still reads as out of
// range rather than as some small value. `digits` is how many were read.
inline uint64_t readDecimalSaturating( Mox::String::IteratorConst& it,
                                       const Mox::String::IteratorConst& end,
                                       uint64_t limit, size_t& digits ) {
   uint64_t v = 0;
   digits = 0;
   while ( it != end && isDecimalDigit( *it ) ) {
      if ( v <= limit ) {
         v = v * 10 + static_cast< uint64_t >( *it - '0' );
      }
      ++it;
      ++digits;
   }
   return v;
}

}  // namespace Values::internal
