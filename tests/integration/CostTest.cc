// What a run costs, counted instead of timed: allocations, polls, clock reads.

#include "support/AllocationCount.h"
#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/Clocks.h>

#include <gtest/gtest.h>

#include <atomic>
#include <random>

#include <dlfcn.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constinit std::atomic<unsigned long> polls{ 0 };
constinit std::atomic<unsigned long> pidReads{ 0 };

} // namespace

// The event library's polls come by here.
extern "C" __attribute__( ( visibility( "default" ) ) ) int
epoll_wait( int fd, struct epoll_event* events, int size, int timeout ) {
   ++polls;
   return static_cast<int>(
         syscall( SYS_epoll_pwait, fd, events, size, timeout, nullptr, sizeof( sigset_t ) ) );
}

extern "C" __attribute__( ( visibility( "default" ) ) ) pid_t getpid() {
   ++pidReads;
   return static_cast<pid_t>( syscall( SYS_getpid ) );
}

namespace {

using namespace Quarn;
using Quarn::Testing::ManualSteadyClock;
using Quarn::Testing::ManualTimerClock;
using testing_support::allocationsOf;
using testing_support::FunctionTask;
using testing_support::makeTask;

class Counting : public Task {
 public:
   Counting( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name )
         : Task( std::move( scheduler ), priority, std::move( name ) ) {}
   unsigned left = 0;

 private:
   void taskExecute() override {
      if( left > 1 ) {
         --left;
         scheduleTask();
      }
   }
};

TEST( CostTest, RunTakesOnePollThreeClockReadsAndNoMemory ) {
   const auto root = schedulerRootQuarn();
   auto task = std::make_shared<Counting>( root, TaskPriority::normal,
                                           "a task whose name does not fit in place" );
   const auto run = [ & ]( unsigned runs ) {
      task->left = runs;
      task->scheduleTask();
      doLeEventLoop();
   };
   run( 10 ); // the ring fills with the name, libevent's heap grows
   const ManualSteadyClock clock;
   const unsigned long pollsBefore = polls;
   const unsigned long pidReadsBefore = pidReads;
   EXPECT_EQ( allocationsOf( [ & ] { run( 1000 ); } ), 0u );
   // Beside the runs: the first scheduling, and the last callback, which finds nothing.
   EXPECT_EQ( polls - pollsBefore, 1000u + 1 );
   EXPECT_EQ( pidReads, pidReadsBefore ) << "the poll is the only system call";
   EXPECT_EQ( clock.reads(), 3u * 1000 + 1 );
}

TEST( CostTest, HotPathsAllocateNothing ) {
   const auto root = schedulerRootQuarnNonShared( "root" );
   std::vector<std::shared_ptr<Counting>> tasks;
   for( int n = 0; n < 16; ++n ) {
      tasks.push_back( std::make_shared<Counting>(
            root, TaskPriority( static_cast<std::uint8_t>( n % 6 ) ),
            String( "test task with a long name " + std::to_string( n ) ) ) );
   }
   for( const auto& task : tasks ) {
      task->scheduleTask();
   }
   root->runCriticalPriorityTasks(); // makes the process-wide marker
   EXPECT_EQ( allocationsOf( [ & ] {
                 for( int n = 0; n < 1'000'000; ++n ) {
                    Counting& task = *tasks[ static_cast<unsigned>( n ) % 16 ];
                    switch( n % 4 ) {
                    case 0:
                       task.unscheduleTask();
                       break;
                    case 1:
                       root->_handleSchedulerRun( TaskPriority::scavenge );
                       break;
                    default:
                       task.scheduleTask();
                       break;
                    }
                 }
              } ),
              0u );
   EXPECT_EQ( allocationsOf( [ & ] {
                 for( int n = 0; n < 10'000; ++n ) {
                    tasks[ 0 ]->scheduleTask();
                    root->runCriticalPriorityTasks();
                 }
              } ),
              0u );
}

TEST( CostTest, TimersAllocateNothing ) {
   struct Event : TimerWheelEvent {
      void timeout() override { ++fired; }
      unsigned fired = 0;
   };
   ManualTimerClock clock;
   const auto wheel =
         getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault );
   std::vector<Event> events( 64 );
   std::mt19937 random( 42 );
   const auto work = [ & ]( int steps ) {
      for( int n = 0; n < steps; ++n ) {
         Event& event = events[ random() % 64 ];
         if( n % 3 == 0 ) {
            wheel->timerStop( &event );
         } else {
            wheel->timerStart( &event, static_cast<double>( random() % 100000 ) / 1000 );
         }
         if( n % 16 == 0 ) {
            clock.advance( 0.5 );
            wheel->timeout();
         }
      }
   };
   // As many buckets at once as there are events; their nodes are used again.
   for( std::size_t n = 0; n < events.size(); ++n ) {
      wheel->timerStart( &events[ n ], 0.0001 * static_cast<double>( n + 1 ) );
   }
   wheel->timeout();
   clock.advance( 1.0 );
   wheel->timeout();
   ASSERT_EQ( wheel->masterExpiryForTest(), std::numeric_limits<double>::infinity() );
   work( 1'000 );
   EXPECT_EQ( allocationsOf( [ & ] { work( 1'000'000 ); } ), 0u );
   for( Event& event : events ) {
      wheel->timerStop( &event );
   }
}

} // namespace
