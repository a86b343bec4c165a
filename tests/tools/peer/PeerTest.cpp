// The stand-in EVPN side against Lumen writers standing in for the agent's tables, in a private root.
#include "tools/peer/Peer.h"
#include "tools/peer/RemoteEntries.h"

#include "tools/common/Boundary.h"
#include "tests/support/LumenRoot.h"
#include "tests/tools/common/AgentTables.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace B = OrbEvpn::Boundary;
using OrbEvpn::FloodEntry;
using OrbEvpn::Host;
using OrbEvpn::MacVniPair;
using OrbEvpn::VniVtepPair;
using OrbEvpn::Peer::ipText;
using OrbEvpn::Peer::macText;
using OrbEvpn::Peer::Peer;
using OrbEvpn::Peer::PeerOptions;

const std::string prefix = "/orbevpn";

Host controllerHost( uint32_t vni, uint32_t i, uint32_t seq = 1 ) {
   Host h( MacVniPair( Wire::EthAddr( 0x02, 0, 0, uint8_t( vni ), 0, uint8_t( i ) ), Vxlan::Vni( vni ) ) );
   h.vtepAddrIs( Wire::IpAddr::fromOctets( 192, 0, 2, uint8_t( 1 + i % 4 ) ) );
   h.seqNoIs( Keel::Seqno32( seq ) );
   return h;
}

std::string hostText( const Host& h ) {
   return macText( h.macAddr() ) + "/" + std::to_string( h.vni().value() ) + " " + ipText( h.vtepAddr() ) +
          " " + std::to_string( h.seqNo().value() ) + " " + std::to_string( h.preference() );
}

std::string floodText( uint32_t vni, const Wire::IpAddr& ip ) { return std::to_string( vni ) + " " + ipText( ip ); }

// The peer's tables as another process sees them now.
std::map< std::string, Host > evpnHosts() {
   Lumen::Reader< Host > r( B::pathOf( prefix, B::evpnHost ) );
   std::map< std::string, Host > out;
   for ( auto e = r.nextShared(); e; e = r.nextShared( e->second ) ) {
      out[ macText( e->first.macAddr() ) + "/" + std::to_string( e->first.vni().value() ) ] = e->first;
   }
   return out;
}

std::set< std::string > evpnFlood() {
   Lumen::Reader< FloodEntry > r( B::pathOf( prefix, B::evpnFlood ) );
   std::set< std::string > out;
   for ( auto e = r.nextShared(); e; e = r.nextShared( e->second ) ) {
      out.insert( floodText( e->first.vni().value(), e->first.vtepAddr() ) );
   }
   return out;
}

std::set< uint32_t > vnisIn( const std::map< std::string, Host >& hosts ) {
   std::set< uint32_t > out;
   for ( const auto& [ k, h ] : hosts ) out.insert( h.vni().value() );
   return out;
}

// The agent's tables, with what a test exports for a VNI.
class AgentTables : public OrbEvpn::Testing::AgentTables {
 public:
   // `macs` hosts and two flood VTEPs (192.0.2.101, .102) for `vni`.
   void exportVni( uint32_t vni, uint32_t macs ) {
      for ( uint32_t i = 0; i < macs; ++i ) host.write( controllerHost( vni, i ) );
      for ( uint8_t d : { 101, 102 } ) {
         flood.write( FloodEntry( VniVtepPair( Vxlan::Vni( vni ), Wire::IpAddr::fromOctets( 192, 0, 2, d ) ) ) );
      }
   }
};

PeerOptions testOptions() {
   PeerOptions o;
   o.remoteHostsPerVni = 3;
   o.echoPerVni = 2;
   o.seed = 7;
   o.settleMs = 0;
   o.maxDelayMs = 0;
   return o;
}

constexpr int quietMs = 60;

// What the peer must hold for an advertised VNI besides its echoes.
std::map< std::string, Host > remoteHostsOf( uint32_t vni, const PeerOptions& o ) {
   std::map< std::string, Host > out;
   for ( uint32_t i = 0; i < o.remoteHostsPerVni; ++i ) {
      Host h = OrbEvpn::Peer::remoteHost( o.seed, vni, i );
      out[ macText( h.macAddr() ) + "/" + std::to_string( vni ) ] = h;
   }
   return out;
}

// Settles until `done` holds or ten seconds pass.
template < typename Done >
void settleUntil( Peer& peer, Done done ) {
   auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 10 );
   while ( !done() && std::chrono::steady_clock::now() < deadline ) peer.settle( quietMs );
}

class PeerTest : public ::testing::Test {
 protected:
   LumenRoot root;   // first: every table below lives in it
   AgentTables agent;
   std::ostringstream log;
   PeerOptions options = testOptions();
};

