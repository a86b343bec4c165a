#include "tools/lumen/Table.h"

#include "tools/lumen/Catalog.h"
#include "tools/lumen/Commands.h"

#include <fmt/format.h>

namespace LumenTool {

namespace {

std::string knownTypesText() {
   std::string s;
   for ( std::string_view name : recordTypeNames() ) {
      s += s.empty() ? "" : ", ";
      s += name;
   }
   return s;
}

}  // namespace

bool isTablePath( const std::string& path ) {
   if ( path.size() < 2 || path[ 0 ] != '/' || path.back() == '/' ||
        path.find( '\0' ) != std::string::npos ) {
      return false;
   }
   size_t start = 1;
   while ( start <= path.size() ) {
      size_t end = std::min( path.find( '/', start ), path.size() );
      std::string_view part( path.data() + start, end - start );
      if ( part.empty() || part == "." || part == ".." ) {
         return false;
      }
      start = end + 1;
   }
   return true;
}

FoundTable findTable( const std::string& path ) {
   FoundTable found;
   if ( !isTablePath( path ) ) {
      found.exitCode = exitNoTable;
      found.error = fmt::format( "'{}' is not a table path: a path is '/' followed by names "
                                 "separated by '/', such as /orbevpn/export/host",
                                 path );
      return found;
   }
   try {
      found.info = Lumen::inspect( path );
      if ( !found.info ) {
         found.exitCode = exitNoTable;
         found.error = fmt::format( "no table {} under {}", path, Lumen::root() );
      }
   } catch ( const std::exception& e ) {
      found.exitCode = exitFailed;
      found.error = e.what();
   }
   return found;
}

const RecordKind* kindOrComplain( const Lumen::TableInfo& info ) {
   const RecordKind* kind = recordKind( info.typeName );
   if ( !kind ) {
      complain( fmt::format( "table {} holds records of type {}, which lumen cannot read (it "
                             "reads {})",
                             info.path, info.typeName, knownTypesText() ) );
   }
   return kind;
}

}  // namespace LumenTool
