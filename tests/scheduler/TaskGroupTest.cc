// Task groups: both run modes, both quantum loops, nesting, suspension, timers, lifetimes.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <Quarn/testing/Clocks.h>

#include <Oru/ActivityManager.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;
using Quarn::Testing::ManualSteadyClock;
using Quarn::Testing::ManualTimerClock;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;
using testing_support::FunctionTask;
using testing_support::historyOf;
using testing_support::makeTask;

using Group = std::shared_ptr<TaskGroup>;
using Member = std::shared_ptr<FunctionTask>;

class TaskGroupTest : public testing::Test {
 protected:
   TaskGroupTest() { root->historyEntryCountIs( 1000 ); }

   Group group( String name, std::shared_ptr<TaskScheduler> parent = nullptr,
                TaskPriority priority = TaskPriority::normal ) {
      return TaskGroup::TaskGroupIs( std::move( name ), priority, false,
                                     parent ? std::move( parent ) : root );
   }
   // A member that is queued and logs its name when it runs.
   Member queued( const Group& in, String name, FunctionTask::Body body = {} ) {
      auto task = makeTask( in, in->priority(), std::move( name ),
                            [ this, body = std::move( body ) ]( FunctionTask& self ) {
                               log += self.taskName().stdString();
                               if( body ) {
                                  body( self );
                               }
                            } );
      task->scheduleTask();
      return task;
   }
   bool turn() { return root->_handleSchedulerRun( TaskPriority::scavenge ); }
   void drain() {
      int turns = 0;
      while( turn() ) {
         ASSERT_LT( ++turns, 1000 );
      }
   }
   // What each of the next turns runs.
   std::string turns( int count = 1 ) {
      log.clear();
      while( turn(), --count > 0 ) {
         log += ',';
      }
      return log;
   }
   TaskStat parentStat( const Group& of ) {
      return of->parentScheduler()->taskStatForTest( "TaskGroup;" + of->schedulerName() );
   }
   bool idle( const Group& it ) {
      return !it->busy() && !root->busy() && it->checkForTest() && root->checkForTest() &&
             !it->parentTaskScheduled();
   }
   void virtualTimeIs( bool on ) {
      Oru::ActivityManagerConfig::virtualTimeIs( on );
      root->virtualTimeCheck();
   }

   ManualSteadyClock clock;
   ManualTimerClock timerClock;
   std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
   Group g = group( "g" );
   std::string log;
};

const auto again = []( FunctionTask& self ) { self.scheduleTask(); };

// -------------------------------------------------------------------------------------- run modes

TEST_F( TaskGroupTest, MembersRunAgainUntilTheQuantumIsUsedUp ) {
   const auto busyFor5ms = [ & ]( FunctionTask& self ) {
      clock.advance( 5ms );
      self.scheduleTask();
   };
   auto a = queued( g, "a", busyFor5ms );
   auto b = queued( g, "b", busyFor5ms );
   EXPECT_EQ( turns( 2 ), "abab,abab" );
   b.reset();
   EXPECT_EQ( turns(), "aaaa" );
   const TaskStat stat = parentStat( g );
   EXPECT_EQ( stat.taskRunCount(), 3u );
   EXPECT_EQ( stat.taskWorkCountTotal(), 12u );
   EXPECT_EQ( stat.taskWorkPending(), 1u );
   EXPECT_EQ( stat.taskWorkPendingHighWaterMark(), 2u );
   a.reset();
   EXPECT_EQ( turns( 2 ), "," );
   EXPECT_TRUE( idle( g ) );
}

TEST_F( TaskGroupTest, SnapshotRunsEachMemberOnce ) {
   g->tasksPermittedMultipleRunsIs( false );
   Member c;
   auto a = queued( g, "a", [ & ]( FunctionTask& self ) {
      self.scheduleTask();
      if( g->parentTaskRunCount() == 1 ) {
         // Leaves the queue of this run for that of the next.
         c->taskSuspendedIs( true );
         c->taskSuspendedIs( false );
      }
   } );
   auto b = queued( g, "b" );
   c = queued( g, "c" );
   root->clearHistory();
   EXPECT_EQ( turns(), "ab" );
   EXPECT_EQ( g->runnableTaskCount(), 2 );
   // The run ended with nothing left to take, and there was more.
   EXPECT_THAT( historyOf( *root ),
                IsSupersetOf( { "schedulerHasNoRunnableTasks g", "schedulerIdle g",
                                "schedulerHasRunnableTasks g", "schedulerBusy g" } ) );
   EXPECT_TRUE( g->schedulerHasRunnableTasks() && g->parentTaskScheduled() && g->checkForTest() );
   EXPECT_EQ( turns( 2 ), "ac,a" );
}

