// The real orbevpn-agent fed by a real ovsdb-server (hardware_vtep) filled with vtep-ctl.
#include "tests/tools/agent/AgentProcess.h"
#include "tests/tools/agent/ovsdb/OvsdbServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>


using ::testing::Not;

namespace {

class OvsdbFeed : public AgentProcess {
 protected:
   void SetUp() override {
      const std::string why = OvsdbServer::missing();
      if ( !why.empty() ) GTEST_SKIP() << why;
   }
   OvsdbServer& server( bool anyEncapsulation = false ) {
      if ( !server_ ) server_ = std::make_unique< OvsdbServer >( root.dir(), anyEncapsulation );
      return *server_;
   }
   pid_t spawnAgent( std::vector< std::string > more = {}, std::string at = "" ) {
      std::vector< std::string > args{ "--ovsdb", at.empty() ? "unix:" + server().socket() : at };
      args.insert( args.end(), more.begin(), more.end() );
      const pid_t pid = spawn( args );
      out_ = lastOut_;
      err_ = lastErr_;
      return pid;
   }
   Run stopAgent( pid_t pid ) {
      ::kill( pid, SIGTERM );
      return wait( pid, out_, err_ );
   }
   // Polls the export tables until `pred` holds.
   template< class Fn >
   void until( Fn pred, const std::string& what ) {
      for ( int i = 0; i < 300; ++i ) {
         if ( pred() ) return;
         std::this_thread::sleep_for( std::chrono::milliseconds( 50 ) );
      }
      ADD_FAILURE() << "timed out waiting for " << what << "; hosts " << ::testing::PrintToString( hosts() )
                    << " flood " << ::testing::PrintToString( flood() ) << "; agent stderr: " << slurp( err_ );
   }
   void hostsAre( const std::set< std::string >& want, const std::string& what ) {
      until( [ & ] { return hosts() == want; }, what );
      EXPECT_EQ( hosts(), want ) << what;
   }
   void floodIs( const std::set< std::string >& want, const std::string& what ) {
      until( [ & ] { return flood() == want; }, what );
      EXPECT_EQ( flood(), want ) << what;
   }

   // ls0 (VNI 10): two MACs, two flood VTEPs; ls1 (VNI 20): one of each (a bare-reference locator set).
   void fill() {
      OvsdbServer& s = server();
      s.ctl( "add-ls ls0 -- set Logical_Switch ls0 tunnel_key=10" );
      s.ctl( "add-ucast-remote ls0 02:00:00:00:00:01 192.0.2.1" );
      s.ctl( "add-ucast-remote ls0 02:00:00:00:00:02 192.0.2.2" );
      s.ctl( "add-mcast-remote ls0 unknown-dst 192.0.2.9" );
      s.ctl( "add-mcast-remote ls0 unknown-dst 192.0.2.8" );
      s.ctl( "add-ls ls1 -- set Logical_Switch ls1 tunnel_key=20" );
      s.ctl( "add-ucast-remote ls1 02:00:00:00:00:03 192.0.2.3" );
      s.ctl( "add-mcast-remote ls1 unknown-dst 192.0.2.7" );
   }
   const std::set< std::string > filledHosts = { "10 02:00:00:00:00:01 192.0.2.1 1 16",
                                                  "10 02:00:00:00:00:02 192.0.2.2 1 16",
                                                  "20 02:00:00:00:00:03 192.0.2.3 1 16" };
   const std::set< std::string > filledFlood = { "10 192.0.2.8", "10 192.0.2.9", "20 192.0.2.7" };

   std::unique_ptr< OvsdbServer > server_;
   std::string out_, err_;
};

}  // namespace

