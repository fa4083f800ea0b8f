// Values, registration, queues and the life of a task.

#include "support/Fatal.h"
#include "support/Tasks.h"
#include "support/TraceCapture.h"

#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <sstream>
#include <thread>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing_support::FunctionTask;
using testing_support::historyOf;
using testing_support::makeTask;
using testing_support::TraceCapture;

TEST( TaskPriorityTest, TextsAndCharacters ) {
   const char* texts[] = { "critical", "absolute", "high",         "normal",
                           "low",      "scavenge", "oneBeyondLast" };
   for( std::uint8_t value = 0; value <= 6; ++value ) {
      EXPECT_EQ( TaskPriority( value ).toStrep(), texts[ value ] );
      EXPECT_EQ( TaskPriority( value ).oneCharString(), String( &"CAHNLS-"[ value ], 1 ) );
   }
   EXPECT_FATAL( TaskPriority( std::uint8_t{ 7 } ).toStrep(), "unexpected priority value 7" );
   EXPECT_FATAL( TaskPriority( std::uint8_t{ 7 } ).oneChar(), "unexpected priority 7" );
   EXPECT_EQ( fmt::format( "{} {}", TaskPriority( TaskPriority::low ),
                           TaskPriority( std::uint8_t{ 200 } ) ),
              "low 200" )
         << "a trace must not fail";
   std::ostringstream out;
   out << TaskPriority( TaskPriority::absolute );
   EXPECT_EQ( out.str(), "absolute" );
   EXPECT_EQ( TaskKey( reinterpret_cast<void*>( 255 ) ).toStrep(), "@255" );
}

