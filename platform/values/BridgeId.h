// Bridging::BridgeId: a 32-bit bridge identifier.
//
// The top 8 bits are the bridge type, the low 24 bits identify the bridge
// within its type. A VXLAN bridge has type brTypeVni() and carries its VNI
// in the low 24 bits, so the bridge id of VNI v is 0x2000000 + v. Asking a
// bridge id of another type for its VNI is a programming error (fatal
// assertion). Immutable value type, safe to share between threads.
//
// Text form: "vni:<decimal VNI>" for VNI bridges, "type:<type>:<low 24
// bits>" (both decimal) for any other type. The parser takes both forms.
#pragma once

#include "platform/mox/String.h"
#include "platform/values/Vni.h"

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

namespace Bridging {

class BridgeId {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "Bridging::BridgeId";

   static constexpr uint8_t brTypeVni() { return 2; }
   static constexpr uint32_t localMask = 0xFFFFFF;

   constexpr BridgeId() = default;
   constexpr explicit BridgeId( uint32_t raw ) : value_( raw ) {}
   constexpr explicit BridgeId( Vxlan::Vni vni )
         : value_( uint32_t( brTypeVni() ) << 24 | ( vni.value() & localMask ) ) {}
   static constexpr BridgeId fromVni( Vxlan::Vni vni ) { return BridgeId( vni ); }
   // Parses the text form at `it` and leaves `it` after it.
   BridgeId( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   constexpr uint32_t value() const { return value_; }
   constexpr uint8_t brType() const { return static_cast< uint8_t >( value_ >> 24 ); }
   constexpr bool isVni() const { return brType() == brTypeVni(); }
   // The VNI of a VNI bridge; fatal for any other bridge type.
   Vxlan::Vni vni() const;

   constexpr bool operator==( const BridgeId& ) const = default;
   constexpr auto operator<=>( const BridgeId& ) const = default;

   uint32_t hash() const;

   static void moxDescribe( Mox::TypeBuilder< BridgeId >& b );

 private:
   uint32_t value_ = 0;
};

Mox::String valueToStrep( BridgeId id );
std::ostream& operator<<( std::ostream& os, BridgeId id );

}  // namespace Bridging

template<>
struct std::hash< Bridging::BridgeId > {
   size_t operator()( Bridging::BridgeId id ) const { return id.hash(); }
};

template<>
struct fmt::formatter< Bridging::BridgeId > : fmt::formatter< std::string_view > {
   auto format( Bridging::BridgeId id, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( Bridging::valueToStrep( id ).view(),
                                                         ctx );
   }
};
