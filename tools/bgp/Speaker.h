// Speaker: orbevpn-bgp as one object. The EVPN side of the boundary
// (docs/boundary.md) on BGP EVPN through a gobgpd child.
//
// Export: it follows export/host, export/flood, brIdList and config
// through Lumen readers and keeps gobgpd's RIB equal to what they say: one
// type-2 route per host and one type-3 route per flood entry of every VNI
// whose bridge id is listed while the integration flag is true
// (EvpnRoute.h). A change of a record replaces its route, a removal
// withdraws it. On start, and whenever the daemon is restarted or the API
// connection is made again, it lists the daemon's own routes and
// reconciles them all against the tables, before any peer is configured,
// so that peers receive the complete set before End-of-RIB.
//
// Import: it follows gobgpd's best-path events and writes the winners
// (ImportSelection.h) into evpn/host and evpn/flood. After a start or a
// daemon restart, entries the tables already hold are kept until the
// import hold time has passed (peers need a moment to send their routes
// again); then what no route supports is removed.
//
// Routes and their withdrawals go to gobgpd in batches (AddPathStream,
// withdrawals flagged in the same messages, in order): for each type-2
// route, withdrawals included, it looks through its whole EVPN table (its
// MAC-mobility check), and a batch saves the rest of a call's cost. A
// refused batch is redone one route at a time.
//
// gobgpd's MAC mobility check refuses a route whose sequence number is
// below that of any best route for the same MAC, in any VNI. A host whose
// own earlier route is the obstacle is withdrawn and advertised again; one
// held back by another route is reported, counted as refused, and retried
// whenever routes change and every retryMs.
//
// Threading: one thread, the caller's, plus the gRPC stream's thread
// inside GobgpClient.
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Table.h"
#include "platform/model/OrbBrIdList.h"
#include "tools/bgp/Daemon.h"
#include "tools/bgp/EvpnRoute.h"
#include "tools/bgp/GobgpClient.h"
#include "tools/bgp/ImportSelection.h"
#include "tools/bgp/RdIndex.h"
#include "tools/common/EvpnSide.h"

#include <chrono>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace OrbEvpn::Bgp {

struct SpeakerOptions {
   uint32_t asn = 0;
   std::string routerId;
   std::vector< NeighborConfig > neighbors;
   RtScheme rtScheme = RtScheme::autoDerived;
   std::string prefix = "/orbevpn";
   DaemonOptions daemon;
   int32_t listenPort = 179;
   uint32_t restartTime = 120;   // graceful restart, seconds
   int importHoldMs = 10000;
   int retryMs = 2000;
   int maxRestarts = 5;          // daemon restarts within a minute before giving up
   size_t addBatch = 128;        // routes and withdrawals per AddPathStream message
};

struct SpeakerStats {
   uint64_t routesAdded = 0;
   uint64_t routesWithdrawn = 0;
   uint64_t refused = 0;           // AddPath refusals (MAC mobility and others)
   uint64_t importEvents = 0;
   uint64_t importIgnored = 0;     // not EVPN type 2/3, unparsable, or label/RT mismatch
   uint64_t daemonRestarts = 0;
   uint64_t reconciles = 0;
   uint64_t pathMessages = 0;      // AddPathStream messages (routes and withdrawals) sent
};

class Speaker {
 public:
   using Clock = std::chrono::steady_clock;

   // Attaches its tables, starts and configures gobgpd, reconciles, and
   // writes the capability. Throws on a daemon that does not come up.
   Speaker( SpeakerOptions options, std::ostream& log );
   ~Speaker();
   Speaker( const Speaker& ) = delete;
   Speaker& operator=( const Speaker& ) = delete;

   // Descriptors to poll; then call step().
   std::vector< int > fds() const;
   // Handles whatever is ready and whatever is due; never waits for input.
   void step();
   // Milliseconds until step() has timed work (at most retryMs).
   int msUntilDue( Clock::time_point now ) const;

   // Lets gobgpd go on with its sessions and our routes after us, for the
   // next run to adopt (Daemon.h); returns its pid (-1 if none ran). The
   // speaker does nothing more after it.
   pid_t handOver();

   const SpeakerStats& stats() const { return stats_; }
   size_t advertised() const { return advertisedHosts_.size() + advertisedFlood_.size(); }
   size_t refusedNow() const { return refusedHosts_.size(); }

 private:
   void startDaemon();
   void connect();
   void reconcileRib();
   void markAllDirty();
   void syncExport();
   void syncHost( const MacVniPair& k );
   void queueHost( const MacVniPair& k, const std::optional< MacRoute >& want );
   apipb::Path hostPathOf( const MacVniPair& k, const std::optional< MacRoute >& want ) const;
   void hostSent( const MacVniPair& k, const std::optional< MacRoute >& want );
   void addHost( const MacVniPair& k, const MacRoute& want );
   void flushHosts();
   void syncFlood( const VniVtepPair& k );
   void flushFlood();
   void sendPaths( const std::vector< apipb::Path >& paths );
   std::optional< MacRoute > wantHost( const MacVniPair& k );
   std::optional< FloodRoute > wantFlood( const VniVtepPair& k );
   std::optional< RouteDistinguisher > rdOf( uint32_t vni );
   void takeImport();
   void applyImport( const ImportSelection::Touched& t );
   void endImportHold();
   void daemonLost( const std::string& why );

   SpeakerOptions options_;
   std::ostream& log_;
   Wire::IpAddr routerId_;
   RdIndex rdIndex_;

   Boundary::EvpnSideTables tables_;

   Daemon daemon_;
   std::unique_ptr< GobgpClient > client_;
   std::vector< Clock::time_point > restarts_;

   // The export tables by VNI, for changes of a VNI's advertisability.
   std::unordered_map< uint32_t, std::set< MacVniPair > > exportHostsOf_;
   std::unordered_map< uint32_t, std::set< VniVtepPair > > exportFloodOf_;
   // What gobgpd holds from us.
   std::map< MacVniPair, MacRoute > advertisedHosts_;
   std::map< VniVtepPair, FloodRoute > advertisedFlood_;
   std::set< MacVniPair > dirtyHosts_;
   std::set< VniVtepPair > dirtyFlood_;
   std::set< uint32_t > dirtyVnis_;
   bool allDirty_ = false;
   std::set< MacVniPair > refusedHosts_;
   // Type-2 routes and withdrawals (nullopt: the advertised route goes)
   // waiting for one AddPathStream message; at most one per MAC, so that
   // the daemon's MAC-mobility check (against its table, not the rest of
   // the batch) decides as it would one route at a time.
   std::vector< std::pair< MacVniPair, std::optional< MacRoute > > > pendingHosts_;
   std::set< Wire::EthAddr > pendingMacs_;
   // Type-3 routes and withdrawals likewise (one per key: a sync pass
   // takes each key once and sends them at its end).
   std::vector< std::pair< VniVtepPair, std::optional< FloodRoute > > > pendingFlood_;
   Clock::time_point nextRetry_{};

   ImportSelection selection_;
   bool importHeld_ = true;
   Clock::time_point importHoldEnd_{};

   SpeakerStats stats_;
};

}  // namespace OrbEvpn::Bgp
