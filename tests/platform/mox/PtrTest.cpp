// Counted pointers, zero-reference observers and allocation records.
#include "platform/mox/Ptr.h"
#include "platform/mox/PtrInterface.h"
#include "tests/support/LeakCheck.h"

#include <gtest/gtest.h>

#include <barrier>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Mox::Ptr;

class Widget : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( Widget )

 public:
   explicit Widget( int* destroyed = nullptr ) : destroyed_( destroyed ) {}
   ~Widget() override {
      if ( destroyed_ ) {
         ++*destroyed_;
      }
   }

 private:
   int* destroyed_;
   char payload_[ 40 ] = {};
};

class Gadget : public Widget {
   MOX_ALLOC_TRACKED( Gadget )

 public:
   using Widget::Widget;
};

class Fragile : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( Fragile )

 public:
   Fragile() { throw std::runtime_error( "refused" ); }
};

// Runs each case with plain and with atomic counts, restoring the setting.
class PtrCountTest : public ::testing::TestWithParam< bool > {
 protected:
   void SetUp() override {
      saved_ = Mox::threadSafePointers();
      Mox::threadSafePointersIs( GetParam() );
   }
   void TearDown() override { Mox::threadSafePointersIs( saved_ ); }
   bool saved_ = true;
};

TEST_P( PtrCountTest, CopiesMovesAndResetsKeepTheCount ) {
   LeakCheck leaks;
   int destroyed = 0;
   Ptr< Widget > a( new Widget( &destroyed ) );
   EXPECT_EQ( a->references(), 1u );
   {
      Ptr< Widget > b = a;
      Ptr< Widget > c;
      c = b;
      EXPECT_EQ( a->references(), 3u );
      Ptr< Widget > d( std::move( c ) );
      EXPECT_FALSE( c );
      EXPECT_EQ( a->references(), 3u );
      d = d;   // self-assignment must neither drop nor add
      EXPECT_EQ( a->references(), 3u );
      b = nullptr;
      EXPECT_EQ( a->references(), 2u );
   }
   EXPECT_EQ( a->references(), 1u );
   EXPECT_EQ( destroyed, 0 );
   a = Ptr< Widget >( new Widget( &destroyed ) );   // replaces: the first one goes
   EXPECT_EQ( destroyed, 1 );
   a = nullptr;
   EXPECT_EQ( destroyed, 2 );
}

TEST_P( PtrCountTest, ConstAndBasePointersShareTheCount ) {
   LeakCheck leaks;
   Ptr< Gadget > g( new Gadget );
   Ptr< const Gadget > cg = g;
   Ptr< const Mox::PtrInterface > base = cg;
   EXPECT_EQ( g->references(), 3u );
   EXPECT_TRUE( base == g );
   Ptr< const Widget > moved( std::move( cg ) );
   EXPECT_FALSE( cg );
   EXPECT_EQ( g->references(), 3u );

   // A checked downcast adds a reference only when it succeeds.
   Ptr< const Gadget > back = Mox::ptrCast< const Gadget >( base );
   EXPECT_EQ( back.ptr(), g.ptr() );
   EXPECT_EQ( g->references(), 4u );
   Ptr< Widget > w( new Widget );
   Ptr< Gadget > none = Mox::ptrCast< Gadget >( w );
   EXPECT_FALSE( none );
   EXPECT_EQ( w->references(), 1u );
   EXPECT_FALSE( Mox::ptrCast< Gadget >( Ptr< Widget >() ) );
}

TEST_P( PtrCountTest, ReleaseHandsTheReferenceOver ) {
   LeakCheck leaks;
   Ptr< Widget > a( new Widget );
   Widget* raw = a.release();
   EXPECT_FALSE( a );
   EXPECT_EQ( raw->references(), 1u );
   raw->delRef();   // the released reference is the last one
}

INSTANTIATE_TEST_SUITE_P( Modes, PtrCountTest, ::testing::Values( false, true ),
                          []( const auto& info ) {
                             return info.param ? "threadSafe" : "plain";
                          } );

TEST( PtrThreadSafe, ConcurrentCopiesKeepAnExactCount ) {
   LeakCheck leaks;
   Mox::threadSafePointersIs( true );
   constexpr int threads = 4;
   constexpr int rounds = 50000;
   constexpr int kept = 100;
   int destroyed = 0;
   Ptr< Widget > shared( new Widget( &destroyed ) );
   std::vector< std::vector< Ptr< Widget > > > keep( threads );
   std::barrier start( threads );
   std::vector< std::thread > workers;
   for ( int t = 0; t < threads; ++t ) {
      workers.emplace_back( [ &, t ] {
         start.arrive_and_wait();
         for ( int i = 0; i < rounds; ++i ) {
            Ptr< Widget > copy = shared;
            Ptr< const Widget > other( copy );
            if ( i % ( rounds / kept ) == 0 ) {
               keep[ t ].push_back( copy );
            }
         }
      } );
   }
   for ( auto& w : workers ) {
      w.join();
   }
   EXPECT_EQ( shared->references(), 1u + threads * kept );
   keep.clear();
   EXPECT_EQ( shared->references(), 1u );
   shared = nullptr;
   EXPECT_EQ( destroyed, 1 );
}

// ---- zero-reference observers

// Observes its own notifier's count without holding it (a weak notifiee).
class ZeroObserver : public Mox::PtrInterface::NotifieeConst {
   MOX_ALLOC_TRACKED( ZeroObserver )

