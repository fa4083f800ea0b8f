// What happens when memory runs out: one case for each thing that once went wrong then.

#include "support/AllocationCount.h"
#include "support/FailingMemory.h"
#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/base/BacktraceTracker.h>
#include <Quarn/testing/Clocks.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <new>
#include <sstream>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using testing::HasSubstr;
using testing_support::FunctionTask;
using testing_support::makeTask;
namespace memory = testing_support::memory;

String longName( char const* what ) {
   return String( std::string( what ) + ", which is longer than what a string keeps in place" );
}

// Calls `body` with each of its allocations failing in turn, alone or with all that follow, until
// it needs no more of them. Returns how many failed.
template<typename Body>
unsigned withEachFailing( bool lasting, const Body& body ) {
   for( unsigned n = 1;; ++n ) {
      memory::failAt( n, lasting );
      {
         const memory::Armed armed;
         body();
      }
      const bool failed = memory::hasFailed();
      memory::failNoMore();
      if( !failed ) {
         return n - 1;
      }
   }
}

bool badAllocOf( const std::function<void()>& body ) {
   try {
      body();
   } catch( const std::bad_alloc& ) {
      return true;
   }
   return false;
}

TEST( ShortageTest, TaskGoesWithoutMemoryForItsRecord ) {
   const auto root = schedulerRootQuarn();
   auto task = makeTask( root, TaskPriority::normal, longName( "first" ) );
   memory::failAt( 1, true );
   {
      const memory::Armed armed;
      task.reset();
   }
   EXPECT_TRUE( memory::hasFailed() );
   memory::failNoMore();
   EXPECT_EQ( root->completedTasksPerPriority( TaskPriority::normal ), 0u );
   EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
   makeTask( root, TaskPriority::normal, longName( "second" ) );
   EXPECT_EQ( root->completedTasksPerPriority( TaskPriority::normal ), 1u );
   EXPECT_TRUE( root->checkForTest() );
}

TEST( ShortageTest, ForcedYieldsAreKnownOrTakenBack ) {
   const auto root = schedulerRootQuarn();
   const auto group = TaskGroup::TaskGroupIs( "group", TaskPriority::low, false, root );
   const auto member = makeTask( group, TaskPriority::low, "member" );
   unsigned refused = 0;
   withEachFailing( false, [ & ] {
      const bool failed = badAllocOf( [ & ] { member->taskForceYieldInTestIs( true ); } );
      refused += failed ? 1 : 0;
      EXPECT_EQ( member->taskTestYieldRatio() != 0, !failed );
      EXPECT_EQ( group->anyTaskForcesYieldInTest(), !failed );
      EXPECT_EQ( root->anyTaskForcesYieldInTest(), !failed );
      member->taskForceYieldInTestIs( false );
   } );
   // That of the member in its group, and that of the group in the root.
   EXPECT_GE( refused, 2u );
   refused = 0;
   withEachFailing( false, [ & ] {
      refused += badAllocOf( [ & ] { root->taskTestYieldRatioIs( 1 ); } ) ? 1 : 0;
      EXPECT_EQ( group->anyTaskForcesYieldInTest(), root->taskTestYieldRatio() != 0 );
      root->taskTestYieldRatioIs( 0 );
      EXPECT_FALSE( root->anyTaskForcesYieldInTest() );
   } );
   EXPECT_GE( refused, 2u );
}

TEST( ShortageTest, TextsAreWholeOrFail ) {
   const auto root = schedulerRootQuarn();
   const auto task = makeTask( root, TaskPriority::normal, longName( "task" ) );
   task->taskRunFromTest();
   const auto report = [ & ] { return root->statsRenderTextForDebugToString( true ); };
   const auto history = [ & ] { return root->historyRenderTextForDebugToString(); };
   const String reportWhole = report();
   const String historyWhole = history();
   EXPECT_GT( withEachFailing( false,
                               [ & ] {
                                  String text = reportWhole;
                                  badAllocOf( [ & ] { text = report(); } );
                                  EXPECT_EQ( text, reportWhole );
                               } ),
              0u );
   EXPECT_GT( withEachFailing( false,
                               [ & ] {
                                  String text = historyWhole;
                                  badAllocOf( [ & ] { text = history(); } );
                                  EXPECT_EQ( text, historyWhole );
                               } ),
              0u );
}

TEST( ShortageTest, SnapshotWithoutAFilterSpeaksOfNone ) {
   const auto root = schedulerRootQuarn();
   withEachFailing( false, [ & ] {
      std::shared_ptr<const TaskSchedulerSnapshot> shot;
      if( !badAllocOf( [ & ] { shot = root->snapshot( {}, true, true, true, {}, 0 ); } ) ) {
         EXPECT_FALSE( memory::hasFailed() );
         EXPECT_EQ( shot->taskNameRegexError(), "" );
      }
   } );
}

TEST( ShortageTest, DocumentWithoutMemoryForItsErrorEnds ) {
   const auto root = schedulerRootQuarn();
   const auto shot = root->snapshot( {}, true, true, true, {}, 0 );
   EXPECT_GT( withEachFailing( true,
                               [ & ] {
                                  badAllocOf( [ & ] { root->statsRenderJsonToString(); } );
                                  std::ostringstream out;
                                  badAllocOf( [ & ] { root->statsRenderJson( out ); } );
                               } ),
              0u );
   EXPECT_THAT( root->statsRenderJsonToString().stdString(), HasSubstr( "\"schedulers\"" ) );
}

