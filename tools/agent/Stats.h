// What the agent measures about itself: the time each start-up phase took,
// event counts and rates, and the process's peak resident set size.
#pragma once

#include <chrono>
#include <cstdint>

#include <sys/resource.h>

namespace Agent {

using Clock = std::chrono::steady_clock;

inline double msBetween( Clock::time_point a, Clock::time_point b ) {
   return std::chrono::duration< double, std::milli >( b - a ).count();
}

// Peak resident set size of this process, in bytes.
inline uint64_t peakRssBytes() {
   rusage u{};
   ::getrusage( RUSAGE_SELF, &u );
   return uint64_t( u.ru_maxrss ) * 1024;
}

struct Counts {
   uint64_t events = 0;      // applied to the model
   uint64_t badLines = 0;    // malformed or out of range, skipped
   uint64_t badRows = 0;     // OVSDB rows the feed cannot map, skipped
   uint64_t refused = 0;     // writes the boundary forbids, skipped
   uint64_t synced = 0;      // {"op":"synced"} seen
   uint64_t cleanups = 0;    // export and import cleaned up and dropped
   uint64_t machineStarts = 0;
   // Records that left the agent's shared tables (the tables' own "...Del"
   // counters count every attempt, also of keys that were not there).
   uint64_t removedHosts = 0, removedFlood = 0, removedBrIds = 0;
   // A shared table full (its maximum reached, or no room in the Lumen
   // root) interrupted a VNI's export pass: times it happened, re-runs of
   // such passes, and VNIs whose re-run then completed.
   uint64_t tableFull = 0, passRetries = 0, passesRecovered = 0;
};

// Milliseconds each phase of the way to steady state took. Takeover: the
// writer tables attached (content of an earlier run taken over); mount: the
// EVPN side's tables mounted; sweeps: bridge ids listed for every VNI with
// exported records, so that the export's own sweep finds them; model: the
// controller input up to the end of its snapshot; export: the machines
// created, which export and import everything before they return; steady:
// from start until the last event, dispatch or machine change before the
// feed heads stood still.
struct Phases {
   double takeover = 0, mount = 0, sweeps = 0, model = 0, exportMs = 0, steady = -1;
};

}  // namespace Agent
