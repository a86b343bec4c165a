// Named statistics counters.
#include "platform/mox/Counters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

namespace {

using ::testing::Contains;
using ::testing::Pair;

TEST( Counters, OneCounterPerNameSharedByEveryUser ) {
   Mox::Counter& a = Mox::counter( "moxTestB" );
   Mox::Counter& b = Mox::counter( std::string( "moxTestB" ) );
   EXPECT_EQ( &a, &b );
   EXPECT_EQ( a.name(), "moxTestB" );
   const uint64_t start = a.value();
   a.inc();
   b.inc( 4 );
   EXPECT_EQ( a.value(), start + 5 );
   Mox::counter( "moxTestA" ).inc();

   auto all = Mox::counters();
   EXPECT_TRUE( std::is_sorted( all.begin(), all.end() ) );
   EXPECT_THAT( all, Contains( Pair( "moxTestB", start + 5 ) ) );
   EXPECT_THAT( all, Contains( Pair( "moxTestA", ::testing::Ge( 1u ) ) ) );
}

TEST( Counters, IncrementsFromManyThreadsAddUp ) {
   Mox::Counter& c = Mox::counter( "moxTestThreads" );
   const uint64_t start = c.value();
   std::vector< std::thread > threads;
   for ( int t = 0; t < 4; ++t ) {
      // Each thread looks the counter up itself, racing the others.
      threads.emplace_back( [] {
         for ( int i = 0; i < 20000; ++i ) {
            Mox::counter( "moxTestThreads" ).inc();
         }
      } );
   }
   for ( auto& t : threads ) {
      t.join();
   }
   EXPECT_EQ( c.value(), start + 80000 );
}

}  // namespace
