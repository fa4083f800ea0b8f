// When a running task should yield.

#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

#include <Oru/Rdtsc.h>
#include <Oru/System.h>

#include <Quarn/base/Rdtsc.h>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

bool TaskImpl::taskShouldYield() const {
   if( !taskCurrentlyRunning_ && taskRunCount_ != 0 ) [[unlikely]] {
      QUARN_STREAM_FAIL( "taskCurrentlyRunning: " << taskCurrentlyRunning_
                                                  << " taskRunCount: " << taskRunCount_ );
   }
   if( scheduler_->suspended() ) {
      return true;
   }
   switch( taskShouldYieldMode_ ) {
   case TaskShouldYieldMode::realTime: {
      const std::uint64_t tsc = Rdtsc::read();
      // A counter that went back is far ahead in this difference.
      if( tsc - lastYieldCheckTsc_ < Oru::Rdtsc::approxTicksIn500Usec() ) {
         return false;
      }
      lastYieldCheckTsc_ = tsc;
      const TaskTimeStamp now = taskTimeNow();
      if( now >= runStartTime_ && now - runStartTime_ < taskQuantum_ ) {
         return false;
      }
      lastYieldCheckTsc_ = 0;
      return true;
   }
   case TaskShouldYieldMode::virtualTime:
      return Oru::System::currentTime() - scheduler_->virtualRunStartTime_ >=
             static_cast<double>( taskQuantum_.count() ) / 1e9;
   case TaskShouldYieldMode::testRatio:
      ++yieldCounter_;
      return yieldCounter_ % effectiveYieldRatio_ == 0;
   }
   QUARN_STREAM_FAIL( "Unexpected value " << static_cast<unsigned>( taskShouldYieldMode_ ) );
}

void TaskImpl::taskShouldYieldModeReevaluate() {
   if( !scheduler_ ) {
      // Construction is about to fail for it.
      return;
   }
   const TaskSchedulerRoot& root = _root();
   const std::uint8_t wanted =
         taskTestYieldRatio_ != 0 ? taskTestYieldRatio_ : root.taskTestYieldRatio();
   const std::uint8_t before = effectiveYieldRatio_;
   if( wanted != 0 && before == 0 ) {
      // First, for it may find no memory.
      scheduler_->taskForceYieldInTestNotify( this, true );
   }
   if( wanted != before ) {
      effectiveYieldRatio_ = wanted;
      yieldCounter_ = 0;
   }
   if( wanted != 0 ) {
      taskShouldYieldMode_ = TaskShouldYieldMode::testRatio;
      return;
   }
   if( root.virtualTime() ) {
      taskShouldYieldMode_ = TaskShouldYieldMode::virtualTime;
      if( taskCurrentlyRunning_ ) {
         scheduler_->virtualRunStartTime_ = Oru::System::currentTime();
      }
   } else {
      taskShouldYieldMode_ = TaskShouldYieldMode::realTime;
   }
   if( before != 0 ) {
      scheduler_->taskForceYieldInTestNotify( this, false );
   }
}

void TaskImpl::taskTestYieldRatioIs( unsigned char ratio ) {
   if( ratio == taskTestYieldRatio_ ) {
      return;
   }
   _sanityCheck();
   const unsigned char before = taskTestYieldRatio_;
   taskTestYieldRatio_ = ratio;
   // The root's own switch has events of its own and must not flood the ring with every task's.
   if( ( before != 0 ) != ( ratio != 0 ) ) {
      scheduler_->historyEvent( taskTimeNow(),
                                ratio != 0 ? TaskSchedulerEventType::forceYieldOn
                                           : TaskSchedulerEventType::forceYieldOff,
                                this );
   }
   try {
      taskShouldYieldModeReevaluate();
   } catch( ... ) {
      taskTestYieldRatio_ = before;
      throw;
   }
}

void TaskImpl::taskForceYieldInTestIs( bool force ) { taskTestYieldRatioIs( force ? 1 : 0 ); }

void TaskScheduler::taskForceYieldInTestNotify( TaskImpl* task, bool on ) {
   const bool wasEmpty = forcedYieldTasks_.empty();
   if( on ) {
      forcedYieldTasks_.insert( task );
   } else {
      forcedYieldTasks_.erase( task );
   }
   if( wasEmpty == forcedYieldTasks_.empty() ) {
      return;
   }
   try {
      handleTaskForceYieldInTest();
   } catch( ... ) {
      // A task that is not told of must not stay.
      forcedYieldTasks_.erase( task );
      throw;
   }
}

} // namespace Quarn
