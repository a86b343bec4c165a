// The table list every program takes its paths and owners from.
#include "tools/common/Boundary.h"
#include "tools/common/BoundaryRecords.h"

#include "platform/lumen/Table.h"
#include "tests/support/LumenRoot.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

namespace B = OrbEvpn::Boundary;

TEST( Boundary, EachTableHasOneWriterAndWritesByOthersAreRefused ) {
   std::set< std::string_view > names;
   for ( const B::TableSpec& t : B::tables() ) {
      EXPECT_TRUE( names.insert( t.name ).second ) << t.name;
      EXPECT_EQ( B::refuseWrite( "/orbevpn", t.name, t.writer ), "" ) << t.name;
   }
   EXPECT_EQ( B::refuseWrite( "/orbevpn", B::evpnCapability, B::Side::agent ),
              "table /orbevpn/evpn/capability is written only by the EVPN agent; orbevpn-agent may not "
              "write it" );
   EXPECT_EQ( B::refuseWrite( "/lab", B::brIdList, B::Side::evpn ),
              "table /lab/brIdList is written only by orbevpn-agent; the EVPN agent may not write it" );
   EXPECT_EQ( B::refuseWrite( "/orbevpn", "export/hosts", B::Side::agent ),
              "/orbevpn/export/hosts is not a table of the boundary" );
   EXPECT_EQ( B::tableNamed( B::config )->recordType, OrbEvpn::OrbEvpnConfigRecord::lumenTypeName );
   EXPECT_EQ( B::tableNamed( B::evpnCapability )->recordType, OrbEvpn::EvpnCapabilityRecord::lumenTypeName );
}

TEST( Boundary, PrefixesAreSlashSeparatedNames ) {
   for ( const char* good : { "/orbevpn", "/lab/one" } ) EXPECT_NO_THROW( B::checkPrefix( good ) ) << good;
   for ( const char* bad : { "", "/", "orbevpn", "/orbevpn/", "/a//b", "/orbevpn/..", "/../x", "/a/./b", "/a b", "/a\tb" } ) {
      EXPECT_THROW( B::checkPrefix( bad ), std::invalid_argument ) << bad;
   }
   EXPECT_EQ( B::pathOf( "/orbevpn", B::exportHost ), "/orbevpn/export/host" );
}

// The single-record tables go through Lumen like any other, one record.
TEST( Boundary, ASingleRecordTableKeepsOneRecord ) {
   LumenRoot root;
   Lumen::Writer< OrbEvpn::OrbEvpnConfigRecord > writer;
   writer.attach( B::pathOf( "/orbevpn", B::config ) );
   OrbEvpn::OrbEvpnConfigRecord on;
   on.orbEvpnIntegrationMode = 1;
   writer.write( on );
   writer.write( on );
   Lumen::Reader< OrbEvpn::OrbEvpnConfigRecord > reader( B::pathOf( "/orbevpn", B::config ) );
   EXPECT_EQ( reader.count(), 1u );
   EXPECT_EQ( reader.lookup( {} ).orbEvpnIntegrationMode, 1 );
}
