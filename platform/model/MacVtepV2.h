// VxlanController::MacVtepV2: one MAC-to-VTEP entry of a VNI's status.
//
// A value type: the MAC address, the VTEP behind it, the sequence number of
// the advertisement and the VTEP's preference. The default value (all
// zero, preference 16) stands for "no entry": it is what a status's
// macVtepTable answers for an absent MAC. Equality compares all four
// fields, so an entry that differs from another only in its preference is
// a different entry. Immutable once built except through the field
// setters of the generic interface; safe to copy between threads.
//
// Text form:
//    Value('VxlanController::MacVtepV2', ** {'macAddr': 00:1a:2b:3c:4d:5e,
//          'vtepAddr': 10.0.0.1, 'seqNo': 7, 'preference': 16})
// (on one line), and the cursor constructor parses exactly that.
#pragma once

#include "platform/mox/String.h"
#include "platform/values/EthAddr.h"
#include "platform/values/IpAddr.h"
#include "platform/values/Seqno32.h"

#include <fmt/format.h>

#include <cstdint>
#include <ostream>

namespace Mox {
template< class T >
class TypeBuilder;
}

namespace VxlanController {

class MacVtepV2 {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "VxlanController::MacVtepV2";
   static constexpr uint8_t defaultPreference = 16;

   MacVtepV2() = default;
   MacVtepV2( const Wire::EthAddr& macAddr, Wire::IpAddr vtepAddr, Keel::Seqno32 seqNo,
              uint8_t preference = defaultPreference )
         : macAddr_( macAddr ), vtepAddr_( vtepAddr ), seqNo_( seqNo ), preference_( preference ) {}
   // Parses the text form at `it` and leaves `it` after it.
   MacVtepV2( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   const Wire::EthAddr& macAddr() const { return macAddr_; }
   Wire::IpAddr vtepAddr() const { return vtepAddr_; }
   Keel::Seqno32 seqNo() const { return seqNo_; }
   uint8_t preference() const { return preference_; }

   // The MAC is the entry's key in its table and stays fixed; the rest may
   // be rewritten.
   void vtepAddrIs( Wire::IpAddr v ) { vtepAddr_ = v; }
   void seqNoIs( Keel::Seqno32 s ) { seqNo_ = s; }
   void preferenceIs( uint8_t p ) { preference_ = p; }

   bool operator==( const MacVtepV2& ) const = default;

   static void moxDescribe( Mox::TypeBuilder< MacVtepV2 >& b );

 private:
   Wire::EthAddr macAddr_;
   Wire::IpAddr vtepAddr_;
   Keel::Seqno32 seqNo_;
   uint8_t preference_ = defaultPreference;
};

Mox::String valueToStrep( const MacVtepV2& v );
std::ostream& operator<<( std::ostream& os, const MacVtepV2& v );

}  // namespace VxlanController

template<>
struct fmt::formatter< VxlanController::MacVtepV2 > : fmt::formatter< std::string_view > {
   auto format( const VxlanController::MacVtepV2& v, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( VxlanController::valueToStrep( v ).view(),
                                                         ctx );
   }
};
