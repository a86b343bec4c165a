// One "side" per table class, so a typed test runs one body over both tables. key( n ) differs per n;
// entry( n, v ) has key( n ), and for a host a different v is a different value.
#pragma once

#include "orbevpn/exchange/FloodTable.h"
#include "orbevpn/exchange/HostTable.h"
#include "platform/mox/Counters.h"
#include "tests/support/LumenRoot.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

namespace ExchangeTest {

constexpr Mox::AttributeId collectionId = 258;
constexpr Mox::AttributeId controlId = 259;

// The table's operations under side-neutral names.
#define EXCHANGE_SIDE_OPS( e, plural, factory, readerIs )                                         \
   static Mox::Ptr< Table > make( const Mox::String& name ) { return OrbEvpn::factory( name ); }   \
   static Mox::Ptr< Table > reader( const Mox::String& name, const std::string& path ) {           \
      return Table::readerIs( name, path );                                                        \
   }                                                                                               \
   static Entry get( const Table& t, const Key& k ) { return t.e( k ); }                           \
   static bool exists( const Table& t, const Key& k ) { return t.e##Exists( k ); }                 \
   static uint32_t count( const Table& t ) { return t.plural(); }                                  \
   static void write( Table& t, const Entry& x ) { t.e##Is( x ); }                                 \
   static Entry del( Table& t, const Key& k ) { return t.e##Del( k ); }                            \
   static void delAll( Table& t ) { t.e##DelAll(); }                                               \
   static Entry* inPlace( Table& t, const Key& k ) { return t.e##InPlace( k ); }                   \
   static void commit( Table& t, const Entry* x ) { t.e##Commit( x ); }                            \
   static Mox::Ptr< MoxLumen::CollectionControl > control( const Table& t ) {                      \
      return t.e##Control();                                                                       \
   }                                                                                               \
   static void controlIs( Table& t, const Mox::Ptr< MoxLumen::CollectionControl >& c ) {           \
      t.e##ControlIs( c );                                                                         \
   }                                                                                               \
   static constexpr const char* collection = #e;

struct HostSide {
   using Table = OrbEvpn::HostTable;
   using Entry = OrbEvpn::Host;
   using Key = OrbEvpn::MacVniPair;
   static constexpr const char* tableName = "hosts";
   static constexpr const char* typeName = "OrbEvpn::HostTable";
   EXCHANGE_SIDE_OPS( host, hosts, hostTableFactory, HostTableReaderIs )
   static Key key( uint32_t n ) {
      return Key( Wire::EthAddr( 0x02, 0x00, uint8_t( n >> 24 ), uint8_t( n >> 16 ),
                                 uint8_t( n >> 8 ), uint8_t( n ) ),
                  Vxlan::Vni( 1000 + n % 7 ) );
   }
   static Entry entry( uint32_t n, uint32_t v = 0 ) {
      Entry h( key( n ) );
      h.vtepAddrIs( Wire::IpAddr( 0x0a000000u + n ) );
      h.seqNoIs( Keel::Seqno32( v ) );
      h.preferenceIs( uint8_t( 100 + v % 100 ) );
      return h;
   }
};

struct FloodSide {
   using Table = OrbEvpn::FloodTable;
   using Entry = OrbEvpn::FloodEntry;
   using Key = OrbEvpn::VniVtepPair;
   static constexpr const char* tableName = "floods";
   static constexpr const char* typeName = "OrbEvpn::FloodTable";
   EXCHANGE_SIDE_OPS( floodEntry, floodEntries, floodTableFactory, FloodTableReaderIs )
   static Key key( uint32_t n ) {
      return Key( Vxlan::Vni( 2000 + n % 5 ), Wire::IpAddr( 0x0b000000u + n ) );
   }
   static Entry entry( uint32_t n, uint32_t = 0 ) { return Entry( key( n ) ); }
};

using Sides = ::testing::Types< HostSide, FloodSide >;

// The side's counters <collection>Is, Del and Notify, less `since`.
using Counts = std::array< uint64_t, 3 >;
template< class Side >
Counts counts( const Counts& since = {} ) {
   Counts c;
   for ( size_t i = 0; i < 3; ++i ) {
      const char* what = std::array{ "Is", "Del", "Notify" }[ i ];
      c[ i ] = Mox::counter( std::string( Side::collection ) + what ).value() - since[ i ];
   }
   return c;
}

}  // namespace ExchangeTest
