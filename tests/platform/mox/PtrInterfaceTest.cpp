// Counted pointers, zero-reference observers, allocation records, re-entrant
// notification delivery and collection members.
#include "platform/mox/Collection.h"
#include "platform/mox/PtrInterface.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

using Mox::Ptr;
using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using Recorder = NotifieeRecorder< int >;

class Widget : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( Widget )

 public:
   explicit Widget( int* destroyed = nullptr ) : destroyed_( destroyed ) {}
   ~Widget() override {
      if ( destroyed_ ) {
         ++*destroyed_;
      }
   }
   int* destroyed_;
};

class Gadget : public Widget {
   MOX_ALLOC_TRACKED( Gadget )

 public:
   using Widget::Widget;
};

// Runs each case with plain and with atomic counts.
class PtrCountTest : public ::testing::TestWithParam< bool > {
 protected:
   void SetUp() override { Mox::threadSafePointersIs( GetParam() ); }
   void TearDown() override { Mox::threadSafePointersIs( saved_ ); }
   const bool saved_ = Mox::threadSafePointers();
   LeakCheck leaks;
};

TEST_P( PtrCountTest, CopiesMovesCastsAndReleaseKeepTheCount ) {
   int destroyed = 0;
   Ptr< Widget > a( new Widget( &destroyed ) );
   {
      Ptr< Widget > b = a, c;
      c = b;
      Ptr< Widget > d( std::move( c ) );
      EXPECT_FALSE( c );
      EXPECT_EQ( a->references(), 3u );
      d = d;   // self-assignment must neither drop nor add
      EXPECT_EQ( a->references(), 3u );
      b = nullptr;
      EXPECT_EQ( a->references(), 2u );
   }
   EXPECT_EQ( a->references(), 1u );
   a = Ptr< Widget >( new Widget( &destroyed ) );   // replaces: the first one goes
   EXPECT_EQ( destroyed, 1 );
   Widget* raw = a.release();
   EXPECT_FALSE( a );
   EXPECT_EQ( raw->references(), 1u );
   raw->delRef();   // the released reference is the last one
   EXPECT_EQ( destroyed, 2 );

   Ptr< Gadget > g( new Gadget );
   Ptr< const Gadget > cg = g;
   Ptr< const Mox::PtrInterface > base = cg;
   Ptr< const Widget > moved( std::move( cg ) );
   EXPECT_FALSE( cg );
   EXPECT_EQ( g->references(), 3u );
   // A checked downcast adds a reference only when it succeeds.
   Ptr< const Gadget > back = Mox::ptrCast< const Gadget >( base );
   EXPECT_EQ( back.ptr(), g.ptr() );
   EXPECT_EQ( g->references(), 4u );
   Ptr< Widget > w( new Widget );
   EXPECT_FALSE( Mox::ptrCast< Gadget >( w ) );
   EXPECT_EQ( w->references(), 1u );
}

INSTANTIATE_TEST_SUITE_P( Modes, PtrCountTest, ::testing::Values( false, true ),
                          []( const auto& info ) { return info.param ? "threadSafe" : "plain"; } );

// Observes its notifier's count without holding it (a weak notifiee).
class ZeroObserver : public Mox::PtrInterface::NotifieeConst {
   MOX_ALLOC_TRACKED( ZeroObserver )

 public:
   enum class Action { none, keep, touch, leave };
   ZeroObserver( const Mox::PtrInterface* n, Action a ) : NotifieeConst( n, Hold::weak ), action( a ) {
      isRegisteredNotifieeIs( true );
      hasNotificationActiveIs( true );
   }
   void onZeroReferences() override {
      ++calls;
      EXPECT_EQ( calls, 1 + rescues ) << "called again before the last call returned";
      if ( action == Action::keep ) {
         ++rescues;
         kept = Ptr< const Mox::PtrInterface >( notifier() );
      } else if ( action == Action::touch ) {
         // Taking and dropping a reference must not restart the handling.
         Ptr< const Mox::PtrInterface > t( notifier() );
      } else if ( action == Action::leave ) {
         isRegisteredNotifieeIs( false );
      }
   }
   Action action;
   int calls = 0, rescues = 0;
   Ptr< const Mox::PtrInterface > kept;
};

