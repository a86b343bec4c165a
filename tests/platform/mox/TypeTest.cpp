// Type registry (ids, names, modules), the generic attribute interface, and
// directories: filing entries, parent links, names, order and creation
// through registered hooks.
#include "platform/mox/CollectionAttr.h"
#include "platform/mox/Dir.h"
#include "platform/mox/Type.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace MoxTest {

using Mox::Ptr;

// A hashable value type with a default value.
struct Pair {
   using MoxBase = void;
   static constexpr const char* moxTypeName = "MoxTest::Pair";
   static void moxDescribe( Mox::TypeBuilder< Pair >& b ) {
      b.scalar( "left", &Pair::left ).scalar( "right", &Pair::right ).hashable()
         .valueConstructor< uint32_t, uint32_t >();
   }
   uint32_t left() const { return l; }
   uint32_t right() const { return r; }
   uint32_t hash() const { return l * 31 + r; }
   bool operator==( const Pair& ) const = default;
   uint32_t l = 0, r = 0;
};

class Leaf : public Mox::Entity {
   MOX_ALLOC_TRACKED( Leaf )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "MoxTest::Leaf";
   static void moxDescribe( Mox::TypeBuilder< Leaf >& b ) {
      b.scalar( "colour", &Leaf::colour ).scalar( "size", &Leaf::size );
   }
   using Entity::Entity;
   Mox::String colour() const { return "green"; }
   int size() const { return 3; }
   const Mox::Type* fwkType() const override { return &Mox::TypeImpl< Leaf >::instance(); }
};

// A machine-shaped object with every attribute kind, including a writable
// input and an operation with a per-key and a whole-pass form.
class Machine : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( Machine )

 public:
   using MoxBase = Mox::PtrInterface;
   static constexpr const char* moxTypeName = "MoxTest::Machine";
   using Table = Mox::Collection< uint32_t, Mox::String >;
   static void moxDescribe( Mox::TypeBuilder< Machine >& b ) {
      b.input( "source", &Machine::source )
         .output( "sink", &Machine::sink )
         .handler< void() >( "poke", &Machine::poke )
         .handler< void( const uint32_t& ) >( "add", &Machine::add )
         .scalar( "initialized", &Machine::initialized, &Machine::initializedIs )
         .scalar( "total", &Machine::total )
         .reserve( "spare" )
         .creator( &Machine::MachineIs );
      auto table = []( const Machine& m ) -> const Table& { return m.table_; };
      Mox::bindCollection(
         b, "table", table,
         []( Machine& m, const uint32_t& k, const Mox::String& v ) { m.table_.set( k, v ); },
         []( Machine& m, const uint32_t& k ) { m.table_.del( k ); } );
      Mox::bindCollection( b, "view", table, nullptr, nullptr );
      b.input( "target", &Machine::target, &Machine::targetIs )
         .handlerPair( "visit", static_cast< void ( Machine::* )( const uint32_t& ) >( &Machine::visit ),
                       static_cast< void ( Machine::* )() >( &Machine::visit ) );
   }
   static Ptr< Machine > MachineIs( const Ptr< const Mox::Entity >& source,
                                    const Ptr< Mox::Entity >& sink, uint32_t start ) {
      Ptr< Machine > m( new Machine );
      m->source_ = source;
      m->sink_ = sink;
      m->total_ = start;
      m->hasNotificationActiveIs( true );
      return m;
   }
   const Mox::Type* fwkType() const override { return &Mox::TypeImpl< Machine >::instance(); }
   Ptr< const Mox::Entity > source() const { return source_; }
   Ptr< Mox::Entity > sink() const { return sink_; }
   void poke() { ++pokes; }
   void add( const uint32_t& v ) { total_ += v; }
   bool initialized() const { return initialized_; }
   void initializedIs( bool v ) { initialized_ = v; }
   uint32_t total() const { return total_; }
   Ptr< const Mox::Entity > target() const { return target_; }
   void targetIs( const Ptr< const Mox::Entity >& t ) {
      target_ = t;
      ++retargets;
   }
   void visit( const uint32_t& k ) { visited.push_back( k ); }
   void visit() { ++wholePasses; }

   int pokes = 0, retargets = 0, wholePasses = 0;
   std::vector< uint32_t > visited;
   Table table_{ this, Mox::TypeImpl< Machine >::instance().attributeId( "table" ) };

 private:
   Ptr< const Mox::Entity > source_;
   Ptr< Mox::Entity > sink_;
   Ptr< const Mox::Entity > target_;
   uint32_t total_ = 0;
   bool initialized_ = false;
};

