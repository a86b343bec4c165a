// LeakCheck: proves that a scope leaves no framework object behind.
//
// RAII over the allocation records: the constructor snapshots the live
// object and byte counts of every AllocTrackTypeInfo; the destructor
// EXPECTs each record back at its snapshot (a record that appeared in
// between must be at zero) and names every record that moved.
//
//    {
//       LeakCheck leaks;
//       auto sm = OrbEvpnIntegrationModeSm::OrbEvpnIntegrationModeSmIs( ... );
//       ...
//    }   // fails the test if anything created in the scope is still alive
//
// Declare it before the objects it watches so that it is destroyed after
// them. Threading: take and check the snapshot on one thread, after the
// other threads that allocate have finished.
#pragma once

#include "platform/mox/AllocTrack.h"

#include <cstdint>
#include <string>
#include <vector>

class LeakCheck {
 public:
   LeakCheck();
   ~LeakCheck();
   LeakCheck( const LeakCheck& ) = delete;
   LeakCheck& operator=( const LeakCheck& ) = delete;

   // One line per record whose counts differ from the snapshot, empty when
   // nothing leaked (for checks in the middle of a scope).
   std::vector< std::string > leaks() const;

 private:
   struct Snapshot {
      const Mox::AllocTrackTypeInfo* record;
      int64_t objects;
      int64_t bytes;
   };
   std::vector< Snapshot > before_;
};
