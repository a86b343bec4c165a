// Notification delivery, re-entrant changes of the notifiee list, and the
// activation and zombie flags of notifiees.
#include "platform/mox/PtrInterface.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Mox::Ptr;
using ::testing::ElementsAre;
using ::testing::Pair;
using Recorder = NotifieeRecorder< int >;

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

// Several recorders on one source, each logging its name when called.
struct Fixture {
   Ptr< Source > source = Source::SourceIs();
   std::vector< Ptr< Recorder > > recorders;
   std::vector< std::string > calls;

   Ptr< Recorder > add( const std::string& name ) {
      auto r = Recorder::NotifieeRecorderIs( source );
      r->onEvent = [ this, name ]( Mox::AttributeId, const void* ) { calls.push_back( name ); };
      recorders.push_back( r );
      return r;
   }
};

TEST( Notification, ReachesEveryActiveNotifieeWithIdAndKey ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   auto b = f.add( "b" );
   f.source->change( 131, 7 );
   f.source->change( 140, -1 );
   EXPECT_THAT( a->events(), ElementsAre( Pair( 131u, 7 ), Pair( 140u, -1 ) ) );
   EXPECT_EQ( b->events(), a->events() );
   EXPECT_THAT( f.calls, ElementsAre( "a", "b", "a", "b" ) );
   EXPECT_EQ( f.source->references(), 3u );   // each recorder holds its notifier
}

TEST( Notification, InactiveAndUnregisteredNotifieesHearNothing ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   auto b = f.add( "b" );
   auto c = f.add( "c" );
   a->hasNotificationActiveIs( false );
   b->isRegisteredNotifieeIs( false );
   f.source->change( 131, 1 );
   EXPECT_THAT( f.calls, ElementsAre( "c" ) );
   EXPECT_FALSE( b->isRegisteredNotifiee() );

   a->hasNotificationActiveIs( true );
   b->isRegisteredNotifieeIs( true );
   f.source->change( 131, 2 );
   // Registering again puts b at the end.
   EXPECT_THAT( f.calls, ElementsAre( "c", "a", "c", "b" ) );
   EXPECT_EQ( f.source->notifieeList()->size(), 3u );
}

TEST( Notification, MovingANotifieeMovesItsRegistration ) {
   LeakCheck leaks;
   Fixture f;
   auto other = Source::SourceIs();
   auto a = f.add( "a" );
   a->notifierIs( other );
   EXPECT_EQ( f.source->references(), 1u );
   EXPECT_EQ( other->references(), 2u );
   EXPECT_TRUE( a->isRegisteredNotifiee() );
   f.source->change( 131, 1 );
   other->change( 132, 2 );
   EXPECT_THAT( a->events(), ElementsAre( Pair( 132u, 2 ) ) );
   EXPECT_TRUE( f.source->notifieeList()->empty() );
   a->notifierIs( nullptr );
   EXPECT_EQ( other->references(), 1u );
   EXPECT_FALSE( a->isRegisteredNotifiee() );
}

TEST( NotificationReentrancy, HandlersRemovingAndAddingNotifiees ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   auto b = f.add( "b" );
   auto c = f.add( "c" );
   auto d = f.add( "d" );
   Ptr< Recorder > late;
   // a removes itself and c (not yet called); b adds a new notifiee, which
   // must wait for the next change.
   a->onEvent = [ & ]( Mox::AttributeId, const void* ) {
      f.calls.push_back( "a" );
      a->isRegisteredNotifieeIs( false );
      c->isRegisteredNotifieeIs( false );
   };
   b->onEvent = [ & ]( Mox::AttributeId, const void* ) {
      f.calls.push_back( "b" );
      if ( !late ) {
         late = Recorder::NotifieeRecorderIs( f.source );
         late->onEvent = [ & ]( Mox::AttributeId, const void* ) { f.calls.push_back( "late" ); };
      }
   };
   f.source->change( 131, 1 );
   EXPECT_THAT( f.calls, ElementsAre( "a", "b", "d" ) );
   EXPECT_EQ( f.source->notifieeList()->size(), 3u );   // b, d, late

   f.calls.clear();
   f.source->change( 131, 2 );
   EXPECT_THAT( f.calls, ElementsAre( "b", "d", "late" ) );
}

TEST( NotificationReentrancy, RemovedAndReAddedDuringDeliveryWaitsForTheNextChange ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   auto b = f.add( "b" );
   a->onEvent = [ & ]( Mox::AttributeId id, const void* ) {
      f.calls.push_back( "a" );
      if ( id == 131 ) {
         b->isRegisteredNotifieeIs( false );
         b->isRegisteredNotifieeIs( true );
      }
   };
   f.source->change( 131, 1 );
   EXPECT_THAT( f.calls, ElementsAre( "a" ) );
   f.source->change( 132, 2 );
   EXPECT_THAT( f.calls, ElementsAre( "a", "a", "b" ) );
}

