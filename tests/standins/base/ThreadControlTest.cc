#include "standins/InChild.h"

#include <Quarn/base/RefCount.h>
#include <Quarn/base/ThreadControl.h>

#include <atomic>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

using Quarn::ThreadControl;
using Quarn::Impl::RefCount;

namespace {

std::vector<bool> hookCalls;

// Restores the start state whatever a test did.
class ThreadControlTest : public ::testing::Test {
 protected:
   void SetUp() override { hookCalls.clear(); }
   void TearDown() override {
      Quarn::Impl::threadSafePointerIsFnIs( nullptr );
      ThreadControl::threadSafePointerIs( true );
   }
};

} // namespace

TEST_F( ThreadControlTest, ModeStartsOnAndItsHookRunsOncePerChange ) {
   EXPECT_TRUE( ThreadControl::threadSafePointer() );
   Quarn::Impl::threadSafePointerIsFnIs( []( bool on ) {
      EXPECT_EQ( ThreadControl::threadSafePointer(), on );
      hookCalls.push_back( on );
   } );
   for( bool const on : { true, false, false, true, true, false } ) {
      ThreadControl::threadSafePointerIs( on );
      EXPECT_EQ( ThreadControl::threadSafePointer(), on );
   }
   EXPECT_EQ( hookCalls, ( std::vector<bool>{ false, true, false } ) );

   Quarn::Impl::threadSafePointerIsFnIs( nullptr );
   ThreadControl::threadSafePointerIs( true );
   EXPECT_EQ( hookCalls.size(), 3U );
}

TEST_F( ThreadControlTest, CountsCarryOverBetweenTheModes ) {
   RefCount count( 1 );
   count.increment();
   ThreadControl::threadSafePointerIs( false );
   count.increment();
   EXPECT_EQ( count.value(), 3U );
   EXPECT_TRUE( count.decrementUnlessLast() );
   EXPECT_FALSE( count.decrement() );
   EXPECT_FALSE( count.decrementUnlessLast() );
   ThreadControl::threadSafePointerIs( true );
   EXPECT_FALSE( count.decrementUnlessLast() );
   EXPECT_EQ( count.value(), 1U );
   EXPECT_TRUE( count.decrement() );
}

TEST_F( ThreadControlTest, ExactlyOneThreadDropsTheLastReference ) {
   constexpr int threadCount = 4;
   for( int round = 0; round < 200; ++round ) {
      RefCount count( threadCount );
      // Plain data, so that a missing order between the drops shows under the thread sanitizer.
      int written[ threadCount ] = {};
      std::atomic<int> lasts{ 0 };
      std::vector<std::jthread> threads;
      threads.reserve( threadCount );
      for( int i = 0; i < threadCount; ++i ) {
         threads.emplace_back( [ &, i ] {
            count.increment();
            written[ i ] = 1;
            EXPECT_TRUE( count.decrementUnlessLast() );
            if( !count.decrementUnlessLast() && count.decrement() ) {
               ++lasts;
               EXPECT_EQ( written[ 0 ] + written[ 1 ] + written[ 2 ] + written[ 3 ], threadCount );
            }
         } );
      }
      threads.clear();
      EXPECT_EQ( lasts, 1 );
   }
}

TEST_F( ThreadControlTest, OnlyTheThreadOfMainIsTheMainThread ) {
   EXPECT_TRUE( Quarn::isMainThread() );
   EXPECT_EQ( Quarn::gettid(), ::getpid() );
   std::jthread( [] {
      EXPECT_FALSE( Quarn::isMainThread() );
      EXPECT_EQ( Quarn::gettid(), ::syscall( SYS_gettid ) );
      EXPECT_EQ( Quarn::gettid(), ::syscall( SYS_gettid ) );
   } ).join();
}

TEST_F( ThreadControlTest, AForkedChildHasAnIdentityOfItsOwn ) {
   std::jthread( [] {
      EXPECT_FALSE( Quarn::isMainThread() );
      EXPECT_EQ( inChild( [] {
                    return Quarn::isMainThread() && Quarn::gettid() == ::getpid() ? 0 : 1;
                 } ),
                 0 );
      EXPECT_FALSE( Quarn::isMainThread() );
   } ).join();
}

TEST_F( ThreadControlTest, SingletonsArePerThreadUntilChosenOtherwise ) {
   EXPECT_TRUE( Quarn::hasThreadLocalSingletons() );
   Quarn::hasThreadLocalSingletonsIs( false );
   std::jthread( [] { EXPECT_FALSE( Quarn::hasThreadLocalSingletons() ); } ).join();
   Quarn::hasThreadLocalSingletonsIs( true );
   EXPECT_TRUE( Quarn::hasThreadLocalSingletons() );
}
