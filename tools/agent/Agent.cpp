#include "tools/agent/Agent.h"

#include "platform/mox/Counters.h"
#include "tools/common/Boundary.h"
#include "tools/common/Recovery.h"

#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Agent {

using Json = nlohmann::json;
namespace Boundary = OrbEvpn::Boundary;

// Hears every write of the integration flag (the mode machine writes it on
// each recompute, changed or not).
class Agent::ConfigWatch : public Mox::PtrInterface::NotifieeConst {
   MOX_ALLOC_TRACKED( ConfigWatch )

 public:
   ConfigWatch( const Mox::PtrInterface* config, Agent* agent )
         : NotifieeConst( config ), agent_( agent ) {}
   void onAttribute( Mox::AttributeId, const void* ) override {
      if ( !agent_ ) {
         return;
      }
      agent_->publishFlag();
      if ( agent_->machinesStarted_ && !agent_->reconcilePending_ ) {
         // Not from inside the mode machine's handler: on the next round.
         agent_->reconcilePending_ = true;
         Agent* a = agent_;
         a->loop_.workIs( [ a ] {
            a->reconcilePending_ = false;
            a->reconcile();
            return false;
         } );
      }
   }
   Agent* agent_;
};

// Counts the records that leave one of the agent's shared tables: a table
// notifies a removal only for a key that was there, and after the change,
// so a notified key that is absent now was removed.
class Agent::RemovalWatch : public Mox::PtrInterface::NotifieeConst {
   MOX_ALLOC_TRACKED( RemovalWatch )

 public:
   using Gone = std::function< bool( const void* key ) >;
   RemovalWatch( const Mox::PtrInterface* table, Mox::AttributeId id, Gone gone, uint64_t* count,
                 Agent* agent )
         : NotifieeConst( table ), id_( id ), gone_( std::move( gone ) ), count_( count ),
           agent_( agent ) {}
   void onAttribute( Mox::AttributeId id, const void* key ) override {
      if ( id == id_ && key && count_ && gone_( key ) ) {
         ++*count_;
         agent_->roomFreed();
      }
   }
   void detach() { count_ = nullptr; }

 private:
   Mox::AttributeId id_;
   Gone gone_;
   uint64_t* count_;
   Agent* agent_;
};

void Agent::watchRemovals() {
   auto watch = [ this ]( const Mox::PtrInterface* t, const char* attr, RemovalWatch::Gone gone, uint64_t* n ) {
      Mox::Ptr< Mox::PtrInterface::NotifieeConst > w(
         new RemovalWatch( t, t->fwkType()->attributeId( attr ), std::move( gone ), n, this ) );
      w->isRegisteredNotifieeIs( true );
      w->hasNotificationActiveIs( true );
      removalWatches_.push_back( w );
   };
   watch( hostOut_.ptr(), "host",
          [ this ]( const void* k ) { return !hostOut_->hostExists( *static_cast< const OrbEvpn::MacVniPair* >( k ) ); },
          &counts_.removedHosts );
   watch( floodOut_.ptr(), "floodEntry",
          [ this ]( const void* k ) {
             return !floodOut_->floodEntryExists( *static_cast< const OrbEvpn::VniVtepPair* >( k ) );
          },
          &counts_.removedFlood );
   watch( brIds_.ptr(), "brIdList",
          [ this ]( const void* k ) { return !brIds_->brIdListContains( *static_cast< const Bridging::BridgeId* >( k ) ); },
          &counts_.removedBrIds );
}

Agent::Agent( Options o ) : o_( std::move( o ) ) {
   Boundary::checkPrefix( o_.prefix );
   if ( o_.tableMaxEntries != 0 ) {
      Lumen::maxCapacityDefaultIs( o_.tableMaxEntries );
   }
   tty_ = ::isatty( 2 );
   plugin_ = &PluginHost::load();
   if ( !o_.recordEvents.empty() ) {
      record_.open( o_.recordEvents, std::ios::out | std::ios::trunc );
      if ( !record_ ) {
         throw std::runtime_error( fmt::format( "cannot write --record-events {}", o_.recordEvents ) );
      }
   }
}

