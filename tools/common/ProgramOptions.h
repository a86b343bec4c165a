// What the programs on the boundary (orbevpn-peer, orbevpn-bgp) take and
// do alike before they start: where the shared tables are (--prefix,
// --root), and SIGINT and SIGTERM read from a signalfd by their poll loop.
// Header-only: included by those programs' main() alone.
#pragma once

#include "platform/lumen/Options.h"
#include "tools/common/Boundary.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <string>
#include <sys/signalfd.h>

namespace OrbEvpn::Boundary {

struct TableOptions {
   std::string prefix{ defaultPrefix };
   std::string root;   // empty: ORBEVPN_LUMEN_ROOT or /dev/shm
};

inline void addTableOptions( CLI::App& app, TableOptions& o ) {
   app.add_option( "--prefix", o.prefix, "table path prefix" )->default_val( o.prefix );
   app.add_option( "--root", o.root, "Lumen root folder (default: ORBEVPN_LUMEN_ROOT or /dev/shm)" );
}

// To be called before any table is attached.
inline void useTableOptions( const TableOptions& o ) {
   if ( !o.root.empty() ) {
      Lumen::rootIs( o.root );
   }
}

// SIGINT and SIGTERM, blocked in the calling thread and so in every thread
// it starts after this (call it before any), as a non-blocking signalfd;
// -1 on failure (errno tells).
inline int stopSignalFd() {
   sigset_t set;
   sigemptyset( &set );
   sigaddset( &set, SIGINT );
   sigaddset( &set, SIGTERM );
   pthread_sigmask( SIG_BLOCK, &set, nullptr );
   return signalfd( -1, &set, SFD_CLOEXEC | SFD_NONBLOCK );
}

}  // namespace OrbEvpn::Boundary