TEST_F( TaskGroupTest, LeftoversOfASnapshotComeBeforeWhatWasScheduledSince ) {
   g->tasksPermittedMultipleRunsIs( false );
   auto a = queued( g, "a", again );
   auto b = queued( g, "b" );
   auto c = queued( g, "c", [ & ]( FunctionTask& ) { a->taskForceYieldInTestIs( false ); } );
   a->taskForceYieldInTestIs( true );
   EXPECT_EQ( turns( 3 ), "a,b,ca" );
}

TEST_F( TaskGroupTest, LongQuantumLetsCriticalTasksIn ) {
   const struct {
      std::chrono::nanoseconds quantum;
      std::chrono::nanoseconds step;
      std::vector<int> criticalAtUs;
   } table[] = {
         // The steps are such that the quantum is not looked at when the counter passes 20 ms.
         { 20ms, 350us, {} },
         { 20ms + 1ns, 350us, { 20300 } },
         // The next wait counts from the end of the critical run.
         { 100ms, 1ms, { 21000, 33000, 45000, 57000, 69000, 81000, 93000 } },
   };
   for( const auto& row : table ) {
      g->taskGroupQuantumIs( row.quantum );
      const TaskTimeStamp start = taskTimeNow();
      std::vector<int> criticalAtUs;
      auto critical = makeTask( root, TaskPriority::critical, "test", [ & ]( FunctionTask& ) {
         criticalAtUs.push_back( static_cast<int>( ( taskTimeNow() - start ) / 1us ) );
         clock.advance( 1ms );
      } );
      auto a = queued( g, "a", [ & ]( FunctionTask& self ) {
         clock.advance( row.step );
         critical->scheduleTask();
         self.scheduleTask();
      } );
      turn();
      EXPECT_EQ( criticalAtUs, row.criticalAtUs ) << row.quantum.count();
      EXPECT_EQ( root->currentlyRunningTask(), nullptr );
   }
}

TEST_F( TaskGroupTest, VirtualTimeAllowsOneRunEachUnlessATestWantsMore ) {
   auto a = queued( g, "a", [ & ]( FunctionTask& self ) {
      timerClock.advance( 0.007 );
      self.scheduleTask();
   } );
   virtualTimeIs( true );
   EXPECT_EQ( turns(), "a" );
   TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime = true;
   g->tasksPermittedMultipleRunsIs( false );
   g->tasksPermittedMultipleRunsIs( true );
   EXPECT_EQ( turns(), "aaa" );
   g->tasksPermittedMultipleRunsIs( false );
   EXPECT_EQ( turns(), "a" );
}

TEST_F( TaskGroupTest, ModeChangedInARunHoldsFromTheNext ) {
   int runs = 0;
   auto a = queued( g, "a", [ & ]( FunctionTask& self ) {
      clock.advance( 5ms );
      timerClock.advance( 0.005 );
      if( ++runs == 1 || runs == 7 ) {
         virtualTimeIs( runs == 1 );
      }
      self.scheduleTask();
   } );
   // The quantum of 20 ms starts anew with the clock it is measured on.
   EXPECT_EQ( turns( 4 ), "aaaaa,a,a,aaaa" );
   EXPECT_TRUE( g->parentTaskScheduled() && g->checkForTest() );
}

// ------------------------------------------------------------------------------ nests, suspension

