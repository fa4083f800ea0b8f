// The counters of a task, and how they leave it.

#include <Quarn/scheduler/TaskScheduler.h>

#include "debug/Handlers.h"

#include <new>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

// A real value never reads as unset.
std::uint32_t markOf( std::uint32_t value ) {
   return value == taskStatUnset ? taskStatUnset - 1 : value;
}

} // namespace

void TaskImpl::taskWorkCountInc( unsigned long units ) {
   workCountTotal_ += units;
   if( workCountHighWaterMark_ == taskStatUnset ) {
      workCountDecayAvg_ = static_cast<float>( units );
   } else {
      workCountDecayAvg_ = ( 9.0f * workCountDecayAvg_ + static_cast<float>( units ) ) / 10.0f;
      if( units <= workCountHighWaterMark_ ) {
         return;
      }
   }
   // The low 32 bits, whatever the rest says.
   workCountHighWaterMark_ = markOf( static_cast<std::uint32_t>( units ) );
}

void TaskImpl::taskWorkPendingIs( unsigned int units ) {
   workPending_ = units;
   if( workPendingHighWaterMark_ == taskStatUnset || units > workPendingHighWaterMark_ ) {
      workPendingHighWaterMark_ = markOf( units );
   }
}

TaskStat TaskImpl::getStats() const {
   TaskStat stat( taskName_, this, priority_ );
   stat.taskStatusIs( TaskStat::TaskStatus( static_cast<std::uint8_t>( taskStatus() ) ) );
   stat.taskRunInc( taskRunCount_ );
   stat.taskTotalRunTimeInc( totalRunTime_ );
   stat.taskFirstRunTimestampIs( firstRunTime_ );
   stat.taskLastRunTimestampIs( runStartTime_ );
   stat.taskWorkCountTotalInc( workCountTotal_ );
   stat.taskWorkCountDecayAvgIs( workCountDecayAvg_ );
   stat.taskWorkCountHighWaterMarkIs( workCountHighWaterMark_ );
   stat.taskWorkPendingIs( workPending_ );
   stat.taskWorkPendingHighWaterMarkIs( workPendingHighWaterMark_ );
   stat.taskQuantumViolation500Inc( severeQuantumViolations_ );
   stat.taskQuantumViolation200Inc( moderateQuantumViolations_ );
   stat.taskRunTimeHighWaterMarkIs( maxRunTime_ );
   stat.taskLastSchedulingLatencyIs( lastQueueWait_ );
   stat.taskSchedulingLatencyHighWaterMarkIs( maxQueueWait_ );
   return stat;
}

void TaskImpl::_clearStats() {
   totalRunTime_ = {};
   workCountTotal_ = 0;
   workCountDecayAvg_ = 0.0f;
   workPending_ = 0;
   maxRunTime_ = {};
   severeQuantumViolations_ = 0;
   moderateQuantumViolations_ = 0;
   lastQueueWait_ = {};
   maxQueueWait_ = {};
   taskRunCount_ = 0;
   workCountHighWaterMark_ = taskStatUnset;
   workPendingHighWaterMark_ = taskStatUnset;
   // A run that is under way goes on counting from its start.
   firstRunTime_ = taskCurrentlyRunning_ ? runStartTime_ : TaskTimeStamp();
   runStartTime_ = firstRunTime_;
}

void TaskScheduler::updateCompletedTaskStats( TaskImpl* task ) {
   if( task->taskPriority() > TaskPriority::scavenge ) {
      QUARN_STREAM_FAIL( task->taskPriority().traceText() );
   }
   TaskStat stat = task->getStats();
   stat.taskNameIs( task->taskStatsName() );
   if( stat.taskCompletedCount() != 0 ) {
      QUARN_STREAM_FAIL( "Task: " << task << " completedCount: " << stat.taskCompletedCount() );
   }
   stat.taskCompletedCountIs( 1 );
   // Called by the task's destructor, which cannot fail: a record that finds no memory is left out,
   // and so is its count.
   std::uint64_t* place = nullptr;
   try {
      place = &completedTasksPerPriority_[ task->taskPriority() ];
      const auto [ entry, isNew ] = completedTaskStats_.try_emplace( stat.taskName(), stat );
      if( !isNew ) {
         entry->second += stat;
      }
   } catch( const std::bad_alloc& ) {
      return;
   }
   std::uint64_t& count = *place;
   if( ++count == 0 ) {
      QUARN_STREAM_FAIL( "Priority: " << task->taskPriority() << " count: " << count );
   }
}

} // namespace Quarn
