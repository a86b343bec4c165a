// Churn of one table against an oracle, with a reader in another process;
// LUMEN_CHURN_SECONDS sets a longer soak (`make soak`).
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <signal.h>
#include <map>
#include <vector>

using namespace LumenTest;

namespace {

using Oracle = std::map< MacKey, HostRec >;

double churnSeconds() {
   const char* s = std::getenv( "LUMEN_CHURN_SECONDS" );
   return s ? std::atof( s ) : 2.0;
}

void expectEqual( const Lumen::Writer< HostRec >& table, const Oracle& oracle, uint64_t step ) {
   ASSERT_EQ( table.count(), oracle.size() ) << "step " << step;
   ASSERT_TRUE( contentsOf( table ) == oracle ) << "step " << step;
   table.sanityCheck();
}

// "Remove one host, add a new one": tombstones no insert reuses, so the
// writer keeps sweeping them in place while it inserts.
void fifoChurn( Lumen::Writer< HostRec >& table, uint32_t hosts, uint32_t cycles ) {
   Oracle oracle;
   for ( uint32_t n = 0; n < hosts; ++n ) {
      table.write( oracle[ MacKey::of( n ) ] = HostRec::of( n, n ) );
   }
   for ( uint32_t c = 0; c < cycles; ++c ) {
      ASSERT_TRUE( table.remove( MacKey::of( c ) ).has_value() ) << "cycle " << c;
      oracle.erase( MacKey::of( c ) );
      uint32_t fresh = hosts + c;
      table.write( oracle[ MacKey::of( fresh ) ] = HostRec::of( fresh, c ) );
      if ( c % 1999 == 0 ) {
         expectEqual( table, oracle, c );
      }
   }
   expectEqual( table, oracle, cycles );
}

}  // namespace

TEST( LumenChurn, RemoveOneAddOneSweepsTombstonesWithoutLosingTheTable ) {
   LumenRoot root;
   {
      Lumen::Writer< HostRec > unattached;
      fifoChurn( unattached, 500, 20000 );
   }
   Lumen::Writer< HostRec > attached;
   attached.attach( "/churn/fifo" );
   fifoChurn( attached, 500, 20000 );
}

TEST( LumenChurn, RandomChurnMatchesTheOracleWhileAnotherProcessReads ) {
   LumenRoot root;
   Lumen::Options options;
   options.initialCapacity = 64;
   Lumen::Writer< HostRec > table( HostRec{}, options );
   table.attach( "/churn/random" );

   pid_t reader = startChild( [] {
      Lumen::Reader< HostRec > r( "/churn/random" );
      auto until = std::chrono::steady_clock::now() + std::chrono::seconds( 600 );
      while ( std::chrono::steady_clock::now() < until ) {
         for ( auto e = r.nextShared(); e; e = r.nextShared( e->second ) ) {
            if ( !e->first.consistent() ) {
               return 1;
            }
         }
         for ( uint32_t n = 0; n < 64; ++n ) {
            HostRec h = r.lookupShared( MacKey::of( n ) );
            if ( !( h == HostRec{} ) && !h.consistent() ) {
               return 2;
            }
         }
      }
      return 0;
   } );

   std::mt19937 rng( 12345 );
   Oracle oracle;
   std::vector< uint32_t > live;   // keys in the oracle, for removal picks
   uint32_t nextKey = 0;
   auto deadline = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds( int64_t( churnSeconds() * 1000 ) );
   uint64_t step = 0;
   for ( ; std::chrono::steady_clock::now() < deadline || step < 50000; ++step ) {
      bool growing = ( step / 20000 ) % 2 == 0;
      uint32_t dice = rng() % 100;
      if ( dice < ( growing ? 45u : 20u ) || live.empty() ) {
         uint32_t n = nextKey++;
         table.write( oracle[ MacKey::of( n ) ] = HostRec::of( n, uint32_t( step ) ) );
         live.push_back( n );
      } else if ( dice < 65 ) {
         uint32_t n = live[ rng() % live.size() ];
         table.write( oracle[ MacKey::of( n ) ] = HostRec::of( n, uint32_t( step ) ) );
      } else {
         size_t pick = rng() % live.size();
         uint32_t n = live[ pick ];
         live[ pick ] = live.back();
         live.pop_back();
         auto removed = table.remove( MacKey::of( n ) );
         ASSERT_TRUE( removed.has_value() ) << "step " << step;
         ASSERT_EQ( *removed, oracle[ MacKey::of( n ) ] ) << "step " << step;
         oracle.erase( MacKey::of( n ) );
      }
      if ( step % 4999 == 0 ) {
         expectEqual( table, oracle, step );
      }
   }
   expectEqual( table, oracle, step );
   ::kill( reader, SIGTERM );
   int status = waitChild( reader );
   EXPECT_TRUE( status == 0 || status == 128 + SIGTERM ) << "reader saw a torn record: " << status;
}
