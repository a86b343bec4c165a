// The routes of EvpnRoute.h in GoBGP's API form (apipb::Path), both ways.
//
// Export: a path carries the NLRI, ORIGIN (IGP, which gobgpd requires),
// NEXT_HOP (the VTEP; gobgpd turns it into MP_REACH for EVPN and keeps a
// locally added route's next hop towards every peer, iBGP and eBGP) and
// the extended communities (route target, VXLAN encapsulation, and for a
// type-2 route MAC mobility); a type-3 route also a PMSI tunnel attribute.
// The ESI is sent as nine zero bytes: gobgpd's API does not accept an
// absent one.
//
// Import: learntOf() reads a path of the daemon's route events or table
// listings. gobgpd reports a path it holds for a local origin with the
// neighbour text "<nil>" (or empty); such a path is ours, never imported.
//
// Pure functions: safe from any thread.
#pragma once

#include "tools/bgp/EvpnRoute.h"

#include "gobgp.pb.h"

#include <optional>
#include <string>

namespace OrbEvpn::Bgp {

apipb::Family evpnFamily();

apipb::Path pathOf( const MacRoute& r );
apipb::Path pathOf( const FloodRoute& r );
// The withdrawal of a path: the same NLRI, flagged is_withdraw. It carries
// no MAC Mobility community: gobgpd checks a withdrawal's sequence number
// as it does an advertisement's and refuses one at or below that of
// another route for the MAC, which is just when a host that moved away
// has its route withdrawn here.
apipb::Path withdrawalOf( const apipb::Path& p );

// A path as this system sees it.
struct LearntPath {
   // The route's identity (route type, RD, and the keys of its NLRI), the
   // same for every peer that sends it: the unit of gobgpd's best-path
   // events.
   std::string nlriKey;
   bool local = false;      // originated by this gobgpd (through its API)
   bool withdraw = false;
   std::optional< MacRoute > mac;       // a type-2 route
   std::optional< FloodRoute > flood;   // a type-3 route with a PMSI tunnel
};

// Nothing for a path that is not an EVPN type-2 or type-3 route or does
// not parse (the caller counts it as ignored).
std::optional< LearntPath > learntOf( const apipb::Path& p );

}  // namespace OrbEvpn::Bgp
