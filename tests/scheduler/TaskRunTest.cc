// Running tasks: accounting, yielding, exceptions, lifetimes, critical runs.

#include "support/Fatal.h"
#include "support/Tasks.h"
#include "support/TraceCapture.h"

#include <Quarn/Debug.h>
#include <Quarn/testing/Clocks.h>

#include <Oru/ActivityManager.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;
using Quarn::Testing::ManualSteadyClock;
using Quarn::Testing::ManualTimerClock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing_support::FunctionTask;
using testing_support::historyOf;
using testing_support::makeTask;
using testing_support::TraceCapture;

class TaskRunTest : public testing::Test {
 protected:
   std::shared_ptr<FunctionTask> task( TaskPriority priority, String name,
                                       FunctionTask::Body body = {} ) {
      return makeTask( root, priority, std::move( name ), std::move( body ) );
   }
   bool step( TaskPriority to = TaskPriority::scavenge ) { return root->_handleSchedulerRun( to ); }

   ManualSteadyClock clock;
   std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
};

TEST_F( TaskRunTest, RunsAreMeasured ) {
   auto a = task( TaskPriority::normal, "a", [ & ]( FunctionTask& ) { clock.advance( 7ms ); } );
   EXPECT_EQ( a->getStats().taskFirstRunTimestamp(), TaskTimeStamp() );
   clock.advance( 1s );
   a->scheduleTask();
   clock.advance( 3ms );
   const TaskTimeStamp first = taskTimeNow();
   step();
   clock.advance( 1s );
   a->scheduleTask();
   clock.advance( 2ms );
   const TaskTimeStamp second = taskTimeNow();
   step();
   const TaskStat stat = a->getStats();
   EXPECT_EQ( stat.taskRunCount(), 2u );
   EXPECT_EQ( stat.taskTotalRunTime(), 14ms );
   EXPECT_EQ( stat.taskRunTimeHighWaterMark(), 7ms );
   EXPECT_EQ( stat.taskLastSchedulingLatency(), 2ms );
   EXPECT_EQ( stat.taskSchedulingLatencyHighWaterMark(), 3ms );
   EXPECT_EQ( stat.taskFirstRunTimestamp(), first );
   EXPECT_EQ( stat.taskLastRunTimestamp(), second );
   EXPECT_EQ( root->runTaskCount( TaskPriority::normal ), 2u );
   EXPECT_EQ( root->maxRunGap(), 1002ms )
         << "the loop was late while the root thought itself runnable";
}

TEST_F( TaskRunTest, RunEntryInsideARunTakesNothingOffItsQueue ) {
   unsigned runs = 0;
   auto waiting = task( TaskPriority::normal, "waiting", [ & ]( FunctionTask& ) { ++runs; } );
   auto outer = task( TaskPriority::normal, "outer", [ & ]( FunctionTask& ) {
      EXPECT_FALSE( step( TaskPriority::high ) ) << "there is none that urgent";
      EXPECT_FATAL( step(), "currentlyRunningTask_ is not NULL outer" );
   } );
   outer->scheduleTask();
   waiting->scheduleTask();
   EXPECT_TRUE( step() );
   EXPECT_TRUE( waiting->taskScheduled() );
   EXPECT_TRUE( step() );
   EXPECT_EQ( runs, 1u );
   EXPECT_EQ( root->runTaskCount( TaskPriority::normal ), 2u );
   EXPECT_TRUE( root->checkForTest() );
}

TEST_F( TaskRunTest, GapCountsFromTheMomentSomethingIsRunnable ) {
   auto a = task( TaskPriority::normal, "a" );
   step();
   clock.advance( 5s );
   a->scheduleTask();
   clock.advance( 4ms );
   step();
   EXPECT_EQ( root->maxRunGap(), 4ms );
}

