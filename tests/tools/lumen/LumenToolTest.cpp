// The lumen program against tables written in a private root; damage is reported, never shown as data.
#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Table.h"
#include "platform/model/OrbBrIdList.h"
#include "tests/platform/lumen/LumenTestSupport.h"
#include "tests/support/LumenRoot.h"
#include "tests/tools/lumen/ToolProcess.h"
#include "tools/common/BoundaryRecords.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <fstream>
#include <thread>
#include <map>

using namespace LumenToolTest;
using Json = nlohmann::json;
namespace li = Lumen::internal;

namespace {

OrbEvpn::Host host( uint8_t macLast, uint32_t vni, uint8_t vtepLast, uint32_t seq, uint8_t pref = 16 ) {
   OrbEvpn::Host h( OrbEvpn::MacVniPair( Wire::EthAddr( 2, 0, 0, 0, 0, macLast ), Vxlan::Vni( vni ) ) );
   h.vtepAddrIs( Wire::IpAddr::fromOctets( 192, 0, 2, vtepLast ) );
   h.seqNoIs( Keel::Seqno32( seq ) );
   h.preferenceIs( pref );
   return h;
}

OrbEvpn::FloodEntry flood( uint32_t vni, uint8_t vtepLast ) {
   return OrbEvpn::FloodEntry(
      OrbEvpn::VniVtepPair( Vxlan::Vni( vni ), Wire::IpAddr::fromOctets( 192, 0, 2, vtepLast ) ) );
}

// The JSON a host must have, spelled out independently of the tool.
Json hostJson( uint8_t macLast, uint32_t vni, uint8_t vtepLast, uint32_t seq, uint8_t pref = 16 ) {
   char mac[ 32 ];
   std::snprintf( mac, sizeof( mac ), "02:00:00:00:00:%02x", macLast );
   return { { "mac", mac }, { "vni", vni }, { "vtep", "192.0.2." + std::to_string( vtepLast ) },
            { "seqNo", seq }, { "preference", pref } };
}

class LumenTool : public ::testing::Test {
 protected:
   std::vector< std::string > args( std::vector< std::string > rest ) const {
      std::vector< std::string > a = { LUMEN_TOOL, "--root", root.dir() };
      a.insert( a.end(), rest.begin(), rest.end() );
      return a;
   }
   Finished run( std::vector< std::string > rest ) const { return runTool( args( std::move( rest ) ) ); }
   Json runJson( std::vector< std::string > rest ) const {
      Finished f = run( std::move( rest ) );
      EXPECT_EQ( f.code, 0 ) << f.err;
      Json j = Json::parse( f.out, nullptr, false );
      EXPECT_FALSE( j.is_discarded() ) << f.out;
      return j;
   }

