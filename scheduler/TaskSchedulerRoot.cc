#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include <Quarn/base/MemTrack.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/scheduler/CriticalTask.h>

#include "debug/Handlers.h"
#include "platform/DeferredRelease.h"
#include "scheduler/TaskAnchors.h"

#include <Oru/ActivityManager.h>

#include <algorithm>
#include <thread>
#include <utility>

#include <unistd.h>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

std::string threadNameOf( pthread_t thread ) {
   char name[ 16 ] = {};
   pthread_getname_np( thread, name, sizeof( name ) );
   return name;
}

} // namespace

bool TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime = false;

std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs( String name ) {
   return std::allocate_shared<TaskSchedulerRoot>( Allocator<TaskSchedulerRoot>(),
                                                   std::move( name ) );
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootQuarnNonShared( String name ) {
   return TaskSchedulerRoot::TaskSchedulerRootIs( std::move( name ) );
}

TaskSchedulerRoot::TaskSchedulerRoot( String name )
      : TaskScheduler( std::move( name ), this,
                       std::allocate_shared<TaskSchedulerHistory>(
                             Allocator<TaskSchedulerHistory>(), historyEntryCountDefault ) ),
        callbackControl_( Platform::getCallbackControl( this ) ),
        // Due timers reach their run queues before the next task is chosen. Nothing but timers of
        // tasks goes on this wheel: a timer that restarts itself at once would starve the loop.
        timerWheel_(
              getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityStrictHigh ) ),
        threadId_( pthread_self() ),
        pid_( getpid() ),
        isMainThread_( isMainThread() ) {
   // Empty if it cannot be told.
   pthread_getname_np( threadId_, threadName_, sizeof( threadName_ ) );
   schedulers_.max_load_factor( 1.0f );
   registerScheduler( this );
   virtualTimeCheck();
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
   _abandonReset();
   unregisterScheduler( this );
   callbackControl_.reset();
   timerWheel_.reset();
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
   sanityCheckCurrentRunningThread();
   for( TaskScheduler const* scheduler : schedulers_ ) {
      if( scheduler->TaskScheduler::resetStatsInProgress() ) {
         return true;
      }
   }
   return false;
}

// ------------------------------------------------------------------------------------ thread check

void TaskSchedulerRoot::_wrongThread() const {
   // The process id is a system call, so it is asked for only here, where it may still excuse.
   if( threadSanityDisabled_ || auxThreadCount.load( std::memory_order_relaxed ) != 0 ||
       getpid() != pid_ ) {
      return;
   }
   QUARN_STREAM_FAIL_AS( "sanityCheckCurrentRunningThread",
                         "Executing in wrong thread " << std::this_thread::get_id() << "("
                                                      << threadNameOf( pthread_self() ) << ") pid "
                                                      << pid_ << " scheduler belongs to thread "
                                                      << threadId_ << "(" << threadName_ << ")" );
}

void TaskSchedulerRoot::threadSanityDisabledIs( bool disabled ) {
   if( disabled == threadSanityDisabled_ ) {
      return;
   }
   QUARN_TRACE( taskSchedulerHandler, 1, "TaskSchedulerRoot", "{} {}able thread sanity checking",
                schedulerText( this ), disabled ? "dis" : "en" );
   threadSanityDisabled_ = disabled;
}

// ------------------------------------------------------------------------------------- schedulers

void TaskSchedulerRoot::registerScheduler( TaskScheduler* scheduler ) {
   sanityCheckCurrentRunningThread();
   if( !schedulers_.insert( scheduler ).second ) {
      QUARN_STREAM_FAIL( "insert failed for " << scheduler );
   }
}

void TaskSchedulerRoot::unregisterScheduler( TaskScheduler* scheduler ) {
   sanityCheckCurrentRunningThread();
   if( schedulers_.erase( scheduler ) == 0 ) {
      QUARN_STREAM_FAIL( "delete failed for " << scheduler );
   }
}

unsigned TaskSchedulerRoot::totalRegisteredTaskCount() const {
   sanityCheckCurrentRunningThread();
   unsigned count = 0;
   for( TaskScheduler const* scheduler : schedulers_ ) {
      for( TaskPriority p = TaskPriority::critical; p <= TaskPriority::scavenge; ++p ) {
         count += scheduler->tasksPerPriority( p );
      }
   }
   return count;
}