TEST( ZeroReferences, AnObserverMayRescueOtherwiseTheObjectIsDeletedOnce ) {
   LeakCheck leaks;
   using A = ZeroObserver::Action;
   for ( auto action : { A::none, A::touch, A::leave, A::keep } ) {
      int destroyed = 0;
      Ptr< Widget > widget( new Widget( &destroyed ) );
      Ptr< ZeroObserver > o( new ZeroObserver( widget.ptr(), action ) );
      widget->zeroReferencesIs( true );
      widget = nullptr;
      EXPECT_EQ( o->calls, 1 );
      EXPECT_EQ( destroyed, action == A::keep ? 0 : 1 );
      if ( action == A::keep ) {
         ASSERT_TRUE( o->kept );
         EXPECT_EQ( o->kept->references(), 1u );
         // Dropping the rescued reference asks again; this time nobody keeps it.
         o->action = A::none;
         o->kept = nullptr;
         EXPECT_EQ( o->calls, 2 );
         EXPECT_EQ( destroyed, 1 );
         EXPECT_FALSE( o->isRegisteredNotifiee() );
         EXPECT_EQ( o->notifier(), nullptr ) << "a weak notifiee kept a dangling notifier";
      }
   }
}

TEST( AllocTrack, RecordsFollowCreationAndDestructionAndLeakCheckNamesThem ) {
   const auto &widgets = Widget::moxAllocTrackTypeInfo_, &gadgets = Gadget::moxAllocTrackTypeInfo_;
   LeakCheck outer;
   const auto totalBefore = widgets.totalAllocations();
   {
      Ptr< Widget > a( new Widget ), b( new Widget );
      Ptr< Gadget > g( new Gadget );
      EXPECT_EQ( widgets.liveObjects(), 2 );
      EXPECT_EQ( widgets.liveBytes(), int64_t( 2 * sizeof( Widget ) ) );
      // A derived class with its own record is counted there only.
      EXPECT_EQ( gadgets.liveObjects(), 1 );
      EXPECT_EQ( gadgets.liveBytes(), int64_t( sizeof( Gadget ) ) );
      EXPECT_EQ( widgets.totalAllocations(), totalBefore + 2 );
   }
   EXPECT_TRUE( outer.leaks().empty() );
   LeakCheck leaks;
   auto* leaked = new Widget;
   ASSERT_EQ( leaks.leaks().size(), 1u );
   EXPECT_NE( leaks.leaks()[ 0 ].find( "Widget: 1 live objects" ), std::string::npos )
      << leaks.leaks()[ 0 ];
   delete leaked;
   EXPECT_TRUE( leaks.leaks().empty() );
}

class Source : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( Source )

 public:
   static Ptr< Source > SourceIs() {
      Ptr< Source > s( new Source );
      s->hasNotificationActiveIs( true );
      return s;
   }
   void change( Mox::AttributeId id, int key ) const { notify( id, &key ); }
};

// Recorders on one source; each logs its name, then runs its `then`.
struct NotificationTest : ::testing::Test {
   LeakCheck leaks;
   Ptr< Source > source = Source::SourceIs();
   std::vector< Ptr< Recorder > > recorders;
   std::vector< std::string > calls;

   Ptr< Recorder > add( const std::string& name,
                        std::function< void( Mox::AttributeId ) > then = {} ) {
      auto r = Recorder::NotifieeRecorderIs( source );
      r->onEvent = [ this, name, then ]( Mox::AttributeId id, const void* ) {
         calls.push_back( name );
         if ( then ) {
            then( id );
         }
      };
      recorders.push_back( r );
      return r;
   }
   // Delivers one change and returns the calls it made.
   std::vector< std::string > change( Mox::AttributeId id = 131, int key = 0 ) {
      calls.clear();
      source->change( id, key );
      return calls;
   }
};

TEST_F( NotificationTest, ReachesEveryActiveRegisteredNotifieeWithIdAndKeyZombiesNone ) {
   auto a = add( "a" ), b = add( "b" ), c = add( "c" );
   source->change( 131, 7 );
   source->change( 140, -1 );
   EXPECT_THAT( a->events(), ElementsAre( Pair( 131u, 7 ), Pair( 140u, -1 ) ) );
   EXPECT_THAT( calls, ElementsAre( "a", "b", "c", "a", "b", "c" ) );
   EXPECT_EQ( source->references(), 4u );   // each recorder holds its notifier

   a->hasNotificationActiveIs( false );
   b->isRegisteredNotifieeIs( false );
   EXPECT_THAT( change(), ElementsAre( "c" ) );
   a->hasNotificationActiveIs( true );
   b->isRegisteredNotifieeIs( true );
   EXPECT_THAT( change(), ElementsAre( "a", "c", "b" ) );   // b registered again at the end
   EXPECT_EQ( source->notifieeList()->size(), 3u );

   // Moving a notifiee moves its registration and its count.
   auto other = Source::SourceIs();
   a->notifierIs( other );
   EXPECT_EQ( source->references(), 3u );
   EXPECT_EQ( other->references(), 2u );
   EXPECT_THAT( change(), ElementsAre( "c", "b" ) );
   a->notifierIs( nullptr );
   EXPECT_EQ( other->references(), 1u );

   c->moxDoZombieReactors( true );
   EXPECT_TRUE( c->isMarkedForDeletion() );
   EXPECT_THAT( change(), ElementsAre( "b" ) );
   c->moxDoZombieReactors( false );
   EXPECT_THAT( change(), ElementsAre( "c", "b" ) );
   // A flag that already holds changes nothing: deliberately inactive stays
   // inactive, a reactivated zombie stays active.
   c->hasNotificationActiveIs( false );
   c->moxDoZombieReactors( false );
   EXPECT_FALSE( c->hasNotificationActive() );
   c->moxDoZombieReactors( true );
   c->hasNotificationActiveIs( true );
   c->moxDoZombieReactors( true );
   EXPECT_TRUE( c->hasNotificationActive() );
}

