// Text forms, parsers, hashes and registration of the exchange keys and
// entries. The four form one family: each entry nests its key's form.
#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/HashMix.h"
#include "orbevpn/exchange/Host.h"

#include <cstddef>
#include <type_traits>

namespace OrbEvpn {

using It = Mox::String::IteratorConst;

// ---- MacVniPair

void MacVniPair::checkLayout() {
   static_assert( sizeof( MacVniPair ) == 12 );
   static_assert( offsetof( MacVniPair, macAddr_ ) == 0 );
   static_assert( offsetof( MacVniPair, vni_ ) == 8 );
   static_assert( std::is_trivially_copyable_v< MacVniPair > );
}

uint32_t MacVniPair::hash() const { return hashMix( macAddr_.hash() ^ vni_.value() ); }

MacVniPair::MacVniPair( It& it, const It& end ) {
   Mox::requireText( it, end, "Value('OrbEvpn::MacVniPair', ** {" );
   Mox::requireText( it, end, "'macAddr': " );
   macAddr_ = Mox::readAttribute( "macAddr", [ & ] { return Wire::EthAddr( it, end ); } );
   Mox::requireText( it, end, ", 'vni': " );
   vni_ = Mox::readAttribute( "vni", [ & ] { return Vxlan::Vni( it, end ); } );
   Mox::requireText( it, end, "})" );
}

Mox::String valueToStrep( const MacVniPair& v ) {
   return Mox::String( fmt::format( "Value('OrbEvpn::MacVniPair', ** {{'macAddr': {}, 'vni': {}}})",
                                    Wire::valueToStrep( v.macAddr() ),
                                    Vxlan::valueToStrep( v.vni() ) ) );
}

std::ostream& operator<<( std::ostream& os, const MacVniPair& v ) {
   return os << valueToStrep( v );
}

void MacVniPair::moxDescribe( Mox::TypeBuilder< MacVniPair >& b ) {
   b.scalar( "macAddr", &MacVniPair::macAddr )
      .scalar( "vni", &MacVniPair::vni )
      .handler< uint32_t() const >( "hash", &MacVniPair::hash )
      .hashable()
      .valueConstructor< Wire::EthAddr, Vxlan::Vni >();
}

// ---- VniVtepPair

void VniVtepPair::checkLayout() {
   static_assert( sizeof( VniVtepPair ) == 8 );
   static_assert( offsetof( VniVtepPair, vni_ ) == 0 );
   static_assert( offsetof( VniVtepPair, vtepAddr_ ) == 4 );
   static_assert( std::is_trivially_copyable_v< VniVtepPair > );
}

uint32_t VniVtepPair::hash() const { return hashMix( vtepAddr_.hash() ^ vni_.value() ); }

VniVtepPair::VniVtepPair( It& it, const It& end ) {
   Mox::requireText( it, end, "Value('OrbEvpn::VniVtepPair', ** {" );
   Mox::requireText( it, end, "'vni': " );
   vni_ = Mox::readAttribute( "vni", [ & ] { return Vxlan::Vni( it, end ); } );
   Mox::requireText( it, end, ", 'vtepAddr': " );
   vtepAddr_ = Mox::readAttribute( "vtepAddr", [ & ] { return Wire::IpAddr( it, end ); } );
   Mox::requireText( it, end, "})" );
}

Mox::String valueToStrep( const VniVtepPair& v ) {
   return Mox::String( fmt::format( "Value('OrbEvpn::VniVtepPair', ** {{'vni': {}, 'vtepAddr': {}}})",
                                    Vxlan::valueToStrep( v.vni() ),
                                    Wire::valueToStrep( v.vtepAddr() ) ) );
}

std::ostream& operator<<( std::ostream& os, const VniVtepPair& v ) {
   return os << valueToStrep( v );
}

void VniVtepPair::moxDescribe( Mox::TypeBuilder< VniVtepPair >& b ) {
   b.scalar( "vni", &VniVtepPair::vni )
      .scalar( "vtepAddr", &VniVtepPair::vtepAddr )
      .handler< uint32_t() const >( "hash", &VniVtepPair::hash )
      .hashable()
      .valueConstructor< Vxlan::Vni, Wire::IpAddr >();
}

// ---- Host

void Host::checkLayout() {
   static_assert( sizeof( Host ) == 24 );
   static_assert( offsetof( Host, key_ ) == 0 );
   static_assert( offsetof( Host, vtepAddr_ ) == 12 );
   static_assert( offsetof( Host, seqNo_ ) == 16 );
   static_assert( offsetof( Host, preference_ ) == 20 );
   static_assert( std::is_trivially_copyable_v< Host > );
}

Host::Host( It& it, const It& end ) {
   Mox::requireText( it, end, "Value('OrbEvpn::Host', ** {" );
   Mox::requireText( it, end, "'key': " );
   key_ = Mox::readAttribute( "key", [ & ] { return MacVniPair( it, end ); } );
   Mox::requireText( it, end, ", 'vtepAddr': " );
   vtepAddr_ = Mox::readAttribute( "vtepAddr", [ & ] { return Wire::IpAddr( it, end ); } );
   Mox::requireText( it, end, ", 'seqNo': " );
   seqNo_ = Mox::readAttribute( "seqNo", [ & ] { return Keel::Seqno32( it, end ); } );
   Mox::requireText( it, end, ", 'preference': " );
   preference_ = Mox::readAttribute(
      "preference", [ & ] { return static_cast< uint8_t >( Mox::readUnsigned( it, end, 255 ) ); } );
   Mox::requireText( it, end, "})" );
}

Mox::String valueToStrep( const Host& v ) {
   return Mox::String( fmt::format(
      "Value('OrbEvpn::Host', ** {{'key': {}, 'vtepAddr': {}, 'seqNo': {}, 'preference': {}}})",
      valueToStrep( v.key() ), Wire::valueToStrep( v.vtepAddr() ),
      Keel::valueToStrep( v.seqNo() ), unsigned( v.preference() ) ) );
}

std::ostream& operator<<( std::ostream& os, const Host& v ) { return os << valueToStrep( v ); }

void Host::moxDescribe( Mox::TypeBuilder< Host >& b ) {
   b.scalar( "key", &Host::key )
      .scalar( "macAddr", &Host::macAddr )
      .scalar( "vni", &Host::vni )
      .scalar( "vtepAddr", &Host::vtepAddr, &Host::vtepAddrIs )
      .scalar( "seqNo", &Host::seqNo, &Host::seqNoIs )
      .scalar( "preference", &Host::preference, &Host::preferenceIs )
      .valueConstructor< MacVniPair >();
}

// ---- FloodEntry

void FloodEntry::checkLayout() {
   static_assert( sizeof( FloodEntry ) == 8 );
   static_assert( offsetof( FloodEntry, key_ ) == 0 );
   static_assert( std::is_trivially_copyable_v< FloodEntry > );
}

FloodEntry::FloodEntry( It& it, const It& end )
      : key_( Mox::readAttribute( "key", [ & ] { return VniVtepPair( it, end ); } ) ) {}

Mox::String valueToStrep( const FloodEntry& v ) { return valueToStrep( v.key() ); }

std::ostream& operator<<( std::ostream& os, const FloodEntry& v ) {
   return os << valueToStrep( v );
}

void FloodEntry::moxDescribe( Mox::TypeBuilder< FloodEntry >& b ) {
   b.scalar( "key", &FloodEntry::key )
      .scalar( "vni", &FloodEntry::vni )
      .scalar( "vtepAddr", &FloodEntry::vtepAddr )
      .valueConstructor< VniVtepPair >();
}

}  // namespace OrbEvpn
