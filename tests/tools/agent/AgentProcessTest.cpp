// The real orbevpn-agent on small event files in a private Lumen root.
#include "tests/tools/agent/AgentProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const std::vector< std::string > smallInput = {
   R"({"op":"controllerdb","enabled":true})",
   R"({"op":"vni","vni":10})",
   R"({"op":"mac","vni":10,"mac":"02:00:00:00:00:01","vtep":"192.0.2.1","seqNo":1,"preference":16})",
   R"({"op":"mac","vni":10,"mac":"02:00:00:00:00:02","vtep":"192.0.2.2","seqNo":5,"preference":9})",
   R"({"op":"flood","vni":10,"vtep":"192.0.2.9"})",
   R"({"op":"mac","vni":20,"mac":"02:00:00:00:00:03","vtep":"192.0.2.3","seqNo":2})",
   R"({"op":"flood","vni":20,"vtep":"192.0.2.8","value":true})",
   R"({"op":"flood","vni":20,"vtep":"192.0.2.7","value":true})",
   R"({"op":"synced"})",
};
const std::set< std::string > smallHosts = { "10 02:00:00:00:00:01 192.0.2.1 1 16",
                                             "10 02:00:00:00:00:02 192.0.2.2 5 9",
                                             "20 02:00:00:00:00:03 192.0.2.3 2 16" };
const std::set< std::string > smallFlood = { "10 192.0.2.9", "20 192.0.2.8", "20 192.0.2.7" };
const std::set< uint32_t > smallBrIds = { 0x2000000 | 10, 0x2000000 | 20 };

}  // namespace

TEST_F( AgentProcess, WithEvpnExportTablesEqualTheInputAndBridgeIdsAreListedWithoutItNothing ) {
   ASSERT_EQ( run( { "--input", events( "in.jsonl", smallInput ), "--until-steady" } ).code(), 0 );
   EXPECT_TRUE( hosts().empty() );
   EXPECT_TRUE( brIds().empty() );
   EXPECT_EQ( flag(), false );

   capabilityIs( true );
   Run r = run( { "--input", file( "in.jsonl" ), "--until-steady", "--stats-json" } );
   ASSERT_EQ( r.code(), 0 ) << r.err;
   EXPECT_EQ( hosts(), smallHosts );
   EXPECT_EQ( flood(), smallFlood );
   EXPECT_EQ( brIds(), smallBrIds );
   EXPECT_EQ( flag(), true );
   const Json s = stats( r );
   EXPECT_EQ( s[ "events" ], smallInput.size() );
   EXPECT_EQ( s[ "badLines" ], 0 );
   EXPECT_EQ( s[ "steady" ], true );
   EXPECT_EQ( s[ "exported" ][ "hosts" ], 3 );
   for ( const char* phase : { "total", "takeover", "mount", "sweeps", "model", "export" } ) {
      EXPECT_GE( s[ "timeToSteadyMs" ][ phase ].get< double >(), 0.0 ) << phase;
   }
   EXPECT_GT( s[ "peakRssBytes" ].get< uint64_t >(), 0u );
}

