#include "platform/values/IpAddr.h"

#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/internal/ValueText.h"

namespace Wire {

using Values::internal::textAt;

IpAddr::IpAddr( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end ) {
   const auto start = it;
   auto p = it;
   uint32_t v = 0;
   for ( int i = 0; i < 4; ++i ) {
      if ( i > 0 ) {
         if ( p == end || *p != '.' ) {
            MOX_THROW( Mox::RangeException,
                       "bad IPv4 address \"{}\": expected '.' after octet {}",
                       textAt( start, end ), i );
         }
         ++p;
      }
      size_t digits = 0;
      const uint64_t octet = Values::internal::readDecimalSaturating( p, end, 255, digits );
      if ( digits == 0 ) {
         MOX_THROW( Mox::RangeException, "bad IPv4 address \"{}\": expected octet {}",
                    textAt( start, end ), i + 1 );
      }
      // More than three digits is wrong even when the value is small ("0001").
      if ( digits > 3 || octet > 255 ) {
         MOX_THROW( Mox::RangeException,
                    "bad IPv4 address \"{}\": octet {} is not in 0..255",
                    textAt( start, end ), i + 1 );
      }
      v = v << 8 | static_cast< uint32_t >( octet );
   }
   value_ = v;
   it = p;
}

uint32_t IpAddr::hash() const {
   return Values::internal::fnv1a32( value_ );
}

void IpAddr::moxDescribe( Mox::TypeBuilder< IpAddr >& b ) {
   b.scalar( "value", &IpAddr::value ).hashable().valueConstructor< uint32_t >();
}

Mox::String valueToStrep( IpAddr a ) {
   const uint32_t v = a.value();
   return Mox::String( fmt::format( "{}.{}.{}.{}", v >> 24, v >> 16 & 0xFF, v >> 8 & 0xFF,
                                    v & 0xFF ) );
}

std::ostream& operator<<( std::ostream& os, IpAddr a ) {
   return os << valueToStrep( a );
}

}  // namespace Wire
