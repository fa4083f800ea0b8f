// What both kinds of scheduler share beside queues, registration and runs.

#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

#include <Oru/System.h>

#include <ostream>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

TaskScheduler::TaskScheduler( String name, TaskSchedulerRoot* root,
                              std::shared_ptr<TaskSchedulerHistory> history )
      : schedulerName_( name.deduped() ),
        root_( root ),
        history_( std::move( history ) ),
        lastRunEndTime_( taskTimeNow() ) {
   completedTaskStats_.max_load_factor( 1.0f );
   forcedYieldTasks_.max_load_factor( 1.0f );
}

TaskScheduler::~TaskScheduler() = default;

bool TaskScheduler::resetStatsInProgress() const { return resetBookmark_.linked(); }

void TaskScheduler::_abandonReset() {
   resetBookmark_.unlink();
   if( resetStatsTask_.use_count() > 1 ) {
      // It refers to this scheduler without owning it.
      QUARN_DIE( "TaskScheduler", "~TaskScheduler", "{};ResetStats is held beyond its scheduler",
                 schedulerText( this ) );
   }
   resetStatsTask_.reset();
}

void TaskScheduler::runCriticalPriorityTasks() { root_->runCriticalPriorityTasks(); }

void TaskScheduler::defaultTaskQuantumIs( TaskTimeDuration quantum ) {
   root_->sanityCheckCurrentRunningThread();
   defaultTaskQuantum_ = quantum;
}

// Only the stamp is virtual: gaps and queue waits are differences of the steady clock.
void TaskScheduler::historyEvent( const TaskTimeStamp& now, TaskSchedulerEventType type,
                                  _TaskBase const* task ) const {
   if( root_->virtualTime() ) [[unlikely]] {
      history_->insert( TaskTimeStamp( durationOfSeconds( Oru::System::currentTime() ) ), type,
                        task );
   } else {
      history_->insert( now, type, task->taskTaggedName() );
   }
}

void TaskScheduler::historyEvent( const TaskTimeStamp& now, TaskSchedulerEventType type ) const {
   if( root_->virtualTime() ) [[unlikely]] {
      history_->insert( TaskTimeStamp( durationOfSeconds( Oru::System::currentTime() ) ), type,
                        this );
   } else {
      history_->insert( now, type, schedulerName_ );
   }
}

void TaskScheduler::schedulerHasRunnableTasksIs( bool runnable, const TaskTimeStamp& now ) {
   if( runnable == hasRunnableTasks_ ) {
      return;
   }
   hasRunnableTasks_ = runnable;
   if( runnable ) {
      QUARN_TRACE( taskSchedulerHandler, 8, "TaskScheduler",
                   "{} Scheduler has runnable tasks, request run", schedulerText( this ) );
      historyEvent( now, TaskSchedulerEventType::schedulerHasRunnableTasks );
      lastRunEndTime_ = now;
      requestSchedulerRun();
   } else {
      historyEvent( now, TaskSchedulerEventType::schedulerHasNoRunnableTasks );
      QUARN_TRACE( taskSchedulerHandler, 8, "TaskScheduler", "{} Scheduler idle",
                   schedulerText( this ) );
   }
   schedulerBusyUpdate( now );
}

void TaskScheduler::schedulerBusyUpdate( const TaskTimeStamp& now ) {
   const bool busy = hasRunnableTasks_ || timerRunningCount_ > 0;
   if( busy == busy_ ) {
      return;
   }
   busy_ = busy;
   historyEvent( now, busy ? TaskSchedulerEventType::schedulerBusy
                           : TaskSchedulerEventType::schedulerIdle );
   if( busyCallbacks_.empty() ) {
      return;
   }
   // A callback may change the map, the state, and drop this scheduler.
   const std::shared_ptr<TaskScheduler> self = weak_from_this().lock();
   const std::uint64_t last = busyCallbacksRegistered_;
   for( auto entry = busyCallbacks_.begin(); entry != busyCallbacks_.end(); ) {
      void* const key = entry->first;
      if( entry->second.number <= last ) {
         const std::shared_ptr<const std::function<void()>> callback = entry->second.function;
         ( *callback )();
      }
      entry = busyCallbacks_.upper_bound( key );
   }
}

void TaskScheduler::registerBusyCallback( void* key, std::function<void()> callback ) {
   root_->sanityCheckCurrentRunningThread();
   auto function = std::make_shared<const std::function<void()>>( std::move( callback ) );
   BusyCallback& entry = busyCallbacks_[ key ];
   if( !entry.function ) {
      entry.number = ++busyCallbacksRegistered_;
   }
   entry.function = std::move( function );
}

void TaskScheduler::unregisterBusyCallback( void* key ) {
   root_->sanityCheckCurrentRunningThread();
   busyCallbacks_.erase( key );
}

void TaskScheduler::timerRunningCountInc( const TaskTimeStamp& now ) {
   if( ++timerRunningCount_ == 1 ) {
      schedulerBusyUpdate( now );
   }
}

void TaskScheduler::timerRunningCountDec( const TaskTimeStamp& now ) {
   if( timerRunningCount_ == 0 ) {
      QUARN_STREAM_FAIL( "timerRunningCount_ > 0" );
   }
   if( --timerRunningCount_ == 0 ) {
      schedulerBusyUpdate( now );
   }
}

std::string_view schedulerText( TaskScheduler const* scheduler ) {
   return scheduler ? std::string_view( scheduler->schedulerName() ) : std::string_view( "<none>" );
}

std::ostream& operator<<( std::ostream& out, TaskScheduler const* scheduler ) {
   return out << schedulerText( scheduler );
}

} // namespace Quarn