Mox::Module testModule( "MoxTest", { &Mox::TypeImpl< Machine >::instance(),
                                     &Mox::TypeImpl< Leaf >::instance(),
                                     &Mox::TypeImpl< Pair >::instance() } );

}  // namespace MoxTest

namespace {

using namespace MoxTest;
using Mox::GenericValue;
using Mox::String;
using ::testing::ElementsAre;

const Mox::Type& machineType() { return Mox::TypeImpl< Machine >::instance(); }
const Mox::Type& leafType() { return Mox::TypeImpl< Leaf >::instance(); }
Mox::AttributeId idOf( const char* name ) { return machineType().attributeId( name ); }

std::vector< std::string > names( const Mox::Type& t ) {
   std::vector< std::string > out;
   for ( auto* a : t.attributesByName() ) {
      out.push_back( a->name );
   }
   return out;
}

TEST( TypeRegistry, IdsFollowDeclarationAfterTheBaseNamesResolveThroughBasesModulesByName ) {
   const auto& entity = Mox::TypeImpl< Mox::Entity >::instance();
   const auto& pair = Mox::TypeImpl< Pair >::instance();
   EXPECT_EQ( machineType().firstOwnId(), 130u );
   EXPECT_EQ( idOf( "table" ), 137u );
   EXPECT_EQ( idOf( "view" ), 138u );
   EXPECT_EQ( leafType().firstOwnId(), 258u );
   EXPECT_EQ( pair.attributeId( "left" ), 2u );
   EXPECT_EQ( pair.attributeId( "right" ), 3u );
   EXPECT_EQ( Mox::TypeImpl< Mox::Dir >::instance().attributeId( "entityPtr" ), 266u );
   EXPECT_EQ( leafType().base(), &entity );
   EXPECT_EQ( leafType().attributeId( "fullName" ), entity.attributeId( "fullName" ) );
   EXPECT_EQ( leafType().attribute( 258 )->name, "colour" );
   EXPECT_EQ( leafType().attributeId( "nosuch" ), 0u );
   EXPECT_EQ( idOf( "visit" ), 140u );
   EXPECT_THAT( names( machineType() ), ElementsAre( "add", "initialized", "poke", "sink", "source", "spare",
                                                     "table", "target", "total", "view", "visit" ) );

   EXPECT_EQ( Mox::moxTypeByName( "MoxTest::Machine" ), nullptr );
   Mox::moxModuleIs( &testModule );
   EXPECT_EQ( Mox::moxTypeByName( "MoxTest::Machine" ), &machineType() );
   EXPECT_EQ( machineType().module(), &testModule );
   EXPECT_EQ( Mox::moxModule( "MoxTest" ), &testModule );
   EXPECT_EQ( testModule.type( "MoxTest::Leaf" ), &leafType() );
   // The framework's own types register when the library loads.
   EXPECT_EQ( Mox::moxTypeByName( "Mox::Dir" ), &Mox::TypeImpl< Mox::Dir >::instance() );

   GenericValue r;
   const uint32_t a = 1, b = 2;
   const void* args[] = { &a, &b };
   pair.genericIfConstructFromCtorArgs( r, args );
   const Pair made = r.get< Pair >();
   EXPECT_EQ( made, ( Pair{ 1, 2 } ) );
   EXPECT_EQ( pair.genericIfHash( &made ), 33u );
   Leaf leaf( "l" );
   EXPECT_THAT( [ & ] { leafType().genericIfHash( &leaf ); },
                ::testing::ThrowsMessage< Mox::UnhashableTypeException >(
                   ::testing::StrEq( "type MoxTest::Leaf is not hashable" ) ) );
}

constexpr int get = Mox::genericOpGet, set = Mox::genericOpSet, del = Mox::genericOpDel,
              invoke = Mox::genericOpInvoke;

struct GenericFixture : ::testing::Test {
   LeakCheck leaks;
   Ptr< Mox::Entity > in{ new Mox::Entity( "in" ) };
   Ptr< Mox::Entity > out{ new Mox::Entity( "out" ) };
   Ptr< Machine > m = Machine::MachineIs( in, out, 10 );
   GenericValue r;
   int op( const char* attr, int code, const void* a = nullptr, const void* a2 = nullptr ) {
      return machineType().genericIfAttributeOp( r, m.ptr(), idOf( attr ), code, a, a2 );
   }
   const GenericValue& done( const char* attr, int code, const void* a = nullptr,
                             const void* a2 = nullptr ) {
      EXPECT_EQ( op( attr, code, a, a2 ), Mox::genericDone ) << attr << ' ' << code;
      return r;
   }
};

TEST_F( GenericFixture, ScalarsHandlersInputsConstructionAndEveryRefusal ) {
   const bool yes = true;
   const uint32_t five = 5, k1 = 1;
   const Mox::String one( "one" );
   EXPECT_FALSE( done( "initialized", get ).get< bool >() );
   done( "initialized", set, &yes );
   EXPECT_TRUE( m->initialized() );
   done( "poke", invoke );
   done( "add", invoke, &five );
   const struct {
      const char* attr;
      int op;
      const void *arg = nullptr, *arg2 = nullptr;
   } refused[] = { { "total", set, &five }, { "initialized", invoke }, { "poke", get }, { "poke", set },
                   { "add", invoke } /* argument missing */, { "spare", get }, { "source", set, &in },
                   { "view", set, &k1, &one }, { "view", del, &k1 }, { "table", get } /* key-less */,
                   { "table", invoke } };
   for ( const auto& c : refused ) {
      r.clear();
      EXPECT_EQ( op( c.attr, c.op, c.arg, c.arg2 ), Mox::genericNotAllowed ) << c.attr << c.op;
      EXPECT_TRUE( r.empty() ) << c.attr << c.op;
   }
   EXPECT_EQ( m->pokes, 1 );
   EXPECT_EQ( m->total(), 15u );
   EXPECT_TRUE( m->table_.empty() );
   for ( Mox::AttributeId unknown : { 129u, 200u } ) {
      EXPECT_EQ( machineType().genericIfAttributeOp( r, m.ptr(), unknown, get ),
                 Mox::genericNoSuchAttribute );
   }
   // Inputs and outputs yield new references.
   EXPECT_EQ( done( "source", get ).object().ptr(), in.ptr() );
   EXPECT_EQ( in->references(), 3u );   // in, the machine, the result
   EXPECT_EQ( done( "sink", get ).object().ptr(), out.ptr() );
   EXPECT_EQ( in->references(), 2u );
   EXPECT_EQ( out->references(), 3u );

   const Ptr< const Mox::Entity > source( in );
   const uint32_t start = 7;
   const void* args[] = { &source, &out, &start };
   machineType().genericIfConstructFromCtorArgs( r, args );
   auto made = Mox::ptrCast< const Machine >( r.object() );
   ASSERT_TRUE( made );
   EXPECT_EQ( made->total(), 7u );
   EXPECT_EQ( made->source(), in );
   EXPECT_TRUE( made->hasNotificationActive() );
   r.clear();
   made = nullptr;
   EXPECT_EQ( in->references(), 3u );   // the fixture, `source`, the fixture's machine
   EXPECT_EQ( out->references(), 2u );
   EXPECT_FALSE( leafType().constructible() );
   EXPECT_THAT( [ & ] { leafType().genericIfConstructFromCtorArgs( r, args ); },
                ::testing::ThrowsMessage< Mox::Exception >(
                   ::testing::StrEq( "type MoxTest::Leaf cannot be constructed generically" ) ) );
}

TEST_F( GenericFixture, AWritableInputIsSetThroughItsOwnerAndAPairOfFormsShareOneName ) {
   const Ptr< const Mox::Entity > e( new Mox::Entity( "e" ) ), none;
   done( "target", set, &e );
   EXPECT_EQ( done( "target", get ).object(), e );
   done( "target", set, &none );
   EXPECT_FALSE( m->target() );
   EXPECT_EQ( op( "target", invoke ), Mox::genericNotAllowed );
   EXPECT_EQ( m->retargets, 2 );
   const uint32_t k = 4;
   done( "visit", invoke, &k );
   done( "visit", invoke );
   EXPECT_EQ( op( "visit", get ), Mox::genericNotAllowed );
   EXPECT_THAT( m->visited, ElementsAre( 4u ) );
   EXPECT_EQ( m->wholePasses, 1 );
}

TEST_F( GenericFixture, CollectionIteratorDeletesInPlaceAndHoldsTheOwner ) {
   for ( uint32_t k : { 4u, 1u, 3u, 2u } ) {
      m->table_.set( k, Mox::String( std::to_string( k * 10 ) ) );
   }
   const uint32_t k1 = 1;
   EXPECT_EQ( done( "table", get, &k1 ).get< Mox::String >(), "10" );
   EXPECT_EQ( done( "table", Mox::genericOpCount ).get< size_t >(), 4u );
   auto it = machineType().genericIfIterator( m.ptr(), idOf( "table" ) );
   ASSERT_TRUE( it );
   std::vector< uint32_t > seen;
   while ( it->iterNonnull() ) {
      GenericValue k, v;
      it->iterKey( k );
      it->iterObj( v );
      seen.push_back( k.get< uint32_t >() );
      EXPECT_EQ( v.get< Mox::String >(), std::to_string( k.get< uint32_t >() * 10 ) );
      if ( k.get< uint32_t >() == 2 ) {
         it->iterDel();   // stands on the next entry afterwards
      } else {
         it->iterInc();
      }
   }
   EXPECT_THAT( seen, ElementsAre( 1u, 2u, 3u, 4u ) );
   EXPECT_EQ( m->table_.size(), 3u );
   // A read-only view refuses to delete instead of spinning in place.
   it = machineType().genericIfIterator( m.ptr(), idOf( "view" ) );
   ASSERT_TRUE( it && it->iterNonnull() );
   EXPECT_THROW( it->iterDel(), Mox::Exception );
   m = nullptr;   // the cursor keeps the machine alive
   GenericValue v;
   it->iterObj( v );
   EXPECT_EQ( v.get< Mox::String >(), "10" );
   it.reset();
   EXPECT_EQ( Machine::moxAllocTrackTypeInfo_.liveObjects(), 0 );
}

constexpr Mox::AttributeId entityPtrId = 266;

// Records every parent it is given.
class Child : public Mox::Entity {
   MOX_ALLOC_TRACKED( Child )

