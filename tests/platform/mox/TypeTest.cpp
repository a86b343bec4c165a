// Type registry (ids, names, modules) and the generic attribute interface.
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

// A value type: ids from 2, hashable, with a default value.
struct Pair {
   using MoxBase = void;
   static constexpr const char* moxTypeName = "MoxTest::Pair";
   static void moxDescribe( Mox::TypeBuilder< Pair >& b ) {
      b.scalar( "left", &Pair::left, &Pair::leftIs )
         .scalar( "right", &Pair::right )
         .hashable()
         .valueConstructor< uint32_t, uint32_t >();
   }
   uint32_t left() const { return l; }
   void leftIs( const uint32_t& v ) { l = v; }
   uint32_t right() const { return r; }
   uint32_t hash() const { return l * 31 + r; }
   bool operator==( const Pair& ) const = default;
   uint32_t l = 0;
   uint32_t r = 0;
};

// A value type without a hash.
struct Plain {
   using MoxBase = void;
   static constexpr const char* moxTypeName = "MoxTest::Plain";
   static void moxDescribe( Mox::TypeBuilder< Plain >& b ) { b.scalar( "v", &Plain::v ); }
   int v() const { return 0; }
};

// An entity type: its own ids start after the entity range.
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

// A machine-shaped object exercising every attribute kind.
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
      Mox::bindCollection(
         b, "table", []( const Machine& m ) -> const Table& { return m.table_; },
         []( Machine& m, const uint32_t& k, const Mox::String& v ) { m.tableIs( k, v ); },
         []( Machine& m, const uint32_t& k ) { m.tableDel( k ); } );
      Mox::bindCollection(
         b, "view", []( const Machine& m ) -> const Table& { return m.table_; }, nullptr,
         nullptr );
   }

   static Ptr< Machine > MachineIs( const Ptr< const Mox::Entity >& source,
                                    const Ptr< Mox::Entity >& sink, uint32_t start ) {
      Ptr< Machine > m( new Machine( source, sink, start ) );
      m->hasNotificationActiveIs( true );
      return m;
   }
   Machine( const Ptr< const Mox::Entity >& source, const Ptr< Mox::Entity >& sink,
            uint32_t start )
         : source_( source ), sink_( sink ), total_( start ) {}
   const Mox::Type* fwkType() const override { return &Mox::TypeImpl< Machine >::instance(); }

   Ptr< const Mox::Entity > source() const { return source_; }
   Ptr< Mox::Entity > sink() const { return sink_; }
   void poke() { ++pokes; }
   void add( const uint32_t& v ) { total_ += v; }
   bool initialized() const { return initialized_; }
   void initializedIs( bool v ) { initialized_ = v; }
   uint32_t total() const { return total_; }
   void tableIs( uint32_t k, const Mox::String& v ) { table_.set( k, v ); }
   void tableDel( uint32_t k ) { table_.del( k ); }
   const Table& table() const { return table_; }

   int pokes = 0;

 private:
   Ptr< const Mox::Entity > source_;
   Ptr< Mox::Entity > sink_;
   uint32_t total_;
   bool initialized_ = false;
   Table table_{ this, Mox::TypeImpl< Machine >::instance().attributeId( "table" ) };
};

Mox::Module testModule( "MoxTest", { &Mox::TypeImpl< Machine >::instance(),
                                     &Mox::TypeImpl< Leaf >::instance(),
                                     &Mox::TypeImpl< Pair >::instance() } );

}  // namespace MoxTest

