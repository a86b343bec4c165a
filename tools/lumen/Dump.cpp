// lumen dump: one table's records, in their JSON forms or as a table.
#include "tools/lumen/Catalog.h"
#include "tools/lumen/Commands.h"
#include "tools/lumen/Output.h"
#include "tools/lumen/Table.h"

#include <fmt/format.h>

#include <cctype>

namespace LumenTool {

namespace {

// "seqNo" -> "SEQ NO": the JSON field names, in the upper case of a
// router's show command.
std::string titleOf( const std::string& field ) {
   std::string t;
   for ( char c : field ) {
      if ( std::isupper( static_cast< unsigned char >( c ) ) && !t.empty() ) {
         t += ' ';
      }
      t += char( std::toupper( static_cast< unsigned char >( c ) ) );
   }
   return t;
}

void printRecords( const std::vector< Json >& records ) {
   if ( records.empty() ) {
      return;
   }
   TextTable table;
   for ( const auto& [ name, value ] : records.front().items() ) {
      table.column( titleOf( name ),
                    value.is_number() ? TextTable::Align::right : TextTable::Align::left );
   }
   for ( const Json& r : records ) {
      std::vector< std::string > cells;
      for ( const auto& [ name, value ] : r.items() ) {
         cells.push_back( cellText( value ) );
      }
      table.row( std::move( cells ) );
   }
   table.print( stdout );
}

}  // namespace

int dumpTable( const std::string& path, Form form ) {
   FoundTable found = findTable( path );
   if ( !found.info ) {
      complain( found.error );
      return found.exitCode;
   }
   const Lumen::TableInfo& info = *found.info;
   const RecordKind* kind = kindOrComplain( info );
   if ( !kind ) {
      return exitNoTable;
   }
   std::vector< Json > records;
   try {
      records = kind->dump( path );
   } catch ( const std::exception& e ) {
      complain( e.what() );
      return exitFailed;
   }
   if ( form == Form::json ) {
      Json out = { { "path", path },
                   { "type", info.typeName },
                   { "count", records.size() },
                   { "records", records } };
      printLine( out.dump() );
      return exitOk;
   }
   std::string writer = info.writerPid == 0 ? "no writer yet"
                                            : fmt::format( "writer {} {}", info.writerPid,
                                                           info.writerAlive ? "live" : "gone" );
   printLine( fmt::format( "{}  {}  generation {}, {}", path, info.typeName, info.generation,
                           writer ) );
   printRecords( records );
   printLine( fmt::format( "{} record{}", grouped( records.size() ),
                           records.size() == 1 ? "" : "s" ) );
   return exitOk;
}

}  // namespace LumenTool
