// Controls whose notifications run as tasks.
//
// Code written against the handler and control interfaces can have its notifications run by a
// scheduler instead of straight from the event loop, so that they are subject to priorities, quanta
// and statistics like everything else. The factories of `platform/Factories.h` that take a
// scheduler, a priority and a name return these, in either process mode.
//
// Ownership: by shared pointers only. The handler is held without ownership and must outlive the
//            control; it may destroy the control that calls it. That one is disarmed when the
//            handler returns; a handler that closes the descriptor calls `delFd` before.
// Thread:    that of the scheduler's root.

#pragma once

#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/scheduler/Task.h>
#include <Quarn/timers/TimerTask.h>

namespace Quarn::Platform {

// Descriptor notifications as runs of a descriptor task. An exception that the handler lets out is
// offered to its hook; one that the hook does not deal with leaves the scheduler's run.
class ORUQUARN_API TaskFdControl final : public FileDescriptorTask, public FdControl {
 public:
   // Errors: fatal when the handler is null.
   TaskFdControl( Platform::FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                  TaskPriority priority, String name );

   void setReads( bool watch ) override;
   void setWrites( bool watch ) override;
   void setFd( int fd ) override;
   // Both forget the descriptor: with this control, clearing the events does so too.
   void delFd() override;
   void clearEvents() override;
   int getFd() const override;

   void taskExecuteReadable() override;
   void taskExecuteWritable() override;

 private:
   template<void ( Platform::FdEventHandler::*notification )( int )>
   void _notify();

   Platform::FdEventHandler* handler_;
};

// A timeout as the run of a timer task, never early. An exception that the handler lets out leaves
// the scheduler's run; the handler's hook is not asked.
class ORUQUARN_API TaskTimerControl final : public TimerTask, public TimerControl {
 public:
   // Errors: fatal when the handler is null.
   TaskTimerControl( TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                     TaskPriority priority, String name );

   void setTimeout( double seconds ) override;
   // Also takes back a timeout that has come and waits for its run.
   void delTimeout() override;
   // +infinity also for a timeout that has come and waits for its run.
   double remainingTimeout() const override;

 private:
   void taskExecute() override;

   TimeoutHandler* handler_;
};

// A callback as the run of a task. An exception that the handler lets out leaves the scheduler's
// run; the handler's hook is not asked.
class ORUQUARN_API TaskCallbackControl final : public Task, public CallbackControl {
 public:
   // Errors: fatal when the handler is null.
   TaskCallbackControl( CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                        TaskPriority priority, String name );

   void requestCallback() override;
   void cancelCallback() override;
   bool pendingCallback() const override;

 private:
   void taskExecute() override;

   CallbackHandler* handler_;
};

} // namespace Quarn::Platform