TEST_F( TaskGroupTest, RootSuspendedDeepInsideEndsEveryLevelAtOnce ) {
   for( const auto quantum : { 20ms, 1000ms } ) {
      auto middle = group( "middle", g );
      auto inner = group( "inner", middle );
      for( const auto& each : { g, middle, inner } ) {
         each->taskGroupQuantumIs( quantum );
      }
      auto a = queued( inner, "a", [ & ]( FunctionTask& ) { root->suspendedIs( true ); } );
      auto b = queued( inner, "b" );
      auto c = queued( g, "c" );
      root->clearHistory();
      EXPECT_EQ( turns(), "a" );
      const auto history = historyOf( *root );
      // The outermost parent task asks the root itself whether to yield.
      EXPECT_THAT( history, Contains( "schedulerRunIgnoredWhileSuspended inner" ).Times( 1 ) );
      EXPECT_THAT( history, Contains( "schedulerRunIgnoredWhileSuspended middle" ).Times( 1 ) );
      EXPECT_THAT( history, Contains( testing::HasSubstr( "WhileSuspended" ) ).Times( 2 ) );
      EXPECT_EQ( parentStat( inner ).taskWorkCountTotal(), 1u ) << "an empty step is no work";
      for( const auto& each : { g, middle, inner } ) {
         EXPECT_TRUE( each->parentTaskScheduled() );
      }
      root->suspendedIs( false );
      EXPECT_EQ( turns( 2 ), "cb," );
      EXPECT_TRUE( idle( g ) && idle( middle ) && idle( inner ) );
   }
}

TEST_F( TaskGroupTest, SuspendedGroupKeepsItsMembersWaiting ) {
   auto a = queued( g, "a" );
   root->clearHistory();
   g->suspendedIs( true );
   g->taskGroupSuspendedIs( true );
   EXPECT_TRUE( g->suspended() && g->taskGroupSuspended() && !g->parentTaskScheduled() );
   auto b = queued( g, "b" );
   g->taskGroupRunFromTest();
   EXPECT_EQ( turns(), "" );
   g->suspendedIs( false );
   EXPECT_THAT( historyOf( *root ),
                IsSupersetOf( { "suspendOn N TaskGroup;g", "suspendOff N TaskGroup;g" } ) );
   EXPECT_THAT( historyOf( *root ), Not( Contains( "schedulerSuspended g" ) ) );
   EXPECT_EQ( turns( 2 ), "ab," );
   EXPECT_TRUE( idle( g ) );

   // Without members resuming costs one empty run.
   const auto runs = g->parentTaskRunCount();
   g->taskGroupSuspendedIs( true );
   g->taskGroupSuspendedIs( false );
   EXPECT_TRUE( g->parentTaskScheduled() );
   drain();
   EXPECT_EQ( g->parentTaskRunCount(), runs + 1 );
   EXPECT_TRUE( idle( g ) );
}

TEST_F( TaskGroupTest, MemberMaySuspendItsGroupOrAnyAround ) {
   for( const bool multiple : { true, false } ) {
      auto inner = group( "inner", g );
      g->tasksPermittedMultipleRunsIs( multiple );
      inner->tasksPermittedMultipleRunsIs( multiple );
      Group suspend = inner;
      auto a = queued( inner, "a", [ & ]( FunctionTask& self ) {
         suspend->suspendedIs( true );
         self.scheduleTask();
      } );
      auto b = queued( inner, "b" );
      auto c = queued( g, "c" );
      EXPECT_EQ( turns( 2 ), "ac," );
      EXPECT_TRUE( !g->parentTaskScheduled() && g->checkForTest() && inner->checkForTest() );
      suspend = g;
      inner->suspendedIs( false );
      EXPECT_EQ( turns( 2 ), "ba," );
      EXPECT_TRUE( inner->parentTaskScheduled() && !g->parentTaskScheduled() );
      a->bodyIs( {} );
      g->suspendedIs( false );
      drain();
      EXPECT_TRUE( idle( g ) && idle( inner ) );
   }
}