TEST_F( TaskRunTest, QuantumViolationsFallIntoTwoBuckets ) {
   const struct {
      std::chrono::nanoseconds used;
      unsigned moderate;
      unsigned severe;
   } table[] = {
         { 15ms, 0, 0 },       { 20ms - 1ns, 0, 0 }, { 20ms, 1, 0 },
         { 50ms - 1ns, 1, 0 }, { 50ms, 0, 1 },       { 500ms, 0, 1 },
   };
   for( const auto& row : table ) {
      auto a = task( TaskPriority::normal, "a",
                     [ & ]( FunctionTask& ) { clock.advance( row.used ); } );
      a->taskQuantumIs( 10ms );
      a->taskRunFromTest();
      EXPECT_EQ( a->getStats().taskQuantumViolation200(), row.moderate ) << row.used.count();
      EXPECT_EQ( a->getStats().taskQuantumViolation500(), row.severe ) << row.used.count();
   }
   const auto handler = Platform::getDebugHandler( "TaskScheduler", false );
   handler->enabledIs( 3, true );
   handler->enabledIs( 7, true );
   TraceCapture capture;
   auto a = task( TaskPriority::normal, "a", [ & ]( FunctionTask& ) { clock.advance( 20ms ); } );
   a->taskQuantumIs( 10ms );
   a->taskRunFromTest();
   EXPECT_THAT( capture.text(),
                HasSubstr( "TaskScheduler/3 TaskImpl::_accountRun() Ran a used 20ms "
                           "200% violation" ) );
   // A quantum that means "no limit", and none at all.
   a->taskQuantumIs( std::chrono::nanoseconds::max() );
   a->taskRunFromTest();
   EXPECT_EQ( a->getStats().taskQuantumViolation500(), 0u );
   EXPECT_THAT( capture.text(),
                HasSubstr( "TaskScheduler/7 TaskImpl::_accountRun() Ran a used 20ms" ) );
   root->defaultTaskQuantumIs( 0ns );
   auto none =
         task( TaskPriority::normal, "none", [ & ]( FunctionTask& ) { clock.advance( 1h ); } );
   none->taskRunFromTest();
   EXPECT_EQ( none->getStats().taskQuantumViolation500(), 0u );
}

TEST_F( TaskRunTest, RealTimeYieldLooksAtTheClockEvery500Microseconds ) {
   std::string answers;
   unsigned reads = 0;
   auto a = task( TaskPriority::normal, "a", [ & ]( FunctionTask& self ) {
      answers += self.taskShouldYield() ? 'y' : 'n'; // the first call looks
      const unsigned before = clock.reads();
      for( int n = 0; n < 4; ++n ) {
         clock.advance( 100us );
         answers += self.taskShouldYield() ? 'y' : 'n';
      }
      reads = clock.reads() - before;
      clock.advance( 100us );
      answers += self.taskShouldYield() ? 'y' : 'n';
      reads = reads * 10 + clock.reads() - before;
      clock.advance( 1500us - 1ns );
      answers += self.taskShouldYield() ? 'y' : 'n';
      clock.advance( 1ns );
      answers += self.taskShouldYield() ? 'y' : 'n'; // within the window of the last look
      clock.advance( 500us );
      answers += self.taskShouldYield() ? 'y' : 'n';
      answers += self.taskShouldYield() ? 'y' : 'n'; // the stamp is forgotten with a yes
      clock.advance( -1s );
      answers += self.taskShouldYield() ? 'y' : 'n'; // before the start of the run
   } );
   a->taskQuantumIs( 2ms );
   a->taskRunFromTest();
   EXPECT_EQ( answers, "nnnnnnnnyyy" );
   EXPECT_EQ( reads, 1u );
}

TEST_F( TaskRunTest, YieldIsForRunningTasks ) {
   auto a = task( TaskPriority::normal, "a" );
   a->taskShouldYield(); // set-up code may share the body's loop
   a->taskRunFromTest();
   EXPECT_FATAL( a->taskShouldYield(), "taskCurrentlyRunning: 0 taskRunCount: 1" );
   EXPECT_FATAL( a->taskCurrentRunTime(), "Task: a not currently running" );
   std::chrono::nanoseconds run{};
   bool yield = false;
   a->bodyIs( [ & ]( FunctionTask& self ) {
      clock.advance( 3us );
      run = self.taskCurrentRunTime();
      root->suspendedIs( true );
      yield = self.taskShouldYield();
   } );
   a->taskRunFromTest();
   EXPECT_EQ( run, 3us );
   EXPECT_TRUE( yield );
}

