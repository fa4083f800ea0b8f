// Statistics: work units, selection, folding, and the walk that resets them.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <Quarn/testing/Clocks.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;
using Quarn::Testing::ManualSteadyClock;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using testing_support::FunctionTask;
using testing_support::makeTask;

std::vector<std::string> names( const BasicVector<TaskStat>& stats ) {
   std::vector<std::string> result;
   for( const TaskStat& stat : stats ) {
      result.push_back( stat.taskName().stdString() );
   }
   return result;
}

// A task whose reset hook is a function.
class HookTask : public FunctionTask {
 public:
   using FunctionTask::FunctionTask;
   std::function<void( HookTask& )> hook;

 private:
   void handleResetStats() override {
      const auto copy = hook; // may destroy this task
      copy( *this );
   }
};

class TaskStatsTest : public testing::Test {
 protected:
   bool turn() { return root->_handleSchedulerRun( TaskPriority::scavenge ); }
   void drain() {
      int turns = 0;
      while( turn() ) {
         ASSERT_LT( ++turns, 1000 );
      }
   }

   // Tasks a to e that have run once; the walk meets e first.
   void makeHooked( const std::shared_ptr<TaskScheduler>& scheduler,
                    TaskPriority priority = TaskPriority::normal ) {
      for( const char* name : { "a", "b", "c", "d", "e" } ) {
         tasks[ name ] = std::make_shared<HookTask>( scheduler, priority, name );
         tasks[ name ]->hook = [ this ]( HookTask& self ) {
            const std::string own = self.taskName().stdString();
            visited += own;
            EXPECT_TRUE( root->resetStatsInProgress() );
            EXPECT_EQ( self.taskRunCount(), 0u );
            if( const auto on = onVisit[ own ] ) {
               on();
            }
         };
         tasks[ name ]->scheduleTask();
      }
      drain();
   }
   // Has the root reset, and returns whom it visited.
   std::string reset() {
      visited.clear();
      root->resetStats();
      drain();
      EXPECT_FALSE( root->resetStatsInProgress() );
      EXPECT_TRUE( root->checkForTest() );
      return std::exchange( visited, "" );
   }

   ManualSteadyClock clock;
   std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
   std::map<std::string, std::shared_ptr<HookTask>> tasks;
   std::map<std::string, std::function<void()>> onVisit;
   std::string visited;
};

TEST_F( TaskStatsTest, WorkUnitsKeepAnAverageAndAMark ) {
   auto a = makeTask( root, TaskPriority::normal, "a" );
   EXPECT_EQ( a->getStats().taskWorkCountHighWaterMark(), taskStatUnset );
   const struct {
      unsigned long units;
      float average;
      std::uint32_t mark;
   } table[] = {
         { 0, 0.0f, 0 },
         { 10, 1.0f, 10 },
         { 11, 2.0f, 11 },
         { 2, 2.0f, 11 },
         { 0xFFFFFFFF, 429496731.3f, 0xFFFFFFFE },
         // Only the low half is marked.
         { 0x100000000, 816043790.0f, 0 },
   };
   std::uint64_t total = 0;
   for( const auto& row : table ) {
      a->taskWorkCountInc( row.units );
      total += row.units;
      const TaskStat stat = a->getStats();
      EXPECT_FLOAT_EQ( stat.taskWorkCountDecayAvg(), row.average ) << row.units;
      EXPECT_EQ( stat.taskWorkCountHighWaterMark(), row.mark ) << row.units;
      EXPECT_EQ( stat.taskWorkCountTotal(), total );
   }
   auto b = makeTask( root, TaskPriority::normal, "b" );
   b->taskWorkCountInc( 10 );
   b->taskWorkCountInc( 20 );
   EXPECT_EQ( b->getStats().taskWorkCountDecayAvg(), 11.0f );
}

TEST_F( TaskStatsTest, PendingWorkKeepsItsMark ) {
   auto a = makeTask( root, TaskPriority::normal, "a" );
   EXPECT_EQ( a->getStats().taskWorkPendingHighWaterMark(), taskStatUnset );
   const std::pair<unsigned, std::uint32_t> table[] = {
         { 0, 0 }, { 7, 7 }, { 3, 7 }, { 0xFFFFFFFF, 0xFFFFFFFE }, { 1, 0xFFFFFFFE } };
   for( const auto& [ units, mark ] : table ) {
      a->taskWorkPendingIs( units );
      EXPECT_EQ( a->getStats().taskWorkPending(), units );
      EXPECT_EQ( a->getStats().taskWorkPendingHighWaterMark(), mark );
   }
}