TEST( TaskTimeTest, DurationsAreTruncatedToOneUnit ) {
   const struct {
      std::chrono::nanoseconds duration;
      char const* text;
   } table[] = {
         { -5ns, "-5ns" },
         { 0ns, "0ns" },
         { 999ns, "999ns" },
         { 1000ns, "1µs" },
         { 999'999ns, "999µs" },
         { 1ms, "1ms" },
         { 59'999ms, "59999ms" },
         { 59'900ms, "59900ms" },
         { 60s, "60s" },
         { 59min, "3540s" },
         { 3'599'999'999'999ns, "3599s" },
         { 1h, "60min" },
         { 25h, "1500min" },
   };
   for( const auto& row : table ) {
      EXPECT_EQ( durationToString( row.duration ), row.text );
   }
}

class TaskTest : public testing::Test {
 protected:
   std::shared_ptr<FunctionTask> task( TaskPriority priority, String name,
                                       FunctionTask::Body body = {} ) {
      return makeTask( root, priority, std::move( name ), std::move( body ) );
   }
   // Runs one step of the root, as the loop would.
   bool step() { return root->_handleSchedulerRun( TaskPriority::scavenge ); }

   std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
};

TEST_F( TaskTest, ConstructionRegistersAndDestructionKeepsTheStatistics ) {
   auto a = task( TaskPriority::high, "x" );
   EXPECT_EQ( a->taskName(), "x" );
   EXPECT_EQ( a->taskStatsName(), "x" );
   EXPECT_EQ( a->taskTaggedName(), "H x" );
   EXPECT_EQ( root->tasksPerPriority( TaskPriority::high ), 1u );
   EXPECT_EQ( root->totalRegisteredTaskCount(), 1u );
   EXPECT_EQ( root->taskForTest( "x" ), a );
   EXPECT_EQ( root->taskForTest( "y" ), nullptr );
   auto newer = task( TaskPriority::low, "x" );
   EXPECT_EQ( root->taskForTest( "x" ), newer );
   newer->includeInCompletedTaskIs( false );
   newer.reset();
   EXPECT_EQ( root->completedTasksPerPriority( TaskPriority::low ), 0u );

   a->scheduleTask();
   step();
   a->taskStatsNameIs( "family" );
   a.reset();
   for( int n = 0; n < 2; ++n ) {
      auto next = task( TaskPriority::high, "y" );
      next->taskStatsNameIs( "family" );
      next->taskRunFromTest();
   }
   const TaskStat stat = root->completedTaskStatForTest( "family" );
   EXPECT_EQ( stat.taskCompletedCount(), 3u );
   EXPECT_EQ( stat.taskRunCount(), 3u );
   EXPECT_EQ( root->completedTasksPerPriority( TaskPriority::high ), 3u );
   EXPECT_EQ( root->tasksPerPriority( TaskPriority::high ), 0u );
   EXPECT_TRUE( root->checkForTest() );
}

TEST_F( TaskTest, RegistrationIsRefusedByPriorityAndName ) {
   const struct {
      std::uint8_t priority;
      char const* name;
      char const* text;
   } table[] = {
         { 6, "x", "oneBeyondLast" },
         { 7, "x", "unexpected priority 7" },
         { 0, "worker", "Use of critical priority task worker must be authorized" },
         { 0, "ribOutkeepalive", "must be authorized" },
   };
   for( const auto& row : table ) {
      EXPECT_FATAL( task( TaskPriority( row.priority ), row.name ), row.text );
   }
   EXPECT_EQ( root->totalRegisteredTaskCount(), 0u ) << "nothing stays behind";
   EXPECT_TRUE( root->checkForTest() );
   task( TaskPriority::critical, "MyTestTask" );
   task( TaskPriority::critical, "the RibOutKeepalive of it" );
   task( TaskPriority::scavenge, "any" );

   EXPECT_FATAL( makeTask( nullptr, TaskPriority::normal, "x" ), "Need a TaskScheduler" );
   struct Raw : Task {
      explicit Raw( TaskScheduler* scheduler ) : Task( scheduler, TaskPriority::normal, "raw" ) {}
      void taskExecute() override {}
   };
   EXPECT_FATAL( Raw( nullptr ), "Need a TaskScheduler" );
   EXPECT_EQ( std::make_shared<Raw>( root.get() )->taskScheduler(), root );
   auto task2 = task( TaskPriority::normal, "again" );
   EXPECT_FATAL( root->taskRegister( task2.get() ), "Task: again already registered" );
   EXPECT_FATAL( root->taskStatForTest( "nobody" ), "Task: nobody not registered" );
   const auto group = TaskGroup::TaskGroupIs( "test", TaskPriority::critical, false, root );
   EXPECT_FATAL( makeTask( group, TaskPriority::critical, "test" ),
                 "Critical priority task test can only be registered against root scheduler" );
}

TEST_F( TaskTest, UnregistrationIsRefusedWhileQueuedAndTwice ) {
   const auto a = task( TaskPriority::normal, "a" );
   a->scheduleTask();
   EXPECT_FATAL( root->taskUnregister( a.get() ), "Task: a scheduled on unregister" );
   a->unscheduleTask();
   root->taskUnregister( a.get() );
   EXPECT_FATAL( root->taskUnregister( a.get() ), "Priority: normal count: 0" );
   root->taskRegister( a.get() );
   EXPECT_EQ( root->totalRegisteredTaskCount(), 1u );
   EXPECT_TRUE( root->checkForTest() );
}

TEST_F( TaskTest, FailedConstructionLeavesNoForcedYieldBehind ) {
   root->taskTestYieldRatioIs( 2 );
   EXPECT_FATAL( task( TaskPriority::critical, "worker" ), "must be authorized" );
   EXPECT_FALSE( root->anyTaskForcesYieldInTest() );
   auto live = task( TaskPriority::normal, "live" );
   EXPECT_TRUE( root->anyTaskForcesYieldInTest() );
   live.reset();
   EXPECT_FALSE( root->anyTaskForcesYieldInTest() ) << "nor does destruction under a root ratio";
}

TEST_F( TaskTest, SchedulingIsIdempotentAndRecorded ) {
   auto a = task( TaskPriority::normal, "a" );
   root->clearHistory();
   a->scheduleTask();
   a->scheduleTask();
   EXPECT_TRUE( a->taskScheduled() );
   EXPECT_EQ( a->taskStatus(), 4u );
   EXPECT_EQ( root->runnableTaskCount( TaskPriority::normal ), 1 );
   EXPECT_THAT( historyOf( *root ), ElementsAre( "schedule N a", "schedulerHasRunnableTasks root",
                                                 "schedulerBusy root", "busy N a" ) );
   root->clearHistory();
   a->unscheduleTask();
   a->unscheduleTask();
   EXPECT_THAT( historyOf( *root ), ElementsAre( "unschedule N a", "idle N a" ) );
   EXPECT_TRUE( root->schedulerHasRunnableTasks() ) << "until the next callback finds nothing";
   EXPECT_EQ( root->runnableTaskCount(), 0 );
   EXPECT_EQ( root->runTaskCount( TaskPriority::normal ), 0u ) << "unscheduled is not run";
   EXPECT_FATAL( root->unscheduleTask( taskTimeNow(), a.get() ), "Task: a not on run queue" );
   EXPECT_FATAL( root->runnableTaskCount( TaskPriority::oneBeyondLast ), "oneBeyondLast" );
   EXPECT_FATAL( root->runTaskCount( TaskPriority::oneBeyondLast ), "oneBeyondLast" );
   root->clearHistory();
   EXPECT_FALSE( step() );
   EXPECT_THAT( historyOf( *root ),
                ElementsAre( "schedulerHasNoRunnableTasks root", "schedulerIdle root" ) );
}

TEST_F( TaskTest, RunIsRecordedWithItsBusyChange ) {
   auto a = task( TaskPriority::normal, "a" );
   a->scheduleTask();
   root->clearHistory();
   EXPECT_TRUE( step() );
   EXPECT_THAT( historyOf( *root ), ElementsAre( "run start N a", "run end N a", "idle N a" ) );
   a->bodyIs( []( FunctionTask& self ) { self.scheduleTask(); } );
   a->scheduleTask();
   root->clearHistory();
   EXPECT_TRUE( step() );
   EXPECT_THAT( historyOf( *root ), ElementsAre( "run start N a", "schedule N a", "run end N a" ) );
}

TEST_F( TaskTest, LifeIsRecorded ) {
   auto a = task( TaskPriority::normal, "a" );
   a->taskForceYieldInTestIs( true );
   a.reset();
   EXPECT_THAT( historyOf( *root ),
                ElementsAre( "create N a", "frcYieldOn N a", "frcYieldOff N a", "delete N a" ) );
}

TEST_F( TaskTest, SuspendedTaskIsNotQueuedAndLosesNoWakeUp ) {
   auto idle = task( TaskPriority::normal, "idle" );
   idle->taskSuspendedIs( true );
   idle->taskSuspendedIs( false );
   EXPECT_TRUE( idle->taskScheduled() ) << "queued, though it was not before";
   idle.reset();
   auto a = task( TaskPriority::normal, "a" );
   a->scheduleTask();
   root->clearHistory();
   a->taskSuspendedIs( true );
   a->taskSuspendedIs( true );
   a->scheduleTask();
   EXPECT_FALSE( a->taskScheduled() );
   EXPECT_EQ( a->taskStatus(), 16u );
   EXPECT_THAT( historyOf( *root ),
                ElementsAre( "suspendOn N a", "unschedule N a", "idle N a", "scheduleSus N a" ) );
   root->clearHistory();
   a->taskSuspendedIs( false );
   EXPECT_TRUE( a->taskScheduled() );
   EXPECT_THAT( historyOf( *root ), ElementsAre( "suspendOff N a", "schedule N a", "busy N a" ) );
}

TEST_F( TaskTest, QuantumRules ) {
   const auto handler = Platform::getDebugHandler( "TaskScheduler", false );
   handler->enabledIs( 4, true );
   handler->enabledIs( 9, true );
   auto a = task( TaskPriority::normal, "a" );
   EXPECT_EQ( a->taskQuantum(), 20ms );
   TraceCapture capture;
   a->taskQuantumNoCheckIs( 20ms );
   EXPECT_EQ( capture.text(), "" );
   a->taskQuantumIs( 1500us );
   EXPECT_THAT( capture.text(), HasSubstr( "TaskScheduler/4 " ) );
   EXPECT_THAT( capture.text(), HasSubstr( "Set quantum a to 1ms" ) );
   a->taskQuantumIs( 20ms );
   EXPECT_THAT( capture.text(), HasSubstr( "TaskScheduler/9 " ) );
   EXPECT_FATAL( a->taskQuantumIs( 0ns ), "Quantum: 0ns" );
   EXPECT_FATAL( a->taskQuantumNoCheckIs( -7ns ), "Quantum: -7ns" );
   root->defaultTaskQuantumIs( 0ns );
   auto unlimited = task( TaskPriority::normal, "unlimited" );
   unlimited->taskQuantumNoCheckIs( 0ns );
   EXPECT_FATAL( unlimited->taskQuantumIs( 0ns ), "Quantum: 0ns" );
}

TEST_F( TaskTest, BusyHookHearsEachChangeOnce ) {
   struct Busy : Task {
      using Task::Task;
      void taskExecute() override {}
      void handleTaskBusy() override { seen.push_back( taskScheduled() ); }
      std::vector<bool> seen;
   };
   auto a = std::make_shared<Busy>( root, TaskPriority::normal, "a" );
   a->scheduleTask();
   a->scheduleTask();
   step();
   a->scheduleTask();
   a->unscheduleTask();
   EXPECT_THAT( a->seen, ElementsAre( true, false, true, false ) );
}

TEST_F( TaskTest, BusyCallbacksMayChangeAnything ) {
   std::vector<int> order;
   int keys[ 4 ];
   auto victim = task( TaskPriority::normal, "victim" );
   auto a = task( TaskPriority::normal, "a" );
   root->registerBusyCallback( &keys[ 0 ], [ & ] {
      order.push_back( 0 );
      root->unregisterBusyCallback( &keys[ 1 ] );
      root->registerBusyCallback( &keys[ 3 ], [ & ] { order.push_back( 3 ); } );
      root->unregisterBusyCallback( &keys[ 0 ] );
      victim.reset();
      a.reset(); // the one being scheduled
   } );
   root->registerBusyCallback( &keys[ 1 ], [ & ] { order.push_back( 1 ); } );
   root->registerBusyCallback( &keys[ 2 ], [ & ] { order.push_back( -2 ); } );
   root->registerBusyCallback( &keys[ 2 ], [ & ] { order.push_back( 2 ); } );
   root->unregisterBusyCallback( &order );
   a->scheduleTask();
   EXPECT_THAT( order, ElementsAre( 0, 2 ) );
   EXPECT_TRUE( root->busy() );
   EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
   step();
   EXPECT_FALSE( root->busy() );
   EXPECT_THAT( order, ElementsAre( 0, 2, 2, 3 ) );
   root->unregisterBusyCallback( &keys[ 2 ] );
   root->unregisterBusyCallback( &keys[ 3 ] );
   EXPECT_FALSE( root->schedulerBaseBusyCallbacksRegistered() );
   auto b = task( TaskPriority::normal, "b" );
   root->registerBusyCallback( &keys[ 0 ], {} );
   EXPECT_THROW( b->scheduleTask(), std::bad_function_call );
   root->unregisterBusyCallback( &keys[ 0 ] );
   EXPECT_TRUE( root->checkForTest() );
}

TEST_F( TaskTest, BusyCallbackMayDropTheRoot ) {
   auto a = task( TaskPriority::normal, "a" );
   std::weak_ptr<TaskSchedulerRoot> weak = root;
   root->registerBusyCallback( &weak, [ & ] {
      root.reset();
      a.reset();
   } );
   Task* raw = a.get();
   raw->scheduleTask();
   EXPECT_TRUE( weak.expired() );
}

TEST_F( TaskTest, OtherThreadsAreTurnedAway ) {
   auto a = task( TaskPriority::normal, "a" );
   std::thread( [ & ] {
      EXPECT_FATAL( a->scheduleTask(), "Executing in wrong thread " );
      EXPECT_FATAL( a->taskScheduled(), " scheduler belongs to thread " );
      EXPECT_FATAL( makeTask( root, TaskPriority::normal, "b" ), "Executing in wrong thread " );
      // Nothing has happened by the time of the refusal.
      EXPECT_FATAL( root->handleSchedulerRun(), "Executing in wrong thread " );
      EXPECT_FATAL( root->requestSchedulerRun(), "Executing in wrong thread " );
      EXPECT_FATAL( a->taskRunFromTest(), "Executing in wrong thread " );
      EXPECT_FATAL( a->taskQuantumIs( 1ms ), "Executing in wrong thread " );
      EXPECT_FATAL( root->historyEntryCountIs( 5 ), "Executing in wrong thread " );
      EXPECT_EQ( a->taskRunCount(), 0u );
      ++auxThreadCount;
      a->taskScheduled();
      --auxThreadCount;
      TraceCapture capture;
      Platform::getDebugHandler( "TaskScheduler", false )->enabledIs( 1, true );
      root->threadSanityDisabledIs( true );
      root->threadSanityDisabledIs( true );
      EXPECT_EQ( capture.count( "root disable thread sanity checking" ), 1u );
      a->scheduleTask();
      root->threadSanityDisabledIs( false );
      EXPECT_EQ( capture.count( "root enable thread sanity checking" ), 1u );
      EXPECT_FATAL( a->taskScheduled(), "Executing in wrong thread " );
   } ).join();
   EXPECT_TRUE( a->taskScheduled() );
}

} // namespace