TEST_F( TaskGroupTest, StatusShowsGroupsAndSuspensionAround ) {
   auto inner = group( "inner", g );
   auto member = makeTask( inner, TaskPriority::normal, "m" );
   const auto statuses = [ & ] {
      return std::vector<unsigned>{ parentStat( g ).taskStatus().bits(),
                                    parentStat( inner ).taskStatus().bits(), member->taskStatus() };
   };
   EXPECT_THAT( statuses(), ElementsAre( 32u, 32u, 0u ) );
   inner->suspendedIs( true );
   EXPECT_THAT( statuses(), ElementsAre( 32u, 32u | 16u, 64u ) );
   inner->suspendedIs( false );
   g->suspendedIs( true );
   EXPECT_THAT( statuses(), ElementsAre( 32u | 16u, 32u | 64u | 4u, 64u ) );
   g->suspendedIs( false );
   root->suspendedIs( true );
   EXPECT_THAT( statuses(), ElementsAre( 32u | 64u | 4u, 32u | 64u | 4u, 64u ) );
}

TEST_F( TaskGroupTest, RunFromTestUnderASuspendedRootLosesNothing ) {
   auto a = queued( g, "a" );
   root->suspendedIs( true );
   g->taskGroupRunFromTest();
   EXPECT_TRUE( g->parentTaskScheduled() );
   root->suspendedIs( false );
   g->taskGroupRunFromTest();
   EXPECT_EQ( log, "a" );
   turn();
   EXPECT_TRUE( idle( g ) );
}

TEST_F( TaskGroupTest, ExceptionOfAMemberLosesNoOther ) {
   for( const bool multiple : { true, false } ) {
      for( const bool nested : { true, false } ) {
         auto middle = group( "middle", g );
         auto inner = nested ? group( "inner", middle ) : g;
         for( const auto& each : { g, middle, inner } ) {
            each->tasksPermittedMultipleRunsIs( multiple );
         }
         auto a = queued( inner, "a" );
         auto b = queued( inner, "b", []( FunctionTask& ) { throw std::runtime_error( "b" ); } );
         auto c = queued( inner, "c" );
         auto d = queued( g, "d" );
         log.clear();
         EXPECT_THROW( turn(), std::runtime_error );
         EXPECT_EQ( log, "ab" );
         EXPECT_EQ( inner->currentlyRunningTask(), nullptr );
         EXPECT_TRUE( g->checkForTest() && inner->checkForTest() );
         EXPECT_TRUE( g->parentTaskScheduled() && inner->parentTaskScheduled() );
         a->scheduleTask();
         EXPECT_EQ( turns( 2 ), nested ? "dca," : "cda," );
         EXPECT_TRUE( idle( g ) && idle( inner ) );
      }
   }
}

TEST_F( TaskGroupTest, MemberThatThrowsMayHaveSuspendedTheGroup ) {
   g->tasksPermittedMultipleRunsIs( false );
   auto a = queued( g, "a", [ & ]( FunctionTask& ) {
      g->suspendedIs( true );
      throw std::runtime_error( "a" );
   } );
   auto b = queued( g, "b" );
   EXPECT_THROW( turn(), std::runtime_error );
   EXPECT_EQ( turns( 2 ), "," );
   g->suspendedIs( false );
   EXPECT_EQ( turns( 2 ), "b," );
   EXPECT_TRUE( idle( g ) );
}

// --------------------------------------------------------------------------------------- lifetimes

TEST_F( TaskGroupTest, LastMemberDroppedInItsRunTakesItsGroupsAlong ) {
   for( unsigned row = 0; row < 4; ++row ) {
      const bool multiple = ( row & 1 ) != 0, throws = ( row & 2 ) != 0;
      g = group( "outer" );
      auto inner = group( "inner", g );
      g->tasksPermittedMultipleRunsIs( multiple );
      inner->tasksPermittedMultipleRunsIs( multiple );
      const std::weak_ptr<TaskScheduler> weakOuter = g, weakInner = inner;
      Member a;
      a = queued( inner, "a", [ & ]( FunctionTask& self ) {
         self.scheduleTask();
         a.reset();
         if( throws ) {
            throw std::runtime_error( "a" );
         }
      } );
      inner.reset();
      g.reset();
      root->clearStats();
      if( throws ) {
         EXPECT_THROW( turn(), std::runtime_error );
      } else {
         EXPECT_TRUE( turn() );
      }
      EXPECT_TRUE( weakOuter.expired() && weakInner.expired() );
      EXPECT_EQ( root->taskGroupCount() + root->totalRegisteredTaskCount(), 0u );
      EXPECT_EQ( root->completedTaskStatForTest( "TaskGroup;outer" ).taskRunCount(), 1u );
      drain();
      EXPECT_TRUE( !root->busy() && root->checkForTest() );
   }
}