TEST_F( NotificationTest, HandlersRemovingAndAddingNotifiees ) {
   Ptr< Recorder > a, b, c, d, late;
   // a removes itself and c (not yet called); b adds a notifiee, which must
   // wait for the next change; d is removed and re-added by `a` on 132 and
   // so waits too.
   a = add( "a", [ & ]( Mox::AttributeId id ) {
      if ( id == 132 ) {
         d->isRegisteredNotifieeIs( false );
         d->isRegisteredNotifieeIs( true );
         return;
      }
      a->isRegisteredNotifieeIs( false );
      c->isRegisteredNotifieeIs( false );
   } );
   b = add( "b", [ & ]( Mox::AttributeId ) { late = late ? late : add( "late" ); } );
   c = add( "c" );
   d = add( "d" );
   EXPECT_THAT( change( 132 ), ElementsAre( "a", "b", "c" ) );
   EXPECT_THAT( change(), ElementsAre( "a", "b", "d", "late" ) );
   EXPECT_EQ( source->notifieeList()->size(), 3u );   // b, d, late
   EXPECT_THAT( change(), ElementsAre( "b", "d", "late" ) );
}

TEST_F( NotificationTest, HandlerDropsTheLastReferenceToItselfAnotherOrTheNotifier ) {
   Ptr< Recorder > a, b, c, d;
   // a drops itself; b drops c, which has not been called yet; on 132 b makes
   // every holder of the source let go, so d must not be called.
   a = add( "a", [ & ]( Mox::AttributeId ) { a = nullptr; } );
   b = add( "b", [ & ]( Mox::AttributeId id ) {
      if ( id != 132 ) {
         c = nullptr;
         return;
      }
      b->notifierIs( nullptr );
      d->notifierIs( nullptr );
      source = nullptr;
   } );
   c = add( "c" );
   d = add( "d" );
   recorders.clear();
   EXPECT_THAT( change(), ElementsAre( "a", "b", "d" ) );
   EXPECT_EQ( b->completed(), 1u );
   EXPECT_EQ( Recorder::moxAllocTrackTypeInfo_.liveObjects(), 2 );
   EXPECT_THAT( change(), ElementsAre( "b", "d" ) );
   calls.clear();
   source.ptr()->change( 132, 1 );
   EXPECT_THAT( calls, ElementsAre( "b" ) );
   EXPECT_EQ( Source::moxAllocTrackTypeInfo_.liveObjects(), 0 );
}

TEST_F( NotificationTest, NestedChangeReachesTheNotifieesOfThatMoment ) {
   Ptr< Recorder > b;
   auto a = add( "a", [ & ]( Mox::AttributeId id ) {
      if ( id == 131 ) {
         b->isRegisteredNotifieeIs( false );
         source->change( 132, 0 );
         b->isRegisteredNotifieeIs( true );
      }
   } );
   b = add( "b" );
   // b was away during the nested change and came back as a new entry.
   EXPECT_THAT( change( 131 ), ElementsAre( "a", "a" ) );
   EXPECT_THAT( a->events(), ElementsAre( Pair( 131u, 0 ), Pair( 132u, 0 ) ) );
   EXPECT_THAT( change( 133 ), ElementsAre( "a", "b" ) );
}

constexpr Mox::AttributeId tableId = 140;

template< Mox::Order order >
class Holder : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( Holder )

 public:
   Holder() { hasNotificationActiveIs( true ); }
   Mox::Collection< uint32_t, int, order > table{ this, tableId, -1 };
};

template< class O >
class CollectionTest : public ::testing::Test {
 protected:
   static constexpr Mox::Order order = O::value;
   LeakCheck leaks;
   Mox::Ptr< Holder< order > > holder{ new Holder< order > };
   Mox::Collection< uint32_t, int, order >& t = holder->table;
   Mox::Ptr< NotifieeRecorder< uint32_t > > rec =
      NotifieeRecorder< uint32_t >::NotifieeRecorderIs( holder );
};

using Orders = ::testing::Types< std::integral_constant< Mox::Order, Mox::Order::ordered >,
                                 std::integral_constant< Mox::Order, Mox::Order::hashed > >;
