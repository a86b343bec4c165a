// Daemon: the gobgpd child of orbevpn-bgp.
//
// Its API listens only on a Unix socket inside a folder of the state
// directory that only our user may enter (0700), never on TCP. Its output
// goes to gobgpd.log in the state directory. The child dies with us
// (PR_SET_PDEATHSIG), so a killed orbevpn-bgp leaves no daemon behind;
// stop() kills it without a BGP NOTIFICATION, so that peers treat it as a
// graceful restart and keep our routes for the restart time.
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

   // Starts the child (stopping one that runs). It is started without the
   // graceful-restart "restarting" flag: that flag makes gobgpd hold back
   // every update until all peers sent End-of-RIB, while peers keep our
   // stale routes regardless of it and drop only those we do not send
   // again before our End-of-RIB.
   void start();
   // Kills the child (SIGKILL) and reaps it; nothing if none runs.
   void stop();
   // A descriptor readable when the child has exited (-1 if none).
   int fd() const { return pidFd_; }
   // Reaps the child if it has exited; true if it had.
   bool reapIfExited( int* status = nullptr );
   bool running() const { return pid_ > 0; }
   pid_t pid() const { return pid_; }

   const std::string& socketPath() const { return socketPath_; }
   std::string logPath() const;

 private:
   DaemonOptions options_;
   std::string socketDir_;
   std::string socketPath_;
   pid_t pid_ = -1;
   int pidFd_ = -1;
};

}  // namespace OrbEvpn::Bgp
