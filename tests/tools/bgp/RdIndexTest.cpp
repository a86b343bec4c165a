// Route-distinguisher indexes: derived from the VNI, unique, stable across restarts.
#include "tools/bgp/RdIndex.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

using OrbEvpn::Bgp::RdIndex;

class RdIndexTest : public ::testing::Test {
 protected:
   void SetUp() override {
      std::string tmpl = ::testing::TempDir() + "rdindex-XXXXXX";
      ASSERT_NE( ::mkdtemp( tmpl.data() ), nullptr );
      dir_ = tmpl;
      file_ = dir_ + "/rd-index";
   }
   void TearDown() override { std::filesystem::remove_all( dir_ ); }
   std::string dir_;
   std::string file_;
};

TEST_F( RdIndexTest, DerivedFromTheVniUntilTwoCollide ) {
   RdIndex idx;
   EXPECT_EQ( idx.indexOf( 100 ), 100 );
   EXPECT_EQ( idx.indexOf( 0x10064 ), 0 ) << "100 is taken: the lowest free number";
   EXPECT_EQ( idx.indexOf( 0 ), 1 ) << "0 is taken too";
   EXPECT_EQ( idx.indexOf( 100 ), 100 ) << "an index stays with its VNI";
   EXPECT_EQ( idx.indexOf( 0x10064 ), 0 );
}

TEST_F( RdIndexTest, CollisionsResolveTheSameWayAfterARestart ) {
   {
      RdIndex idx( file_ );
      EXPECT_EQ( idx.indexOf( 0x20005 ), 5 );
      EXPECT_EQ( idx.indexOf( 5 ), 0 );
      idx.flush();
   }
   // In the other order now: without the file, 5 would take index 5.
   RdIndex again( file_ );
   EXPECT_EQ( again.indexOf( 5 ), 0 );
   EXPECT_EQ( again.indexOf( 0x20005 ), 5 );
   EXPECT_EQ( again.size(), 2u );
}

TEST_F( RdIndexTest, AllSixtyFiveThousandNumbersThenNothing ) {
   RdIndex idx;
   for ( uint32_t vni = 0; vni <= 0xFFFF; ++vni ) {
      ASSERT_EQ( idx.indexOf( vni + 0x30000 ), uint16_t( vni ) );
   }
   EXPECT_FALSE( idx.indexOf( 7 ) );
}

TEST_F( RdIndexTest, ABadFileIsRefusedNamingIt ) {
   for ( const char* content : { "100 100\nx y\n", "100 70000\n", "1 5\n2 5\n", "1 5 7\n" } ) {
      std::ofstream( file_, std::ios::trunc ) << content;
      try {
         RdIndex idx( file_ );
         ADD_FAILURE() << "accepted " << content;
      } catch ( const std::runtime_error& e ) {
         EXPECT_NE( std::string( e.what() ).find( file_ ), std::string::npos ) << e.what();
      }
   }
}

}  // namespace
