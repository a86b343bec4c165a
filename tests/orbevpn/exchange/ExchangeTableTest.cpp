// HostTable and FloodTable in one process (a full table is not covered: too large to fill here).
#include "tests/orbevpn/exchange/ExchangeTestSupport.h"
#include "tests/platform/lumen/LumenTestSupport.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/TraceCapture.h"

#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>

using namespace ExchangeTest;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAreArray;

namespace {

template< class Side >
class ExchangeTableTest : public ::testing::Test {
 protected:
   ExchangeTableTest() { top->entityPtrIs( dir ); }
   const std::string path = std::string( "/lumen/" ) + Side::tableName;
   LumenRoot root;   // first: outlives every table
   Mox::Ptr< Mox::Dir > top = Mox::Dir::DirIs( "" ), dir = Mox::Dir::DirIs( "lumen" );
};

TYPED_TEST_SUITE( ExchangeTableTest, Sides );

// Sets every slot word of the current data segment to all ones: each slot reads as left mid-update.
void scribbleOverSlots( const LumenRoot& root, const std::string& flat ) {
   const std::string data = fmt::format( "{}@{}", flat, LumenTest::generationOf( root, flat ) );
   LumenTest::editFile( root.file( data ), []( uint8_t* p, size_t size ) {
      const size_t header = sizeof( Lumen::internal::DataHeader );
      ASSERT_GT( size, header );
      std::memset( p + header, 0xff, size - header );
   } );
}

}  // namespace

TYPED_TEST( ExchangeTableTest, EveryChangeCountsAndNotifiesOnce ) {
   using S = TypeParam;
   using Key = typename S::Key;
   using Entry = typename S::Entry;
   const Mox::Type& type = Mox::TypeImpl< typename S::Table >::instance();
   EXPECT_EQ( type.name(), S::typeName );
   EXPECT_EQ( type.attributeId( S::collection ), collectionId );
   EXPECT_EQ( type.attributeId( std::string( S::collection ) + "Control" ), controlId );
   auto t = Mox::ptrCast< typename S::Table >( this->dir->newEntity( S::typeName, S::tableName ) );
   ASSERT_TRUE( t );
   auto rec = NotifieeRecorder< Key >::NotifieeRecorderIs( t );
   // A handler reading the table sees the change already stored.
   std::vector< Entry > seen;
   rec->onEvent = [ & ]( Mox::AttributeId, const void* k ) {
      seen.push_back( S::get( *t, *static_cast< const Key* >( k ) ) );
   };
   const Counts before = counts< S >();
   S::write( *t, S::entry( 3 ) );
   S::write( *t, S::entry( 3 ) );   // unchanged, still notified
   S::write( *t, S::entry( 3, 7 ) );
   EXPECT_EQ( S::count( *t ), 1u );
   EXPECT_EQ( S::del( *t, S::key( 2 ) ), Entry() );   // absent: counted, not notified
   Entry* slot = S::inPlace( *t, S::key( 3 ) );
   ASSERT_NE( slot, nullptr );
   EXPECT_EQ( *slot, S::entry( 3, 7 ) );
   *slot = S::entry( 3, 9 );
   const Entry edited = *slot;
   S::commit( *t, slot );
   Entry* fresh = S::inPlace( *t, S::key( 5 ) );   // a new key comes in through its image
   EXPECT_EQ( fresh->key(), S::key( 5 ) );
   S::commit( *t, fresh );
   EXPECT_TRUE( S::exists( *t, S::key( 5 ) ) );
   EXPECT_EQ( S::get( *S::reader( "peer", this->path ), S::key( 3 ) ), edited );
   EXPECT_EQ( S::del( *t, S::key( 3 ) ), edited );
   EXPECT_EQ( counts< S >( before ), ( Counts{ 5, 2, 6 } ) );
   const auto k3 = Pair( collectionId, S::key( 3 ) );
   EXPECT_THAT( rec->events(), ElementsAre( k3, k3, k3, k3, Pair( collectionId, S::key( 5 ) ), k3 ) );
   EXPECT_THAT( seen, ElementsAre( S::entry( 3 ), S::entry( 3 ), S::entry( 3, 7 ), edited,
                                   Entry( S::key( 5 ) ), Entry() ) );

   // Grown past its first generation: removing every other entry while walking skips none, visits none twice.
   constexpr uint32_t n = 1500;
   for ( uint32_t i = 0; i < n; ++i ) S::write( *t, S::entry( i ) );
   rec->onEvent = nullptr, rec->clear();
   const Counts full = counts< S >();
   std::set< Key > visited;
   std::vector< Key > removed, kept;
   for ( auto it = type.genericIfIterator( t.ptr(), collectionId ); it->iterNonnull(); ) {
      Mox::GenericValue k, v;
      it->iterKey( k );
      it->iterObj( v );
      EXPECT_EQ( v.get< Entry >(), S::get( *t, k.get< Key >() ) );
      EXPECT_TRUE( visited.insert( k.get< Key >() ).second ) << k.get< Key >();
      ( visited.size() % 2 ? removed : kept ).push_back( k.get< Key >() );
      visited.size() % 2 ? it->iterDel() : it->iterInc();
   }
   EXPECT_EQ( visited.size(), n );
   EXPECT_EQ( S::count( *t ), kept.size() );
   EXPECT_THAT( rec->keys( collectionId ), ElementsAreArray( removed ) );
   EXPECT_EQ( counts< S >( full ), ( Counts{ 0, removed.size(), removed.size() } ) );
   rec->clear();
   S::delAll( *t );
   S::delAll( *t );
   EXPECT_EQ( counts< S >( full ), ( Counts{ 0, n, n } ) );
   EXPECT_THAT( rec->keys( collectionId ), UnorderedElementsAreArray( kept ) );
   EXPECT_EQ( S::count( *t ), 0u );
}

