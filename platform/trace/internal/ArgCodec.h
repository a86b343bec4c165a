// How a trace argument is kept in the ring until the ring is dumped; used by
// RingLog, not for direct use.
//
// Three kinds of argument:
//  - strings (std::string, std::string_view, char pointers and arrays): the
//    characters are copied, as a 32-bit length and the bytes;
//  - other trivially copyable types (numbers, bool, enums, plain structs with
//    a formatter): the object's bytes are copied and it is formatted only when
//    the ring is dumped, with the value it had when the statement ran;
//  - everything else (and trivially copyable types that only refer to memory
//    they do not own, see FormatAtRecordTime): formatted with "{}" when the
//    statement runs and kept as a string. A format specifier such as "{:>8}" in the
//    statement is then applied to that string at dump time.
#pragma once

#include <fmt/format.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace Trace {

// Specialise to std::true_type for a trivially copyable type that points at
// memory it does not own (a view, an iterator pair): copying its bytes would
// leave the ring with a dangling pointer, so it is formatted as the statement
// runs instead.
template < typename T >
struct FormatAtRecordTime : std::false_type {};
template < typename T, std::size_t N >
struct FormatAtRecordTime< std::span< T, N > > : std::true_type {};
template < typename It, typename Sentinel, typename Char >
struct FormatAtRecordTime< fmt::join_view< It, Sentinel, Char > > : std::true_type {};

}  // namespace Trace

namespace Trace::internal {

// Append-only byte buffer with inline room for a typical record.
using EncodeBuffer = fmt::basic_memory_buffer< char, 256 >;

class ArgReader {
 public:
   ArgReader( const std::byte* data, size_t size ) : data_( data ), size_( size ) {}
   void read( void* to, size_t n ) {
      // Records are written by this process only; a short record means a bug
      // in the codec, and reading past it must still stay in bounds.
      if ( n > size_ - pos_ ) {
         throw std::length_error( "trace ring record shorter than its arguments" );
      }
      std::memcpy( to, data_ + pos_, n );
      pos_ += n;
   }

 private:
   const std::byte* data_;
   size_t size_;
   size_t pos_ = 0;
};

inline void put( EncodeBuffer& out, const void* from, size_t n ) {
   const char* p = static_cast< const char* >( from );
   out.append( p, p + n );
}

template < typename T >
inline constexpr bool isString =
   std::is_same_v< T, std::string > || std::is_same_v< T, std::string_view > ||
   std::is_same_v< T, const char* > || std::is_same_v< T, char* >;

enum class ArgKind { string, raw, formatted };

template < typename T >
constexpr ArgKind argKind() {
   if constexpr ( isString< T > ) {
      return ArgKind::string;
   } else if constexpr ( std::is_trivially_copyable_v< T > &&
                         !FormatAtRecordTime< T >::value ) {
      return ArgKind::raw;
   } else {
      return ArgKind::formatted;
   }
}

// The type an argument is kept as: a char array becomes const char*.
template < typename A >
using Stored = std::decay_t< const A& >;

// T is a Stored type.
template < typename T, ArgKind = argKind< T >() >
struct Codec;

template < typename T >
struct Codec< T, ArgKind::raw > {
   static const T& prepare( const T& v ) { return v; }
   static void encode( EncodeBuffer& out, const T& v ) { put( out, &v, sizeof( T ) ); }
   static T decode( ArgReader& in ) {
      std::array< std::byte, sizeof( T ) > bytes;
      in.read( bytes.data(), bytes.size() );
      return std::bit_cast< T >( bytes );
   }
};

template < typename T >
struct Codec< T, ArgKind::string > {
   static std::string_view prepare( const T& v ) {
      if constexpr ( std::is_pointer_v< T > ) {
         return v ? std::string_view( v ) : std::string_view( "(null)" );
      } else {
         return v;
      }
   }
   static void encode( EncodeBuffer& out, std::string_view s ) {
      uint32_t n = static_cast< uint32_t >( s.size() );
      put( out, &n, sizeof n );
      put( out, s.data(), n );
   }
   // Decoded strings own their bytes: the record buffer may be reused.
   static std::string decode( ArgReader& in ) {
      uint32_t n = 0;
      in.read( &n, sizeof n );
      std::string s( n, '\0' );
      in.read( s.data(), n );
      return s;
   }
};

template < typename T >
struct Codec< T, ArgKind::formatted > {
   static std::string prepare( const T& v ) { return fmt::format( "{}", v ); }
   static void encode( EncodeBuffer& out, std::string_view s ) {
      Codec< std::string >::encode( out, s );
   }
   static std::string decode( ArgReader& in ) { return Codec< std::string >::decode( in ); }
};

// Formats a record's arguments with its format string. One instantiation per
// list of argument types; its address is stored in the record.
using RenderFn = std::string ( * )( std::string_view format, const std::byte* args,
                                    size_t size );

template < typename... T >
std::string render( std::string_view format, const std::byte* args, size_t size ) {
   ArgReader in( args, size );
   // Braced initialisation decodes the arguments left to right.
   std::tuple< decltype( Codec< T >::decode( in ) )... > values{ Codec< T >::decode( in )... };
   return std::apply(
      [ & ]( auto&... v ) { return fmt::vformat( format, fmt::make_format_args( v... ) ); },
      values );
}

}  // namespace Trace::internal
