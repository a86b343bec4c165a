// Lumen salvage: judging a table at rest and moving a damaged one aside.
#include "platform/lumen/Salvage.h"

#include "platform/lumen/Inspect.h"
#include "platform/lumen/internal/Files.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Lumen {

using namespace internal;

std::optional< std::string > damageAtRest( const std::string& path ) {
   std::optional< TableInfo > info;
   try {
      info = inspect( path );
   } catch ( const Fable::CorruptionDetectedException& e ) {
      return std::string( e.what() );
   }
   if ( !info || info->writerAlive || info->generation == 0 ) {
      return std::nullopt;
   }
   const std::string root = Lumen::root();
   ControlHeader raw {};
   {
      TableFile control = TableFile::open( controlFileName( root, path ), O_RDONLY, anyOwner );
      if ( !control || ::pread( control.fd(), &raw, sizeof raw, 0 ) != ssize_t( sizeof raw ) ) {
         return std::nullopt;   // gone meanwhile
      }
   }
   RecordLayout layout;
   layout.recordSize = raw.recordSize;
   layout.recordAlign = raw.recordAlign;
   layout.keySize = raw.keySize;
   layout.typeName.assign( raw.typeName, strnlen( raw.typeName, sizeof raw.typeName ) );
   SlotArray t;
   try {
      t = SlotArray::openFile( root, path, layout, info->generation, info->owner, {} );
   } catch ( const Fable::CorruptionDetectedException& e ) {
      return std::string( e.what() );
   }
   if ( !t ) {
      return fmt::format( "Lumen table {}: segment of generation {} is missing", path,
                          info->generation );
   }
   uint32_t live = 0, tombstones = 0, busy = 0, empty = 0;
   for ( uint32_t i = 0; i < t.slotCount(); ++i ) {
      switch ( t.word( i ).load( std::memory_order_acquire ) & 3 ) {
       case slotEmpty: ++empty; break;
       case slotLive: ++live; break;
       case slotTombstone: ++tombstones; break;
       default: ++busy; break;
      }
   }
   auto off = []( uint32_t a, uint32_t b ) { return a > b ? a - b : b - a; };
   if ( busy > 1 ) {
      return fmt::format( "Lumen table {}: {} slots of generation {} were left mid-update; a "
                          "writer that dies leaves at most one",
                          path, busy, t.generation() );
   }
   if ( off( live, t.liveCount() ) > 1 + busy || off( tombstones, t.tombstoneCount() ) > 1 + busy ) {
      return fmt::format( "Lumen table {}: header counts {} live and {} removed slots, the slots "
                          "of generation {} hold {} live, {} removed and {} busy",
                          path, t.liveCount(), t.tombstoneCount(), t.generation(), live,
                          tombstones, busy );
   }
   if ( t.slotCount() - empty > t.usedLimit() + 1 ) {
      return fmt::format( "Lumen table {}: {} of {} slots are in use, more than the {} a writer "
                          "ever fills",
                          path, t.slotCount() - empty, t.slotCount(), t.usedLimit() );
   }
   return std::nullopt;
}

std::string moveAside( const std::string& path, const std::string& reason ) {
   const std::string root = Lumen::root();
   const std::string control = controlFileName( root, path );
   const std::string stem = control.substr( root.size() + 1 );
   // The table's own files: the control file, and those named after its
   // stem and a suffix of the table (generations, wake file, scratch
   // files); readers' sockets and other tables' files are not.
   std::vector< std::string > names;
   if ( DIR* dir = ::opendir( root.c_str() ) ) {
      while ( const dirent* e = ::readdir( dir ) ) {
         std::string_view name( e->d_name );
         if ( name == stem ||
              ( name.size() > stem.size() + 1 && name.starts_with( stem ) && name[ stem.size() ] == '@' ) ) {
            names.emplace_back( name );
         }
      }
      ::closedir( dir );
   }
   if ( names.empty() ) {
      return {};
   }
   const std::string parent = root + "/lumen-damaged";
   if ( ::mkdir( parent.c_str(), 0750 ) != 0 && errno != EEXIST ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create {}: {}", parent, errnoText() );
   }
   std::time_t now = std::time( nullptr );
   std::tm utc {};
   ::gmtime_r( &now, &utc );
   char stamp[ 32 ];
   std::strftime( stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc );
   const std::string folder = fmt::format( "{}/{}.{}.{}", parent, stem, stamp, ::getpid() );
   if ( ::mkdir( folder.c_str(), 0750 ) != 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create {}: {}", folder, errnoText() );
   }
   // The control file goes last: until then the table still looks like
   // itself to a reader, and after it a reader sees it replaced.
   std::stable_partition( names.begin(), names.end(),
                          [ &stem ]( const std::string& n ) { return n != stem; } );
   for ( const std::string& name : names ) {
      const std::string from = root + "/" + name;
      if ( ::rename( from.c_str(), ( folder + "/" + name ).c_str() ) != 0 && errno != ENOENT ) {
         MOX_THROW( Mox::Exception, "Lumen cannot move {} to {}: {}", from, folder, errnoText() );
      }
   }
   if ( FILE* f = std::fopen( ( folder + "/reason" ).c_str(), "w" ) ) {
      std::fprintf( f, "%s\n", reason.c_str() );
      std::fclose( f );
   }
   return folder;
}

}  // namespace Lumen
