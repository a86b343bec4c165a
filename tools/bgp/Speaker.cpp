#include "tools/bgp/Speaker.h"

#include "tools/bgp/GobgpPaths.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace OrbEvpn::Bgp {

namespace {

std::string hostText( const Host& h ) {
   return fmt::format( "{} vni {} vtep {} seq {}", macText( h.macAddr() ), h.vni().value(), ipText( h.vtepAddr() ),
                       h.seqNo().value() );
}

}  // namespace

Speaker::Speaker( SpeakerOptions options, std::ostream& log )
      : options_( std::move( options ) ),
        log_( log ),
        rdIndex_( options_.daemon.stateDir.empty() ? std::string() : options_.daemon.stateDir + "/rd-index" ),
        tables_( options_.prefix, [ this ]( const std::string& line ) { log_ << "orbevpn-bgp: " << line << "\n"; } ),
        daemon_( options_.daemon ) {
   auto rid = parseIp( options_.routerId );
   if ( !rid ) {
      throw std::invalid_argument( fmt::format( "bad router id \"{}\"", options_.routerId ) );
   }
   routerId_ = *rid;
   tables_.exportHost->onKeyIs( [ this ]( const MacVniPair& k ) {
      auto& keys = exportHostsOf_[ k.vni().value() ];
      if ( tables_.exportHost->contains( k ) ) {
         keys.insert( k );
      } else {
         keys.erase( k );
      }
      dirtyHosts_.insert( k );
   } );
   tables_.exportFlood->onKeyIs( [ this ]( const VniVtepPair& k ) {
      auto& keys = exportFloodOf_[ k.vni().value() ];
      if ( tables_.exportFlood->contains( k ) ) {
         keys.insert( k );
      } else {
         keys.erase( k );
      }
      dirtyFlood_.insert( k );
   } );
   tables_.brIdList->onKeyIs( [ this ]( const Bridging::BridgeId& b ) {
      if ( b.isVni() ) {
         dirtyVnis_.insert( b.value() & Bridging::BridgeId::localMask );
      }
   } );
   tables_.config->onKeyIs( [ this ]( const SingletonKey& ) { allDirty_ = true; } );
   // The readers report changes from their mount on; what was there at the
   // mount is read here.
   for ( auto e = tables_.exportHost->next(); e; e = tables_.exportHost->next( e->second ) ) {
      exportHostsOf_[ e->first.vni().value() ].insert( e->first.key() );
   }
   for ( auto e = tables_.exportFlood->next(); e; e = tables_.exportFlood->next( e->second ) ) {
      exportFloodOf_[ e->first.vni().value() ].insert( e->first.key() );
   }

   // A gobgpd an earlier run of ours left behind still holds the sessions
   // and our routes: taken over, nothing is withdrawn.
   if ( daemon_.adopt() ) {
      log_ << fmt::format( "orbevpn-bgp: adopting the running gobgpd {}\n", daemon_.pid() );
      try {
         connect();
      } catch ( const std::exception& e ) {
         log_ << "orbevpn-bgp: the running gobgpd cannot be taken over (" << e.what() << "); starting another\n";
         client_.reset();
         daemon_.stop();
      }
   }
   if ( !client_ ) {
      startDaemon();
   }
   tables_.announce();
}

Speaker::~Speaker() {
   // The watch thread reads through the client: gone before the daemon.
   client_.reset();
   daemon_.stop();
}

pid_t Speaker::handOver() {
   client_.reset();
   return daemon_.release();
}

// A daemon that keeps dying is not restarted for ever.
void Speaker::startDaemon() {
   auto now = Clock::now();
   std::erase_if( restarts_, [ now ]( Clock::time_point t ) { return now - t > std::chrono::minutes( 1 ); } );
   if ( int( restarts_.size() ) > options_.maxRestarts ) {
      throw std::runtime_error(
         fmt::format( "gobgpd restarted {} times within a minute; see {}", restarts_.size(), daemon_.logPath() ) );
   }
   restarts_.push_back( now );
   client_.reset();
   daemon_.start();
   connect();
}

