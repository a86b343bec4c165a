#include "platform/values/BridgeId.h"

#include "platform/mox/Assert.h"
#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/internal/ValueText.h"

#include <string_view>

namespace Bridging {

namespace {

bool consume( Mox::String::IteratorConst& p, const Mox::String::IteratorConst& end,
              std::string_view literal ) {
   if ( static_cast< size_t >( end - p ) < literal.size() ||
        std::string_view( p.ptr(), literal.size() ) != literal ) {
      return false;
   }
   p += static_cast< std::ptrdiff_t >( literal.size() );
   return true;
}

}  // namespace

BridgeId::BridgeId( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end ) {
   auto p = it;
   if ( consume( p, end, "vni:" ) ) {
      *this = BridgeId( Vxlan::Vni( p, end ) );
   } else if ( consume( p, end, "type:" ) ) {
      const auto type = static_cast< uint32_t >( Mox::readUnsigned( p, end, 0xFF ) );
      if ( !consume( p, end, ":" ) ) {
         MOX_THROW( Mox::RangeException, "bad bridge id \"{}\": expected ':' after the type",
                    Values::internal::textAt( it, end ) );
      }
      const auto local = static_cast< uint32_t >( Mox::readUnsigned( p, end, localMask ) );
      value_ = type << 24 | local;
   } else {
      MOX_THROW( Mox::RangeException,
                 "bad bridge id \"{}\": expected \"vni:\" or \"type:\"",
                 Values::internal::textAt( it, end ) );
   }
   it = p;
}

Vxlan::Vni BridgeId::vni() const {
   MOX_ASSERT( brType() == brTypeVni() );
   return Vxlan::Vni( value_ & localMask );
}

uint32_t BridgeId::hash() const {
   return Values::internal::fnv1a32( value_ );
}

void BridgeId::moxDescribe( Mox::TypeBuilder< BridgeId >& b ) {
   b.scalar( "value", &BridgeId::value )
      .scalar( "brType", &BridgeId::brType )
      .hashable()
      .valueConstructor< uint32_t >();
}

Mox::String valueToStrep( BridgeId id ) {
   if ( id.isVni() ) {
      return Mox::String( fmt::format( "vni:{}", id.value() & BridgeId::localMask ) );
   }
   return Mox::String(
      fmt::format( "type:{}:{}", id.brType(), id.value() & BridgeId::localMask ) );
}

std::ostream& operator<<( std::ostream& os, BridgeId id ) {
   return os << valueToStrep( id );
}

}  // namespace Bridging
