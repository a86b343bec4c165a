// hardware_vtep rows in wire form and the controller events the mapping makes of them.
#include "tools/agent/ovsdb/VtepMapping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

using namespace Agent;
using namespace Agent::Ovsdb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

Json ref( const std::string& u ) { return Json::array( { "uuid", u } ); }
Json set( std::vector< Json > v ) { return Json::array( { "set", Json( v ) } ); }

Json switchRow( const std::string& name, Json key ) { return { { "name", name }, { "tunnel_key", key } }; }
Json locatorRow( const std::string& ip, const std::string& encap = "vxlan_over_ipv4" ) {
   return { { "encapsulation_type", encap }, { "dst_ip", ip } };
}
Json ucastRow( const std::string& mac, const std::string& sw, const std::string& loc ) {
   return { { "MAC", mac }, { "logical_switch", ref( sw ) }, { "locator", ref( loc ) } };
}
Json mcastRow( const std::string& mac, const std::string& sw, const std::string& set ) {
   return { { "MAC", mac }, { "logical_switch", ref( sw ) }, { "locator_set", ref( set ) } };
}

class Mapping : public ::testing::Test {
 protected:
   VtepMapping m{ [ this ]( const Event& e ) { events.push_back( eventJson( e ) ); },
                  [ this ]( std::string_view t, const Uuid& u, const std::string& r ) {
                     reports.push_back( std::string( t ) + " " + u + ": " + r );
                  },
                  [ this ]( const Mac& mac ) {
                     auto it = mirror.find( macText( mac ) );
                     return it == mirror.end() ? 0u : it->second;
                  } };
   std::vector< std::string > events, reports;
   std::map< std::string, uint32_t > mirror;

   // Inserts (row given) or deletes (null) in one update.
   void update( const std::string& table, const std::string& uuid, const Json& row, bool snapshot = false,
                bool modify = false ) {
      Json u = Json::object();
      if ( !row.is_null() ) u[ "new" ] = row;
      if ( row.is_null() || modify ) u[ "old" ] = Json::object();
      m.apply( { { table, { { uuid, u } } } }, snapshot );
   }
   std::vector< std::string > take() {
      std::vector< std::string > e;
      e.swap( events );
      return e;
   }
   // ls0 (key 10): two MACs, flood list of two VTEPs.
   Json base() {
      return { { "Logical_Switch", { { "s0", { { "new", switchRow( "ls0", 10 ) } } } } },
               { "Physical_Locator",
                 { { "l1", { { "new", locatorRow( "192.0.2.1" ) } } },
                   { "l2", { { "new", locatorRow( "192.0.2.2" ) } } },
                   { "l9", { { "new", locatorRow( "192.0.2.9" ) } } } } },
               { "Physical_Locator_Set", { { "p1", { { "new", { { "locators", set( { ref( "l9" ), ref( "l2" ) } ) } } } } } } },
               { "Ucast_Macs_Remote",
                 { { "u1", { { "new", ucastRow( "02:00:00:00:00:01", "s0", "l1" ) } } },
                   { "u2", { { "new", ucastRow( "02:00:00:00:00:02", "s0", "l2" ) } } } } },
               { "Mcast_Macs_Remote", { { "m1", { { "new", mcastRow( "unknown-dst", "s0", "p1" ) } } } } } };
   }
};

const Mac mac1{ 2, 0, 0, 0, 0, 1 };

}  // namespace