Agent::~Agent() {
   // Machines first, without cleanup(): what they exported stays for the
   // next start to reconcile. Then the tables, which keep their content.
   if ( configWatch_ ) {
      static_cast< ConfigWatch* >( configWatch_.ptr() )->agent_ = nullptr;
      configWatch_->isRegisteredNotifieeIs( false );
   }
   tx_ = nullptr;
   rx_ = nullptr;
   mode_ = nullptr;
   for ( auto& w : removalWatches_ ) {
      static_cast< RemovalWatch* >( w.ptr() )->detach();
      w->isRegisteredNotifieeIs( false );
   }
   input_.reset();
   ovsdb_.reset();
   control_.reset();
   http_.reset();
   for ( int fd : { signalFd_, tickTimer_, churnTimer_ } ) {
      if ( fd >= 0 ) {
         ::close( fd );
      }
   }
}

// ---- start-up

void stopOnCorruption( const std::string& table, const std::string& message ) {
   std::fprintf( stderr, "orbevpn-agent: shared table %s is corrupt: %s; stopping (exit %d)\n",
                 table.c_str(), message.c_str(), exitCorruption );
   std::fflush( nullptr );
   // No destructors: they would write on through the damaged table. The
   // kernel drops the writer locks, so the restart takes every table over.
   std::_Exit( exitCorruption );
}

void Agent::mountTables() {
   auto t = Clock::now();
   for ( const std::string& line : Boundary::setAsideDamagedTables( o_.prefix, Boundary::Side::agent ) ) {
      std::fprintf( stderr, "orbevpn-agent: %s\n", line.c_str() );
   }
   root_ = Mox::Dir::DirIs( o_.prefix );
   exportDir_ = Mox::Dir::DirIs( "export" );
   root_->entityPtrIs( exportDir_ );
   // Through the framework, as for any registered entity type: filing a
   // table in the tree attaches it at <prefix>/export/<name>.
   hostOut_ = Mox::ptrCast< OrbEvpn::HostTable >( exportDir_->newEntity( "OrbEvpn::HostTable", "host" ) );
   floodOut_ = Mox::ptrCast< OrbEvpn::FloodTable >( exportDir_->newEntity( "OrbEvpn::FloodTable", "flood" ) );
   if ( !hostOut_ || !floodOut_ ) {
      throw std::runtime_error( "the plug-in made no exchange tables" );
   }
   brIds_ = OrbEvpn::OrbBrIdList::OrbBrIdListIs( "brIdList" );
   root_->entityPtrIs( brIds_ );
   hostOut_->corruptionHandlerIs( [ p = Boundary::pathOf( o_.prefix, Boundary::exportHost ) ](
                                     const std::string& m ) { stopOnCorruption( p, m ); } );
   floodOut_->corruptionHandlerIs( [ p = Boundary::pathOf( o_.prefix, Boundary::exportFlood ) ](
                                      const std::string& m ) { stopOnCorruption( p, m ); } );
   configOut_ = std::make_unique< Lumen::Writer< OrbEvpn::OrbEvpnConfigRecord > >();
   configOut_->corruptionHandlerIs( [ p = Boundary::pathOf( o_.prefix, Boundary::config ) ](
                                       const std::string& m ) { stopOnCorruption( p, m ); } );
   configOut_->attach( Boundary::pathOf( o_.prefix, Boundary::config ) );
   phases_.takeover = msBetween( t, Clock::now() );
   watchRemovals();

   t = Clock::now();
   evpnHost_ = OrbEvpn::HostTable::HostTableReaderIs( "evpnHost", Boundary::pathOf( o_.prefix, Boundary::evpnHost ) );
   evpnFlood_ =
      OrbEvpn::FloodTable::FloodTableReaderIs( "evpnFlood", Boundary::pathOf( o_.prefix, Boundary::evpnFlood ) );
   capabilityIn_ = std::make_unique< Lumen::Reader< OrbEvpn::EvpnCapabilityRecord > >(
      Boundary::pathOf( o_.prefix, Boundary::evpnCapability ) );
   auto feedCapability = [ this ] {
      const bool on = capabilityIn_->lookup( OrbEvpn::SingletonKey{} ).evpnEnabled != 0;
      if ( on != model_.capability()->evpnEnabled() ) {
         model_.capability()->evpnEnabledIs( on );
      }
   };
   feedCapability();
   capabilityIn_->onKeyIs( [ feedCapability ]( const OrbEvpn::SingletonKey& ) { feedCapability(); } );
   watchReader( evpnHost_->fd(), [ this ] { evpnHost_->dispatch(); } );
   watchReader( evpnFlood_->fd(), [ this ] { evpnFlood_->dispatch(); } );
   watchReader( capabilityIn_->fd(), [ this ] { capabilityIn_->dispatch(); } );
   phases_.mount = msBetween( t, Clock::now() );

   configWatch_ = Mox::Ptr< Mox::PtrInterface::NotifieeConst >( new ConfigWatch( model_.config().ptr(), this ) );
   configWatch_->isRegisteredNotifieeIs( true );
   configWatch_->hasNotificationActiveIs( true );
}

