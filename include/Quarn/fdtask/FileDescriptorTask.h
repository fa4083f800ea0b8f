// Descriptor I/O as scheduled tasks.
//
// A descriptor task watches one descriptor. When that becomes readable or writable, a read or a
// write sub-task joins the run queue, and its run calls what the user implements:
//
//     class Reader : public Quarn::FileDescriptorTask {
//      public:
//        explicit Reader( int fd )
//              : FileDescriptorTask( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal,
//                                    "reader" ) {
//           taskWatchFdIs( fd );
//        }
//      private:
//        void taskExecuteReadable() override { ... read until EAGAIN ... }
//        void taskExecuteWritable() override { ... write until EAGAIN ... }
//     };
//
// The sub-tasks are tasks of their own ("reader:read", "reader:write") with their own statistics,
// so a busy reader and a slow writer of one socket are measured, queued and told to yield apart.
//
// Reads are watched from the start, and for as long as the descriptor is readable; a writer asks
// for each notification with `taskWatchWritableIs( true )`. Every run must bear EAGAIN:
// unsuspending the task runs its sub-tasks whether or not the descriptor is ready. A task that only
// writes switches reads off, or a peer that hangs up is reported as readable without end.
//
// While the read sub-task waits for its turn or is suspended, the kernel is not asked about the
// descriptor again: data that nobody can read yet costs no turns of the loop.
//
// It is the sub-tasks that are registered, run and counted: of the task itself `taskStatus()` is 0,
// `handleResetStats()` is not called, and `scheduleTask()` and `taskRunFromTest()` are fatal.
//
// Ownership: the task is owned by shared pointers. The descriptor stays the caller's; forget it
//            here (`taskWatchFdDel`, or by destroying the task) before closing it. A task that is
//            dropped in its own run lives, and watches, until the run ends: call `taskWatchFdDel`
//            before closing the descriptor there. A subclass that owns its descriptor forgets it in
//            its destructor: its members go before this class.
// Thread:    that of the scheduler's root.

#pragma once

#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/scheduler/TaskBase.h>
#include <Quarn/scheduler/TaskTime.h>

#include <memory>

namespace Quarn {

class TaskImpl;

class ORUQUARN_API FileDescriptorTask : public _TaskBase, private Platform::FdEventHandler {
 public:
   // Errors: fatal without a scheduler ("Need a TaskScheduler"), and by the rules of
   //         `TaskScheduler::taskRegister`. The second form shares ownership of the scheduler.
   FileDescriptorTask( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                       String name );
   FileDescriptorTask( TaskScheduler* scheduler, TaskPriority priority, String name );

   // Also for the sub-tasks, with ":read" and ":write" behind it.
   void taskStatsNameIs( String name ) override;

   // Whether a sub-task is on its run queue.
   bool taskScheduled() const override;

   // These speak of the sub-task that runs the user's code.
   //
   // Errors: fatal outside of a run ("No executing task").
   bool taskShouldYield() const override;
   void taskWorkCountInc( unsigned long units ) override;
   void taskWorkPendingIs( unsigned int units ) override;

   ~FileDescriptorTask() override;

   // The descriptor is readable, or writable; it is non-blocking. May change everything and destroy
   // this task.
   virtual void taskExecuteReadable() = 0;
   virtual void taskExecuteWritable() = 0;

   // Watches `fd` from now on, and makes it non-blocking. Notifications of another descriptor that
   // wait for their run are dropped. The number that is watched already changes nothing: where it
   // was closed and stands for another file by now, taskWatchFdDel() comes first.
   //
   // Errors: fatal when the descriptor's flags cannot be read or set, and, as in the flags below,
   //         when there is no room for the watch ("Failed to add event fd ..."); none is watched
   //         then.
   void taskWatchFdIs( int fd );
   // The descriptor, or -1.
   int taskWatchFd() const;
   // Forgets the descriptor; notifications that wait for their run are dropped.
   void taskWatchFdDel();

   // Switches the watch of a direction; off also drops a notification that waits for its run. The
   // write watch switches itself off when the write sub-task runs. A watch for which there was no
   // room stays off, so that it can be asked for again.
   void taskWatchReadableIs( bool watch );
   void taskWatchWritableIs( bool watch );
   bool taskWatchReadable() const { return watchReadable_; }
   bool taskWatchWritable() const { return watchWritable_; }

   // Has the sub-task run without a notification.
   //
   // Errors: the read sub-task's run is fatal while reads are not watched.
   void scheduleTaskReadable();
   void scheduleTaskWritable();

   // Whether a sub-task is on its run queue, and whether it runs.
   bool taskScheduledReadable() const;
   bool taskScheduledWritable() const;
   bool taskCurrentlyRunningReadable() const;
   bool taskCurrentlyRunningWritable() const;

   // Settings of both sub-tasks; a write sub-task that comes later takes them over.
   void taskQuantumIs( TaskTimeDuration quantum );
   void taskSuspendedIs( bool suspended );
   void taskForceYieldInTestIs( bool force );
   bool taskForceYieldInTest() const;

   // Statistics of a sub-task, from anywhere. The write sub-task exists from the first
   // `taskWatchWritableIs( true )` or `scheduleTaskWritable()` on; before that its numbers are 0,
   // and reporting to it is fatal ("WriteTask not created by taskWatchWritableIs( true )"). A
   // high-water mark that was never set is `taskStatUnset`.
   void taskWorkCountReadableInc( unsigned long units );
   void taskWorkPendingReadableIs( unsigned int units );
   void taskWorkCountWritableInc( unsigned long units );
   void taskWorkPendingWritableIs( unsigned int units );

   std::uint64_t taskWorkCountReadableTotal() const;
   float taskWorkCountReadableDecayAvg() const;
   std::uint32_t taskWorkCountReadableHighWaterMark() const;
   std::uint32_t taskWorkPendingReadable() const;
   std::uint32_t taskWorkPendingReadableHighWaterMark() const;
   std::uint64_t taskWorkCountWritableTotal() const;
   float taskWorkCountWritableDecayAvg() const;
   std::uint32_t taskWorkCountWritableHighWaterMark() const;
   std::uint32_t taskWorkPendingWritable() const;
   std::uint32_t taskWorkPendingWritableHighWaterMark() const;
   // Runs of the read sub-task, and of the write sub-task.
   std::uint64_t taskRunCount() const;
   std::uint64_t taskRunCountWritable() const;

 private:
   class ReadWriteTaskBase;
   class ReadTask;
   class WriteTask;
   class ExecutingTask;

   void taskExecute() final;
   void readFdEvent( int fd ) override;
   void writeFdEvent( int fd ) override;
   void _initialize();
   void _requireWatched( int fd ) const;
   void _checkCreateWriteTask();
   WriteTask& _writeTask() const;
   TaskImpl& _executing() const;
   template<typename Change>
   void _watchFd( Change change );
   bool _runsNext() const;
   void _pauseReads();
   void _resumeReads();

   bool watchReadable_ = false;
   bool watchWritable_ = false;
   // Whether the kernel is not asked for read readiness although reads are watched.
   bool readsPaused_ = false;
   std::shared_ptr<Platform::FdControl> fdControl_;
   std::shared_ptr<ReadTask> readTask_;
   std::shared_ptr<WriteTask> writeTask_;
   // The sub-task that runs the user's code; null outside of a run.
   ReadWriteTaskBase* executingTask_ = nullptr;
};

} // namespace Quarn
