// OrbEvpn::Peer::Peer: the stand-in EVPN side, as one object over Lumen
// tables and paths only (no entities, no plug-in), so that a real EVPN
// agent can take its place without the agent noticing.
//
// It writes evpn/capability (evpnEnabled) once at start, and evpn/host and
// evpn/flood from then on; it reads export/host, export/flood, brIdList and
// config. A VNI is advertised while its bridge id is listed and the
// integration flag is true: the peer then holds, for that VNI,
//  - the VNI's remote hosts and remote flood VTEP (RemoteEntries.h), and
//  - echoes: exact copies of up to echoPerVni hosts and of one flood VTEP
//    that the export table holds for the VNI, as a real EVPN agent holds
//    routes it has learnt for the same hosts; the agent must then leave
//    them out of its export. An echo is chosen once (lowest seeded rank
//    among what the export holds when the VNI is short of echoes) and kept
//    while the VNI stays advertised, whatever the export does with it, so
//    that the agent withdrawing the echoed entry does not make it go away.
// When the bridge id goes or the flag turns false, everything of the VNI is
// removed and its echoes forgotten.
//
// Changes arrive in bursts (the agent loads thousands of records at once),
// so the peer reacts once a burst has been quiet for settleMs, or at the
// latest maxDelayMs after its first change.
//
// Every write of a shared table is logged as one JSON line (see the
// --log option of orbevpn-peer) before the next poll.
//
// Threading: one thread, the caller's; dispatch() and reconcile() run the
// readers' callbacks on it.
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Table.h"
#include "platform/model/OrbBrIdList.h"
#include "tools/common/EvpnSide.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace OrbEvpn::Peer {

struct PeerOptions {
   std::string prefix = "/orbevpn";
   uint32_t remoteHostsPerVni = 4;
   uint32_t echoPerVni = 2;
   uint64_t seed = 1;
   int settleMs = 20;
   int maxDelayMs = 200;
};

class Peer {
 public:
   using Clock = std::chrono::steady_clock;

   // Attaches the peer's tables (taking over what an earlier peer left),
   // writes the capability, mounts the readers and reconciles once. The
   // log may be null.
   Peer( PeerOptions options, std::ostream* log );
   ~Peer();
   Peer( const Peer& ) = delete;
   Peer& operator=( const Peer& ) = delete;

   // The readers' descriptors: poll them for input, then call dispatch().
   std::vector< int > fds() const;
   // Runs every reader's pending callbacks; never blocks.
   void dispatch();
   // Milliseconds until reconcile() is due: 0 now, -1 when nothing waits.
   int msUntilDue( Clock::time_point now ) const;
   // Brings the peer's tables in line for every VNI that changed.
   void reconcile();
   // Polls, dispatches and reconciles until nothing arrived for quietMs.
   void settle( int quietMs );

   // What it advertises now.
   bool integrationMode() const;
   std::set< uint32_t > advertisedVnis() const;
   uint64_t writes() const { return writes_; }
   Clock::time_point lastChange() const { return lastChange_; }
   bool idle() const { return dirty_.empty() && !allDirty_; }

 private:
   struct VniState {
      std::map< uint64_t, Host > hosts;   // written to evpn/host, by MAC
      std::set< uint32_t > flood;         // written to evpn/flood
      std::map< uint64_t, Host > echoHosts;
      std::set< uint32_t > echoFlood;
   };

   void adoptOwnTables();
   void indexExport();
   void touch( uint32_t vni );
   void touchAll();
   bool listed( uint32_t vni ) const;
   void reconcileVni( uint32_t vni );
   void chooseEchoes( uint32_t vni, VniState& s );
   void writeHost( const Host& h );
   void removeHost( const Host& h );
   void writeFlood( uint32_t vni, uint32_t vtep );
   void removeFlood( uint32_t vni, uint32_t vtep );
   void logLine( const std::string& line );

   PeerOptions options_;
   std::ostream* log_;

   Boundary::EvpnSideTables tables_;

   // What the export holds, by VNI: MACs and flood VTEPs.
   std::unordered_map< uint32_t, std::set< uint64_t > > exportMacs_;
   std::unordered_map< uint32_t, std::set< uint32_t > > exportVteps_;
   std::map< uint32_t, VniState > vnis_;

   std::set< uint32_t > dirty_;
   bool allDirty_ = false;
   Clock::time_point firstDirty_{};
   Clock::time_point lastInput_{};
   Clock::time_point lastChange_{};
   uint64_t writes_ = 0;
};

uint64_t macKey( const Wire::EthAddr& mac );
Wire::EthAddr macOfKey( uint64_t key );

}  // namespace OrbEvpn::Peer