// Each bad line is named by its file, number and byte offset; an overlong
// one is skipped whole (its tail is not taken for a line); nothing valid is lost.
TEST_F( AgentProcess, BadAndForbiddenLinesAreReportedAndSkippedAndNothingElseIsLost ) {
   capabilityIs( true );
   std::vector< std::string > in = smallInput;
   in.insert( in.begin() + 2, R"({"op":"mac","vni":10,"mac":"zz","vtep":"192.0.2.1","seqNo":1})" );   // line 3
   in.insert( in.begin() + 4, R"({"op":"capability","evpnEnabled":false})" );                         // line 5
   in.insert( in.begin() + 5, R"({"op":"vni","vni":16777216})" );                                     // line 6
   in.insert( in.begin() + 6, "" );                                                                   // line 7
   in.insert( in.begin() + 7, R"({"op":"mac","vni":10)" );                                            // line 8
   // Line 9: over the limit, and its tail a valid event that must not apply.
   in.insert( in.begin() + 8, R"({"op":"vni","vni":99,"pad":")" + std::string( 300000, 'p' ) + "\"}\r" +
                                 R"({"op":"vni","vni":98})" );
   in.insert( in.begin() + 9, "{\"op\":\"learn\\nline 1: forged\"}" );                             // line 10
   const std::string path = events( "in.jsonl", in );
   std::vector< uint64_t > offset{ 0 };
   for ( const auto& l : in ) offset.push_back( offset.back() + l.size() + 1 );
   auto at = [ & ]( int line ) { return fmt::format( "{}: line {} (byte {}): ", path, line, offset[ line - 1 ] ); };
   Run r = run( { "--input", path, "--until-steady", "--stats-json" } );
   ASSERT_EQ( r.code(), 0 ) << r.err;
   EXPECT_EQ( r.err, at( 3 ) + "bad MAC \"zz\"\n" +
                     at( 5 ) + "table /orbevpn/evpn/capability is written only by the EVPN agent; "
                               "orbevpn-agent may not write it\n" +
                     at( 6 ) + "VNI 16777216 out of range 0..16777215\n" +
                     at( 8 ) + "not JSON at column 21: syntax error while parsing object - unexpected end of "
                               "input; expected '}'\n" +
                     at( 9 ) + fmt::format( "line of {} bytes is longer than the limit of 65536; skipped\n",
                                            in[ 8 ].size() ) +
                     at( 10 ) + "unknown op \"learn\\nline 1: forged\"\n" );
   EXPECT_EQ( hosts(), smallHosts );
   EXPECT_EQ( flood(), smallFlood );
   EXPECT_EQ( flag(), true ) << "the refused line changed the capability";
   const Json s = stats( r );
   EXPECT_EQ( s[ "badLines" ], 5 );
   EXPECT_EQ( s[ "refused" ], 1 );
   EXPECT_EQ( s[ "events" ], smallInput.size() );
   EXPECT_EQ( s[ "vnis" ], 2 );
}

// The agent keeps its tables only where no other user can swap them, and
// its table prefix stays a list of names.
TEST_F( AgentProcess, AnUnsafeRootOrPrefixIsRefused ) {
   auto folder = [ & ]( const std::string& name, mode_t mode, uid_t owner ) {
      const std::string d = file( name );
      EXPECT_EQ( ::mkdir( d.c_str(), 0700 ), 0 );
      EXPECT_EQ( ::chmod( d.c_str(), mode ), 0 );
      EXPECT_EQ( ::chown( d.c_str(), owner, gid_t( -1 ) ), 0 );
      return d;
   };
   const std::string in = events( "in.jsonl", smallInput );
   const struct {
      std::string root;
      int code;
      std::string why;
   } cases[] = {
      { folder( "open", 0777, 0 ), 77, "(mode 0777) is writable by other users and not sticky" },
      { folder( "group", 0770, 0 ), 77, "(mode 0770) is writable by other users and not sticky" },
      { folder( "nobodys", 0755, 65534 ), 77, "nobodys belongs to uid 65534, who could replace the tables in it" },
      { folder( "sticky", 01777, 0 ), 0, "" },
   };
   for ( const auto& c : cases ) {
      Run r = run( { "--input", in, "--until-steady", "--root", c.root, "--control", control() }, false );
      EXPECT_EQ( r.code(), c.code ) << c.root << ": " << r.err;
      if ( c.code != 0 ) {
         EXPECT_THAT( r.err, ::testing::StartsWith( "orbevpn-agent: refusing to run: Lumen root " + c.root ) );
         EXPECT_THAT( r.err, HasSubstr( c.why ) );
      }
   }
   for ( const char* prefix : { "/orbevpn/..", "/../orbevpn", "/a/./b", "/a b" } ) {
      Run r = run( { "--input", in, "--until-steady", "--prefix", prefix } );
      EXPECT_EQ( r.code(), 2 ) << prefix;
      EXPECT_THAT( r.err, HasSubstr( fmt::format( "bad table prefix \"{}\"", prefix ) ) );
   }
}

