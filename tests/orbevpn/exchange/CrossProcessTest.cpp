// A writer table in a child, a reader here: each change is one notification, read back new. Waits are bounded.
#include "tests/orbevpn/exchange/ExchangeTestSupport.h"
#include "tests/support/ChildProcess.h"

#include <signal.h>

#include <tuple>
#include <utility>
#include <vector>

using namespace ExchangeTest;
using ::testing::UnorderedElementsAreArray;

namespace {

struct Command {
   char op = 0;   // 'a' attach, 'w' write, 'd' remove, 'D' remove all, 'q' leave
   uint32_t n = 0, v = 0;
};

// The child: a writer table in /lumen, acknowledging each command once done.
template< class S >
int writerChild( int in, int out ) {
   auto top = Mox::Dir::DirIs( "" ), dir = Mox::Dir::DirIs( "lumen" );
   top->entityPtrIs( dir );
   Mox::Ptr< typename S::Table > t;
   for ( Command c; ::read( in, &c, sizeof c ) == ssize_t( sizeof c ); ) {
      switch ( c.op ) {
       case 'a': dir->entityPtrIs( t = S::make( S::tableName ) ); break;
       case 'w': S::write( *t, S::entry( c.n, c.v ) ); break;
       case 'd': S::del( *t, S::key( c.n ) ); break;
       case 'D': S::delAll( *t ); break;
       case 'q': dir->entityPtrDelAll(), t = nullptr; break;   // leaving cleanly detaches
       default: return 5;
      }
      if ( ::write( out, &c.op, 1 ) != 1 || c.op == 'q' ) {
         return c.op == 'q' ? 0 : 4;
      }
   }
   return 3;
}

template< class Side >
class ExchangeCrossProcess : public ::testing::Test {};
TYPED_TEST_SUITE( ExchangeCrossProcess, Sides );

}  // namespace

