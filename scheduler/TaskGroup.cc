#include <Quarn/scheduler/TaskGroup.h>

#include <Quarn/base/MemTrack.h>
#include <Quarn/base/Rdtsc.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

#include <algorithm>
#include <chrono>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

// A run that may take longer lets critical tasks in meanwhile.
constexpr TaskTimeDuration longQuantum = std::chrono::milliseconds( 20 );
constexpr double firstCriticalSeconds = 0.02;
constexpr double nextCriticalSeconds = 0.01;

TaskScheduler& needed( const std::shared_ptr<TaskScheduler>& parent ) {
   if( !parent ) {
      QUARN_STREAM_FAIL_AS( "TaskGroup", "Need a TaskScheduler" );
   }
   return *parent;
}

} // namespace

// ------------------------------------------------------------------------------------- parent task

TaskGroup::ParentTask::ParentTask( TaskGroup& group, std::shared_ptr<TaskScheduler> parent )
      : Task( std::move( parent ), group.priority(), "TaskGroup;" + group.schedulerName() ),
        group_( &group ) {}

TaskGroup::ParentTask::~ParentTask() = default;

bool TaskGroup::ParentTask::isTaskGroup() const {
   if( !group_ ) {
      QUARN_STREAM_FAIL( "TaskGroup is non-null" );
   }
   return true;
}

unsigned TaskGroup::ParentTask::taskStatus() const { return Task::taskStatus() | 32; }

void TaskGroup::ParentTask::handleResetStats() { Task::handleResetStats(); }

std::shared_ptr<TaskGroup> TaskGroup::ParentTask::taskGroup() const {
   return group_ ? std::static_pointer_cast<TaskGroup>( group_->weak_from_this().lock() ) : nullptr;
}

void TaskGroup::ParentTask::taskExecute() {
   if( !group_ ) {
      return;
   }
   // The last member may go in its run, and this may then be the last reference to the group, which
   // takes its hold on this task with it; the run itself holds another.
   const std::shared_ptr<TaskScheduler> hold = group_->shared_from_this();
   group_->_run();
}

// -------------------------------------------------------------------------------------------- life

std::shared_ptr<TaskGroup> TaskGroup::TaskGroupIs( String name, TaskPriority priority, bool flag,
                                                   std::shared_ptr<TaskScheduler> parent ) {
   return std::allocate_shared<TaskGroup>( Allocator<TaskGroup>(), std::move( name ), priority,
                                           flag, std::move( parent ) );
}

TaskGroup::TaskGroup( String name, TaskPriority priority, bool flag,
                      std::shared_ptr<TaskScheduler> parent )
      : TaskScheduler( std::move( name ), needed( parent ).schedulerRoot(),
                       // Either argument may be looked at first.
                       needed( parent ).history_ ),
        parentScheduler_( std::move( parent ) ),
        priority_( priority ),
        flag_( flag ) {
   enclosing_ = parentScheduler_.get();
   defaultTaskQuantum_ = parentScheduler_->defaultTaskQuantum();
   _multipleRunsReevaluate();
   schedulerRoot()->registerScheduler( this );
   try {
      parentTask_ =
            std::allocate_shared<ParentTask>( Allocator<ParentTask>(), *this, parentScheduler_ );
   } catch( ... ) {
      schedulerRoot()->unregisterScheduler( this );
      throw;
   }
   ++parentScheduler_->groupCount_;
}

TaskGroup::~TaskGroup() {
   parentTask_->group_ = nullptr;
   _abandonReset();
   if( taskGroupForceYieldInTest_ ) {
      parentScheduler_->taskForceYieldInTestNotify( parentTask_.get(), false );
   }
   schedulerRoot()->unregisterScheduler( this );
   --parentScheduler_->groupCount_;
   parentTask_.reset();
   parentScheduler_.reset();
}

void TaskGroup::taskRegister( TaskImpl* task ) {
   if( task->taskPriority() != priority_ ) {
      // Texts that cannot fail themselves: the task's priority was not looked at before.
      QUARN_STREAM_FAIL( "taskPriority( " << task->taskPriority().traceText()
                                          << " ) != taskGroupPriority( " << priority_.traceText()
                                          << " )" );
   }
   TaskScheduler::taskRegister( task );
}

// ----------------------------------------------------------------------------- groups under
// another

std::vector<TaskImpl const*> TaskScheduler::_groupTasks() const {
   std::vector<TaskImpl const*> found;
   if( groupCount_ == 0 ) {
      return found;
   }
   found.reserve( groupCount_ );
   for( TaskImpl const* task = registeredTasks_.front(); task;
        task = registeredTasks_.next( task ) ) {
      constexpr unsigned groupParent = 32;
      if( ( task->taskStatus() & groupParent ) == 0 ) {
         continue;
      }
      // Somebody may keep the parent task of a group that is gone.
      if( static_cast<TaskGroup::ParentTask const*>( task )->taskGroup() ) {
         found.push_back( task );
      }
   }
   return found;
}

