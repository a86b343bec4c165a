#include "platform/values/EthAddr.h"

#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/internal/ValueText.h"

#include <cstring>

namespace Wire {

using Values::internal::hexDigitValue;
using Values::internal::textAt;

EthAddr::EthAddr( const uint8_t* bytes ) {
   std::memcpy( bytes_, bytes, size );
}

EthAddr::EthAddr( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end ) {
   const auto start = it;
   auto p = it;
   for ( size_t i = 0; i < size; ++i ) {
      if ( i > 0 ) {
         if ( p == end || *p != ':' ) {
            MOX_THROW( Mox::RangeException,
                       "bad MAC address \"{}\": expected ':' after byte {}",
                       textAt( start, end ), i );
         }
         ++p;
      }
      const int h = p != end ? hexDigitValue( *p ) : -1;
      const int l = h >= 0 && p + 1 != end ? hexDigitValue( *( p + 1 ) ) : -1;
      if ( h < 0 || l < 0 ) {
         MOX_THROW( Mox::RangeException,
                    "bad MAC address \"{}\": expected two hex digits for byte {}",
                    textAt( start, end ), i + 1 );
      }
      bytes_[ i ] = static_cast< uint8_t >( h << 4 | l );
      p += 2;
   }
   // A hex digit right after the last byte is part of the address, not of
   // whatever text follows it.
   if ( p != end && hexDigitValue( *p ) >= 0 ) {
      MOX_THROW( Mox::RangeException,
                 "bad MAC address \"{}\": more than two hex digits in byte 6",
                 textAt( start, end ) );
   }
   it = p;
}

uint32_t EthAddr::hash() const {
   return Values::internal::fnv1a( bytes_, size );
}

void EthAddr::moxDescribe( Mox::TypeBuilder< EthAddr >& b ) {
   b.scalar( "word0", &EthAddr::word0 )
      .scalar( "word1", &EthAddr::word1 )
      .scalar( "word2", &EthAddr::word2 )
      .hashable()
      .valueConstructor< uint16_t, uint16_t, uint16_t >();
}

Mox::String valueToStrep( const EthAddr& a ) {
   const uint8_t* b = a.bytes();
   return Mox::String( fmt::format( "{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[ 0 ],
                                    b[ 1 ], b[ 2 ], b[ 3 ], b[ 4 ], b[ 5 ] ) );
}

std::ostream& operator<<( std::ostream& os, const EthAddr& a ) {
   return os << valueToStrep( a );
}

}  // namespace Wire
