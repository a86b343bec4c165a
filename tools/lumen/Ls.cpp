// lumen ls: every table under the root, found by its control file's name.
#include "platform/lumen/Inspect.h"
#include "tools/lumen/Catalog.h"
#include "tools/lumen/Commands.h"
#include "tools/lumen/Output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include <dirent.h>
#include <sys/stat.h>

namespace LumenTool {

namespace {

struct Entry {
   std::string path;
   std::optional< Lumen::TableInfo > info;
   std::string error;   // set when the table could not be read
};

// Names in the root, or why it cannot be listed.
std::set< std::string > namesUnder( const std::string& root, std::string& error ) {
   std::set< std::string > names;
   DIR* dir = ::opendir( root.c_str() );
   if ( !dir ) {
      error = fmt::format( "cannot list the Lumen root {}: {}", root, std::strerror( errno ) );
      return names;
   }
   while ( struct dirent* d = ::readdir( dir ) ) {
      std::string name = d->d_name;
      if ( name != "." && name != ".." ) {
         names.insert( name );
      }
   }
   ::closedir( dir );
   return names;
}

bool hasCompanion( const std::set< std::string >& names, const std::string& stem ) {
   auto it = names.lower_bound( stem + "@" );
   return it != names.end() && it->rfind( stem + "@", 0 ) == 0;
}

std::vector< Entry > tablesUnder( const std::string& root, const std::set< std::string >& names ) {
   std::vector< Entry > entries;
   for ( const std::string& name : names ) {
      std::optional< std::string > path = Lumen::tablePathOfFile( name );
      if ( !path ) {
         continue;
      }
      // Sockets and folders are never tables (the agent's control socket
      // lives in the root by default).
      struct stat st {};
      if ( ::lstat( ( root + "/" + name ).c_str(), &st ) != 0 || S_ISSOCK( st.st_mode ) ||
           S_ISDIR( st.st_mode ) ) {
         continue;
      }
      Entry e{ *path, std::nullopt, {} };
      try {
         e.info = Lumen::inspect( *path );
         if ( !e.info ) {
            continue;   // removed since the folder was read
         }
      } catch ( const std::exception& ex ) {
         e.error = ex.what();
      }
      // A file that reads as no table and has no data or wake file beside
      // it is someone else's (the default root is /dev/shm, shared with
      // every program): a damaged table still has its other files.
      if ( !e.error.empty() && !hasCompanion( names, name ) ) {
         continue;
      }
      entries.push_back( std::move( e ) );
   }
   std::sort( entries.begin(), entries.end(),
              []( const Entry& a, const Entry& b ) { return a.path < b.path; } );
   return entries;
}

std::string writerText( const Lumen::TableInfo& t ) {
   if ( t.writerPid == 0 ) {
      return "-";
   }
   return fmt::format( "{} {}", t.writerPid, t.writerAlive ? "live" : "gone" );
}

Json tableJson( const Entry& e ) {
   if ( !e.info ) {
      return { { "path", e.path }, { "error", e.error } };
   }
   const Lumen::TableInfo& t = *e.info;
   return { { "path", t.path },
            { "type", t.typeName },
            { "count", t.count },
            { "capacity", t.capacity },
            { "tombstones", t.tombstones },
            { "slots", t.slotCount },
            { "generation", t.generation },
            { "writerPid", t.writerPid },
            { "writerAlive", t.writerAlive },
            { "status", Lumen::mountStatusName( t.status ) },
            { "writerEpoch", t.writerEpoch },
            { "feedHead", t.feedHead },
            { "recordSize", t.recordSize },
            { "bytes", t.bytes },
            { "owner", t.owner },
            { "group", t.group },
            { "mode", fmt::format( "{:04o}", unsigned( t.mode ) ) } };
}

}  // namespace

int listTables( Form form ) {
   std::string root = Lumen::root();
   std::string error;
   std::set< std::string > names = namesUnder( root, error );
   if ( !error.empty() ) {
      complain( error );
      return exitFailed;
   }
   std::vector< Entry > entries = tablesUnder( root, names );
   uint64_t records = 0;
   uint64_t bytes = 0;
   uint32_t damaged = 0;
   for ( const Entry& e : entries ) {
      if ( e.info ) {
         records += e.info->count;
         bytes += e.info->bytes;
      } else {
         ++damaged;
      }
   }
   if ( form == Form::json ) {
      Json tables = Json::array();
      for ( const Entry& e : entries ) {
         tables.push_back( tableJson( e ) );
      }
      Json out = { { "root", root },
                   { "tables", tables },
                   { "total",
                     { { "tables", entries.size() },
                       { "records", records },
                       { "bytes", bytes },
                       { "damaged", damaged } } } };
      printLine( out.dump() );
      return exitOk;
   }
   using Align = TextTable::Align;
   TextTable table;
   table.column( "PATH" );
   table.column( "TYPE" );
   table.column( "COUNT", Align::right );
   table.column( "CAPACITY", Align::right );
   table.column( "GEN", Align::right );
   table.column( "WRITER", Align::right );
   table.column( "SIZE", Align::right );
   for ( const Entry& e : entries ) {
      if ( !e.info ) {
         table.row( { e.path, "(damaged)", "-", "-", "-", "-", "-" } );
         continue;
      }
      const Lumen::TableInfo& t = *e.info;
      table.row( { t.path, t.typeName, grouped( t.count ), grouped( t.capacity ),
                   std::to_string( t.generation ), writerText( t ), humanBytes( t.bytes ) } );
   }
   if ( !entries.empty() ) {
      table.print( stdout );
   }
   std::string total = fmt::format( "{} table{} under {}, {} records, {}", entries.size(),
                                    entries.size() == 1 ? "" : "s", root, grouped( records ),
                                    humanBytes( bytes ) );
   if ( damaged != 0 ) {
      total += fmt::format( "; {} damaged", damaged );
   }
   printLine( total );
   for ( const Entry& e : entries ) {
      if ( !e.info ) {
         printLine( fmt::format( "{}: {}", e.path, e.error ) );
      }
   }
   return exitOk;
}

}  // namespace LumenTool
