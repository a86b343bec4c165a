// The controller model under events: a VNI removed and learnt again starts from an empty status, and
// nothing lands in the status that was removed.
#include "tools/agent/Model.h"

#include <gtest/gtest.h>

namespace {

using Agent::Event;

Event ev( Event::Op op, uint32_t vni, uint8_t macLow = 0 ) {
   Event e;
   e.op = op;
   e.vni = vni;
   e.mac = { 0x02, 0, 0, 0, 0, macLow };
   e.vtep = 0x0a000001;
   e.seqNo = 1;
   return e;
}

TEST( Model, AVniRemovedAndLearntAgainGetsAFreshStatus ) {
   Agent::Model m;
   m.apply( ev( Event::Op::mac, 5, 1 ) );
   m.apply( ev( Event::Op::mac, 5, 2 ) );
   auto first = Mox::ptrCast< VxlanController::VniFdbStatusV2 >( m.vniDir()->entityPtr( "5" ) );
   ASSERT_TRUE( first );
   EXPECT_EQ( first->macVtepTableSize(), 2u );
   m.apply( ev( Event::Op::vniDel, 5 ) );
   m.apply( ev( Event::Op::macDel, 5, 1 ) );   // of a VNI that is gone: nothing to do
   EXPECT_EQ( first->macVtepTableSize(), 2u );
   m.apply( ev( Event::Op::mac, 5, 3 ) );
   auto second = Mox::ptrCast< VxlanController::VniFdbStatusV2 >( m.vniDir()->entityPtr( "5" ) );
   ASSERT_TRUE( second );
   EXPECT_NE( second.ptr(), first.ptr() );
   EXPECT_EQ( second->macVtepTableSize(), 1u );
   EXPECT_EQ( first->macVtepTableSize(), 2u );
   m.apply( ev( Event::Op::mac, 6, 1 ) );   // another VNI between two events of the same one
   m.apply( ev( Event::Op::mac, 5, 4 ) );
   EXPECT_EQ( second->macVtepTableSize(), 2u );
   EXPECT_EQ( m.vnis(), 2u );
}

}  // namespace