TEST_F( TaskGroupTest, LivesAsLongAsItsOwnersAndHoldsItsParent ) {
   auto inner = group( "inner", g );
   auto a = queued( inner, "a" );
   const auto parentTask =
         std::static_pointer_cast<TaskGroup::ParentTask>( root->taskForTest( "TaskGroup;g" ) );
   EXPECT_EQ( parentTask->taskGroup(), g );
   EXPECT_TRUE( parentTask->isTaskGroup() );
   EXPECT_FALSE( a->isTaskGroup() );
   const std::weak_ptr<TaskSchedulerRoot> weakRoot = root;
   inner.reset();
   g.reset();
   root.reset();
   EXPECT_EQ( weakRoot.lock()->findSchedulerForTest( "inner" ), a->taskScheduler() );
   a.reset();
   EXPECT_EQ( weakRoot.lock()->taskGroupCount(), 0u );
   // Somebody else still holds the parent task, and it holds the root.
   EXPECT_EQ( parentTask->taskGroup(), nullptr );
   EXPECT_FATAL( parentTask->isTaskGroup(), "TaskGroup is non-null" );
   parentTask->taskRunFromTest();
   EXPECT_EQ( parentTask->taskRunCount(), 1u );
}

TEST_F( TaskGroupTest, FailedConstructionLeavesNothingBehind ) {
   g.reset();
   for( const std::uint8_t ratio : { std::uint8_t{ 0 }, std::uint8_t{ 3 } } ) {
      root->taskTestYieldRatioIs( ratio );
      EXPECT_FATAL( TaskGroup( "g", TaskPriority::normal, true, nullptr ), "Need a TaskScheduler" );
      EXPECT_FATAL( group( "g", root, TaskPriority::oneBeyondLast ), "oneBeyondLast" );
      EXPECT_FATAL( group( "g", root, TaskPriority( std::uint8_t{ 7 } ) ), "7" );
      EXPECT_FATAL( group( "worker", root, TaskPriority::critical ), "must be authorized" );
      EXPECT_EQ( root->taskGroupCount() + root->totalRegisteredTaskCount(), 0u );
      EXPECT_FALSE( root->anyTaskForcesYieldInTest() );
      EXPECT_TRUE( root->checkForTest() );
   }
   root->defaultTaskQuantumIs( 3ms );
   g = group( "g", root, TaskPriority::high );
   EXPECT_EQ( g->taskGroupQuantum(), 3ms );
   g->taskGroupQuantumNoCheckIs( 1ns );
   EXPECT_EQ( g->taskGroupQuantum(), 1ns );
   EXPECT_FATAL( g->taskGroupQuantumNoCheckIs( -7ns ), "Quantum: -7ns" );
   EXPECT_FATAL( makeTask( g, TaskPriority::normal, "m" ),
                 "taskPriority( normal ) != taskGroupPriority( high )" );
   EXPECT_EQ( makeTask( g, TaskPriority::high, "m" )->taskQuantum(), 3ms );
}

