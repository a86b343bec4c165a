// Collection members: notification after each change, defaults, and
// iteration that survives deletions, for both orders.
#include "platform/mox/Collection.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

namespace {

using Mox::Ptr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

constexpr Mox::AttributeId tableId = 140;

template< Mox::Order order >
class Holder : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( Holder )

 public:
   static Ptr< Holder > HolderIs() {
      Ptr< Holder > h( new Holder );
      h->hasNotificationActiveIs( true );
      return h;
   }
   Mox::Collection< uint32_t, int, order > table{ this, tableId, -1 };
};

template< class O >
class CollectionTest : public ::testing::Test {
 protected:
   static constexpr Mox::Order order = O::value;
   using Table = Mox::Collection< uint32_t, int, order >;

   void SetUp() override {
      holder = Holder< order >::HolderIs();
      rec = NotifieeRecorder< uint32_t >::NotifieeRecorderIs( holder );
   }
   Table& table() { return holder->table; }
   void fill( std::initializer_list< uint32_t > keys ) {
      for ( uint32_t k : keys ) {
         table().set( k, int( k * 10 ) );
      }
      rec->clear();
   }

   LeakCheck leaks;
   Ptr< Holder< order > > holder;
   Ptr< NotifieeRecorder< uint32_t > > rec;
};

using Orders = ::testing::Types< std::integral_constant< Mox::Order, Mox::Order::ordered >,
                                 std::integral_constant< Mox::Order, Mox::Order::hashed > >;
TYPED_TEST_SUITE( CollectionTest, Orders );

TYPED_TEST( CollectionTest, ChangesNotifyWithTheKeyAfterTheChange ) {
   auto& t = this->table();
   std::vector< int > seenInHandler;
   this->rec->onEvent = [ & ]( Mox::AttributeId, const void* key ) {
      seenInHandler.push_back( t.get( *static_cast< const uint32_t* >( key ) ) );
   };
   t.set( 5, 50 );
   t.set( 5, 50 );   // unchanged values notify too
   t.set( 7, 70 );
   EXPECT_EQ( t.del( 5 ), 50 );
   EXPECT_THAT( this->rec->events(), ElementsAre( Pair( tableId, 5u ), Pair( tableId, 5u ),
                                                  Pair( tableId, 7u ), Pair( tableId, 5u ) ) );
   // The handler saw the collection as it is after each change.
   EXPECT_THAT( seenInHandler, ElementsAre( 50, 50, 70, -1 ) );
   EXPECT_EQ( t.get( 5 ), -1 );
   EXPECT_EQ( t.find( 5 ), nullptr );
   ASSERT_NE( t.find( 7 ), nullptr );
   EXPECT_EQ( *t.find( 7 ), 70 );
}

TYPED_TEST( CollectionTest, DeletingAnAbsentKeyNotifiesNothing ) {
   this->fill( { 1 } );
   EXPECT_EQ( this->table().del( 2 ), std::nullopt );
   EXPECT_THAT( this->rec->events(), IsEmpty() );
   EXPECT_EQ( this->table().size(), 1u );
}

TYPED_TEST( CollectionTest, DelAllNotifiesEachKeyOnce ) {
   this->fill( { 3, 1, 2 } );
   this->table().delAll();
   EXPECT_TRUE( this->table().empty() );
   EXPECT_THAT( this->rec->keys( tableId ), UnorderedElementsAre( 1u, 2u, 3u ) );
   this->rec->clear();
   this->table().delAll();
   EXPECT_THAT( this->rec->events(), IsEmpty() );
}

TYPED_TEST( CollectionTest, InstantiateCreatesOnlyOnce ) {
   int made = 0;
   auto make = [ & ] { return ++made * 100; };
   EXPECT_EQ( this->table().instantiate( 4, make ), 100 );
   EXPECT_EQ( this->table().instantiate( 4, make ), 100 );
   EXPECT_EQ( made, 1 );
   EXPECT_THAT( this->rec->keys( tableId ), ElementsAre( 4u ) );
}

TYPED_TEST( CollectionTest, IterationVisitsEveryKeyOnce ) {
   std::vector< uint32_t > keys;
   for ( uint32_t k = 0; k < 50; ++k ) {
      keys.push_back( k * 7919 % 1000 );
   }
   for ( uint32_t k : keys ) {
      this->table().set( k, int( k ) );
   }
   std::vector< uint32_t > seen;
   for ( auto it = this->table().iterator(); !it.done(); ++it ) {
      EXPECT_EQ( it.value(), int( it.key() ) );
      seen.push_back( it.key() );
   }
   EXPECT_THAT( seen, UnorderedElementsAreArray( keys ) );
   if constexpr ( TestFixture::order == Mox::Order::ordered ) {
      EXPECT_TRUE( std::is_sorted( seen.begin(), seen.end() ) );
   }
}

TYPED_TEST( CollectionTest, IterationToleratesDeletingTheCurrentEntry ) {
   this->fill( { 1, 2, 3, 4, 5, 6 } );
   std::vector< uint32_t > seen;
   for ( auto it = this->table().iterator(); !it.done(); ) {
      const uint32_t k = it.key();
      seen.push_back( k );
      this->table().del( k );
      ++it;
   }
   EXPECT_THAT( seen, UnorderedElementsAre( 1u, 2u, 3u, 4u, 5u, 6u ) );
   EXPECT_TRUE( this->table().empty() );
}

TYPED_TEST( CollectionTest, IterationSkipsEntriesDeletedAhead ) {
   this->fill( { 1, 2, 3, 4, 5, 6 } );
   std::set< uint32_t > seen;
   for ( auto it = this->table().iterator(); !it.done(); ++it ) {
      const uint32_t k = it.key();
      EXPECT_FALSE( seen.count( k ) );
      EXPECT_TRUE( this->table().contains( k ) ) << "visited deleted key " << k;
      seen.insert( k );
      // Delete the current key's partner (1<->2, 3<->4, 5<->6).
      this->table().del( k % 2 ? k + 1 : k - 1 );
   }
   EXPECT_EQ( seen.size(), 3u );
   EXPECT_EQ( this->table().size(), 3u );
}

}  // namespace
