// A reader maps a table's control and data files read-only: a stray write
// through its mapping (a bug in the reader's process, or a hostile library
// in it) faults there and cannot reach the writer's table.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace LumenTest;

namespace {

struct Region {
   uintptr_t begin;
   std::string perms, file;
};

// This process's mappings of files under `dir`.
std::vector< Region > mappingsUnder( const std::string& dir ) {
   std::vector< Region > out;
   std::ifstream maps( "/proc/self/maps" );
   for ( std::string line; std::getline( maps, line ); ) {
      std::istringstream in( line );
      std::string range, perms, offset, dev, inode, file;
      in >> range >> perms >> offset >> dev >> inode >> file;
      if ( file.rfind( dir + "/", 0 ) == 0 ) {
         out.push_back( { uintptr_t( std::stoull( range.substr( 0, range.find( '-' ) ), nullptr, 16 ) ), perms, file } );
      }
   }
   return out;
}

}  // namespace

TEST( LumenReadOnlyMappingDeathTest, AWriteThroughAReadersMappingFaults ) {
   LumenRoot root;
   // The writer in a child, so that every mapping of the table in this
   // process is the reader's.
   Pipe ready, done;
   const pid_t writer = startChild( [ & ] {
      Lumen::Writer< HostRec > w;
      w.attach( "/lumen/readonly" );
      fill( w, 100, 1 );
      ready.signal();
      return done.wait() ? 0 : 1;
   } );
   ASSERT_TRUE( ready.wait() );
   {
      Lumen::Reader< HostRec > reader( "/lumen/readonly" );
      ASSERT_EQ( reader.lookupShared( MacKey::of( 7 ) ), HostRec::of( 7, 1 ) );
      const std::string control = root.dir() + "/lumen.readonly";
      std::vector< Region > mapped;
      for ( const Region& r : mappingsUnder( root.dir() ) ) {
         if ( r.file == control || ( r.file.rfind( control + "@", 0 ) == 0 && r.file != control + "@wake" ) ) {
            mapped.push_back( r );
         }
      }
      ASSERT_GE( mapped.size(), 2u ) << "the control file and a data file";
      bool sawData = false;
      for ( const Region& r : mapped ) {
         sawData = sawData || r.file != control;
         EXPECT_EQ( r.perms, "r--s" ) << r.file;
         volatile char* p = reinterpret_cast< volatile char* >( r.begin );
         // The default action, not a sanitizer's report: the fault itself is
         // what is shown. No read through `p` here: some of these mappings
         // belong to the reader's notification thread, and this thread has no
         // ordering with its mmap but the address read from /proc.
         EXPECT_EXIT( { ::signal( SIGSEGV, SIG_DFL ); *p = char( 0x5a ); ::_exit( 0 ); },
                      ::testing::KilledBySignal( SIGSEGV ), "" ) << r.file;
      }
      EXPECT_TRUE( sawData );
      EXPECT_EQ( reader.lookupShared( MacKey::of( 7 ) ), HostRec::of( 7, 1 ) );
   }
   done.signal();
   EXPECT_EQ( waitChild( writer ), 0 );
}
