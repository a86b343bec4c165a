// The agent's controller feed from a hardware_vtep OVSDB: a session with the
// server (OvsdbClient) whose rows the mapping (VtepMapping) turns into
// controller events for the agent to apply.
//
// Controller database status: the feed emits {"op":"controllerdb",
// "enabled":true} once a session's snapshot is applied, the first time
// followed by {"op":"synced"} (the end of the agent's initial snapshot), and
// {"op":"controllerdb","enabled":false} when `grace` seconds pass without a
// session. While the server is away the model keeps what it had; the next
// session's snapshot reconciles it.
//
// Threading: the event-loop thread only.
#pragma once

#include "tools/agent/EventLoop.h"
#include "tools/agent/ovsdb/OvsdbClient.h"
#include "tools/agent/ovsdb/VtepMapping.h"

#include <memory>

namespace Agent::Ovsdb {

class OvsdbFeed {
 public:
   struct Hooks {
      VtepMapping::EmitFn emit;
      VtepMapping::ReportFn report;
      VtepMapping::MirrorSeqFn mirrorSeqNo;
      std::function< void( const std::string& ) > log;
      std::function< void() > snapshotDone;   // after the first snapshot's events
   };

   // Seeds are given before start(); the session opens in start().
   OvsdbFeed( EventLoop& loop, std::string address, double graceSeconds, Hooks hooks );
   ~OvsdbFeed();
   OvsdbFeed( const OvsdbFeed& ) = delete;
   OvsdbFeed& operator=( const OvsdbFeed& ) = delete;

   VtepMapping& mapping() { return mapping_; }
   void start();
   bool up() const { return client_ && client_->up(); }
   uint64_t sessions() const { return client_ ? client_->sessions() : 0; }

 private:
   void onRows( const Json& updates, bool snapshot );
   void onUp();
   void onDown();

   EventLoop& loop_;
   std::string address_;
   double grace_;
   Hooks hooks_;
   VtepMapping mapping_;
   std::unique_ptr< OvsdbClient > client_;
   int graceTimer_ = -1;
   bool enabled_ = false, synced_ = false;
};

}  // namespace Agent::Ovsdb