TEST_F( TaskRunTest, RatioOfTheTaskBeatsThatOfTheRoot ) {
   auto a = task( TaskPriority::normal, "a" );
   std::string answers;
   a->bodyIs( [ & ]( FunctionTask& self ) {
      answers.clear();
      for( int n = 0; n < 10; ++n ) {
         answers += self.taskShouldYield() ? 'y' : 'n';
      }
   } );
   root->clearHistory();
   root->taskTestYieldRatioIs( 5 );
   a->taskRunFromTest();
   EXPECT_EQ( answers, "nnnnynnnny" );
   a->taskTestYieldRatioIs( 3 );
   a->taskRunFromTest();
   EXPECT_EQ( answers, "nnynnynnyn" );
   a->taskForceYieldInTestIs( true );
   a->taskRunFromTest();
   EXPECT_EQ( answers, "yyyyyyyyyy" );
   a->taskForceYieldInTestIs( false );
   root->taskTestYieldRatioIs( 0 );
   EXPECT_EQ( a->taskShouldYieldMode(), TaskShouldYieldMode::realTime );
   EXPECT_FALSE( root->anyTaskForcesYieldInTest() );
   const auto history = historyOf( *root );
   EXPECT_EQ( history.front(), "schedulerTestYieldRatioOn root" );
   EXPECT_EQ( history.back(), "schedulerTestYieldRatioOff root" );
   EXPECT_EQ( std::count( history.begin(), history.end(), "frcYieldOn N a" ), 1 );
   EXPECT_EQ( std::count( history.begin(), history.end(), "frcYieldOff N a" ), 1 );
}

TEST_F( TaskRunTest, VirtualTimeMeasuresOnTheVirtualClock ) {
   ManualTimerClock virtualClock;
   auto a = task( TaskPriority::normal, "a" );
   root->clearHistory();
   Oru::ActivityManagerConfig::virtualTimeIs( true );
   root->virtualTimeCheck();
   EXPECT_EQ( a->taskShouldYieldMode(), TaskShouldYieldMode::virtualTime );
   std::string answers;
   a->bodyIs( [ & ]( FunctionTask& self ) {
      clock.advance( 1h );
      answers += self.taskShouldYield() ? 'y' : 'n';
      virtualClock.advance( 0.5 );
      answers += self.taskShouldYield() ? 'y' : 'n';
      EXPECT_EQ( self.taskCurrentRunTime(), 500ms );
   } );
   a->taskRunFromTest();
   EXPECT_EQ( answers, "ny" );
   EXPECT_EQ( a->getStats().taskTotalRunTime(), 500ms );
   a->bodyIs( [ & ]( FunctionTask& ) { virtualClock.advance( -0.25 ); } );
   EXPECT_FATAL( a->taskRunFromTest(), "negative duration: -0.25" );
   // Stamps of history events are virtual too.
   EXPECT_THAT( root->historyRenderTextForDebugToString().stdString(),
                HasSubstr( "1750000000000000000 ns since boot" ) );
   Oru::ActivityManagerConfig::virtualTimeIs( false );
   root->virtualTimeCheck();
   const auto history = historyOf( *root );
   EXPECT_EQ( history.front(), "schedulerVirtualTimeOn root" );
   EXPECT_EQ( history.back(), "schedulerVirtualTimeOff root" );
   EXPECT_EQ( a->taskShouldYieldMode(), TaskShouldYieldMode::realTime );
   // Threads other than the main one stay on real time.
   Oru::ActivityManagerConfig::virtualTimeIs( true );
   std::thread( [] { EXPECT_FALSE( schedulerRootQuarn()->virtualTime() ); } ).join();
}

// --------------------------------------------------------------------------------------- run steps

