// The built-in demo: a controller that learns VNIS x MACS hosts with two
// flood VTEPs per VNI, says "synced", then churns (MAC moves with a higher
// sequence number, forgets and relearns, one VNI removed).
//
// Deterministic: the same options give the same events in the same order
// (a 64-bit PRNG whose raw outputs are used, no library distributions, so
// also the same on every platform). Events are made in process, without
// JSON; the agent records them as JSON lines only when asked to.
#pragma once

#include "tools/agent/Event.h"

#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace Agent {

struct DemoOptions {
   uint32_t vnis = 100;
   uint32_t macs = 1000;
   uint64_t seed = 1;
   std::optional< uint32_t > skipVni;   // left out entirely
   // 0: none. N: every VNI that is a multiple of N is left out, as if it had
   // vanished from the controller (a restart over an older run's tables).
   uint32_t vanishEvery = 0;
};

class Demo {
 public:
   explicit Demo( const DemoOptions& o );

   // Appends up to `max` events of the initial snapshot (which ends with
   // {"op":"synced"}); false once the whole snapshot has been handed out.
   bool snapshot( std::vector< Event >& out, size_t max );
   size_t snapshotSize() const { return snapshotSize_; }
   size_t snapshotDone() const { return pos_; }

   // Appends `n` churn events. The 100th removes the highest VNI.
   void churn( std::vector< Event >& out, size_t n );

   // Parses "VNIS:MACS"; false on anything else (both at least 1, VNIS at
   // most the VNI range, MACS at most 65536).
   static bool parseSize( const std::string& text, DemoOptions& o );

   // The demo's addresses, also what tests compare against.
   static Mac macOf( uint32_t vni, uint32_t i );
   static uint32_t floodVtep( uint32_t vni, int which );

 private:
   uint32_t vniAt( uint32_t i ) const { return vnis_[ i ]; }
   uint32_t nextVtep() { return 0xC0000200u | uint32_t( 1 + rng_() % 50 ); }   // 192.0.2.1-50

   DemoOptions o_;
   std::vector< uint32_t > vnis_;
   std::mt19937_64 rng_;
   size_t snapshotSize_ = 0;
   size_t pos_ = 0;
   // Churn state: per (VNI index, MAC) its last sequence number, 0 = forgotten.
   std::vector< uint32_t > seq_;   // per MAC, from the first churn on
   bool churnStarted_ = false;
   std::vector< uint32_t > forgotten_;   // indices into seq_
   uint64_t churned_ = 0;
   std::optional< uint32_t > removed_;   // VNI index
};

}  // namespace Agent