TEST( NotificationReentrancy, HandlerDropsTheLastReferenceToTheNotifier ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   auto b = f.add( "b" );
   auto c = f.add( "c" );
   // Every holder of the source lets go during the first handler.
   a->onEvent = [ & ]( Mox::AttributeId, const void* ) {
      f.calls.push_back( "a" );
      for ( auto& r : f.recorders ) {
         r->notifierIs( nullptr );
      }
      f.source = nullptr;
   };
   const Source* raw = f.source.ptr();
   raw->change( 131, 1 );
   EXPECT_THAT( f.calls, ElementsAre( "a" ) );
   EXPECT_EQ( Source::moxAllocTrackTypeInfo_.liveObjects(), 0 );
}

TEST( NotificationReentrancy, HandlerDropsTheLastReferenceToItselfOrAnother ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   auto b = f.add( "b" );
   auto c = f.add( "c" );
   auto d = f.add( "d" );
   f.recorders.clear();
   // a drops itself; b drops c, which has not been called yet.
   a->onEvent = [ & ]( Mox::AttributeId, const void* ) {
      f.calls.push_back( "a" );
      a = nullptr;
   };
   b->onEvent = [ & ]( Mox::AttributeId, const void* ) {
      f.calls.push_back( "b" );
      c = nullptr;
   };
   f.source->change( 131, 1 );
   EXPECT_THAT( f.calls, ElementsAre( "a", "b", "d" ) );
   EXPECT_EQ( Recorder::moxAllocTrackTypeInfo_.liveObjects(), 2 );
   EXPECT_EQ( f.source->notifieeList()->size(), 2u );
   f.source->change( 131, 2 );
   EXPECT_THAT( f.calls, ElementsAre( "a", "b", "d", "b", "d" ) );
}

TEST( NotificationReentrancy, NestedChangeReachesTheNotifieesOfThatMoment ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   auto b = f.add( "b" );
   a->onEvent = [ & ]( Mox::AttributeId id, const void* ) {
      f.calls.push_back( "a" + std::to_string( id ) );
      if ( id == 131 ) {
         b->isRegisteredNotifieeIs( false );
         f.source->change( 132, 0 );
         b->isRegisteredNotifieeIs( true );
      }
   };
   b->onEvent = [ & ]( Mox::AttributeId id, const void* ) {
      f.calls.push_back( "b" + std::to_string( id ) );
   };
   f.source->change( 131, 0 );
   // b was away during the nested change and came back as a new entry.
   EXPECT_THAT( f.calls, ElementsAre( "a131", "a132" ) );
   f.calls.clear();
   f.source->change( 133, 0 );
   EXPECT_THAT( f.calls, ElementsAre( "a133", "b133" ) );
}

// ---- activation and zombie flags of a notifiee

TEST( Zombie, MarkingAZombieSilencesAndReviving ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   a->moxDoZombieReactors( true );
   EXPECT_TRUE( a->isMarkedForDeletion() );
   EXPECT_FALSE( a->hasNotificationActive() );
   f.source->change( 131, 1 );
   EXPECT_TRUE( f.calls.empty() );

   a->moxDoZombieReactors( false );
   EXPECT_FALSE( a->isMarkedForDeletion() );
   EXPECT_TRUE( a->hasNotificationActive() );
   f.source->change( 131, 2 );
   EXPECT_THAT( f.calls, ElementsAre( "a" ) );
}

TEST( Zombie, AFlagThatAlreadyHoldsChangesNothing ) {
   LeakCheck leaks;
   Fixture f;
   auto a = f.add( "a" );
   // Not a zombie and deliberately inactive: "not a zombie" again must not
   // switch notification on.
   a->hasNotificationActiveIs( false );
   a->moxDoZombieReactors( false );
   EXPECT_FALSE( a->hasNotificationActive() );

   a->moxDoZombieReactors( true );
   a->hasNotificationActiveIs( true );
   a->moxDoZombieReactors( true );   // already a zombie: stays as it is
   EXPECT_TRUE( a->hasNotificationActive() );
   EXPECT_TRUE( a->isMarkedForDeletion() );
}

TEST( Zombie, WithoutANotifierOnlyTheFlagChanges ) {
   LeakCheck leaks;
   Ptr< Recorder > orphan( new Recorder( nullptr ) );
   orphan->hasNotificationActiveIs( true );
   orphan->moxDoZombieReactors( true );
   EXPECT_TRUE( orphan->isMarkedForDeletion() );
   EXPECT_TRUE( orphan->hasNotificationActive() );
   orphan->hasNotificationActiveIs( false );
   orphan->moxDoZombieReactors( false );
   EXPECT_FALSE( orphan->hasNotificationActive() );
}

}  // namespace
