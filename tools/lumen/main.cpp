// lumen: reads the shared tables of the system, for people debugging it.
//
//    lumen [--root DIR] ls [--json]
//    lumen [--root DIR] dump PATH [--json]
//    lumen [--root DIR] watch PATH [--json]
//    lumen [--root DIR] check PATH [--json]
//
// It writes no table; a watch registers as a reader, as every reader does.
#include "platform/lumen/Options.h"
#include "tools/lumen/Catalog.h"
#include "tools/lumen/Commands.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <exception>

namespace LumenTool {

void complain( const std::string& message ) { fmt::print( stderr, "lumen: {}\n", message ); }

}  // namespace LumenTool

int main( int argc, char** argv ) {
   using namespace LumenTool;
   CLI::App app( "lumen: list, dump, watch and check the system's shared tables", "lumen" );
   app.require_subcommand( 0, 1 );
   std::string root;
   app.add_option( "--root", root,
                   "Lumen root folder (default: $ORBEVPN_LUMEN_ROOT, else /dev/shm)" );

   bool json = false;
   std::string path;
   auto jsonFlag = []( CLI::App* cmd, bool& flag ) {
      cmd->add_flag( "--json", flag, "print JSON instead of text" );
   };
   jsonFlag( &app, json );   // before the command works too
   app.fallthrough();        // and --root after it
   auto* ls = app.add_subcommand( "ls", "every table under the root: type, count, capacity, "
                                        "generation, writer, size" );
   jsonFlag( ls, json );
   auto* dump = app.add_subcommand( "dump", "the records of one table" );
   dump->add_option( "path", path, "table path, e.g. /orbevpn/export/host" )->required();
   jsonFlag( dump, json );
   auto* watch = app.add_subcommand( "watch", "one line per change of one table, until "
                                              "interrupted" );
   watch->add_option( "path", path, "table path; waits for it if it does not exist yet" )->required();
   jsonFlag( watch, json );
   auto* check = app.add_subcommand( "check", "validate one table: exit 0 when sound, 1 with "
                                              "the reason when damaged, 2 when absent" );
   check->add_option( "path", path, "table path" )->required();
   jsonFlag( check, json );

   // Extras are let through at the top only to name them: "lumen bogus"
   // should say that bogus is not expected, not that a command is missing.
   app.allow_extras();
   try {
      app.parse( argc, argv );
      if ( !app.remaining().empty() ) {
         throw CLI::ExtrasError( app.remaining() );
      }
      if ( app.get_subcommands().empty() ) {
         throw CLI::RequiredError( "A command (ls, dump, watch or check)" );
      }
   } catch ( const CLI::ParseError& e ) {
      return app.exit( e );
   }
   if ( !root.empty() ) {
      Lumen::rootIs( root );
   }
   Form form = json ? Form::json : Form::text;
   try {
      if ( ls->parsed() ) {
         return listTables( form );
      }
      if ( dump->parsed() ) {
         return dumpTable( path, form );
      }
      if ( watch->parsed() ) {
         return watchTable( path, form );
      }
      return checkTable( path, form );
   } catch ( const std::exception& e ) {
      complain( e.what() );
      return exitFailed;
   }
}