 public:
   enum class Action { none, keep, touch, leave };
   explicit ZeroObserver( const Mox::PtrInterface* n ) : NotifieeConst( n, Hold::weak ) {
      isRegisteredNotifieeIs( true );
   }
   void onZeroReferences() override {
      ++calls;
      EXPECT_EQ( calls, 1 + rescues ) << "called again before the last call returned";
      switch ( action ) {
       case Action::none:
         break;
       case Action::keep:
         ++rescues;
         kept = Ptr< const Mox::PtrInterface >( notifier() );
         break;
       case Action::touch: {
         // Taking and dropping a reference must not restart the handling.
         Ptr< const Mox::PtrInterface > t( notifier() );
         break;
       }
       case Action::leave:
         isRegisteredNotifieeIs( false );
         break;
      }
   }
   Action action = Action::none;
   int calls = 0;
   int rescues = 0;
   Ptr< const Mox::PtrInterface > kept;
};

struct Observed {
   int destroyed = 0;
   Ptr< Widget > widget{ new Widget( &destroyed ) };
   Ptr< ZeroObserver > observer{ new ZeroObserver( widget.ptr() ) };
   Observed() {
      observer->hasNotificationActiveIs( true );
      widget->zeroReferencesIs( true );
   }
};

TEST( ZeroReferences, AnObserverThatTakesAReferenceKeepsTheObject ) {
   LeakCheck leaks;
   Observed o;
   o.observer->action = ZeroObserver::Action::keep;
   o.widget = nullptr;
   EXPECT_EQ( o.observer->calls, 1 );
   EXPECT_EQ( o.destroyed, 0 );
   ASSERT_TRUE( o.observer->kept );
   EXPECT_EQ( o.observer->kept->references(), 1u );

   // Dropping the rescued reference asks again; this time nobody keeps it.
   o.observer->action = ZeroObserver::Action::none;
   o.observer->kept = nullptr;
   EXPECT_EQ( o.observer->calls, 2 );
   EXPECT_EQ( o.destroyed, 1 );
   EXPECT_FALSE( o.observer->isRegisteredNotifiee() );
   EXPECT_EQ( o.observer->notifier(), nullptr ) << "a weak notifiee kept a dangling notifier";
}

TEST( ZeroReferences, WithoutARescueTheObjectIsDeletedOnce ) {
   LeakCheck leaks;
   for ( auto action : { ZeroObserver::Action::none, ZeroObserver::Action::touch,
                         ZeroObserver::Action::leave } ) {
      Observed o;
      o.observer->action = action;
      o.widget = nullptr;
      EXPECT_EQ( o.observer->calls, 1 );
      EXPECT_EQ( o.destroyed, 1 );
   }
}

TEST( ZeroReferences, UnobservedCountsDeleteAtOnce ) {
   LeakCheck leaks;
   Observed o;
   o.widget->zeroReferencesIs( false );
   o.widget = nullptr;
   EXPECT_EQ( o.observer->calls, 0 );
   EXPECT_EQ( o.destroyed, 1 );
}

// ---- allocation records

TEST( AllocTrack, RecordsFollowCreationAndDestruction ) {
   const auto& widgets = Widget::moxAllocTrackTypeInfo_;
   const auto& gadgets = Gadget::moxAllocTrackTypeInfo_;
   ASSERT_EQ( widgets.liveObjects(), 0 );
   const auto totalBefore = widgets.totalAllocations();
   {
      Ptr< Widget > a( new Widget );
      Ptr< Widget > b( new Widget );
      Ptr< Gadget > g( new Gadget );
      EXPECT_EQ( widgets.liveObjects(), 2 );
      EXPECT_EQ( widgets.liveBytes(), int64_t( 2 * sizeof( Widget ) ) );
      // A derived class with its own record is counted there only.
      EXPECT_EQ( gadgets.liveObjects(), 1 );
      EXPECT_EQ( gadgets.liveBytes(), int64_t( sizeof( Gadget ) ) );
      EXPECT_EQ( widgets.totalAllocations(), totalBefore + 2 );
   }
   EXPECT_EQ( widgets.liveObjects(), 0 );
   EXPECT_EQ( widgets.liveBytes(), 0 );
   EXPECT_EQ( gadgets.liveObjects(), 0 );
   EXPECT_EQ( gadgets.liveBytes(), 0 );

   bool listed = false;
   for ( const auto* r : Mox::AllocTrackTypeInfo::all() ) {
      listed = listed || r == &widgets;
   }
   EXPECT_TRUE( listed );
}

TEST( AllocTrack, AConstructorThatThrowsLeavesNoRecord ) {
   const auto& rec = Fragile::moxAllocTrackTypeInfo_;
   EXPECT_THROW( Ptr< Fragile >( new Fragile ), std::runtime_error );
   EXPECT_EQ( rec.liveObjects(), 0 );
   EXPECT_EQ( rec.liveBytes(), 0 );
}

TEST( AllocTrack, LeakCheckNamesTheRecordThatMoved ) {
   Widget* leaked = nullptr;
   {
      LeakCheck leaks;
      leaked = new Widget;
      ASSERT_EQ( leaks.leaks().size(), 1u );
      EXPECT_NE( leaks.leaks()[ 0 ].find( "Widget: 1 live objects" ), std::string::npos )
         << leaks.leaks()[ 0 ];
      delete leaked;
      EXPECT_TRUE( leaks.leaks().empty() );
   }
}

}  // namespace