void Agent::watchReader( int fd, std::function< void() > dispatch ) {
   loop_.add( fd, [ this, dispatch ]( uint32_t ) {
      try {
         dispatch();
      } catch ( const Lumen::TableFullException& x ) {
         // What the import changed made an export pass write to a full table.
         passInterrupted( std::nullopt, x, "after an import change" );
      }
      lastActivity_ = Clock::now();
   } );
}

void Agent::listExportedBridgeIds() {
   const auto t = Clock::now();
   auto list = [ this ]( uint32_t vni ) {
      const Bridging::BridgeId id( ( Vxlan::Vni( vni ) ) );
      if ( !brIds_->brIdListContains( id ) ) {
         brIds_->brIdListIs( id, true );
      }
   };
   for ( auto it = hostOut_->hostIterConst(); it; ++it ) {
      list( it.key().vni().value() );
   }
   for ( auto it = floodOut_->floodEntryIterConst(); it; ++it ) {
      list( it.key().vni().value() );
   }
   phases_.sweeps = msBetween( t, Clock::now() );
}

void Agent::startInput() {
   modelStart_ = Clock::now();
   if ( !o_.ovsdb.empty() ) {
      startOvsdb();
      return;
   }
   if ( o_.input.empty() ) {
      startDemo();
      return;
   }
   input_ = std::make_unique< Input >(
      loop_, o_.input, [ this ]( std::string_view line, uint64_t n ) { onLine( line, n ); },
      [ this ] { inputDone(); } );
   input_->maxLineIs( o_.maxLineBytes );
   input_->onTooLongIs( [ this ]( uint64_t n, uint64_t bytes ) { onTooLong( n, bytes ); } );
}