   LumenRoot root;
};

// ---- ls

TEST_F( LumenTool, LsListsEveryTableWithItsTypeCountAndWriter ) {
   Lumen::Writer< OrbEvpn::Host > hosts;
   hosts.attach( "/t/export/host" );
   for ( uint8_t i = 1; i <= 3; ++i ) hosts.write( host( i, 10, 1, i ) );
   Lumen::Writer< OrbEvpn::FloodEntry > floods;
   floods.attach( "/t/export/flood" );
   floods.write( flood( 10, 9 ) );
   floods.write( flood( 11, 9 ) );

   // A writer that is killed: its table stays, its writer shows as gone.
   Pipe ready;
   pid_t dead = startChild( [ & ] {
      Lumen::Writer< OrbEvpn::BrIdListRecord > ids;
      ids.attach( "/t/brIdList" );
      ids.write( OrbEvpn::BrIdListRecord( Bridging::BridgeId( Vxlan::Vni( 10 ) ), true ) );
      ready.signal();
      ::pause();
      return 0;
   } );
   ASSERT_TRUE( ready.wait() );
   ::kill( dead, SIGKILL );
   EXPECT_EQ( waitChild( dead ), 128 + SIGKILL );

   // What is not a table is left out: a stranger's file, a socket.
   std::ofstream( root.file( "stranger.file" ) ) << "not a table";
   int sock = ::socket( AF_UNIX, SOCK_STREAM, 0 );
   sockaddr_un addr {};
   addr.sun_family = AF_UNIX;
   std::snprintf( addr.sun_path, sizeof( addr.sun_path ), "%s", root.file( "agent.ctl" ).c_str() );
   ASSERT_EQ( ::bind( sock, reinterpret_cast< sockaddr* >( &addr ), sizeof( addr ) ), 0 );

   Json ls = runJson( { "ls", "--json" } );
   ::close( sock );
   std::map< std::string, Json > byPath;
   for ( const Json& t : ls[ "tables" ] ) byPath[ t[ "path" ] ] = t;
   ASSERT_EQ( byPath.size(), 3u ) << ls.dump();
   const Json& h = byPath[ "/t/export/host" ];
   EXPECT_EQ( h[ "type" ], "OrbEvpn::Host" );
   EXPECT_EQ( h[ "count" ], 3 );
   EXPECT_EQ( h[ "writerPid" ], ::getpid() );
   EXPECT_EQ( h[ "writerAlive" ], true );
   EXPECT_EQ( h[ "status" ], "mounted" );
   EXPECT_EQ( byPath[ "/t/export/flood" ][ "type" ], "OrbEvpn::FloodEntry" );
   EXPECT_EQ( byPath[ "/t/export/flood" ][ "count" ], 2 );
   const Json& ids = byPath[ "/t/brIdList" ];
   EXPECT_EQ( ids[ "type" ], "OrbEvpn::OrbBrIdList.brIdList" );
   EXPECT_EQ( ids[ "count" ], 1 );
   EXPECT_EQ( ids[ "writerPid" ], dead );
   EXPECT_EQ( ids[ "writerAlive" ], false );
   EXPECT_EQ( ids[ "status" ], "writerGone" );
   EXPECT_EQ( ls[ "total" ][ "tables" ], 3 );
   EXPECT_EQ( ls[ "total" ][ "records" ], 6 );

   // The text form: one aligned row per table and a total.
   Finished text = run( { "ls" } );
   EXPECT_EQ( text.code, 0 ) << text.err;
   EXPECT_NE( text.out.find( "PATH" ), std::string::npos ) << text.out;
   EXPECT_NE( text.out.find( fmt::format( "{} gone", dead ) ), std::string::npos ) << text.out;
   EXPECT_NE( text.out.find( fmt::format( "{} live", ::getpid() ) ), std::string::npos ) << text.out;
   EXPECT_NE( text.out.find( "3 tables under" ), std::string::npos ) << text.out;
   EXPECT_EQ( text.out.find( "stranger" ), std::string::npos ) << text.out;
}

TEST_F( LumenTool, LsListsADamagedTableWithTheReasonAndTheOthersStill ) {
   {
      Lumen::Writer< OrbEvpn::Host > bad;
      bad.attach( "/t/bad" );
      bad.write( host( 1, 10, 1, 1 ) );
   }
   Lumen::Writer< OrbEvpn::FloodEntry > good;
   good.attach( "/t/good" );
   good.write( flood( 10, 9 ) );
   LumenTest::editFile( root.file( "t.bad" ), []( uint8_t* p, size_t ) { p[ 0 ] ^= 0xff; } );

   Json ls = runJson( { "ls", "--json" } );
   ASSERT_EQ( ls[ "tables" ].size(), 2u ) << ls.dump();
   EXPECT_EQ( ls[ "tables" ][ 0 ][ "path" ], "/t/bad" );
   EXPECT_NE( ls[ "tables" ][ 0 ][ "error" ].get< std::string >().find( "bad control magic" ),
              std::string::npos ) << ls.dump();
   EXPECT_EQ( ls[ "tables" ][ 1 ][ "count" ], 1 );
   EXPECT_EQ( ls[ "total" ][ "damaged" ], 1 );

   Finished text = run( { "ls" } );
   EXPECT_EQ( text.code, 0 );
   EXPECT_NE( text.out.find( "1 damaged" ), std::string::npos ) << text.out;
   EXPECT_NE( text.out.find( "/t/bad: " ), std::string::npos ) << text.out;
}

// ---- dump

TEST_F( LumenTool, DumpJsonEqualsWhatWasWrittenSortedForEveryRecordType ) {
   Lumen::Writer< OrbEvpn::Host > hosts;
   hosts.attach( "/t/host" );
   // Out of order, one replaced, one removed: the dump is the final state, sorted.
   hosts.write( host( 3, 20, 7, 5, 8 ) );
   hosts.write( host( 1, 10, 1, 1 ) );
   hosts.write( host( 2, 10, 2, 1 ) );
   hosts.write( host( 1, 10, 4, 9 ) );
   hosts.write( host( 9, 10, 1, 1 ) );
   hosts.remove( OrbEvpn::MacVniPair( Wire::EthAddr( 2, 0, 0, 0, 0, 9 ), Vxlan::Vni( 10 ) ) );
   Json dump = runJson( { "dump", "/t/host", "--json" } );
   Json expected = { { "path", "/t/host" },
                     { "type", "OrbEvpn::Host" },
                     { "count", 3 },
                     { "records", { hostJson( 1, 10, 4, 9 ), hostJson( 2, 10, 2, 1 ),
                                    hostJson( 3, 20, 7, 5, 8 ) } } };
   EXPECT_EQ( dump, expected ) << dump.dump();

   Lumen::Writer< OrbEvpn::FloodEntry > floods;
   floods.attach( "/t/flood" );
   floods.write( flood( 11, 9 ) );
   floods.write( flood( 10, 9 ) );
   dump = runJson( { "dump", "/t/flood", "--json" } );
   EXPECT_EQ( dump[ "count" ], 2 );
   EXPECT_EQ( dump[ "records" ], Json::parse( R"([{"vni":10,"vtep":"192.0.2.9"},
                                                  {"vni":11,"vtep":"192.0.2.9"}])" ) )
      << dump.dump();

   Lumen::Writer< OrbEvpn::BrIdListRecord > ids;
   ids.attach( "/t/brIdList" );
   ids.write( OrbEvpn::BrIdListRecord( Bridging::BridgeId( Vxlan::Vni( 10 ) ), true ) );
   ids.write( OrbEvpn::BrIdListRecord( Bridging::BridgeId( Vxlan::Vni( 7 ) ), false ) );
   dump = runJson( { "dump", "/t/brIdList", "--json" } );
   EXPECT_EQ( dump[ "type" ], "OrbEvpn::OrbBrIdList.brIdList" );
   EXPECT_EQ( dump[ "records" ], Json::parse( R"([{"brId":33554442,"vni":10,"value":true},
                                                  {"brId":33554439,"vni":7,"value":false}])" ) )
      << dump.dump();

   Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > capability;
   capability.attach( "/t/capability" );
   OrbEvpn::EvpnCapabilityRecord enabled;
   enabled.evpnEnabled = 1;
   capability.write( enabled );
   dump = runJson( { "dump", "/t/capability", "--json" } );
   EXPECT_EQ( dump, Json::parse( R"({"path":"/t/capability","type":"OrbEvpn::EvpnCapability",
                                     "count":1,"records":[{"evpnEnabled":true}]})" ) );

   Lumen::Writer< OrbEvpn::OrbEvpnConfigRecord > config;
   config.attach( "/t/config" );
   config.write( OrbEvpn::OrbEvpnConfigRecord{} );
   dump = runJson( { "dump", "/t/config", "--json" } );
   EXPECT_EQ( dump[ "records" ], Json::parse( R"([{"orbEvpnIntegrationMode":false}])" ) );

   // For people: a header row, one aligned row per record, the count.
   Finished text = run( { "dump", "/t/host" } );
   EXPECT_EQ( text.code, 0 ) << text.err;
   EXPECT_NE( text.out.find( "MAC" ), std::string::npos ) << text.out;
   EXPECT_NE( text.out.find( "02:00:00:00:00:03   20  192.0.2.7" ), std::string::npos ) << text.out;
   EXPECT_NE( text.out.find( "\n3 records\n" ), std::string::npos ) << text.out;
}

TEST_F( LumenTool, DumpOfNoTableAnUnknownTypeOrADamagedTableFailsWithAMessage ) {
   Finished missing = run( { "dump", "/t/none", "--json" } );
   EXPECT_EQ( missing.code, 2 );
   EXPECT_TRUE( missing.out.empty() ) << missing.out;
   EXPECT_NE( missing.err.find( "no table /t/none" ), std::string::npos ) << missing.err;

   Finished malformed = run( { "dump", "t//x" } );
   EXPECT_EQ( malformed.code, 2 );
   EXPECT_NE( malformed.err.find( "is not a table path" ), std::string::npos ) << malformed.err;

   Lumen::Writer< LumenTest::HostRec > other;
   other.attach( "/t/other" );
   Finished unknown = run( { "dump", "/t/other" } );
   EXPECT_EQ( unknown.code, 2 );
   EXPECT_NE( unknown.err.find( "LumenTest::HostRec" ), std::string::npos ) << unknown.err;

   Finished usage = run( { "dump" } );
   EXPECT_NE( usage.code, 0 );
   EXPECT_NE( usage.err.find( "path" ), std::string::npos ) << usage.err;

   // A damaged table: exit 1 with the reason and no records.
   {
      Lumen::Writer< OrbEvpn::Host > hosts;
      hosts.attach( "/t/host" );
      hosts.write( host( 1, 10, 1, 1 ) );
   }
   LumenTest::editFile( root.file( "t.host@1" ), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::DataHeader* >( p )->count = 1u << 30;
   } );
   Finished f = run( { "dump", "/t/host", "--json" } );
   EXPECT_EQ( f.code, 1 );
   EXPECT_TRUE( f.out.empty() ) << f.out;
   EXPECT_NE( f.err.find( "exceeds capacity" ), std::string::npos ) << f.err;
}

