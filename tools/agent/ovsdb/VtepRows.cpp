#include "tools/agent/ovsdb/VtepRows.h"

#include <fmt/format.h>

#include <stdexcept>

namespace Agent::Ovsdb {

namespace {

struct Bad {
   std::string reason;
};

[[noreturn]] void bad( std::string reason ) { throw Bad{ std::move( reason ) }; }

const Json& column( const Json& row, const char* name ) {
   if ( !row.is_object() ) {
      bad( "row is not an object" );
   }
   auto it = row.find( name );
   if ( it == row.end() ) {
      bad( fmt::format( "missing column {}", name ) );
   }
   return *it;
}

const std::string& stringColumn( const Json& row, const char* name ) {
   const Json& v = column( row, name );
   if ( !v.is_string() ) {
      bad( fmt::format( "column {} is not a string: {}", name, v.dump() ) );
   }
   return v.get_ref< const std::string& >();
}

Uuid refColumn( const Json& row, const char* name ) {
   try {
      if ( auto u = uuidOf( column( row, name ) ) ) {
         return *u;
      }
   } catch ( const std::invalid_argument& ) {
   }
   bad( fmt::format( "column {} holds no reference: {}", name, column( row, name ).dump() ) );
}

template< class Row, class Fn >
RowOr< Row > guarded( Fn fn ) {
   try {
      return fn();
   } catch ( const Bad& b ) {
      return b.reason;
   } catch ( const std::exception& e ) {
      return std::string( "unreadable: " ) + e.what();
   }
}

}  // namespace

std::vector< Json > setElements( const Json& value ) {
   if ( value.is_array() && value.size() == 2 && value[ 0 ].is_string() ) {
      const std::string& tag = value[ 0 ].get_ref< const std::string& >();
      if ( tag == "set" ) {
         if ( !value[ 1 ].is_array() ) {
            throw std::invalid_argument( "a set without a list" );
         }
         return std::vector< Json >( value[ 1 ].begin(), value[ 1 ].end() );
      }
      if ( tag == "uuid" || tag == "named-uuid" ) {
         return { value };   // a one-element set of references
      }
      throw std::invalid_argument( fmt::format( "not an OVSDB atom or set: {}", value.dump() ) );
   }
   if ( value.is_array() || value.is_object() || value.is_null() ) {
      throw std::invalid_argument( fmt::format( "not an OVSDB atom or set: {}", value.dump() ) );
   }
   return { value };   // a one-element set of a plain atom
}

std::optional< Uuid > uuidOf( const Json& value ) {
   const std::vector< Json > elements = setElements( value );
   if ( elements.empty() ) {
      return std::nullopt;
   }
   const Json& e = elements.front();
   if ( elements.size() != 1 || !e.is_array() || e.size() != 2 || e[ 0 ] != "uuid" || !e[ 1 ].is_string() ) {
      throw std::invalid_argument( fmt::format( "not a reference: {}", value.dump() ) );
   }
   return e[ 1 ].get< std::string >();
}

RowOr< SwitchRow > parseSwitch( const Json& row ) {
   return guarded< SwitchRow >( [ & ] {
      SwitchRow s;
      s.name = stringColumn( row, "name" );
      const Json& key = column( row, "tunnel_key" );
      std::vector< Json > keys;
      try {
         keys = setElements( key );
      } catch ( const std::invalid_argument& ) {
         bad( fmt::format( "tunnel_key is not an integer: {}", key.dump() ) );
      }
      if ( keys.empty() ) {
         bad( "no tunnel_key" );
      }
      if ( keys.size() != 1 || !keys[ 0 ].is_number_integer() ) {
         bad( fmt::format( "tunnel_key is not an integer: {}", key.dump() ) );
      }
      const int64_t v = keys[ 0 ].get< int64_t >();
      if ( v < 0 || v > 0xFFFFFF ) {
         bad( fmt::format( "tunnel_key {} out of range 0..16777215", v ) );
      }
      s.vni = uint32_t( v );
      return s;
   } );
}

RowOr< LocatorRow > parseLocator( const Json& row ) {
   return guarded< LocatorRow >( [ & ] {
      const std::string& encap = stringColumn( row, "encapsulation_type" );
      if ( encap != vxlanOverIpv4 ) {
         bad( fmt::format( "encapsulation \"{}\" is not {}", encap, vxlanOverIpv4 ) );
      }
      LocatorRow l;
      const std::string& ip = stringColumn( row, "dst_ip" );
      if ( !parseIp( ip, l.ip ) ) {
         bad( fmt::format( "bad IP \"{}\"", ip ) );
      }
      return l;
   } );
}

RowOr< LocatorSetRow > parseLocatorSet( const Json& row ) {
   return guarded< LocatorSetRow >( [ & ] {
      LocatorSetRow s;
      const Json& v = column( row, "locators" );
      try {
         for ( const Json& e : setElements( v ) ) {
            s.locators.push_back( *uuidOf( e ) );
         }
      } catch ( const std::invalid_argument& ) {
         bad( fmt::format( "locators are not references: {}", v.dump() ) );
      }
      return s;
   } );
}

RowOr< UcastRow > parseUcast( const Json& row ) {
   return guarded< UcastRow >( [ & ] {
      UcastRow u;
      const std::string& mac = stringColumn( row, "MAC" );
      if ( !parseMac( mac, u.mac ) ) {
         bad( fmt::format( "bad MAC \"{}\"", mac ) );
      }
      u.logicalSwitch = refColumn( row, "logical_switch" );
      u.locator = refColumn( row, "locator" );
      return u;
   } );
}

RowOr< McastRow > parseMcast( const Json& row ) {
   return guarded< McastRow >( [ & ] {
      McastRow m;
      const std::string& mac = stringColumn( row, "MAC" );
      Mac ignored;
      m.unknownDst = mac == unknownDst;
      if ( !m.unknownDst && !parseMac( mac, ignored ) ) {
         bad( fmt::format( "bad MAC \"{}\"", mac ) );
      }
      m.logicalSwitch = refColumn( row, "logical_switch" );
      m.locatorSet = refColumn( row, "locator_set" );
      return m;
   } );
}

}  // namespace Agent::Ovsdb