void Agent::startDemo() {
   demo_ = std::make_unique< Demo >( o_.demo );
   loop_.workIs( [ this ] {
      std::vector< Event > batch;
      const bool more = demo_->snapshot( batch, 2048 );
      for ( const Event& e : batch ) {
         apply( e );
      }
      if ( tty_ ) {
         const double f = double( demo_->snapshotDone() ) / double( demo_->snapshotSize() );
         const int width = 40, done = int( f * width );
         std::fprintf( stderr, "\rloading demo [%s%s] %3d%% %zu/%zu events\x1b[K",
                       std::string( size_t( done ), '#' ).c_str(),
                       std::string( size_t( width - done ), '.' ).c_str(), int( f * 100 ),
                       demo_->snapshotDone(), demo_->snapshotSize() );
         progressShown_ = true;
         if ( !more ) {
            std::fputc( '\n', stderr );
         }
      }
      if ( more ) {
         return true;
      }
      if ( o_.demoChurnSeconds <= 0 ) {
         inputDone();
         return false;
      }
      churnUntil_ = Clock::now() + std::chrono::milliseconds( int64_t( o_.demoChurnSeconds * 1000 ) );
      churnTimer_ = EventLoop::periodicTimer( 100 );
      loop_.add( churnTimer_, [ this ]( uint32_t ) {
         EventLoop::drainTimer( churnTimer_ );
         std::vector< Event > churn;
         demo_->churn( churn, std::max< uint32_t >( 1, o_.demoChurnRate / 10 ) );
         for ( const Event& e : churn ) {
            apply( e );
         }
         if ( Clock::now() >= churnUntil_ ) {
            loop_.remove( churnTimer_ );
            ::close( churnTimer_ );
            churnTimer_ = -1;
            inputDone();
         }
      } );
      return false;
   } );
}

// The feed issues sequence numbers per MAC: seeded from what this agent
// exported before (a MAC still behind the same VTEP keeps its number) and
// from what the EVPN side holds, so that numbers never go back, also across
// restarts; later moves also look at the import mirror.
void Agent::startOvsdb() {
   Ovsdb::OvsdbFeed::Hooks hooks;
   hooks.emit = [ this ]( const Event& e ) { apply( e ); };
   hooks.report = [ this ]( std::string_view table, const Ovsdb::Uuid& uuid, const std::string& reason ) {
      ++counts_.badRows;
      std::fprintf( stderr, "ovsdb: %.*s %s: %s\n", int( table.size() ), table.data(), uuid.c_str(), reason.c_str() );
   };
   hooks.mirrorSeqNo = [ this ]( const Mac& m ) { return mirrorSeqNo( m ); };
   hooks.log = []( const std::string& line ) { std::fprintf( stderr, "ovsdb: %s\n", line.c_str() ); };
   // The database is never "consumed": the snapshot is what --until-steady waits for.
   hooks.snapshotDone = [ this ] { inputDone(); };
   ovsdb_ = std::make_unique< Ovsdb::OvsdbFeed >( loop_, o_.ovsdb, o_.ovsdbGrace, std::move( hooks ) );
   auto macOf = []( const Wire::EthAddr& a ) {
      Mac m;
      std::copy( a.bytes(), a.bytes() + 6, m.begin() );
      return m;
   };
   for ( auto it = hostOut_->hostIterConst(); it; ++it ) {
      const OrbEvpn::Host& h = it.value();
      ovsdb_->mapping().seedExported( h.vni().value(), macOf( h.macAddr() ), h.vtepAddr().value(), h.seqNo().value() );
   }
   for ( auto it = evpnHost_->hostIterConst(); it; ++it ) {
      ovsdb_->mapping().seedSeqNo( macOf( it.value().macAddr() ), it.value().seqNo().value() );
   }
   ovsdb_->start();
}

uint32_t Agent::mirrorSeqNo( const Mac& mac ) const {
   const Wire::EthAddr a( mac.data() );
   uint32_t n = 0;
   for ( const auto& [ vni, s ] : model_.evpnDir()->vniStatusV2Coll().map() ) {
      n = std::max( n, s->macVtepTable( a ).seqNo().value() );
   }
   return n;
}

void Agent::inputDone() {
   inputEnded_ = true;
   inputEndedAt_ = Clock::now();
   if ( record_.is_open() ) {
      record_.flush();
   }
   if ( !snapshotEnded_ ) {
      endOfSnapshot( "the input ended" );
   }
}

void Agent::endOfSnapshot( const char* why ) {
   if ( snapshotEnded_ ) {
      return;
   }
   snapshotEnded_ = true;
   phases_.model = msBetween( modelStart_, Clock::now() );
   if ( std::string_view( why ) != "synced" ) {
      std::fprintf( stderr, "orbevpn-agent: starting without {\"op\":\"synced\"}: %s\n", why );
   }
   startMachines();
}

