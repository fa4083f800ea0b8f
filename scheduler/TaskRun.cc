// Running one task under its quantum.

#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"
#include "scheduler/TaskAnchors.h"

#include <Oru/System.h>

#include <algorithm>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

TaskTimeDuration TaskImpl::_virtualRunTime() const {
   const double seconds = Oru::System::currentTime() - scheduler_->virtualRunStartTime_;
   if( seconds < 0.0 ) {
      QUARN_STREAM_FAIL( "negative duration: " << seconds );
   }
   return durationOfSeconds( seconds );
}

void TaskImpl::taskDoRun( const TaskTimeStamp& now, TaskTimeStamp* endTime ) {
   // The anchors' owner: the body may drop everyone else's hold on the task.
   CurrentlyRunningTaskAnchor running( *scheduler_, *this );
   CriticalTaskMarker critical( priority_ == TaskPriority::critical );
   scheduler_->historyEvent( now, TaskSchedulerEventType::runStart, this );
   QUARN_TRACE( taskSchedulerHandler, 8, "TaskImpl", "Running {}", taskText( this ) );
   if( _root().runObserver_ ) [[unlikely]] {
      // A copy: the observer may replace itself.
      const auto observer = _root().runObserver_;
      try {
         observer( *this );
      } catch( ... ) {
         // The run does not take place; what waits for it would wait for ever.
         scheduleTask();
         throw;
      }
   }
   runStartTime_ = now;
   if( firstRunTime_ == TaskTimeStamp() ) {
      firstRunTime_ = now;
   }
   if( taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime ) {
      scheduler_->virtualRunStartTime_ = Oru::System::currentTime();
   }
   // For the case of a task that destroys itself, which is no object to ask any more then.
   const String name = taskName_;
   std::uint32_t const volatile& magic = taskMagicNumber_;
   // Counted before the body, so a body that throws still counts as a run.
   ++taskRunCount_;
   taskCurrentlyRunning_ = true;
   taskExecute();
   if( const std::uint32_t found = magic; found != magicConstructed ) [[unlikely]] {
      QUARN_STREAM_FAIL( "Task: " << name << " taskMagicNumber: " << found
                                  << " taskMagicNumberConstructed: " << magicConstructed );
   }
   taskCurrentlyRunning_ = false;

   const TaskTimeStamp end = taskTimeNow();
   *endTime = end;
   _accountRun( taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime ? _virtualRunTime()
                                                                         : end - now );
   scheduler_->historyEvent( end, TaskSchedulerEventType::runEnd, this );
   updateTaskBusy( end );
   critical.release();
   running.release();
}