TEST_F( PeerTest, AdvertisesAVniOnlyWhileItIsListedAndIntegrationIsOn ) {
   agent.exportVni( 10, 6 );
   agent.exportVni( 20, 6 );
   agent.list( 10 );
   agent.flag( false );
   Peer peer( options, &log );
   peer.settle( quietMs );
   EXPECT_TRUE( evpnHosts().empty() );
   EXPECT_TRUE( evpnFlood().empty() );

   agent.flag( true );
   peer.settle( quietMs );
   auto hosts = evpnHosts();
   EXPECT_EQ( vnisIn( hosts ), std::set< uint32_t >{ 10 } );
   for ( const auto& [ k, h ] : remoteHostsOf( 10, options ) ) {
      ASSERT_TRUE( hosts.count( k ) ) << k;
      EXPECT_EQ( hostText( hosts.at( k ) ), hostText( h ) );
   }
   EXPECT_EQ( hosts.size(), options.remoteHostsPerVni + options.echoPerVni );
   auto flood = evpnFlood();
   EXPECT_EQ( flood.size(), 2u );   // the remote VTEP and one echo
   EXPECT_TRUE( flood.count( floodText( 10, OrbEvpn::Peer::remoteFloodVtep( options.seed, 10 ) ) ) );

   agent.list( 20 );
   peer.settle( quietMs );
   EXPECT_EQ( vnisIn( evpnHosts() ), ( std::set< uint32_t >{ 10, 20 } ) );
   EXPECT_EQ( evpnFlood().size(), 4u );

   agent.unlist( 10 );
   peer.settle( quietMs );
   EXPECT_EQ( vnisIn( evpnHosts() ), std::set< uint32_t >{ 20 } );
   for ( const auto& f : evpnFlood() ) EXPECT_EQ( f.rfind( "20 ", 0 ), 0u ) << f;

   agent.flag( false );
   peer.settle( quietMs );
   EXPECT_TRUE( evpnHosts().empty() );
   EXPECT_TRUE( evpnFlood().empty() );
   EXPECT_TRUE( peer.advertisedVnis().empty() );
}

// The demo starts the peer before the agent has made its tables; a VNI listed
// before its export arrives gets echoes once it does.
TEST( PeerStart, ThePeerStartsBeforeTheAgentAndAVniIsListedBeforeItsExport ) {
   LumenRoot root;
   std::ostringstream log;
   PeerOptions options = testOptions();
   Peer peer( options, &log );
   peer.settle( quietMs );
   EXPECT_TRUE( evpnHosts().empty() );

   AgentTables agent;
   agent.flag( true );
   agent.list( 10 );
   settleUntil( peer, [ & ] { return evpnHosts().size() >= options.remoteHostsPerVni; } );
   peer.settle( quietMs );
   EXPECT_EQ( evpnHosts().size(), options.remoteHostsPerVni );   // nothing to echo yet
   agent.exportVni( 10, 4 );
   settleUntil( peer, [ & ] { return evpnHosts().size() >= options.remoteHostsPerVni + options.echoPerVni; } );
   EXPECT_EQ( evpnHosts().size(), options.remoteHostsPerVni + options.echoPerVni );
   EXPECT_EQ( evpnFlood().size(), 2u );
}

// A new agent sweeps a VNI that went while it was down: the running peer
// withdraws that VNI only.
TEST( PeerStart, AnAgentRestartThatDropsAVniWithdrawsOnlyThatVni ) {
   LumenRoot root;
   std::ostringstream log;
   PeerOptions options = testOptions();
   auto agent = std::make_unique< AgentTables >();
   agent->exportVni( 10, 4 );
   agent->exportVni( 11, 4 );
   agent->flag( true );
   agent->list( 10 );
   agent->list( 11 );
   Peer peer( options, &log );
   peer.settle( quietMs );
   auto before = evpnHosts();
   ASSERT_EQ( vnisIn( before ), ( std::set< uint32_t >{ 10, 11 } ) );

   agent.reset();
   peer.settle( quietMs );
   EXPECT_EQ( evpnHosts().size(), before.size() );   // a writer gone is no withdrawal

   agent = std::make_unique< AgentTables >();
   agent->unlist( 11 );
   for ( uint32_t i = 0; i < 4; ++i ) agent->host.remove( controllerHost( 11, i ).key() );
   settleUntil( peer, [] { return !vnisIn( evpnHosts() ).count( 11 ); } );
   auto after = evpnHosts();
   EXPECT_EQ( vnisIn( after ), std::set< uint32_t >{ 10 } );
   for ( const auto& [ k, h ] : before ) {
      if ( h.vni().value() == 10 ) {
         ASSERT_TRUE( after.count( k ) ) << k;
         EXPECT_EQ( hostText( after.at( k ) ), hostText( h ) );
      }
   }
}