std::vector<TaskScheduler const*> TaskSchedulerRoot::_schedulersInOrder() const {
   std::vector<TaskScheduler const*> all;
   all.reserve( schedulers_.size() );
   _appendInOrder( all );
   if( all.size() < schedulers_.size() ) {
      // A group that is being destroyed is no longer found through its parent task.
      std::ranges::copy_if( schedulers_, std::back_inserter( all ),
                            [ & ]( TaskScheduler const* scheduler ) {
                               return std::ranges::find( all, scheduler ) == all.end();
                            } );
   }
   return all;
}

TaskQueueStatsMap TaskSchedulerRoot::queueStatsRoot() const {
   sanityCheckCurrentRunningThread();
   TaskQueueStatsMap sums;
   for( TaskScheduler const* scheduler : schedulers_ ) {
      for( const auto& [ priority, stats ] : scheduler->queueStats() ) {
         sums[ priority ] += stats;
      }
   }
   return sums;
}

void TaskSchedulerRoot::runObserverForTestIs( std::function<void( const TaskImpl& )> observer ) {
   sanityCheckCurrentRunningThread();
   runObserver_ = std::move( observer );
}

unsigned TaskSchedulerRoot::taskGroupCount() const {
   if( schedulers_.empty() ) {
      QUARN_STREAM_FAIL( "schedulers_ is empty" );
   }
   return static_cast<unsigned>( schedulers_.size() - 1 );
}

std::shared_ptr<TaskScheduler> TaskSchedulerRoot::findSchedulerForTest( const String& name ) const {
   for( TaskScheduler* scheduler : schedulers_ ) {
      if( scheduler->schedulerName() == name ) {
         // A scheduler that is being destroyed is still in the set.
         if( std::shared_ptr<TaskScheduler> found = scheduler->weak_from_this().lock() ) {
            return found;
         }
      }
   }
   return nullptr;
}

void TaskSchedulerRoot::taskRegister( TaskImpl* task ) { TaskScheduler::taskRegister( task ); }

void TaskSchedulerRoot::timerRunningInc( const TaskTimeStamp& now ) {
   sanityCheckCurrentRunningThread();
   timerRunningCountInc( now );
}

void TaskSchedulerRoot::timerRunningDec( const TaskTimeStamp& now ) {
   sanityCheckCurrentRunningThread();
   timerRunningCountDec( now );
}

void TaskSchedulerRoot::handleTaskForceYieldInTest() {}

void TaskSchedulerRoot::handleVirtualTimeChange() {}

// ------------------------------------------------------------------------------------------- runs

void TaskSchedulerRoot::requestSchedulerRun() {
   sanityCheckCurrentRunningThread();
   if( suspended() ) {
      QUARN_TRACE( taskSchedulerHandler, 8, "TaskSchedulerRoot",
                   "{} ignore requestSchedulerRun, scheduler is suspended", schedulerText( this ) );
      return;
   }
   callbackControl_->requestCallback();
}

void TaskSchedulerRoot::callback() {
   // A loop within a run, which the framework's may be: the run's own turn asks for the next.
   if( currentlyRunningTask() ) [[unlikely]] {
      return;
   }
   try {
      handleSchedulerRun();
   } catch( ... ) {
      if( !_isOwnThread() ) {
         // Nobody asks again while tasks wait, so the turn must not get lost with the failure.
         callbackControl_->requestCallback();
      }
      throw;
   }
}

void TaskSchedulerRoot::handleSchedulerRun() {
   sanityCheckCurrentRunningThread();
   virtualTimeCheck();
   std::shared_ptr<TaskScheduler> self = shared_from_this();
   // Only now: what is let go here may be what else held this root.
   Platform::releaseDeferred();
   try {
      runStep( TaskPriority::scavenge );
   } catch( ... ) {
      // Whoever called us still has to ask our exception hook, and this may be the last reference.
      Platform::releaseLater( std::move( self ) );
      throw;
   }
}

