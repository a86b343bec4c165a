#include "tools/common/EvpnSide.h"

#include "tools/common/Boundary.h"
#include "tools/common/Recovery.h"

namespace OrbEvpn::Boundary {

namespace {

// The export table's empty slots read as a default host.
bool vacantHost( const Host& h ) { return h == Host(); }

}  // namespace

EvpnSideTables::EvpnSideTables( std::string_view prefix,
                                const std::function< void( const std::string& ) >& report ) {
   checkPrefix( prefix );
   // A table damaged while no EVPN agent held it is made anew; its content
   // follows from the export and the peers again.
   for ( const std::string& line : setAsideDamagedTables( prefix, Side::evpn ) ) {
      report( line );
   }
   hostOut.attach( pathOf( prefix, evpnHost ) );
   floodOut.attach( pathOf( prefix, evpnFlood ) );
   capabilityOut.attach( pathOf( prefix, evpnCapability ) );
   exportHost = std::make_unique< Lumen::Reader< Host > >( pathOf( prefix, Boundary::exportHost ), Host(),
                                                           &vacantHost );
   exportFlood = std::make_unique< Lumen::Reader< FloodEntry > >( pathOf( prefix, Boundary::exportFlood ) );
   brIdList = std::make_unique< Lumen::Reader< BrIdListRecord > >( pathOf( prefix, Boundary::brIdList ) );
   config = std::make_unique< Lumen::Reader< OrbEvpnConfigRecord > >( pathOf( prefix, Boundary::config ) );
}

void EvpnSideTables::announce() {
   EvpnCapabilityRecord cap;
   cap.evpnEnabled = 1;
   capabilityOut.write( cap );
}

bool EvpnSideTables::integrationMode() const {
   return config->count() > 0 && config->lookup( SingletonKey{} ).orbEvpnIntegrationMode != 0;
}

bool EvpnSideTables::listed( uint32_t vni ) const {
   return vni <= Vxlan::Vni::max && brIdList->contains( Bridging::BridgeId( Vxlan::Vni( vni ) ) );
}

std::vector< int > EvpnSideTables::fds() const {
   return { exportHost->fd(), exportFlood->fd(), brIdList->fd(), config->fd() };
}

void EvpnSideTables::dispatch() {
   exportHost->dispatch();
   exportFlood->dispatch();
   brIdList->dispatch();
   config->dispatch();
}

}  // namespace OrbEvpn::Boundary