// ---- watch

TEST_F( LumenTool, WatchPrintsEachChangeMadeAfterItStarted ) {
   Lumen::Writer< OrbEvpn::Host > hosts;
   hosts.attach( "/t/host" );
   hosts.write( host( 1, 10, 1, 1 ) );
   hosts.write( host( 2, 10, 1, 1 ) );
   ToolProcess watch( args( { "watch", "/t/host", "--json" } ) );
   bool ok = false;
   Json first = Json::parse( watch.line( 10000, &ok ) );
   ASSERT_TRUE( ok );
   // Mounted: what was there before is the starting point, not news.
   EXPECT_EQ( first, Json::parse( R"({"op":"status","status":"mounted","count":2})" ) );

   hosts.write( host( 3, 10, 5, 1 ) );
   EXPECT_EQ( Json::parse( watch.line( 10000 ) ),
              Json( { { "op", "set" }, { "record", hostJson( 3, 10, 5, 1 ) } } ) );
   hosts.remove( OrbEvpn::MacVniPair( Wire::EthAddr( 2, 0, 0, 0, 0, 1 ), Vxlan::Vni( 10 ) ) );
   EXPECT_EQ( Json::parse( watch.line( 10000 ) ),
              Json::parse( R"({"op":"del","key":{"mac":"02:00:00:00:00:01","vni":10}})" ) );
   hosts.write( host( 2, 10, 6, 2 ) );   // a move
   EXPECT_EQ( Json::parse( watch.line( 10000 ) ),
              Json( { { "op", "set" }, { "record", hostJson( 2, 10, 6, 2 ) } } ) );

   hosts.detach();
   EXPECT_EQ( Json::parse( watch.line( 10000 ) ),
              Json::parse( R"({"op":"status","status":"writerGone","count":2})" ) );

   Finished end = watch.finish( 10000, SIGTERM );
   EXPECT_EQ( end.code, 0 ) << end.err;
   EXPECT_TRUE( end.out.empty() ) << end.out;
}