TEST_F( TaskStatsTest, SelectionLeavesOutWhatNeverRanAndWhatDoesNotMatch ) {
   auto oldest = makeTask( root, TaskPriority::normal, "oldest" );
   auto idle = makeTask( root, TaskPriority::normal, "idle" );
   auto newest = makeTask( root, TaskPriority::low, "newest" );
   oldest->taskRunFromTest();
   newest->taskRunFromTest();
   const TaskNameRegex ends( ".*est" ), invalid( "(" );
   BasicVector<TaskStat> stats;
   EXPECT_EQ( root->getTaskStats( stats, false ), 1u );
   EXPECT_EQ( root->getTaskStats( stats, true ), 0u );
   EXPECT_EQ( root->getTaskStats( stats, true, &ends ), 0u );
   EXPECT_EQ( root->getTaskStats( stats, false, &invalid ), 1u ) << "runs are looked at first";
   EXPECT_THAT( names( stats ),
                ElementsAre( "newest", "oldest", "newest", "idle", "oldest", "newest", "oldest" ) );
   EXPECT_EQ( stats[ 3 ].taskFirstRunTimestamp(), TaskTimeStamp() );
   newest->taskStatsNameIs( "folded" );
   for( auto* task : { &oldest, &idle, &newest } ) {
      task->reset();
   }
   stats.clear();
   EXPECT_EQ( root->getCompletedTaskStats( stats, false ), 1u );
   EXPECT_EQ( root->getCompletedTaskStats( stats, true, &ends ), 0u );
   EXPECT_EQ( root->getCompletedTaskStats( stats, false, &invalid ), 1u );
   EXPECT_THAT( names( stats ), UnorderedElementsAre( "folded", "oldest", "oldest" ) );
}

TEST_F( TaskStatsTest, CompletedTasksOfOneNameAreOneRecord ) {
   const TaskTimeStamp start = taskTimeNow();
   for( const unsigned n : { 3u, 2u, 1u } ) {
      auto task = makeTask( root, TaskPriority::normal, "a", [ & ]( FunctionTask& self ) {
         clock.advance( n == 2 ? 50ms : 1ms );
         self.taskWorkCountInc( n );
         self.taskWorkPendingIs( 10 - n );
      } );
      task->taskStatsNameIs( "same" );
      task->taskQuantumIs( 10ms );
      for( unsigned run = 0; run < n; ++run ) {
         task->taskRunFromTest();
      }
   }
   makeTask( root, TaskPriority::low, "same" )->includeInCompletedTaskIs( false );
   // One that never reported anything takes no mark away.
   makeTask( root, TaskPriority::low, "same" );
   const TaskStat stat = root->completedTaskStatForTest( "same" );
   EXPECT_EQ( stat.taskCompletedCount(), 4u );
   EXPECT_EQ( stat.taskRunCount(), 6u );
   EXPECT_EQ( stat.taskTotalRunTime(), 104ms );
   EXPECT_EQ( stat.taskQuantumViolation500(), 2u );
   EXPECT_EQ( stat.taskWorkCountTotal(), 9u + 4u + 1u );
   EXPECT_EQ( stat.taskWorkCountHighWaterMark(), 3u );
   EXPECT_EQ( stat.taskWorkPendingHighWaterMark(), 9u );
   EXPECT_EQ( stat.taskWorkPending(), 0u ) << "that of the last one";
   EXPECT_EQ( stat.taskLastRunTimestamp(), start + 2ms ) << "that of the first one";
   EXPECT_EQ( root->completedTasksPerPriority( TaskPriority::normal ), 3u );
   EXPECT_EQ( root->completedTasksPerPriority( TaskPriority::low ), 1u );
   EXPECT_FATAL( root->completedTaskStatForTest( "a" ), "Task: a not completed" );
}