TEST_F( TaskGroupTest, ForcedYieldsReachEveryGroupAround ) {
   auto inner = group( "inner", g );
   auto a = queued( inner, "a", again );
   auto b = queued( inner, "b", again );
   auto c = queued( g, "c", again );
   g->tasksPermittedMultipleRunsIs( false );
   inner->tasksPermittedMultipleRunsIs( false );
   EXPECT_EQ( turns( 2 ), "abc,abc" );
   // Of a member: all groups around it yield after each run.
   a->taskTestYieldRatioIs( 7 );
   EXPECT_EQ( turns( 4 ), "a,c,b,c" );
   // Of a group: the one around it.
   a->taskTestYieldRatioIs( 0 );
   inner->taskGroupForceYieldInTestIs( true );
   EXPECT_TRUE( g->anyTaskForcesYieldInTest() && root->anyTaskForcesYieldInTest() );
   EXPECT_EQ( turns( 2 ), "ab,c" );
   // A ratio that ends does not end the switch.
   a->taskForceYieldInTestIs( true );
   a->taskForceYieldInTestIs( false );
   EXPECT_EQ( turns( 2 ), "ab,c" );
   inner->taskGroupForceYieldInTestIs( false );
   EXPECT_FALSE( g->anyTaskForcesYieldInTest() || root->anyTaskForcesYieldInTest() );
   EXPECT_EQ( turns( 2 ), "abc,abc" );
   // Of the root: all of them.
   root->taskTestYieldRatioIs( 200 );
   EXPECT_EQ( turns( 2 ), "a,c" );
   root->taskTestYieldRatioIs( 0 );
   // The switch goes with its group.
   inner->taskGroupForceYieldInTestIs( true );
   a.reset();
   b.reset();
   inner.reset();
   EXPECT_FALSE( g->anyTaskForcesYieldInTest() || root->anyTaskForcesYieldInTest() );
}

// ------------------------------------------------------------------------------ timers, busy state

class TimerMember : public TimerTask {
 public:
   using TimerTask::TimerTask;
   int runs = 0;

 private:
   void taskExecute() override { ++runs; }
};

TEST_F( TaskGroupTest, TimersCountOnceInEveryGroupAround ) {
   auto inner = group( "inner", g );
   const auto counts = [ & ] {
      return std::vector{ inner->timerRunningCount(), g->timerRunningCount(),
                          root->timerRunningCount() };
   };
   for( unsigned row = 0; row < 8; ++row ) {
      // Whether a member is runnable when the first timer starts and when the last is over.
      const bool runnableAtStart = ( row & 1 ) != 0, runnableAtEnd = ( row & 2 ) != 0;
      const bool expires = ( row & 4 ) != 0;
      auto first = std::make_shared<TimerMember>( inner, TaskPriority::normal, "first" );
      auto second = std::make_shared<TimerMember>( inner, TaskPriority::normal, "second" );
      auto plain = queued( inner, "p" );
      if( !runnableAtStart ) {
         drain();
      }
      first->scheduleTaskDelay( 1.0 );
      second->scheduleTaskDelay( 1.0 );
      EXPECT_THAT( counts(), ElementsAre( 2u, 1u, 1u ) );
      drain();
      EXPECT_TRUE( root->busy() && g->busy() && inner->busy() );
      if( runnableAtEnd ) {
         plain->scheduleTask();
      }
      if( expires ) {
         timerClock.advance( 2.0 );
         root->runCriticalPriorityTasks(); // delivers timers
      } else {
         first->stopTimerTask();
         EXPECT_THAT( counts(), ElementsAre( 1u, 1u, 1u ) );
         second.reset();
      }
      EXPECT_THAT( counts(), ElementsAre( 0u, 0u, 0u ) );
      drain();
      EXPECT_EQ( first->runs, expires ? 1 : 0 );
      EXPECT_TRUE( idle( inner ) && idle( g ) );
   }
   EXPECT_FATAL( inner->timerRunningDec( taskTimeNow() ), "timerRunningCount_ > 0" );
}

TEST_F( TaskGroupTest, TimersMayChangeInABusyCallback ) {
   auto timer = std::make_shared<TimerMember>( g, TaskPriority::normal, "t" );
   TaskScheduler* callers[] = { g.get(), root.get() };
   for( TaskScheduler* caller : callers ) {
      // Stopped as soon as it starts.
      caller->registerBusyCallback( this, [ & ] { timer->stopTimerTask(); } );
      timer->scheduleTaskDelay( 1.0 );
      EXPECT_EQ( g->timerRunningCount() + root->timerRunningCount(), 0u );
      EXPECT_TRUE( idle( g ) );
      caller->unregisterBusyCallback( this );
      // Started as soon as it stops.
      timer->scheduleTaskDelay( 1.0 );
      caller->registerBusyCallback( this, [ & ] { timer->scheduleTaskDelay( 1.0 ); } );
      timer->stopTimerTask();
      caller->unregisterBusyCallback( this );
      EXPECT_EQ( g->timerRunningCount(), 1u );
      EXPECT_EQ( root->timerRunningCount(), 1u );
      timer->stopTimerTask();
      EXPECT_TRUE( idle( g ) );
   }
}