TYPED_TEST( ExchangeCrossProcess, AReaderHereSeesEveryChangeOfAWriterInAChild ) {
   using S = TypeParam;
   using Key = typename S::Key;
   using Entry = typename S::Entry;
   LumenRoot root;
   ::signal( SIGPIPE, SIG_IGN );
   int up[ 2 ], down[ 2 ];
   ASSERT_EQ( ::pipe( up ) | ::pipe( down ), 0 );
   const pid_t pid = startChild( [ & ] {   // leaves with _exit: no destructors, no gtest output
      ::close( up[ 0 ] ), ::close( down[ 1 ] );
      return writerChild< S >( down[ 0 ], up[ 1 ] );
   } );
   ASSERT_GT( pid, 0 );
   ::close( up[ 1 ] ), ::close( down[ 0 ] );
   struct Reap {
      pid_t pid;
      ~Reap() {
         if ( pid > 0 && ::kill( pid, SIGKILL ) == 0 ) ::waitpid( pid, nullptr, 0 );
      }
   } child{ pid };

   auto t = S::reader( S::tableName, std::string( "/lumen/" ) + S::tableName );
   auto control = S::control( *t );
   ASSERT_TRUE( control );
   EXPECT_EQ( control->mountStatus(), Lumen::MountStatus::waitingForWriter );
   // What the handler read: key, presence, value, count.
   using Seen = std::tuple< Key, bool, Entry, uint32_t >;
   std::vector< Seen > seen;
   auto rec = NotifieeRecorder< Key >::NotifieeRecorderIs( t );
   rec->onEvent = [ & ]( Mox::AttributeId id, const void* k ) {
      EXPECT_EQ( id, collectionId );
      const Key key = *static_cast< const Key* >( k );
      seen.emplace_back( key, S::exists( *t, key ), S::get( *t, key ), S::count( *t ) );
   };
   std::vector< bool > quiesced;
   const auto quiescedId =
      Mox::TypeImpl< MoxLumen::CollectionControl >::instance().attributeId( "quiesced" );
   auto controlRec = NotifieeRecorder< int >::NotifieeRecorderIs( control );
   controlRec->onEvent = [ & ]( Mox::AttributeId id, const void* ) {
      if ( id == quiescedId ) quiesced.push_back( control->quiesced() );
   };
   const Counts before = counts< S >();

   // Sends a command, waits for it to be done, then for `n` notifications; returns them.
   auto stepSeen = [ & ]( Command c, size_t n ) {
      char ack = 0;
      EXPECT_EQ( ::write( down[ 1 ], &c, sizeof c ), ssize_t( sizeof c ) );
      EXPECT_TRUE( readable( up[ 0 ], 5000 ) && ::read( up[ 0 ], &ack, 1 ) == 1 && ack == c.op )
         << "the writer did not do " << c.op;
      const size_t from = seen.size();
      EXPECT_TRUE( dispatchUntil( *t, [ & ] { return seen.size() >= from + n; } ) )
         << "saw " << seen.size() - from << " of " << n << " notifications";
      return std::vector< Seen >( seen.begin() + long( from ), seen.end() );
   };
   // The same, expecting `want` (in any order).
   auto step = [ & ]( Command c, std::vector< Seen > want ) {
      EXPECT_THAT( stepSeen( c, want.size() ), UnorderedElementsAreArray( want ) );
   };
   step( { 'a' }, {} );
   ASSERT_TRUE( dispatchUntil( *t, [ & ] { return control->mountStatus() == Lumen::MountStatus::mounted; } ) )
      << Lumen::mountStatusName( control->mountStatus() );
   // Meeting a writer means a full rescan, framed by quiesce on and off.
   EXPECT_TRUE( !quiesced.empty() && quiesced.front() && !quiesced.back() && !control->quiesced() );
   EXPECT_TRUE( seen.empty() );

   const Entry none;
   step( { 'w', 1 }, { { S::key( 1 ), true, S::entry( 1 ), 1 } } );
   step( { 'w', 2 }, { { S::key( 2 ), true, S::entry( 2 ), 2 } } );
   // A rewrite is reported only if it changes the record (a flood entry is its key alone).
   const bool rewriteChanges = !( S::entry( 1, 5 ) == S::entry( 1 ) );
   step( { 'w', 1, 5 }, rewriteChanges ? std::vector< Seen >{ { S::key( 1 ), true, S::entry( 1, 5 ), 2 } }
                                       : std::vector< Seen >{} );
   step( { 'd', 2 }, { { S::key( 2 ), false, none, 1 } } );
   step( { 'd', 2 }, {} );   // absent: nothing crosses (the next step would show it)
   step( { 'w', 3 }, { { S::key( 3 ), true, S::entry( 3 ), 2 } } );
   // Each handler reads the state it was told of: its own key gone, the other not yet.
   const auto both = stepSeen( { 'D' }, 2 );
   ASSERT_EQ( both.size(), 2u );
   EXPECT_THAT( ( std::vector< Key >{ std::get< 0 >( both[ 0 ] ), std::get< 0 >( both[ 1 ] ) } ),
                UnorderedElementsAreArray( { S::key( 1 ), S::key( 3 ) } ) );
   EXPECT_TRUE( std::get< 3 >( both[ 0 ] ) == 1u && std::get< 3 >( both[ 1 ] ) == 0u );
   for ( const auto& [ key, exists, value, count ] : both ) EXPECT_TRUE( !exists && value == none );

   // What the writer leaves behind stays readable after it is gone.
   step( { 'w', 4 }, { { S::key( 4 ), true, S::entry( 4 ), 1 } } );
   step( { 'q' }, {} );
   EXPECT_TRUE( dispatchUntil( *t, [ & ] { return control->mountStatus() == Lumen::MountStatus::writerGone; } ) )
      << Lumen::mountStatusName( control->mountStatus() );
   EXPECT_EQ( S::get( *t, S::key( 4 ) ), S::entry( 4 ) );
   EXPECT_EQ( waitChild( std::exchange( child.pid, 0 ) ), 0 );
   // No late or repeated deliveries; the reader counts only what it delivered.
   dispatchUntil( *t, [] { return false; }, 300 );
   const uint64_t told = rewriteChanges ? 8 : 7;
   EXPECT_EQ( seen.size(), told );
   EXPECT_EQ( counts< S >( before ), ( Counts{ 0, 0, told } ) );
   ::close( up[ 0 ] ), ::close( down[ 1 ] );
}
