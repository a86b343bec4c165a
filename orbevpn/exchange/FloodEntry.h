// OrbEvpn::FloodEntry: a VTEP that receives a VNI's BUM traffic.
//
// It carries nothing but its key: presence in the flood table is the
// information. Cross-process layout: offset 0, size 8, key (VniVtepPair).
// Its text form is its key's, and its parser reads that form.
#pragma once

#include "orbevpn/exchange/VniVtepPair.h"

namespace OrbEvpn {

class FloodEntry {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "OrbEvpn::FloodEntry";
   static constexpr const char* lumenTypeName = "OrbEvpn::FloodEntry";
   static void moxDescribe( Mox::TypeBuilder< FloodEntry >& b );

   constexpr FloodEntry() = default;
   explicit FloodEntry( const VniVtepPair& key ) : key_( key ) {}
   FloodEntry( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   const VniVtepPair& key() const { return key_; }
   Vxlan::Vni vni() const { return key_.vni(); }
   const Wire::IpAddr& vtepAddr() const { return key_.vtepAddr(); }

   bool operator==( const FloodEntry& o ) const {
      return key_.vni() == o.key_.vni() && key_.vtepAddr().value() == o.key_.vtepAddr().value();
   }

 private:
   static void checkLayout();

   VniVtepPair key_;
};

Mox::String valueToStrep( const FloodEntry& v );
std::ostream& operator<<( std::ostream& os, const FloodEntry& v );

}  // namespace OrbEvpn

template<>
struct fmt::formatter< OrbEvpn::FloodEntry > : fmt::formatter< std::string_view > {
   auto format( const OrbEvpn::FloodEntry& v, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( OrbEvpn::valueToStrep( v ).view(), ctx );
   }
};