// A control client that asks for a reply far larger than the socket takes
// and never reads it holds up neither the feed nor the other clients, and
// is let go after --control-stall.
TEST_F( AgentProcess, AControlClientThatNeverReadsHoldsUpNothing ) {
   capabilityIs( true );
   const std::string sock = file( "feed.sock" );
   const pid_t pid = spawn( { "--input", "unix:" + sock, "--until-steady", "--control-stall", "500" } );
   const std::string out = lastOut_, err = lastErr_;
   auto connectTo = []( const std::string& path ) {
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::snprintf( addr.sun_path, sizeof addr.sun_path, "%s", path.c_str() );
      for ( int i = 0; i < 250; ++i ) {
         const int fd = ::socket( AF_UNIX, SOCK_STREAM, 0 );
         if ( ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof addr ) == 0 ) return fd;
         ::close( fd );
         std::this_thread::sleep_for( std::chrono::milliseconds( 20 ) );
      }
      return -1;
   };
   const int feed = connectTo( sock );
   ASSERT_GE( feed, 0 );
   struct stat st{};
   ASSERT_EQ( ::stat( sock.c_str(), &st ), 0 );
   EXPECT_EQ( st.st_mode & 0777, 0600u ) << "the feed socket lets others in";
   auto feedLines = [ & ]( const std::vector< std::string >& lines ) {
      std::string text;
      for ( const auto& l : lines ) text += l + "\n";
      for ( size_t off = 0; off < text.size(); ) {
         const ssize_t n = ::write( feed, text.data() + off, text.size() - off );
         ASSERT_GT( n, 0 );
         off += size_t( n );
      }
   };
   std::vector< std::string > many = smallInput;
   for ( uint32_t i = 0; i < 8000; ++i ) {
      const Agent::Mac m{ 0x02, 0x30, 0, 0, uint8_t( i >> 8 ), uint8_t( i ) };
      many.insert( many.begin() + 1, fmt::format( R"({{"op":"mac","vni":30,"mac":"{}","vtep":"192.0.2.30","seqNo":1}})",
                                                  Agent::macText( m ) ) );
   }
   feedLines( many );
   waitFor( []( const Json& s ) { return s[ "events" ] == 8000 + smallInput.size(); }, "the first events" );

   const int sleeper = connectTo( control() );
   ASSERT_GE( sleeper, 0 );
   ASSERT_EQ( ::write( sleeper, "dump controller --json\n", 23 ), 23 );
   feedLines( { R"({"op":"mac","vni":40,"mac":"02:00:00:00:00:40","vtep":"192.0.2.40","seqNo":1})" } );
   const Json s = waitFor( []( const Json& s ) { return s[ "vnis" ] == 4; }, "an event after the stalled client" );
   EXPECT_EQ( s[ "exported" ][ "hosts" ], 8000 + 3 + 1 );
   for ( int i = 0; i < 100 && slurp( err ).find( "dropped" ) == std::string::npos; ++i ) {
      std::this_thread::sleep_for( std::chrono::milliseconds( 50 ) );
   }
   EXPECT_THAT( slurp( err ), ::testing::ContainsRegex( "control client #[0-9]+: took no byte of its reply in [0-9]+ ms "
                                                        "\\([0-9]+ of [0-9]+ bytes taken\\); dropped\n" ) );
   EXPECT_EQ( Json::parse( ctl( { "counters", "--json" } ).out )[ "controlDropped" ], 1 );
   ::close( sleeper );
   ::close( feed );
   EXPECT_EQ( wait( pid, out, err ).code(), 0 );
}

