// The agent's side of the boundary, written the way the agent writes it:
// for tests of an EVPN agent (the stand-in peer, orbevpn-bgp) in a private
// Lumen root (tests/support/LumenRoot.h, made first).
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Table.h"
#include "platform/model/OrbBrIdList.h"
#include "tools/common/Boundary.h"
#include "tools/common/BoundaryRecords.h"

#include <string>

namespace OrbEvpn::Testing {

class AgentTables {
 public:
   explicit AgentTables( const std::string& prefix = std::string( Boundary::defaultPrefix ) ) {
      host.attach( Boundary::pathOf( prefix, Boundary::exportHost ) );
      flood.attach( Boundary::pathOf( prefix, Boundary::exportFlood ) );
      brIds.attach( Boundary::pathOf( prefix, Boundary::brIdList ) );
      config.attach( Boundary::pathOf( prefix, Boundary::config ) );
   }
   // The integration flag.
   void flag( bool on ) {
      OrbEvpnConfigRecord r;
      r.orbEvpnIntegrationMode = on;
      config.write( r );
   }
   void list( uint32_t vni ) { brIds.write( BrIdListRecord( Bridging::BridgeId( Vxlan::Vni( vni ) ), true ) ); }
   void unlist( uint32_t vni ) { brIds.remove( Bridging::BridgeId( Vxlan::Vni( vni ) ) ); }

   Lumen::Writer< Host > host;
   Lumen::Writer< FloodEntry > flood;
   Lumen::Writer< BrIdListRecord > brIds;
   Lumen::Writer< OrbEvpnConfigRecord > config;
};

}  // namespace OrbEvpn::Testing
