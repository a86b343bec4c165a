// ImportSelection: what remote EVPN routes say about each (MAC, VNI) and
// each (VNI, VTEP), reduced to what orbevpn-bgp writes into its own tables.
//
// Several remote routes may name one MAC in one VNI (a host that moved,
// two VTEPs that both claim it, the MAC-only and MAC+IP routes of one
// VTEP). One wins: the highest MAC mobility sequence number, then the
// lowest VTEP address. A flood entry is present while any route names it.
//
// Routes are identified by a source string (the route's NLRI and the peer
// it came from); a source holds at most one candidate, and a new candidate
// from the same source replaces the old one. Every call returns the keys
// whose outcome may have changed, for the caller to write.
//
// Threading: one thread (the speaker's).
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

namespace OrbEvpn::Bgp {

// True when `a` beats `b` for the same (MAC, VNI).
bool betterHost( const Host& a, const Host& b );

class ImportSelection {
 public:
   struct Touched {
      std::set< MacVniPair > hosts;
      std::set< VniVtepPair > flood;
   };

   void hostIs( const std::string& source, const Host& h, Touched& t );
   void floodIs( const std::string& source, const FloodEntry& f, Touched& t );
   // Drops whatever `source` said (host or flood entry); nothing if unknown.
   void sourceDel( const std::string& source, Touched& t );
   // Every key that has an outcome now goes into `t`, then all is forgotten.
   void clear( Touched& t );

   std::optional< Host > winner( const MacVniPair& k ) const;
   bool floodPresent( const VniVtepPair& k ) const;

   size_t sources() const { return hostOf_.size() + floodOf_.size(); }

 private:
   std::unordered_map< std::string, Host > hostOf_;          // by source
   std::unordered_map< std::string, FloodEntry > floodOf_;   // by source
   std::map< MacVniPair, std::map< std::string, Host > > candidates_;
   std::map< VniVtepPair, std::set< std::string > > floodSources_;
};

}  // namespace OrbEvpn::Bgp