TEST_F( LumenTool, WatchWaitsForATableAndReportsItsContentAsChanges ) {
   ToolProcess watch( args( { "watch", "/t/flood" } ) );
   bool ok = false;
   std::string waiting = watch.line( 10000, &ok );
   ASSERT_TRUE( ok );
   EXPECT_NE( waiting.find( "status waitingForWriter" ), std::string::npos ) << waiting;

   Lumen::Writer< OrbEvpn::FloodEntry > floods;
   floods.attach( "/t/flood" );
   floods.write( flood( 10, 9 ) );
   // Mounted before or after the write, the entry comes once, as a change, after the status.
   std::vector< std::string > lines;
   for ( std::string l = watch.line( 10000 ); !l.empty(); l = watch.line( 500 ) ) lines.push_back( l );
   ASSERT_EQ( lines.size(), 2u ) << ::testing::PrintToString( lines );
   EXPECT_NE( lines[ 0 ].find( "status mounted" ), std::string::npos ) << lines[ 0 ];
   EXPECT_NE( lines[ 1 ].find( "set    vni=10 vtep=192.0.2.9" ), std::string::npos ) << lines[ 1 ];

   floods.remove( flood( 10, 9 ).key() );
   std::string del = watch.line( 10000 );
   EXPECT_NE( del.find( "del    vni=10 vtep=192.0.2.9" ), std::string::npos ) << del;

   Finished end = watch.finish( 10000, SIGINT );
   EXPECT_EQ( end.code, 0 ) << end.err;
}