// The daemon's global settings and peers are configured here every time:
// a restarted gobgpd remembers nothing.
void Speaker::connect() {
   client_ = std::make_unique< GobgpClient >( daemon_.socketPath() );
   if ( !client_->waitReady( std::chrono::seconds( 15 ) ) ) {
      throw std::runtime_error( fmt::format( "gobgpd does not answer on {}; see {}", daemon_.socketPath(),
                                             daemon_.logPath() ) );
   }
   GlobalConfig g{ options_.asn, options_.routerId, options_.listenPort, options_.restartTime };
   if ( daemon_.adopted() ) {
      // Kept only while it runs with our settings; its peers are made to
      // match ours without touching the sessions that stay.
      GlobalConfig running = client_->global();
      if ( running.asn != g.asn || running.routerId != g.routerId || running.listenPort != g.listenPort ) {
         throw GobgpError( fmt::format( "it runs as AS {} router id {} port {}", running.asn, running.routerId,
                                        running.listenPort ) );
      }
      reconcileRib();
      std::set< std::string > have;
      for ( const std::string& a : client_->peerAddresses() ) {
         bool wanted = std::any_of( options_.neighbors.begin(), options_.neighbors.end(),
                                    [ &a ]( const NeighborConfig& n ) { return n.address == a; } );
         if ( wanted ) {
            have.insert( a );
         } else {
            client_->deletePeer( a );
         }
      }
      for ( const NeighborConfig& n : options_.neighbors ) {
         if ( !have.count( n.address ) ) {
            client_->addPeer( n, g );
         }
      }
   } else {
      client_->startBgp( g );
      reconcileRib();
      for ( const NeighborConfig& n : options_.neighbors ) {
         client_->addPeer( n, g );
      }
   }
   ImportSelection::Touched discarded;
   selection_.clear( discarded );
   importHeld_ = true;
   importHoldEnd_ = Clock::now() + std::chrono::milliseconds( options_.importHoldMs );
   client_->watchStart();
   log_ << fmt::format( "orbevpn-bgp: gobgpd {} up, {} routes advertised, {} neighbors\n", daemon_.pid(),
                        advertised(), options_.neighbors.size() );
   log_.flush();
}

// What the daemon holds from us is read back, so that a route it still has
// and that is still wanted is left alone (no withdrawal, no update).
void Speaker::reconcileRib() {
   ++stats_.reconciles;
   advertisedHosts_.clear();
   advertisedFlood_.clear();
   pendingHosts_.clear();
   pendingMacs_.clear();
   pendingFlood_.clear();
   std::vector< apipb::Path > foreign;
   for ( const apipb::Path& p : client_->localEvpnPaths() ) {
      auto lp = learntOf( p );
      bool kept = false;
      if ( lp && lp->mac && lp->mac->label <= Vxlan::Vni::max ) {
         MacVniPair k( lp->mac->mac, Vxlan::Vni( lp->mac->label ) );
         kept = advertisedHosts_.emplace( k, *lp->mac ).second;
      } else if ( lp && lp->flood && lp->flood->label <= Vxlan::Vni::max ) {
         VniVtepPair k( Vxlan::Vni( lp->flood->label ), lp->flood->originator );
         kept = advertisedFlood_.emplace( k, *lp->flood ).second;
      }
      if ( !kept ) {
         foreign.push_back( withdrawalOf( p ) );   // not one of ours as we make them
      }
   }
   for ( size_t i = 0; i < foreign.size(); i += options_.addBatch ) {
      size_t n = std::min( options_.addBatch, foreign.size() - i );
      sendPaths( std::vector< apipb::Path >( foreign.begin() + long( i ), foreign.begin() + long( i + n ) ) );
      stats_.routesWithdrawn += n;
   }
   markAllDirty();
   syncExport();
}

void Speaker::markAllDirty() { allDirty_ = true; }

std::vector< int > Speaker::fds() const {
   std::vector< int > out = tables_.fds();
   if ( client_ ) {
      out.push_back( client_->fd() );
   }
   if ( daemon_.fd() >= 0 ) {
      out.push_back( daemon_.fd() );
   }
   return out;
}

int Speaker::msUntilDue( Clock::time_point now ) const {
   auto due = now + std::chrono::milliseconds( options_.retryMs );
   if ( importHeld_ ) {
      due = std::min( due, importHoldEnd_ );
   }
   if ( !refusedHosts_.empty() ) {
      due = std::min( due, nextRetry_ );
   }
   if ( due <= now ) {
      return 0;
   }
   return int( std::chrono::ceil< std::chrono::milliseconds >( due - now ).count() );
}

