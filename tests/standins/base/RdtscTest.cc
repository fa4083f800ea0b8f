#include "standins/InChild.h"

#include <Quarn/base/Rdtsc.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using Quarn::Rdtsc;
using namespace std::chrono_literals;

namespace {

std::uint64_t fakeTicks = 0;
int reads = 0;

std::uint64_t fakeSource() {
   ++reads;
   return fakeTicks;
}

class RdtscTest : public ::testing::Test {
 protected:
   void TearDown() override { Rdtsc::sourceForTestIs( nullptr, 0 ); }
};

} // namespace

TEST_F( RdtscTest, AReplacedSourceBringsItsRate ) {
   struct Row {
      double rate;
      std::uint64_t in500Usec;
   };
   for( auto const& [ rate, in500Usec ] : { Row{ 1e9, 500'000 }, Row{ 2.4e9, 1'200'000 },
                                            Row{ 2001, 1 }, Row{ 3999, 1 }, Row{ 1000, 0 } } ) {
      SCOPED_TRACE( rate );
      Rdtsc::sourceForTestIs( &fakeSource, rate );
      EXPECT_EQ( Rdtsc::calibrationRate(), rate );
      EXPECT_EQ( Rdtsc::ticksIn500Usec(), in500Usec );
      EXPECT_EQ( Rdtsc::ticksIn500Usec(), in500Usec );
   }
}

// Measured is once in a process, so each attempt has one of its own, and forks a little later. (It
// tells nothing where a case before it has measured; ctest gives each case a process.)
TEST_F( RdtscTest, AChildForkedWhileAnotherThreadMeasuresCanMeasure ) {
   auto const attempt = []( std::chrono::microseconds after ) {
      std::atomic<bool> measuring{ false };
      std::atomic<bool> forked{ false };
      std::jthread const thread( [ & ] {
         measuring = true;
         static_cast<void>( Rdtsc::ticksIn500Usec() );
         forked.wait( false ); // one that has ended would be lost in the child
      } );
      while( !measuring ) {
      }
      auto const begin = std::chrono::steady_clock::now();
      while( std::chrono::steady_clock::now() - begin < after ) {
      }
      int const status = inChild(
            [] { return Rdtsc::ticksIn500Usec() > 0 && Rdtsc::calibrationRate() > 0 ? 0 : 1; } );
      forked = true;
      forked.notify_one();
      return status;
   };
   for( int after = 0; after < 500; after += 25 ) {
      ASSERT_EQ( inChild( [ & ] { return attempt( after * 1us ) == 0 ? 0 : 1; } ), 0 );
   }
}

TEST_F( RdtscTest, EachReadAsksAReplacedSourceOnce ) {
   Rdtsc::sourceForTestIs( &fakeSource, 1e9 );
   reads = 0;
   fakeTicks = 42;
   EXPECT_EQ( Rdtsc::read(), 42U );
   fakeTicks = 41;
   EXPECT_EQ( Rdtsc::read(), 41U );
   static_cast<void>( Rdtsc::ticksIn500Usec() );
   EXPECT_EQ( reads, 2 );
   Rdtsc::sourceForTestIs( nullptr, 0 );
   static_cast<void>( Rdtsc::read() );
   EXPECT_EQ( reads, 2 );
}

TEST_F( RdtscTest, AllThreadsSeeOneMeasuredRateAndItComesBackAfterAReplacement ) {
   double rates[ 4 ] = {};
   std::uint64_t ticks[ 4 ] = {};
   {
      std::vector<std::jthread> threads;
      threads.reserve( 4 );
      for( int i = 0; i < 4; ++i ) {
         threads.emplace_back( [ &, i ] {
            ticks[ i ] = Rdtsc::ticksIn500Usec();
            rates[ i ] = Rdtsc::calibrationRate();
         } );
      }
   }
   double const rate = Rdtsc::calibrationRate();
   // Slower than a million ticks a second no counter of this kind is.
   EXPECT_GT( rate, 1e6 );
   for( int i = 0; i < 4; ++i ) {
      EXPECT_EQ( rates[ i ], rate );
      EXPECT_EQ( ticks[ i ], static_cast<std::uint64_t>( rate / 2000 ) );
   }
   Rdtsc::sourceForTestIs( &fakeSource, 5e6 );
   EXPECT_EQ( Rdtsc::ticksIn500Usec(), 2500U );
   Rdtsc::sourceForTestIs( nullptr, 0 );
   EXPECT_EQ( Rdtsc::calibrationRate(), rate );
   EXPECT_EQ( Rdtsc::ticksIn500Usec(), ticks[ 0 ] );
}