TEST_F( TaskRunTest, SuspendedRootRunsNothing ) {
   Platform::getDebugHandler( "TaskScheduler", false )->enabledIs( 3, true );
   const TraceCapture capture;
   auto a = task( TaskPriority::normal, "a" );
   a->scheduleTask();
   root->clearHistory();
   root->suspendedIs( true );
   root->suspendedIs( true );
   EXPECT_EQ( a->taskStatus(), 4u | 64u );
   EXPECT_FALSE( step() );
   EXPECT_EQ( capture.count( "root Suspended\n" ), 1u );
   clock.advance( 1s );
   root->suspendedIs( false );
   EXPECT_THAT( historyOf( *root ),
                ElementsAre( "schedulerSuspended root", "schedulerRunIgnoredWhileSuspended root",
                             "schedulerUnsuspended root" ) );
   EXPECT_TRUE( step() );
   EXPECT_EQ( root->maxRunGap(), 0ns ) << "suspension is no gap";
}

TEST_F( TaskRunTest, RunEntryChecksItsRange ) {
   EXPECT_FATAL( step( TaskPriority::oneBeyondLast ), "oneBeyondLast" );
   EXPECT_FATAL( root->pickOneTask( taskTimeNow(), TaskPriority::critical,
                                    TaskPriority( std::uint8_t{ 7 } ) ),
                 ": 7" );
}

TEST_F( TaskRunTest, NestedRunOnOneSchedulerIsFatal ) {
   auto inner = task( TaskPriority::normal, "inner" );
   auto outer = task( TaskPriority::normal, "outer" );
   outer->bodyIs( [ & ]( FunctionTask& ) {
      EXPECT_FATAL( inner->taskRunFromTest(), "currentlyRunningTask_ is not NULL outer" );
   } );
   outer->taskRunFromTest();
   EXPECT_EQ( root->currentlyRunningTask(), nullptr );
}

TEST_F( TaskRunTest, BodyMayDropItsOwnLastOwnerAndAnyOtherTask ) {
   auto other = task( TaskPriority::normal, "other" );
   other->scheduleTask();
   std::shared_ptr<FunctionTask> a;
   a = task( TaskPriority::high, "a", [ & ]( FunctionTask& self ) {
      a.reset();
      other.reset();
      self.scheduleTask();
   } );
   a->scheduleTask();
   EXPECT_TRUE( step() );
   EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
   EXPECT_EQ( root->completedTaskStatForTest( "a" ).taskRunCount(), 1u );
   EXPECT_FALSE( step() );
   EXPECT_TRUE( root->checkForTest() );
}

TEST_F( TaskRunTest, BodyMayDropTheLastReferenceToTheRoot ) {
   std::weak_ptr<TaskSchedulerRoot> weak = root;
   std::shared_ptr<FunctionTask> a;
   a = task( TaskPriority::normal, "a", [ & ]( FunctionTask& ) {
      root.reset();
      a.reset();
   } );
   a->scheduleTask();
   EXPECT_TRUE( step() );
   EXPECT_TRUE( weak.expired() );
}

TEST_F( TaskRunTest, TaskThatDestroysItselfIsCaught ) {
   // With an owner that does not delete, the memory stays and nothing but the object's end is
   // wrong.
   struct Suicidal : Task {
      using Task::Task;
      void taskExecute() override { this->~Suicidal(); }
   };
   alignas( Suicidal ) static std::byte storage[ sizeof( Suicidal ) ];
   auto* raw = new( storage ) Suicidal( root, TaskPriority::normal, "suicidal" );
   std::shared_ptr<Suicidal> owner( raw, []( Suicidal* ) {} );
   raw->scheduleTask();
   EXPECT_FATAL( step(), "Task: suicidal taskMagicNumber: 3735936685 taskMagicNumberConstructed: "
                         "1119771390" );
   EXPECT_EQ( root->currentlyRunningTask(), nullptr );
}

TEST_F( TaskRunTest, TestRunOutlivesABusyHookThatDropsTheTask ) {
   struct Dropper : Task {
      using Task::Task;
      std::shared_ptr<Dropper>* owner = nullptr;
      void handleTaskBusy() override {
         if( owner ) {
            owner->reset();
         }
      }
      void taskExecute() override {}
   };
   auto dropper = std::make_shared<Dropper>( root, TaskPriority::normal, "dropper" );
   dropper->scheduleTask();
   dropper->owner = &dropper;
   Dropper* raw = dropper.get();
   raw->taskRunFromTest();
   EXPECT_EQ( root->completedTaskStatForTest( "dropper" ).taskRunCount(), 1u );
}

