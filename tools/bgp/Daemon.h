// Daemon: the gobgpd child of orbevpn-bgp.
//
// Its API listens only on a Unix socket inside a folder of the state
// directory that only our user may enter (0700), never on TCP. Its output
// goes to gobgpd.log in the state directory, its pid to gobgpd.pid.
//
// The child outlives orbevpn-bgp on purpose (its own session, no
// parent-death signal) when orbevpn-bgp is killed or hands it over
// (release()): its BGP sessions stay up and peers keep our routes, which
// matters because a peer may keep no routes of a family over a lost session
// at all (FRR 8 does not for l2vpn evpn, graceful restart or not). The next
// orbevpn-bgp over the same state directory adopts it (adopt()) and
// reconciles its RIB instead of starting another; a keeper (Keeper.h) stops
// it if none comes. stop() kills it without a BGP NOTIFICATION, so that
// peers that do support graceful restart for the family treat it as one.
//
// A Daemon holds the state directory's instance lock for its lifetime and
// claims every daemon it starts or adopts (Handover.h).
//
// Threading: one thread (the speaker's).
#pragma once

#include "tools/bgp/Handover.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace OrbEvpn::Bgp {

struct DaemonOptions {
   std::string program = "/usr/bin/gobgpd";
   std::string stateDir;
   std::string logLevel = "info";
   uint64_t ownerToken = 0;   // this run's claim on the daemon; 0: a new random one
   std::chrono::milliseconds lockWait{ 10000 };   // for the instance lock
};

// A pidfd on process `pid` if it is a gobgpd of ours: our user's, with its
// API on `socketPath`, run as `program`; -1 otherwise. The checks are made
// after the pidfd is open and hold for the process it refers to, so a
// signal sent through it reaches that gobgpd or nothing.
int openGobgpd( pid_t pid, const std::string& program, const std::string& socketPath );
// Every gobgpd of ours on `socketPath` that runs now, as pidfds (see
// openGobgpd), found through /proc.
std::vector< int > findGobgpds( const std::string& program, const std::string& socketPath );
// The pid a pidfd refers to (-1 if it has exited).
pid_t pidOfPidFd( int pidFd );
// True once the process of the pidfd has exited.
bool pidFdExited( int pidFd );

class Daemon {
 public:
   // Makes the state directory and the socket folder (0700) and takes the
   // instance lock; throws std::runtime_error when either cannot be made
   // private or another orbevpn-bgp keeps the lock.
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
   // Lets the daemon go on without us, for a successor to adopt; returns
   // its pid (-1 if none ran).
   pid_t release();
   // A descriptor readable when the child has exited (-1 if none).
   int fd() const { return pidFd_; }
   // Reaps the daemon if it has exited; true if it had.
   bool reapIfExited( int* status = nullptr );
   bool running() const { return pid_ > 0; }
   pid_t pid() const { return pid_; }

   const std::string& socketPath() const { return socketPath_; }
   std::string logPath() const;
   std::string pidPath() const;
   uint64_t ownerToken() const { return options_.ownerToken; }

   static std::string socketPathIn( const std::string& stateDir );
   static std::string pidPathIn( const std::string& stateDir );

 private:
   DaemonOptions options_;
   std::unique_ptr< InstanceLock > lock_;
   std::string socketDir_;
   std::string socketPath_;
   pid_t pid_ = -1;
   int pidFd_ = -1;
   bool adopted_ = false;   // not our child: waited for through pidFd_
};

}  // namespace OrbEvpn::Bgp