TYPED_TEST( ExchangeTableTest, AttachesOnlyOnceAndTracesAttachAndOrphan ) {
   using S = TypeParam;
   using Line = TraceCapture::Line;
   const std::string path = this->path;
   TraceCapture capture( "OrbEvpnLumen/5" );
   auto t = S::make( S::tableName );
   EXPECT_EQ( S::control( *t )->mountStatus(), Lumen::MountStatus::unmounted );
   S::write( *t, S::entry( 1 ) );   // kept in the process until attached
   this->dir->entityPtrIs( t );
   EXPECT_THAT( capture.lines(), Contains( Line{ "OrbEvpnLumen", 5, "old: new:" + path } ) );
   EXPECT_TRUE( S::control( *t )->mountStatus() == Lumen::MountStatus::mounted && t->path() == path );
   const auto initialized = ThrowsMessage< Mox::Exception >( "Entity " + path + " already initialized" );
   EXPECT_THAT( [ & ] { t->handleParent( this->dir ); }, initialized );
   auto other = Mox::Dir::DirIs( "other" );
   this->top->entityPtrIs( other );
   EXPECT_THAT( [ & ] { other->entityPtrIs( t ); },
                ThrowsMessage< Mox::Exception >( std::string( "Entity /other/" ) + S::tableName +
                                                 " already initialized" ) );
   EXPECT_EQ( other->entityPtr( S::tableName ), nullptr );
   S::write( *t, S::entry( 2 ) );
   {
      // A reader sees the content and refuses every change.
      auto r = S::reader( S::tableName, path );
      EXPECT_EQ( S::get( *r, S::key( 1 ) ), S::entry( 1 ) );
      auto rec = NotifieeRecorder< typename S::Key >::NotifieeRecorderIs( r );
      const Counts before = counts< S >();
      const typename S::Entry local = S::entry( 3 );
      const auto refused = ThrowsMessage< Mox::Exception >(
         AllOf( HasSubstr( S::typeName ), HasSubstr( path ), HasSubstr( "read-only" ) ) );
      EXPECT_THAT( [ & ] { S::write( *r, S::entry( 2 ) ); }, refused );
      EXPECT_THAT( [ & ] { S::del( *r, S::key( 1 ) ); }, refused );
      EXPECT_THAT( [ & ] { S::delAll( *r ); }, refused );
      EXPECT_THAT( [ & ] { S::inPlace( *r, S::key( 1 ) ); }, refused );
      EXPECT_THAT( [ & ] { S::commit( *r, &local ); }, refused );
      EXPECT_TRUE( counts< S >( before ) == ( Counts{ 0, 0, 0 } ) && rec->events().empty() && S::count( *r ) == 2u );
   }

   capture.clear();
   this->dir->entityPtrDel( S::tableName );
   EXPECT_THAT( capture.lines(), Contains( Line{ "OrbEvpnLumen", 5, path + " is now an orphan" } ) );
   EXPECT_EQ( S::control( *t )->mountStatus(), Lumen::MountStatus::unmounted );
   EXPECT_THAT( [ & ] { this->dir->entityPtrIs( t ); }, initialized );
   // The content stays, in the process and in shared memory for the next writer.
   EXPECT_EQ( S::get( *t, S::key( 2 ) ), S::entry( 2 ) );
   {
      auto peer = S::reader( "peer", path );
      EXPECT_TRUE( S::count( *peer ) == 2u && S::control( *peer )->mountStatus() == Lumen::MountStatus::writerGone );
   }
   TraceCapture teardown( "OrbEvpnLumen/2" );
   t = nullptr;
   EXPECT_THAT( teardown.texts( "OrbEvpnLumen" ), ElementsAre( "deleting state", "deleting state" ) );
}