TEST_F( TaskRunTest, TaskWithoutOwnerCannotRun ) {
   struct Unowned : Task {
      using Task::Task;
      void taskExecute() override {}
   };
   Unowned unowned( root, TaskPriority::normal, "unowned" );
   EXPECT_THROW( unowned.taskRunFromTest(), std::bad_weak_ptr );
   EXPECT_EQ( root->currentlyRunningTask(), nullptr );
}

TEST_F( TaskRunTest, RunAndRecordKeepsTheBooksOfARealRun ) {
   auto a = task( TaskPriority::normal, "a", [ & ]( FunctionTask& ) { clock.advance( 2ms ); } );
   a->scheduleTask();
   clock.advance( 9ms );
   a->taskRunAndRecordFromTest();
   EXPECT_EQ( root->maxRunGap(), 9ms );
   EXPECT_EQ( root->runnableTaskCount(), 0 );
   clock.advance( 1ms );
   a->taskRunAndRecordFromTest();
   EXPECT_EQ( root->maxRunGap(), 9ms ) << "counted from the end of the run before";
}

// ---------------------------------------------------------------------------------- critical runs

TEST_F( TaskRunTest, CriticalTasksRunInsideANormalOne ) {
   auto normal = task( TaskPriority::normal, "normal" );
   std::vector<std::string> order;
   std::vector<std::shared_ptr<FunctionTask>> critical;
   critical.reserve( 3 );
   for( int n = 0; n < 3; ++n ) {
      critical.push_back(
            task( TaskPriority::critical, fmt::format( "test{}", n ), [ & ]( FunctionTask& self ) {
               order.push_back( self.taskName().stdString() );
               EXPECT_NE( assertNotRunningCriticalTaskFn, nullptr );
               EXPECT_FATAL( assertNotRunningCriticalTaskFn(),
                             "Disallowed operation while in running critical "
                             "task" );
            } ) );
   }
   auto outer = task( TaskPriority::high, "outer", [ & ]( FunctionTask& self ) {
      normal->scheduleTask();
      for( const auto& task : critical ) {
         task->scheduleTask();
      }
      root->clearHistory();
      self.taskScheduler()->runCriticalPriorityTasks();
      EXPECT_EQ( root->currentlyRunningTask(), &self );
      EXPECT_TRUE( self.taskCurrentlyRunning() );
   } );
   outer->scheduleTask();
   EXPECT_TRUE( step() );
   EXPECT_THAT( order, ElementsAre( "test0", "test1", "test2" ) );
   EXPECT_EQ( assertNotRunningCriticalTaskFn, nullptr );
   EXPECT_EQ( normal->getStats().taskRunCount(), 0u );
   EXPECT_TRUE( root->schedulerHasRunnableTasks() );
   const auto history = historyOf( *root );
   EXPECT_EQ( history.front(), "schedulerRunCriticalStart root" );
   EXPECT_EQ( history[ history.size() - 3 ], "schedulerRunCriticalEnd root" );
   EXPECT_EQ( std::count( history.begin(), history.end(), "schedulerHasNoRunnableTasks root" ), 0 );
   EXPECT_TRUE( step() );
   EXPECT_EQ( normal->getStats().taskRunCount(), 1u );
}

TEST_F( TaskRunTest, CriticalRunDeliversDueTimersFirst ) {
   struct Timer : TimerWheelEvent {
      std::function<void()> on;
      void timeout() override { on(); }
   } timer;
   int ran = 0;
   auto keepAlive = task( TaskPriority::critical, "test", [ & ]( FunctionTask& ) { ++ran; } );
   timer.on = [ & ] { keepAlive->scheduleTask(); };
   root->timerWheelForTest()->timerStart( &timer, 0.0 );
   root->runCriticalPriorityTasks();
   EXPECT_EQ( ran, 1 );
}