TEST_F( TaskGroupTest, BusyCallbackMayScheduleOrDropAtTheMomentOfIdleness ) {
   for( const bool multiple : { true, false } ) {
      // Whether the run ends with the last member's, or finds nothing more first.
      for( const bool yields : { true, false } ) {
         g = group( "g" );
         const std::weak_ptr<TaskScheduler> weak = g;
         g->tasksPermittedMultipleRunsIs( multiple );
         auto a = queued( g, "a" );
         a->taskForceYieldInTestIs( yields );
         int idleTimes = 0;
         g->registerBusyCallback( this, [ &, raw = g.get() ] {
            if( raw->busy() ) {
               return;
            }
            if( ++idleTimes == 1 ) {
               a->scheduleTask();
            } else {
               a.reset();
               g.reset();
            }
         } );
         EXPECT_EQ( turns( 4 ), "a,a,," );
         EXPECT_EQ( idleTimes, 2 );
         EXPECT_TRUE( weak.expired() );
         EXPECT_FALSE( root->busy() );
      }
   }
}

TEST_F( TaskGroupTest, BusyCallbackThatThrowsLeavesTheCountsRight ) {
   class Fails : public std::exception {};
   bool fails = true;
   const auto callback = [ & ] {
      if( fails ) {
         throw Fails();
      }
   };
   // Resumed, the group is resumed whatever is thrown; otherwise its task would run for nothing.
   g->suspendedIs( true );
   auto m = queued( g, "m" );
   drain();
   root->registerBusyCallback( this, callback );
   EXPECT_THROW( g->suspendedIs( false ), Fails );
   fails = false;
   EXPECT_EQ( g->suspended(), g->taskGroupSuspended() );
   drain();
   EXPECT_EQ( log, "m" );
   EXPECT_EQ( g->parentTaskRunCount(), 1u );
   root->unregisterBusyCallback( this );

   auto timer = std::make_shared<TimerMember>( g, g->priority(), "timer" );
   timer->scheduleTaskDelay( 5.0 );
   g->registerBusyCallback( this, callback );
   fails = true;
   EXPECT_THROW( timer->stopTimerTask(), Fails );
   g->unregisterBusyCallback( this );
   EXPECT_EQ( root->timerRunningCount(), 0u );
   EXPECT_TRUE( idle( g ) );
}

TEST( TaskGroupDeathTest, ResetTaskIsNotHeldBeyondItsScheduler ) {
   EXPECT_DEATH(
         {
            auto root = schedulerRootQuarnNonShared( "root" );
            auto g = TaskGroup::TaskGroupIs( "g", TaskPriority::normal, false, root );
            g->resetStats();
            const auto held = g->taskForTest( "g;ResetStats" );
            g.reset();
         },
         "g;ResetStats is held beyond its scheduler" );
}

// A test runs a member, so that the root runs nothing: its own run entry goes on to the group.
TEST_F( TaskGroupTest, RunEntryInsideAMembersRunKeepsTheOthers ) {
   const Member a = queued( g, "a", [ & ]( FunctionTask& ) {
      EXPECT_FATAL( turn(), "currentlyRunningTask_ is not NULL a" );
   } );
   const Member b = queued( g, "b" );
   a->taskRunFromTest();
   drain();
   EXPECT_EQ( log, "ab" );
   EXPECT_TRUE( idle( g ) );
}

// Under virtual time what a member schedules waits for the next run of the group, and so there is
// nothing to refuse.
TEST_F( TaskGroupTest, RunEntryInsideALastRunFindsNothing ) {
   virtualTimeIs( true );
   const Member b = makeTask( g, g->priority(), "b" );
   const Member a = queued( g, "a", [ & ]( FunctionTask& ) {
      b->scheduleTask();
      EXPECT_FALSE( g->_handleSchedulerRun( TaskPriority::scavenge ) );
   } );
   drain();
   EXPECT_EQ( b->taskRunCount(), 1u );
   virtualTimeIs( false );
}

} // namespace