TEST_F( OvsdbFeed, SwitchesMacsAndFloodListsReachTheExportAndFollowEveryChange ) {
   capabilityIs( true );
   server().start();
   fill();
   const pid_t pid = spawnAgent();
   Json s = waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3 && s[ "steady" ] == true; },
                     "the database exported" );
   EXPECT_EQ( s[ "integrationMode" ], true );
   EXPECT_EQ( hosts(), filledHosts );
   EXPECT_EQ( flood(), filledFlood );
   EXPECT_EQ( brIds(), ( std::set< uint32_t >{ 0x2000000 | 10, 0x2000000 | 20 } ) );

   // A MAC moves to another locator: its number rises.
   server().ctl( "add-ucast-remote ls0 02:00:00:00:00:01 192.0.2.5" );
   hostsAre( { "10 02:00:00:00:00:01 192.0.2.5 2 16", "10 02:00:00:00:00:02 192.0.2.2 1 16",
               "20 02:00:00:00:00:03 192.0.2.3 1 16" },
             "the move" );
   // The flood list's locator set is replaced, never edited.
   server().ctl( "add-mcast-remote ls0 unknown-dst 192.0.2.6" );
   floodIs( { "10 192.0.2.6", "10 192.0.2.8", "10 192.0.2.9", "20 192.0.2.7" }, "a VTEP added to the flood list" );
   server().ctl( "del-mcast-remote ls0 unknown-dst 192.0.2.9" );
   floodIs( { "10 192.0.2.6", "10 192.0.2.8", "20 192.0.2.7" }, "a VTEP out of the flood list" );
   server().ctl( "del-ucast-remote ls1 02:00:00:00:00:03" );
   hostsAre( { "10 02:00:00:00:00:01 192.0.2.5 2 16", "10 02:00:00:00:00:02 192.0.2.2 1 16" }, "a MAC forgotten" );

   // The switch goes: everything of its VNI is withdrawn, the other stays.
   server().ctl( "clear-remote-macs ls0 -- del-ls ls0" );
   hostsAre( {}, "the switch deleted" );
   floodIs( { "20 192.0.2.7" }, "the switch deleted" );
   until( [ & ] { return brIds() == std::set< uint32_t >{ 0x2000000 | 20 }; }, "VNI 10's bridge id withdrawn" );
   EXPECT_EQ( statusNow()[ "vnis" ], 1 );
   EXPECT_EQ( stopAgent( pid ).code(), 0 );
}

TEST_F( OvsdbFeed, AfterTheServerComesBackWithChangesTheModelConverges ) {
   capabilityIs( true );
   server().start();
   fill();
   const pid_t pid = spawnAgent( { "--record-events", file( "events.jsonl" ) } );
   waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3; }, "the database exported" );

   // Killed, changed behind another socket (the agent cannot see), back.
   server().stop();
   server().start( file( "elsewhere.sock" ) );
   server().ctl( "del-ucast-remote ls0 02:00:00:00:00:02" );
   server().ctl( "add-ucast-remote ls0 02:00:00:00:00:01 192.0.2.4" );
   server().ctl( "del-mcast-remote ls0 unknown-dst 192.0.2.9" );
   server().ctl( "clear-remote-macs ls1 -- del-ls ls1" );
   server().ctl( "add-ls ls2 -- set Logical_Switch ls2 tunnel_key=30" );
   server().ctl( "add-ucast-remote ls2 02:00:00:00:00:30 192.0.2.30" );
   server().stop();
   EXPECT_EQ( statusNow()[ "exported" ][ "hosts" ], 3 ) << "the model stays while the server is away";
   server().start();

   hostsAre( { "10 02:00:00:00:00:01 192.0.2.4 2 16", "30 02:00:00:00:00:30 192.0.2.30 1 16" },
             "the changes made while away" );
   floodIs( { "10 192.0.2.8" }, "the changes made while away" );
   until( [ & ] { return brIds() == std::set< uint32_t >{ 0x2000000 | 10, 0x2000000 | 30 }; }, "bridge ids" );
   EXPECT_EQ( statusNow()[ "controllerdbEnabled" ], true ) << "back within the grace";
   EXPECT_EQ( statusNow()[ "vnis" ], 2 );

   // And the feed keeps following the new session.
   server().ctl( "add-ucast-remote ls2 02:00:00:00:00:31 192.0.2.31" );
   hostsAre( { "10 02:00:00:00:00:01 192.0.2.4 2 16", "30 02:00:00:00:00:30 192.0.2.30 1 16",
               "30 02:00:00:00:00:31 192.0.2.31 1 16" },
             "a change after the reconnect" );
   EXPECT_EQ( stopAgent( pid ).code(), 0 );

   // What was recorded is what the model holds: replayed, it gives the same tables.
   const auto before = hosts();
   Run again = run( { "--input", file( "events.jsonl" ), "--until-steady", "--stats-json" } );
   ASSERT_EQ( again.code(), 0 ) << again.err;
   EXPECT_EQ( hosts(), before );
   EXPECT_EQ( flood(), ( std::set< std::string >{ "10 192.0.2.8" } ) );
}

TEST_F( OvsdbFeed, WithoutASessionForTheGraceTheControllerDatabaseIsDisabled ) {
   capabilityIs( true );
   server().start();
   fill();
   const pid_t pid = spawnAgent( { "--ovsdb-grace", "0.5" } );
   waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3; }, "the database exported" );
   server().stop();
   Json s = waitFor( []( const Json& s ) { return s[ "controllerdbEnabled" ] == false; }, "the grace to run out" );
   s = waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 0; }, "the export cleaned up" );
   EXPECT_EQ( s[ "integrationMode" ], false );
   EXPECT_EQ( flag(), false );
   EXPECT_THAT( slurp( err_ ), HasSubstr( "no session for 0.5 s: the controller database is disabled" ) );

   server().start();
   s = waitFor( []( const Json& s ) { return s[ "controllerdbEnabled" ] == true && s[ "exported" ][ "hosts" ] == 3; },
                "a session again" );
   EXPECT_EQ( hosts(), filledHosts );
   EXPECT_EQ( stopAgent( pid ).code(), 0 );
}

