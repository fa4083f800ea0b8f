#include <Quarn/timers/TimerTask.h>

#include <Quarn/platform/Time.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <type_traits>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

constexpr double infinity = std::numeric_limits<double>::infinity();

double secondsOf( double delay ) { return delay; }

double secondsOf( TaskTimeDuration delay ) { return static_cast<double>( delay.count() ) / 1e9; }

// What a message shows of a delay.
double shown( double delay ) { return delay; }

String shown( TaskTimeDuration delay ) { return durationToString( delay ); }

// The largest result of `rand_r`, divided by 100 and truncated: a draw divided by it is 0 to 100,
// of which 100 comes for the top 48 values only.
constexpr unsigned jitterDivisor = 21474836;
static_assert( RAND_MAX / 100 == jitterDivisor );

double jitterPart( double delay, unsigned step, unsigned percentage ) {
   double part = step * ( percentage * delay ) / 10000;
   if( !std::isfinite( part ) ) [[unlikely]] {
      // The product left the range; dividing first loses a digit and stays inside.
      part = delay / 10000 * ( step * percentage );
   }
   // One rounding may carry it beyond the delay.
   return delay >= 0.0 ? std::min( part, delay ) : part;
}

TaskTimeDuration jitterPart( TaskTimeDuration delay, unsigned step, unsigned percentage ) {
   // A hundred times a hundred times eleven days does not fit 64 bits.
   __extension__ using Wide = __int128;
   return TaskTimeDuration( static_cast<std::int64_t>(
         Wide{ step } * ( Wide{ percentage } * Wide{ delay.count() } ) / 10000 ) );
}

double sum( double delay, double offset ) { return delay + offset; }

TaskTimeDuration sum( TaskTimeDuration delay, TaskTimeDuration offset ) {
   std::int64_t ns = 0;
   return __builtin_add_overflow( delay.count(), offset.count(), &ns ) ? TaskTimeDuration::max()
                                                                       : TaskTimeDuration( ns );
}

} // namespace

TimerTask::TimerTask( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name )
      : TaskImpl( std::move( scheduler ), priority, std::move( name ) ) {}

TimerTask::TimerTask( TaskScheduler* scheduler, TaskPriority priority, String name )
      : TaskImpl( scheduler ? scheduler->shared_from_this() : nullptr, priority,
                  std::move( name ) ) {}

TimerTask::~TimerTask() { stopTimerTask(); }

// A busy callback may drop this task in the middle of an operation that goes on afterwards.
std::shared_ptr<_TaskBase> TimerTask::_holdForCallbacks() {
   return scheduler_->_anyBusyCallbacks() ? weak_from_this().lock() : nullptr;
}

// Checks a delay before anything has changed; true for +infinity.
bool TimerTask::_isNever( double delay ) {
   if( std::isnan( delay ) ) {
      // The sign of a NaN means nothing and is not shown.
      QUARN_STREAM_FAIL_AS( "scheduleTaskDelay", "delayIntoFuture: nan" );
   }
   return delay == infinity;
}

// ------------------------------------------------------------------------------------------ starts

template<typename Delay>
void TimerTask::_scheduleTaskDelayed( Delay delay, bool restart ) {
   const double seconds = secondsOf( delay );
   if( seconds == 0.0 ) {
      scheduleTask();
      return;
   }
   const TaskTimeStamp now = taskTimeNow();
   if( taskRunQueueLink_.linked() ) {
      if( !restart ) {
         QUARN_TRACE_AS( taskSchedulerHandler, 8, "TimerTask", "scheduleTaskDelayedPrivate",
                         "Already on runQueue {}", taskText( this ) );
         return;
      }
      unscheduleTaskPrivate( now );
   } else if( !restart && timerRunning_ && seconds >= remainingTimeout() ) {
      QUARN_TRACE_AS( taskSchedulerHandler, 8, "TimerTask", "scheduleTaskDelayedPrivate",
                      "Timer already running {} expire {}", taskText( this ), expirationTime() );
      return;
   }
   const std::shared_ptr<_TaskBase> self = _holdForCallbacks();
   setTimeout( _root().timerWheel_, seconds );
   if( !timerRunning_ ) {
      timerRunning_ = true;
      scheduler_->timerRunningInc( now );
   }
   QUARN_TRACE_AS( taskSchedulerHandler, 8, "TimerTask", "scheduleTaskDelayedPrivate",
                   "Timer started {} delay {}", taskText( this ), shown( delay ) );
   scheduler_->historyEvent( now, TaskSchedulerEventType::timerStart, this );
   updateTaskBusy( now );
}

