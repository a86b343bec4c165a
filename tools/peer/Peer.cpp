#include "tools/peer/Peer.h"

#include "tools/peer/RemoteEntries.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <poll.h>

namespace OrbEvpn::Peer {

using Json = nlohmann::ordered_json;

uint64_t macKey( const Wire::EthAddr& mac ) {
   uint64_t k = 0;
   for ( size_t i = 0; i < Wire::EthAddr::size; ++i ) {
      k = k << 8 | mac.bytes()[ i ];
   }
   return k;
}

Wire::EthAddr macOfKey( uint64_t k ) {
   return Wire::EthAddr( uint8_t( k >> 40 ), uint8_t( k >> 32 ), uint8_t( k >> 24 ), uint8_t( k >> 16 ),
                         uint8_t( k >> 8 ), uint8_t( k ) );
}

namespace {

Json hostJson( const char* op, const Host& h ) {
   Json j;
   j[ "op" ] = op;
   j[ "mac" ] = macText( h.macAddr() );
   j[ "vni" ] = h.vni().value();
   if ( std::string_view( op ) == "host" ) {
      j[ "vtep" ] = ipText( h.vtepAddr() );
      j[ "seqNo" ] = h.seqNo().value();
      j[ "preference" ] = h.preference();
   }
   return j;
}

Json floodJson( const char* op, uint32_t vni, uint32_t vtep ) {
   Json j;
   j[ "op" ] = op;
   j[ "vni" ] = vni;
   j[ "vtep" ] = ipText( Wire::IpAddr( vtep ) );
   return j;
}

}  // namespace

Peer::Peer( PeerOptions options, std::ostream* log )
      : options_( std::move( options ) ),
        log_( log ),
        tables_( options_.prefix,
                 []( const std::string& line ) { std::fprintf( stderr, "orbevpn-peer: %s\n", line.c_str() ); } ) {
   tables_.announce();
   ++writes_;
   logLine( R"({"op":"capability","evpnEnabled":true})" );

   tables_.exportHost->onKeyIs( [ this ]( const MacVniPair& k ) {
      auto& macs = exportMacs_[ k.vni().value() ];
      if ( tables_.exportHost->contains( k ) ) {
         macs.insert( macKey( k.macAddr() ) );
      } else {
         macs.erase( macKey( k.macAddr() ) );
      }
      touch( k.vni().value() );
   } );
   tables_.exportFlood->onKeyIs( [ this ]( const VniVtepPair& k ) {
      auto& vteps = exportVteps_[ k.vni().value() ];
      if ( tables_.exportFlood->contains( k ) ) {
         vteps.insert( k.vtepAddr().value() );
      } else {
         vteps.erase( k.vtepAddr().value() );
      }
      touch( k.vni().value() );
   } );
   tables_.brIdList->onKeyIs( [ this ]( const Bridging::BridgeId& b ) {
      if ( b.isVni() ) {
         touch( b.value() & Bridging::BridgeId::localMask );
      }
   } );
   tables_.config->onKeyIs( [ this ]( const SingletonKey& ) { touchAll(); } );

   adoptOwnTables();
   indexExport();
   touchAll();
   reconcile();
}

Peer::~Peer() = default;

// A restarted peer keeps what it wrote before where it still holds: its
// echoes stay echoes (chosen again they might differ, and the agent would
// see them come and go).
void Peer::adoptOwnTables() {
   for ( auto e = tables_.hostOut.next(); e; e = tables_.hostOut.next( e->second ) ) {
      const Host& h = e->first;
      uint32_t vni = h.vni().value();
      VniState& s = vnis_[ vni ];
      s.hosts[ macKey( h.macAddr() ) ] = h;
      if ( !isRemoteMac( h.macAddr(), vni ) && s.echoHosts.size() < options_.echoPerVni ) {
         s.echoHosts[ macKey( h.macAddr() ) ] = h;
      }
   }
   for ( auto e = tables_.floodOut.next(); e; e = tables_.floodOut.next( e->second ) ) {
      uint32_t vni = e->first.vni().value();
      uint32_t vtep = e->first.vtepAddr().value();
      VniState& s = vnis_[ vni ];
      s.flood.insert( vtep );
      if ( vtep != remoteFloodVtep( options_.seed, vni ).value() &&
           s.echoFlood.size() < std::min< uint32_t >( options_.echoPerVni, 1 ) ) {
         s.echoFlood.insert( vtep );
      }
   }
}

// The readers deliver changes from their mount on; what was there at the
// mount (or after a resync) is read here.
void Peer::indexExport() {
   exportMacs_.clear();
   exportVteps_.clear();
   for ( auto e = tables_.exportHost->next(); e; e = tables_.exportHost->next( e->second ) ) {
      exportMacs_[ e->first.vni().value() ].insert( macKey( e->first.macAddr() ) );
   }
   for ( auto e = tables_.exportFlood->next(); e; e = tables_.exportFlood->next( e->second ) ) {
      exportVteps_[ e->first.vni().value() ].insert( e->first.vtepAddr().value() );
   }
}

void Peer::touch( uint32_t vni ) {
   auto now = Clock::now();
   if ( dirty_.empty() && !allDirty_ ) {
      firstDirty_ = now;
   }
   lastInput_ = now;
   dirty_.insert( vni );
}

void Peer::touchAll() {
   auto now = Clock::now();
   if ( dirty_.empty() && !allDirty_ ) {
      firstDirty_ = now;
   }
   lastInput_ = now;
   allDirty_ = true;
}

std::vector< int > Peer::fds() const { return tables_.fds(); }

void Peer::dispatch() { tables_.dispatch(); }

int Peer::msUntilDue( Clock::time_point now ) const {
   if ( idle() ) {
      return -1;
   }
   auto quietAt = lastInput_ + std::chrono::milliseconds( options_.settleMs );
   auto latestAt = firstDirty_ + std::chrono::milliseconds( options_.maxDelayMs );
   auto due = std::min( quietAt, latestAt );
   if ( due <= now ) {
      return 0;
   }
   return int( std::chrono::ceil< std::chrono::milliseconds >( due - now ).count() );
}

bool Peer::integrationMode() const { return tables_.integrationMode(); }

bool Peer::listed( uint32_t vni ) const { return tables_.listed( vni ); }

std::set< uint32_t > Peer::advertisedVnis() const {
   std::set< uint32_t > out;
   for ( const auto& [ vni, s ] : vnis_ ) {
      if ( !s.hosts.empty() || !s.flood.empty() ) {
         out.insert( vni );
      }
   }
   return out;
}

void Peer::reconcile() {
   std::set< uint32_t > vnis;
   if ( allDirty_ ) {
      for ( const auto& [ vni, s ] : vnis_ ) {
         vnis.insert( vni );
      }
      for ( auto e = tables_.brIdList->next(); e; e = tables_.brIdList->next( e->second ) ) {
         if ( e->first.brId.isVni() ) {
            vnis.insert( e->first.brId.value() & Bridging::BridgeId::localMask );
         }
      }
   }
   vnis.insert( dirty_.begin(), dirty_.end() );
   dirty_.clear();
   allDirty_ = false;
   for ( uint32_t vni : vnis ) {
      reconcileVni( vni );
   }
   if ( log_ ) {
      log_->flush();
   }
}

void Peer::chooseEchoes( uint32_t vni, VniState& s ) {
   auto rank = [ this, vni ]( uint64_t k ) { return mix( options_.seed ^ 0x6563686fu, vni, k ); };
   if ( s.echoHosts.size() < options_.echoPerVni ) {
      std::vector< std::pair< uint64_t, uint64_t > > candidates;   // (rank, mac)
      for ( uint64_t m : exportMacs_[ vni ] ) {
         if ( !s.echoHosts.count( m ) && !isRemoteMac( macOfKey( m ), vni ) ) {
            candidates.emplace_back( rank( m ), m );
         }
      }
      std::sort( candidates.begin(), candidates.end() );
      for ( const auto& [ r, m ] : candidates ) {
         if ( s.echoHosts.size() >= options_.echoPerVni ) {
            break;
         }
         Host h = tables_.exportHost->lookup( MacVniPair( macOfKey( m ), Vxlan::Vni( vni ) ) );
         if ( !( h == Host() ) ) {   // gone meanwhile: a vacant slot reads as the default host
            s.echoHosts[ m ] = h;
         }
      }
   }
   uint32_t floodEchoes = std::min< uint32_t >( options_.echoPerVni, 1 );
   uint32_t ownVtep = remoteFloodVtep( options_.seed, vni ).value();
   if ( s.echoFlood.size() < floodEchoes ) {
      std::vector< std::pair< uint64_t, uint32_t > > candidates;
      for ( uint32_t v : exportVteps_[ vni ] ) {
         if ( !s.echoFlood.count( v ) && v != ownVtep ) {
            candidates.emplace_back( rank( v ), v );
         }
      }
      std::sort( candidates.begin(), candidates.end() );
      for ( size_t i = 0; i < candidates.size() && s.echoFlood.size() < floodEchoes; ++i ) {
         s.echoFlood.insert( candidates[ i ].second );
      }
   }
}

void Peer::reconcileVni( uint32_t vni ) {
   VniState& s = vnis_[ vni ];
   std::map< uint64_t, Host > wantHosts;
   std::set< uint32_t > wantFlood;
   if ( integrationMode() && listed( vni ) ) {
      chooseEchoes( vni, s );
      wantHosts = s.echoHosts;
      for ( uint32_t i = 0; i < options_.remoteHostsPerVni; ++i ) {
         Host h = remoteHost( options_.seed, vni, i );
         wantHosts[ macKey( h.macAddr() ) ] = h;
      }
      wantFlood = s.echoFlood;
      wantFlood.insert( remoteFloodVtep( options_.seed, vni ).value() );
   } else {
      s.echoHosts.clear();
      s.echoFlood.clear();
   }

   for ( auto it = s.hosts.begin(); it != s.hosts.end(); ) {
      if ( !wantHosts.count( it->first ) ) {
         removeHost( it->second );
         it = s.hosts.erase( it );
      } else {
         ++it;
      }
   }
   for ( const auto& [ m, h ] : wantHosts ) {
      auto it = s.hosts.find( m );
      if ( it == s.hosts.end() || !( it->second == h ) ) {
         writeHost( h );
         s.hosts[ m ] = h;
      }
   }
   for ( auto it = s.flood.begin(); it != s.flood.end(); ) {
      if ( !wantFlood.count( *it ) ) {
         removeFlood( vni, *it );
         it = s.flood.erase( it );
      } else {
         ++it;
      }
   }
   for ( uint32_t v : wantFlood ) {
      if ( s.flood.insert( v ).second ) {
         writeFlood( vni, v );
      }
   }
   if ( s.hosts.empty() && s.flood.empty() && s.echoHosts.empty() && s.echoFlood.empty() ) {
      vnis_.erase( vni );
   }
}

void Peer::writeHost( const Host& h ) {
   tables_.hostOut.write( h );
   ++writes_;
   lastChange_ = Clock::now();
   logLine( hostJson( "host", h ).dump() );
}

void Peer::removeHost( const Host& h ) {
   tables_.hostOut.remove( h.key() );
   ++writes_;
   lastChange_ = Clock::now();
   logLine( hostJson( "hostDel", h ).dump() );
}

void Peer::writeFlood( uint32_t vni, uint32_t vtep ) {
   tables_.floodOut.write( FloodEntry( VniVtepPair( Vxlan::Vni( vni ), Wire::IpAddr( vtep ) ) ) );
   ++writes_;
   lastChange_ = Clock::now();
   logLine( floodJson( "flood", vni, vtep ).dump() );
}

void Peer::removeFlood( uint32_t vni, uint32_t vtep ) {
   tables_.floodOut.remove( VniVtepPair( Vxlan::Vni( vni ), Wire::IpAddr( vtep ) ) );
   ++writes_;
   lastChange_ = Clock::now();
   logLine( floodJson( "floodDel", vni, vtep ).dump() );
}

void Peer::logLine( const std::string& line ) {
   if ( log_ ) {
      *log_ << line << '\n';
   }
}

void Peer::settle( int quietMs ) {
   auto quietSince = Clock::now();
   for ( ;; ) {
      std::vector< pollfd > pfds;
      for ( int fd : fds() ) {
         pfds.push_back( { fd, POLLIN, 0 } );
      }
      int wait = msUntilDue( Clock::now() );
      int timeout = wait < 0 ? 10 : std::min( wait, 10 );
      int n = ::poll( pfds.data(), pfds.size(), timeout );
      bool input = n > 0;
      if ( input ) {
         dispatch();
      }
      if ( msUntilDue( Clock::now() ) == 0 ) {
         reconcile();
         input = true;
      }
      if ( input || !idle() ) {
         quietSince = Clock::now();
      } else if ( Clock::now() - quietSince >= std::chrono::milliseconds( quietMs ) ) {
         return;
      }
   }
}

}  // namespace OrbEvpn::Peer