void TaskImpl::_accountRun( TaskTimeDuration used ) {
   // Divided instead of multiplied, which would overflow for a quantum that means "no limit"; on
   // whole numbers the comparisons are the same.
   if( taskQuantum_.count() != 0 && used / 2 >= taskQuantum_ ) {
      QUARN_TRACE( taskSchedulerHandler, 3, "TaskImpl", "Ran {} used {} {}% violation",
                   taskText( this ), durationToString( used ),
                   static_cast<std::int64_t>(
                         static_cast<double>( used.count() ) / 1e9 /
                         ( static_cast<double>( taskQuantum_.count() ) / 1e9 ) * 100 ) );
      if( used / 5 < taskQuantum_ ) {
         ++moderateQuantumViolations_;
      } else {
         ++severeQuantumViolations_;
      }
   } else {
      QUARN_TRACE( taskSchedulerHandler, 7, "TaskImpl", "Ran {} used {}", taskText( this ),
                   durationToString( used ) );
   }
   maxRunTime_ = std::max( maxRunTime_, used );
   totalRunTime_ += used;
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const {
   if( !taskCurrentlyRunning_ ) {
      QUARN_STREAM_FAIL( "Task: " << this << " not currently running" );
   }
   return taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime ? _virtualRunTime()
                                                                   : taskTimeNow() - runStartTime_;
}

void TaskImpl::taskRunFromTest() {
   _sanityCheck();
   // Unscheduling calls the busy hook, which may drop the task.
   const std::shared_ptr<_TaskBase> self = shared_from_this();
   if( taskRunQueueLink_.linked() ) {
      unscheduleTask();
   }
   // Outlives the task's own reference.
   const std::shared_ptr<TaskScheduler> scheduler = scheduler_;
   TaskTimeStamp end;
   taskDoRun( taskTimeNow(), &end );
}

void TaskImpl::taskRunAndRecordFromTest() {
   _sanityCheck();
   const std::shared_ptr<_TaskBase> self = shared_from_this();
   if( taskRunQueueLink_.linked() ) {
      unscheduleTask();
   }
   const std::shared_ptr<TaskScheduler> scheduler = scheduler_;
   const TaskTimeStamp now = taskTimeNow();
   scheduler->runEntered( now );
   TaskTimeStamp end;
   taskDoRun( now, &end );
   scheduler->lastRunEndTime_ = end;
}

// -------------------------------------------------------------------------------------- run steps

void TaskScheduler::runEntered( const TaskTimeStamp& now ) {
   lastRunStartTime_ = now;
   maxRunGap_ = std::max( maxRunGap_, now - lastRunEndTime_ );
}

bool TaskScheduler::_handleSchedulerRun( TaskPriority maxPriority ) {
   root_->sanityCheckCurrentRunningThread();
   if( maxPriority > TaskPriority::scavenge ) {
      QUARN_STREAM_FAIL( maxPriority.traceText() );
   }
   // A task may drop the last outside reference to this scheduler.
   const std::shared_ptr<TaskScheduler> self = shared_from_this();
   return runStep( maxPriority );
}

bool TaskScheduler::runStep( TaskPriority maxPriority ) {
   const TaskTimeStamp now = taskTimeNow();
   runEntered( now );
   if( root_->suspended() ) {
      QUARN_TRACE( taskSchedulerHandler, 3, "TaskScheduler", "{} Suspended",
                   schedulerText( this ) );
      historyEvent( now, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended );
      return false;
   }
   if( currentlyRunningTask_ ) [[unlikely]] {
      _refuseRunInRun( maxPriority );
   }
   if( TaskImpl* task = pickOneTask( now, TaskPriority::critical, maxPriority ) ) {
      TaskTimeStamp end;
      try {
         task->taskDoRun( now, &end );
      } catch( ... ) {
         recoverFromException();
         throw;
      }
      // The task may be gone.
      QUARN_TRACE( taskSchedulerHandler, 8, "TaskScheduler",
                   "{} Scheduler completed task, request run", schedulerText( this ) );
      lastRunEndTime_ = end;
      requestSchedulerRun();
      return true;
   }
   // With a narrower range the flag stays, since less urgent work may remain.
   if( maxPriority == TaskPriority::scavenge ) {
      schedulerHasRunnableTasksIs( false, now );
   }
   return false;
}

// While the task is still on its queue: once taken off it would wait for ever.
void TaskScheduler::_refuseRunInRun( TaskPriority maxPriority ) {
   for( TaskPriority p = TaskPriority::critical; p <= maxPriority; ++p ) {
      if( _of( p ).pickQueue->front() ) {
         recoverFromException();
         QUARN_STREAM_FAIL( "currentlyRunningTask_ is not NULL " << currentlyRunningTask_ );
      }
   }
}

// The flag that there is runnable work is still set, so nobody but this asks for the next run.
void TaskScheduler::recoverFromException() noexcept {
   try {
      lastRunEndTime_ = taskTimeNow();
      requestSchedulerRun();
   } catch( const std::exception& e ) {
      QUARN_TRACE( taskSchedulerHandler, 0, "TaskScheduler", "{} run not requested: {}",
                   schedulerText( this ), e.what() );
   } catch( ... ) {
      QUARN_TRACE( taskSchedulerHandler, 0, "TaskScheduler", "{} run not requested",
                   schedulerText( this ) );
   }
}

} // namespace Quarn
