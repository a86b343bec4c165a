// OrbEvpn::Host: one host of the exchange, a MAC in a VNI behind one VTEP.
//
// Cross-process layout (host byte order; do not reorder):
//    offset 0   size 12  key (MacVniPair)
//    offset 12  size 4   vtepAddr (Wire::IpAddr)
//    offset 16  size 4   seqNo (Keel::Seqno32)
//    offset 20  size 1   preference (8-bit; 16 when not set)
//    offset 21  size 3   padding (no meaning, never compared)
// The key is fixed at construction; the other three fields can be set.
// The default Host (zero key and fields, preference 16) means "no host".
#pragma once

#include "orbevpn/exchange/MacVniPair.h"
#include "platform/values/IpAddr.h"
#include "platform/values/Seqno32.h"

namespace OrbEvpn {

class Host {
 public:
   using MoxBase = void;
   static constexpr const char* moxTypeName = "OrbEvpn::Host";
   static constexpr const char* lumenTypeName = "OrbEvpn::Host";
   static void moxDescribe( Mox::TypeBuilder< Host >& b );

   static constexpr uint8_t defaultPreference = 16;

   Host() = default;
   explicit Host( const MacVniPair& key ) : key_( key ) {}
   Host( Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end );

   const MacVniPair& key() const { return key_; }
   const Wire::EthAddr& macAddr() const { return key_.macAddr(); }
   Vxlan::Vni vni() const { return key_.vni(); }
   const Wire::IpAddr& vtepAddr() const { return vtepAddr_; }
   void vtepAddrIs( const Wire::IpAddr& a ) { vtepAddr_ = a; }
   Keel::Seqno32 seqNo() const { return seqNo_; }
   void seqNoIs( Keel::Seqno32 s ) { seqNo_ = s; }
   uint8_t preference() const { return preference_; }
   void preferenceIs( uint8_t p ) { preference_ = p; }

   bool operator==( const Host& o ) const {
      return key_.macAddr() == o.key_.macAddr() && key_.vni() == o.key_.vni() &&
             vtepAddr_ == o.vtepAddr_ && seqNo_ == o.seqNo_ && preference_ == o.preference_;
   }

 private:
   static void checkLayout();

   MacVniPair key_;
   Wire::IpAddr vtepAddr_;
   Keel::Seqno32 seqNo_;
   uint8_t preference_ = defaultPreference;
   [[maybe_unused]] uint8_t pad_[ 3 ] = {};   // layout only: never read
};

Mox::String valueToStrep( const Host& v );
std::ostream& operator<<( std::ostream& os, const Host& v );

}  // namespace OrbEvpn

template<>
struct fmt::formatter< OrbEvpn::Host > : fmt::formatter< std::string_view > {
   auto format( const OrbEvpn::Host& v, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( OrbEvpn::valueToStrep( v ).view(), ctx );
   }
};
