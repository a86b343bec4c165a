// OrbEvpn::VniVtepPair: the key of a flood entry, a VTEP in a VNI's flood list.
//
// Cross-process layout (host byte order; do not reorder):
//    offset 0  size 4  vni (Vxlan::Vni)
//    offset 4  size 4  vtepAddr (Wire::IpAddr)
// Ordered by VNI first, then address. Same hash in every process.
#pragma once

#include "platform/mox/String.h"
#include "platform/mox/Type.h"
#include "platform/values/IpAddr.h"
#include "platform/values/Vni.h"

#include <fmt/format.h>

#include <cstdint>
#include <ostream>

namespace OrbEvpn {

class VniVtepPair {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "OrbEvpn::VniVtepPair";
   static void moxDescribe( Mox::TypeBuilder< VniVtepPair >& b );

   constexpr VniVtepPair() = default;
   VniVtepPair( Vxlan::Vni vni, const Wire::IpAddr& vtepAddr ) : vni_( vni ), vtepAddr_( vtepAddr ) {}
   VniVtepPair( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   Vxlan::Vni vni() const { return vni_; }
   const Wire::IpAddr& vtepAddr() const { return vtepAddr_; }

   bool operator==( const VniVtepPair& o ) const {
      return vni_ == o.vni_ && vtepAddr_.value() == o.vtepAddr_.value();
   }
   bool operator<( const VniVtepPair& o ) const {
      if ( vni_.value() != o.vni_.value() ) {
         return vni_.value() < o.vni_.value();
      }
      return vtepAddr_ < o.vtepAddr_;
   }
   uint32_t hash() const;

 private:
   static void checkLayout();

   Vxlan::Vni vni_;
   Wire::IpAddr vtepAddr_;
};

Mox::String valueToStrep( const VniVtepPair& v );
std::ostream& operator<<( std::ostream& os, const VniVtepPair& v );

}  // namespace OrbEvpn

template<>
struct std::hash< OrbEvpn::VniVtepPair > {
   size_t operator()( const OrbEvpn::VniVtepPair& k ) const { return k.hash(); }
};

template<>
struct fmt::formatter< OrbEvpn::VniVtepPair > : fmt::formatter< std::string_view > {
   auto format( const OrbEvpn::VniVtepPair& v, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( OrbEvpn::valueToStrep( v ).view(), ctx );
   }
};
