// The sweeps through the per-VNI index against the plain walk: over randomised leftover state, reached through
// every path that changes the output tables (a dead writer's tables taken over, write, remove, remove all,
// commit in place, the generic interface, removal during iteration), both remove the same records and write
// the same trace lines, and the index always lists exactly the records the walk finds.
#include "orbevpn/tx/SweepMode.h"
#include "tests/orbevpn/tx/TxTestSupport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LumenRoot.h"

#include <map>
#include <random>

namespace {

using namespace TxTest;

constexpr uint32_t vniCount = 10;   // VNIs 1..10
constexpr uint32_t macCount = 24;   // MAC slots per VNI
constexpr uint32_t vtepCount = 6;

EthAddr macOf( uint32_t i ) { return EthAddr( 0x02, 0, 0, 0, uint8_t( i >> 8 ), uint8_t( i ) ); }
IpAddr vtepOf( uint32_t i ) { return IpAddr::fromOctets( 10, 0, 1, uint8_t( 1 + i ) ); }

// Everything a run leaves: the tables, the bridge ids, and the export's trace as a multiset.
struct Outcome {
   std::vector< Host > hosts;
   std::set< VniVtepPair > floods;
   std::set< uint32_t > brIds;
   std::multiset< std::pair< int, std::string > > lines;
   bool operator==( const Outcome& ) const = default;
};

size_t countContaining( const Outcome& o, const std::string& a, const std::string& b ) {
   return size_t( std::count_if( o.lines.begin(), o.lines.end(), [ & ]( const auto& l ) {
      return l.second.find( a ) != std::string::npos && l.second.find( b ) != std::string::npos;
   } ) );
}

// One run of the scenario: the same seed gives the same operations in either mode.
class Scenario : public TxFixture {
 public:
   Scenario( SweepMode mode, uint32_t seed ) : mode_( mode ), rng_( seed ) {}
   void TestBody() override {}

   Outcome run() {
      SetUp();
      const SweepMode saved = sweepMode();
      sweepModeIs( mode_ );
      deadWriter();
      unattachedWrites();
      top->entityPtrIs( dir );   // takes the dead writer's tables over
      dir->entityPtrIs( hosts ), dir->entityPtrIs( floods ), dir->entityPtrIs( brIds );
      checkIndex();
      for ( int i = 0; i < 400; ++i ) {
         change();
         if ( i % 50 == 0 ) {
            checkIndex();
         }
      }
      checkIndex();
      controller();
      start();   // the stale-VNI sweep, then every VNI's full pass
      checkIndex();
      burst();
      checkIndex();
      Outcome o{ hostList(), floodSet(), brIdSet(), {} };
      for ( const auto& l : lines() ) o.lines.emplace( l.level, l.text );
      tx = nullptr;
      dir->entityPtrDelAll();
      sweepModeIs( saved );
      TearDown();
      return o;
   }

 private:
   uint32_t pick( uint32_t n ) { return uint32_t( rng_() % n ); }
   bool chance( uint32_t inN ) { return pick( inN ) == 0; }
   Host randomHost() {
      return host( macOf( pick( macCount ) ), 1 + pick( vniCount ), vtepOf( pick( vtepCount ) ), 1 + pick( 3 ) );
   }
   VniVtepPair randomFlood() { return flood( 1 + pick( vniCount ), vtepOf( pick( vtepCount ) ) ); }

   // An earlier exporter that writes at random and dies holding its tables.
   void deadWriter() {
      std::vector< Host > hs( 150 );
      for ( auto& h : hs ) h = randomHost();
      std::vector< VniVtepPair > fs( 30 );
      for ( auto& f : fs ) f = randomFlood();
      ASSERT_EQ( waitChild( startChild( [ & ] {
                    top->entityPtrIs( dir );
                    dir->entityPtrIs( hosts ), dir->entityPtrIs( floods ), dir->entityPtrIs( brIds );
                    hosts->hostKeysOfVni( Vni( 1 ) );   // its own index, which dies with it
                    for ( const Host& h : hs ) {
                       hosts->hostIs( h );
                       brIds->brIdListIs( brId( h.key().vni().value() ), true );
                    }
                    for ( const VniVtepPair& f : fs ) floods->floodEntryIs( FloodEntry( f ) );
                    for ( size_t i = 0; i < hs.size(); i += 7 ) hosts->hostDel( hs[ i ].key() );
                    return 0;
                 } ) ),
                 0 );
   }