void TaskScheduler::_appendInOrder( std::vector<TaskScheduler const*>& out ) const {
   out.push_back( this );
   for( TaskImpl const* task : _groupTasks() ) {
      static_cast<TaskGroup::ParentTask const*>( task )->taskGroup()->_appendInOrder( out );
   }
}

// ---------------------------------------------------------------------------------------- settings

void TaskGroup::suspendedIs( bool suspended ) { taskGroupSuspendedIs( suspended ); }

void TaskGroup::taskGroupSuspendedIs( bool suspended ) {
   if( suspended == suspended_ ) {
      return;
   }
   QUARN_TRACE( taskSchedulerHandler, 1, "TaskGroup", "{} {}", schedulerText( this ),
                suspended ? "Suspend" : "Unsuspend" );
   // A busy callback of the parent may drop the group.
   const std::shared_ptr<TaskScheduler> self = weak_from_this().lock();
   try {
      parentTask_->taskSuspendedIs( suspended );
   } catch( ... ) {
      // A parent task that is runnable under a suspended group would run for nothing, for ever.
      suspended_ = parentTask_->taskSuspended();
      throw;
   }
   suspended_ = suspended;
}

bool TaskGroup::taskGroupSuspended() const { return parentTask_->taskSuspended(); }

void TaskGroup::taskGroupQuantumIs( TaskTimeDuration quantum ) {
   parentTask_->taskQuantumIs( quantum );
}

void TaskGroup::taskGroupQuantumNoCheckIs( TaskTimeDuration quantum ) {
   parentTask_->taskQuantumNoCheckIs( quantum );
}

TaskTimeDuration TaskGroup::taskGroupQuantum() const { return parentTask_->taskQuantum(); }

void TaskGroup::tasksPermittedMultipleRunsIs( bool permitted ) {
   if( permitted == tasksPermittedMultipleRuns_ ) {
      return;
   }
   schedulerRoot()->sanityCheckCurrentRunningThread();
   tasksPermittedMultipleRuns_ = permitted;
   _multipleRunsReevaluate();
}

void TaskGroup::_multipleRunsReevaluate() {
   multipleRuns_ =
         tasksPermittedMultipleRuns_ &&
         ( !schedulerRoot()->virtualTime() ||
           TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime );
}

void TaskGroup::handleVirtualTimeChange() { _multipleRunsReevaluate(); }

void TaskGroup::taskGroupForceYieldInTestIs( bool force ) {
   if( force == taskGroupForceYieldInTest_ ) {
      return;
   }
   schedulerRoot()->sanityCheckCurrentRunningThread();
   // Before it is noted, for it may find no memory.
   parentScheduler_->taskForceYieldInTestNotify( parentTask_.get(), force );
   taskGroupForceYieldInTest_ = force;
   if( !force && parentTask_->effectiveYieldRatio_ != 0 ) {
      // A ratio, such as forced members give it, keeps the task in the set without the switch.
      parentScheduler_->taskForceYieldInTestNotify( parentTask_.get(), true );
   }
}

void TaskGroup::handleTaskForceYieldInTest() {
   parentTask_->taskTestYieldRatioIs( anyTaskForcesYieldInTest() ? 1 : 0 );
   if( taskGroupForceYieldInTest_ ) {
      // A ratio that ends takes the task out of the set, where the switch still wants it.
      parentScheduler_->taskForceYieldInTestNotify( parentTask_.get(), true );
   }
}

std::uint64_t TaskGroup::parentTaskRunCount() const { return parentTask_->taskRunCount(); }

bool TaskGroup::parentTaskScheduled() const { return parentTask_->taskScheduled(); }

// ------------------------------------------------------------------------------------------ timers

void TaskGroup::timerRunningInc( const TaskTimeStamp& now ) {
   schedulerRoot()->sanityCheckCurrentRunningThread();
   // A busy callback may drop the group.
   const std::shared_ptr<TaskScheduler> parent = parentScheduler_;
   const bool first = timerRunningCount_ == 0;
   if( !first || busyCallbacks_.empty() ) {
      timerRunningCountInc( now );
      if( first ) {
         parent->timerRunningInc( now );
      }
      return;
   }
   // One that is called may also stop the timer again, so the parent has counted it by then.
   const std::shared_ptr<TaskScheduler> self = weak_from_this().lock();
   ++timerRunningCount_;
   parent->timerRunningInc( now );
   schedulerBusyUpdate( now );
}

void TaskGroup::timerRunningDec( const TaskTimeStamp& now ) {
   schedulerRoot()->sanityCheckCurrentRunningThread();
   const std::shared_ptr<TaskScheduler> parent = parentScheduler_;
   const bool last = timerRunningCount() == 1;
   try {
      timerRunningCountDec( now );
   } catch( ... ) {
      // What a busy callback throws must not leave the parent counting.
      if( last ) {
         parent->timerRunningDec( now );
      }
      throw;
   }
   if( last ) {
      parent->timerRunningDec( now );
   }
}