TEST( VtepRows, EveryFormOfASetIsRead ) {
   EXPECT_EQ( setElements( set( {} ) ), std::vector< Json >{} );
   EXPECT_EQ( setElements( 5 ), std::vector< Json >{ 5 } );
   EXPECT_EQ( setElements( ref( "a" ) ), std::vector< Json >{ ref( "a" ) } );
   EXPECT_EQ( setElements( set( { ref( "a" ), ref( "b" ) } ) ), ( std::vector< Json >{ ref( "a" ), ref( "b" ) } ) );
   EXPECT_THROW( setElements( Json::array( { "map", Json::array() } ) ), std::invalid_argument );
   EXPECT_EQ( uuidOf( set( {} ) ), std::nullopt );
   EXPECT_EQ( uuidOf( set( { ref( "x" ) } ) ), "x" );

   // A one-element locator set comes as a bare reference.
   auto one = parseLocatorSet( { { "locators", ref( "l1" ) } } );
   ASSERT_TRUE( std::holds_alternative< LocatorSetRow >( one ) );
   EXPECT_THAT( std::get< LocatorSetRow >( one ).locators, ElementsAre( "l1" ) );

   auto key = parseSwitch( switchRow( "a", set( { 7 } ) ) );
   ASSERT_TRUE( std::holds_alternative< SwitchRow >( key ) );
   EXPECT_EQ( std::get< SwitchRow >( key ).vni, 7u );
}

TEST( VtepRows, UnusableRowsGiveTheirReason ) {
   auto reason = []( const auto& parsed ) {
      const auto* r = std::get_if< std::string >( &parsed );
      return r ? *r : std::string( "(usable)" );
   };
   EXPECT_EQ( reason( parseSwitch( switchRow( "a", -1 ) ) ), "tunnel_key -1 out of range 0..16777215" );
   EXPECT_EQ( reason( parseSwitch( switchRow( "a", 16777215 ) ) ), "(usable)" );
   EXPECT_EQ( reason( parseLocator( locatorRow( "192.0.2.256" ) ) ), "bad IP \"192.0.2.256\"" );
   EXPECT_EQ( reason( parseUcast( ucastRow( "zz", "s", "l" ) ) ), "bad MAC \"zz\"" );
   EXPECT_EQ( reason( parseUcast( { { "MAC", "02:00:00:00:00:01" }, { "logical_switch", ref( "s" ) } } ) ),
              "missing column locator" );
   EXPECT_EQ( reason( parseMcast( mcastRow( "unknown-dst", "s", "p" ) ) ), "(usable)" );
   EXPECT_EQ( reason( parseMcast( mcastRow( "unknown", "s", "p" ) ) ), "bad MAC \"unknown\"" );
}

TEST_F( Mapping, ASnapshotBecomesEventsAndAMoveRaisesTheSequenceNumber ) {
   m.apply( base(), true );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"vni","vni":10})",
                                     R"({"mac":"02:00:00:00:00:01","op":"mac","preference":16,"seqNo":1,"vni":10,"vtep":"192.0.2.1"})",
                                     R"({"mac":"02:00:00:00:00:02","op":"mac","preference":16,"seqNo":1,"vni":10,"vtep":"192.0.2.2"})",
                                     R"({"op":"flood","value":true,"vni":10,"vtep":"192.0.2.2"})",
                                     R"({"op":"flood","value":true,"vni":10,"vtep":"192.0.2.9"})" ) );
   // The MAC moves: a new locator and the row pointed at it.
   update( "Physical_Locator", "l3", locatorRow( "192.0.2.3" ) );
   EXPECT_THAT( take(), IsEmpty() ) << "a locator nothing uses maps to nothing";
   update( "Ucast_Macs_Remote", "u1", ucastRow( "02:00:00:00:00:01", "s0", "l3" ), false, true );
   EXPECT_THAT( take(), ElementsAre( R"({"mac":"02:00:00:00:00:01","op":"mac","preference":16,"seqNo":2,"vni":10,"vtep":"192.0.2.3"})" ) );
   // The flood list's set is replaced by a one-element one.
   m.apply( { { "Physical_Locator_Set", { { "p2", { { "new", { { "locators", ref( "l3" ) } } } } } } },
              { "Mcast_Macs_Remote", { { "m1", { { "old", Json::object() }, { "new", mcastRow( "unknown-dst", "s0", "p2" ) } } } } } },
            false );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"flood","value":true,"vni":10,"vtep":"192.0.2.3"})",
                                     R"({"op":"floodDel","vni":10,"vtep":"192.0.2.2"})",
                                     R"({"op":"floodDel","vni":10,"vtep":"192.0.2.9"})" ) );
   // A row deleted and added again is a change too: the number never goes back.
   update( "Ucast_Macs_Remote", "u1", Json() );
   update( "Ucast_Macs_Remote", "u9", ucastRow( "02:00:00:00:00:01", "s0", "l3" ) );
   EXPECT_THAT( take(), ElementsAre( R"({"mac":"02:00:00:00:00:01","op":"macDel","vni":10})",
                                     R"({"mac":"02:00:00:00:00:01","op":"mac","preference":16,"seqNo":3,"vni":10,"vtep":"192.0.2.3"})" ) );
   // The switch goes: its VNI with everything in it.
   m.apply( { { "Logical_Switch", { { "s0", { { "old", switchRow( "ls0", 10 ) } } } } },
              { "Ucast_Macs_Remote", { { "u9", { { "old", Json::object() } } }, { "u2", { { "old", Json::object() } } } } },
              { "Mcast_Macs_Remote", { { "m1", { { "old", Json::object() } } } } } },
            false );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"vniDel","vni":10})" ) );
   EXPECT_EQ( m.macs(), 0u );
}