// A table can appear before its writer attaches: the watch says it waits once, not per look.
TEST_F( LumenTool, WatchOfATableThatAppearsWithoutAWriterSaysItWaitsOnce ) {
   {
      Lumen::Writer< OrbEvpn::FloodEntry > floods;
      floods.attach( "/t/made" );
      floods.write( flood( 10, 9 ) );
   }
   LumenTest::editFile( root.file( "t.made" ), []( uint8_t* p, size_t ) {
      reinterpret_cast< li::ControlHeader* >( p )->writerState = uint32_t( li::WriterState::none );
   } );
   ToolProcess watch( args( { "watch", "/t/flood", "--json" } ) );
   EXPECT_EQ( Json::parse( watch.line( 10000 ) ),
              Json::parse( R"({"op":"status","status":"waitingForWriter","count":0})" ) );
   // The control file last, as a writer publishes it.
   for ( const char* suffix : { "@1", "@wake", "" } ) {
      std::filesystem::copy_file( root.file( std::string( "t.made" ) + suffix ),
                                  root.file( std::string( "t.flood" ) + suffix ) );
   }
   EXPECT_EQ( Json::parse( watch.line( 10000 ) ),
              Json::parse( R"({"op":"set","record":{"vni":10,"vtep":"192.0.2.9"}})" ) );
   Lumen::Writer< OrbEvpn::FloodEntry > floods;
   floods.attach( "/t/flood" );
   std::string next = watch.line( 10000 );
   EXPECT_EQ( Json::parse( next )[ "status" ], "mounted" ) << next;
   EXPECT_EQ( watch.finish( 10000, SIGTERM ).code, 0 );
}

// ---- check

class LumenToolCheck : public LumenTool {
 protected:
   void SetUp() override {
      Lumen::Writer< OrbEvpn::Host > hosts;
      hosts.attach( "/t/host" );
      for ( uint8_t i = 1; i <= 20; ++i ) hosts.write( host( i, 10, 1, i ) );
   }
   std::string data() const { return root.file( "t.host@1" ); }
   // The first (or last) live slot of the data segment.
   static uint8_t* liveSlot( uint8_t* p, bool last ) {
      auto* h = reinterpret_cast< li::DataHeader* >( p );
      for ( uint32_t n = 0; n < h->slotCount; ++n ) {
         uint32_t i = last ? h->slotCount - 1 - n : n;
         uint8_t* slot = p + sizeof( li::DataHeader ) + size_t( i ) * h->slotSize;
         if ( ( *reinterpret_cast< uint32_t* >( slot ) & 3 ) == li::slotLive ) return slot;
      }
      std::abort();
   }
   void expectDamage( const std::string& what ) {
      Finished f = run( { "check", "/t/host" } );
      EXPECT_EQ( f.code, 1 ) << f.out << f.err;
      EXPECT_NE( f.out.find( "damaged /t/host: " ), std::string::npos ) << f.out;
      EXPECT_NE( f.out.find( what ), std::string::npos ) << f.out;
      Finished j = run( { "check", "/t/host", "--json" } );
      EXPECT_EQ( j.code, 1 );
      Json verdict = Json::parse( j.out );
      EXPECT_EQ( verdict[ "ok" ], false );
      EXPECT_NE( verdict[ "error" ].get< std::string >().find( what ), std::string::npos ) << j.out;
   }
};