TEST_F( TaskStatsTest, QueuesAreCountedByPriorityAndSummedOverGroups ) {
   using Row = TaskQueueStats;
   constexpr auto normal = TaskPriority::normal, low = TaskPriority::low;
   auto g = TaskGroup::TaskGroupIs( "g", low, false, root );
   auto a = makeTask( root, normal, "a" );
   auto b = makeTask( root, normal, "b" );
   auto m = makeTask( g, low, "m" );
   makeTask( g, low, "gone" );
   a->scheduleTask();
   m->scheduleTask();
   EXPECT_EQ( root->queueStats().size(), 6u );
   EXPECT_EQ( root->queueStats()[ normal ], ( Row{ 1, 1, 0, 0 } ) );
   EXPECT_EQ( g->queueStats()[ low ], ( Row{ 1, 0, 1, 0 } ) );
   EXPECT_EQ( root->queueStatsRoot()[ low ], ( Row{ 2, 0, 1, 0 } ) );
   drain();
   EXPECT_EQ( root->queueStats()[ normal ], ( Row{ 0, 2, 0, 1 } ) );
   EXPECT_EQ( root->queueStatsRoot()[ low ], ( Row{ 0, 2, 1, 2 } ) );
   // Clearing touches the scheduler alone, neither its tasks nor its groups.
   root->clearStats();
   EXPECT_EQ( root->queueStatsRoot()[ low ], ( Row{ 0, 2, 1, 1 } ) );
   EXPECT_EQ( a->taskRunCount(), 1u );
   g->clearStats();
   EXPECT_EQ( g->queueStats()[ low ], ( Row{ 0, 1, 0, 0 } ) );
   a->scheduleTask();
   turn();
   EXPECT_EQ( root->queueStats()[ normal ].total, 1u );
   EXPECT_EQ( root->runTaskCount( normal ), 2u );
}

// ------------------------------------------------------------------------------------------- reset

TEST_F( TaskStatsTest, ResetClearsTasksAndScheduler ) {
   auto a = makeTask( root, TaskPriority::high, "a", [ & ]( FunctionTask& self ) {
      clock.advance( 50ms );
      self.taskWorkCountInc( 5 );
      self.taskWorkPendingIs( 6 );
   } );
   a->taskQuantumIs( 10ms );
   makeTask( root, TaskPriority::normal, "gone" );
   a->scheduleTask();
   clock.advance( 3ms );
   drain();
   a->taskQuantumIs( 20ms );
   a->taskRunFromTest();
   clock.advance( 1s );
   root->resetStats();
   EXPECT_TRUE( root->resetStatsInProgress() );
   const TaskTimeStamp start = taskTimeNow();
   EXPECT_TRUE( turn() );
   EXPECT_FALSE( root->resetStatsInProgress() || turn() );
   const TaskStat stat = a->getStats();
   EXPECT_EQ( stat.taskRunCount() + stat.taskWorkCountTotal() + stat.taskWorkPending(), 0u );
   EXPECT_EQ( stat.taskQuantumViolation200() + stat.taskQuantumViolation500(), 0u );
   EXPECT_EQ( stat.taskWorkCountDecayAvg(), 0.0f );
   EXPECT_EQ( stat.taskWorkCountHighWaterMark(), taskStatUnset );
   EXPECT_EQ( stat.taskWorkPendingHighWaterMark(), taskStatUnset );
   EXPECT_EQ( stat.taskFirstRunTimestamp(), TaskTimeStamp() );
   EXPECT_EQ( stat.taskLastRunTimestamp(), TaskTimeStamp() );
   for( const auto& time : { stat.taskTotalRunTime(), stat.taskRunTimeHighWaterMark(),
                             stat.taskLastSchedulingLatency(),
                             stat.taskSchedulingLatencyHighWaterMark(), root->maxRunGap() } ) {
      EXPECT_EQ( time, 0ns );
   }
   EXPECT_FATAL( root->completedTaskStatForTest( "gone" ), "not completed" );
   EXPECT_EQ( root->queueStats()[ TaskPriority::high ].total, 0u );
   EXPECT_EQ( root->completedTasksPerPriority( TaskPriority::normal ), 0u );
   // The one that ran meanwhile is the reset's own.
   const TaskStat own = root->taskStatForTest( "root;ResetStats" );
   EXPECT_EQ( own.taskPriority(), TaskPriority::normal );
   EXPECT_EQ( own.taskFirstRunTimestamp(), start );
   EXPECT_EQ( own.taskLastRunTimestamp(), start );
   EXPECT_EQ( own.taskWorkCountTotal(), 2u );
}

TEST_F( TaskStatsTest, HooksMayDestroyAndMakeTasks ) {
   makeHooked( root );
   EXPECT_EQ( reset(), "edcba" );
   onVisit = { { "d", [ & ] { tasks.erase( "c" ); } }, { "b", [ & ] { tasks.erase( "d" ); } } };
   EXPECT_EQ( reset(), "edba" ) << "next and previous";
   onVisit.clear();
   onVisit[ "b" ] = [ & ] {
      tasks.erase( "b" );
      tasks[ "n" ] = std::make_shared<HookTask>( root, TaskPriority::normal, "n" );
      tasks[ "n" ]->hook = [ & ]( HookTask& ) { visited += 'n'; };
   };
   EXPECT_EQ( reset(), "eba" ) << "itself; a new one is not visited";
   makeHooked( root );
   onVisit = { { "c", [ & ] { tasks.clear(); } } };
   EXPECT_EQ( reset(), "edc" ) << "all";
   EXPECT_EQ( root->totalRegisteredTaskCount(), 1u );
}