   // Before attaching, in process memory: merged into the shared tables at the takeover, after an index
   // that knew them has been built, emptied by remove-all and refilled.
   void unattachedWrites() {
      for ( int i = 0; i < 20; ++i ) hosts->hostIs( randomHost() ), floods->floodEntryIs( FloodEntry( randomFlood() ) );
      hosts->hostKeysOfVni( Vni( 1 ) ), floods->floodEntryKeysOfVni( Vni( 1 ) );
      hosts->hostDelAll();
      floods->floodEntryDelAll();
      for ( int i = 0; i < 20; ++i ) hosts->hostIs( randomHost() ), floods->floodEntryIs( FloodEntry( randomFlood() ) );
   }

   // One change through one of the paths, chosen at random.
   void change() {
      const Mox::Type* ht = hosts->fwkType();
      const Mox::Type* ft = floods->fwkType();
      Mox::GenericValue r;
      switch ( pick( 9 ) ) {
       case 0: hosts->hostIs( randomHost() ); break;
       case 1: hosts->hostDel( randomHost().key() ); break;   // present or not
       case 2: {   // commit in place, of a new key or of one that is there
          const Host h = randomHost();
          Host* p = hosts->hostInPlace( h.key() );
          p->vtepAddrIs( h.vtepAddr() ), p->seqNoIs( h.seqNo() );
          hosts->hostCommit( p );
          break;
       }
       case 3: {
          const Host h = randomHost();
          ht->genericIfAttributeOp( r, hosts.ptr(), ht->attributeId( "host" ), Mox::genericOpSet, &h, nullptr );
          break;
       }
       case 4: {
          const MacVniPair k = randomHost().key();
          ht->genericIfAttributeOp( r, hosts.ptr(), ht->attributeId( "host" ), Mox::genericOpDel, &k, nullptr );
          break;
       }
       case 5: {   // removal during iteration, of the records of one VNI
          const Vni v( 1 + pick( vniCount ) );
          for ( auto it = hosts->hostIterConst(); it; ++it ) {
             if ( it.key().vni() == v && chance( 3 ) ) hosts->hostDel( it.key() );
          }
          break;
       }
       case 6: {   // the same through the generic iterator
          auto it = ht->genericIfIterator( hosts.ptr(), ht->attributeId( "host" ) );
          while ( it->iterNonnull() ) chance( 8 ) ? it->iterDel() : it->iterInc();
          break;
       }
       case 7: {
          const FloodEntry f( randomFlood() );
          chance( 2 ) ? floods->floodEntryIs( f )
                      : (void)ft->genericIfAttributeOp( r, floods.ptr(), ft->attributeId( "floodEntry" ),
                                                        Mox::genericOpSet, &f, nullptr );
          break;
       }
       case 8: {
          const VniVtepPair k = randomFlood();
          if ( chance( 2 ) ) {
             floods->floodEntryDel( k );
          } else if ( chance( 2 ) ) {
             ft->genericIfAttributeOp( r, floods.ptr(), ft->attributeId( "floodEntry" ), Mox::genericOpDel, &k,
                                       nullptr );
          } else {
             FloodEntry* p = floods->floodEntryInPlace( k );
             floods->floodEntryCommit( p );
          }
          break;
       }
      }
   }

   // The index lists, for every VNI, exactly the records a walk finds.
   void checkIndex() {
      std::map< uint32_t, std::set< MacVniPair > > walkedHosts;
      std::map< uint32_t, std::set< VniVtepPair > > walkedFloods;
      for ( auto it = hosts->hostIterConst(); it; ++it ) walkedHosts[ it.key().vni().value() ].insert( it.key() );
      for ( auto it = floods->floodEntryIterConst(); it; ++it ) {
         walkedFloods[ it.key().vni().value() ].insert( it.key() );
      }
      for ( uint32_t v = 1; v <= vniCount; ++v ) {
         const auto hk = hosts->hostKeysOfVni( Vni( v ) );
         const auto fk = floods->floodEntryKeysOfVni( Vni( v ) );
         EXPECT_EQ( hk.size(), walkedHosts[ v ].size() ) << "VNI " << v << ": a key listed twice or missing";
         EXPECT_EQ( std::set< MacVniPair >( hk.begin(), hk.end() ), walkedHosts[ v ] ) << "VNI " << v;
         EXPECT_EQ( fk.size(), walkedFloods[ v ].size() ) << "VNI " << v;
         EXPECT_EQ( std::set< VniVtepPair >( fk.begin(), fk.end() ), walkedFloods[ v ] ) << "VNI " << v;
      }
   }

