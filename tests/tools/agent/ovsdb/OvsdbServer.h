// A private ovsdb-server (hardware_vtep) on a Unix socket in the test's folder; killed at the end.
#pragma once

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class OvsdbServer {
 public:
   static constexpr const char* schemaPath = "/usr/share/openvswitch/vtep.ovsschema";

   // Empty when the tools are here, else what is missing.
   static std::string missing() {
      for ( const char* p : { "/usr/sbin/ovsdb-server", "/usr/bin/ovsdb-tool", "/usr/bin/ovsdb-client",
                             "/usr/bin/vtep-ctl", schemaPath } ) {
         if ( ::access( p, F_OK ) != 0 ) return std::string( p ) + " is missing (Debian package openvswitch-vtep)";
      }
      return "";
   }

   // `anyEncapsulation`: Physical_Locator takes any encapsulation name, as a later schema could.
   explicit OvsdbServer( std::string dir, bool anyEncapsulation = false ) : dir_( std::move( dir ) ) {
      std::string schema = schemaPath;
      if ( anyEncapsulation ) {
         nlohmann::json s = nlohmann::json::parse( std::ifstream( schemaPath ) );
         s[ "tables" ][ "Physical_Locator" ][ "columns" ][ "encapsulation_type" ][ "type" ] = { { "key", "string" } };
         schema = dir_ + "/vtep-any-encap.ovsschema";
         std::ofstream( schema ) << s.dump();
      }
      EXPECT_EQ( sh( "ovsdb-tool create " + db() + " " + schema ), 0 );
   }
   ~OvsdbServer() { stop(); }

   std::string socket() const { return dir_ + "/ovsdb.sock"; }
   std::string db() const { return dir_ + "/vtep.db"; }

   // Starts the server on `sock` (default: socket()), also on the Manager rows' remotes (`managers`)
   // or a TCP port; returns once it answers.
   void start( const std::string& sock = "", bool managers = false, int tcpPort = 0 ) {
      const std::string s = sock.empty() ? socket() : sock;
      current_ = s;
      ::unlink( s.c_str() );
      pid_ = ::fork();
      if ( pid_ == 0 ) {
         const std::string remote = "--remote=punix:" + s, unixctl = "--unixctl=" + dir_ + "/ovsdb.ctl",
                           pidfile = "--pidfile=" + dir_ + "/ovsdb.pid", log = "--log-file=" + dir_ + "/ovsdb.log";
         const int quiet = ::open( "/dev/null", O_WRONLY );   // its log file has everything
         ::dup2( quiet, 1 );
         ::dup2( quiet, 2 );
         const std::string extra = managers  ? std::string( "--remote=db:hardware_vtep,Global,managers" )
                                   : tcpPort ? "--remote=ptcp:" + std::to_string( tcpPort ) + ":127.0.0.1"
                                             : std::string( "--no-chdir" );
         ::execl( "/usr/sbin/ovsdb-server", "ovsdb-server", remote.c_str(), unixctl.c_str(), "--no-chdir",
                  pidfile.c_str(), log.c_str(), extra.c_str(), db().c_str(), (char*)nullptr );
         ::_exit( 127 );
      }
      for ( int i = 0; i < 200; ++i ) {
         if ( answers( s ) ) return;
         std::this_thread::sleep_for( std::chrono::milliseconds( 25 ) );
      }
      ADD_FAILURE() << "ovsdb-server does not answer on " << s;
   }
   // SIGKILL: the server is gone at once, as after a crash.
   void stop() {
      if ( pid_ > 0 ) {
         ::kill( pid_, SIGKILL );
         ::waitpid( pid_, nullptr, 0 );
         pid_ = -1;
         ::unlink( current_.c_str() );
      }
   }

   // vtep-ctl ARGS (shell words) on the running server; its stdout, trimmed.
   std::string ctl( const std::string& args ) {
      std::string out = capture( "vtep-ctl --timeout=10 --db=unix:" + current_ + " " + args );
      while ( !out.empty() && ( out.back() == '\n' || out.back() == ' ' ) ) out.pop_back();
      return out;
   }
   // One transaction (RFC 7047 JSON) through ovsdb-client; its reply.
   std::string transact( const nlohmann::json& t ) {
      const std::string file = dir_ + "/transaction.json";
      std::ofstream( file ) << t.dump();
      return capture( "ovsdb-client transact unix:" + current_ + " \"$(cat " + file + ")\"" );
   }
   std::string uuidOf( const std::string& table, const std::string& record ) {
      return ctl( "get " + table + " " + record + " _uuid" );
   }

 private:
   // Runs `cmd` in a shell, expecting success; its stdout and stderr.
   static std::string capture( const std::string& cmd ) {
      std::string out;
      FILE* p = ::popen( ( cmd + " 2>&1" ).c_str(), "r" );
      char buf[ 4096 ];
      for ( size_t n; ( n = std::fread( buf, 1, sizeof buf, p ) ) > 0; ) out.append( buf, n );
      EXPECT_EQ( ::pclose( p ), 0 ) << cmd << ": " << out;
      return out;
   }
   static int sh( const std::string& cmd ) { return std::system( ( cmd + " >/dev/null 2>&1" ).c_str() ); }
   static bool answers( const std::string& path ) {
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::snprintf( addr.sun_path, sizeof addr.sun_path, "%s", path.c_str() );
      const int fd = ::socket( AF_UNIX, SOCK_STREAM, 0 );
      const bool ok = ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof addr ) == 0;
      ::close( fd );
      return ok;
   }

   std::string dir_, current_;
   pid_t pid_ = -1;
};

}  // namespace