void TaskSchedulerRoot::runCriticalPriorityTasks() {
   sanityCheckCurrentRunningThread();
   const std::shared_ptr<TaskScheduler> self = shared_from_this();
   QUARN_TRACE( taskSchedulerHandler, 6, "TaskSchedulerRoot", "scheduler={} while running {}",
                schedulerText( this ), taskText( currentlyRunningTask() ) );
   historyEvent( taskTimeNow(), TaskSchedulerEventType::schedulerRunCriticalStart );
   const unsigned long expired = processExpiredTimersForTaskScheduler( timerWheel_ );
   PreserveCurrentlyRunningTaskAnchor preserved( *this );
   unsigned long ran = 0;
   while( runStep( TaskPriority::critical ) ) {
      ++ran;
      if( suspended() ) {
         break;
      }
   }
   QUARN_TRACE( taskSchedulerHandler, 6, "TaskSchedulerRoot",
                "scheduler={} expired {} timers, ran {} critical tasks", schedulerText( this ),
                expired, ran );
   historyEvent( taskTimeNow(), TaskSchedulerEventType::schedulerRunCriticalEnd );
   preserved.release();
}

void TaskSchedulerRoot::suspendedIs( bool suspended ) {
   if( suspended == suspended_ ) {
      return;
   }
   sanityCheckCurrentRunningThread();
   const TaskTimeStamp now = taskTimeNow();
   suspended_ = suspended;
   if( suspended ) {
      historyEvent( now, TaskSchedulerEventType::schedulerSuspended );
   } else {
      historyEvent( now, TaskSchedulerEventType::schedulerUnsuspended );
      lastRunEndTime_ = now;
      requestSchedulerRun();
   }
}

// --------------------------------------------------------------------- virtual time, forced yields

void TaskSchedulerRoot::_reevaluateYieldModes() {
   for( TaskScheduler* scheduler : schedulers_ ) {
      auto& tasks = scheduler->registeredTasks_;
      for( TaskImpl* task = tasks.front(); task; task = tasks.next( task ) ) {
         task->taskShouldYieldModeReevaluate();
      }
   }
}

void TaskSchedulerRoot::virtualTimeCheck() {
   bool wanted = false;
   if( isMainThread_ ) {
      // Fetched once; the manager is never destroyed.
      static Oru::ActivityManager const* const manager = Oru::ActivityManager::instance().get();
      wanted = manager->virtualTime();
   }
   if( wanted == virtualTime_ ) {
      return;
   }
   virtualTime_ = wanted;
   historyEvent( taskTimeNow(), wanted ? TaskSchedulerEventType::schedulerVirtualTimeOn
                                       : TaskSchedulerEventType::schedulerVirtualTimeOff );
   for( TaskScheduler* scheduler : schedulers_ ) {
      scheduler->handleVirtualTimeChange();
   }
   _reevaluateYieldModes();
}

void TaskSchedulerRoot::taskTestYieldRatioIs( unsigned char ratio ) {
   if( ratio == taskTestYieldRatio_ ) {
      return;
   }
   sanityCheckCurrentRunningThread();
   const std::uint8_t before = std::exchange( taskTestYieldRatio_, ratio );
   historyEvent( taskTimeNow(), ratio != 0 ? TaskSchedulerEventType::schedulerTestYieldRatioOn
                                           : TaskSchedulerEventType::schedulerTestYieldRatioOff );
   try {
      _reevaluateYieldModes();
   } catch( ... ) {
      // For all tasks or for none.
      taskTestYieldRatio_ = before;
      _reevaluateYieldModes();
      throw;
   }
}

// ---------------------------------------------------------------------------------------- history

unsigned TaskSchedulerRoot::historyEntryCount() const { return history_->capacity(); }

unsigned TaskSchedulerRoot::historyEntryCountIs( unsigned count ) {
   sanityCheckCurrentRunningThread();
   return history_->capacityIs( count );
}

unsigned TaskSchedulerRoot::historyEventCount() const { return history_->size(); }

void TaskSchedulerRoot::clearHistory() {
   sanityCheckCurrentRunningThread();
   QUARN_TRACE( taskSchedulerHandler, 2, "TaskSchedulerRoot", "{} history cleared",
                schedulerText( this ) );
   history_->clear();
}

} // namespace Quarn
