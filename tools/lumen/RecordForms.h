// The forms in which the lumen tool shows each record type it knows: JSON
// (the forms every program of the system prints and parses, field order
// included), the JSON of a key alone (what a removal names), and a text form
// by which records are sorted, so that two dumps of equal tables are equal
// line for line.
//
// One specialisation of RecordForm per record type; tools/lumen/Catalog.cpp
// lists the types by their Lumen type names.
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/model/OrbBrIdList.h"
#include "tools/common/BoundaryRecords.h"

#include <nlohmann/json.hpp>

#include <string>

namespace LumenTool {

using Json = nlohmann::ordered_json;

template< class Record >
struct RecordForm;

inline std::string macText( const Wire::EthAddr& mac ) { return Wire::valueToStrep( mac ).str(); }
inline std::string ipText( const Wire::IpAddr& ip ) { return Wire::valueToStrep( ip ).str(); }

template<>
struct RecordForm< OrbEvpn::Host > {
   static Json key( const OrbEvpn::MacVniPair& k ) {
      return { { "mac", macText( k.macAddr() ) }, { "vni", k.vni().value() } };
   }
   static Json json( const OrbEvpn::Host& h ) {
      return { { "mac", macText( h.macAddr() ) },
               { "vni", h.vni().value() },
               { "vtep", ipText( h.vtepAddr() ) },
               { "seqNo", h.seqNo().value() },
               { "preference", h.preference() } };
   }
   static std::string text( const OrbEvpn::Host& h ) { return OrbEvpn::valueToStrep( h ).str(); }
};

template<>
struct RecordForm< OrbEvpn::FloodEntry > {
   // A flood entry is its key.
   static Json key( const OrbEvpn::VniVtepPair& k ) {
      return { { "vni", k.vni().value() }, { "vtep", ipText( k.vtepAddr() ) } };
   }
   static Json json( const OrbEvpn::FloodEntry& e ) { return key( e.key() ); }
   static std::string text( const OrbEvpn::FloodEntry& e ) {
      return OrbEvpn::valueToStrep( e ).str();
   }
};

template<>
struct RecordForm< OrbEvpn::BrIdListRecord > {
   // The VNI of a VNI bridge; null for a bridge of another type, which the
   // list should never hold but a person debugging it wants to see.
   static Json key( const Bridging::BridgeId& b ) {
      Json vni = b.isVni() ? Json( b.value() & Bridging::BridgeId::localMask ) : Json();
      return { { "brId", b.value() }, { "vni", vni } };
   }
   static Json json( const OrbEvpn::BrIdListRecord& r ) {
      Json j = key( r.brId );
      j[ "value" ] = r.value;
      return j;
   }
   static std::string text( const OrbEvpn::BrIdListRecord& r ) {
      return fmt::format( "{} {}", Bridging::valueToStrep( r.brId ).str(), r.value );
   }
};

// The two single-record tables: the key is always 0.
template<>
struct RecordForm< OrbEvpn::EvpnCapabilityRecord > {
   static Json key( const OrbEvpn::SingletonKey& k ) { return { { "id", k.id } }; }
   static Json json( const OrbEvpn::EvpnCapabilityRecord& r ) {
      return { { "evpnEnabled", r.evpnEnabled != 0 } };
   }
   static std::string text( const OrbEvpn::EvpnCapabilityRecord& r ) {
      return fmt::format( "{} {}", r.id.id, r.evpnEnabled != 0 );
   }
};

template<>
struct RecordForm< OrbEvpn::OrbEvpnConfigRecord > {
   static Json key( const OrbEvpn::SingletonKey& k ) { return { { "id", k.id } }; }
   static Json json( const OrbEvpn::OrbEvpnConfigRecord& r ) {
      return { { "orbEvpnIntegrationMode", r.orbEvpnIntegrationMode != 0 } };
   }
   static std::string text( const OrbEvpn::OrbEvpnConfigRecord& r ) {
      return fmt::format( "{} {}", r.id.id, r.orbEvpnIntegrationMode != 0 );
   }
};

}  // namespace LumenTool