void Speaker::step() {
   tables_.dispatch();
   if ( daemon_.reapIfExited() ) {
      daemonLost( "gobgpd exited" );
   } else if ( client_ && client_->watchEnded() ) {
      daemonLost( "the route-event stream of gobgpd ended" );
   }
   takeImport();
   auto now = Clock::now();
   if ( !refusedHosts_.empty() && now >= nextRetry_ ) {
      dirtyHosts_.insert( refusedHosts_.begin(), refusedHosts_.end() );
      nextRetry_ = now + std::chrono::milliseconds( options_.retryMs );
   }
   try {
      syncExport();
   } catch ( const GobgpError& e ) {
      // A call that failed for want of the daemon is redone by the
      // reconcile that follows its restart.
      daemonLost( e.what() );
   }
   if ( importHeld_ && Clock::now() >= importHoldEnd_ ) {
      endImportHold();
   }
}

void Speaker::daemonLost( const std::string& why ) {
   ++stats_.daemonRestarts;
   log_ << "orbevpn-bgp: " << why << "; restarting it and reconciling\n";
   log_.flush();
   startDaemon();
}

std::optional< RouteDistinguisher > Speaker::rdOf( uint32_t vni ) {
   auto index = rdIndex_.indexOf( vni );
   if ( !index ) {
      return std::nullopt;
   }
   return RouteDistinguisher{ routerId_, *index };
}

std::optional< MacRoute > Speaker::wantHost( const MacVniPair& k ) {
   uint32_t vni = k.vni().value();
   if ( !tables_.advertised( vni ) || !tables_.exportHost->contains( k ) ) {
      return std::nullopt;
   }
   auto rd = rdOf( vni );
   auto rt = routeTargetOf( options_.rtScheme, options_.asn, vni );
   if ( !rd || !rt ) {
      return std::nullopt;
   }
   return macRouteOf( tables_.exportHost->lookup( k ), *rd, *rt );
}

std::optional< FloodRoute > Speaker::wantFlood( const VniVtepPair& k ) {
   uint32_t vni = k.vni().value();
   if ( !tables_.advertised( vni ) || !tables_.exportFlood->contains( k ) ) {
      return std::nullopt;
   }
   auto rd = rdOf( vni );
   auto rt = routeTargetOf( options_.rtScheme, options_.asn, vni );
   if ( !rd || !rt ) {
      return std::nullopt;
   }
   return floodRouteOf( FloodEntry( k ), *rd, *rt );
}

void Speaker::syncExport() {
   if ( !client_ ) {
      return;
   }
   if ( allDirty_ ) {
      for ( const auto& [ vni, keys ] : exportHostsOf_ ) {
         dirtyHosts_.insert( keys.begin(), keys.end() );
      }
      for ( const auto& [ vni, keys ] : exportFloodOf_ ) {
         dirtyFlood_.insert( keys.begin(), keys.end() );
      }
      for ( const auto& [ k, r ] : advertisedHosts_ ) {
         dirtyHosts_.insert( k );
      }
      for ( const auto& [ k, r ] : advertisedFlood_ ) {
         dirtyFlood_.insert( k );
      }
      allDirty_ = false;
      dirtyVnis_.clear();
   }
   if ( !dirtyVnis_.empty() ) {
      for ( uint32_t vni : dirtyVnis_ ) {
         auto& hosts = exportHostsOf_[ vni ];
         dirtyHosts_.insert( hosts.begin(), hosts.end() );
         auto& flood = exportFloodOf_[ vni ];
         dirtyFlood_.insert( flood.begin(), flood.end() );
      }
      for ( const auto& [ k, r ] : advertisedHosts_ ) {
         if ( dirtyVnis_.count( k.vni().value() ) ) {
            dirtyHosts_.insert( k );
         }
      }
      for ( const auto& [ k, r ] : advertisedFlood_ ) {
         if ( dirtyVnis_.count( k.vni().value() ) ) {
            dirtyFlood_.insert( k );
         }
      }
      dirtyVnis_.clear();
   }
   // Taken one at a time: a failed call leaves the rest dirty for the
   // reconcile after the daemon's restart.
   while ( !dirtyHosts_.empty() ) {
      MacVniPair k = *dirtyHosts_.begin();
      syncHost( k );
      dirtyHosts_.erase( dirtyHosts_.begin() );
   }
   flushHosts();
   while ( !dirtyFlood_.empty() ) {
      VniVtepPair k = *dirtyFlood_.begin();
      syncFlood( k );
      dirtyFlood_.erase( dirtyFlood_.begin() );
   }
   flushFlood();
   rdIndex_.flush();
}

