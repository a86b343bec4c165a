#include "platform/values/Seqno32.h"

#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/internal/ValueText.h"

#include <limits>

namespace Keel {

Seqno32::Seqno32( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end )
      : value_( static_cast< uint32_t >(
           Mox::readUnsigned( it, end, std::numeric_limits< uint32_t >::max() ) ) ) {}

uint32_t Seqno32::hash() const {
   return Values::internal::fnv1a32( value_ );
}

void Seqno32::moxDescribe( Mox::TypeBuilder< Seqno32 >& b ) {
   b.scalar( "value", &Seqno32::value ).hashable().valueConstructor< uint32_t >();
}

Mox::String valueToStrep( Seqno32 s ) {
   return Mox::String( fmt::format_int( s.value() ).str() );
}

std::ostream& operator<<( std::ostream& os, Seqno32 s ) {
   return os << valueToStrep( s );
}

}  // namespace Keel