TEST_F( OvsdbFeed, SequenceNumbersKeepRisingAcrossAgentRestarts ) {
   capabilityIs( true );
   // The EVPN side holds MAC 4 at 7 (learnt from a peer): the controller's
   // first word on it must win over that.
   evpnHostIs( Wire::EthAddr( 0x02, 0, 0, 0, 0, 4 ), 10, Wire::IpAddr::fromOctets( 198, 51, 100, 4 ), 7 );

   server().start();
   fill();
   pid_t pid = spawnAgent();
   waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3; }, "the database exported" );
   server().ctl( "add-ucast-remote ls0 02:00:00:00:00:01 192.0.2.11" );
   hostsAre( { "10 02:00:00:00:00:01 192.0.2.11 2 16", "10 02:00:00:00:00:02 192.0.2.2 1 16",
               "20 02:00:00:00:00:03 192.0.2.3 1 16" },
             "the first move" );
   server().ctl( "add-ucast-remote ls0 02:00:00:00:00:04 192.0.2.4" );
   until( [ & ] { return hosts().count( "10 02:00:00:00:00:04 192.0.2.4 8 16" ) > 0; }, "MAC 4 above the EVPN side's 7" );
   EXPECT_EQ( stopAgent( pid ).code(), 0 );

   // While the agent is down the MAC moves again.
   server().ctl( "add-ucast-remote ls0 02:00:00:00:00:01 192.0.2.12" );
   pid = spawnAgent( { "--stats-json" } );
   hostsAre( { "10 02:00:00:00:00:01 192.0.2.12 3 16", "10 02:00:00:00:00:02 192.0.2.2 1 16",
               "10 02:00:00:00:00:04 192.0.2.4 8 16", "20 02:00:00:00:00:03 192.0.2.3 1 16" },
             "the second move, after the restart" );
   // The MACs that stayed kept their numbers: nothing was withdrawn.
   Run r = stopAgent( pid );
   EXPECT_EQ( r.code(), 0 );
   EXPECT_EQ( stats( r )[ "removed" ][ "hosts" ], 0 );
}

TEST_F( OvsdbFeed, UnusableRowsAreReportedWithTheirUuidAndSkipped ) {
   capabilityIs( true );
   OvsdbServer& s = server( /*anyEncapsulation=*/true );
   s.start();
   fill();
   s.ctl( "add-ls nokey" );
   s.ctl( "add-ls big -- set Logical_Switch big tunnel_key=16777216" );
   const std::string ls0 = s.uuidOf( "Logical_Switch", "ls0" );
   const std::string nokey = s.uuidOf( "Logical_Switch", "nokey" ), big = s.uuidOf( "Logical_Switch", "big" );
   // Through the server, past vtep-ctl's schema checks: a locator, a MAC behind it; their uuids.
   auto ucastWithLocator = [ & ]( const std::string& mac, const std::string& encap, const std::string& ip ) {
      const Json t = Json::array(
         { "hardware_vtep",
           { { "op", "insert" }, { "table", "Physical_Locator" }, { "uuid-name", "l" },
             { "row", { { "encapsulation_type", encap }, { "dst_ip", ip } } } },
           { { "op", "insert" }, { "table", "Ucast_Macs_Remote" },
             { "row", { { "MAC", mac }, { "logical_switch", { "uuid", ls0 } }, { "locator", { "named-uuid", "l" } } } } } } );
      const Json r = Json::parse( s.transact( t ) );
      return std::make_pair( r[ 0 ][ "uuid" ][ 1 ].get< std::string >(), r[ 1 ][ "uuid" ][ 1 ].get< std::string >() );
   };
   const auto badMac = ucastWithLocator( "02:00:00:00:00", "vxlan_over_ipv4", "192.0.2.50" );
   const auto badIp = ucastWithLocator( "02:00:00:00:00:51", "vxlan_over_ipv4", "192.0.2.256" );
   const auto badEncap = ucastWithLocator( "02:00:00:00:00:52", "vxlan_over_ipv6", "192.0.2.52" );

   const pid_t pid = spawnAgent();
   waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3 && s[ "steady" ] == true; },
            "the usable rows exported" );
   EXPECT_EQ( hosts(), filledHosts );
   EXPECT_EQ( flood(), filledFlood );
   EXPECT_EQ( statusNow()[ "vnis" ], 2 );
   const std::string err = slurp( err_ );
   EXPECT_THAT( err, HasSubstr( "ovsdb: Logical_Switch " + nokey + ": no tunnel_key\n" ) );
   EXPECT_THAT( err, HasSubstr( "ovsdb: Logical_Switch " + big + ": tunnel_key 16777216 out of range 0..16777215\n" ) );
   EXPECT_THAT( err, HasSubstr( "ovsdb: Ucast_Macs_Remote " + badMac.second + ": bad MAC \"02:00:00:00:00\"\n" ) );
   EXPECT_THAT( err, HasSubstr( "ovsdb: Physical_Locator " + badIp.first + ": bad IP \"192.0.2.256\"\n" ) );
   EXPECT_THAT( err, HasSubstr( "ovsdb: Physical_Locator " + badEncap.first +
                                ": encapsulation \"vxlan_over_ipv6\" is not vxlan_over_ipv4\n" ) );
   Run c = ctl( { "counters", "--json" } );
   EXPECT_EQ( Json::parse( c.out )[ "badRows" ], 5 );

   // A later update with a bad row among good ones: the good ones apply.
   s.ctl( "add-ucast-remote ls1 02:00:00:00:00:21 192.0.2.21 -- set Logical_Switch big tunnel_key=-5" );
   hostsAre( { "10 02:00:00:00:00:01 192.0.2.1 1 16", "10 02:00:00:00:00:02 192.0.2.2 1 16",
               "20 02:00:00:00:00:03 192.0.2.3 1 16", "20 02:00:00:00:00:21 192.0.2.21 1 16" },
             "the good row of a mixed update" );
   until( [ & ] { return slurp( err_ ).find( "tunnel_key -5 out of range" ) != std::string::npos; }, "the report" );
   EXPECT_THAT( slurp( err_ ), HasSubstr( "ovsdb: Logical_Switch " + big + ": tunnel_key -5 out of range 0..16777215\n" ) );
   EXPECT_EQ( stopAgent( pid ).code(), 0 );
}

