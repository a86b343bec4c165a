#include "platform/trace/Handle.h"

#include "platform/mox/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t bits( std::initializer_list< int > levels ) {
   uint32_t m = 0;
   for ( int l : levels ) {
      m |= 1u << l;
   }
   return m;
}

class HandleTest : public ::testing::Test {
 protected:
   void SetUp() override { Trace::resetConfiguration(); }
   void TearDown() override { Trace::resetConfiguration(); }
};

TEST_F( HandleTest, OneHandlePerNameAcrossThreads ) {
   std::vector< const Trace::Handle* > seen( 8 );
   std::vector< std::thread > threads;
   for ( size_t i = 0; i < seen.size(); ++i ) {
      threads.emplace_back( [ &seen, i ] { seen[ i ] = &Trace::handle( "RaceSm" ); } );
   }
   for ( auto& t : threads ) {
      t.join();
   }
   EXPECT_EQ( std::set< const Trace::Handle* >( seen.begin(), seen.end() ).size(), 1u );
   EXPECT_EQ( seen[ 0 ], &Trace::handle( "RaceSm" ) );
   EXPECT_EQ( seen[ 0 ]->name(), "RaceSm" );
   EXPECT_NE( seen[ 0 ], &Trace::handle( "RaceSm2" ) );
}

TEST_F( HandleTest, ConfigureSetsExistingAndLaterHandles ) {
   Trace::Handle& tx = Trace::handle( "VxlanControllerEvpnTxSm" );
   Trace::configure( "VxlanControllerEvpnTxSm/0-8,OrbEvpnModeSm/8" );
   EXPECT_EQ( tx.levels(), bits( { 0, 1, 2, 3, 4, 5, 6, 7, 8 } ) );
   EXPECT_FALSE( tx.enabled( 9 ) );
   // Created only now: picks up what was configured for its name.
   EXPECT_EQ( Trace::handle( "OrbEvpnModeSm" ).levels(), bits( { 8 } ) );
   EXPECT_EQ( Trace::handle( "UnmentionedSm" ).levels(), 0u );

   // A later setting replaces a named handle's levels and leaves the others.
   Trace::configure( "OrbEvpnModeSm/1+3" );
   EXPECT_EQ( Trace::handle( "OrbEvpnModeSm" ).levels(), bits( { 1, 3 } ) );
   EXPECT_EQ( tx.levels(), bits( { 0, 1, 2, 3, 4, 5, 6, 7, 8 } ) );

   // Bits above level 9 mean nothing and are not kept.
   tx.levelsIs( 0xFFFFFFFFu );
   EXPECT_EQ( tx.levels(), Trace::allLevels );
}

TEST_F( HandleTest, WildcardCoversEveryHandleAndLaterEntriesWin ) {
   Trace::Handle& early = Trace::handle( "EarlySm" );
   Trace::configure( "Named/2" );
   Trace::configure( "*/0-9" );
   EXPECT_EQ( early.levels(), Trace::allLevels );
   EXPECT_EQ( Trace::handle( "LateSm" ).levels(), Trace::allLevels );
   // The wildcard discarded the earlier per-name entry.
   EXPECT_EQ( Trace::handle( "Named" ).levels(), Trace::allLevels );

   Trace::configure( "*/5,EarlySm/1,*/6,LateSm/0" );
   EXPECT_EQ( early.levels(), bits( { 6 } ) );
   EXPECT_EQ( Trace::handle( "LateSm" ).levels(), bits( { 0 } ) );
   EXPECT_EQ( Trace::handle( "LaterStillSm" ).levels(), bits( { 6 } ) );

   Trace::resetConfiguration();
   EXPECT_EQ( early.levels(), 0u );
   EXPECT_EQ( Trace::handle( "AfterResetSm" ).levels(), 0u );
}

TEST_F( HandleTest, GrammarAcceptsListsRangesAndBlanks ) {
   Trace::configure( " Foo / 1 + 3 - 5 + 9 ,\tBar.x:y-z/0-0 " );
   EXPECT_EQ( Trace::handle( "Foo" ).levels(), bits( { 1, 3, 4, 5, 9 } ) );
   EXPECT_EQ( Trace::handle( "Bar.x:y-z" ).levels(), bits( { 0 } ) );
   // Nothing to do is not an error.
   Trace::configure( "" );
   Trace::configure( "  " );
   EXPECT_EQ( Trace::handle( "Foo" ).levels(), bits( { 1, 3, 4, 5, 9 } ) );
}

TEST_F( HandleTest, MalformedSettingThrowsAndChangesNothing ) {
   Trace::Handle& good = Trace::handle( "Good" );
   good.levelsIs( bits( { 4 } ) );
   const char* bad[] = {
      "Good/1,",          // trailing separator
      "Good/1,,Bad/2",    // empty entry
      "Good",             // no levels
      "Good/",            // empty levels
      "Good/10",          // two-digit level
      "Good/5-3",         // backwards range
      "Good/1+",          // dangling '+'
      "Good/1-",          // dangling '-'
      "Good/a",           // not a level
      "/3",               // no name
      "Go od/3",          // blank inside a name
      "Good/1 Bad/2",     // missing ','
      "Good/1,3",         // levels are joined by '+', not ','
      "*x/1",             // wildcard is a whole name
      "Good/1;Bad/2",
   };
   for ( const char* setting : bad ) {
      EXPECT_THROW( Trace::configure( setting ), Mox::RangeException ) << setting;
      EXPECT_EQ( good.levels(), bits( { 4 } ) ) << setting;
   }
   // Entries before the error are not applied to later handles either.
   EXPECT_THROW( Trace::configure( "*/0-9,Later/1,Bad" ), Mox::RangeException );
   EXPECT_EQ( Trace::handle( "Later" ).levels(), 0u );
   EXPECT_EQ( good.levels(), bits( { 4 } ) );
}

TEST_F( HandleTest, ErrorMessageNamesSettingReasonAndOffset ) {
   try {
      Trace::configure( "Foo/1,Bar/12" );
      FAIL() << "no exception";
   } catch ( const Mox::RangeException& e ) {
      EXPECT_STREQ( e.what(),
                    "bad trace level setting \"Foo/1,Bar/12\": level out of range 0-9 at offset 11" );
   }
}

TEST_F( HandleTest, EnvironmentVariableConfigures ) {
   ::setenv( Trace::environmentVariable, "VxlanControllerEvpnTxSm/0-8,OrbEvpnModeSm/8", 1 );
   Trace::configureFromEnvironment();
   EXPECT_EQ( Trace::handle( "VxlanControllerEvpnTxSm" ).levels(), 0x1FFu );
   EXPECT_EQ( Trace::handle( "OrbEvpnModeSm" ).levels(), bits( { 8 } ) );

   ::setenv( Trace::environmentVariable, "OrbEvpnModeSm/", 1 );
   EXPECT_THROW( Trace::configureFromEnvironment(), Mox::RangeException );

   ::unsetenv( Trace::environmentVariable );
   Trace::configureFromEnvironment();
   EXPECT_EQ( Trace::handle( "OrbEvpnModeSm" ).levels(), bits( { 8 } ) );
}

}  // namespace
