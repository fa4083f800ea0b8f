#include "standins/InChild.h"
#include "support/Fatal.h"

#include <Oru/ActivityLock.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

namespace {

using Oru::ActivityLock;

TEST( ActivityLockTest, ThreadOwnsItUntilReleasedAsOftenAsAcquired ) {
   ActivityLock& lock = ActivityLock::lock();
   EXPECT_EQ( &lock, &ActivityLock::lock() );
   EXPECT_FALSE( lock.ownedByThisThread() );
   lock.acquire();
   lock.acquire();
   lock.release();
   EXPECT_TRUE( lock.ownedByThisThread() );
   std::thread( [ & ] { EXPECT_FALSE( lock.ownedByThisThread() ); } ).join();
   lock.release();
   EXPECT_FALSE( lock.ownedByThisThread() );
}

TEST( ActivityLockTest, ReleaseWithoutOwningIsFatalAndChangesNothing ) {
   ActivityLock& lock = ActivityLock::lock();
   EXPECT_FATAL( lock.release(), "released by a thread that does not have it" );
   lock.acquire();
   std::thread( [ & ] { EXPECT_FATAL( lock.release(), "does not have it" ); } ).join();
   EXPECT_TRUE( lock.ownedByThisThread() );
   lock.release();
   EXPECT_FATAL( lock.release(), "does not have it" );
}

TEST( ActivityLockTest, OneThreadAtATime ) {
   ActivityLock& lock = ActivityLock::lock();
   int count = 0; // plain: the lock is what keeps the threads apart
   std::array<std::thread, 4> threads;
   for( std::thread& thread : threads ) {
      thread = std::thread( [ & ] {
         for( int round = 0; round < 5000; ++round ) {
            lock.acquire();
            lock.acquire();
            ++count;
            lock.release();
            ++count;
            lock.release();
         }
      } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( count, 40000 );
}

TEST( ActivityLockTest, ChildOfTheOwnerOwnsTheLock ) {
   ActivityLock& lock = ActivityLock::lock();
   lock.acquire();
   EXPECT_EQ( inChild( [] {
                 ActivityLock& mine = ActivityLock::lock();
                 if( !mine.ownedByThisThread() ) {
                    return 1;
                 }
                 mine.release();
                 return mine.ownedByThisThread() ? 2 : 0;
              } ),
              0 );
   EXPECT_TRUE( lock.ownedByThisThread() );
   lock.release();
}

TEST( ActivityLockTest, ChildForkedWhileOthersUseTheLockFindsItFree ) {
   ActivityLock& lock = ActivityLock::lock();
   std::atomic<bool> stop{ false };
   std::thread other( [ & ] {
      while( !stop ) {
         lock.acquire();
         std::this_thread::yield();
         lock.release();
      }
   } );
   for( int i = 0; i < 20; ++i ) {
      EXPECT_EQ( inChild( [] {
                    ActivityLock& mine = ActivityLock::lock();
                    if( mine.ownedByThisThread() ) {
                       return 1;
                    }
                    mine.acquire();
                    mine.release();
                    return 0;
                 } ),
                 0 );
   }
   stop = true;
   other.join();
   EXPECT_FALSE( lock.ownedByThisThread() );
}

} // namespace