void Speaker::syncHost( const MacVniPair& k ) {
   auto want = wantHost( k );
   if ( pendingMacs_.count( k.macAddr() ) ) {
      // Whatever happens to this MAC next sees the batch's routes in place.
      flushHosts();
   }
   auto have = advertisedHosts_.find( k );
   if ( !want ) {
      refusedHosts_.erase( k );
      if ( have != advertisedHosts_.end() ) {
         queueHost( k, std::nullopt );
      }
      return;
   }
   if ( have != advertisedHosts_.end() && have->second == *want ) {
      return;
   }
   queueHost( k, *want );
}

void Speaker::queueHost( const MacVniPair& k, const std::optional< MacRoute >& want ) {
   pendingHosts_.emplace_back( k, want );
   pendingMacs_.insert( k.macAddr() );
   if ( pendingHosts_.size() >= options_.addBatch ) {
      flushHosts();
   }
}

apipb::Path Speaker::hostPathOf( const MacVniPair& k, const std::optional< MacRoute >& want ) const {
   return want ? pathOf( *want ) : withdrawalOf( pathOf( advertisedHosts_.at( k ) ) );
}

void Speaker::hostSent( const MacVniPair& k, const std::optional< MacRoute >& want ) {
   if ( want ) {
      refusedHosts_.erase( k );
      advertisedHosts_[ k ] = *want;
      ++stats_.routesAdded;
   } else {
      advertisedHosts_.erase( k );
      ++stats_.routesWithdrawn;
   }
}

void Speaker::sendPaths( const std::vector< apipb::Path >& paths ) {
   ++stats_.pathMessages;
   client_->sendPaths( paths );
}

void Speaker::flushHosts() {
   if ( pendingHosts_.empty() ) {
      return;
   }
   std::vector< std::pair< MacVniPair, std::optional< MacRoute > > > batch;
   batch.swap( pendingHosts_ );
   pendingMacs_.clear();
   if ( batch.size() > 1 ) {
      std::vector< apipb::Path > paths;
      paths.reserve( batch.size() );
      for ( const auto& [ k, want ] : batch ) {
         paths.push_back( hostPathOf( k, want ) );
      }
      try {
         sendPaths( paths );
         for ( const auto& [ k, want ] : batch ) {
            hostSent( k, want );
         }
         return;
      } catch ( const GobgpError& e ) {
         if ( std::string( e.what() ).find( "MAC mobility" ) == std::string::npos ) {
            throw;
         }
         // None of them went in; one at a time tells the refused ones.
      }
   }
   for ( const auto& [ k, want ] : batch ) {
      if ( want ) {
         addHost( k, *want );
      } else {
         sendPaths( { hostPathOf( k, want ) } );
         hostSent( k, want );
      }
   }
}

// One route alone, handling gobgpd's MAC-mobility refusal.
void Speaker::addHost( const MacVniPair& k, const MacRoute& want ) {
   try {
      sendPaths( { pathOf( want ) } );
   } catch ( const GobgpError& e ) {
      std::string what = e.what();
      if ( what.find( "MAC mobility" ) == std::string::npos ) {
         throw;
      }
      bool retried = false;
      auto have = advertisedHosts_.find( k );
      if ( have != advertisedHosts_.end() && have->second.sequence > want.sequence ) {
         // Our own earlier route is what blocks a lower sequence number.
         sendPaths( { hostPathOf( k, std::nullopt ) } );
         hostSent( k, std::nullopt );
         try {
            sendPaths( { pathOf( want ) } );
            retried = true;
         } catch ( const GobgpError& ) {
         }
      }
      if ( !retried ) {
         if ( refusedHosts_.insert( k ).second ) {
            ++stats_.refused;
            Host h = tables_.exportHost->lookup( k );
            log_ << "orbevpn-bgp: gobgpd refuses " << hostText( h )
                 << ": a route for the MAC with a higher sequence number exists; retrying\n";
            if ( nextRetry_ < Clock::now() ) {
               nextRetry_ = Clock::now() + std::chrono::milliseconds( options_.retryMs );
            }
         }
         return;
      }
   }
   hostSent( k, want );
}