TEST_F( TaskRunTest, CriticalRunEndsWithTheMarkerCleared ) {
   auto thrower = task( TaskPriority::critical, "test",
                        []( FunctionTask& ) { throw std::runtime_error( "c" ); } );
   auto outer = task( TaskPriority::normal, "outer", [ & ]( FunctionTask& self ) {
      thrower->scheduleTask();
      EXPECT_THROW( root->runCriticalPriorityTasks(), std::runtime_error );
      EXPECT_EQ( root->currentlyRunningTask(), &self );
   } );
   outer->taskRunFromTest();
   EXPECT_EQ( assertNotRunningCriticalTaskFn, nullptr );

   // From a critical task it is misuse, which is said; the victim's wake-up is the price.
   auto second = task( TaskPriority::critical, "test2" );
   auto first = task( TaskPriority::critical, "test1", [ & ]( FunctionTask& ) {
      second->scheduleTask();
      EXPECT_FATAL( root->runCriticalPriorityTasks(), "running=1" );
   } );
   first->scheduleTask();
   EXPECT_TRUE( step( TaskPriority::critical ) );
   EXPECT_EQ( assertNotRunningCriticalTaskFn, nullptr );

   // Nor is the hook anybody else's to set meanwhile.
   first->bodyIs( []( FunctionTask& ) { assertNotRunningCriticalTaskFn = [] {}; } );
   EXPECT_FATAL( first->taskRunFromTest(), "assertNotRunningCriticalTaskFn 0x" );
   assertNotRunningCriticalTaskFn = nullptr;
   EXPECT_EQ( root->currentlyRunningTask(), nullptr );

   // What suspends the root ends the run at once.
   first->bodyIs( [ & ]( FunctionTask& ) { root->suspendedIs( true ); } );
   first->scheduleTask();
   second->scheduleTask();
   root->clearHistory();
   for( int n = 0; n < 2; ++n ) {
      root->runCriticalPriorityTasks();
      EXPECT_EQ( second->getStats().taskRunCount(), 0u );
      const auto history = historyOf( *root );
      EXPECT_EQ(
            std::count( history.begin(), history.end(), "schedulerRunIgnoredWhileSuspended root" ),
            n );
   }
}

TEST_F( TaskRunTest, OuterTaskKeepsItsVirtualQuantum ) {
   ManualTimerClock virtualClock;
   Oru::ActivityManagerConfig::virtualTimeIs( true );
   root->virtualTimeCheck();
   auto critical = task( TaskPriority::critical, "test" );
   auto outer = task( TaskPriority::normal, "outer", [ & ]( FunctionTask& self ) {
      virtualClock.advance( 0.015 );
      critical->scheduleTask();
      root->runCriticalPriorityTasks();
      virtualClock.advance( 0.015 );
      EXPECT_TRUE( self.taskShouldYield() );
   } );
   outer->taskRunFromTest();
   EXPECT_EQ( outer->getStats().taskTotalRunTime().count() / 1000000, 30 );
}

TEST_F( TaskRunTest, ObserverMayReplaceItselfOrThrow ) {
   auto a = task( TaskPriority::normal, "a" );
   std::string seen;
   root->runObserverForTestIs( [ &, held = std::string( 100, 'x' ) ]( const TaskImpl& observed ) {
      root->runObserverForTestIs( {} );
      seen += observed.taskName().stdString() + held.substr( 0, 1 );
   } );
   a->scheduleTask();
   step();
   a->scheduleTask();
   step();
   EXPECT_EQ( seen, "ax" );
   EXPECT_EQ( a->taskRunCount(), 2u );

   root->runObserverForTestIs( []( const TaskImpl& ) { throw 7; } );
   a->scheduleTask();
   EXPECT_THROW( step(), int );
   root->runObserverForTestIs( {} );
   EXPECT_TRUE( a->taskScheduled() ) << "a run that did not take place is made up for";
   step();
   EXPECT_EQ( a->taskRunCount(), 3u );
}

TEST( TaskTimeTest, SecondsBeyondTheRangeAreTheLongestDuration ) {
   EXPECT_EQ( durationOfSeconds( 1.5 ), 1500ms );
   EXPECT_EQ( durationOfSeconds( 9.2e9 ), std::chrono::nanoseconds( 9'200'000'000'000'000'000 ) );
   EXPECT_EQ( durationOfSeconds( 9.3e9 ), TaskTimeDuration::max() );
   EXPECT_EQ( durationOfSeconds( 1e300 ), TaskTimeDuration::max() );
}

} // namespace