   // The controller after the restart: VNIs 9 and 10 and one at random have vanished (their bridge ids,
   // left by the dead writer, make the stale-VNI sweep remove them); the rest learnt some MACs and VTEPs.
   void controller() {
      const uint32_t gone = 1 + pick( 8 );
      for ( uint32_t v = 1; v <= 8; ++v ) {
         if ( v == gone ) continue;
         auto s = addVni( v );
         for ( uint32_t m = 0; m < macCount; ++m ) {
            if ( chance( 2 ) ) s->macVtepTableIs( entry( macOf( m ), vtepOf( pick( vtepCount ) ), 1 + pick( 3 ) ) );
         }
         if ( chance( 4 ) ) continue;   // no flood list: all its flood entries go
         auto list = s->macVtepFloodListTableIs( bum );
         for ( uint32_t t = 0; t < vtepCount; ++t ) {
            if ( chance( 2 ) ) list->vtepIpFloodListIs( vtepOf( t ), chance( 2 ) );
         }
      }
   }

   // Leftovers written behind the machines' backs, then full passes and an explicit stale-VNI sweep, as a
   // burst of status changes runs them.
   void burst() {
      for ( int i = 0; i < 60; ++i ) {
         hosts->hostIs( randomHost() ), floods->floodEntryIs( FloodEntry( randomFlood() ) );
      }
      for ( uint32_t v = 1; v <= 8; ++v ) {
         if ( const auto c = child( v ) ) {
            c->handleHost();
            c->handleFloodList();
         }
      }
      cleanupStaleVniEntries( tx, { Vni( 9 ), Vni( 10 ), Vni( 1 + pick( vniCount ) ) } );
   }

   SweepMode mode_;
   std::mt19937 rng_;
   LumenRoot root_;
   Mox::Ptr< Mox::Dir > top = Mox::Dir::DirIs( "orbevpn" ), dir = Mox::Dir::DirIs( "export" );
};

TEST( SweepMode, IsProcessWideAndIndexByDefault ) {
   EXPECT_EQ( sweepMode(), SweepMode::index );
   sweepModeIs( SweepMode::walk );
   EXPECT_EQ( sweepMode(), SweepMode::walk );
   sweepModeIs( SweepMode::index );
   EXPECT_EQ( sweepModeFromName( "walk" ), SweepMode::walk );
   EXPECT_EQ( sweepModeFromName( "index" ), SweepMode::index );
   EXPECT_EQ( sweepModeFromName( "Index" ), std::nullopt );
}

TEST( SweepMode, IndexRemovesAndTracesWhatTheWalkDoesOverRandomLeftovers ) {
   size_t hostSweeps = 0, floodSweeps = 0, staleVniHosts = 0, staleVniFloods = 0;
   for ( uint32_t seed = 1; seed <= 12; ++seed ) {
      SCOPED_TRACE( "seed " + std::to_string( seed ) );
      const Outcome walk = Scenario( SweepMode::walk, seed ).run();
      const Outcome index = Scenario( SweepMode::index, seed ).run();
      EXPECT_EQ( walk.hosts, index.hosts );
      EXPECT_EQ( walk.floods, index.floods );
      EXPECT_EQ( walk.brIds, index.brIds );
      EXPECT_TRUE( walk.lines == index.lines ) << "the trace differs";
      hostSweeps += countContaining( index, "cleanupStaleHostEntries()", "Deleting stale host entry" );
      floodSweeps += countContaining( index, "cleanupStaleFloodListEntries()", "Deleting stale flood list entry" );
      staleVniHosts += countContaining( index, "cleanupStaleVniEntries(", "Deleting stale host entry" );
      staleVniFloods += countContaining( index, "cleanupStaleVniEntries(", "Deleting stale flood list entry" );
   }
   // The scenario reaches every removal each sweep can make.
   EXPECT_GT( hostSweeps, 0u );
   EXPECT_GT( floodSweeps, 0u );
   EXPECT_GT( staleVniHosts, 0u );
   EXPECT_GT( staleVniFloods, 0u );
}

}  // namespace
