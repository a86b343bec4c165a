// Directories: filing entries, parent links, names, order and creation
// through registered hooks.
#include "platform/mox/Dir.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Mox::Ptr;
using Mox::String;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

// Records every parent it is given, and what the directory held at the time.
class Child : public Mox::Entity {
   MOX_ALLOC_TRACKED( Child )

 public:
   using Entity::Entity;
   void handleParent( const Ptr< Mox::Entity >& p ) override {
      parents.push_back( p.ptr() );
      if ( auto* d = dynamic_cast< Mox::Dir* >( p.ptr() ) ) {
         filedAtCall.push_back( d->entityPtr( name() ).ptr() == this );
      }
      Entity::handleParent( p );
   }
   std::vector< Mox::Entity* > parents;
   std::vector< bool > filedAtCall;
};

Mox::AttributeId entityPtrId() {
   return Mox::TypeImpl< Mox::Dir >::instance().attributeId( "entityPtr" );
}

struct DirFixture : ::testing::Test {
   LeakCheck leaks;
   Ptr< Mox::Dir > dir = Mox::Dir::DirIs( "root" );
   Ptr< NotifieeRecorder< String > > rec =
      NotifieeRecorder< String >::NotifieeRecorderIs( dir );
   Ptr< Child > child( const char* name ) { return Ptr< Child >( new Child( name ) ); }
};

TEST_F( DirFixture, AddReplaceRemoveNotifyTheName ) {
   auto a = child( "a" );
   auto a2 = child( "a" );
   // The parents of both entries as each notification goes out.
   std::vector< std::pair< Mox::Entity*, Mox::Entity* > > parentsAtNotification;
   rec->onEvent = [ & ]( Mox::AttributeId, const void* ) {
      parentsAtNotification.emplace_back( a->parent(), a2->parent() );
   };

   dir->entityPtrIs( a );
   EXPECT_EQ( dir->entityPtr( "a" ), a );
   EXPECT_EQ( a->parent(), dir.ptr() );
   dir->entityPtrIs( a );   // already filed: nothing happens
   dir->entityPtrIs( nullptr );
   dir->entityPtrIs( a2 );
   EXPECT_EQ( a->parent(), nullptr );
   EXPECT_EQ( dir->entityPtr( "a" ), a2 );
   EXPECT_EQ( dir->entityPtrDel( "a" ), a2 );
   EXPECT_EQ( dir->entityPtrDel( "a" ), nullptr );   // absent: no notification

   EXPECT_THAT( rec->events(), ElementsAre( Pair( 266u, String( "a" ) ),
                                            Pair( 266u, String( "a" ) ),
                                            Pair( 266u, String( "a" ) ) ) );
   // Parents are set and cleared before the notification goes out.
   Mox::Entity* const d = dir.ptr();
   EXPECT_THAT( parentsAtNotification,
                ElementsAre( Pair( d, nullptr ), Pair( nullptr, d ), Pair( nullptr, nullptr ) ) );
   EXPECT_THAT( a->parents, ElementsAre( dir.ptr(), nullptr ) );
   EXPECT_THAT( a2->parents, ElementsAre( dir.ptr(), nullptr ) );
   EXPECT_EQ( a2->parent(), nullptr );
   EXPECT_EQ( dir->entityPtrs(), 0u );
}

TEST_F( DirFixture, DelAllLetsEveryEntryGo ) {
   auto a = child( "a" );
   auto b = child( "b" );
   dir->entityPtrIs( b );
   dir->entityPtrIs( a );
   rec->clear();
   dir->entityPtrDelAll();
   EXPECT_THAT( rec->keys( entityPtrId() ), ElementsAre( "a", "b" ) );
   EXPECT_EQ( a->parent(), nullptr );
   EXPECT_EQ( b->parent(), nullptr );
}

TEST_F( DirFixture, FullNamesFollowTheTree ) {
   auto sub = Mox::Dir::DirIs( "sub" );
   auto b = child( "b" );
   sub->entityPtrIs( b );
   EXPECT_EQ( b->fullName(), String( "sub/b" ) );
   dir->entityPtrIs( sub );
   auto a = child( "a" );
   dir->entityPtrIs( a );
   EXPECT_EQ( a->fullName(), String( "root/a" ) );
   EXPECT_EQ( b->fullName(), String( "root/sub/b" ) );
   EXPECT_EQ( dir->fullName(), String( "root" ) );
   dir->entityPtrDel( "sub" );
   EXPECT_EQ( b->fullName(), String( "sub/b" ) );
}

TEST_F( DirFixture, DestroyingTheDirectoryClearsParents ) {
   auto a = child( "a" );
   dir->entityPtrIs( a );
   dir->entityPtrIs( child( "gone" ) );
   rec = nullptr;
   dir = nullptr;
   EXPECT_EQ( Mox::Dir::moxAllocTrackTypeInfo_.liveObjects(), 0 );
   EXPECT_EQ( a->parent(), nullptr );
   EXPECT_EQ( a->fullName(), String( "a" ) );
   EXPECT_EQ( a->references(), 1u );
   EXPECT_EQ( Child::moxAllocTrackTypeInfo_.liveObjects(), 1 );
}