void Agent::startMachines() {
   const auto t = Clock::now();
   machinesStarted_ = true;
   Mox::Ptr< const Controllerdb::Status > status = model_.controllerdb();
   Mox::Ptr< const OrbEvpn::EvpnCapability > capability = model_.capability();
   Mox::Ptr< OrbEvpn::OrbEvpnConfig > config = model_.config();
   mode_ = plugin_->create( "OrbEvpn::OrbEvpnIntegrationModeSm", { &status, &capability, &config } );
   reconcile();
   machinesAt_ = Clock::now();
   phases_.exportMs = msBetween( t, machinesAt_ );
}

void Agent::reconcile() {
   if ( !mode_ ) {
      return;
   }
   if ( !model_.config()->orbEvpnIntegrationMode() ) {
      paused_ = false;
      dropMachines();
      return;
   }
   if ( paused_ ) {
      return;
   }
   // Import first: the export then starts knowing what the EVPN side
   // provided, and never exports (to withdraw at once) an echo of it.
   try {
      if ( !rx_ ) {
         Mox::Ptr< const OrbEvpn::HostTable > h = evpnHost_;
         Mox::Ptr< const OrbEvpn::FloodTable > f = evpnFlood_;
         Mox::Ptr< VxlanController::VniStatusDirV2 > dir = model_.evpnDir();
         rx_ = plugin_->create( "VxlanController::OrbEvpnRxSm", { &h, &f, &dir } );
         lastActivity_ = Clock::now();
      }
      if ( !tx_ ) {
         Mox::Ptr< const Mox::Dir > vniDir = model_.vniDir();
         Mox::Ptr< const VxlanController::VniStatusDirV2 > evpnDir = model_.evpnDir();
         tx_ = plugin_->create( "OrbEvpn::OrbEvpnTxSm", { &vniDir, &evpnDir, &brIds_, &hostOut_, &floodOut_ } );
         ++counts_.machineStarts;
         lastActivity_ = Clock::now();
         // Its start passed every VNI.
         pendingVnis_.clear();
         machinesPending_ = false;
      }
   } catch ( const Lumen::TableFullException& x ) {
      // The export machine's start (which exports everything) did not
      // finish: it is made again, and so passes every VNI, when room frees.
      // What it wrote stays, for that start to take over.
      if ( !machinesPending_ ) {
         std::fprintf( stderr, "orbevpn-agent: starting the export machines: %s; again when room frees\n",
                       x.what() );
      }
      ++counts_.tableFull;
      if ( pendingVnis_.empty() && !machinesPending_ ) {
         retryDelayMs_ = retryFirstMs;
         nextRetryAt_ = Clock::now() + std::chrono::milliseconds( retryDelayMs_ );
      }
      machinesPending_ = true;
   }
}

void Agent::dropMachines() {
   // Nothing is exported now; the next start passes every VNI.
   pendingVnis_.clear();
   machinesPending_ = false;
   if ( !tx_ && !rx_ ) {
      return;
   }
   if ( tx_ ) {
      plugin_->invoke( tx_, "cleanup" );
   }
   if ( rx_ ) {
      plugin_->invoke( rx_, "cleanup" );
   }
   tx_ = nullptr;
   rx_ = nullptr;
   ++counts_.cleanups;
   lastActivity_ = Clock::now();
}

void Agent::publishFlag() {
   OrbEvpn::OrbEvpnConfigRecord r;
   r.orbEvpnIntegrationMode = model_.config()->orbEvpnIntegrationMode() ? 1 : 0;
   if ( !configOut_->contains( r.id ) ||
        configOut_->lookup( r.id ).orbEvpnIntegrationMode != r.orbEvpnIntegrationMode ) {
      configOut_->write( r );
   }
}

// ---- events

