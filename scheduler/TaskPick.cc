// Run queues and the choice of the next task.

#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

#include <limits>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

// How much one runnable task of a priority counts against starvation; nothing below low does.
constexpr std::uint32_t weight( TaskPriority priority ) {
   return priority == TaskPriority::high ? 64 : priority == TaskPriority::normal ? 8 : 1;
}

} // namespace

void TaskScheduler::scheduleTaskPrivate( const TaskTimeStamp& now, TaskImpl* task ) {
   QUARN_TRACE_AS( taskSchedulerHandler, 8, "TaskImpl", "scheduleTask", "Scheduled {}",
                   taskText( task ) );
   historyEvent( now, TaskSchedulerEventType::schedule, task );
   task->lastScheduledTime_ = now;
   PerPriority& p = _of( task->priority_ );
   p.runQueue.pushBack( *task );
   ++p.enqueuedCount;
   schedulerHasRunnableTasksIs( true, now );
}

void TaskScheduler::unscheduleTask( const TaskTimeStamp& now, TaskImpl* task ) {
   root_->sanityCheckCurrentRunningThread();
   if( !task->taskRunQueueLink_.linked() ) {
      QUARN_STREAM_FAIL( "Task: " << task << " not on run queue" );
   }
   task->taskRunQueueLink_.unlink();
   task->_queueWaitEnds( now );
   // Not counted as dequeued: that is the number of runs.
   --_of( task->priority_ ).enqueuedCount;
}

void TaskScheduler::taskSchedulerUnlinkTask( const TaskTimeStamp& now, TaskPriority priority,
                                             TaskImpl* task ) {
   PerPriority& p = _of( priority );
   ++p.dequeuedCount;
   runnableTaskCount( priority );
   task->taskRunQueueLink_.unlink();
   task->_queueWaitEnds( now );
}

TaskImpl* TaskScheduler::pickOneTask( const TaskTimeStamp& now, TaskPriority from,
                                      TaskPriority to ) {
   root_->sanityCheckCurrentRunningThread();
   if( to > TaskPriority::scavenge ) {
      QUARN_STREAM_FAIL( to.traceText() );
   }
   return _pick( now, from, to );
}

TaskImpl* TaskScheduler::_pick( const TaskTimeStamp& now, TaskPriority from, TaskPriority to ) {
   for( TaskPriority priority = from; priority <= to; ++priority ) {
      PerPriority& p = _of( priority );
      TaskImpl* task = p.pickQueue->front();
      if( !task ) {
         p.consecutiveRuns = 0;
         continue;
      }
      if( attemptLowerPriorityBump( priority, p.consecutiveRuns ) ) {
         if( TaskImpl* bumped = _pick( now, priority.next(), to ) ) {
            p.consecutiveRuns = 0;
            return bumped;
         }
      }
      ++p.consecutiveRuns;
      taskSchedulerUnlinkTask( now, priority, task );
      return task;
   }
   return nullptr;
}

bool TaskScheduler::attemptLowerPriorityBump( TaskPriority priority,
                                              std::uint32_t consecutiveRuns ) const {
   if( priority != TaskPriority::high && priority != TaskPriority::normal ) {
      return false;
   }
   std::uint32_t lowerBacklog = 0;
   for( TaskPriority lower = priority.next(); lower <= TaskPriority::low; ++lower ) {
      const PerPriority& p = _of( lower );
      const auto runnable = static_cast<std::int64_t>( p.enqueuedCount - p.dequeuedCount );
      if( runnable < 0 ) {
         QUARN_STREAM_FAIL( "RunnableTasks negative " << runnable );
      }
      lowerBacklog += static_cast<std::uint32_t>( runnable ) * weight( lower );
   }
   if( lowerBacklog == 0 ) {
      return false;
   }
   const auto own = static_cast<std::uint32_t>( runnableTaskCount( priority ) );
   return consecutiveRuns * lowerBacklog > own * weight( priority );
}

std::int64_t TaskScheduler::runnableTaskCount( TaskPriority priority ) const {
   if( priority > TaskPriority::scavenge ) {
      QUARN_STREAM_FAIL( priority.traceText() );
   }
   const PerPriority& p = _of( priority );
   const auto count = static_cast<std::int64_t>( p.enqueuedCount - p.dequeuedCount );
   if( count < 0 ) {
      QUARN_STREAM_FAIL( "Priority: " << priority << " runnableTasks: " << count );
   }
   return count;
}

std::int64_t TaskScheduler::runnableTaskCount() const {
   std::int64_t count = 0;
   for( TaskPriority p = TaskPriority::critical; p <= TaskPriority::scavenge; ++p ) {
      count += runnableTaskCount( p );
   }
   return count;
}

std::uint64_t TaskScheduler::runTaskCount( TaskPriority priority ) const {
   if( priority > TaskPriority::scavenge ) {
      QUARN_STREAM_FAIL( priority.traceText() );
   }
   return _of( priority ).dequeuedCount;
}

bool TaskScheduler::checkForTest() const {
   bool good = registeredTasks_.checkForTest();
   std::array<std::uint32_t, priorities> registered{};
   for( TaskImpl const* task = registeredTasks_.front(); task;
        task = registeredTasks_.next( task ) ) {
      ++registered[ task->taskPriority().value() ];
   }
   for( TaskPriority p = TaskPriority::critical; p <= TaskPriority::scavenge; ++p ) {
      std::int64_t queued = 0;
      for( RunQueue const* queue : { &_of( p ).runQueue, &_of( p ).temporaryRunQueue } ) {
         good &= queue->checkForTest();
         for( TaskImpl const* task = queue->front(); task; task = queue->next( task ) ) {
            good &= task->taskPriority() == p;
            good &= task->scheduler_.get() == this;
            ++queued;
         }
      }
      good &= queued == runnableTaskCount( p );
      good &= registered[ p.value() ] == tasksPerPriority( p );
      // Whatever is queued has a run asked for.
      good &= hasRunnableTasks_ >= ( queued > 0 );
   }
   good &= busy_ == ( hasRunnableTasks_ || timerRunningCount_ > 0 );
   return good;
}

} // namespace Quarn