// The functions for a fork were set once more by each attempt, and then locked twice.
TEST( ShortageTest, ForkWorksAfterAFirstUseThatFailed ) {
   const auto root = schedulerRootQuarn();
   BacktraceTracker::enabledIs( true );
   std::shared_ptr<FunctionTask> critical;
   withEachFailing( false, [ & ] {
      badAllocOf( [] { BacktraceTracker::capacityIs( 4 ); } );
      badAllocOf( [ & ] { critical = makeTask( root, TaskPriority::critical, "test" ); } );
   } );
   const pid_t child = fork();
   if( child == 0 ) {
      alarm( 20 );
      _exit( 0 );
   }
   int status = -1;
   EXPECT_EQ( waitpid( child, &status, 0 ), child );
   EXPECT_EQ( status, 0 );
}

TEST( ShortageTest, WheelThatCannotCollectATimerKeepsIt ) {
   // With a loop that is there already.
   const auto root = schedulerRootQuarn();
   withEachFailing( false, [] {
      bool made = true;
      try {
         TimerWheel wheel( Platform::EventPriority::eventPriorityDefault );
      } catch( ... ) {
         made = false;
      }
      EXPECT_EQ( made, !memory::hasFailed() );
   } );

   Testing::ManualTimerClock clock( 1000.001 );
   TimerWheel wheel( Platform::EventPriority::eventPriorityDefault );
   struct Event : TimerWheelEvent {
      void timeout() override { ++fired; }
      unsigned fired = 0;
   } early, late;
   TimerWheelEvent* const events[] = { &early, &late };
   const auto withoutMemory = []( const auto& body ) {
      memory::failAt( 1, false );
      const memory::Armed armed;
      const bool refused = badAllocOf( body );
      EXPECT_TRUE( memory::hasFailed() );
      return refused;
   };
   // Both in one tick, which comes before they do.
   wheel.timerStart( &late, 0.006 );
   clock.advance( 0.001 );
   EXPECT_TRUE( withoutMemory( [ & ] { wheel._processExpiredTimers(); } ) );
   EXPECT_TRUE( wheel.checkForTest( events ) );
   EXPECT_EQ( wheel._processExpiredTimers(), 0u );
   wheel.timerStart( &early, 0.003 );
   EXPECT_FALSE( withoutMemory( [ & ] { wheel.setMasterTimer(); } ) );
   EXPECT_TRUE( wheel.checkForTest( events ) );
   clock.advance( 0.01 );
   EXPECT_EQ( wheel._processExpiredTimers(), 2u );
   EXPECT_EQ( early.fired + late.fired, 2u );
}

#ifndef OWN_ALLOCATOR

// Libevent needs memory for each timer more, and takes it by malloc.

TEST( ShortageTest, RunIsAskedForWithoutMemoryForATimer ) {
   const auto root = schedulerRootQuarn();
   unsigned ran = 0;
   const auto task =
         makeTask( root, TaskPriority::normal, "task", [ & ]( FunctionTask& ) { ++ran; } );
   memory::failAt( 1, true );
   {
      const memory::Armed armed;
      task->scheduleTask();
   }
   EXPECT_TRUE( memory::hasFailed() );
   memory::failNoMore();
   EXPECT_TRUE( root->checkForTest() );
   doLeEventLoop( 0.0 );
   EXPECT_EQ( ran, 1u );
}

struct Ticker final : TimerTask {
   using TimerTask::TimerTask;
   void taskExecute() override { ++ran; }
   unsigned ran = 0;
};

TEST( ShortageTest, TimerWithoutMemoryForItsLoopDoesNotRun ) {
   const auto root = schedulerRootQuarn();
   auto task = std::make_shared<Ticker>( root, TaskPriority::normal, "ticker" );
   memory::failAt( 1, true );
   {
      const memory::Armed armed;
      // Fatal in the words of the loop, if there is memory for them.
      EXPECT_ANY_THROW( task->scheduleTaskDelay( 60.0 ) );
   }
   EXPECT_TRUE( memory::hasFailed() );
   memory::failNoMore();
   EXPECT_FALSE( task->taskScheduled() );
   EXPECT_TRUE( root->timerWheelForTest()->checkForTest( {} ) );
   // Its destructor ended the process while the wheel still had it.
   task.reset();
}

class Recorded final : public TimerWheelEvent {
 public:
   Recorded( std::vector<int>& order, int place ) : order_( order ), place_( place ) {}
   void timeout() override { order_.push_back( place_ ); }

 private:
   std::vector<int>& order_;
   int place_;
};

// More than are sorted in place, in an order that is not that of their times.
TEST( ShortageTest, TimersThatAreDueWaitForMemoryInOrder ) {
   constexpr int count = 600;
   unsigned thrown = 0;
   const unsigned failed = withEachFailing( false, [ & ] {
      memory::disarm();
      const auto wheel =
            getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault );
      std::vector<int> order;
      order.reserve( count );
      std::deque<Recorded> events;
      std::vector<TimerWheelEvent*> all;
      std::vector<int> expected;
      for( int n = 0; n < count; ++n ) {
         const int place = n * 7 % count;
         wheel->timerStart( all.emplace_back( &events.emplace_back( order, place ) ),
                            -1000.0 + place );
         expected.push_back( n );
      }
      const bool out = [ & ] {
         const memory::Armed armed;
         return badAllocOf( [ & ] { wheel->_processExpiredTimers(); } );
      }();
      thrown += out ? 1 : 0;
      EXPECT_EQ( order.size(), out ? 0u : 1u * count );
      EXPECT_TRUE( wheel->checkForTest( all ) );
      wheel->_processExpiredTimers();
      EXPECT_EQ( order, expected );
   } );
   // The place to sort in can be done without, a bucket cannot.
   EXPECT_GE( failed, 1u * count );
   EXPECT_GE( thrown, 1u * count );
   EXPECT_LT( thrown, failed );
}

#endif

} // namespace