// "in.jsonl: line 3 (byte 118)": enough to find the line in the stream.
std::string Agent::lineAt( uint64_t number ) const {
   return fmt::format( "{}: line {} (byte {})", input_ ? input_->where() : std::string( "input" ), number,
                       input_ ? input_->lineOffset() : 0 );
}

void Agent::onLine( std::string_view line, uint64_t number ) {
   if ( line.find_first_not_of( " \t\r" ) == std::string_view::npos ) {
      return;   // blank lines separate nothing and mean nothing
   }
   Parsed p = parseEvent( line );
   if ( auto* reason = std::get_if< std::string >( &p ) ) {
      ++counts_.badLines;
      std::fprintf( stderr, "%s: %s\n", lineAt( number ).c_str(), reason->c_str() );
      return;
   }
   const Event& e = std::get< Event >( p );
   if ( std::string_view table = tableWritten( e.op ); !table.empty() ) {
      const std::string refusal = Boundary::refuseWrite( o_.prefix, table, Boundary::Side::agent );
      if ( !refusal.empty() ) {
         ++counts_.refused;
         std::fprintf( stderr, "%s: %s\n", lineAt( number ).c_str(), refusal.c_str() );
         return;
      }
   }
   try {
      apply( e );
   } catch ( const Fable::CorruptionDetectedException& ) {
      throw;   // not the line's fault: the agent stops (main)
   } catch ( const std::exception& x ) {
      ++counts_.badLines;
      std::fprintf( stderr, "%s: %s\n", lineAt( number ).c_str(), x.what() );
   }
}

void Agent::onTooLong( uint64_t number, uint64_t bytes ) {
   ++counts_.badLines;
   std::fprintf( stderr, "%s: line of %llu bytes is longer than the limit of %zu; skipped\n",
                 lineAt( number ).c_str(), (unsigned long long)bytes, input_->maxLine() );
}

void Agent::apply( const Event& e ) {
   if ( record_.is_open() ) {
      record_ << eventJson( e ) << '\n';
   }
   try {
      model_.apply( e );
   } catch ( const Lumen::TableFullException& x ) {
      std::optional< uint32_t > vni;
      if ( e.op >= Event::Op::vni && e.op <= Event::Op::multiPathDel ) {
         vni = e.vni;
      }
      passInterrupted( vni, x, fmt::format( "{} event", opName( e.op ) ).c_str() );
   }
   ++counts_.events;
   lastActivity_ = Clock::now();
   if ( e.op == Event::Op::synced ) {
      ++counts_.synced;
      if ( record_.is_open() ) {
         record_.flush();
      }
      endOfSnapshot( "synced" );
   }
}

// ---- the periodic check

void Agent::onTick() {
   ++ticks_;
   const auto now = Clock::now();
   const double dt = msBetween( lastRateAt_, now ) / 1000.0;
   if ( dt >= 1.0 || ( dt > 0 && ticks_ % 5 == 0 ) ) {
      eventsPerSecond_ = double( counts_.events - lastEvents_ ) / dt;
      lastEvents_ = counts_.events;
      lastRateAt_ = now;
   }
   retryOnTick( now );
   if ( !snapshotEnded_ && msBetween( modelStart_, now ) > o_.syncTimeout * 1000 ) {
      endOfSnapshot( "--sync-timeout passed" );
   }
   auto count = []( const char* name ) { return Mox::counter( name ).value(); };
   const std::array< uint64_t, 8 > heads{ evpnHost_->feedHead(),   evpnFlood_->feedHead(),
                                          capabilityIn_->feedHead(), count( "hostIs" ) + count( "hostDel" ),
                                          count( "floodEntryIs" ) + count( "floodEntryDel" ),
                                          brIds_->brIdListSize(),    counts_.events,
                                          counts_.cleanups + counts_.machineStarts };
   if ( heads != heads_ ) {
      heads_ = heads;
      stableTicks_ = 0;
   } else {
      ++stableTicks_;
   }
   std::string why;
   const bool steady = steadyNow( why );
   if ( steady && phases_.steady < 0 ) {
      // The heads are sampled once a period; the last thing done is known
      // to the moment.
      auto at = std::max( { lastActivity_, inputEndedAt_, machinesAt_ } );
      phases_.steady = msBetween( start_, at );
   }
   steady_ = steady;
   notSteady_ = steady ? std::string() : why;
   if ( tty_ && ( ticks_ % std::max< uint32_t >( 1, 1000 / o_.statusPeriodMs ) == 0 ) ) {
      statusLine( false );
   }
   if ( http_ ) {
      http_->textIs( metricsText() );
   }
   if ( o_.untilSteady ) {
      if ( steady ) {
         loop_.stop();
      } else if ( msBetween( start_, now ) > o_.steadyTimeout * 1000 ) {
         std::fprintf( stderr, "orbevpn-agent: not steady after %g s: %s\n", o_.steadyTimeout, why.c_str() );
         exitCode_ = 3;
         loop_.stop();
      }
   }
}