// Input longer than one read (a machine started early would sweep VNIs not read yet), and
// an EVPN copy of one controller host (an export started before the import would flap it).
TEST_F( AgentProcess, ARestartOverUnchangedInputRemovesNoRecord ) {
   capabilityIs( true );
   evpnHostIs( Wire::EthAddr( 0x02, 0, 0, 0, 0, 1 ), 10, Wire::IpAddr::fromOctets( 192, 0, 2, 1 ), 1 );
   std::vector< std::string > lines = smallInput;
   std::set< std::string > expected = smallHosts;
   expected.erase( "10 02:00:00:00:00:01 192.0.2.1 1 16" );
   for ( uint32_t i = 0; i < 5000; ++i ) {
      const Agent::Mac m{ 0x02, 0x30, 0, 0, uint8_t( i >> 8 ), uint8_t( i ) };
      lines.insert( lines.begin() + 1, fmt::format( R"({{"op":"mac","vni":30,"mac":"{}","vtep":"192.0.2.30","seqNo":1}})",
                                                    Agent::macText( m ) ) );
      expected.insert( fmt::format( "30 {} 192.0.2.30 1 16", Agent::macText( m ) ) );
   }
   const std::string in = events( "in.jsonl", lines );
   ASSERT_EQ( run( { "--input", in, "--until-steady" } ).code(), 0 );
   ASSERT_EQ( hosts(), expected );

   // Watch every shared table across the restart.
   Lumen::Reader< OrbEvpn::Host > hostWatch( prefix + "/export/host" );
   Lumen::Reader< OrbEvpn::FloodEntry > floodWatch( prefix + "/export/flood" );
   Lumen::Reader< OrbEvpn::BrIdListRecord > brIdWatch( prefix + "/brIdList" );
   Lumen::Reader< OrbEvpn::OrbEvpnConfigRecord > configWatch( prefix + "/config" );
   std::vector< std::string > removed;
   auto noteRemovals = [ & ]( auto& reader, const char* name ) {
      reader.onKeyIs( [ &, name ]( const auto& k ) {
         if ( !reader.contains( k ) ) removed.push_back( name );
      } );
   };
   noteRemovals( hostWatch, "host" );
   noteRemovals( floodWatch, "flood" );
   noteRemovals( brIdWatch, "brId" );
   noteRemovals( configWatch, "config" );

   Run r = run( { "--input", in, "--until-steady", "--stats-json" } );
   ASSERT_EQ( r.code(), 0 ) << r.err;
   hostWatch.dispatch(), floodWatch.dispatch(), brIdWatch.dispatch(), configWatch.dispatch();
   EXPECT_TRUE( removed.empty() ) << removed.front();
   // Also none that came and went between two dispatches.
   EXPECT_EQ( stats( r )[ "removed" ], Json::parse( R"({"hosts":0,"flood":0,"brIds":0})" ) );
   EXPECT_EQ( hosts(), expected );
   EXPECT_EQ( flood(), smallFlood );
   EXPECT_EQ( brIds(), ( std::set< uint32_t >{ 0x2000000 | 10, 0x2000000 | 20, 0x2000000 | 30 } ) );
}

// A VNI whose bridge id is gone but whose records stayed (an agent killed
// between the two steps of a sweep) is found from the records and swept.
TEST_F( AgentProcess, RecordsOfAVniWithoutBridgeIdAreSweptAtStart ) {
   capabilityIs( true );
   ASSERT_EQ( run( { "--input", events( "in.jsonl", smallInput ), "--until-steady" } ).code(), 0 );
   {
      Lumen::Writer< OrbEvpn::BrIdListRecord > list;
      list.attach( prefix + "/brIdList" );
      ASSERT_TRUE( list.remove( Bridging::BridgeId( 0x2000000 | 20 ) ) );
   }
   std::vector< std::string > without20;
   for ( const auto& l : smallInput ) if ( l.find( "\"vni\":20" ) == std::string::npos ) without20.push_back( l );
   ASSERT_EQ( run( { "--input", events( "in2.jsonl", without20 ), "--until-steady" } ).code(), 0 );
   EXPECT_EQ( hosts(), ( std::set< std::string >{ "10 02:00:00:00:00:01 192.0.2.1 1 16",
                                                  "10 02:00:00:00:00:02 192.0.2.2 5 9" } ) );
   EXPECT_EQ( flood(), std::set< std::string >{ "10 192.0.2.9" } );
   EXPECT_EQ( brIds(), std::set< uint32_t >{ 0x2000000 | 10 } );
}