// Echoes copy the export and outlive its withdrawal, or the two sides chase each other.
TEST_F( PeerTest, EchoesEqualTheExportAndOutliveItsWithdrawal ) {
   agent.exportVni( 10, 8 );
   agent.flag( true );
   agent.list( 10 );
   Peer peer( options, &log );
   peer.settle( quietMs );

   auto remote = remoteHostsOf( 10, options );
   std::vector< Host > echoes;
   for ( const auto& [ k, h ] : evpnHosts() ) {
      if ( !remote.count( k ) ) {
         echoes.push_back( h );
         ASSERT_TRUE( agent.host.contains( h.key() ) ) << k;
         EXPECT_EQ( hostText( agent.host.lookup( h.key() ) ), hostText( h ) );
      }
   }
   ASSERT_EQ( echoes.size(), options.echoPerVni );
   std::vector< std::string > echoFlood;
   for ( const auto& f : evpnFlood() ) {
      if ( f != floodText( 10, OrbEvpn::Peer::remoteFloodVtep( options.seed, 10 ) ) ) echoFlood.push_back( f );
   }
   ASSERT_EQ( echoFlood.size(), 1u );
   EXPECT_TRUE( echoFlood[ 0 ] == "10 192.0.2.101" || echoFlood[ 0 ] == "10 192.0.2.102" ) << echoFlood[ 0 ];

   // The agent leaves out what EVPN provides, then re-exports one moved (newer seqNo).
   auto before = evpnHosts();
   auto beforeFlood = evpnFlood();
   uint64_t writes = peer.writes();
   for ( const Host& h : echoes ) agent.host.remove( h.key() );
   agent.flood.remove( VniVtepPair( Vxlan::Vni( 10 ), Wire::IpAddr::fromOctets(
                                                        192, 0, 2, uint8_t( std::stoi( echoFlood[ 0 ].substr( 11 ) ) ) ) ) );
   peer.settle( quietMs );
   Host moved = echoes[ 0 ];
   moved.seqNoIs( Keel::Seqno32( moved.seqNo().value() + 1 ) );
   agent.host.write( moved );
   peer.settle( quietMs );
   EXPECT_EQ( peer.writes(), writes );
   EXPECT_EQ( evpnHosts().size(), before.size() );
   for ( const auto& [ k, h ] : before ) EXPECT_EQ( hostText( evpnHosts().at( k ) ), hostText( h ) );
   EXPECT_EQ( evpnFlood(), beforeFlood );
}

TEST_F( PeerTest, EveryWriteIsLoggedAndTheLogReplaysToTheTables ) {
   agent.exportVni( 10, 5 );
   agent.exportVni( 11, 5 );
   agent.flag( true );
   agent.list( 10 );
   agent.list( 11 );
   Peer peer( options, &log );
   peer.settle( quietMs );
   agent.unlist( 11 );
   peer.settle( quietMs );
   agent.list( 11 );
   peer.settle( quietMs );

   std::map< std::string, std::string > hosts;
   std::set< std::string > flood;
   std::istringstream in( log.str() );
   std::string line;
   uint64_t lines = 0;
   bool capability = false;
   std::set< std::string > ops;
   while ( std::getline( in, line ) ) {
      ++lines;
      auto j = nlohmann::json::parse( line );
      std::string op = j.at( "op" );
      ops.insert( op );
      if ( op == "capability" ) {
         capability = j.at( "evpnEnabled" ).get< bool >();
         continue;
      }
      std::string vni = std::to_string( j.at( "vni" ).get< uint32_t >() );
      if ( op == "host" ) {
         hosts[ j.at( "mac" ).get< std::string >() + "/" + vni ] =
            j.at( "vtep" ).get< std::string >() + " " + std::to_string( j.at( "seqNo" ).get< uint32_t >() ) +
            " " + std::to_string( j.at( "preference" ).get< int >() );
      } else if ( op == "hostDel" ) {
         EXPECT_EQ( hosts.erase( j.at( "mac" ).get< std::string >() + "/" + vni ), 1u ) << line;
      } else if ( op == "flood" ) {
         flood.insert( vni + " " + j.at( "vtep" ).get< std::string >() );
      } else if ( op == "floodDel" ) {
         EXPECT_EQ( flood.erase( vni + " " + j.at( "vtep" ).get< std::string >() ), 1u ) << line;
      } else {
         ADD_FAILURE() << line;
      }
   }
   EXPECT_TRUE( capability );
   EXPECT_EQ( ops, ( std::set< std::string >{ "capability", "host", "hostDel", "flood", "floodDel" } ) );
   EXPECT_EQ( lines, peer.writes() );
   std::map< std::string, std::string > tableHosts;
   for ( const auto& [ k, h ] : evpnHosts() ) {
      tableHosts[ k ] = ipText( h.vtepAddr() ) + " " + std::to_string( h.seqNo().value() ) + " " +
                        std::to_string( h.preference() );
   }
   EXPECT_EQ( hosts, tableHosts );
   EXPECT_EQ( flood, evpnFlood() );
}

