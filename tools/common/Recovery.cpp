#include "tools/common/Recovery.h"

#include "platform/lumen/Salvage.h"

#include <fmt/format.h>

namespace OrbEvpn::Boundary {

std::vector< std::string > setAsideDamagedTables( std::string_view prefix, Side writer ) {
   std::vector< std::string > lines;
   for ( const TableSpec& t : tables() ) {
      if ( t.writer != writer ) {
         continue;
      }
      const std::string path = pathOf( prefix, t.name );
      if ( std::optional< std::string > why = Lumen::damageAtRest( path ) ) {
         const std::string folder = Lumen::moveAside( path, *why );
         lines.push_back( fmt::format( "table {} was damaged ({}); its files are in {} and it is "
                                       "created anew",
                                       path, *why, folder ) );
      }
   }
   return lines;
}

}  // namespace OrbEvpn::Boundary
