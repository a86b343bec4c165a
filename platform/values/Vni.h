// Vxlan::Vni: a VXLAN network identifier.
//
// A 24-bit number held in an unsigned 32-bit word, so that it sits in
// shared-memory records as a plain 4-byte field. Invariant: value() <= max;
// every constructor enforces it (a RangeException otherwise), so a Vni that
// exists is valid. Immutable value type, safe to share between threads.
// Its text form is the plain decimal number, which is also the name under
// which a VNI's entity is filed in a directory.
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

namespace Vxlan {

class Vni {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "Vxlan::Vni";

   static constexpr uint32_t min = 0;
   static constexpr uint32_t max = 0xFFFFFF;

   constexpr Vni() = default;
   constexpr explicit Vni( uint32_t value ) : value_( value ) {
      if ( value > max ) {
         throwOutOfRange();
      }
   }
   // Parses the decimal text form at `it` and leaves `it` after the digits.
   Vni( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   constexpr uint32_t value() const { return value_; }

   bool operator==( const Vni& ) const = default;
   auto operator<=>( const Vni& ) const = default;

   uint32_t hash() const;

   static void moxDescribe( Mox::TypeBuilder< Vni >& b );

 private:
   // Out of line so that the constructor stays constexpr.
   [[noreturn]] static void throwOutOfRange();

   uint32_t value_ = 0;
};

Mox::String valueToStrep( Vni v );

// The VNI a directory entry's name stands for, read as a controller's model
// reads it: a base-10 strtol of the whole text with trailing characters
// ignored, taken as an unsigned 32-bit value. A name that is no number is
// VNI 0 ("abc"), "7abc" is 7, and anything above Vni::max ("16777216", or
// "-1", which wraps) raises the range exception.
Vni vniFromName( const Mox::String& name );
std::ostream& operator<<( std::ostream& os, Vni v );

}  // namespace Vxlan

template<>
struct std::hash< Vxlan::Vni > {
   size_t operator()( Vxlan::Vni v ) const { return v.hash(); }
};

template<>
struct fmt::formatter< Vxlan::Vni > : fmt::formatter< std::string_view > {
   auto format( Vxlan::Vni v, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( Vxlan::valueToStrep( v ).view(), ctx );
   }
};