// The server probes a quiet session with "echo" after 1 s (its shortest) and drops it
// when no answer comes; the feed keeps its one session.
TEST_F( OvsdbFeed, EchoKeepsAQuietSessionOpen ) {
   server().start();
   server().transact( Json::array(
      { "hardware_vtep",
        { { "op", "insert" }, { "table", "Manager" }, { "uuid-name", "m" },
          { "row", { { "target", "punix:" + file( "probed.sock" ) }, { "inactivity_probe", 1000 } } } },
        { { "op", "insert" }, { "table", "Global" }, { "row", { { "managers", { "named-uuid", "m" } } } } } } ) );
   fill();
   server().stop();
   server().start( "", /*managers=*/true );
   for ( int i = 0; i < 100 && ::access( file( "probed.sock" ).c_str(), F_OK ) != 0; ++i ) {
      std::this_thread::sleep_for( std::chrono::milliseconds( 20 ) );
   }
   const pid_t pid = spawnAgent( {}, "unix:" + file( "probed.sock" ) );
   waitFor( []( const Json& s ) { return s[ "ovsdb" ][ "up" ] == true; }, "a session" );
   std::this_thread::sleep_for( std::chrono::milliseconds( 3500 ) );   // past probe and timeout, nothing else to say
   const Json s = statusNow();
   EXPECT_EQ( s[ "ovsdb" ][ "sessions" ], 1 ) << slurp( err_ );
   EXPECT_EQ( s[ "ovsdb" ][ "up" ], true );
   EXPECT_THAT( slurp( err_ ), Not( HasSubstr( "session ended" ) ) );
   EXPECT_EQ( stopAgent( pid ).code(), 0 );
}

TEST_F( OvsdbFeed, ASessionOverTcp ) {
   capabilityIs( true );
   // A port that was free a moment ago.
   const int probe = ::socket( AF_INET, SOCK_STREAM, 0 );
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl( INADDR_LOOPBACK );
   socklen_t len = sizeof a;
   ASSERT_EQ( ::bind( probe, reinterpret_cast< sockaddr* >( &a ), sizeof a ), 0 );
   ::getsockname( probe, reinterpret_cast< sockaddr* >( &a ), &len );
   const int port = ntohs( a.sin_port );
   ::close( probe );
   server().start( "", false, port );
   fill();
   const pid_t pid = spawnAgent( {}, "tcp:127.0.0.1:" + std::to_string( port ) );
   waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3; }, "the database exported over TCP" );
   EXPECT_EQ( hosts(), filledHosts );
   EXPECT_EQ( flood(), filledFlood );
   EXPECT_EQ( stopAgent( pid ).code(), 0 );
}