void TimerTask::scheduleTaskDelay( double delay ) {
   _sanityCheck();
   if( _isNever( delay ) ) {
      stopTimerTask();
      return;
   }
   _scheduleTaskDelayed( delay, true );
}

void TimerTask::scheduleTaskDelay( TaskTimeDuration delay ) {
   _sanityCheck();
   _scheduleTaskDelayed( delay, true );
}

template<typename Delay>
void TimerTask::_scheduleTaskLowestDelay( Delay delay ) {
   _sanityCheck();
   if( _isNever( secondsOf( delay ) ) ) {
      QUARN_STREAM_FAIL( "delayIntoFuture: " << delay );
   }
   _scheduleTaskDelayed( delay, false );
}

void TimerTask::scheduleTaskLowestDelay( double delay ) { _scheduleTaskLowestDelay( delay ); }

void TimerTask::scheduleTaskLowestDelay( TaskTimeDuration delay ) {
   _scheduleTaskLowestDelay( delay );
}

// ------------------------------------------------------------------------------------------ jitter

unsigned TimerTask::_jitterStep() {
   return static_cast<unsigned>( rand_r( &_root().jitterSeed_ ) ) / jitterDivisor;
}

template<typename Delay>
Delay TimerTask::jitterOffset( Delay delay, std::uint8_t maxJitterPercentage ) {
   if( maxJitterPercentage > 100 ) {
      // As a character, on purpose.
      QUARN_STREAM_FAIL( "maxJitterPercentage: " << static_cast<char>( maxJitterPercentage )
                                                 << " > 100" );
   }
   const Delay offset = jitterPart( delay, _jitterStep(), maxJitterPercentage );
   if( offset > delay ) {
      QUARN_STREAM_FAIL( "offset( " << offset << " ) > delayIntoFuture( " << delay << " )" );
   }
   return offset;
}

template<typename Delay>
void TimerTask::_scheduleTaskJitter( Delay delay, std::uint8_t maxJitterPercentage, bool up ) {
   _sanityCheck();
   // Of nanoseconds there is no infinity.
   constexpr bool mayBeInfinite = std::is_same_v<Delay, double>;
   if constexpr( mayBeInfinite ) {
      if( _isNever( delay ) ) {
         stopTimerTask();
         return;
      }
      if( delay == -infinity ) {
         // No part of it can be told.
         _scheduleTaskDelayed( delay, true );
         return;
      }
   }
   const Delay offset = jitterOffset( delay, maxJitterPercentage );
   const Delay total = up ? sum( delay, offset ) : delay - offset;
   if( up ) {
      QUARN_TRACE_AS( taskSchedulerHandler, 9, "TimerTask", "scheduleTaskJitterUp",
                      "Timer jitterUp {} delay {} + {} = {}", taskText( this ), shown( delay ),
                      shown( offset ), shown( total ) );
   } else {
      QUARN_TRACE_AS( taskSchedulerHandler, 9, "TimerTask", "scheduleTaskJitterDown",
                      "Timer jitterDown {} delay {} - {} = {}", taskText( this ), shown( delay ),
                      shown( offset ), shown( total ) );
   }
   if constexpr( mayBeInfinite ) {
      if( total == infinity ) {
         stopTimerTask();
         return;
      }
   }
   _scheduleTaskDelayed( total, true );
}