TYPED_TEST( ExchangeTableTest, TheLastReferenceIsHandedToAControlHeldElsewhere ) {
   using S = TypeParam;
   const auto& record = S::Table::moxAllocTrackTypeInfo_;
   LeakCheck leaks;
   const int64_t before = record.liveObjects();
   auto t = S::make( "z" );
   S::write( *t, S::entry( 4 ) );
   auto control = S::control( *t );
   auto* raw = t.ptr();
   t = nullptr;
   ASSERT_EQ( record.liveObjects(), before + 1 ) << "table freed under its control";
   EXPECT_TRUE( control->entity().ptr() == static_cast< Mox::Entity* >( raw ) && !S::control( *raw ) &&
                raw->notifieeList()->size() == 0u );
   EXPECT_EQ( S::get( *raw, S::key( 4 ) ), S::entry( 4 ) );
   control = nullptr;
   EXPECT_EQ( record.liveObjects(), before );
   {
      // The control setter notifies only a real change.
      auto y = S::make( "y" );
      auto rec = NotifieeRecorder< typename S::Key >::NotifieeRecorderIs( y );
      const auto first = S::control( *y ), second = MoxLumen::CollectionControl::CollectionControlIs();
      S::controlIs( *y, first );
      S::controlIs( *y, second );
      S::controlIs( *y, second );
      EXPECT_EQ( S::control( *y ), second );
      EXPECT_THAT( rec->events(), ElementsAre( Pair( controlId, typename S::Key() ) ) );
   }
   EXPECT_EQ( record.liveObjects(), before );   // nobody else held the control: both went at once
   EXPECT_THAT( leaks.leaks(), IsEmpty() );
}

TYPED_TEST( ExchangeTableTest, CorruptionStopsTheProcessUnlessTheHandlerThrows ) {
   using S = TypeParam;
   auto t = S::make( S::tableName );
   this->dir->entityPtrIs( t );
   S::write( *t, S::entry( 1 ) );
   scribbleOverSlots( this->root, std::string( "lumen." ) + S::tableName );
   EXPECT_DEATH( S::write( *t, S::entry( 2 ) ),
                 "shared table corruption: Lumen table " + this->path + ": slot" );
   t->corruptionHandlerIs(
      []( const std::string& m ) { std::fprintf( stderr, "handler: %s\n", m.c_str() ); } );
   const std::string died =
      "handler: Lumen table " + this->path + ": slot [0-9]+ was left mid-update\nin no man's land\n";
   const typename S::Entry local = S::entry( 3 );
   EXPECT_DEATH( S::write( *t, S::entry( 2 ) ), died );
   EXPECT_DEATH( S::del( *t, S::key( 1 ) ), died );
   EXPECT_DEATH( S::commit( *t, &local ), died );
   // Removing everything must not end quietly with the count still saying 1.
   EXPECT_DEATH( S::delAll( *t ),
                 "handler: Lumen table " + this->path + ": [^\n]*\nin no man's land\n" );

   std::vector< std::string > handled;
   t->corruptionHandlerIs( [ & ]( const std::string& m ) {
      handled.push_back( m );
      throw std::runtime_error( "stop" );
   } );
   auto rec = NotifieeRecorder< typename S::Key >::NotifieeRecorderIs( t );
   const Counts before = counts< S >();
   EXPECT_THROW( S::write( *t, S::entry( 2 ) ), std::runtime_error );
   EXPECT_THROW( S::del( *t, S::key( 1 ) ), std::runtime_error );
   EXPECT_TRUE( rec->events().empty() && counts< S >( before )[ 2 ] == 0u );
   ASSERT_EQ( handled.size(), 2u );
   EXPECT_THAT( handled[ 0 ], HasSubstr( "Lumen table " + this->path + ": slot" ) );
}

// A reader table reports its feed head and whether a dispatch is owed; a writer table has neither.
TYPED_TEST( ExchangeTableTest, AReaderTableReportsTheFeedHeadAndAPendingDispatch ) {
   using S = TypeParam;
   auto w = S::make( S::tableName );
   this->dir->entityPtrIs( w );
   auto r = S::reader( "readerSide", this->path );
   r->dispatch();
   EXPECT_FALSE( r->dispatchPending() );
   EXPECT_EQ( w->feedHead(), 0u );
   EXPECT_FALSE( w->dispatchPending() );
   const uint64_t head = r->feedHead();

   S::write( *w, S::entry( 1 ) );
   EXPECT_TRUE( r->feedHead() == head + 1 && r->dispatchPending() );
   r->dispatch();
   EXPECT_FALSE( r->dispatchPending() );
   EXPECT_TRUE( S::exists( *r, S::key( 1 ) ) );
   S::del( *w, S::key( 1 ) );
   EXPECT_TRUE( r->feedHead() == head + 2 && r->dispatchPending() );
}