namespace {

using namespace MoxTest;
using Mox::GenericValue;
using Mox::Ptr;
using ::testing::ElementsAre;

const Mox::Type& machineType() { return Mox::TypeImpl< Machine >::instance(); }
Mox::AttributeId idOf( const char* name ) { return machineType().attributeId( name ); }

std::vector< std::string > names( const std::vector< const Mox::Attribute* >& attrs ) {
   std::vector< std::string > out;
   for ( auto* a : attrs ) {
      out.push_back( a->name );
   }
   return out;
}

TEST( TypeRegistry, IdsFollowDeclarationAfterTheBase ) {
   EXPECT_EQ( machineType().firstOwnId(), 130u );
   EXPECT_EQ( idOf( "source" ), 130u );
   EXPECT_EQ( idOf( "table" ), 137u );
   EXPECT_EQ( idOf( "view" ), 138u );
   EXPECT_EQ( Mox::TypeImpl< Leaf >::instance().firstOwnId(), 258u );
   EXPECT_EQ( Mox::TypeImpl< Leaf >::instance().attributeId( "colour" ), 258u );
   EXPECT_EQ( Mox::TypeImpl< Pair >::instance().attributeId( "left" ), 2u );
   EXPECT_EQ( Mox::TypeImpl< Pair >::instance().attributeId( "right" ), 3u );
   EXPECT_EQ( Mox::TypeImpl< Mox::Dir >::instance().attributeId( "entityPtr" ), 266u );
   EXPECT_TRUE( Mox::TypeImpl< Pair >::instance().isValueType() );
   EXPECT_FALSE( machineType().isValueType() );
}

TEST( TypeRegistry, NamesAreLookedUpThroughTheBases ) {
   const auto& leaf = Mox::TypeImpl< Leaf >::instance();
   const auto& entity = Mox::TypeImpl< Mox::Entity >::instance();
   EXPECT_EQ( leaf.base(), &entity );
   EXPECT_NE( leaf.attributeId( "fullName" ), 0u );
   EXPECT_EQ( leaf.attributeId( "fullName" ), entity.attributeId( "fullName" ) );
   EXPECT_EQ( leaf.attribute( leaf.attributeId( "name" ) )->name, "name" );
   EXPECT_EQ( leaf.attributeId( "nosuch" ), 0u );
   EXPECT_EQ( leaf.attribute( 9999 ), nullptr );
   // Ids of a derived type never collide with its bases'.
   EXPECT_EQ( leaf.attribute( 258 )->name, "colour" );
}

TEST( TypeRegistry, AttributesByNameAreSorted ) {
   EXPECT_THAT( names( machineType().attributesByName() ),
                ElementsAre( "add", "initialized", "poke", "sink", "source", "spare", "table",
                             "total", "view" ) );
   EXPECT_THAT( names( Mox::TypeImpl< Leaf >::instance().attributesByName() ),
                ElementsAre( "colour", "size" ) );
}

TEST( TypeRegistry, ModulesMakeTypesReachableByName ) {
   EXPECT_EQ( Mox::moxTypeByName( "MoxTest::Machine" ), nullptr );
   Mox::moxModuleIs( &testModule );
   Mox::moxModuleIs( &testModule );   // idempotent
   EXPECT_EQ( Mox::moxTypeByName( "MoxTest::Machine" ), &machineType() );
   EXPECT_EQ( Mox::moxTypeByName( "MoxTest::Pair" ), &Mox::TypeImpl< Pair >::instance() );
   EXPECT_EQ( machineType().module(), &testModule );
   EXPECT_EQ( Mox::moxModule( "MoxTest" ), &testModule );
   EXPECT_EQ( testModule.type( "MoxTest::Leaf" ), &Mox::TypeImpl< Leaf >::instance() );
   EXPECT_EQ( Mox::moxTypeByName( "MoxTest::Nothing" ), nullptr );
   int seen = 0;
   for ( auto* m : Mox::moxModules() ) {
      seen += m == &testModule;
   }
   EXPECT_EQ( seen, 1 );
   // The framework's own types register when the library loads.
   EXPECT_EQ( Mox::moxTypeByName( "Mox::Dir" ), &Mox::TypeImpl< Mox::Dir >::instance() );
   EXPECT_EQ( Mox::moxTypeByName( "Mox::Entity" ), &Mox::TypeImpl< Mox::Entity >::instance() );
}

// ---- generic interface

struct GenericFixture : ::testing::Test {
   LeakCheck leaks;
   Ptr< Mox::Entity > in{ new Mox::Entity( "in" ) };
   Ptr< Mox::Entity > out{ new Mox::Entity( "out" ) };
   Ptr< Machine > m = Machine::MachineIs( in, out, 10 );
   Mox::PtrInterface* obj() { return m.ptr(); }
   int op( GenericValue& r, const char* attr, int code, const void* a = nullptr,
           const void* a2 = nullptr ) {
      return machineType().genericIfAttributeOp( r, obj(), idOf( attr ), code, a, a2 );
   }
};

TEST_F( GenericFixture, ScalarGetAndSet ) {
   GenericValue r;
   ASSERT_EQ( op( r, "initialized", Mox::genericOpGet ), Mox::genericDone );
   EXPECT_FALSE( r.get< bool >() );
   const bool yes = true;
   EXPECT_EQ( op( r, "initialized", Mox::genericOpSet, &yes ), Mox::genericDone );
   EXPECT_TRUE( m->initialized() );
   // A read-only scalar refuses set and leaves the value alone.
   const uint32_t v = 99;
   EXPECT_EQ( op( r, "total", Mox::genericOpSet, &v ), Mox::genericNotAllowed );
   EXPECT_EQ( op( r, "total", Mox::genericOpGet ), Mox::genericDone );
   EXPECT_EQ( r.get< uint32_t >(), 10u );
   EXPECT_EQ( op( r, "initialized", Mox::genericOpInvoke ), Mox::genericNotAllowed );
}

TEST_F( GenericFixture, HandlersAreInvokedOnlyByInvoke ) {
   GenericValue r;
   EXPECT_EQ( op( r, "poke", Mox::genericOpInvoke ), Mox::genericDone );
   EXPECT_EQ( m->pokes, 1 );
   EXPECT_EQ( op( r, "poke", Mox::genericOpGet ), Mox::genericNotAllowed );
   EXPECT_EQ( op( r, "poke", Mox::genericOpSet ), Mox::genericNotAllowed );
   EXPECT_EQ( m->pokes, 1 );
   const uint32_t five = 5;
   EXPECT_EQ( op( r, "add", Mox::genericOpInvoke, &five ), Mox::genericDone );
   EXPECT_EQ( m->total(), 15u );
}

TEST_F( GenericFixture, UnknownAndReservedAttributes ) {
   GenericValue r;
   EXPECT_EQ( machineType().genericIfAttributeOp( r, obj(), 200, Mox::genericOpGet ),
              Mox::genericNoSuchAttribute );
   EXPECT_EQ( machineType().genericIfAttributeOp( r, obj(), 129, Mox::genericOpGet ),
              Mox::genericNoSuchAttribute );
   EXPECT_EQ( op( r, "spare", Mox::genericOpGet ), Mox::genericNotAllowed );
   EXPECT_TRUE( r.empty() );
   // Through the untyped overload as well.
   EXPECT_EQ( machineType().genericIfAttributeOp( r, static_cast< void* >( m.ptr() ), 200,
                                                  Mox::genericOpGet ),
              Mox::genericNoSuchAttribute );
}

TEST_F( GenericFixture, InputsAndOutputsYieldNewReferences ) {
   GenericValue r;
   EXPECT_EQ( op( r, "source", Mox::genericOpGet ), Mox::genericDone );
   EXPECT_EQ( r.object().ptr(), in.ptr() );
   EXPECT_EQ( in->references(), 3u );   // in, the machine, the result
   EXPECT_EQ( op( r, "source", Mox::genericOpSet, &in ), Mox::genericNotAllowed );
   GenericValue o;
   EXPECT_EQ( op( o, "sink", Mox::genericOpGet ), Mox::genericDone );
   EXPECT_EQ( o.object().ptr(), out.ptr() );
   r.clear();
   o.clear();
   EXPECT_EQ( in->references(), 2u );
   EXPECT_EQ( out->references(), 2u );

   auto empty = Machine::MachineIs( nullptr, nullptr, 0 );
   EXPECT_EQ( machineType().genericIfAttributeOp( r, empty.ptr(), idOf( "source" ),
                                                  Mox::genericOpGet ),
              Mox::genericDone );
   EXPECT_FALSE( r.object() );
}

TEST_F( GenericFixture, BaseAttributesThroughADerivedType ) {
   Ptr< Leaf > leaf( new Leaf( "l1" ) );
   const auto& t = *leaf->fwkType();
   GenericValue r;
   EXPECT_EQ( t.genericIfAttributeOp( r, leaf.ptr(), t.attributeId( "name" ),
                                      Mox::genericOpGet ),
              Mox::genericDone );
   EXPECT_EQ( r.get< Mox::String >(), "l1" );
   EXPECT_EQ( t.genericIfAttributeOp( r, leaf.ptr(), t.attributeId( "size" ),
                                      Mox::genericOpGet ),
              Mox::genericDone );
   EXPECT_EQ( r.get< int >(), 3 );
   // An object of another type has none of the machine's attributes.
   EXPECT_EQ( machineType().genericIfAttributeOp( r, leaf.ptr(), idOf( "total" ),
                                                  Mox::genericOpGet ),
              Mox::genericNoSuchAttribute );
}

TEST_F( GenericFixture, CollectionOperations ) {
   GenericValue r;
   const uint32_t k1 = 1, k2 = 2, absent = 9;
   const Mox::String one( "one" ), two( "two" );
   auto rec = NotifieeRecorder< uint32_t >::NotifieeRecorderIs( m );
   EXPECT_EQ( op( r, "table", Mox::genericOpSet, &k1, &one ), Mox::genericDone );
   EXPECT_EQ( op( r, "table", Mox::genericOpSet, &k2, &two ), Mox::genericDone );
   EXPECT_THAT( rec->keys( idOf( "table" ) ), ElementsAre( 1u, 2u ) );

   EXPECT_EQ( op( r, "table", Mox::genericOpGet, &k2 ), Mox::genericDone );
   EXPECT_EQ( r.get< Mox::String >(), "two" );
   EXPECT_EQ( op( r, "table", Mox::genericOpGet, &absent ), Mox::genericDone );
   EXPECT_EQ( r.get< Mox::String >(), "" );
   EXPECT_EQ( op( r, "table", Mox::genericOpCount ), Mox::genericDone );
   EXPECT_EQ( r.get< size_t >(), 2u );
   EXPECT_EQ( op( r, "table", Mox::genericOpCountAlt ), Mox::genericDone );
   EXPECT_EQ( r.get< size_t >(), 0u );
   EXPECT_EQ( op( r, "table", Mox::genericOpExists, &k1 ), Mox::genericDone );
   EXPECT_TRUE( r.get< bool >() );
   EXPECT_EQ( op( r, "table", Mox::genericOpExists, &absent ), Mox::genericDone );
   EXPECT_FALSE( r.get< bool >() );

   EXPECT_EQ( op( r, "table", Mox::genericOpDel, &k1 ), Mox::genericDone );
   EXPECT_FALSE( m->table().contains( 1 ) );
   EXPECT_THAT( rec->keys( idOf( "table" ) ), ElementsAre( 1u, 2u, 1u ) );

   // Without setters the collection is read-only; key-less lookups refuse.
   EXPECT_EQ( op( r, "view", Mox::genericOpSet, &k1, &one ), Mox::genericNotAllowed );
   EXPECT_EQ( op( r, "view", Mox::genericOpDel, &k2 ), Mox::genericNotAllowed );
   EXPECT_EQ( op( r, "table", Mox::genericOpGet ), Mox::genericNotAllowed );
   EXPECT_EQ( op( r, "table", Mox::genericOpInvoke ), Mox::genericNotAllowed );
   EXPECT_EQ( m->table().size(), 1u );
}

TEST_F( GenericFixture, IteratorProtocol ) {
   for ( uint32_t k : { 4u, 1u, 3u, 2u } ) {
      m->tableIs( k, Mox::String( std::to_string( k * 10 ) ) );
   }
   auto it = machineType().genericIfIterator( obj(), idOf( "table" ) );
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
   EXPECT_FALSE( m->table().contains( 2 ) );
   EXPECT_EQ( m->table().size(), 3u );

   EXPECT_FALSE( machineType().genericIfIterator( obj(), idOf( "total" ) ) );
   EXPECT_FALSE( machineType().genericIfIterator( obj(), 300 ) );
}

TEST_F( GenericFixture, IteratorHoldsItsOwner ) {
   m->tableIs( 1, "x" );
   auto it = machineType().genericIfIterator( obj(), idOf( "table" ) );
   m = nullptr;   // the cursor keeps the machine alive
   ASSERT_TRUE( it->iterNonnull() );
   GenericValue v;
   it->iterObj( v );
   EXPECT_EQ( v.get< Mox::String >(), "x" );
   it.reset();
   EXPECT_EQ( Machine::moxAllocTrackTypeInfo_.liveObjects(), 0 );
}

TEST_F( GenericFixture, ConstructFromCtorArgsReleasesItsCopies ) {
   const Ptr< const Mox::Entity > source( in );
   const uint32_t start = 7;
   const void* args[] = { &source, &out, &start };
   GenericValue r;
   machineType().genericIfConstructFromCtorArgs( r, args );
   auto made = Mox::ptrCast< const Machine >( r.object() );
   ASSERT_TRUE( made );
   EXPECT_EQ( made->total(), 7u );
   EXPECT_EQ( made->source(), in );
   EXPECT_TRUE( made->hasNotificationActive() );
   // in: the fixture, `source`, two machines; out: the fixture, two machines.
   EXPECT_EQ( in->references(), 4u );
   EXPECT_EQ( out->references(), 3u );
   r.clear();
   made = nullptr;
   EXPECT_EQ( in->references(), 3u );
   EXPECT_EQ( out->references(), 2u );

   EXPECT_FALSE( Mox::TypeImpl< Leaf >::instance().constructible() );
   EXPECT_THROW( Mox::TypeImpl< Leaf >::instance().genericIfConstructFromCtorArgs( r, args ),
                 Mox::Exception );
}

TEST( GenericValueType, DefaultQueryHashAndConstruction ) {
   const auto& t = Mox::TypeImpl< Pair >::instance();
   Pair p;
   GenericValue r;
   EXPECT_EQ( t.genericIfAttributeOp( r, &p, 0, Mox::genericOpGet ), Mox::genericDone );
   EXPECT_TRUE( r.get< bool >() );
   const uint32_t three = 3;
   EXPECT_EQ( t.genericIfAttributeOp( r, &p, 2, Mox::genericOpSet, &three ), Mox::genericDone );
   EXPECT_EQ( p.l, 3u );
   EXPECT_EQ( t.genericIfAttributeOp( r, &p, 0, Mox::genericOpGet ), Mox::genericDone );
   EXPECT_FALSE( r.get< bool >() );
   EXPECT_EQ( t.genericIfAttributeOp( r, &p, 3, Mox::genericOpSet, &three ),
              Mox::genericNotAllowed );
   EXPECT_EQ( t.genericIfAttributeOp( r, &p, 4, Mox::genericOpGet ),
              Mox::genericNoSuchAttribute );

   EXPECT_TRUE( t.hashable() );
   EXPECT_EQ( t.genericIfHash( &p ), 93u );

   const uint32_t a = 1, b = 2;
   const void* args[] = { &a, &b };
   t.genericIfConstructFromCtorArgs( r, args );
   EXPECT_EQ( r.get< Pair >(), ( Pair{ 1, 2 } ) );
}

TEST( GenericValueType, HashOfAnUnhashableTypeThrows ) {
   const auto& t = Mox::TypeImpl< Plain >::instance();
   Plain p;
   EXPECT_FALSE( t.hashable() );
   try {
      t.genericIfHash( &p );
      FAIL() << "no exception";
   } catch ( const Mox::UnhashableTypeException& e ) {
      EXPECT_STREQ( e.what(), "type MoxTest::Plain is not hashable" );
   }
}

}  // namespace
