// A task's life and its settings; running, yielding and statistics have files of their own.

#include <Quarn/scheduler/TaskImpl.h>

#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

#include <algorithm>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

TaskImpl::TaskImpl( std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority, String name )
      : _TaskBase( std::move( scheduler ), priority, std::move( name ) ),
        taskQuantum_( scheduler_ ? scheduler_->defaultTaskQuantum() : TaskTimeDuration() ) {
   try {
      taskShouldYieldModeReevaluate();
      handleInitialized();
   } catch( ... ) {
      // Nothing of this task stays behind: neither its place in the set of forced yields, which a
      // ratio of the root gives it before it is registered, nor its count.
      if( effectiveYieldRatio_ != 0 ) {
         effectiveYieldRatio_ = 0;
         scheduler_->taskForceYieldInTestNotify( this, false );
      }
      if( taskRegisteredLink_.linked() ) {
         --scheduler_->tasksPerPriority_[ priority_ ];
         taskRegisteredLink_.unlink();
      }
      taskRunQueueLink_.unlink();
      throw;
   }
}

void TaskImpl::handleInitialized() {
   if( !scheduler_ ) {
      QUARN_STREAM_FAIL( "Need a TaskScheduler" );
   }
   scheduler_->taskRegister( this );
}

TaskImpl::~TaskImpl() {
   if( taskTestYieldRatio_ != 0 ) {
      taskTestYieldRatioIs( 0 );
   }
   if( effectiveYieldRatio_ != 0 ) {
      // The root's ratio is still in force; the set must not keep this address.
      effectiveYieldRatio_ = 0;
      scheduler_->taskForceYieldInTestNotify( this, false );
   }
   TaskImpl::unscheduleTask();
   scheduler_->taskUnregister( this );
   // The object is about to die, so a compiler may drop this store unless it is volatile; the check
   // after a run reads it.
   const_cast<std::uint32_t volatile&>( taskMagicNumber_ ) = magicDestroyed;
}

TaskSchedulerRoot& TaskImpl::_root() const { return *scheduler_->schedulerRoot(); }

void TaskImpl::_sanityCheck() const { _root().sanityCheckCurrentRunningThread(); }

void TaskImpl::taskStatsNameIs( String name ) {
   _sanityCheck();
   taskStatsName_ = name.deduped();
}

bool TaskImpl::taskScheduled() const {
   _sanityCheck();
   return taskRunQueueLink_.linked();
}

bool TaskImpl::isTaskGroup() const { return false; }

unsigned TaskImpl::taskStatus() const {
   unsigned status = 0;
   if( taskRunQueueLink_.linked() ) {
      status |= 4;
   }
   if( taskCurrentlyRunning_ ) {
      status |= 8;
   }
   if( taskSuspended() ) {
      status |= 16;
   }
   for( TaskScheduler const* s = scheduler_.get(); s; s = s->enclosing_ ) {
      if( s->suspended() ) {
         status |= 64;
         break;
      }
   }
   return status;
}

// ------------------------------------------------------------------------------------- scheduling

void TaskImpl::scheduleTask() {
   _sanityCheck();
   if( taskRunQueueLink_.linked() ) {
      return;
   }
   const TaskTimeStamp now = taskTimeNow();
   if( taskSuspended() ) {
      scheduler_->historyEvent( now, TaskSchedulerEventType::scheduleSuspended, this );
      return;
   }
   // A busy callback may drop the task; it must last to the end of this function.
   std::shared_ptr<_TaskBase> self;
   if( scheduler_->_anyBusyCallbacks() ) {
      self = weak_from_this().lock();
   }
   scheduler_->scheduleTaskPrivate( now, this );
   updateTaskBusy( now );
}

void TaskImpl::unscheduleTask() {
   _sanityCheck();
   const TaskTimeStamp now = taskTimeNow();
   if( taskRunQueueLink_.linked() ) {
      unscheduleTaskPrivate( now );
   }
   updateTaskBusy( now );
}

void TaskImpl::unscheduleTaskPrivate( TaskTimeStamp now ) {
   QUARN_TRACE( taskSchedulerHandler, 8, "TaskImpl", "Unscheduled {}", taskText( this ) );
   scheduler_->historyEvent( now, TaskSchedulerEventType::unschedule, this );
   scheduler_->unscheduleTask( now, this );
}

void TaskImpl::_queueWaitEnds( TaskTimeStamp now ) {
   lastQueueWait_ = now - lastScheduledTime_;
   maxQueueWait_ = std::max( maxQueueWait_, lastQueueWait_ );
}

void TaskImpl::taskSuspendedIs( bool suspended ) {
   if( suspended == taskSuspended() ) {
      return;
   }
   _sanityCheck();
   if( suspended ) {
      flags_ |= flagSuspended;
      QUARN_TRACE( taskSchedulerHandler, 1, "TaskImpl", "Suspend {}", taskText( this ) );
      scheduler_->historyEvent( taskTimeNow(), TaskSchedulerEventType::suspendOn, this );
      unscheduleTask();
   } else {
      flags_ &= static_cast<std::uint8_t>( ~flagSuspended );
      QUARN_TRACE( taskSchedulerHandler, 1, "TaskImpl", "Unsuspend {}", taskText( this ) );
      scheduler_->historyEvent( taskTimeNow(), TaskSchedulerEventType::suspendOff, this );
      if( !taskScheduled() ) {
         scheduleTask();
      }
   }
}

// --------------------------------------------------------------------------------------- settings

void TaskImpl::_quantumStore( TaskTimeDuration quantum ) {
   taskQuantum_ = quantum;
   const unsigned short level = quantum == scheduler_->defaultTaskQuantum() ? 9 : 4;
   QUARN_TRACE( taskSchedulerHandler, level, "TaskImpl", "Set quantum {} to {}", taskText( this ),
                durationToString( quantum ) );
}

void TaskImpl::taskQuantumNoCheckIs( TaskTimeDuration quantum ) {
   _sanityCheck();
   if( quantum == taskQuantum_ ) {
      return;
   }
   if( quantum < TaskTimeDuration( 1 ) ) {
      QUARN_STREAM_FAIL( "Quantum: " << quantum );
   }
   _quantumStore( quantum );
}

void TaskImpl::taskQuantumIs( TaskTimeDuration quantum ) {
   _sanityCheck();
   if( quantum < TaskTimeDuration( 1 ) ) {
      QUARN_STREAM_FAIL( "Quantum: " << quantum );
   }
   if( quantum != taskQuantum_ ) {
      _quantumStore( quantum );
   }
}

void TaskImpl::includeInCompletedTaskIs( bool include ) {
   _sanityCheck();
   flags_ = static_cast<std::uint8_t>( include ? flags_ | flagIncludeInCompleted
                                               : flags_ & ~flagIncludeInCompleted );
}

} // namespace Quarn
