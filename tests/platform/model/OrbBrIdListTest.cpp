// OrbBrIdList in shared memory: a list left behind by a writer in another
// process is read by a reader-role list here and taken over by the next
// writer; notifications, refusals and the local (unattached) behaviour.
#include "platform/model/OrbBrIdList.h"
#include "platform/mox/Dir.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/LumenRoot.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

namespace {

using Bridging::BridgeId;
using OrbEvpn::OrbBrIdList;
using ::testing::ElementsAre;
using ::testing::Pair;
using Vxlan::Vni;

std::set< uint32_t > vnisOf( const OrbBrIdList& l ) {
   std::set< uint32_t > s;
   for ( auto it = l.brIdListIterConst(); it; ++it ) {
      s.insert( it.key().vni().value() );
   }
   return s;
}

TEST( OrbBrIdList, AListLeftByAWriterInAnotherProcessIsReadAndTakenOver ) {
   LumenRoot root;
   LeakCheck leaks;
   // The child writes and dies without detaching, as a crashed agent would.
   ASSERT_EQ( waitChild( startChild( [] {
                 auto top = Mox::Dir::DirIs( "lists" );
                 auto list = OrbBrIdList::OrbBrIdListIs( "brIdList" );
                 top->entityPtrIs( list );
                 for ( uint32_t v : { 5u, 7u, 9u } ) {
                    list->brIdListIs( BridgeId( Vni( v ) ), true );
                 }
                 list->brIdListDel( BridgeId( Vni( 9 ) ) );
                 return list->path() == "lists/brIdList" ? 0 : 1;
              } ) ),
              0 );

   auto reader = OrbBrIdList::OrbBrIdListReaderIs( "brIdList", "/lists/brIdList" );
   EXPECT_EQ( reader->role(), OrbEvpn::BrIdListRole::reader );
   auto rec = NotifieeRecorder< BridgeId >::NotifieeRecorderIs( reader );
   ASSERT_TRUE( dispatchUntil( *reader, [ & ] { return reader->brIdListSize() == 2; } ) );
   EXPECT_EQ( vnisOf( *reader ), ( std::set< uint32_t >{ 5, 7 } ) );
   EXPECT_TRUE( reader->brIdList( BridgeId( Vni( 7 ) ) ) );
   EXPECT_THAT( [ & ] { reader->brIdListIs( BridgeId( Vni( 1 ) ), true ); },
                ::testing::ThrowsMessage< Mox::Exception >( ::testing::StrEq(
                   "OrbEvpn::OrbBrIdList /lists/brIdList is mounted read-only: write refused" ) ) );
   EXPECT_THROW( reader->brIdListDelAll(), Mox::Exception );

   // The next writer keeps what it finds; its changes reach the reader.
   auto top = Mox::Dir::DirIs( "lists" );
   auto writer = OrbBrIdList::OrbBrIdListIs( "brIdList" );
   writer->brIdListIs( BridgeId( Vni( 11 ) ), true );   // written before attaching: merged in
   top->entityPtrIs( writer );
   EXPECT_EQ( writer->mountStatus(), Lumen::MountStatus::mounted );
   EXPECT_EQ( vnisOf( *writer ), ( std::set< uint32_t >{ 5, 7, 11 } ) );
   auto notified = [ & ] {
      std::set< uint32_t > s;
      for ( auto k : rec->keys( 258 ) ) {
         s.insert( k.vni().value() );
      }
      return s;
   };
   // Look at the reader once the change has been delivered to it.
   EXPECT_TRUE( dispatchUntil( *reader, [ & ] { return notified().contains( 11 ); } ) );
   EXPECT_EQ( vnisOf( *reader ), ( std::set< uint32_t >{ 5, 7, 11 } ) );
   rec->clear();
   writer->brIdListDelAll();
   EXPECT_TRUE( dispatchUntil( *reader, [ & ] { return notified().size() == 3; } ) )
      << notified().size();
   EXPECT_EQ( notified(), ( std::set< uint32_t >{ 5, 7, 11 } ) );
   EXPECT_EQ( reader->brIdListSize(), 0u );
   // A list attaches once.
   auto other = Mox::Dir::DirIs( "other" );
   EXPECT_THAT( [ & ] { other->entityPtrIs( writer ); },
                ::testing::ThrowsMessage< Mox::Exception >(
                   ::testing::StrEq( "Entity other/brIdList already initialized" ) ) );
   top->entityPtrDelAll();
   EXPECT_EQ( writer->mountStatus(), Lumen::MountStatus::unmounted );
}

TEST( OrbBrIdList, UnattachedItNotifiesEachChangeAndEmptiesInBridgeIdOrder ) {
   LeakCheck leaks;
   auto list = OrbBrIdList::OrbBrIdListIs( "brIdList" );
   auto rec = NotifieeRecorder< BridgeId >::NotifieeRecorderIs( list );
   const BridgeId b5( Vni( 5 ) ), b7( Vni( 7 ) ), other( 0x1000005 );   // other sorts first
   list->brIdListIs( b7, true );
   list->brIdListIs( b7, true );   // every write notifies
   list->brIdListIs( b5, false );   // a false value is still listed
   list->brIdListIs( other, true );
   EXPECT_EQ( list->brIdListColl().map(),
              ( std::map< BridgeId, bool >{ { other, true }, { b5, false }, { b7, true } } ) );
   list->brIdListDel( BridgeId( Vni( 6 ) ) );
   list->brIdListDelAll();
   EXPECT_THAT( rec->events(), ElementsAre( Pair( 258u, b7 ), Pair( 258u, b7 ), Pair( 258u, b5 ),
                                            Pair( 258u, other ), Pair( 258u, other ),
                                            Pair( 258u, b5 ), Pair( 258u, b7 ) ) );
   // Generic interface: iteration with removal under the cursor.
   list->brIdListIs( b5, true );
   list->brIdListIs( b7, true );
   const auto& t = Mox::TypeImpl< OrbBrIdList >::instance();
   size_t seen = 0;
   for ( auto it = t.genericIfIterator( list.ptr(), 258 ); it->iterNonnull(); ++seen ) {
      it->iterDel();
   }
   EXPECT_EQ( seen, 2u );
   EXPECT_EQ( list->brIdListSize(), 0u );
   Mox::GenericValue r;
   const bool yes = true;
   EXPECT_EQ( t.genericIfAttributeOp( r, list.ptr(), 258, Mox::genericOpSet, &b5, &yes ),
              Mox::genericDone );
   EXPECT_EQ( t.genericIfAttributeOp( r, list.ptr(), 258, Mox::genericOpExists, &b5 ),
              Mox::genericDone );
   EXPECT_TRUE( r.get< bool >() );
   EXPECT_EQ( t.genericIfAttributeOp( r, list.ptr(), 258, Mox::genericOpCount ), Mox::genericDone );
   EXPECT_EQ( r.get< size_t >(), 1u );
}

}  // namespace
