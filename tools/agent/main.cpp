// orbevpn-agent: hosts the orbevpn plug-in between a controller's event
// stream and the EVPN side's shared tables. `orbevpn-agent ctl WORDS...`
// talks to a running agent over its control socket.
#include "orbevpn/tx/SweepMode.h"
#include "platform/lumen/CorruptionDetectedException.h"
#include "platform/lumen/Options.h"
#include "platform/trace/Handle.h"
#include "tools/agent/Agent.h"
#include "tools/agent/Control.h"
#include "tools/agent/RootCheck.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <csignal>
#include <cstdio>

int main( int argc, char** argv ) {
   // Before any thread exists, so that every thread inherits the mask and
   // the signals reach only the event loop's signalfd.
   sigset_t signals;
   sigemptyset( &signals );
   sigaddset( &signals, SIGINT );
   sigaddset( &signals, SIGTERM );
   ::pthread_sigmask( SIG_BLOCK, &signals, nullptr );

   CLI::App app{ "orbevpn-agent: hosts the orbevpn plug-in; the built-in demo runs when no --input is given" };
   Agent::Options o;
   std::string root, trace, demoSize, ctlControl, ctlRoot, sweep = "index";
   std::optional< uint32_t > skipVni;
   app.add_option( "--prefix", o.prefix, "table path prefix" )->capture_default_str();
   app.add_option( "--root", root, "Lumen root folder (default: $ORBEVPN_LUMEN_ROOT or /dev/shm)" );
   app.add_option( "--trace", trace, "trace levels, e.g. 'VxlanControllerEvpnTxSm/3-4' (also $ORBEVPN_TRACE)" );
   app.add_option( "--input", o.input, "controller events: FILE, - (stdin) or unix:PATH (the agent listens)" );
   app.add_option( "--ovsdb", o.ovsdb, "controller state from a hardware_vtep OVSDB: unix:PATH or tcp:HOST:PORT" );
   app.add_option( "--ovsdb-grace", o.ovsdbGrace, "seconds without an OVSDB session before the controller database counts as disabled" )
      ->capture_default_str()
      ->check( CLI::NonNegativeNumber );
   app.add_option( "--demo", demoSize, "demo size VNIS:MACS (default 100:1000)" );
   app.add_option( "--demo-churn", o.demoChurnSeconds, "seconds of churn after the demo's snapshot" );
   app.add_option( "--demo-churn-rate", o.demoChurnRate, "churn events per second" )->capture_default_str();
   app.add_option( "--demo-seed", o.demo.seed, "the demo's random seed" )->capture_default_str();
   app.add_option( "--demo-skip-vni", skipVni, "leave this VNI out of the demo" );
   app.add_option( "--demo-vanish-every", o.demo.vanishEvery,
                   "leave out every VNI that is a multiple of N (0: none), e.g. to restart over tables of a larger demo" )
      ->capture_default_str();
   app.add_option( "--record-events", o.recordEvents, "write every applied event to FILE as JSON lines" );
   app.add_option( "--sync-timeout", o.syncTimeout, "seconds to wait for {\"op\":\"synced\"}" )->capture_default_str();
   app.add_flag( "--until-steady", o.untilSteady, "exit 0 once steady; non-zero on --steady-timeout" );
   app.add_option( "--steady-timeout", o.steadyTimeout, "seconds --until-steady waits" )->capture_default_str();
   app.add_flag( "--stats-json", o.statsJson, "print one JSON object of statistics as the last line of stdout" );
   app.add_option( "--control", o.control, "control socket (default: $ORBEVPN_AGENT_CONTROL or <root>/orbevpn-agent.ctl)" );
   app.add_option( "--metrics-listen", o.metricsListen, "serve /metrics over HTTP at ADDR:PORT (loopback)" );
   app.add_flag( "--metrics-any-address", o.metricsAnyAddress, "allow a --metrics-listen address that is not loopback" );
   app.add_option( "--max-line", o.maxLineBytes, "longest input line in bytes; longer ones are reported and skipped" )
      ->capture_default_str()
      ->check( CLI::Range( size_t( 64 ), size_t( 1 ) << 30 ) );
   app.add_option( "--control-stall", o.controlLimits.stallMs,
                   "ms a control client may take no byte of its reply (or send no whole line) before it is dropped" )
      ->capture_default_str()
      ->check( CLI::Range( 10u, 3600000u ) );
   app.add_option( "--sweep", sweep, "how the export's stale-record sweeps find a VNI's records: index or walk" )
      ->capture_default_str()
      ->check( CLI::IsMember( { "index", "walk" } ) );
   app.add_option( "--table-max-entries", o.tableMaxEntries,
                   "cap every shared table the agent writes at N records (default: Lumen's maximum)" )
      ->check( CLI::Range( 1u, 1u << 30 ) );
   app.add_option( "--status-period", o.statusPeriodMs, "status period in ms (steady = two quiet periods)" )
      ->capture_default_str()
      ->check( CLI::Range( 10u, 60000u ) );

   CLI::App* ctl = app.add_subcommand( "ctl", "send one command to a running agent and print the reply" );
   ctl->add_option( "--control", ctlControl, "control socket" );
   ctl->add_option( "--root", ctlRoot, "Lumen root the agent uses (for the default socket path)" );
   ctl->prefix_command();
   ctl->footer( "commands: status [--json], counters [--json], trace, cleanup, metrics,\n"
                "          dump controller --json, dump import --json" );

   CLI11_PARSE( app, argc, argv );

   if ( *ctl ) {
      if ( !ctlRoot.empty() ) {
         Lumen::rootIs( ctlRoot );
      }
      std::string line;
      for ( const auto& w : ctl->remaining() ) {
         line += ( line.empty() ? "" : " " ) + w;
      }
      if ( line.empty() ) {
         std::fprintf( stderr, "orbevpn-agent ctl: no command given\n%s", ctl->help().c_str() );
         return 2;
      }
      return Agent::controlClient( ctlControl.empty() ? Agent::defaultControlPath() : ctlControl, line );
   }

   try {
      if ( !root.empty() ) {
         Lumen::rootIs( root );
      }
      if ( const std::string why = Agent::unsafeRootReason( Lumen::root() ); !why.empty() ) {
         std::fprintf( stderr, "orbevpn-agent: refusing to run: %s\n", why.c_str() );
         return Agent::exitUnsafeRoot;
      }
      Trace::configureFromEnvironment();
      if ( !trace.empty() ) {
         Trace::configure( trace );
      }
      if ( !demoSize.empty() && !Agent::Demo::parseSize( demoSize, o.demo ) ) {
         std::fprintf( stderr, "orbevpn-agent: --demo %s: expected VNIS:MACS, e.g. 100:1000\n", demoSize.c_str() );
         return 2;
      }
      o.demo.skipVni = skipVni;
      if ( !o.input.empty() && ( !demoSize.empty() || skipVni || o.demo.vanishEvery ) ) {
         std::fprintf( stderr, "orbevpn-agent: --demo options and --input exclude each other\n" );
         return 2;
      }
      if ( !o.ovsdb.empty() && ( !o.input.empty() || !demoSize.empty() || skipVni || o.demo.vanishEvery ) ) {
         std::fprintf( stderr, "orbevpn-agent: --ovsdb excludes --input and the --demo options\n" );
         return 2;
      }
      OrbEvpn::sweepModeIs( *OrbEvpn::sweepModeFromName( sweep ) );
      Agent::Agent agent( o );
      return agent.run();
   } catch ( const Fable::CorruptionDetectedException& e ) {
      // Found by a table with no handler of its own (the bridge-id list).
      Agent::stopOnCorruption( "of the agent", e.what() );
   } catch ( const std::exception& e ) {
      std::fprintf( stderr, "orbevpn-agent: %s\n", e.what() );
      return 2;
   }
}