 public:
   using Entity::Entity;
   void handleParent( const Ptr< Mox::Entity >& p ) override {
      parents.push_back( p.ptr() );
      Entity::handleParent( p );
   }
   std::vector< Mox::Entity* > parents;
};

struct DirTest : ::testing::Test {
   LeakCheck leaks;
   Ptr< Mox::Dir > dir = Mox::Dir::DirIs( "root" );
   Ptr< NotifieeRecorder< String > > rec =
      NotifieeRecorder< String >::NotifieeRecorderIs( dir );
   Ptr< Child > child( const char* name ) { return Ptr< Child >( new Child( name ) ); }
};

TEST_F( DirTest, AddReplaceRemoveNotifyTheNameAfterSettingParents ) {
   auto a = child( "a" ), a2 = child( "a" ), b = child( "b" );
   std::vector< std::pair< Mox::Entity*, Mox::Entity* > > parentsAtNotification;
   rec->onEvent = [ & ]( Mox::AttributeId, const void* ) {
      parentsAtNotification.emplace_back( a->parent(), a2->parent() );
   };
   dir->entityPtrIs( a );
   dir->entityPtrIs( a );   // already filed: nothing happens
   dir->entityPtrIs( nullptr );
   dir->entityPtrIs( a2 );
   EXPECT_EQ( dir->entityPtr( "a" ), a2 );
   EXPECT_EQ( dir->entityPtrDel( "a" ), a2 );
   EXPECT_EQ( dir->entityPtrDel( "a" ), nullptr );   // absent: no notification
   EXPECT_THAT( rec->keys( entityPtrId ), ElementsAre( "a", "a", "a" ) );
   Mox::Entity* const d = dir.ptr();
   EXPECT_THAT( parentsAtNotification,
                ElementsAre( ::testing::Pair( d, nullptr ), ::testing::Pair( nullptr, d ),
                             ::testing::Pair( nullptr, nullptr ) ) );
   EXPECT_THAT( a->parents, ElementsAre( d, nullptr ) );
   EXPECT_THAT( a2->parents, ElementsAre( d, nullptr ) );

   dir->entityPtrIs( b );
   dir->entityPtrIs( a );
   rec->clear();
   dir->entityPtrDelAll();
   EXPECT_THAT( rec->keys( entityPtrId ), ElementsAre( "a", "b" ) );
   EXPECT_EQ( b->parent(), nullptr );
}

TEST_F( DirTest, AnEntryCanBeFiledUnderANameOtherThanItsOwn ) {
   auto a = child( "a" ), b = child( "b" );
   dir->entityPtrIs( String( "007" ), a );
   EXPECT_EQ( dir->entityPtr( "007" ), a );
   EXPECT_FALSE( dir->entityPtr( "a" ) );
   EXPECT_EQ( a->fullName(), String( "root/a" ) );   // the entity keeps its own name
   dir->entityPtrIs( String( "007" ), b );   // replaces, letting the old entry go
   EXPECT_EQ( a->parent(), nullptr );
   // The generic interface files under the key it is given.
   const String key( "x" );
   const Ptr< Mox::Entity > asEntity( a );
   GenericValue r;
   const auto& dirType = Mox::TypeImpl< Mox::Dir >::instance();
   EXPECT_EQ( dirType.genericIfAttributeOp( r, dir.ptr(), entityPtrId, set, &key, &asEntity ),
              Mox::genericDone );
   EXPECT_EQ( dir->entityPtr( "x" ), a );
   EXPECT_FALSE( dir->entityPtr( "a" ) );
   EXPECT_EQ( dir->entityPtrDel( "007" ), b );
   EXPECT_THAT( rec->keys( entityPtrId ), ElementsAre( "007", "007", "x", "007" ) );
   dir->entityPtrDelAll();
}

TEST_F( DirTest, FullNamesFollowTheTreeIterationIsInNameOrderAndDestructionClearsParents ) {
   auto sub = Mox::Dir::DirIs( "sub" );
   auto b = child( "b" );
   sub->entityPtrIs( b );
   dir->entityPtrIs( sub );
   EXPECT_EQ( b->fullName(), String( "root/sub/b" ) );
   dir->entityPtrDel( "sub" );
   EXPECT_EQ( b->fullName(), String( "sub/b" ) );

   for ( const char* n : { "vni10", "b", "vni2", "a", "c" } ) {
      dir->entityPtrIs( child( n ) );
   }
   std::vector< std::string > order;
   for ( auto it = dir->entityIterator(); !it.done(); ++it ) {
      order.push_back( it.key().str() );
      EXPECT_EQ( it.value()->name(), it.key() );
   }
   EXPECT_THAT( order, ElementsAre( "a", "b", "c", "vni10", "vni2" ) );

   Ptr< Mox::Entity > a = dir->entityPtr( "a" );
   rec = nullptr;
   dir = nullptr;
   EXPECT_EQ( Mox::Dir::moxAllocTrackTypeInfo_.liveObjects(), 1 );   // sub
   EXPECT_EQ( a->parent(), nullptr );
   EXPECT_EQ( a->fullName(), String( "a" ) );
   EXPECT_EQ( a->references(), 1u );
   EXPECT_EQ( Child::moxAllocTrackTypeInfo_.liveObjects(), 2 );   // a, b
}

TEST_F( DirTest, NewEntityGoesThroughTheTypesHook ) {
   Mox::newEntityForDirIs( "MoxTest::Child",
                           []( const String& name, const std::vector< Mox::GenericValue >& args ) {
                              if ( !args.empty() ) {
                                 MOX_THROW( Mox::NewEntityArgumentsException,
                                            "{} takes no arguments, got {}", name, args.size() );
                              }
                              return Ptr< Mox::Entity >( new Child( name ) );
                           } );
   EXPECT_THAT( [ & ] { dir->newEntity( "MoxTest::Child", "made", { Mox::GenericValue() } ); },
                ::testing::ThrowsMessage< Mox::NewEntityArgumentsException >(
                   ::testing::StrEq( "made takes no arguments, got 1" ) ) );
   EXPECT_THROW( dir->newEntity( "MoxTest::Unknown", "u" ), Mox::Exception );
   EXPECT_TRUE( rec->events().empty() );
   auto e = dir->newEntity( "MoxTest::Child", "made" );
   EXPECT_NE( dynamic_cast< Child* >( e.ptr() ), nullptr );
   EXPECT_EQ( dir->entityPtr( "made" ), e );
   EXPECT_EQ( e->fullName(), String( "root/made" ) );
   EXPECT_THAT( rec->keys( entityPtrId ), ElementsAre( "made" ) );
}

}  // namespace
