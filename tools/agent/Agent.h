// The hosting agent: owns the controller model and the shared tables,
// hosts the plug-in's machines, and runs everything on one event loop.
//
// Start-up, in this order, so that a restart over unchanged input withdraws
// nothing: (a) mount the tables (the export tables, the bridge-id list and
// the integration flag as writer, the EVPN side's tables as reader); (b)
// list the bridge id of every VNI that has a record in the export tables,
// so that a VNI whose id an interrupted sweep removed is still found and
// swept; (c) read the controller input until its snapshot ends; (d) create
// the integration-mode machine and, while the flag is true, the import and
// export machines.
//
// Threading: everything runs on the event-loop thread; the metrics HTTP
// thread only serves text the loop hands it.
#pragma once

#include "orbevpn/exchange/FloodTable.h"
#include "orbevpn/exchange/HostTable.h"
#include "platform/model/OrbBrIdList.h"
#include "tools/agent/Control.h"
#include "tools/agent/Demo.h"
#include "tools/agent/EventLoop.h"
#include "tools/agent/Input.h"
#include "tools/agent/Metrics.h"
#include "tools/agent/Model.h"
#include "tools/agent/PluginHost.h"
#include "tools/agent/Stats.h"
#include "tools/agent/ovsdb/OvsdbFeed.h"
#include "tools/common/BoundaryRecords.h"

#include <nlohmann/json.hpp>

#include <array>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace Agent {

// Exit status when a table the agent writes reports corruption: the agent
// stops at once (a writer must not go on over a damaged table) and its
// supervisor restarts it; the start moves the damaged table aside
// (tools/common/Recovery.h), creates it anew and exports again.
inline constexpr int exitCorruption = 70;   // EX_SOFTWARE
[[noreturn]] void stopOnCorruption( const std::string& table, const std::string& message );

struct Options {
   std::string prefix = "/orbevpn";
   std::string input;                 // empty: the built-in demo (or --ovsdb)
   std::string ovsdb;                 // unix:PATH or tcp:HOST:PORT of a hardware_vtep database
   double ovsdbGrace = 30;            // seconds without a session before the controller db is disabled
   DemoOptions demo;
   double demoChurnSeconds = 0;
   uint32_t demoChurnRate = 2000;     // churn events per second
   std::string recordEvents;
   double syncTimeout = 30;
   bool untilSteady = false;
   double steadyTimeout = 120;
   bool statsJson = false;
   std::string control;               // empty: defaultControlPath()
   std::string metricsListen;
   bool metricsAnyAddress = false;
   uint32_t statusPeriodMs = 200;
   size_t maxLineBytes = Input::defaultMaxLine;   // longer input lines are skipped
   ControlLimits controlLimits;
   uint32_t tableMaxEntries = 0;      // 0: Lumen's default maximum capacity
};

class Agent {
 public:
   explicit Agent( Options o );
   ~Agent();
   // Runs until a signal, or until steady with --until-steady; the exit code.
   int run();

   // One control command line; the reply (starting "error:" on failure).
   std::string command( const std::string& line );
   nlohmann::json statusJson() const;
   nlohmann::json statusJsonCore() const;
   nlohmann::json countersJson() const;
   nlohmann::json statsJson() const;
   std::string metricsText() const;

 private:
   class ConfigWatch;
   class RemovalWatch;
   void watchRemovals();

   void mountTables();
   void listExportedBridgeIds();
   void startInput();
   void startDemo();
   void startOvsdb();
   uint32_t mirrorSeqNo( const Mac& mac ) const;
   void endOfSnapshot( const char* why );
   void startMachines();
   void reconcile();
   void dropMachines();
   void publishFlag();
   void onLine( std::string_view line, uint64_t number );
   void onTooLong( uint64_t number, uint64_t bytes );
   std::string lineAt( uint64_t number ) const;
   void apply( const Event& e );
   void inputDone();
   void onTick();
   bool steadyNow( std::string& why );
   void statusLine( bool final );
   std::vector< Metric > metrics() const;
   void watchReader( int fd, std::function< void() > dispatch );

   // A full table (TableSpace.cpp). A write that a full export table
   // refuses interrupts the pass of one VNI (or, from the import or a
   // start of the machines, of any): the event's other effects stay, the
   // VNI waits in pendingVnis_, and its pass runs again when a removal
   // frees room or the retry timer (doubling up to retryMaxMs) fires.
   void passInterrupted( std::optional< uint32_t > vni, const std::exception& x,
                         const char* where );
   void retryPasses( const char* why );
   void rerunPass( uint32_t vni );
   void roomFreed();
   void retryOnTick( Clock::time_point now );
   static constexpr uint32_t retryFirstMs = 100, retryMaxMs = 5000;

   Options o_;
   const Clock::time_point start_ = Clock::now();
   EventLoop loop_;
   PluginHost* plugin_ = nullptr;
   Model model_;

   // Tables: the directory tree gives the writer tables their paths.
   Mox::Ptr< Mox::Dir > root_, exportDir_;
   Mox::Ptr< OrbEvpn::HostTable > hostOut_, evpnHost_;
   Mox::Ptr< OrbEvpn::FloodTable > floodOut_, evpnFlood_;
   Mox::Ptr< OrbEvpn::OrbBrIdList > brIds_;
   std::unique_ptr< Lumen::Writer< OrbEvpn::OrbEvpnConfigRecord > > configOut_;
   std::unique_ptr< Lumen::Reader< OrbEvpn::EvpnCapabilityRecord > > capabilityIn_;
   Mox::Ptr< Mox::PtrInterface::NotifieeConst > configWatch_;
   std::vector< Mox::Ptr< Mox::PtrInterface::NotifieeConst > > removalWatches_;

   // The plug-in's machines, made by type name.
   Mox::Ptr< Mox::PtrInterface > mode_, tx_, rx_;
   bool paused_ = false;            // `cleanup` on demand: stays down until the flag turns true again
   bool reconcilePending_ = false;

   std::unique_ptr< Input > input_;
   std::unique_ptr< Demo > demo_;
   std::unique_ptr< Ovsdb::OvsdbFeed > ovsdb_;
   Clock::time_point churnUntil_;
   int churnTimer_ = -1;
   std::unique_ptr< ControlServer > control_;
   std::unique_ptr< MetricsHttp > http_;
   std::ofstream record_;
   int signalFd_ = -1, tickTimer_ = -1, syncTimer_ = -1;

   std::set< uint32_t > pendingVnis_;
   bool machinesPending_ = false;   // creating the export machine itself hit a full table
   bool retrying_ = false, retryQueued_ = false;
   uint32_t retryDelayMs_ = retryFirstMs;
   Clock::time_point nextRetryAt_, lastRetryAt_;

   Counts counts_;
   Phases phases_;
   bool snapshotEnded_ = false, inputEnded_ = false, machinesStarted_ = false;
   Clock::time_point modelStart_, inputEndedAt_, machinesAt_, lastActivity_;
   bool steady_ = false;
   std::string notSteady_;   // why not, while not
   int stableTicks_ = 0;
   std::array< uint64_t, 8 > heads_{};
   uint64_t lastEvents_ = 0;
   double eventsPerSecond_ = 0;
   Clock::time_point lastRateAt_ = Clock::now();
   uint64_t ticks_ = 0;
   bool tty_ = false;
   bool progressShown_ = false;
   int exitCode_ = 0;
};

}  // namespace Agent