TEST_F( LumenToolCheck, ASoundTableIsOk ) {
   Finished f = run( { "check", "/t/host" } );
   EXPECT_EQ( f.code, 0 ) << f.out << f.err;
   EXPECT_EQ( f.out.rfind( "ok /t/host: OrbEvpn::Host, 20 records", 0 ), 0u ) << f.out;
   EXPECT_NE( f.out.find( "20 keys probed" ), std::string::npos ) << f.out;
   Json j = runJson( { "check", "/t/host", "--json" } );
   EXPECT_EQ( j[ "ok" ], true );
   EXPECT_EQ( j[ "slots" ][ "live" ], 20 );
   EXPECT_EQ( j[ "keysProbed" ], 20 );
   EXPECT_EQ( j[ "settled" ], true );

   Finished missing = run( { "check", "/t/none" } );
   EXPECT_EQ( missing.code, 2 );
   EXPECT_NE( missing.err.find( "no table /t/none" ), std::string::npos ) << missing.err;
}

// What a live writer changes while check walks the table is not damage.
TEST_F( LumenTool, CheckOfATableUnderChurnIsOk ) {
   Lumen::Writer< OrbEvpn::Host > hosts( OrbEvpn::Host{}, { 16, 1u << 16, 256 } );
   hosts.attach( "/t/busy" );
   std::atomic< bool > stop{ false };
   std::thread churn( [ & ] {
      uint32_t seq = 0;
      while ( !stop.load() ) {
         for ( uint8_t i = 0; i < 200; ++i ) hosts.write( host( i, 10, 1, ++seq ) );
         for ( uint8_t i = 0; i < 200; i += 2 ) hosts.remove( host( i, 10, 1, 0 ).key() );
      }
   } );
   for ( int i = 0; i < 5; ++i ) {
      Finished f = run( { "check", "/t/busy" } );
      EXPECT_EQ( f.code, 0 ) << f.out << f.err;
   }
   stop = true;
   churn.join();
   Finished f = run( { "check", "/t/busy" } );
   EXPECT_EQ( f.code, 0 ) << f.out << f.err;
   EXPECT_NE( f.out.find( fmt::format( "{} keys probed", hosts.count() ) ), std::string::npos ) << f.out;
}

// Damage each check finds: a bad header; a count the slots do not hold and a
// record its probe cannot reach (only a slot walk finds those); a slot left
// busy by a killed writer; a key held twice (a reader only ever finds one).
TEST_F( LumenToolCheck, EachKindOfDamageIsReported ) {
   const std::vector< std::pair< std::string, std::function< void( uint8_t* ) > > > cases = {
      { "bad data magic", []( uint8_t* p ) { p[ 0 ] ^= 0xff; } },
      { "header counts 19 live and 0 removed slots",
        []( uint8_t* p ) { reinterpret_cast< li::DataHeader* >( p )->count -= 1; } },
      { "is not found by a probe from its key's home slot", []( uint8_t* p ) { liveSlot( p, false )[ 4 + 2 ] ^= 0x80; } },
      { "1 slot was left mid-update by a writer that is gone",
        []( uint8_t* p ) { *reinterpret_cast< uint32_t* >( liveSlot( p, false ) ) |= li::slotBusy; } },
      { "is held twice",
        []( uint8_t* p ) { std::memcpy( liveSlot( p, true ) + 4, liveSlot( p, false ) + 4, sizeof( OrbEvpn::Host ) ); } },
   };
   const std::string pristine = root.file( "pristine" );
   std::filesystem::copy_file( data(), pristine );
   for ( const auto& [ what, damage ] : cases ) {
      SCOPED_TRACE( what );
      std::filesystem::copy_file( pristine, data(), std::filesystem::copy_options::overwrite_existing );
      LumenTest::editFile( data(), [ &, &damage = damage ]( uint8_t* p, size_t ) { damage( p ); } );
      expectDamage( what );
   }
}

}  // namespace