TEST_F( Mapping, ANewSnapshotWithdrawsWhatWentAndKeepsWhatStayed ) {
   m.apply( base(), true );
   take();
   Json next = base();
   next[ "Ucast_Macs_Remote" ].erase( "u2" );
   next[ "Ucast_Macs_Remote" ][ "u7" ] = { { "new", ucastRow( "02:00:00:00:00:07", "s0", "l9" ) } };
   next[ "Logical_Switch" ][ "s1" ] = { { "new", switchRow( "ls1", 20 ) } };
   m.apply( next, true );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"vni","vni":20})",
                                     R"({"mac":"02:00:00:00:00:02","op":"macDel","vni":10})",
                                     R"({"mac":"02:00:00:00:00:07","op":"mac","preference":16,"seqNo":1,"vni":10,"vtep":"192.0.2.9"})" ) );
   // The key of a switch changes: the old VNI goes, the new one gets its state.
   update( "Logical_Switch", "s0", switchRow( "ls0", 30 ), false, true );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"vni","vni":30})",
                                     R"({"mac":"02:00:00:00:00:01","op":"mac","preference":16,"seqNo":2,"vni":30,"vtep":"192.0.2.1"})",
                                     R"({"mac":"02:00:00:00:00:07","op":"mac","preference":16,"seqNo":2,"vni":30,"vtep":"192.0.2.9"})",
                                     R"({"op":"flood","value":true,"vni":30,"vtep":"192.0.2.2"})",
                                     R"({"op":"flood","value":true,"vni":30,"vtep":"192.0.2.9"})",
                                     R"({"op":"vniDel","vni":10})" ) );
}

