#include "tools/common/Boundary.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace OrbEvpn::Boundary {

const char* sideName( Side s ) {
   return s == Side::agent ? "orbevpn-agent" : "the EVPN agent";
}

const std::vector< TableSpec >& tables() {
   static const std::vector< TableSpec > all{
      { exportHost, "OrbEvpn::Host", Side::agent, "hosts the controller learnt, for EVPN to advertise" },
      { exportFlood, "OrbEvpn::FloodEntry", Side::agent, "flood-list VTEPs of the controller, for EVPN" },
      { brIdList, "OrbEvpn::OrbBrIdList.brIdList", Side::agent, "bridge ids of the VNIs the controller exports" },
      { config, "OrbEvpn::OrbEvpnConfig", Side::agent, "the integration flag" },
      { evpnHost, "OrbEvpn::Host", Side::evpn, "hosts EVPN learnt from remote peers" },
      { evpnFlood, "OrbEvpn::FloodEntry", Side::evpn, "flood-list VTEPs EVPN learnt from remote peers" },
      { evpnCapability, "OrbEvpn::EvpnCapability", Side::evpn, "whether EVPN is enabled" },
   };
   return all;
}

std::optional< TableSpec > tableNamed( std::string_view name ) {
   for ( const TableSpec& t : tables() ) {
      if ( t.name == name ) {
         return t;
      }
   }
   return std::nullopt;
}

void checkPrefix( std::string_view prefix ) {
   bool ok = prefix.size() > 1 && prefix.front() == '/' && prefix.back() != '/' &&
             prefix.find( "//" ) == std::string_view::npos;
   // Names only: "." and ".." would make one table reachable under two
   // paths, and a byte that is no visible character hides in every message.
   for ( size_t start = 1; ok && start <= prefix.size(); ) {
      const size_t end = std::min( prefix.find( '/', start ), prefix.size() );
      const std::string_view part = prefix.substr( start, end - start );
      ok = part != "." && part != "..";
      start = end + 1;
   }
   for ( unsigned char c : prefix ) {
      ok = ok && c > 0x20 && c < 0x7f;
   }
   if ( !ok ) {
      throw std::invalid_argument(
         fmt::format( "bad table prefix \"{}\": expected \"/\" followed by names, like /orbevpn", prefix ) );
   }
}

std::string pathOf( std::string_view prefix, std::string_view name ) {
   return fmt::format( "{}/{}", prefix, name );
}

std::string refuseWrite( std::string_view prefix, std::string_view name, Side side ) {
   std::optional< TableSpec > t = tableNamed( name );
   if ( !t ) {
      return fmt::format( "{} is not a table of the boundary", pathOf( prefix, name ) );
   }
   if ( t->writer == side ) {
      return {};
   }
   return fmt::format( "table {} is written only by {}; {} may not write it", pathOf( prefix, name ),
                       sideName( t->writer ), sideName( side ) );
}

}  // namespace OrbEvpn::Boundary
