// The three per-MAC collections, over both statuses that carry them:
// notification ids and keys, create-or-get, the generic interface, child
// parents and allocation records.
#include "platform/model/VniFdbStatusV2.h"
#include "platform/model/VniStatusV2.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using VxlanController::MacVtepV2;
using Wire::EthAddr;

const EthAddr bum;   // all zero: "every BUM destination"
const EthAddr macA( 0, 0, 0, 0, 0, 0xa );
const EthAddr macB( 0, 0, 0, 0, 0, 0xb );
const MacVtepV2 entryA( macA, Wire::IpAddr::fromOctets( 10, 0, 0, 1 ), Keel::Seqno32( 3 ) );

template< class S >
class MacVtepTablesTest : public ::testing::Test {
 protected:
   Mox::AttributeId id( const char* name ) const {
      return Mox::TypeImpl< S >::instance().attributeId( name );
   }
   static Mox::Ptr< S > make() {
      Mox::GenericValue r;   // the creator by name, the same for both types
      const Mox::String name( "5" );
      const void* args[] = { &name };
      Mox::TypeImpl< S >::instance().genericIfConstructFromCtorArgs( r, args );
      return Mox::ptrCast< S >( r.get< Mox::Ptr< Mox::PtrInterface > >() );
   }
   LeakCheck leaks;   // declared first: checks once the objects below are gone
   Mox::Ptr< S > status = make();
   Mox::Ptr< NotifieeRecorder< EthAddr > > rec =
      NotifieeRecorder< EthAddr >::NotifieeRecorderIs( status );
};

using Statuses = ::testing::Types< VxlanController::VniFdbStatusV2, VxlanController::VniStatusV2 >;
TYPED_TEST_SUITE( MacVtepTablesTest, Statuses );

TYPED_TEST( MacVtepTablesTest, MacVtepTableNotifiesEverySetAndOnlyRealDeletes ) {
   auto& s = *this->status;
   EXPECT_EQ( s.vni(), Vxlan::Vni( 5 ) );
   EXPECT_EQ( s.macVtepTable( macA ), MacVtepV2() );
   s.macVtepTableIs( entryA );
   s.macVtepTableIs( entryA );   // unchanged, still a notification
   s.macVtepTableDel( macB );    // absent: nothing
   EXPECT_EQ( s.macVtepTable( macA ), entryA );
   s.macVtepTableDel( macA );
   const auto t = this->id( "macVtepTable" );
   EXPECT_THAT( this->rec->events(), ElementsAre( Pair( t, macA ), Pair( t, macA ), Pair( t, macA ) ) );
   EXPECT_EQ( s.macVtepTable( macA ), MacVtepV2() );
}

TYPED_TEST( MacVtepTablesTest, ChildTablesCreateOrGetAndParentWhileFiled ) {
   auto& s = *this->status;
   auto list = s.macVtepFloodListTableIs( bum );
   EXPECT_EQ( s.macVtepFloodListTableIs( bum ), list );
   EXPECT_EQ( s.macVtepFloodListTable( macA ), nullptr );
   EXPECT_EQ( list->fullName(), Mox::String( "5/00:00:00:00:00:00" ) );
   auto multi = s.macVtepMultiPathTableIs( macB );
   EXPECT_EQ( s.macVtepMultiPathTableIs( macB ), multi );
   s.macVtepFloodListTableDel( macA );
   s.macVtepFloodListTableDel( bum );
   const auto fl = this->id( "macVtepFloodListTable" ), mp = this->id( "macVtepMultiPathTable" );
   EXPECT_THAT( this->rec->events(), ElementsAre( Pair( fl, bum ), Pair( mp, macB ), Pair( fl, bum ) ) );
   // Still held here but no longer filed: it must not point at its old owner.
   EXPECT_EQ( list->parent(), nullptr );
   EXPECT_EQ( multi->parent(), this->status.ptr() );
}

TYPED_TEST( MacVtepTablesTest, GenericInterfaceOnACollection ) {
   auto* s = this->status.ptr();
   const Mox::Type* type = s->fwkType();
   const auto t = this->id( "macVtepTable" );
   Mox::GenericValue r;
   EXPECT_EQ( type->genericIfAttributeOp( r, s, t, Mox::genericOpSet, &macA, &entryA ), Mox::genericDone );
   EXPECT_EQ( type->genericIfAttributeOp( r, s, t, Mox::genericOpGet, &macA ), Mox::genericDone );
   EXPECT_EQ( r.get< MacVtepV2 >(), entryA );
   type->genericIfAttributeOp( r, s, t, Mox::genericOpExists, &macB );
   EXPECT_FALSE( r.get< bool >() );
   type->genericIfAttributeOp( r, s, t, Mox::genericOpCount );
   EXPECT_EQ( r.get< size_t >(), 1u );
   // Filed under another MAC than its own, an entry would be unreachable.
   EXPECT_THROW( type->genericIfAttributeOp( r, s, t, Mox::genericOpSet, &macB, &entryA ),
                 Mox::Exception );
   EXPECT_EQ( type->genericIfAttributeOp( r, s, t, Mox::genericOpDel, &macA ), Mox::genericDone );
   EXPECT_EQ( type->genericIfAttributeOp( r, s, t, Mox::genericOpSet, &macA ), Mox::genericNotAllowed );
   EXPECT_THAT( this->rec->events(), ElementsAre( Pair( t, macA ), Pair( t, macA ) ) );

   // A create-or-get collection never replaces the child it holds.
   const auto fl = this->id( "macVtepFloodListTable" );
   auto held = s->macVtepFloodListTableIs( bum );
   auto other = VxlanController::MacVtepFloodListV2::MacVtepFloodListV2Is( bum );
   EXPECT_THROW( type->genericIfAttributeOp( r, s, fl, Mox::genericOpSet, &bum, &other ),
                 Mox::ReinstantiationException );
   EXPECT_EQ( s->macVtepFloodListTable( bum ), held );
}

TYPED_TEST( MacVtepTablesTest, NothingOutlivesItsLastReference ) {
   auto list = this->status->macVtepFloodListTableIs( bum );
   this->status->macVtepMultiPathTableIs( macA );
   EXPECT_EQ( TypeParam::moxAllocTrackTypeInfo_.liveObjects(), 1 );
   this->rec = nullptr;
   this->status = nullptr;
   EXPECT_EQ( TypeParam::moxAllocTrackTypeInfo_.liveObjects(), 0 );
   EXPECT_EQ( VxlanController::MacVtepMultiPathV2::moxAllocTrackTypeInfo_.liveObjects(), 0 );
   // The list survives its owner and knows that it has none.
   EXPECT_EQ( list->parent(), nullptr );
   list = nullptr;
   EXPECT_EQ( VxlanController::MacVtepFloodListV2::moxAllocTrackTypeInfo_.liveObjects(), 0 );
}

}  // namespace