// A restarted peer rewrites nothing, even echoes of what the agent withdrew meanwhile.
TEST_F( PeerTest, ARestartedPeerKeepsItsTablesAndItsEchoes ) {
   agent.exportVni( 10, 8 );
   agent.flag( true );
   agent.list( 10 );
   std::map< std::string, Host > before;
   {
      Peer peer( options, &log );
      peer.settle( quietMs );
      before = evpnHosts();
   }
   auto remote = remoteHostsOf( 10, options );
   for ( const auto& [ k, h ] : before ) {
      if ( !remote.count( k ) ) agent.host.remove( h.key() );
   }
   std::ostringstream log2;
   Peer again( options, &log2 );
   again.settle( quietMs );
   EXPECT_EQ( again.writes(), 1u );   // the capability
   EXPECT_EQ( log2.str(), "{\"op\":\"capability\",\"evpnEnabled\":true}\n" );
   EXPECT_EQ( evpnHosts().size(), before.size() );
}

TEST( PeerSeed, TheSeedAloneDecidesWhatIsWritten ) {
   auto run = []( uint64_t seed ) {
      LumenRoot root;
      AgentTables agent;
      agent.exportVni( 10, 20 );
      agent.exportVni( 12, 20 );
      agent.flag( true );
      agent.list( 10 );
      agent.list( 12 );
      PeerOptions o = testOptions();
      o.seed = seed;
      std::ostringstream log;
      Peer peer( o, &log );
      peer.settle( quietMs );
      std::multiset< std::string > lines;
      std::istringstream in( log.str() );
      for ( std::string l; std::getline( in, l ); ) lines.insert( l );
      return lines;
   };
   auto a = run( 1 );
   EXPECT_EQ( a, run( 1 ) );
   EXPECT_NE( a, run( 2 ) );
}

// ---- the program

#ifdef ORBEVPN_PEER_BIN

pid_t spawn( const std::vector< std::string >& args ) {
   pid_t pid = fork();
   if ( pid == 0 ) {
      std::vector< char* > argv;
      for ( const auto& a : args ) argv.push_back( const_cast< char* >( a.c_str() ) );
      argv.push_back( nullptr );
      execv( argv[ 0 ], argv.data() );
      _exit( 127 );
   }
   return pid;
}

int waitExit( pid_t pid ) {
   int status = 0;
   waitpid( pid, &status, 0 );
   return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
}

std::string slurp( const std::string& path ) {
   std::ifstream in( path );
   std::stringstream s;
   s << in.rdbuf();
   return s.str();
}

// Not steady when the duration runs out (1); steady and logged (0) once the tables settle.
TEST_F( PeerTest, TheProgramRunsUntilSteadyAndLogsWhatItWroteOrSaysItWasNot ) {
   EXPECT_EQ( waitExit( spawn( { ORBEVPN_PEER_BIN, "--root", root.dir(), "--until-steady", "--steady-ms", "5000",
                                 "--duration", "0.3" } ) ),
              1 );
   agent.exportVni( 10, 4 );
   agent.flag( true );
   agent.list( 10 );
   std::string logPath = root.file( "peer.log" );
   pid_t pid = spawn( { ORBEVPN_PEER_BIN, "--root", root.dir(), "--log", logPath, "--until-steady",
                        "--steady-ms", "200", "--duration", "30", "--remote-hosts-per-vni", "3" } );
   EXPECT_EQ( waitExit( pid ), 0 );
   std::string text = slurp( logPath );
   EXPECT_EQ( std::count( text.begin(), text.end(), '\n' ), 1 + 3 + 2 + 2 ) << text;
   EXPECT_EQ( evpnHosts().size(), 5u );
}

TEST_F( PeerTest, TheProgramExitsCleanlyOnSigterm ) {
   std::string logPath = root.file( "peer.log" );
   pid_t pid = spawn( { ORBEVPN_PEER_BIN, "--root", root.dir(), "--log", logPath } );
   auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 20 );
   while ( slurp( logPath ).empty() && std::chrono::steady_clock::now() < deadline ) {
      std::this_thread::sleep_for( std::chrono::milliseconds( 10 ) );
   }
   ASSERT_FALSE( slurp( logPath ).empty() );
   kill( pid, SIGTERM );
   EXPECT_EQ( waitExit( pid ), 0 );
   // Its capability stays for the agent to read.
   Lumen::Reader< OrbEvpn::EvpnCapabilityRecord > cap( B::pathOf( prefix, B::evpnCapability ) );
   EXPECT_EQ( cap.lookup( {} ).evpnEnabled, 1 );
}

#endif

}  // namespace