TYPED_TEST_SUITE( CollectionTest, Orders );

TYPED_TEST( CollectionTest, EveryRealChangeNotifiesWithTheKeyAfterTheChange ) {
   auto& t = this->t;
   std::vector< int > seenInHandler;
   this->rec->onEvent = [ & ]( Mox::AttributeId, const void* key ) {
      seenInHandler.push_back( t.get( *static_cast< const uint32_t* >( key ) ) );
   };
   t.set( 5, 50 );
   t.set( 5, 50 );   // unchanged values notify too
   t.set( 7, 70 );
   EXPECT_EQ( t.del( 5 ), 50 );
   EXPECT_EQ( t.del( 5 ), std::nullopt );   // absent: no notification
   EXPECT_EQ( *t.find( 7 ), 70 );
   int made = 0;
   auto make = [ & ] { return ++made * 100; };
   EXPECT_EQ( t.instantiate( 4, make ), 100 );
   EXPECT_EQ( t.instantiate( 4, make ), 100 );
   EXPECT_EQ( made, 1 );
   EXPECT_THAT( this->rec->keys( tableId ), ElementsAre( 5u, 5u, 7u, 5u, 4u ) );
   EXPECT_THAT( seenInHandler, ElementsAre( 50, 50, 70, -1, 100 ) );
   this->rec->clear();
   t.delAll();
   t.delAll();
   EXPECT_TRUE( t.empty() );
   EXPECT_THAT( this->rec->keys( tableId ), UnorderedElementsAre( 4u, 7u ) );
}

TYPED_TEST( CollectionTest, IterationVisitsEachKeyOnceInOrderAndToleratesDeletions ) {
   auto fill = [ this ] {
      for ( uint32_t k = 1; k <= 6; ++k ) {
         this->t.set( k * 7919 % 1000, int( k ) );
      }
   };
   fill();
   std::set< uint32_t > seen;
   std::vector< uint32_t > order;
   for ( auto it = this->t.iterator(); !it.done(); ++it ) {
      const uint32_t k = it.key();
      order.push_back( k );
      EXPECT_TRUE( seen.insert( k ).second ) << "visited twice: " << k;
      EXPECT_TRUE( this->t.contains( k ) ) << "visited deleted key " << k;
      // Deletes its partner ahead or behind: values 1<->2, 3<->4, 5<->6.
      const int v = it.value();
      this->t.del( ( v % 2 ? v + 1 : v - 1 ) * 7919 % 1000 );
   }
   EXPECT_EQ( seen.size(), 3u );
   EXPECT_EQ( this->t.size(), 3u );
   if constexpr ( TestFixture::order == Mox::Order::ordered ) {
      EXPECT_TRUE( std::is_sorted( order.begin(), order.end() ) );
   }
   seen.clear();
   fill();
   for ( auto it = this->t.iterator(); !it.done(); ) {
      seen.insert( it.key() );
      this->t.del( it.key() );   // the current entry
      ++it;
   }
   EXPECT_EQ( seen.size(), 6u );
   EXPECT_TRUE( this->t.empty() );
}

// Keys set in order, against it, at random, and around deletions of the key
// set last (where an ordered collection offers its next insertion): the
// content stays exactly what was set, each set notifying once.
TYPED_TEST( CollectionTest, SetsInAnyOrderAroundDeletionsKeepExactlyWhatWasSet ) {
   auto& t = this->t;
   std::map< uint32_t, int > expected;
   size_t changes = 0;   // sets, and deletions of a present key
   auto set = [ & ]( uint32_t k, int v ) {
      t.set( k, v );
      expected[ k ] = v;
      ++changes;
   };
   auto del = [ & ]( uint32_t k ) {
      changes += t.del( k ).has_value();
      expected.erase( k );
   };
   for ( uint32_t k = 10; k < 40; ++k ) {
      set( k, int( k ) );
   }
   for ( uint32_t k = 9; k > 0; --k ) {
      set( k, int( k ) );
   }
   for ( uint32_t i = 0; i < 200; ++i ) {
      const uint32_t k = i * 7919 % 97;
      set( k, int( i ) );
      if ( i % 3 == 0 ) {
         del( k );   // the key set last
      }
      if ( i % 5 == 0 ) {
         del( ( k + 1 ) % 97 );   // the one the next ordered set would go before
      }
      set( k + 1000, int( i ) );
   }
   std::map< uint32_t, int > content;
   for ( auto it = t.iterator(); !it.done(); ++it ) {
      content[ it.key() ] = it.value();
   }
   EXPECT_EQ( content, expected );
   EXPECT_EQ( t.size(), expected.size() );
   EXPECT_EQ( this->rec->keys( tableId ).size(), changes );
}

}  // namespace