TEST_F( Mapping, SeedsKeepUnchangedMacsAndRaiseMovedOnes ) {
   // What an earlier run exported: MAC 1 behind 192.0.2.1 at 5, MAC 2 behind
   // another VTEP than now at 8; the EVPN side holds MAC 2 at 11.
   m.seedExported( 10, mac1, 0xC0000201, 5 );
   m.seedExported( 10, Mac{ 2, 0, 0, 0, 0, 2 }, 0xC0000263, 8 );
   m.seedSeqNo( Mac{ 2, 0, 0, 0, 0, 2 }, 11 );
   m.apply( base(), true );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"vni","vni":10})",
                                     R"({"mac":"02:00:00:00:00:01","op":"mac","preference":16,"seqNo":5,"vni":10,"vtep":"192.0.2.1"})",
                                     R"({"mac":"02:00:00:00:00:02","op":"mac","preference":16,"seqNo":12,"vni":10,"vtep":"192.0.2.2"})",
                                     R"({"op":"flood","value":true,"vni":10,"vtep":"192.0.2.2"})",
                                     R"({"op":"flood","value":true,"vni":10,"vtep":"192.0.2.9"})" ) );
   // The import mirror learnt MAC 1 at 40 meanwhile: the next move passes it.
   mirror[ "02:00:00:00:00:01" ] = 40;
   update( "Ucast_Macs_Remote", "u1", ucastRow( "02:00:00:00:00:01", "s0", "l2" ), false, true );
   EXPECT_THAT( take(), ElementsAre( R"({"mac":"02:00:00:00:00:01","op":"mac","preference":16,"seqNo":41,"vni":10,"vtep":"192.0.2.2"})" ) );
   EXPECT_EQ( m.issued( mac1 ), 41u );
}

TEST_F( Mapping, NumbersArePerMacAcrossVnis ) {
   m.apply( base(), true );
   take();
   m.apply( { { "Logical_Switch", { { "s1", { { "new", switchRow( "ls1", 20 ) } } } } },
              { "Ucast_Macs_Remote", { { "u5", { { "new", ucastRow( "02:00:00:00:00:01", "s1", "l9" ) } } } } } },
            false );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"vni","vni":20})",
                                     R"({"mac":"02:00:00:00:00:01","op":"mac","preference":16,"seqNo":2,"vni":20,"vtep":"192.0.2.9"})" ) );
}

TEST_F( Mapping, UnusableRowsAreReportedOnceAndTheRestApplies ) {
   Json u = base();
   u[ "Logical_Switch" ][ "s1" ] = { { "new", switchRow( "nokey", set( {} ) ) } };
   u[ "Logical_Switch" ][ "s2" ] = { { "new", switchRow( "big", 16777216 ) } };
   u[ "Logical_Switch" ][ "s3" ] = { { "new", switchRow( "twin", 10 ) } };
   u[ "Physical_Locator" ][ "lx" ] = { { "new", locatorRow( "192.0.2.1", "vxlan_over_ipv6" ) } };
   u[ "Physical_Locator" ][ "ly" ] = { { "new", locatorRow( "192.0.2.01" ) } };
   u[ "Ucast_Macs_Remote" ][ "u3" ] = { { "new", ucastRow( "02:00:00:00:00", "s0", "l1" ) } };
   u[ "Ucast_Macs_Remote" ][ "u4" ] = { { "new", ucastRow( "02:00:00:00:00:04", "s0", "lx" ) } };
   u[ "Ucast_Macs_Remote" ][ "u5" ] = { { "new", ucastRow( "02:00:00:00:00:05", "s0", "ly" ) } };
   m.apply( u, true );
   EXPECT_THAT( reports, UnorderedElementsAre( "Logical_Switch s1: no tunnel_key",
                                               "Logical_Switch s2: tunnel_key 16777216 out of range 0..16777215",
                                               "Logical_Switch s3: tunnel_key 10 already used by s0",
                                               "Physical_Locator lx: encapsulation \"vxlan_over_ipv6\" is not vxlan_over_ipv4",
                                               "Physical_Locator ly: bad IP \"192.0.2.01\"",
                                               "Ucast_Macs_Remote u3: bad MAC \"02:00:00:00:00\"" ) );
   EXPECT_EQ( take().size(), 5u ) << "the usable rows all apply";
   reports.clear();
   m.apply( u, true );   // the same rows again: nothing new to say, nothing to do
   EXPECT_THAT( reports, IsEmpty() );
   EXPECT_THAT( take(), IsEmpty() );
   // The switch gets a key: it is usable now.
   update( "Logical_Switch", "s1", switchRow( "nokey", 40 ), false, true );
   EXPECT_THAT( take(), ElementsAre( R"({"op":"vni","vni":40})" ) );
}