TEST_F( AgentProcess, IntegrationFlagOffRemovesEverythingExportedAndOnBringsItBack ) {
   capabilityIs( true );
   const pid_t pid = spawn( { "--input", events( "in.jsonl", smallInput ) } );
   const std::string out = lastOut_, err = lastErr_;
   waitFor( []( const Json& s ) { return s[ "steady" ] == true; }, "steady" );
   ASSERT_EQ( hosts(), smallHosts );

   capabilityIs( false );
   Json s = waitFor( []( const Json& s ) { return s[ "integrationMode" ] == false && s[ "exported" ][ "hosts" ] == 0; },
                     "the flag off" );
   EXPECT_EQ( s[ "exported" ], Json::parse( R"({"hosts":0,"flood":0,"brIds":0})" ) );
   EXPECT_TRUE( hosts().empty() );
   EXPECT_TRUE( flood().empty() );
   EXPECT_TRUE( brIds().empty() );
   EXPECT_EQ( flag(), false );
   EXPECT_EQ( s[ "vnis" ], 2 ) << "the controller model stays";
   Run c = ctl( { "counters", "--json" } );
   EXPECT_EQ( Json::parse( c.out )[ "removed" ], Json::parse( R"({"hosts":3,"flood":3,"brIds":2})" ) );

   capabilityIs( true );
   waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3; }, "the flag on again" );
   EXPECT_EQ( hosts(), smallHosts );
   EXPECT_EQ( flood(), smallFlood );
   EXPECT_EQ( brIds(), smallBrIds );
   EXPECT_EQ( flag(), true );

   // SIGTERM: a clean exit that leaves the tables as they are.
   ::kill( pid, SIGTERM );
   Run r = wait( pid, out, err );
   EXPECT_EQ( r.code(), 0 ) << r.err;
   EXPECT_EQ( hosts(), smallHosts );
   EXPECT_EQ( brIds(), smallBrIds );
}

