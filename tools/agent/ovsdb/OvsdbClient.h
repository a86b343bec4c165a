// A JSON-RPC session with an OVSDB server (RFC 7047) over "unix:PATH" or
// "tcp:HOST:PORT", driven by the agent's event loop: a non-blocking socket,
// no thread of its own.
//
// On each connection it sends one `monitor` request for the hardware_vtep
// tables the controller feed maps, hands the reply's rows on as a snapshot
// and every later `update` notification as a change, and answers the
// server's `echo` keepalives. A connection that fails or ends is retried
// with a growing pause (100 ms doubling up to 3 s, back to 100 ms after a
// session got its snapshot).
//
// Messages are framed by tracking JSON nesting over the byte stream (RFC
// 7047 sends objects back to back, without delimiters); each whole object
// is then parsed by nlohmann-json.
//
// Threading: the event-loop thread only. Callbacks run inside the loop's
// handler of the socket and must not destroy the client.
#pragma once

#include "tools/agent/EventLoop.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>

namespace Agent::Ovsdb {

class OvsdbClient {
 public:
   using Json = nlohmann::json;
   struct Callbacks {
      // The rows of a monitor reply (snapshot = true) or of an update.
      std::function< void( const Json& tableUpdates, bool snapshot ) > rows;
      // A session got its snapshot / a session ended (only after it had one).
      std::function< void() > up, down;
      // One line about the connection, for stderr.
      std::function< void( const std::string& ) > log;
   };

   static constexpr const char* database = "hardware_vtep";

   // Throws std::invalid_argument on a address that is neither form.
   OvsdbClient( EventLoop& loop, const std::string& address, Callbacks cb );
   ~OvsdbClient();
   OvsdbClient( const OvsdbClient& ) = delete;
   OvsdbClient& operator=( const OvsdbClient& ) = delete;

   bool up() const { return up_; }
   uint64_t sessions() const { return sessions_; }
   const std::string& address() const { return address_; }

   // The monitor request the client sends: the tables and their columns.
   static Json monitorRequest();

 private:
   void connectNow();
   void onSocket( uint32_t events );
   void readSome();
   void frame();
   void onMessage( const Json& m );
   void send( const Json& m );
   void flush();
   void drop( const std::string& why );
   void retryLater();

   EventLoop& loop_;
   std::string address_;
   Callbacks cb_;
   bool tcp_ = false;
   std::string path_, host_;
   uint16_t port_ = 0;

   int fd_ = -1;
   int retryTimer_ = -1;
   bool connecting_ = false, up_ = false, wantWrite_ = false;
   uint32_t backoffMs_ = 100;
   uint64_t sessions_ = 0;
   std::string out_;
   std::string in_;
   // Framing state over in_: where scanning stopped, where the current
   // message starts, and the scanner's nesting/string state.
   size_t scanned_ = 0, start_ = 0;
   int depth_ = 0;
   bool inString_ = false, escaped_ = false;
};

}  // namespace Agent::Ovsdb
