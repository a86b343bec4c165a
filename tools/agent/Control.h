// The control socket: a Unix stream socket, mode 0600 (owner only), that
// takes one command line per connection, answers it and closes. The
// server runs on the agent's event loop; the client is `orbevpn-agent ctl`.
//
// No client can hold up the loop or the other clients: sockets never
// block, a command line is bounded, a reply waits in the server for a
// client that reads slowly, and a client that takes no byte of its reply
// (or sends no whole line) for a while, or whose reply is over the bound,
// is dropped with a line on stderr naming it by its connection number.
#pragma once

#include "tools/agent/EventLoop.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace Agent {

struct ControlLimits {
   size_t maxLine = 4096;                  // bytes of a command line, newline excluded
   size_t maxReply = size_t( 1 ) << 30;    // bytes of one reply a client may have waiting
   uint32_t stallMs = 10000;               // no progress for this long: the client is dropped
   size_t maxClients = 64;                 // connections at once; more are closed at once
};

// The socket path: $ORBEVPN_AGENT_CONTROL, else "<lumen root>/orbevpn-agent.ctl".
std::string defaultControlPath();

class ControlServer {
 public:
   // Answers a command line; a reply that starts with "error:" is a failure.
   using CommandFn = std::function< std::string( const std::string& line ) >;

   // Throws std::runtime_error when the socket cannot be made (for example
   // another agent's socket is live there).
   ControlServer( EventLoop& loop, const std::string& path, CommandFn fn );
   ControlServer( EventLoop& loop, const std::string& path, CommandFn fn, ControlLimits limits );
   ~ControlServer();
   ControlServer( const ControlServer& ) = delete;
   ControlServer& operator=( const ControlServer& ) = delete;

   const std::string& path() const { return path_; }
   size_t clients() const { return clients_.size(); }
   uint64_t dropped() const { return dropped_; }

 private:
   using Clock = std::chrono::steady_clock;
   struct Client {
      uint64_t number;        // 1 for the first connection
      std::string in;         // the command line so far
      std::string out;        // the reply, while it waits
      size_t sent = 0;        // bytes of `out` taken by the client
      Clock::time_point progress;
   };

   void onAccept();
   void onEvents( int fd, uint32_t events );
   void onReadable( int fd, Client& c );
   void answer( int fd, Client& c, const std::string& line );
   void reply( int fd, Client& c, std::string text );
   // Sends what the client takes now; closes when all is sent.
   void flush( int fd, Client& c );
   void drop( int fd, const std::string& why );
   void close( int fd );
   void onTimer();

   EventLoop& loop_;
   std::string path_;
   CommandFn fn_;
   ControlLimits limits_;
   int listenFd_ = -1;
   int timerFd_ = -1;
   uint64_t accepted_ = 0;
   uint64_t dropped_ = 0;
   std::map< int, Client > clients_;
};

// Sends `line` to the agent at `path`, writes the reply to stdout (errors to
// stderr); returns the exit code: 0 answered, 1 refused or unreachable.
int controlClient( const std::string& path, const std::string& line );

// What the other end sends on `fd` until it closes (EINTR retried; an error
// ends the read with what came before).
std::string readUntilClosed( int fd );

}  // namespace Agent