TEST_F( AgentProcess, ControlSocketAnswersEveryCommand ) {
   capabilityIs( true );
   // One host and one flood VTEP from the EVPN side, to see the import.
   evpnHostIs( Wire::EthAddr( 0x02, 0xee, 0, 0, 0, 1 ), 10, Wire::IpAddr::fromOctets( 198, 51, 100, 1 ), 4 );
   std::vector< std::string > in = smallInput;
   in.insert( in.end() - 1, R"({"op":"multiPath","vni":20,"mac":"02:00:00:00:00:03","vteps":["192.0.2.3","192.0.2.4"]})" );
   const pid_t pid = spawn( { "--input", events( "in.jsonl", in ) } );
   const std::string out = lastOut_, err = lastErr_;
   Json s = waitFor( []( const Json& s ) { return s[ "steady" ] == true; }, "steady" );

   struct stat st{};
   ASSERT_EQ( ::stat( control().c_str(), &st ), 0 );
   EXPECT_TRUE( S_ISSOCK( st.st_mode ) );
   EXPECT_EQ( st.st_mode & 0777, 0600u );

   EXPECT_EQ( s[ "integrationMode" ], true );
   EXPECT_EQ( s[ "controllerdbEnabled" ], true );
   EXPECT_EQ( s[ "evpnEnabled" ], true );
   EXPECT_EQ( s[ "vnis" ], 2 );
   EXPECT_EQ( s[ "exported" ], Json::parse( R"({"hosts":3,"flood":3,"brIds":2})" ) );
   EXPECT_EQ( s[ "imported" ], Json::parse( R"({"hosts":1,"flood":0})" ) );
   EXPECT_EQ( s[ "events" ], in.size() );
   EXPECT_EQ( s[ "badLines" ], 0 );
   EXPECT_TRUE( s[ "eventsPerSecond" ].is_number() );

   Run r = ctl( { "dump", "controller", "--json" } );
   ASSERT_EQ( r.code(), 0 ) << r.err;
   EXPECT_EQ( Json::parse( r.out ), Json::parse( R"({"controllerdbEnabled":true,"vnis":[
      {"name":"10","vni":10,
       "macs":[{"mac":"02:00:00:00:00:01","vtep":"192.0.2.1","seqNo":1,"preference":16},
               {"mac":"02:00:00:00:00:02","vtep":"192.0.2.2","seqNo":5,"preference":9}],
       "floodLists":[{"mac":"00:00:00:00:00:00","vteps":[{"vtep":"192.0.2.9","value":true}]}],
       "multiPath":[]},
      {"name":"20","vni":20,
       "macs":[{"mac":"02:00:00:00:00:03","vtep":"192.0.2.3","seqNo":2,"preference":16}],
       "floodLists":[{"mac":"00:00:00:00:00:00","vteps":[{"vtep":"192.0.2.7","value":true},
                                                         {"vtep":"192.0.2.8","value":true}]}],
       "multiPath":[{"mac":"02:00:00:00:00:03","vteps":["192.0.2.3","192.0.2.4"]}]}]})" ) );

   r = ctl( { "dump", "import", "--json" } );
   ASSERT_EQ( r.code(), 0 ) << r.err;
   EXPECT_EQ( Json::parse( r.out ), Json::parse( R"({"vnis":[{"vni":10,
       "macs":[{"mac":"02:ee:00:00:00:01","vtep":"198.51.100.1","seqNo":4,"preference":16}],
       "floodLists":[]}]})" ) );

   r = ctl( { "counters", "--json" } );
   ASSERT_EQ( r.code(), 0 );
   EXPECT_EQ( Json::parse( r.out )[ "tables" ][ "hostIs" ], 3 );

   r = ctl( { "metrics" } );
   ASSERT_EQ( r.code(), 0 );
   EXPECT_THAT( r.out, HasSubstr( "# TYPE orbevpn_agent_events_total counter\n" ) );
   EXPECT_THAT( r.out, HasSubstr( "\norbevpn_agent_exported_hosts 3\n" ) );
   EXPECT_THAT( r.out, HasSubstr( "\norbevpn_agent_table_operations_total{counter=\"hostIs\"} 3\n" ) );

   r = ctl( { "trace" } );
   EXPECT_EQ( r.code(), 0 );

   r = ctl( { "write", "evpn/capability" } );
   EXPECT_EQ( r.code(), 1 );
   EXPECT_EQ( r.err, "error: table /orbevpn/evpn/capability is written only by the EVPN agent; "
                     "orbevpn-agent may not write it\n" );
   r = ctl( { "frobnicate" } );
   EXPECT_EQ( r.code(), 1 );
   EXPECT_THAT( r.err, HasSubstr( "error: unknown command \"frobnicate\"" ) );

   // cleanup on demand: everything exported goes, the model stays.
   r = ctl( { "cleanup" } );
   EXPECT_EQ( r.code(), 0 ) << r.err;
   s = statusNow();
   EXPECT_EQ( s[ "exported" ], Json::parse( R"({"hosts":0,"flood":0,"brIds":0})" ) );
   EXPECT_EQ( s[ "imported" ], Json::parse( R"({"hosts":0,"flood":0})" ) );
   EXPECT_TRUE( hosts().empty() );
   EXPECT_EQ( s[ "vnis" ], 2 );

   ::kill( pid, SIGINT );
   EXPECT_EQ( wait( pid, out, err ).code(), 0 );
   EXPECT_NE( ::access( control().c_str(), F_OK ), 0 ) << "the socket file stays";
   EXPECT_EQ( ctl( { "status" } ).code(), 1 ) << "an agent that is gone answers";
}

TEST_F( AgentProcess, TheDemoIsTheDefaultAndRecordsWhatItApplied ) {
   capabilityIs( true );
   const std::string rec = file( "events.jsonl" );
   Run r = run( { "--demo", "3:20", "--demo-skip-vni", "2", "--record-events", rec, "--until-steady", "--stats-json" } );
   ASSERT_EQ( r.code(), 0 ) << r.err;
   EXPECT_EQ( stats( r )[ "exported" ][ "hosts" ], 40 );
   EXPECT_EQ( brIds(), ( std::set< uint32_t >{ 0x2000001, 0x2000003 } ) );
   // The recording is input the agent takes: the same tables again.
   std::ifstream f( rec );
   size_t lines = 0;
   for ( std::string l; std::getline( f, l ); ++lines ) {
      ASSERT_TRUE( std::holds_alternative< Agent::Event >( Agent::parseEvent( l ) ) ) << l;
   }
   EXPECT_EQ( lines, 1 + 2 + 40 + 4 + 1u );
   const auto before = hosts();
   Run again = run( { "--input", rec, "--until-steady", "--stats-json" } );
   ASSERT_EQ( again.code(), 0 ) << again.err;
   EXPECT_EQ( hosts(), before );
   EXPECT_EQ( stats( again )[ "removed" ][ "hosts" ], 0 );
}

