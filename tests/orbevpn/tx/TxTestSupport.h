// The export fixture: controller inputs, the three outputs (in process unless attached), the export trace
// at every level, and a leak check.
#pragma once

#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/StaleVniSweep.h"
#include "platform/model/OrbEvpnConfig.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace TxTest {

using namespace VxlanController;
using namespace OrbEvpn;
using Bridging::BridgeId;
using Vxlan::Vni;
using Wire::EthAddr;
using Wire::IpAddr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Lines = std::vector< TraceCapture::Line >;

inline const EthAddr bum{}, mac1( 0, 0x1a, 0x2b, 0x3c, 0x4d, 1 ), mac2( 0, 0x1a, 0x2b, 0x3c, 0x4d, 2 );
inline const IpAddr vtepA = IpAddr::fromOctets( 10, 0, 0, 1 ), vtepB = IpAddr::fromOctets( 10, 0, 0, 2 );
inline MacVtepV2 entry( const EthAddr& m, IpAddr v, uint32_t seq, uint8_t pref = 16 ) {
   return MacVtepV2( m, v, Keel::Seqno32( seq ), pref );
}
inline Host host( const EthAddr& m, uint32_t vni, IpAddr v, uint32_t seq, uint8_t pref = 16 ) {
   Host h( MacVniPair( m, Vni( vni ) ) );
   h.vtepAddrIs( v ), h.seqNoIs( Keel::Seqno32( seq ) ), h.preferenceIs( pref );
   return h;
}
inline VniVtepPair flood( uint32_t vni, IpAddr v ) { return VniVtepPair( Vni( vni ), v ); }
inline BridgeId brId( uint32_t vni ) { return BridgeId( Vni( vni ) ); }
// A line of the export handle.
inline TraceCapture::Line line( int level, std::string text ) {
   return { "VxlanControllerEvpnTxSm", level, std::move( text ) };
}

// One object driven through the generic interface of its registered type.
struct Generic {
   const Mox::Type* type;
   Mox::Ptr< Mox::PtrInterface > object;
   Mox::GenericValue r;
   // Constructs from pointers to the constructor arguments; the ids of `names` must run from 130 in order.
   Generic( const char* typeName, std::vector< const char* > names, std::vector< const void* > args )
         : type( Mox::moxTypeByName( typeName ) ) {
      EXPECT_TRUE( type ) << typeName;
      Mox::AttributeId id = 130;
      for ( const char* n : names ) EXPECT_EQ( type->attributeId( n ), id++ ) << n;
      type->genericIfConstructFromCtorArgs( r, args.data() );
      object = r.get< Mox::Ptr< Mox::PtrInterface > >();
   }
   int operator()( Mox::AttributeId a, int op, const void* x = nullptr, const void* y = nullptr ) {
      r.clear();
      return type->genericIfAttributeOp( r, object.ptr(), a, op, x, y );
   }
};
constexpr int get = Mox::genericOpGet, set = Mox::genericOpSet, invoke = Mox::genericOpInvoke,
              done = Mox::genericDone, refused = Mox::genericNotAllowed, unknown = Mox::genericNoSuchAttribute;

class TxFixture : public ::testing::Test {
 protected:
   void SetUp() override { trace_.levelsIs( Trace::allLevels ); }   // arguments evaluated too
   void TearDown() override { trace_.levelsIs( savedLevels_ ); }
   void start() { tx = orbEvpnTxSmFactory( vniDir, evpnDir, brIds, hosts, floods ); }
   Mox::Ptr< VniFdbStatusV2 > addVni( uint32_t vni, const char* name = nullptr ) {
      auto s = VniFdbStatusV2::VniFdbStatusV2Is( Vni( vni ) );
      vniDir->entityPtrIs( name ? Mox::String( name ) : s->name(), s );
      return s;
   }
   Mox::Ptr< VniFdbStatusSm > child( uint32_t vni ) const { return tx->vniFdbStatusSm( Vni( vni ) ); }
   std::vector< Host > hostList() const {
      std::vector< Host > v;
      for ( auto it = hosts->hostIterConst(); it; ++it ) v.push_back( it.value() );
      std::sort( v.begin(), v.end(), []( const Host& a, const Host& b ) { return a.key() < b.key(); } );
      return v;
   }
   std::set< VniVtepPair > floodSet() const {
      std::set< VniVtepPair > s;
      for ( auto it = floods->floodEntryIterConst(); it; ++it ) s.insert( it.key() );
      return s;
   }
   std::set< uint32_t > brIdSet() const {
      std::set< uint32_t > s;
      for ( auto it = brIds->brIdListIterConst(); it; ++it ) s.insert( it.key().vni().value() );
      return s;
   }
   Lines lines() const {
      Lines v = capture_.lines();
      std::erase_if( v, []( const auto& l ) { return l.handle != "VxlanControllerEvpnTxSm"; } );
      return v;
   }
   size_t count( const std::string& text ) const {
      const auto t = capture_.texts( "VxlanControllerEvpnTxSm" );
      return size_t( std::count( t.begin(), t.end(), text ) );
   }

   Trace::Handle& trace_ = Trace::handle( "VxlanControllerEvpnTxSm" );
   const uint32_t savedLevels_ = trace_.levels();
   TraceCapture capture_;
   LeakCheck leaks;   // before the objects it watches
   Mox::Ptr< Mox::Dir > vniDir = Mox::Dir::DirIs( "vniDir" );
   Mox::Ptr< VniStatusDirV2 > evpnDir = VniStatusDirV2::VniStatusDirV2Is( "vniStatusFromEvpn" );
   Mox::Ptr< OrbBrIdList > brIds = OrbBrIdList::OrbBrIdListIs( "brIdList" );
   Mox::Ptr< HostTable > hosts = hostTableFactory( "host" );
   Mox::Ptr< FloodTable > floods = floodTableFactory( "flood" );
   Mox::Ptr< OrbEvpnTxSm > tx;
};

}  // namespace TxTest
