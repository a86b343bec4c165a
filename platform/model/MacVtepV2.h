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
         : macAddr_( macAddr ), vtepAddr_( vtepAddr.value() ), seqNo_( seqNo.value() ),
           preference_( preference ) {}
   // Parses the text form at `it` and leaves `it` after it.
   MacVtepV2( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   const Wire::EthAddr& macAddr() const { return macAddr_; }
   Wire::IpAddr vtepAddr() const { return Wire::IpAddr( vtepAddr_.value() ); }
   Keel::Seqno32 seqNo() const { return Keel::Seqno32( seqNo_.value() ); }
   uint8_t preference() const { return preference_; }

   // The MAC is the entry's key in its table and stays fixed; the rest may
   // be rewritten.
   void vtepAddrIs( Wire::IpAddr v ) { vtepAddr_ = Half32( v.value() ); }
   void seqNoIs( Keel::Seqno32 s ) { seqNo_ = Half32( s.value() ); }
   void preferenceIs( uint8_t p ) { preference_ = p; }

   bool operator==( const MacVtepV2& ) const = default;

   static void moxDescribe( Mox::TypeBuilder< MacVtepV2 >& b );

 private:
   // A 32-bit field kept at the MAC's two-byte alignment. A controller
   // holds one entry per host in an ordered map keyed by the MAC: at 16
   // bytes (rather than 20 with four-byte fields) the map's node takes a
   // 64-byte heap block instead of an 80-byte one.
   struct Half32 {
      uint16_t high = 0;
      uint16_t low = 0;
      constexpr Half32() = default;
      constexpr explicit Half32( uint32_t v ) : high( uint16_t( v >> 16 ) ), low( uint16_t( v ) ) {}
      constexpr uint32_t value() const { return uint32_t( high ) << 16 | low; }
      bool operator==( const Half32& ) const = default;
   };

   Wire::EthAddr macAddr_;
   Half32 vtepAddr_;
   Half32 seqNo_;
   uint8_t preference_ = defaultPreference;
};
static_assert( sizeof( MacVtepV2 ) == 16 && alignof( MacVtepV2 ) == 2 );

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
