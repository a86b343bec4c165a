// The control socket: a Unix stream socket, mode 0600 (owner only), that
// takes one command line per connection, answers it and closes. The
// server runs on the agent's event loop; the client is `orbevpn-agent ctl`.
#pragma once

#include "tools/agent/EventLoop.h"

#include <functional>
#include <map>
#include <string>

namespace Agent {

// The socket path: $ORBEVPN_AGENT_CONTROL, else "<lumen root>/orbevpn-agent.ctl".
std::string defaultControlPath();

class ControlServer {
 public:
   // Answers a command line; a reply that starts with "error:" is a failure.
   using CommandFn = std::function< std::string( const std::string& line ) >;

   // Throws std::runtime_error when the socket cannot be made (for example
   // another agent's socket is live there).
   ControlServer( EventLoop& loop, const std::string& path, CommandFn fn );
   ~ControlServer();
   ControlServer( const ControlServer& ) = delete;
   ControlServer& operator=( const ControlServer& ) = delete;

   const std::string& path() const { return path_; }

 private:
   void onReadable( int fd );
   void answer( int fd, const std::string& line );

   EventLoop& loop_;
   std::string path_;
   CommandFn fn_;
   int listenFd_ = -1;
   std::map< int, std::string > pending_;   // connection -> what it sent so far
};

// Sends `line` to the agent at `path`, writes the reply to stdout (errors to
// stderr); returns the exit code: 0 answered, 1 refused or unreachable.
int controlClient( const std::string& path, const std::string& line );

}  // namespace Agent
