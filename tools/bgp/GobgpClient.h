// GobgpClient: orbevpn-bgp's side of gobgpd's gRPC API, on the daemon's
// Unix socket (the API has no authentication; it is never offered on TCP).
//
// Every call has a deadline and throws GobgpError with the daemon's status
// text on failure. The route-event stream (WatchEvent, best paths, with the
// table's current content first) runs on a thread of its own that queues
// the paths and makes fd() readable; the owner's thread takes them with
// takeEvents(). When the stream ends (the daemon stopped, the connection
// broke) the queue reports it once through watchEnded().
//
// Threading: all calls but the stream on the owner's thread.
#pragma once

#include "gobgp.grpc.pb.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace OrbEvpn::Bgp {

class GobgpError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

struct NeighborConfig {
   std::string address;
   uint32_t asn = 0;
};

struct GlobalConfig {
   uint32_t asn = 0;
   std::string routerId;
   int32_t listenPort = 179;
   uint32_t restartTime = 120;   // graceful restart, seconds
   uint32_t deferralTime = 10;   // how long a restart waits for the peers' End-of-RIB, seconds
};

class GobgpClient {
 public:
   explicit GobgpClient( const std::string& socketPath );
   ~GobgpClient();
   GobgpClient( const GobgpClient& ) = delete;
   GobgpClient& operator=( const GobgpClient& ) = delete;

   // True once the daemon answers (GetBgp) within `timeout`.
   bool waitReady( std::chrono::milliseconds timeout );

   void startBgp( const GlobalConfig& g );
   // The running global settings (asn 0 before StartBgp).
   GlobalConfig global();
   // The configured peers' addresses.
   std::vector< std::string > peerAddresses();
   void deletePeer( const std::string& address );
   void addPeer( const NeighborConfig& n, const GlobalConfig& g );
   // Sends them all, advertisements and withdrawals (is_withdraw), in one
   // AddPathStream message, applied in their order: the daemon checks them
   // all before it takes any, so on an error (a refusal of one) none is
   // taken. (Never AddPath: the daemon keeps a UUID for each route added
   // that way, which a withdrawal through the stream leaves behind.)
   void sendPaths( const std::vector< apipb::Path >& paths );
   // Every EVPN path this daemon originated (added through the API).
   std::vector< apipb::Path > localEvpnPaths();

   // Starts the route-event stream; once per client.
   void watchStart();
   int fd() const { return eventFd_; }
   // Queued paths, oldest first; clears the queue and the fd.
   std::vector< apipb::Path > takeEvents();
   bool watchEnded() const { return ended_.load(); }

 private:
   std::unique_ptr< grpc::ClientContext > context( std::chrono::milliseconds timeout ) const;
   void watchLoop();

   std::shared_ptr< grpc::Channel > channel_;
   std::unique_ptr< apipb::GobgpApi::Stub > stub_;
   int eventFd_ = -1;
   std::mutex mutex_;
   std::vector< apipb::Path > queue_;
   std::atomic< bool > ended_{ false };
   std::unique_ptr< grpc::ClientContext > watchContext_;
   std::thread watchThread_;
};

}  // namespace OrbEvpn::Bgp
