#include "tools/agent/Event.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <charconv>
#include <optional>

namespace Agent {

namespace {

using Json = nlohmann::json;

struct OpInfo {
   Event::Op op;
   const char* name;
   std::string_view table;
};

constexpr OpInfo ops[] = {
   { Event::Op::vni, "vni", "" },
   { Event::Op::vniDel, "vniDel", "" },
   { Event::Op::mac, "mac", "" },
   { Event::Op::macDel, "macDel", "" },
   { Event::Op::flood, "flood", "" },
   { Event::Op::floodDel, "floodDel", "" },
   { Event::Op::multiPath, "multiPath", "" },
   { Event::Op::multiPathDel, "multiPathDel", "" },
   { Event::Op::controllerdb, "controllerdb", "" },
   { Event::Op::synced, "synced", "" },
   { Event::Op::capability, "capability", "evpn/capability" },
   { Event::Op::evpnHost, "evpnHost", "evpn/host" },
   { Event::Op::evpnFlood, "evpnFlood", "evpn/flood" },
};

// A refusal travels as an exception inside the parser only.
struct Bad {
   std::string reason;
};

[[noreturn]] void bad( std::string reason ) { throw Bad{ std::move( reason ) }; }

// Input echoed in a reason: JSON-escaped and ASCII only, so that no byte of
// it can forge a line of the log (a newline, an escape sequence), and cut
// short, so that a huge value does not become a huge log line. A list or an
// object shows only as [...] or {...}: writing one out recurses once per
// level of nesting, and a line can nest deeper than the stack is.
constexpr size_t shownBytes = 64;

std::string shown( const Json& j ) {
   if ( j.is_array() ) {
      return "[...]";
   }
   if ( j.is_object() ) {
      return "{...}";
   }
   std::string s = j.dump( -1, ' ', true, Json::error_handler_t::replace );
   if ( s.size() > shownBytes ) {
      const size_t whole = s.size();
      s.resize( shownBytes );
      s += fmt::format( "... ({} bytes)", whole );
   }
   return s;
}

const Json* field( const Json& o, const char* name, bool required ) {
   auto it = o.find( name );
   if ( it == o.end() ) {
      if ( required ) {
         bad( fmt::format( "missing \"{}\"", name ) );
      }
      return nullptr;
   }
   return &*it;
}

std::optional< uint64_t > number( const Json& o, const char* name, bool required, uint64_t max,
                                  const char* what ) {
   const Json* j = field( o, name, required );
   if ( !j ) {
      return std::nullopt;
   }
   if ( j->is_number_unsigned() ) {
      uint64_t v = j->get< uint64_t >();
      if ( v > max ) {
         bad( fmt::format( "{} {} out of range 0..{}", what, v, max ) );
      }
      return v;
   }
   if ( j->is_number_integer() ) {
      bad( fmt::format( "{} {} out of range 0..{}", what, j->get< int64_t >(), max ) );
   }
   bad( fmt::format( "\"{}\" is not a whole number: {}", name, shown( *j ) ) );
}

bool flag( const Json& o, const char* name, bool required, bool dflt ) {
   const Json* j = field( o, name, required );
   if ( !j ) {
      return dflt;
   }
   if ( !j->is_boolean() ) {
      bad( fmt::format( "\"{}\" is not true or false: {}", name, shown( *j ) ) );
   }
   return j->get< bool >();
}

const std::string& text( const Json& j, const char* name ) {
   if ( !j.is_string() ) {
      bad( fmt::format( "\"{}\" is not a string: {}", name, shown( j ) ) );
   }
   return j.get_ref< const std::string& >();
}

Mac macField( const Json& o, const char* name, bool required, Mac dflt = {} ) {
   const Json* j = field( o, name, required );
   if ( !j ) {
      return dflt;
   }
   Mac m;
   if ( !parseMac( text( *j, name ), m ) ) {
      bad( fmt::format( "bad MAC {}", shown( *j ) ) );
   }
   return m;
}

uint32_t ipOf( const Json& j, const char* name ) {
   uint32_t ip;
   if ( !parseIp( text( j, name ), ip ) ) {
      bad( fmt::format( "bad VTEP {}", shown( j ) ) );
   }
   return ip;
}

uint32_t vniField( const Json& o ) {
   return uint32_t( *number( o, "vni", true, 0xFFFFFF, "VNI" ) );
}

// "not JSON at column 13: syntax error while parsing object - ...": the
// parser's own words without its prefix, where the column is the byte of
// the line at which it gave up (from 1).
std::string notJson( const Json::parse_error& e ) {
   std::string_view what = e.what();
   const auto colon = what.find( ": ", what.find( "column" ) == std::string_view::npos ? 0 : what.find( "column" ) );
   std::string detail( colon == std::string_view::npos ? what : what.substr( colon + 2 ) );
   for ( char& c : detail ) {
      if ( static_cast< unsigned char >( c ) < 0x20 || static_cast< unsigned char >( c ) >= 0x7f ) {
         c = '?';   // the parser quotes what it read as it was
      }
   }
   if ( detail.size() > 160 ) {
      detail.resize( 160 );
      detail += "...";
   }
   return fmt::format( "not JSON at column {}: {}", e.byte, detail );
}

Event parse( std::string_view line ) {
   Json o;
   try {
      o = Json::parse( line.begin(), line.end() );
   } catch ( const Json::parse_error& e ) {
      bad( notJson( e ) );
   }
   if ( !o.is_object() ) {
      bad( "not a JSON object" );
   }
   const std::string& opText = text( *field( o, "op", true ), "op" );
   const OpInfo* info = nullptr;
   for ( const OpInfo& i : ops ) {
      if ( opText == i.name ) {
         info = &i;
      }
   }
   if ( !info ) {
      bad( fmt::format( "unknown op {}", shown( Json( opText ) ) ) );
   }
   Event e;
   e.op = info->op;
   switch ( e.op ) {
    case Event::Op::vni:
    case Event::Op::vniDel:
      e.vni = vniField( o );
      break;
    case Event::Op::mac:
    case Event::Op::evpnHost:
      e.vni = vniField( o );
      e.mac = macField( o, "mac", true );
      e.vtep = ipOf( *field( o, "vtep", true ), "vtep" );
      e.seqNo = uint32_t( *number( o, "seqNo", true, 0xFFFFFFFFu, "seqNo" ) );
      e.preference = uint8_t( number( o, "preference", false, 255, "preference" ).value_or( 16 ) );
      break;
    case Event::Op::macDel:
    case Event::Op::multiPathDel:
      e.vni = vniField( o );
      e.mac = macField( o, "mac", true );
      break;
    case Event::Op::flood:
    case Event::Op::evpnFlood:
      e.vni = vniField( o );
      e.mac = macField( o, "mac", false );
      e.vtep = ipOf( *field( o, "vtep", true ), "vtep" );
      e.value = flag( o, "value", false, true );
      break;
    case Event::Op::floodDel:
      e.vni = vniField( o );
      e.mac = macField( o, "mac", false );
      e.vtep = ipOf( *field( o, "vtep", true ), "vtep" );
      break;
    case Event::Op::multiPath: {
      e.vni = vniField( o );
      e.mac = macField( o, "mac", true );
      const Json* v = field( o, "vteps", true );
      if ( !v->is_array() ) {
         bad( fmt::format( "\"vteps\" is not a list: {}", shown( *v ) ) );
      }
      for ( const Json& j : *v ) {
         e.vteps.push_back( ipOf( j, "vteps" ) );
      }
      break;
    }
    case Event::Op::controllerdb:
      e.value = flag( o, "enabled", true, false );
      break;
    case Event::Op::capability:
      e.value = flag( o, "evpnEnabled", true, false );
      break;
    case Event::Op::synced:
      break;
   }
   return e;
}

}  // namespace

const char* opName( Event::Op op ) {
   for ( const OpInfo& i : ops ) {
      if ( i.op == op ) {
         return i.name;
      }
   }
   return "?";
}

std::string_view tableWritten( Event::Op op ) {
   for ( const OpInfo& i : ops ) {
      if ( i.op == op ) {
         return i.table;
      }
   }
   return "";
}

Parsed parseEvent( std::string_view line ) {
   try {
      return parse( line );
   } catch ( const Bad& b ) {
      return b.reason;
   } catch ( const nlohmann::json::exception& e ) {
      return std::string( "not valid: " ) + e.what();
   }
}

std::string eventJson( const Event& e ) {
   Json o;
   o[ "op" ] = opName( e.op );
   switch ( e.op ) {
    case Event::Op::vni:
    case Event::Op::vniDel:
      o[ "vni" ] = e.vni;
      break;
    case Event::Op::mac:
    case Event::Op::evpnHost:
      o[ "vni" ] = e.vni;
      o[ "mac" ] = macText( e.mac );
      o[ "vtep" ] = ipText( e.vtep );
      o[ "seqNo" ] = e.seqNo;
      o[ "preference" ] = e.preference;
      break;
    case Event::Op::macDel:
    case Event::Op::multiPathDel:
      o[ "vni" ] = e.vni;
      o[ "mac" ] = macText( e.mac );
      break;
    case Event::Op::flood:
    case Event::Op::evpnFlood:
    case Event::Op::floodDel:
      o[ "vni" ] = e.vni;
      if ( e.mac != Mac{} ) {
         o[ "mac" ] = macText( e.mac );
      }
      o[ "vtep" ] = ipText( e.vtep );
      if ( e.op != Event::Op::floodDel ) {
         o[ "value" ] = e.value;
      }
      break;
    case Event::Op::multiPath: {
      o[ "vni" ] = e.vni;
      o[ "mac" ] = macText( e.mac );
      Json v = Json::array();
      for ( uint32_t ip : e.vteps ) {
         v.push_back( ipText( ip ) );
      }
      o[ "vteps" ] = v;
      break;
    }
    case Event::Op::controllerdb:
      o[ "enabled" ] = e.value;
      break;
    case Event::Op::capability:
      o[ "evpnEnabled" ] = e.value;
      break;
    case Event::Op::synced:
      break;
   }
   return o.dump();
}

std::string macText( const Mac& m ) {
   return fmt::format( "{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", m[ 0 ], m[ 1 ], m[ 2 ], m[ 3 ],
                       m[ 4 ], m[ 5 ] );
}

std::string ipText( uint32_t ip ) {
   return fmt::format( "{}.{}.{}.{}", ip >> 24, ( ip >> 16 ) & 0xff, ( ip >> 8 ) & 0xff, ip & 0xff );
}

bool parseMac( std::string_view s, Mac& out ) {
   if ( s.size() != 17 ) {
      return false;
   }
   for ( size_t i = 0; i < 6; ++i ) {
      if ( i > 0 && s[ i * 3 - 1 ] != ':' ) {
         return false;
      }
      const char* b = s.data() + i * 3;
      auto [ p, ec ] = std::from_chars( b, b + 2, out[ i ], 16 );
      if ( ec != std::errc() || p != b + 2 ) {
         return false;
      }
   }
   return true;
}

bool parseIp( std::string_view s, uint32_t& out ) {
   uint32_t v = 0;
   const char* p = s.data();
   const char* end = s.data() + s.size();
   for ( int i = 0; i < 4; ++i ) {
      if ( i > 0 ) {
         if ( p == end || *p != '.' ) {
            return false;
         }
         ++p;
      }
      if ( p == end || *p < '0' || *p > '9' ) {
         return false;
      }
      unsigned octet = 0;
      auto [ q, ec ] = std::from_chars( p, std::min( end, p + 3 ), octet );
      if ( ec != std::errc() || octet > 255 || ( q - p > 1 && *p == '0' ) ) {
         return false;
      }
      p = q;
      v = v << 8 | octet;
   }
   if ( p != end ) {
      return false;
   }
   out = v;
   return true;
}

}  // namespace Agent
