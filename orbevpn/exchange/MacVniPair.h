// OrbEvpn::MacVniPair: the key of a host, a MAC address in a VNI.
//
// Stored by value in the shared host table, so its layout is a
// cross-process format (host byte order; do not reorder):
//    offset 0  size 6  macAddr (Wire::EthAddr)
//    offset 6  size 2  padding (no meaning, never compared)
//    offset 8  size 4  vni (Vxlan::Vni)
// Ordered by MAC first, then VNI. The hash mixes the MAC's own hash with
// the VNI and is the same in every process.
#pragma once

#include "platform/mox/String.h"
#include "platform/mox/Type.h"
#include "platform/values/EthAddr.h"
#include "platform/values/Vni.h"

#include <fmt/format.h>

#include <cstdint>
#include <ostream>

namespace OrbEvpn {

class MacVniPair {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "OrbEvpn::MacVniPair";
   static void moxDescribe( Mox::TypeBuilder< MacVniPair >& b );

   constexpr MacVniPair() = default;
   MacVniPair( const Wire::EthAddr& macAddr, Vxlan::Vni vni ) : macAddr_( macAddr ), vni_( vni ) {}
   // Parses the text form at `it`, leaving `it` after it.
   MacVniPair( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   const Wire::EthAddr& macAddr() const { return macAddr_; }
   Vxlan::Vni vni() const { return vni_; }

   bool operator==( const MacVniPair& o ) const {
      return macAddr_ == o.macAddr_ && vni_ == o.vni_;
   }
   bool operator<( const MacVniPair& o ) const {
      // One three-way compare of the MACs, not an equality test and then an
      // ordering: sorting a reader's catch-up compares keys a few million
      // times.
      const auto byMac = macAddr_ <=> o.macAddr_;
      return byMac != 0 ? byMac < 0 : vni_.value() < o.vni_.value();
   }
   uint32_t hash() const;

 private:
   static void checkLayout();

   Wire::EthAddr macAddr_;
   uint8_t pad_[ 2 ] = {};
   Vxlan::Vni vni_;
};

Mox::String valueToStrep( const MacVniPair& v );
std::ostream& operator<<( std::ostream& os, const MacVniPair& v );

}  // namespace OrbEvpn

template<>
struct std::hash< OrbEvpn::MacVniPair > {
   size_t operator()( const OrbEvpn::MacVniPair& k ) const { return k.hash(); }
};

template<>
struct fmt::formatter< OrbEvpn::MacVniPair > : fmt::formatter< std::string_view > {
   auto format( const OrbEvpn::MacVniPair& v, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( OrbEvpn::valueToStrep( v ).view(), ctx );
   }
};
