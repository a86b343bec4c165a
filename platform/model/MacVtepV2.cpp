#include "platform/model/MacVtepV2.h"

#include "platform/mox/Type.h"

namespace VxlanController {

namespace {

constexpr std::string_view kPrefix = "Value('VxlanController::MacVtepV2', ** {";

}  // namespace

MacVtepV2::MacVtepV2( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end ) {
   Mox::requireText( it, end, kPrefix );
   Mox::requireText( it, end, "'macAddr': " );
   macAddr_ = Mox::readAttribute( "macAddr", [ & ] { return Wire::EthAddr( it, end ); } );
   Mox::requireText( it, end, ", 'vtepAddr': " );
   vtepAddrIs( Mox::readAttribute( "vtepAddr", [ & ] { return Wire::IpAddr( it, end ); } ) );
   Mox::requireText( it, end, ", 'seqNo': " );
   seqNoIs( Mox::readAttribute( "seqNo", [ & ] { return Keel::Seqno32( it, end ); } ) );
   Mox::requireText( it, end, ", 'preference': " );
   preference_ = static_cast< uint8_t >(
      Mox::readAttribute( "preference", [ & ] { return Mox::readUnsigned( it, end, 255 ); } ) );
   Mox::requireText( it, end, "})" );
}

void MacVtepV2::moxDescribe( Mox::TypeBuilder< MacVtepV2 >& b ) {
   b.scalar( "macAddr", &MacVtepV2::macAddr )
      .scalar( "vtepAddr", &MacVtepV2::vtepAddr, &MacVtepV2::vtepAddrIs )
      .scalar( "seqNo", &MacVtepV2::seqNo, &MacVtepV2::seqNoIs )
      .scalar( "preference", &MacVtepV2::preference, &MacVtepV2::preferenceIs )
      .valueConstructor< Wire::EthAddr, Wire::IpAddr, Keel::Seqno32, uint8_t >();
}

Mox::String valueToStrep( const MacVtepV2& v ) {
   return Mox::String( fmt::format( "{}'macAddr': {}, 'vtepAddr': {}, 'seqNo': {}, "
                                    "'preference': {}}})",
                                    kPrefix, v.macAddr(), v.vtepAddr(), v.seqNo(),
                                    unsigned( v.preference() ) ) );
}

std::ostream& operator<<( std::ostream& os, const MacVtepV2& v ) {
   return os << valueToStrep( v );
}

}  // namespace VxlanController
