#include "tools/bgp/ImportSelection.h"

namespace OrbEvpn::Bgp {

bool betterHost( const Host& a, const Host& b ) {
   if ( a.seqNo().value() != b.seqNo().value() ) {
      return a.seqNo().value() > b.seqNo().value();
   }
   return a.vtepAddr() < b.vtepAddr();
}

void ImportSelection::hostIs( const std::string& source, const Host& h, Touched& t ) {
   sourceDel( source, t );
   hostOf_.emplace( source, h );
   candidates_[ h.key() ][ source ] = h;
   t.hosts.insert( h.key() );
}

void ImportSelection::floodIs( const std::string& source, const FloodEntry& f, Touched& t ) {
   sourceDel( source, t );
   floodOf_.emplace( source, f );
   floodSources_[ f.key() ].insert( source );
   t.flood.insert( f.key() );
}

void ImportSelection::sourceDel( const std::string& source, Touched& t ) {
   if ( auto it = hostOf_.find( source ); it != hostOf_.end() ) {
      MacVniPair k = it->second.key();
      hostOf_.erase( it );
      auto c = candidates_.find( k );
      c->second.erase( source );
      if ( c->second.empty() ) {
         candidates_.erase( c );
      }
      t.hosts.insert( k );
   }
   if ( auto it = floodOf_.find( source ); it != floodOf_.end() ) {
      VniVtepPair k = it->second.key();
      floodOf_.erase( it );
      auto s = floodSources_.find( k );
      s->second.erase( source );
      if ( s->second.empty() ) {
         floodSources_.erase( s );
      }
      t.flood.insert( k );
   }
}

void ImportSelection::clear( Touched& t ) {
   for ( const auto& [ k, c ] : candidates_ ) {
      t.hosts.insert( k );
   }
   for ( const auto& [ k, s ] : floodSources_ ) {
      t.flood.insert( k );
   }
   hostOf_.clear();
   floodOf_.clear();
   candidates_.clear();
   floodSources_.clear();
}

std::optional< Host > ImportSelection::winner( const MacVniPair& k ) const {
   auto c = candidates_.find( k );
   if ( c == candidates_.end() ) {
      return std::nullopt;
   }
   const Host* best = nullptr;
   for ( const auto& [ source, h ] : c->second ) {
      if ( !best || betterHost( h, *best ) ) {
         best = &h;
      }
   }
   return *best;
}

bool ImportSelection::floodPresent( const VniVtepPair& k ) const { return floodSources_.count( k ) > 0; }

}  // namespace OrbEvpn::Bgp
