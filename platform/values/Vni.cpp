#include "platform/values/Vni.h"

#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/internal/ValueText.h"

#include <cstdlib>
#include <string>

namespace Vxlan {

void Vni::throwOutOfRange() {
   MOX_THROW( Mox::RangeException,
              "Vxlan::Vni::value < Vxlan::Vni::min or > Vxlan::Vni::max not allowed" );
}

Vni vniFromName( const Mox::String& name ) {
   // strtol needs a terminated string; Mox::String views need not be.
   const std::string text( name.view() );
   return Vni( static_cast< uint32_t >( std::strtol( text.c_str(), nullptr, 10 ) ) );
}

Vni::Vni( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end ) {
   const auto start = it;
   size_t digits = 0;
   auto p = it;
   const uint64_t v = Values::internal::readDecimalSaturating( p, end, max, digits );
   if ( digits == 0 ) {
      MOX_THROW( Mox::RangeException, "expected a VNI number at \"{}\"",
                 Values::internal::textAt( start, end ) );
   }
   if ( v > max ) {
      throwOutOfRange();
   }
   value_ = static_cast< uint32_t >( v );
   it = p;
}

uint32_t Vni::hash() const {
   return Values::internal::fnv1a32( value_ );
}

void Vni::moxDescribe( Mox::TypeBuilder< Vni >& b ) {
   b.scalar( "value", &Vni::value ).hashable().valueConstructor< uint32_t >();
}

Mox::String valueToStrep( Vni v ) {
   return Mox::String( fmt::format_int( v.value() ).str() );
}

std::ostream& operator<<( std::ostream& os, Vni v ) {
   return os << valueToStrep( v );
}

}  // namespace Vxlan