TEST_F( TaskStatsTest, ResetRunsInSlices ) {
   makeHooked( root );
   root->taskTestYieldRatioIs( 2 );
   root->resetStats();
   turn();
   // The reset's own task is the newest.
   EXPECT_EQ( visited, "e" );
   EXPECT_EQ( root->taskStatForTest( "root;ResetStats" ).taskWorkCountTotal(), 2u );
   BasicVector<TaskStat> stats;
   EXPECT_EQ( root->getTaskStats( stats, true ), 0u );
   EXPECT_THAT( names( stats ), ElementsAre( "root;ResetStats", "e", "d", "c", "b", "a" ) );
   EXPECT_TRUE( root->checkForTest() );
   // What is destroyed or made between slices is not met.
   tasks.erase( "d" );
   auto late = makeTask( root, TaskPriority::normal, "late" );
   late->taskRunFromTest();
   turn();
   EXPECT_EQ( visited, "ecb" );
   EXPECT_TRUE( root->resetStatsInProgress() );
   // The second reset starts anew.
   root->resetStats();
   turn();
   EXPECT_EQ( late->taskRunCount(), 0u );
   drain();
   EXPECT_EQ( visited, "ecbecba" );
   EXPECT_FALSE( root->resetStatsInProgress() );
   EXPECT_TRUE( root->checkForTest() );
}

TEST_F( TaskStatsTest, HookMayAskForAnotherReset ) {
   makeHooked( root );
   int times = 0;
   onVisit[ "c" ] = [ & ] {
      if( ++times == 1 ) {
         root->resetStats();
      }
   };
   EXPECT_EQ( reset(), "edcedcba" );
   EXPECT_EQ( reset(), "edcba" );
}

TEST_F( TaskStatsTest, HookThatThrowsStopsNeitherResetNorRoot ) {
   makeHooked( root );
   onVisit[ "c" ] = [] { throw std::runtime_error( "hook" ); };
   root->resetStats();
   EXPECT_THROW( drain(), std::runtime_error );
   EXPECT_EQ( visited, "edc" );
   EXPECT_TRUE( root->resetStatsInProgress() );
   drain();
   EXPECT_EQ( visited, "edcba" );
   EXPECT_FALSE( root->resetStatsInProgress() );
}

TEST_F( TaskStatsTest, GroupIsResetAloneAndFreedAfterwards ) {
   auto g = TaskGroup::TaskGroupIs( "g", TaskPriority::high, false, root );
   const std::weak_ptr<TaskScheduler> weak = g;
   makeHooked( g, TaskPriority::high );
   const auto runs = g->parentTaskRunCount();
   g->resetStats();
   EXPECT_FALSE( root->TaskScheduler::resetStatsInProgress() );
   drain();
   EXPECT_EQ( visited, "edcba" );
   EXPECT_EQ( g->taskStatForTest( "g;ResetStats" ).taskPriority(), TaskPriority::high );
   EXPECT_EQ( g->parentTaskRunCount(), runs + 1 );
   // A reset around it clears the parent task and does not go down.
   EXPECT_EQ( reset(), "" );
   EXPECT_EQ( g->parentTaskRunCount(), 0u );
   // Between two slices the last owner goes.
   root->taskTestYieldRatioIs( 1 );
   g->resetStats();
   turn();
   EXPECT_TRUE( root->resetStatsInProgress() );
   tasks.clear();
   g.reset();
   EXPECT_TRUE( weak.expired() );
   EXPECT_FALSE( root->resetStatsInProgress() );
   drain();
   EXPECT_FALSE( root->busy() );
}

TEST_F( TaskStatsTest, LastOwnersMayGoDuringAReset ) {
   auto g = TaskGroup::TaskGroupIs( "g", TaskPriority::normal, false, root );
   const std::weak_ptr<TaskScheduler> weakGroup = g;
   const std::weak_ptr<TaskSchedulerRoot> weakRoot = root;
   makeHooked( g );
   onVisit[ "c" ] = [ & ] {
      g.reset();
      tasks.clear();
   };
   g->resetStats();
   drain();
   EXPECT_EQ( visited, "edc" );
   EXPECT_TRUE( weakGroup.expired() );
   EXPECT_EQ( reset(), "" );
   root->resetStats();
   root.reset();
   EXPECT_TRUE( weakRoot.expired() );
}

} // namespace