void Speaker::syncFlood( const VniVtepPair& k ) {
   auto want = wantFlood( k );
   auto have = advertisedFlood_.find( k );
   if ( !want ) {
      if ( have != advertisedFlood_.end() ) {
         pendingFlood_.emplace_back( k, std::nullopt );
      }
   } else if ( have == advertisedFlood_.end() || !( have->second == *want ) ) {
      pendingFlood_.emplace_back( k, *want );
   }
   if ( pendingFlood_.size() >= options_.addBatch ) {
      flushFlood();
   }
}

void Speaker::flushFlood() {
   if ( pendingFlood_.empty() ) {
      return;
   }
   std::vector< std::pair< VniVtepPair, std::optional< FloodRoute > > > batch;
   batch.swap( pendingFlood_ );
   std::vector< apipb::Path > paths;
   paths.reserve( batch.size() );
   for ( const auto& [ k, want ] : batch ) {
      paths.push_back( want ? pathOf( *want ) : withdrawalOf( pathOf( advertisedFlood_.at( k ) ) ) );
   }
   sendPaths( paths );
   for ( const auto& [ k, want ] : batch ) {
      if ( want ) {
         advertisedFlood_[ k ] = *want;
         ++stats_.routesAdded;
      } else {
         advertisedFlood_.erase( k );
         ++stats_.routesWithdrawn;
      }
   }
}

void Speaker::takeImport() {
   if ( !client_ ) {
      return;
   }
   ImportSelection::Touched t;
   for ( const apipb::Path& p : client_->takeEvents() ) {
      ++stats_.importEvents;
      auto lp = learntOf( p );
      if ( !lp ) {
         ++stats_.importIgnored;
         continue;
      }
      if ( lp->local || lp->withdraw ) {
         selection_.sourceDel( lp->nlriKey, t );
         continue;
      }
      std::optional< Host > h = lp->mac ? hostOf( *lp->mac ) : std::nullopt;
      std::optional< FloodEntry > f = lp->flood ? floodEntryOf( *lp->flood ) : std::nullopt;
      if ( h ) {
         selection_.hostIs( lp->nlriKey, *h, t );
      } else if ( f ) {
         selection_.floodIs( lp->nlriKey, *f, t );
      } else {
         ++stats_.importIgnored;
         selection_.sourceDel( lp->nlriKey, t );
      }
   }
   if ( !t.hosts.empty() && !refusedHosts_.empty() ) {
      dirtyHosts_.insert( refusedHosts_.begin(), refusedHosts_.end() );
   }
   applyImport( t );
}

void Speaker::applyImport( const ImportSelection::Touched& t ) {
   for ( const MacVniPair& k : t.hosts ) {
      auto w = selection_.winner( k );
      if ( w ) {
         if ( !( tables_.hostOut.lookup( k ) == *w ) ) {
            tables_.hostOut.write( *w );
         }
      } else if ( !importHeld_ && tables_.hostOut.contains( k ) ) {
         tables_.hostOut.remove( k );
      }
   }
   for ( const VniVtepPair& k : t.flood ) {
      if ( selection_.floodPresent( k ) ) {
         if ( !tables_.floodOut.contains( k ) ) {
            tables_.floodOut.write( FloodEntry( k ) );
         }
      } else if ( !importHeld_ && tables_.floodOut.contains( k ) ) {
         tables_.floodOut.remove( k );
      }
   }
}

// Entries left from before the start (or the daemon's restart) that no
// route has confirmed within the hold time are gone from BGP.
void Speaker::endImportHold() {
   importHeld_ = false;
   std::vector< MacVniPair > staleHosts;
   for ( auto e = tables_.hostOut.next(); e; e = tables_.hostOut.next( e->second ) ) {
      if ( !selection_.winner( e->first.key() ) ) {
         staleHosts.push_back( e->first.key() );
      }
   }
   for ( const auto& k : staleHosts ) {
      tables_.hostOut.remove( k );
   }
   std::vector< VniVtepPair > staleFlood;
   for ( auto e = tables_.floodOut.next(); e; e = tables_.floodOut.next( e->second ) ) {
      if ( !selection_.floodPresent( e->first.key() ) ) {
         staleFlood.push_back( e->first.key() );
      }
   }
   for ( const auto& k : staleFlood ) {
      tables_.floodOut.remove( k );
   }
   if ( !staleHosts.empty() || !staleFlood.empty() ) {
      log_ << fmt::format( "orbevpn-bgp: removed {} hosts and {} flood entries no route supports any more\n",
                           staleHosts.size(), staleFlood.size() );
      log_.flush();
   }
}

}  // namespace OrbEvpn::Bgp
