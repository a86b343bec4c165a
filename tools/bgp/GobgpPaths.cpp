#include "tools/bgp/GobgpPaths.h"

#include "attribute.pb.h"

#include <fmt/format.h>

namespace OrbEvpn::Bgp {

namespace {

constexpr uint32_t subTypeRouteTarget = 0x02;
constexpr uint32_t tunnelTypeVxlan = 8;              // RFC 9012 / RFC 8365
constexpr uint32_t pmsiIngressReplication = 6;       // RFC 6514

google::protobuf::Any packed( const google::protobuf::Message& m ) {
   google::protobuf::Any a;
   a.PackFrom( m );
   return a;
}

google::protobuf::Any rdOf( const RouteDistinguisher& rd ) {
   apipb::RouteDistinguisherIPAddress r;
   r.set_admin( ipText( rd.routerId ) );
   r.set_assigned( rd.index );
   return packed( r );
}

google::protobuf::Any routeTargetOf( const RouteTarget& rt ) {
   if ( rt.type == RouteTarget::Type::fourOctetAs ) {
      apipb::FourOctetAsSpecificExtended e;
      e.set_is_transitive( true );
      e.set_sub_type( subTypeRouteTarget );
      e.set_asn( rt.asn );
      e.set_local_admin( rt.localAdmin );
      return packed( e );
   }
   apipb::TwoOctetAsSpecificExtended e;
   e.set_is_transitive( true );
   e.set_sub_type( subTypeRouteTarget );
   e.set_asn( rt.asn );
   e.set_local_admin( rt.localAdmin );
   return packed( e );
}

void addCommonAttributes( apipb::Path& p, const Wire::IpAddr& nextHop ) {
   apipb::OriginAttribute origin;
   origin.set_origin( 0 );
   *p.add_pattrs() = packed( origin );
   apipb::NextHopAttribute nh;
   nh.set_next_hop( ipText( nextHop ) );
   *p.add_pattrs() = packed( nh );
}

std::string bytesOf( const Wire::IpAddr& ip ) {
   uint32_t v = ip.value();
   return std::string{ char( v >> 24 ), char( v >> 16 ), char( v >> 8 ), char( v ) };
}

std::string rdText( const google::protobuf::Any& a ) {
   apipb::RouteDistinguisherIPAddress ip;
   apipb::RouteDistinguisherTwoOctetASN two;
   apipb::RouteDistinguisherFourOctetASN four;
   if ( a.UnpackTo( &ip ) ) {
      return fmt::format( "{}:{}", ip.admin(), ip.assigned() );
   }
   if ( a.UnpackTo( &two ) ) {
      return fmt::format( "{}:{}", two.admin(), two.assigned() );
   }
   if ( a.UnpackTo( &four ) ) {
      return fmt::format( "{}L:{}", four.admin(), four.assigned() );
   }
   return "?";
}

RouteDistinguisher rdOfAny( const google::protobuf::Any& a ) {
   apipb::RouteDistinguisherIPAddress ip;
   RouteDistinguisher rd;
   if ( a.UnpackTo( &ip ) ) {
      if ( auto addr = parseIp( ip.admin() ) ) {
         rd.routerId = *addr;
      }
      rd.index = uint16_t( ip.assigned() );
   }
   return rd;
}

struct Attributes {
   std::optional< Wire::IpAddr > nextHop;
   std::vector< RouteTarget > routeTargets;
   std::optional< uint32_t > sequence;
   std::optional< apipb::PmsiTunnelAttribute > pmsi;
};

Attributes attributesOf( const apipb::Path& p ) {
   Attributes out;
   for ( const auto& a : p.pattrs() ) {
      apipb::NextHopAttribute nh;
      apipb::MpReachNLRIAttribute reach;
      apipb::ExtendedCommunitiesAttribute ext;
      apipb::PmsiTunnelAttribute pmsi;
      if ( a.UnpackTo( &nh ) ) {
         out.nextHop = parseIp( nh.next_hop() );
      } else if ( a.UnpackTo( &reach ) ) {
         if ( reach.next_hops_size() > 0 ) {
            out.nextHop = parseIp( reach.next_hops( 0 ) );
         }
      } else if ( a.UnpackTo( &ext ) ) {
         for ( const auto& c : ext.communities() ) {
            apipb::TwoOctetAsSpecificExtended two;
            apipb::FourOctetAsSpecificExtended four;
            apipb::MacMobilityExtended mm;
            if ( c.UnpackTo( &two ) && two.sub_type() == subTypeRouteTarget ) {
               out.routeTargets.push_back( { RouteTarget::Type::twoOctetAs, two.asn(), two.local_admin() } );
            } else if ( c.UnpackTo( &four ) && four.sub_type() == subTypeRouteTarget ) {
               out.routeTargets.push_back( { RouteTarget::Type::fourOctetAs, four.asn(), four.local_admin() } );
            } else if ( c.UnpackTo( &mm ) ) {
               out.sequence = mm.sequence_num();
            }
         }
      } else if ( a.UnpackTo( &pmsi ) ) {
         out.pmsi = pmsi;
      }
   }
   return out;
}

std::optional< Wire::IpAddr > ipOfBytes( const std::string& b ) {
   if ( b.size() != 4 ) {
      return std::nullopt;
   }
   return Wire::IpAddr::fromOctets( uint8_t( b[ 0 ] ), uint8_t( b[ 1 ] ), uint8_t( b[ 2 ] ), uint8_t( b[ 3 ] ) );
}

}  // namespace

apipb::Family evpnFamily() {
   apipb::Family f;
   f.set_afi( apipb::Family::AFI_L2VPN );
   f.set_safi( apipb::Family::SAFI_EVPN );
   return f;
}

apipb::Path pathOf( const MacRoute& r ) {
   apipb::Path p;
   *p.mutable_family() = evpnFamily();
   apipb::EVPNMACIPAdvertisementRoute n;
   *n.mutable_rd() = rdOf( r.rd );
   n.mutable_esi()->set_type( 0 );
   n.mutable_esi()->set_value( std::string( 9, '\0' ) );
   n.set_ethernet_tag( 0 );
   n.set_mac_address( macText( r.mac ) );
   n.add_labels( r.label );
   *p.mutable_nlri() = packed( n );
   addCommonAttributes( p, r.nextHop );
   apipb::ExtendedCommunitiesAttribute ext;
   for ( const RouteTarget& rt : r.routeTargets ) {
      *ext.add_communities() = routeTargetOf( rt );
   }
   apipb::EncapExtended encap;
   encap.set_tunnel_type( tunnelTypeVxlan );
   *ext.add_communities() = packed( encap );
   if ( r.sequence ) {
      apipb::MacMobilityExtended mm;
      mm.set_sequence_num( *r.sequence );
      *ext.add_communities() = packed( mm );
   }
   *p.add_pattrs() = packed( ext );
   return p;
}

apipb::Path pathOf( const FloodRoute& r ) {
   apipb::Path p;
   *p.mutable_family() = evpnFamily();
   apipb::EVPNInclusiveMulticastEthernetTagRoute n;
   *n.mutable_rd() = rdOf( r.rd );
   n.set_ethernet_tag( 0 );
   n.set_ip_address( ipText( r.originator ) );
   *p.mutable_nlri() = packed( n );
   addCommonAttributes( p, r.originator );
   apipb::ExtendedCommunitiesAttribute ext;
   for ( const RouteTarget& rt : r.routeTargets ) {
      *ext.add_communities() = routeTargetOf( rt );
   }
   apipb::EncapExtended encap;
   encap.set_tunnel_type( tunnelTypeVxlan );
   *ext.add_communities() = packed( encap );
   *p.add_pattrs() = packed( ext );
   apipb::PmsiTunnelAttribute pmsi;
   pmsi.set_flags( 0 );
   pmsi.set_type( pmsiIngressReplication );
   pmsi.set_label( r.label );
   pmsi.set_id( bytesOf( r.originator ) );
   *p.add_pattrs() = packed( pmsi );
   return p;
}

apipb::Path withdrawalOf( const apipb::Path& p ) {
   apipb::Path w = p;
   w.set_is_withdraw( true );
   for ( auto& a : *w.mutable_pattrs() ) {
      apipb::ExtendedCommunitiesAttribute ext;
      if ( !a.UnpackTo( &ext ) ) {
         continue;
      }
      apipb::ExtendedCommunitiesAttribute kept;
      for ( const auto& c : ext.communities() ) {
         if ( !c.Is< apipb::MacMobilityExtended >() ) {
            *kept.add_communities() = c;
         }
      }
      a.PackFrom( kept );
   }
   return w;
}

std::optional< LearntPath > learntOf( const apipb::Path& p ) {
   if ( p.family().afi() != apipb::Family::AFI_L2VPN || p.family().safi() != apipb::Family::SAFI_EVPN ) {
      return std::nullopt;
   }
   LearntPath out;
   out.withdraw = p.is_withdraw();
   out.local = p.neighbor_ip().empty() || p.neighbor_ip() == "<nil>";
   apipb::EVPNMACIPAdvertisementRoute macRoute;
   apipb::EVPNInclusiveMulticastEthernetTagRoute imet;
   Attributes attrs = attributesOf( p );
   if ( p.nlri().UnpackTo( &macRoute ) ) {
      out.nlriKey = fmt::format( "2 {} {} {} {}", rdText( macRoute.rd() ), macRoute.ethernet_tag(),
                                 macRoute.mac_address(), macRoute.ip_address() );
      auto mac = parseMac( macRoute.mac_address() );
      if ( !mac ) {
         return std::nullopt;
      }
      MacRoute r;
      r.rd = rdOfAny( macRoute.rd() );
      r.mac = *mac;
      r.label = macRoute.labels_size() > 0 ? macRoute.labels( 0 ) : 0;
      r.nextHop = attrs.nextHop.value_or( Wire::IpAddr() );
      r.routeTargets = attrs.routeTargets;
      r.sequence = attrs.sequence;
      if ( !out.withdraw && ( !attrs.nextHop || macRoute.labels_size() == 0 ) ) {
         return std::nullopt;
      }
      out.mac = r;
      return out;
   }
   if ( p.nlri().UnpackTo( &imet ) ) {
      out.nlriKey = fmt::format( "3 {} {} {}", rdText( imet.rd() ), imet.ethernet_tag(), imet.ip_address() );
      auto originator = parseIp( imet.ip_address() );
      if ( !originator ) {
         return std::nullopt;
      }
      FloodRoute r;
      r.rd = rdOfAny( imet.rd() );
      r.originator = *originator;
      r.routeTargets = attrs.routeTargets;
      if ( attrs.pmsi ) {
         r.label = attrs.pmsi->label();
         // An ingress-replication tunnel names the VTEP to replicate to.
         if ( auto id = ipOfBytes( attrs.pmsi->id() ) ) {
            r.originator = *id;
         }
      } else if ( !out.withdraw ) {
         return std::nullopt;
      }
      out.flood = r;
      return out;
   }
   return std::nullopt;
}

}  // namespace OrbEvpn::Bgp