// -------------------------------------------------------------------------------------------- runs

void TaskGroup::requestSchedulerRun() { parentTask_->scheduleTask(); }

void TaskGroup::taskGroupRunFromTest() {
   const std::shared_ptr<ParentTask> parentTask = parentTask_;
   parentTask->taskRunFromTest();
}

void TaskGroup::movePersistentToTemporary() {
   for( PerPriority& p : perPriority_ ) {
      if( !p.temporaryRunQueue.empty() ) {
         QUARN_STREAM_FAIL( "The temporary run queue should always be empty at this point" );
      }
      p.temporaryRunQueue.spliceBack( p.runQueue );
      p.pickQueue = &p.temporaryRunQueue;
   }
}

// What was scheduled during the run comes behind what was left over from before it.
void TaskGroup::moveTemporaryToPersistent() {
   for( PerPriority& p : perPriority_ ) {
      p.runQueue.spliceFront( p.temporaryRunQueue );
      p.pickQueue = &p.runQueue;
      if( !p.temporaryRunQueue.empty() ) {
         QUARN_STREAM_FAIL( "The temporary run queue should always be empty at this point" );
      }
   }
}

void TaskGroup::_run() {
   // One mode for the whole run, whatever a member changes.
   const bool multipleRuns = multipleRuns_;
   if( !multipleRuns ) {
      movePersistentToTemporary();
   }
   unsigned long ran = 0;
   try {
      ran = parentTask_->taskQuantum() <= longQuantum ? _runMembers()
                                                      : _runMembersWithCriticalTasks();
   } catch( ... ) {
      // The step that failed has asked for the next run already.
      if( !multipleRuns ) {
         moveTemporaryToPersistent();
      }
      throw;
   }
   if( !multipleRuns ) {
      moveTemporaryToPersistent();
   }
   _finishRun( ran, multipleRuns );
}

// Both loops also end when a step has run nothing: under a suspended root every step does so, and
// with it suspended by a member of a group inside this one, `taskShouldYield()` does not tell.

unsigned long TaskGroup::_runMembers() {
   unsigned long ran = 0;
   while( schedulerHasRunnableTasks() && !suspended() && runStep( TaskPriority::scavenge ) ) {
      ++ran;
      if( parentTask_->taskShouldYield() ) {
         break;
      }
   }
   return ran;
}

unsigned long TaskGroup::_runMembersWithCriticalTasks() {
   const auto ticks = []( double seconds ) {
      return static_cast<std::uint64_t>( seconds * Rdtsc::calibrationRate() );
   };
   std::uint64_t deadline = Rdtsc::read() + ticks( firstCriticalSeconds );
   unsigned long ran = 0;
   while( schedulerHasRunnableTasks() && !suspended() && runStep( TaskPriority::scavenge ) ) {
      ++ran;
      if( parentTask_->taskShouldYield() ) {
         break;
      }
      if( Rdtsc::read() > deadline ) {
         runCriticalPriorityTasks();
         deadline = Rdtsc::read() + ticks( nextCriticalSeconds );
      }
   }
   return ran;
}

void TaskGroup::_finishRun( unsigned long ran, bool multipleRuns ) {
   ParentTask& parentTask = *parentTask_;
   parentTask.taskWorkCountInc( ran );
   const std::int64_t pending = runnableTaskCount();
   parentTask.taskWorkPendingIs(
         static_cast<unsigned>( std::min<std::int64_t>( pending, 0xFFFFFFFF ) ) );
   if( parentTask.taskSuspended() ) {
      if( parentTask.taskRunQueueLink_.linked() ) {
         QUARN_STREAM_FAIL( "TaskGroup parentTask should not be scheduled when suspended." );
      }
      return;
   }
   const TaskTimeStamp now = taskTimeNow();
   if( pending == 0 ) {
      schedulerHasRunnableTasksIs( false, now );
      // A busy callback may have scheduled a member just now.
      if( !schedulerHasRunnableTasks() && parentTask.taskRunQueueLink_.linked() ) {
         parentTask.unscheduleTask();
      }
      return;
   }
   if( !multipleRuns || ran == 0 ) {
      // Nothing ran when the root is suspended and a test runs the group.
      parentTask.scheduleTask();
      schedulerHasRunnableTasksIs( true, now );
      return;
   }
   // Each run of a member has asked for another run of this group.
   if( !parentTask.taskRunQueueLink_.linked() ) {
      QUARN_STREAM_FAIL( "TaskGroup parentTask should be scheduled." );
   }
   if( !schedulerHasRunnableTasks() ) {
      QUARN_STREAM_FAIL( "The TaskGroup should have runnable tasks" );
   }
}

} // namespace Quarn
