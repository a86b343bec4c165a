// The agent when a shared table it writes is full: its maximum capacity
// reached, or no room left in the Lumen root for the segment it must grow
// into. Lumen refuses the write (Lumen::TableFullException, of which the
// out-of-space error is a kind) and leaves the table as it was; the
// machines, which run synchronously inside the event that changed the
// model, stop that VNI's pass where the write failed. The event's other
// effects stay. The VNI's pass is re-run, from the beginning, when room
// may have come back: after a record left one of our tables, and on a
// timer that backs off while nothing changes. A pass is idempotent (it
// writes what the model says and sweeps what it does not), so re-running
// it completes the export of the VNI, whatever part of it had gone out.
#include "tools/agent/Agent.h"

#include "platform/lumen/CorruptionDetectedException.h"
#include "platform/values/EthAddr.h"
#include "platform/values/Vni.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdio>

namespace Agent {

void Agent::passInterrupted( std::optional< uint32_t > vni, const std::exception& x,
                             const char* where ) {
   ++counts_.tableFull;
   const bool wasIdle = pendingVnis_.empty() && !machinesPending_;
   std::vector< uint32_t > added;
   auto note = [ & ]( uint32_t v ) {
      if ( pendingVnis_.insert( v ).second ) {
         added.push_back( v );
      }
   };
   if ( vni ) {
      note( *vni );
   } else {
      // Which VNI the failed write was for is not known here: every one
      // the controller has is passed again.
      for ( auto it = model_.vniDir()->entityIterator(); it; ++it ) {
         uint32_t v = 0;
         const std::string_view name = it.key().view();
         if ( std::from_chars( name.data(), name.data() + name.size(), v ).ec == std::errc() ) {
            note( v );
         }
      }
   }
   // One line per VNI that starts waiting, not per refused write.
   for ( uint32_t v : added ) {
      std::fprintf( stderr, "orbevpn-agent: VNI %u: export incomplete, %s: %s; its pass runs again when room frees\n",
                    v, where, x.what() );
   }
   if ( !vni && added.empty() && wasIdle ) {
      std::fprintf( stderr, "orbevpn-agent: %s: %s\n", where, x.what() );
   }
   if ( wasIdle ) {
      retryDelayMs_ = retryFirstMs;
      nextRetryAt_ = Clock::now() + std::chrono::milliseconds( retryDelayMs_ );
   }
}

// Both full passes of the VNI's export machine (hosts, then flood lists and
// the bridge id), and the pass of its flood list's machine, which a
// machine that is already initialised does not re-run by itself. A VNI the
// controller no longer has is swept instead.
void Agent::rerunPass( uint32_t vni ) {
   const Mox::String name( fmt::format( "{}", vni ) );
   plugin_->invoke( tx_, "handleVniFdbStatus", &name );
   const Vxlan::Vni key( vni );
   if ( const auto child = plugin_->child( tx_, "vniFdbStatusSm", &key ) ) {
      plugin_->invoke( child, "handleInitialized" );
      const Wire::EthAddr allBumDestinations{};
      if ( const auto list = plugin_->child( child, "macVtepFloodListSm", &allBumDestinations ) ) {
         plugin_->invoke( list, "handleInitialized" );
      }
   }
}

void Agent::retryPasses( const char* why ) {
   if ( retrying_ || ( pendingVnis_.empty() && !machinesPending_ ) ) {
      return;
   }
   retrying_ = true;
   lastRetryAt_ = Clock::now();
   if ( machinesPending_ ) {
      // Making the machines exports every VNI.
      ++counts_.passRetries;
      reconcile();
      if ( !machinesPending_ ) {
         std::fprintf( stderr, "orbevpn-agent: export machines started (%s)\n", why );
      }
   }
   size_t done = 0;
   if ( !machinesPending_ ) {
      const std::vector< uint32_t > vnis( pendingVnis_.begin(), pendingVnis_.end() );
      for ( uint32_t v : vnis ) {
         if ( !tx_ ) {
            // Nothing exports (cleaned up, or the flag is off): the next
            // start of the machines passes every VNI.
            pendingVnis_.clear();
            break;
         }
         ++counts_.passRetries;
         try {
            rerunPass( v );
         } catch ( const Lumen::TableFullException& ) {
            continue;
         } catch ( const Fable::CorruptionDetectedException& ) {
            throw;   // the table's handler stops the agent
         } catch ( const std::exception& x ) {
            // Not a matter of room: waiting would not help.
            std::fprintf( stderr, "orbevpn-agent: VNI %u: its export pass failed: %s\n", v, x.what() );
            pendingVnis_.erase( v );
            continue;
         }
         pendingVnis_.erase( v );
         ++counts_.passesRecovered;
         ++done;
      }
   }
   if ( done != 0 ) {
      std::fprintf( stderr, "orbevpn-agent: export of %zu VNIs complete (%s), %zu still wait\n", done,
                    why, pendingVnis_.size() );
   }
   retryDelayMs_ = pendingVnis_.empty() && !machinesPending_
                      ? retryFirstMs
                      : std::min( retryDelayMs_ * 2, retryMaxMs );
   nextRetryAt_ = Clock::now() + std::chrono::milliseconds( retryDelayMs_ );
   lastActivity_ = Clock::now();
   retrying_ = false;
}

// A record left one of our tables: a waiting pass may fit now. Not from
// inside the table's notification: on the loop's next round, once, and no
// sooner than retryFirstMs after the last round of passes (each rewrites
// its VNI's records, so churn on a full table must not run them per event).
void Agent::roomFreed() {
   if ( retrying_ || retryQueued_ || ( pendingVnis_.empty() && !machinesPending_ ) ) {
      return;
   }
   const auto soonest = lastRetryAt_ + std::chrono::milliseconds( retryFirstMs );
   if ( Clock::now() < soonest ) {
      nextRetryAt_ = std::min( nextRetryAt_, soonest );   // the tick runs it
      return;
   }
   retryQueued_ = true;
   loop_.workIs( [ this ] {
      retryQueued_ = false;
      retryPasses( "a removal freed room" );
      return false;
   } );
}

void Agent::retryOnTick( Clock::time_point now ) {
   if ( ( !pendingVnis_.empty() || machinesPending_ ) && now >= nextRetryAt_ ) {
      retryPasses( "retry timer" );
   }
}

}  // namespace Agent