bool Agent::steadyNow( std::string& why ) {
   if ( !inputEnded_ ) {
      why = "the input is not consumed yet";
      return false;
   }
   if ( !machinesStarted_ ) {
      why = "the machines are not started";
      return false;
   }
   if ( evpnHost_->dispatchPending() ) {
      why = "the reader of evpn/host has a dispatch pending";
      return false;
   }
   if ( evpnFlood_->dispatchPending() ) {
      why = "the reader of evpn/flood has a dispatch pending";
      return false;
   }
   if ( capabilityIn_->dispatchPending() ) {
      why = "the reader of evpn/capability has a dispatch pending";
      return false;
   }
   if ( !pendingVnis_.empty() || machinesPending_ ) {
      why = machinesPending_ ? "the export machines wait for room in a full table"
                             : fmt::format( "{} VNIs wait for room in a full table", pendingVnis_.size() );
      return false;
   }
   if ( stableTicks_ < 2 ) {
      why = "feed heads still moving";
      return false;
   }
   return true;
}

// ---- the run

int Agent::run() {
   sigset_t signals;
   sigemptyset( &signals );
   sigaddset( &signals, SIGINT );
   sigaddset( &signals, SIGTERM );
   signalFd_ = ::signalfd( -1, &signals, SFD_CLOEXEC | SFD_NONBLOCK );
   loop_.add( signalFd_, [ this ]( uint32_t ) {
      signalfd_siginfo si;
      while ( ::read( signalFd_, &si, sizeof si ) == sizeof si ) {
      }
      loop_.stop();
   } );

   mountTables();              // (a)
   listExportedBridgeIds();    // (b)
   control_ = std::make_unique< ControlServer >( loop_, o_.control.empty() ? defaultControlPath() : o_.control,
                                                 [ this ]( const std::string& l ) { return command( l ); }, o_.controlLimits );
   if ( !o_.metricsListen.empty() ) {
      http_ = std::make_unique< MetricsHttp >( o_.metricsListen, o_.metricsAnyAddress );
      http_->textIs( metricsText() );
      std::fprintf( stderr, "orbevpn-agent: metrics at http://%s:%d/metrics\n",
                    o_.metricsListen.substr( 0, o_.metricsListen.rfind( ':' ) ).c_str(), http_->port() );
   }
   tickTimer_ = EventLoop::periodicTimer( o_.statusPeriodMs );
   loop_.add( tickTimer_, [ this ]( uint32_t ) {
      EventLoop::drainTimer( tickTimer_ );
      onTick();
   } );
   startInput();               // (c), then (d) when the snapshot ends
   loop_.run();

   if ( tty_ ) {
      statusLine( true );
   }
   if ( record_.is_open() ) {
      record_.flush();
   }
   if ( o_.statsJson ) {
      std::printf( "%s\n", statsJson().dump().c_str() );
      std::fflush( stdout );
   }
   return exitCode_;
}

}  // namespace Agent
