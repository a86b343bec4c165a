// The EVPN routes orbevpn-bgp advertises and learns, as plain values, and
// the mapping between them and the records of the boundary tables:
//
//   Host{mac, vni, vtep, seqNo}  <->  type-2 MAC/IP advertisement route
//      RD router-id:index(vni), ESI 0, Ethernet tag 0, MAC, no IP,
//      label vni, next hop vtep, route target rt(vni), VXLAN
//      encapsulation, MAC mobility sequence number seqNo
//   FloodEntry{vni, vtep}        <->  type-3 inclusive multicast route
//      RD router-id:index(vni), Ethernet tag 0, originator vtep = next hop,
//      PMSI tunnel ingress replication with label vni and id vtep,
//      route target rt(vni), VXLAN encapsulation
//
// A learnt route's VNI is its label; the route is taken only when one of
// its route targets names the same VNI (a route whose label and route
// target disagree is a misconfigured or foreign route, not ours to use).
//
// The 8-bit preference of a Host has no field in an EVPN route: it is not
// advertised, and learnt hosts carry the default preference (16).
//
// Pure values and functions, no state: safe from any thread.
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace OrbEvpn::Bgp {

// How a VNI's route target is derived from the local AS number.
//  autoDerived: two-octet-AS type, AS = the low 16 bits of the ASN, local
//               administrator = VNI (what FRR derives for "auto" route
//               targets, so the two interwork without configuration).
//  asnVni:      the full ASN: two-octet-AS type for an ASN up to 65535,
//               else four-octet-AS type, whose 16-bit local administrator
//               then limits the VNI to 65535.
enum class RtScheme { autoDerived, asnVni };

// "auto" or "asn:vni"; throws std::invalid_argument otherwise.
RtScheme rtSchemeOf( std::string_view text );
const char* rtSchemeName( RtScheme s );

// A route-target extended community.
struct RouteTarget {
   enum class Type : uint8_t { twoOctetAs = 0, fourOctetAs = 2 };
   Type type = Type::twoOctetAs;
   uint32_t asn = 0;
   uint32_t localAdmin = 0;
   bool operator==( const RouteTarget& ) const = default;
};
std::string text( const RouteTarget& rt );   // "65000:100"

// The route target of `vni`, or nothing when the scheme cannot express it
// (asnVni with a four-octet ASN and a VNI above 65535).
std::optional< RouteTarget > routeTargetOf( RtScheme s, uint32_t asn, uint32_t vni );

// A type-1 (IPv4 address) route distinguisher: 16-bit assigned number.
struct RouteDistinguisher {
   Wire::IpAddr routerId;
   uint16_t index = 0;
   bool operator==( const RouteDistinguisher& ) const = default;
};
std::string text( const RouteDistinguisher& rd );   // "10.0.0.1:100"

// What a type-2 route carries that this system uses.
struct MacRoute {
   RouteDistinguisher rd;
   Wire::EthAddr mac;
   uint32_t label = 0;          // the VNI
   Wire::IpAddr nextHop;        // the VTEP
   std::vector< RouteTarget > routeTargets;
   std::optional< uint32_t > sequence;   // MAC mobility; absent = 0
   bool operator==( const MacRoute& ) const = default;
};

// What a type-3 route carries that this system uses.
struct FloodRoute {
   RouteDistinguisher rd;
   Wire::IpAddr originator;     // also the next hop and the PMSI tunnel id
   uint32_t label = 0;          // the VNI (PMSI tunnel label)
   std::vector< RouteTarget > routeTargets;
   bool operator==( const FloodRoute& ) const = default;
};

// Export: a record of the export tables as a route.
MacRoute macRouteOf( const Host& h, const RouteDistinguisher& rd, const RouteTarget& rt );
FloodRoute floodRouteOf( const FloodEntry& f, const RouteDistinguisher& rd, const RouteTarget& rt );

// Import: a learnt route as a record, or nothing when its label is not a
// VNI or no route target names that VNI.
std::optional< Host > hostOf( const MacRoute& r );
std::optional< FloodEntry > floodEntryOf( const FloodRoute& r );

// True when some route target's local administrator is `vni`.
bool routeTargetsName( const std::vector< RouteTarget >& rts, uint32_t vni );

// Text forms for logs and tests.
std::string macText( const Wire::EthAddr& mac );   // "02:00:00:00:00:01"
std::string ipText( const Wire::IpAddr& ip );      // "10.0.0.1"
// Parses "aa:bb:cc:dd:ee:ff" and dotted decimal; nothing on bad text.
std::optional< Wire::EthAddr > parseMac( std::string_view text );
std::optional< Wire::IpAddr > parseIp( std::string_view text );

}  // namespace OrbEvpn::Bgp