void TimerTask::scheduleTaskJitterUp( double delay, std::uint8_t maxJitterPercentage ) {
   _scheduleTaskJitter( delay, maxJitterPercentage, true );
}

void TimerTask::scheduleTaskJitterUp( TaskTimeDuration delay, std::uint8_t maxJitterPercentage ) {
   _scheduleTaskJitter( delay, maxJitterPercentage, true );
}

void TimerTask::scheduleTaskJitterDown( double delay, std::uint8_t maxJitterPercentage ) {
   _scheduleTaskJitter( delay, maxJitterPercentage, false );
}

void TimerTask::scheduleTaskJitterDown( TaskTimeDuration delay, std::uint8_t maxJitterPercentage ) {
   _scheduleTaskJitter( delay, maxJitterPercentage, false );
}

// --------------------------------------------------------------------------------- ends of a wait

void TimerTask::_timerEnds( TaskTimeStamp now ) {
   timerRunning_ = false;
   scheduler_->timerRunningDec( now );
}

void TimerTask::stopTimerTask() {
   _sanityCheck();
   const TaskTimeStamp now = taskTimeNow();
   const std::shared_ptr<_TaskBase> self = _holdForCallbacks();
   if( timerRunning_ ) {
      QUARN_TRACE( taskSchedulerHandler, 9, "TimerTask", "Timer stopped {}, was running",
                   taskText( this ) );
      scheduler_->historyEvent( now, TaskSchedulerEventType::timerStop, this );
      delTimeout( _root().timerWheel_ );
      _timerEnds( now );
   } else {
      QUARN_TRACE( taskSchedulerHandler, 9, "TimerTask", "Timer stopped {}, was not running",
                   taskText( this ) );
   }
   if( taskRunQueueLink_.linked() ) {
      unscheduleTaskPrivate( now );
   }
   updateTaskBusy( now );
}

void TimerTask::scheduleTask() {
   if( !timerRunning_ ) {
      TaskImpl::scheduleTask();
      // What was told of it may have destroyed this task.
      return;
   }
   // After a busy callback that threw, nobody was told of the timer yet, and is told now.
   const std::shared_ptr<_TaskBase> self = busy_ ? _holdForCallbacks() : weak_from_this().lock();
   // Queued first, so that the scheduler does not flicker through idle.
   TaskImpl::scheduleTask();
   if( timerRunning_ ) {
      const TaskTimeStamp now = taskTimeNow();
      delTimeout( _root().timerWheel_ );
      _timerEnds( now );
      // A suspended task has not joined the queue.
      updateTaskBusy( now );
   }
}

void TimerTask::timeout() {
   const std::shared_ptr<_TaskBase> self = weak_from_this().lock();
   // Queued first, so that the scheduler does not flicker through idle.
   TaskImpl::scheduleTask();
   const TaskTimeStamp now = taskTimeNow();
   if( timerRunning_ ) {
      if( expirationTime() != infinity ) {
         // Called by hand.
         delTimeout( _root().timerWheel_ );
      }
      _timerEnds( now );
   }
   updateTaskBusy( now );
}

void TimerTask::taskRunFromTest() {
   _sanityCheck();
   const std::shared_ptr<_TaskBase> self = shared_from_this();
   if( timerRunning_ ) {
      delTimeout( _root().timerWheel_ );
      _timerEnds( taskTimeNow() );
   }
   TaskImpl::taskRunFromTest();
}

// ------------------------------------------------------------------------------------------- state

bool TimerTask::taskScheduled() const {
   _sanityCheck();
   return taskRunQueueLink_.linked() || timerRunning_;
}

unsigned TimerTask::taskStatus() const {
   return TaskImpl::taskStatus() | 1 | ( timerRunning_ ? 2 : 0 );
}

double TimerTask::timerRemaining() const { return remainingTimeout(); }

double TimerTask::currentExpirationTime() const {
   _sanityCheck();
   if( taskRunQueueLink_.linked() ) {
      return time();
   }
   return timerRunning_ ? expirationTime() : infinity;
}

} // namespace Quarn