// Refused at start (2), or given up when the input never ends (3): each says why.
TEST_F( AgentProcess, RefusalsAndGivingUpSayWhy ) {
   const struct {
      std::vector< std::string > args;
      int code;
      std::string why;
   } cases[] = {
      { { "--input", "unix:" + file( "feed.sock" ), "--until-steady", "--steady-timeout", "1", "--sync-timeout", "0.2" },
        3, "not steady after 1 s: the input is not consumed yet" },
      { { "--input", events( "in.jsonl", smallInput ), "--metrics-listen", "0.0.0.0:0" },
        2, "--metrics-listen 0.0.0.0:0: not a loopback address" },
      { { "--ovsdb", "udp:1.2.3.4:5" }, 2, "--ovsdb udp:1.2.3.4:5: expected unix:PATH or tcp:HOST:PORT" },
      { { "--ovsdb", "tcp:localhost:http" }, 2, "expected tcp:HOST:PORT" },
   };
   for ( const auto& c : cases ) {
      Run r = run( c.args );
      EXPECT_EQ( r.code(), c.code ) << c.why;
      EXPECT_THAT( r.err, HasSubstr( c.why ) );
   }
}

TEST_F( AgentProcess, EventsFromAUnixSocketAndMetricsOverHttp ) {
   capabilityIs( true );
   const std::string sock = file( "feed.sock" );
   const pid_t pid = spawn( { "--input", "unix:" + sock, "--until-steady", "--metrics-listen", "127.0.0.1:0",
                              "--trace", "OrbEvpnModeSm/8" } );
   const std::string out = lastOut_, err = lastErr_;
   int fd = -1;
   for ( int i = 0; i < 200 && fd < 0; ++i ) {
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::snprintf( addr.sun_path, sizeof addr.sun_path, "%s", sock.c_str() );
      fd = ::socket( AF_UNIX, SOCK_STREAM, 0 );
      if ( ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof addr ) != 0 ) {
         ::close( fd );
         fd = -1;
         std::this_thread::sleep_for( std::chrono::milliseconds( 20 ) );
      }
   }
   ASSERT_GE( fd, 0 ) << "the agent does not listen on " << sock;
   std::string text;
   for ( const auto& l : smallInput ) text += l + "\n";
   ASSERT_EQ( ::write( fd, text.data(), text.size() ), ssize_t( text.size() ) );
   waitFor( []( const Json& s ) { return s[ "exported" ][ "hosts" ] == 3; }, "the socket's events" );

   // The metrics line on stderr names the port the server took.
   const std::string e = slurp( err );
   const std::string tag = "metrics at http://127.0.0.1:";
   ASSERT_NE( e.find( tag ), std::string::npos ) << e;
   const int port = std::stoi( e.substr( e.find( tag ) + tag.size() ) );
   httplib::Client http( "127.0.0.1", port );
   int status = 0;
   std::string body;
   for ( int i = 0; i < 50; ++i ) {   // the text is refreshed every status period
      auto res = http.Get( "/metrics" );
      if ( res ) {
         status = res->status;
         body = res->body;
      }
      if ( body.find( "\norbevpn_agent_exported_hosts 3\n" ) != std::string::npos ) break;
      std::this_thread::sleep_for( std::chrono::milliseconds( 50 ) );
   }
   EXPECT_EQ( status, 200 );
   EXPECT_THAT( body, HasSubstr( "\norbevpn_agent_exported_hosts 3\n" ) );
   EXPECT_THAT( body, HasSubstr( "# TYPE orbevpn_agent_integration_mode gauge\norbevpn_agent_integration_mode 1\n" ) );

   Run t = ctl( { "trace" } );
   EXPECT_THAT( t.out, HasSubstr( "OrbEvpnModeSm 8 Turning orbEvpnIntegrationMode ON" ) );

   ::close( fd );   // the end of the stream: the input is consumed
   Run r = wait( pid, out, err );
   EXPECT_EQ( r.code(), 0 ) << r.err;
   EXPECT_EQ( hosts(), smallHosts );
}
