// Keeper: what ends a gobgpd that its orbevpn-bgp left behind and that no
// successor took over.
//
// orbevpn-bgp leaves its gobgpd running, with its sessions and our routes,
// when it ends by SIGTERM or SIGINT (a restart: the next run adopts the
// daemon and peers see no withdrawal) and when it is killed. The keeper is
// a process orbevpn-bgp forks as it starts, before it has any thread or
// descriptor but its standard ones, in a session of its own. It waits for
// orbevpn-bgp to end; from then on, for the handover window:
//  - a claim by another run (Handover.h) means a successor has the daemon:
//    the keeper leaves;
//  - no gobgpd of ours (on the state directory's API socket, Daemon.h)
//    runs any more: it leaves;
//  - the window is over and nobody holds the instance lock: it takes the
//    lock, so that no successor adopts a daemon being stopped, and stops
//    every gobgpd of ours: SIGTERM, on which gobgpd closes its sessions
//    with a NOTIFICATION so that peers withdraw our routes at once, then
//    SIGKILL if it lingers. While a successor holds the lock and has not
//    claimed the daemon yet (it is starting), the keeper waits for it.
// So a gobgpd never outlives orbevpn-bgp by much more than the window.
//
// Threading: runKeeper() blocks its caller; it shares nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <sys/types.h>

namespace OrbEvpn::Bgp {

struct KeeperOptions {
   std::string stateDir;
   std::string program = "/usr/bin/gobgpd";
   uint64_t ownerToken = 0;                       // the departing run's claim
   int ownerPidFd = -1;                           // readable once the run has ended
   std::chrono::milliseconds window{ 120000 };    // counted from the run's end
   std::chrono::milliseconds stopGrace{ 5000 };   // SIGTERM to SIGKILL
};

enum class KeeperEnd { takenOver, daemonGone, stopped };

// The keeper in the calling thread: returns once it has nothing more to do.
KeeperEnd runKeeper( const KeeperOptions& options, std::ostream& log );

// Forks the keeper (it logs to our stderr); returns its pid. To be called
// while this process has a single thread: the child runs runKeeper()
// without exec.
pid_t spawnKeeper( const KeeperOptions& options );

}  // namespace OrbEvpn::Bgp
