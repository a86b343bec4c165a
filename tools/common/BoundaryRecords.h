// The records of the shared tables that hold one value each: the EVPN
// side's capability and the agent's integration flag. Cross-process
// layouts (host byte order; do not reorder).
//    offset 0  size 4  key (always 0)
//    offset 4  size 1  the flag (0 or 1)
//    offset 5  size 3  padding (no meaning, never compared)
#pragma once

#include <cstdint>

namespace OrbEvpn {

// The key of a table that holds a single record.
struct SingletonKey {
   uint32_t id = 0;
   uint32_t hash() const { return 0x9e3779b9u; }
   bool operator==( const SingletonKey& ) const = default;
};

// What the EVPN agent says it can do (the shared form of EvpnCapability).
struct EvpnCapabilityRecord {
   static constexpr const char* lumenTypeName = "OrbEvpn::EvpnCapability";
   SingletonKey id;
   uint8_t evpnEnabled = 0;
   uint8_t pad[ 3 ] = {};
   const SingletonKey& key() const { return id; }
};

// The integration flag the agent publishes (the shared form of OrbEvpnConfig).
struct OrbEvpnConfigRecord {
   static constexpr const char* lumenTypeName = "OrbEvpn::OrbEvpnConfig";
   SingletonKey id;
   uint8_t orbEvpnIntegrationMode = 0;
   uint8_t pad[ 3 ] = {};
   const SingletonKey& key() const { return id; }
};

}  // namespace OrbEvpn
