// Fixture: the real orbevpn-agent in a private Lumen root, its control socket, tables as text sets.
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Table.h"
#include "platform/model/OrbBrIdList.h"
#include "tests/support/LumenRoot.h"
#include "tools/agent/Event.h"
#include "tools/common/BoundaryRecords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using Json = nlohmann::json;
using ::testing::HasSubstr;

namespace {

const std::string prefix = "/orbevpn";

std::string slurp( const std::string& path ) {
   std::ifstream f( path );
   std::stringstream s;
   s << f.rdbuf();
   return s.str();
}

class AgentProcess : public ::testing::Test {
 protected:
   struct Run {
      int status = -1;
      std::string out, err;
      int code() const { return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status ); }
   };

   std::string file( const std::string& name ) const { return root.dir() + "/" + name; }
   std::string control() const { return file( "test.ctl" ); }

   std::string events( const std::string& name, const std::vector< std::string >& lines ) {
      const std::string p = file( name );
      std::ofstream f( p );
      for ( const auto& l : lines ) f << l << "\n";
      return p;
   }

   // Starts the program with stdout and stderr in files of the root.
   pid_t spawn( std::vector< std::string > args, bool agentArgs = true ) {
      const std::string out = file( "out" + std::to_string( spawned_ ) ), err = file( "err" + std::to_string( spawned_ ) );
      ++spawned_;
      lastOut_ = out;
      lastErr_ = err;
      if ( agentArgs ) {
         for ( const std::string& a : { std::string( "--root" ), root.dir(), std::string( "--control" ), control(),
                                        std::string( "--status-period" ), std::string( "50" ) } ) {
            args.push_back( a );
         }
      }
      const pid_t pid = ::fork();
      if ( pid == 0 ) {
         const int o = ::open( out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600 );
         const int e = ::open( err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600 );
         ::dup2( o, 1 );
         ::dup2( e, 2 );
         std::vector< char* > argv{ const_cast< char* >( ORBEVPN_AGENT_BIN ) };
         for ( auto& a : args ) argv.push_back( a.data() );
         argv.push_back( nullptr );
         ::execv( ORBEVPN_AGENT_BIN, argv.data() );
         ::_exit( 127 );
      }
      return pid;
   }
   Run wait( pid_t pid, const std::string& out, const std::string& err, int seconds = 60 ) {
      Run r;
      for ( int i = 0; i < seconds * 20; ++i ) {
         if ( ::waitpid( pid, &r.status, WNOHANG ) == pid ) {
            r.out = slurp( out );
            r.err = slurp( err );
            return r;
         }
         std::this_thread::sleep_for( std::chrono::milliseconds( 50 ) );
      }
      ::kill( pid, SIGKILL );
      ::waitpid( pid, &r.status, 0 );
      ADD_FAILURE() << "the agent did not finish in " << seconds << " s; stderr: " << slurp( err );
      return r;
   }
   Run run( std::vector< std::string > args, bool agentArgs = true ) {
      const pid_t pid = spawn( std::move( args ), agentArgs );
      const std::string out = lastOut_, err = lastErr_;
      return wait( pid, out, err );
   }
   Run ctl( std::vector< std::string > words ) {
      std::vector< std::string > args{ "ctl", "--control", control() };
      args.insert( args.end(), words.begin(), words.end() );
      return run( args, false );
   }
   // The last stdout line of --stats-json.
   static Json stats( const Run& r ) {
      std::string s = r.out;
      while ( !s.empty() && s.back() == '\n' ) s.pop_back();
      return Json::parse( s.substr( s.rfind( '\n' ) + 1 ) );
   }
   Json statusNow() {
      Run r = ctl( { "status", "--json" } );
      return r.code() == 0 ? Json::parse( r.out ) : Json();
   }
   // Polls the running agent's status until `pred` holds.
   Json waitFor( const std::function< bool( const Json& ) >& pred, const char* what ) {
      Json s;
      for ( int i = 0; i < 300; ++i ) {
         s = statusNow();
         if ( !s.is_null() && pred( s ) ) return s;
         std::this_thread::sleep_for( std::chrono::milliseconds( 100 ) );
      }
      ADD_FAILURE() << "timed out waiting for " << what << "; last status " << s.dump();
      return s;
   }

   void capabilityIs( bool on ) {
      if ( !capability_ ) {
         capability_ = std::make_unique< Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > >();
         capability_->attach( prefix + "/evpn/capability" );
      }
      OrbEvpn::EvpnCapabilityRecord r;
      r.evpnEnabled = on;
      capability_->write( r );
   }

   // A host on the EVPN side's table, as the EVPN agent writes it.
   void evpnHostIs( const Wire::EthAddr& mac, uint32_t vni, const Wire::IpAddr& vtep, uint32_t seq ) {
      if ( !evpnHosts_ ) {
         evpnHosts_ = std::make_unique< Lumen::Writer< OrbEvpn::Host > >( OrbEvpn::Host{} );
         evpnHosts_->attach( prefix + "/evpn/host" );
      }
      OrbEvpn::Host h( OrbEvpn::MacVniPair( mac, Vxlan::Vni( vni ) ) );
      h.vtepAddrIs( vtep );
      h.seqNoIs( Keel::Seqno32( seq ) );
      evpnHosts_->write( h );
   }

   // Table contents as text, compared as sets.
   std::set< std::string > hosts() const {
      Lumen::Reader< OrbEvpn::Host > r( prefix + "/export/host" );
      std::set< std::string > s;
      for ( auto e = r.nextShared(); e; e = r.nextShared( e->second ) ) {
         const OrbEvpn::Host& h = e->first;
         Agent::Mac m;
         std::copy( h.macAddr().bytes(), h.macAddr().bytes() + 6, m.begin() );
         s.insert( fmt::format( "{} {} {} {} {}", h.vni().value(), Agent::macText( m ),
                                Agent::ipText( h.vtepAddr().value() ), h.seqNo().value(), h.preference() ) );
      }
      return s;
   }
   std::set< std::string > flood() const {
      Lumen::Reader< OrbEvpn::FloodEntry > r( prefix + "/export/flood" );
      std::set< std::string > s;
      for ( auto e = r.nextShared(); e; e = r.nextShared( e->second ) ) {
         s.insert( fmt::format( "{} {}", e->first.vni().value(), Agent::ipText( e->first.vtepAddr().value() ) ) );
      }
      return s;
   }
   std::set< uint32_t > brIds() const {
      Lumen::Reader< OrbEvpn::BrIdListRecord > r( prefix + "/brIdList" );
      std::set< uint32_t > s;
      for ( auto e = r.nextShared(); e; e = r.nextShared( e->second ) ) s.insert( e->first.brId.value() );
      return s;
   }
   std::optional< bool > flag() const {
      Lumen::Reader< OrbEvpn::OrbEvpnConfigRecord > r( prefix + "/config" );
      if ( !r.containsShared( OrbEvpn::SingletonKey{} ) ) return std::nullopt;
      return r.lookupShared( OrbEvpn::SingletonKey{} ).orbEvpnIntegrationMode != 0;
   }

   LumenRoot root;
   std::unique_ptr< Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > > capability_;
   std::unique_ptr< Lumen::Writer< OrbEvpn::Host > > evpnHosts_;
   int spawned_ = 0;
   std::string lastOut_, lastErr_;
};

}  // namespace
