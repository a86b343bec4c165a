// The agent's control socket: a real agent (tools/agent Agent) runs on its
// own thread over a private Lumen root, with a small controller snapshot and
// an EVPN side that says it is enabled, so that its machines run. Each input
// is sent as is on one connection of the control socket (tools/agent
// Control), which cuts out the command line and answers it. Every
// connection must get a reply, and the agent must keep answering.
#include "fuzz/Check.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/Table.h"
#include "tools/agent/Agent.h"
#include "tools/agent/Control.h"
#include "tools/common/Boundary.h"
#include "tools/common/BoundaryRecords.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string controlPath;
std::thread agentThread;
std::unique_ptr< Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > > capability;

// One connection: sends `line` (in full unless the agent closes first) and
// returns the whole reply, or nothing if it could not connect.
std::string ask( std::string_view line, bool& connected ) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   std::memcpy( addr.sun_path, controlPath.c_str(), controlPath.size() + 1 );
   const int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   connected = fd >= 0 && ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof addr ) == 0;
   std::string reply;
   if ( connected ) {
      for ( size_t off = 0; off < line.size(); ) {
         const ssize_t n = ::send( fd, line.data() + off, line.size() - off, MSG_NOSIGNAL );
         if ( n <= 0 ) {
            break;   // the agent answered an over-long line early
         }
         off += size_t( n );
      }
      ::shutdown( fd, SHUT_WR );
      reply = Agent::readUntilClosed( fd );
   }
   if ( fd >= 0 ) {
      ::close( fd );
   }
   return reply;
}

std::string fuzzRoot;

void stopAgent() {
   // The agent's run() ends on SIGTERM through its signalfd; its thread
   // holds the signal blocked, so only that thread sees it.
   ::pthread_kill( agentThread.native_handle(), SIGTERM );
   agentThread.join();
   capability.reset();
   // The tables the agent leaves, its socket and the event file: nothing of
   // a fuzzing run stays in shared memory.
   std::error_code ignored;
   std::filesystem::remove_all( fuzzRoot, ignored );
}

}  // namespace

extern "C" int LLVMFuzzerInitialize( int*, char*** ) {
   char dir[] = "/dev/shm/orbevpn-fuzz-control-XXXXXX";
   Fuzz::check( ::mkdtemp( dir ) != nullptr, "mkdtemp failed" );
   const std::string root = dir;
   fuzzRoot = root;
   Lumen::rootIs( root );
   controlPath = root + "/ctl";
   const std::string events = root + "/events.jsonl";
   std::ofstream( events ) << R"({"op":"controllerdb","enabled":true}
{"op":"vni","vni":10}
{"op":"mac","vni":10,"mac":"02:00:00:00:00:01","vtep":"192.0.2.1","seqNo":1,"preference":16}
{"op":"flood","vni":10,"vtep":"192.0.2.9","value":true}
{"op":"vni","vni":11}
{"op":"multiPath","vni":11,"mac":"02:00:00:00:00:02","vteps":["192.0.2.3","192.0.2.4"]}
{"op":"synced"}
)";
   capability = std::make_unique< Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > >();
   capability->attach( OrbEvpn::Boundary::pathOf( "/orbevpn", OrbEvpn::Boundary::evpnCapability ) );
   OrbEvpn::EvpnCapabilityRecord cap;
   cap.evpnEnabled = 1;
   capability->write( cap );

   Agent::Options o;
   o.input = events;
   o.control = controlPath;
   agentThread = std::thread( [ o ] {
      sigset_t signals;
      sigemptyset( &signals );
      sigaddset( &signals, SIGINT );
      sigaddset( &signals, SIGTERM );
      ::pthread_sigmask( SIG_BLOCK, &signals, nullptr );
      try {
         Agent::Agent agent( o );
         agent.run();
      } catch ( const std::exception& e ) {
         Fuzz::inconsistent( "the agent did not run:", e.what() );
      }
   } );
   // Ready once the control socket answers.
   for ( int i = 0;; ++i ) {
      bool connected = false;
      if ( !ask( "status", connected ).empty() ) {
         break;
      }
      Fuzz::check( i < 3000, "the agent's control socket never answered" );
      ::usleep( 10000 );
   }
   // Registered now, after everything the agent set up, so that it stops
   // before any of that is torn down at exit.
   std::atexit( stopAgent );
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   bool connected = false;
   const std::string reply = ask( std::string_view( reinterpret_cast< const char* >( data ), size ), connected );
   Fuzz::check( connected, "the agent stopped listening" );
   Fuzz::check( !reply.empty(), "a command got no reply" );
   return 0;
}