TEST_F( DirFixture, IterationIsInNameOrder ) {
   for ( const char* n : { "vni10", "b", "vni2", "a", "c" } ) {
      dir->entityPtrIs( child( n ) );
   }
   std::vector< std::string > order;
   for ( auto it = dir->entityIterator(); !it.done(); ++it ) {
      order.push_back( it.key().str() );
      EXPECT_EQ( it.value()->name(), it.key() );
   }
   EXPECT_THAT( order, ElementsAre( "a", "b", "c", "vni10", "vni2" ) );
}

TEST_F( DirFixture, GenericInterface ) {
   const auto& t = *dir->fwkType();
   ASSERT_EQ( &t, &Mox::TypeImpl< Mox::Dir >::instance() );
   Mox::GenericValue r;
   const Ptr< Mox::Entity > x = child( "x" );
   const String key( "ignored" );   // entries are filed under their own name
   EXPECT_EQ( t.genericIfAttributeOp( r, dir.ptr(), 266, Mox::genericOpSet, &key, &x ),
              Mox::genericDone );
   EXPECT_EQ( dir->entityPtr( "x" ), x );
   EXPECT_EQ( x->parent(), dir.ptr() );
   EXPECT_EQ( t.genericIfAttributeOp( r, dir.ptr(), 266, Mox::genericOpCount ),
              Mox::genericDone );
   EXPECT_EQ( r.get< size_t >(), 1u );
   // The platform's reserved directory attributes hold ids but do nothing.
   EXPECT_EQ( t.genericIfAttributeOp( r, dir.ptr(), 258, Mox::genericOpGet ),
              Mox::genericNotAllowed );

   dir->entityPtrIs( child( "y" ) );
   auto it = t.genericIfIterator( dir.ptr(), 266 );
   ASSERT_TRUE( it && it->iterNonnull() );
   it->iterDel();   // x: let go through the directory's own removal
   EXPECT_EQ( x->parent(), nullptr );
   ASSERT_TRUE( it->iterNonnull() );
   Mox::GenericValue k;
   it->iterKey( k );
   EXPECT_EQ( k.get< String >(), "y" );
   it->iterInc();
   EXPECT_FALSE( it->iterNonnull() );
   EXPECT_THAT( rec->keys( 266 ), ElementsAre( "x", "y", "x" ) );
}

// ---- creation through hooks

void registerHooks() {
   Mox::newEntityForDirIs( "MoxTest::Child",
                           []( const String& name, const std::vector< Mox::GenericValue >& args ) {
                              if ( !args.empty() ) {
                                 MOX_THROW( Mox::NewEntityArgumentsException,
                                            "{} takes no arguments, got {}", name, args.size() );
                              }
                              return Ptr< Mox::Entity >( new Child( name ) );
                           } );
   // A hook that takes one argument: a name suffix.
   Mox::newEntityForDirIs( "MoxTest::Suffixed",
                           []( const String& name, const std::vector< Mox::GenericValue >& args ) {
                              return Ptr< Mox::Entity >( new Child(
                                 String( name.str() + args.at( 0 ).get< std::string >() ) ) );
                           } );
}

TEST_F( DirFixture, NewEntityGoesThroughTheTypesHook ) {
   registerHooks();
   auto e = dir->newEntity( "MoxTest::Child", "made" );
   ASSERT_TRUE( e );
   EXPECT_NE( dynamic_cast< Child* >( e.ptr() ), nullptr );
   EXPECT_EQ( dir->entityPtr( "made" ), e );
   EXPECT_EQ( e->fullName(), String( "root/made" ) );
   EXPECT_THAT( rec->keys( 266 ), ElementsAre( "made" ) );

   Mox::GenericValue suffix;
   suffix.set( std::string( "-1" ) );
   auto s = dir->newEntity( "MoxTest::Suffixed", "s", { suffix } );
   EXPECT_EQ( s->name(), String( "s-1" ) );
   EXPECT_EQ( dir->entityPtr( "s-1" ), s );
}

TEST_F( DirFixture, NewEntityRefusals ) {
   registerHooks();
   Mox::GenericValue extra;
   extra.set( 1 );
   try {
      dir->newEntity( "MoxTest::Child", "made", { extra } );
      FAIL() << "extra arguments accepted";
   } catch ( const Mox::NewEntityArgumentsException& e ) {
      EXPECT_STREQ( e.what(), "made takes no arguments, got 1" );
   }
   EXPECT_THROW( dir->newEntity( "MoxTest::Unknown", "u" ), Mox::Exception );
   EXPECT_EQ( dir->entityPtrs(), 0u );
   EXPECT_THAT( rec->events(), IsEmpty() );
}

}  // namespace
