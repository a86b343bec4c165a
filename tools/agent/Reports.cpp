// The agent's reports: status, counters and statistics as JSON, metrics in
// the Prometheus text format, the terminal's status line, and the control
// commands that hand them out.
#include "tools/agent/Agent.h"

#include "platform/mox/AllocTrack.h"
#include "platform/mox/Counters.h"
#include "platform/trace/RingLog.h"
#include "tools/common/Boundary.h"

#include <fmt/format.h>

#include <cstdio>
#include <sstream>

namespace Agent {

using Json = nlohmann::json;
namespace Boundary = OrbEvpn::Boundary;

void Agent::statusLine( bool final ) {
   const Json s = statusJson();
   std::fprintf( stderr,
                 "\r%zu VNIs | exported %u hosts %u flood %zu brIds | imported %zu hosts %zu flood | "
                 "%.0f events/s%s\x1b[K%s",
                 model_.vnis(), hostOut_->hosts(), floodOut_->floodEntries(), brIds_->brIdListSize(),
                 model_.importedHosts(), model_.importedFlood(), eventsPerSecond_,
                 steady_ ? " | steady" : "", final ? "\n" : "" );
}

Json Agent::statusJson() const {
   auto reader = []( Lumen::MountStatus status, bool pending ) {
      return Json{ { "status", Lumen::mountStatusName( status ) }, { "dispatchPending", pending } };
   };
   Json readers = Json::object();
   if ( evpnHost_ ) {
      readers[ "evpn/host" ] = reader( evpnHost_->mountStatus(), evpnHost_->dispatchPending() );
      readers[ "evpn/flood" ] = reader( evpnFlood_->mountStatus(), evpnFlood_->dispatchPending() );
      readers[ "evpn/capability" ] = reader( capabilityIn_->mountStatus(), capabilityIn_->dispatchPending() );
   }
   Json s = statusJsonCore();
   s[ "readers" ] = readers;
   if ( !steady_ ) {
      s[ "notSteady" ] = notSteady_;
   }
   return s;
}

Json Agent::statusJsonCore() const {
   Json s = { { "steady", steady_ },
            { "integrationMode", model_.config()->orbEvpnIntegrationMode() },
            { "controllerdbEnabled", model_.controllerdb()->enabled() },
            { "evpnEnabled", model_.capability()->evpnEnabled() },
            { "vnis", model_.vnis() },
            { "exported",
              { { "hosts", hostOut_ ? hostOut_->hosts() : 0u },
                { "flood", floodOut_ ? floodOut_->floodEntries() : 0u },
                { "brIds", brIds_ ? brIds_->brIdListSize() : 0u } } },
            { "imported", { { "hosts", model_.importedHosts() }, { "flood", model_.importedFlood() } } },
            { "events", counts_.events },
            { "badLines", counts_.badLines },
            { "refused", counts_.refused },
            { "eventsPerSecond", eventsPerSecond_ },
            { "machines", tx_ ? "running" : paused_ ? "cleaned up on demand" : "not running" },
            // VNIs whose export a full table interrupted, waiting for room.
            { "pendingVnis", Json( std::vector< uint32_t >( pendingVnis_.begin(), pendingVnis_.end() ) ) },
            { "machinesPending", machinesPending_ },
            { "tableFull", counts_.tableFull } };
   if ( ovsdb_ ) {
      s[ "ovsdb" ] = { { "up", ovsdb_->up() }, { "sessions", ovsdb_->sessions() }, { "badRows", counts_.badRows } };
   }
   return s;
}

Json Agent::countersJson() const {
   Json c = { { "events", counts_.events },
              { "badLines", counts_.badLines },
              { "badRows", counts_.badRows },
              { "refused", counts_.refused },
              { "synced", counts_.synced },
              { "cleanups", counts_.cleanups },
              { "machineStarts", counts_.machineStarts },
              { "removed",
                { { "hosts", counts_.removedHosts },
                  { "flood", counts_.removedFlood },
                  { "brIds", counts_.removedBrIds } } },
              { "tableFull",
                { { "interrupted", counts_.tableFull },
                  { "passRetries", counts_.passRetries },
                  { "passesRecovered", counts_.passesRecovered },
                  { "pendingVnis", pendingVnis_.size() } } } };
   Json tables = Json::object();
   for ( const auto& [ name, value ] : Mox::counters() ) {
      tables[ name ] = value;
   }
   c[ "tables" ] = tables;
   // The framework's allocation records, summed: a soak watches them stay flat.
   int64_t liveBytes = 0;
   for ( const Mox::AllocTrackTypeInfo* t : Mox::AllocTrackTypeInfo::all() ) {
      liveBytes += t->liveBytes();
   }
   c[ "allocations" ] = { { "liveObjects", Mox::AllocTrackTypeInfo::totalLiveObjects() }, { "liveBytes", liveBytes } };
   c[ "controlDropped" ] = control_ ? control_->dropped() : 0;
   return c;
}

Json Agent::statsJson() const {
   Json s = countersJson();
   const double loadSeconds = msBetween( modelStart_, inputEnded_ ? inputEndedAt_ : Clock::now() ) / 1000.0;
   s[ "eventsPerSecond" ] = loadSeconds > 0 ? double( counts_.events ) / loadSeconds : 0.0;
   s[ "steady" ] = steady_;
   s[ "timeToSteadyMs" ] = { { "total", phases_.steady },     { "takeover", phases_.takeover },
                             { "mount", phases_.mount },      { "sweeps", phases_.sweeps },
                             { "model", phases_.model },      { "export", phases_.exportMs } };
   s[ "peakRssBytes" ] = peakRssBytes();
   const Json st = statusJson();
   s[ "vnis" ] = st[ "vnis" ];
   s[ "exported" ] = st[ "exported" ];
   s[ "imported" ] = st[ "imported" ];
   return s;
}

std::vector< Metric > Agent::metrics() const {
   std::vector< Metric > m{
      { "events_total", "counter", "Controller events applied.", double( counts_.events ), "" },
      { "bad_lines_total", "counter", "Input lines skipped as malformed or out of range.", double( counts_.badLines ), "" },
      { "refused_total", "counter", "Input lines refused: they would write a table another process owns.", double( counts_.refused ), "" },
      { "cleanups_total", "counter", "Times the export and import were cleaned up and stopped.", double( counts_.cleanups ), "" },
      { "table_full_total", "counter", "Export passes a full shared table interrupted.", double( counts_.tableFull ), "" },
      { "pending_vnis", "gauge", "VNIs whose export pass waits for room in a full table.", double( pendingVnis_.size() ), "" },
      { "steady", "gauge", "1 when input, readers and feeds are all quiet.", steady_ ? 1.0 : 0.0, "" },
      { "integration_mode", "gauge", "The integration flag the agent publishes.", model_.config()->orbEvpnIntegrationMode() ? 1.0 : 0.0, "" },
      { "vnis", "gauge", "VNIs in the controller model.", double( model_.vnis() ), "" },
      { "exported_hosts", "gauge", "Records in the export host table.", double( hostOut_ ? hostOut_->hosts() : 0 ), "" },
      { "exported_flood", "gauge", "Records in the export flood table.", double( floodOut_ ? floodOut_->floodEntries() : 0 ), "" },
      { "exported_bridge_ids", "gauge", "Bridge ids listed.", double( brIds_ ? brIds_->brIdListSize() : 0 ), "" },
      { "imported_hosts", "gauge", "Hosts mirrored from the EVPN side.", double( model_.importedHosts() ), "" },
      { "imported_flood", "gauge", "Flood VTEPs mirrored from the EVPN side.", double( model_.importedFlood() ), "" },
      { "events_per_second", "gauge", "Recent rate of applied events.", eventsPerSecond_, "" },
      { "peak_rss_bytes", "gauge", "Peak resident set size.", double( peakRssBytes() ), "" },
   };
   for ( const auto& [ table, n ] : { std::pair( "export/host", counts_.removedHosts ),
                                      std::pair( "export/flood", counts_.removedFlood ),
                                      std::pair( "brIdList", counts_.removedBrIds ) } ) {
      m.push_back( { "records_removed_total", "counter", "Records that left the agent's shared tables.",
                     double( n ), fmt::format( "table=\"{}\"", table ) } );
   }
   for ( const auto& [ name, value ] : Mox::counters() ) {
      m.push_back( { "table_operations_total", "counter", "Operations of the shared tables, by counter.",
                     double( value ), fmt::format( "counter=\"{}\"", name ) } );
   }
   return m;
}

std::string Agent::metricsText() const { return prometheusText( metrics() ); }

std::string Agent::command( const std::string& line ) {
   std::istringstream in( line );
   std::vector< std::string > w;
   for ( std::string s; in >> s; ) {
      w.push_back( s );
   }
   const bool json = !w.empty() && w.back() == "--json";
   if ( json ) {
      w.pop_back();
   }
   auto is = [ & ]( std::initializer_list< const char* > words ) {
      if ( w.size() != words.size() ) {
         return false;
      }
      size_t i = 0;
      for ( const char* x : words ) {
         if ( w[ i++ ] != x ) {
            return false;
         }
      }
      return true;
   };
   if ( is( { "status" } ) ) {
      if ( json ) {
         return statusJson().dump() + "\n";
      }
      const Json s = statusJson();
      std::string out;
      for ( const auto& [ k, v ] : s.items() ) {
         out += fmt::format( "{:<20} {}\n", k, v.dump() );
      }
      return out;
   }
   if ( is( { "counters" } ) ) {
      const Json c = countersJson();
      if ( json ) {
         return c.dump() + "\n";
      }
      std::string out;
      for ( const auto& [ k, v ] : c.items() ) {
         if ( k == "tables" ) {
            for ( const auto& [ tk, tv ] : v.items() ) {
               out += fmt::format( "{:<20} {}\n", tk, tv.dump() );
            }
         } else {
            out += fmt::format( "{:<20} {}\n", k, v.dump() );
         }
      }
      return out;
   }
   if ( is( { "trace" } ) ) {
      std::string out;
      for ( const auto& l : Trace::RingLog::lines() ) {
         out += l + "\n";
      }
      return out.empty() ? "(the trace ring is empty; enable levels with --trace)\n" : out;
   }
   if ( is( { "cleanup" } ) ) {
      const bool running = tx_ || rx_;
      dropMachines();
      paused_ = true;
      return running ? "export and import cleaned up; they start again when the integration flag next turns on\n"
                     : "export and import were not running\n";
   }
   if ( is( { "metrics" } ) ) {
      return metricsText();
   }
   if ( is( { "dump", "controller" } ) ) {
      return json ? model_.controllerJson().dump() + "\n" : model_.controllerJson().dump( 2 ) + "\n";
   }
   if ( is( { "dump", "import" } ) ) {
      return json ? model_.importJson().dump() + "\n" : model_.importJson().dump( 2 ) + "\n";
   }
   if ( !w.empty() && w[ 0 ] == "write" && w.size() >= 2 ) {
      const std::string refusal = Boundary::refuseWrite( o_.prefix, w[ 1 ], Boundary::Side::agent );
      if ( !refusal.empty() ) {
         return "error: " + refusal + "\n";
      }
      return fmt::format( "error: {} is written by the agent's own machines, not by command\n",
                          Boundary::pathOf( o_.prefix, w[ 1 ] ) );
   }
   return fmt::format( "error: unknown command \"{}\"; try status, counters, trace, cleanup, metrics, "
                       "dump controller, dump import (with --json where it applies)\n",
                       line );
}

}  // namespace Agent
