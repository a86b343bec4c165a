// Daemon: the gobgpd child of orbevpn-bgp.
//
// Its API listens only on a Unix socket inside a folder of the state
// directory that only our user may enter (0700), never on TCP. Its output
// goes to gobgpd.log in the state directory, its pid to gobgpd.pid.
//
// The child outlives a killed orbevpn-bgp on purpose (its own session, no
// parent-death signal): its BGP sessions stay up and peers keep our routes,
// which matters because a peer may keep no routes of a family over a lost
// session at all (FRR 8 does not for l2vpn evpn, graceful restart or not).
// The next orbevpn-bgp over the same state directory adopts it (adopt())
// and reconciles its RIB instead of starting another. stop() kills it
// without a BGP NOTIFICATION, so that peers that do support graceful
// restart for the family treat it as one.
//
// Threading: one thread (the speaker's).
#pragma once

#include <string>
#include <sys/types.h>

namespace OrbEvpn::Bgp {

struct DaemonOptions {
   std::string program = "/usr/bin/gobgpd";
   std::string stateDir;
   std::string logLevel = "info";
};

class Daemon {
 public:
   // Makes the state directory and the socket folder (0700); throws
   // std::runtime_error when either cannot be made private.
   explicit Daemon( DaemonOptions options );
   ~Daemon();   // stop()
   Daemon( const Daemon& ) = delete;
   Daemon& operator=( const Daemon& ) = delete;

   // Starts the child (stopping one that runs).
   void start();
   // Takes over the gobgpd an earlier orbevpn-bgp left running over this
   // state directory (its pid file names a live gobgpd whose API socket is
   // ours); false, and nothing changes, if there is none.
   bool adopt();
   // True while the running daemon is one adopt() took over.
   bool adopted() const { return adopted_; }
   // Kills the daemon (SIGKILL) and waits for it; nothing if none runs.
   void stop();
   // A descriptor readable when the child has exited (-1 if none).
   int fd() const { return pidFd_; }
   // Reaps the daemon if it has exited; true if it had.
   bool reapIfExited( int* status = nullptr );
   bool running() const { return pid_ > 0; }
   pid_t pid() const { return pid_; }

   const std::string& socketPath() const { return socketPath_; }
   std::string logPath() const;
   std::string pidPath() const;

 private:
   DaemonOptions options_;
   std::string socketDir_;
   std::string socketPath_;
   pid_t pid_ = -1;
   int pidFd_ = -1;
   bool adopted_ = false;   // not our child: waited for through pidFd_
};

}  // namespace OrbEvpn::Bgp
