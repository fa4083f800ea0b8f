#include <Quarn/platform/TaskControls.h>

#include <Quarn/base/MemTrack.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/scheduler/TaskScheduler.h>

#include "debug/Handlers.h"
#include "platform/ThreadEnd.h"

namespace Quarn::Platform {

namespace {

constexpr char sourceFile[] = "LibeventFactoryCpp";

template<typename Handler>
Handler* needed( Handler* handler, char const* className ) {
   if( !handler ) {
      QUARN_FAIL_AS( className, className, "handler is null" );
   }
   return handler;
}

template<typename Control, typename Handler>
std::shared_ptr<Control> make( Handler* handler, std::shared_ptr<TaskScheduler> scheduler,
                               TaskPriority priority, String name ) {
   return std::allocate_shared<Control>( Allocator<Control>(), handler, std::move( scheduler ),
                                         priority, std::move( name ) );
}

} // namespace

// ------------------------------------------------------------------------------------ descriptors

TaskFdControl::TaskFdControl( Platform::FdEventHandler* handler,
                              std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                              String name )
      : FileDescriptorTask( std::move( scheduler ), priority, std::move( name ) ),
        handler_( needed( handler, "TaskFdControl" ) ) {}

void TaskFdControl::setReads( bool watch ) { taskWatchReadableIs( watch ); }

void TaskFdControl::setWrites( bool watch ) { taskWatchWritableIs( watch ); }

void TaskFdControl::setFd( int fd ) { taskWatchFdIs( fd ); }

void TaskFdControl::delFd() { taskWatchFdDel(); }

void TaskFdControl::clearEvents() { taskWatchFdDel(); }

int TaskFdControl::getFd() const { return taskWatchFd(); }

template<void ( Platform::FdEventHandler::*notification )( int )>
void TaskFdControl::_notify() {
   Platform::FdEventHandler* handler = handler_;
   // Now: the handler may change it, and its hook is told which descriptor it was.
   const int fd = taskWatchFd();
   // A control that only its run still holds by then was dropped by its handler, which may be gone.
   const std::weak_ptr<_TaskBase> self = weak_from_this();
   const long held = taskCurrentlyRunningReadable() || taskCurrentlyRunningWritable() ? 1 : 0;
   try {
      ( handler->*notification )( fd );
   } catch( ... ) {
      if( threadEnds() || self.use_count() <= held || !handler->handleFdException( fd ) ) {
         throw;
      }
   }
}

void TaskFdControl::taskExecuteReadable() { _notify<&Platform::FdEventHandler::readFdEvent>(); }

void TaskFdControl::taskExecuteWritable() { _notify<&Platform::FdEventHandler::writeFdEvent>(); }

// ----------------------------------------------------------------------------------------- timers

TaskTimerControl::TaskTimerControl( TimeoutHandler* handler,
                                    std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                    String name )
      : TimerTask( std::move( scheduler ), priority, std::move( name ) ),
        handler_( needed( handler, "TaskTimerControl" ) ) {}

void TaskTimerControl::setTimeout( double seconds ) { scheduleTaskDelay( seconds ); }

void TaskTimerControl::delTimeout() { stopTimerTask(); }

double TaskTimerControl::remainingTimeout() const { return timerRemaining(); }

void TaskTimerControl::taskExecute() { handler_->timeout(); }

// -------------------------------------------------------------------------------------- callbacks

TaskCallbackControl::TaskCallbackControl( CallbackHandler* handler,
                                          std::shared_ptr<TaskScheduler> scheduler,
                                          TaskPriority priority, String name )
      : Task( std::move( scheduler ), priority, std::move( name ) ),
        handler_( needed( handler, "TaskCallbackControl" ) ) {}

void TaskCallbackControl::requestCallback() { scheduleTask(); }

void TaskCallbackControl::cancelCallback() { unscheduleTask(); }

bool TaskCallbackControl::pendingCallback() const { return taskScheduled(); }

void TaskCallbackControl::taskExecute() { handler_->callback(); }

// -------------------------------------------------------------------------------------- factories

std::shared_ptr<FdControl> getFdControl( FdEventHandler* handler,
                                         std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, String name ) {
   return make<TaskFdControl>( handler, std::move( scheduler ), priority, std::move( name ) );
}

std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler,
                                               std::shared_ptr<TaskScheduler> scheduler,
                                               TaskPriority priority, String name ) {
   return make<TaskTimerControl>( handler, std::move( scheduler ), priority, std::move( name ) );
}

std::shared_ptr<CallbackControl> getCallbackControl( CallbackHandler* handler,
                                                     std::shared_ptr<TaskScheduler> scheduler,
                                                     TaskPriority priority, String name ) {
   return make<TaskCallbackControl>( handler, std::move( scheduler ), priority, std::move( name ) );
}

} // namespace Quarn::Platform
