#include "tools/bgp/EvpnRoute.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace OrbEvpn::Bgp {

RtScheme rtSchemeOf( std::string_view text ) {
   if ( text == "auto" ) {
      return RtScheme::autoDerived;
   }
   if ( text == "asn:vni" ) {
      return RtScheme::asnVni;
   }
   throw std::invalid_argument( fmt::format( "unknown route-target scheme \"{}\" (auto or asn:vni)", text ) );
}

const char* rtSchemeName( RtScheme s ) { return s == RtScheme::autoDerived ? "auto" : "asn:vni"; }

std::string text( const RouteTarget& rt ) { return fmt::format( "{}:{}", rt.asn, rt.localAdmin ); }

std::optional< RouteTarget > routeTargetOf( RtScheme s, uint32_t asn, uint32_t vni ) {
   if ( s == RtScheme::autoDerived || asn <= 0xFFFF ) {
      return RouteTarget{ RouteTarget::Type::twoOctetAs, asn & 0xFFFF, vni };
   }
   if ( vni > 0xFFFF ) {
      return std::nullopt;
   }
   return RouteTarget{ RouteTarget::Type::fourOctetAs, asn, vni };
}

std::string text( const RouteDistinguisher& rd ) { return fmt::format( "{}:{}", ipText( rd.routerId ), rd.index ); }

MacRoute macRouteOf( const Host& h, const RouteDistinguisher& rd, const RouteTarget& rt ) {
   MacRoute r;
   r.rd = rd;
   r.mac = h.macAddr();
   r.label = h.vni().value();
   r.nextHop = h.vtepAddr();
   r.routeTargets = { rt };
   r.sequence = h.seqNo().value();
   return r;
}

FloodRoute floodRouteOf( const FloodEntry& f, const RouteDistinguisher& rd, const RouteTarget& rt ) {
   FloodRoute r;
   r.rd = rd;
   r.originator = f.vtepAddr();
   r.label = f.vni().value();
   r.routeTargets = { rt };
   return r;
}

bool routeTargetsName( const std::vector< RouteTarget >& rts, uint32_t vni ) {
   for ( const RouteTarget& rt : rts ) {
      // RFC 8365 auto-derived targets may carry type bits above the VNI.
      if ( ( rt.localAdmin & Vxlan::Vni::max ) == vni ) {
         return true;
      }
   }
   return false;
}

std::optional< Host > hostOf( const MacRoute& r ) {
   if ( r.label > Vxlan::Vni::max || !routeTargetsName( r.routeTargets, r.label ) ) {
      return std::nullopt;
   }
   Host h( MacVniPair( r.mac, Vxlan::Vni( r.label ) ) );
   h.vtepAddrIs( r.nextHop );
   h.seqNoIs( Keel::Seqno32( r.sequence.value_or( 0 ) ) );
   return h;
}

std::optional< FloodEntry > floodEntryOf( const FloodRoute& r ) {
   if ( r.label > Vxlan::Vni::max || !routeTargetsName( r.routeTargets, r.label ) ) {
      return std::nullopt;
   }
   return FloodEntry( VniVtepPair( Vxlan::Vni( r.label ), r.originator ) );
}

std::string macText( const Wire::EthAddr& mac ) {
   const uint8_t* b = mac.bytes();
   return fmt::format( "{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[ 0 ], b[ 1 ], b[ 2 ], b[ 3 ], b[ 4 ], b[ 5 ] );
}

std::string ipText( const Wire::IpAddr& ip ) {
   uint32_t v = ip.value();
   return fmt::format( "{}.{}.{}.{}", v >> 24, ( v >> 16 ) & 0xFF, ( v >> 8 ) & 0xFF, v & 0xFF );
}

namespace {

std::optional< uint32_t > parseNumber( std::string_view s, int base, uint32_t max ) {
   uint32_t v = 0;
   auto [ p, ec ] = std::from_chars( s.data(), s.data() + s.size(), v, base );
   if ( ec != std::errc() || p != s.data() + s.size() || s.empty() || v > max ) {
      return std::nullopt;
   }
   return v;
}

std::vector< std::string_view > split( std::string_view s, char sep ) {
   std::vector< std::string_view > out;
   size_t start = 0;
   for ( size_t i = 0; i <= s.size(); ++i ) {
      if ( i == s.size() || s[ i ] == sep ) {
         out.push_back( s.substr( start, i - start ) );
         start = i + 1;
      }
   }
   return out;
}

}  // namespace

std::optional< Wire::EthAddr > parseMac( std::string_view text ) {
   auto parts = split( text, ':' );
   if ( parts.size() != 6 ) {
      return std::nullopt;
   }
   uint8_t b[ 6 ];
   for ( size_t i = 0; i < 6; ++i ) {
      if ( parts[ i ].size() != 2 ) {
         return std::nullopt;
      }
      auto v = parseNumber( parts[ i ], 16, 0xFF );
      if ( !v ) {
         return std::nullopt;
      }
      b[ i ] = uint8_t( *v );
   }
   return Wire::EthAddr( b );
}

std::optional< Wire::IpAddr > parseIp( std::string_view text ) {
   auto parts = split( text, '.' );
   if ( parts.size() != 4 ) {
      return std::nullopt;
   }
   uint32_t v = 0;
   for ( auto p : parts ) {
      auto o = parseNumber( p, 10, 0xFF );
      if ( !o || p.size() > 3 ) {
         return std::nullopt;
      }
      v = v << 8 | *o;
   }
   return Wire::IpAddr( v );
}

}  // namespace OrbEvpn::Bgp
