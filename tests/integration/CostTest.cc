// What a run costs, counted instead of timed: allocations, polls, clock reads.

#include "support/AllocationCount.h"
#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/Clocks.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>

#include <dlfcn.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constinit std::atomic<unsigned long> polls{ 0 };
constinit std::atomic<unsigned long> watchChanges{ 0 };
constinit std::atomic<unsigned long> pidReads{ 0 };

} // namespace

// The event library's polls come by here.
extern "C" __attribute__( ( visibility( "default" ) ) ) int
epoll_wait( int fd, struct epoll_event* events, int size, int timeout ) {
   ++polls;
   return static_cast<int>(
         syscall( SYS_epoll_pwait, fd, events, size, timeout, nullptr, sizeof( sigset_t ) ) );
}

extern "C" __attribute__( ( visibility( "default" ) ) ) int
epoll_ctl( int poll, int operation, int fd, struct epoll_event* event ) {
   ++watchChanges;
   return static_cast<int>( syscall( SYS_epoll_ctl, poll, operation, fd, event ) );
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
   tasks.reserve( 16 );
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

TEST( CostTest, BusyCallbacksAllocateNothing ) {
   const auto root = schedulerRootQuarnNonShared( "root" );
   const auto task = std::make_shared<Counting>( root, TaskPriority::normal, "task" );
   unsigned calls = 0;
   char keys[ 3 ];
   for( char& key : keys ) {
      // More than a function object holds in place.
      const std::array<unsigned, 16> much{ 1 };
      root->registerBusyCallback( &key, [ &calls, much ] { calls += much[ 0 ]; } );
   }
   const auto run = [ & ]( int times ) {
      for( int n = 0; n < times; ++n ) {
         task->scheduleTask();
         root->handleSchedulerRun();
         root->handleSchedulerRun();
      }
   };
   run( 10 );
   EXPECT_EQ( allocationsOf( [ & ] { run( 1'000 ); } ), 0u );
   EXPECT_EQ( calls, 2u * 3 * 1'010 );
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

TEST( CostTest, TimerTasksInAGroupAllocateNothing ) {
   struct Periodic : TimerTask {
      using TimerTask::TimerTask;
      void taskExecute() override {
         taskWorkCountInc( 3 );
         taskWorkPendingIs( 4 );
         scheduleTaskJitterUp( 1.0, 50 );
      }
   };
   ManualTimerClock clock;
   const auto root = schedulerRootQuarnNonShared( "root" );
   const auto group = TaskGroup::TaskGroupIs( "group", TaskPriority::normal, false, root );
   std::vector<std::shared_ptr<Periodic>> tasks;
   for( int n = 0; n < 32; ++n ) {
      tasks.push_back( std::make_shared<Periodic>(
            group, TaskPriority::normal,
            String( "a timer task with a long name " + std::to_string( n ) ) ) );
      tasks.back()->scheduleTaskDelay( 0.001 * n );
   }
   const auto work = [ & ]( int steps ) {
      for( int n = 0; n < steps; ++n ) {
         Periodic& task = *tasks[ static_cast<unsigned>( n ) % 32 ];
         if( n % 5 == 0 ) {
            task.stopTimerTask();
         } else {
            task.scheduleTaskLowestDelay( std::chrono::milliseconds( n % 100 ) );
         }
         clock.advance( 0.01 );
         processExpiredTimersForTaskScheduler( root->timerWheelForTest() );
         root->handleSchedulerRun();
      }
   };
   work( 1'000 );
   const std::uint64_t before = group->runTaskCount( TaskPriority::normal );
   EXPECT_EQ( allocationsOf( [ & ] { work( 100'000 ); } ), 0u );
   EXPECT_GT( group->runTaskCount( TaskPriority::normal ) - before, 10'000u );
}

// Sends a byte to the other end of its pair for each that comes.
class Returner final : public FileDescriptorTask {
 public:
   Returner( int fd, unsigned& left )
         : FileDescriptorTask( schedulerRootQuarn(), TaskPriority::normal,
                               "a descriptor task whose name does not fit in place" ),
           left_( left ) {
      taskWatchFdIs( fd );
   }

 private:
   void taskExecuteReadable() override {
      char byte = 0;
      ASSERT_EQ( read( taskWatchFd(), &byte, 1 ), 1 );
      taskWorkCountInc( 1 );
      if( left_ > 0 ) {
         --left_;
         ASSERT_EQ( write( taskWatchFd(), &byte, 1 ), 1 );
      }
   }
   void taskExecuteWritable() override {}

   unsigned& left_;
};

TEST( CostTest, LoneDescriptorKeepsItsWatchAndAllocatesNothing ) {
   int ends[ 2 ];
   ASSERT_EQ( socketpair( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends ), 0 );
   unsigned left = 0;
   {
      const auto one = std::make_shared<Returner>( ends[ 0 ], left );
      const auto other = std::make_shared<Returner>( ends[ 1 ], left );
      const auto run = [ & ]( unsigned returns ) {
         left = returns;
         ASSERT_EQ( write( ends[ 0 ], "x", 1 ), 1 );
         while( left > 0 || one->taskScheduled() || other->taskScheduled() ) {
            Platform::doEventLoop( 0.0 );
         }
         Platform::doEventLoop( 0.0 );
      };
      run( 100 );
      const unsigned long changesBefore = watchChanges;
      const unsigned long pidReadsBefore = pidReads;
      EXPECT_EQ( allocationsOf( [ & ] { run( 10'000 ); } ), 0u );
      EXPECT_EQ( watchChanges, changesBefore );
      EXPECT_EQ( pidReads, pidReadsBefore );
      EXPECT_EQ( one->taskWorkCountReadableTotal() + other->taskWorkCountReadableTotal(),
                 10'100u + 2 );
   }
   close( ends[ 0 ] );
   close( ends[ 1 ] );
}

} // namespace
