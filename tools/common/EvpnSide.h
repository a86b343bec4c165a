// EvpnSide: the boundary's shared tables as an EVPN agent holds them (the
// stand-in peer, orbevpn-bgp): those it writes, evpn/host, evpn/flood and
// evpn/capability, and those it follows, export/host, export/flood,
// brIdList and config. Boundary.h says what each holds.
//
// A VNI is advertised while its bridge id is listed and the integration
// flag is true; only then does an EVPN agent advertise the VNI's exported
// hosts and flood entries, and import remote ones for it.
//
// Threading: one thread, the owner's; dispatch() runs the readers'
// callbacks (set with onKeyIs() on the readers) on it.
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Table.h"
#include "platform/model/OrbBrIdList.h"
#include "tools/common/BoundaryRecords.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace OrbEvpn::Boundary {

class EvpnSideTables {
 public:
   // Checks the prefix (std::invalid_argument), moves aside a table of its
   // own found damaged at rest (reporting one line each), attaches its
   // writers, taking over what an earlier run left, and mounts the readers.
   EvpnSideTables( std::string_view prefix, const std::function< void( const std::string& ) >& report );
   EvpnSideTables( const EvpnSideTables& ) = delete;
   EvpnSideTables& operator=( const EvpnSideTables& ) = delete;

   // Says the EVPN agent is there (evpn/capability, evpnEnabled).
   void announce();

   bool integrationMode() const;
   // The VNI's bridge id is in brIdList.
   bool listed( uint32_t vni ) const;
   bool advertised( uint32_t vni ) const { return integrationMode() && listed( vni ); }

   // The readers' descriptors: poll them for input, then call dispatch().
   std::vector< int > fds() const;
   void dispatch();

   Lumen::Writer< Host > hostOut;
   Lumen::Writer< FloodEntry > floodOut;
   Lumen::Writer< EvpnCapabilityRecord > capabilityOut;
   std::unique_ptr< Lumen::Reader< Host > > exportHost;
   std::unique_ptr< Lumen::Reader< FloodEntry > > exportFlood;
   std::unique_ptr< Lumen::Reader< BrIdListRecord > > brIdList;
   std::unique_ptr< Lumen::Reader< OrbEvpnConfigRecord > > config;
};

}  // namespace OrbEvpn::Boundary
