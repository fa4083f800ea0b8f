// The root of all tasks: what has a name, a priority and a scheduler.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/scheduler/TaskPriority.h>
#include <Quarn/scheduler/TaskTime.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string_view>

namespace Quarn {

class TaskScheduler;

// Tasks are owned by `std::shared_ptr`. The scheduler holds none of them: a task that nobody owns
// is gone.
//
// First rule: a task is destroyed on its scheduler's thread. Destroying it elsewhere is a fatal
// assertion inside a destructor, which ends the process.
class ORUQUARN_API _TaskBase // NOLINT(bugprone-reserved-identifier): part of the interface
      : public std::enable_shared_from_this<_TaskBase> {
 public:
   // Sets the name under which statistics are kept.
   virtual void taskStatsNameIs( String name ) = 0;

   // Whether the task has pending work: is on a run queue, or waits for a timer or a descriptor.
   virtual bool taskScheduled() const = 0;

   // Whether a running body should return and let others run. Asked inside long loops.
   virtual bool taskShouldYield() const = 0;

   // Reports `units` of work done; `taskWorkPendingIs` reports how many are left.
   virtual void taskWorkCountInc( unsigned long units ) = 0;
   virtual void taskWorkPendingIs( unsigned int units ) = 0;

   // Told that the result of `taskScheduled()` has changed. May destroy any task, this one too. A
   // run that ends by an exception tells nothing; the next change is compared with what was told
   // last.
   virtual void handleTaskBusy();

   // Told that the statistics of this task were reset.
   virtual void handleResetStats();

   virtual ~_TaskBase();

   // Puts the task on its run queue.
   virtual void scheduleTask();

   // Runs the task once, now, outside the scheduler's loop.
   virtual void taskRunFromTest();

   // A set of bits: 1 timer task, 2 timer running, 4 on a run queue, 8 running, 16 suspended,
   // 32 parent task of a task group, 64 under a suspended scheduler.
   virtual unsigned taskStatus() const;

   // The body.
   virtual void taskExecute() = 0;

   _TaskBase( const _TaskBase& ) = delete;
   _TaskBase& operator=( const _TaskBase& ) = delete;

   const String& taskName() const { return taskName_; }
   const String& taskStatsName() const { return taskStatsName_; }
   // The priority's character, a blank and the name: what history events carry.
   const String& taskTaggedName() const { return taskTaggedName_; }
   TaskPriority taskPriority() const { return priority_; }
   const std::shared_ptr<TaskScheduler>& taskScheduler() const { return scheduler_; }

   // The task's own forced-yield ratio for tests, 0 for none.
   unsigned char taskTestYieldRatio() const { return taskTestYieldRatio_; }

 protected:
   _TaskBase( std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority, String name );

   // Stores a changed result of `taskScheduled()`, records it in the history and calls
   // `handleTaskBusy()`, which may destroy this task: nothing of it is used afterwards.
   void updateTaskBusy( TaskTimeStamp now );

   std::shared_ptr<TaskScheduler> scheduler_;
   String taskName_;
   String taskStatsName_;
   String taskTaggedName_;
   TaskPriority priority_;
   std::uint8_t taskTestYieldRatio_ = 0;
   std::uint8_t effectiveYieldRatio_ = 0;
   // Counts calls of `taskShouldYield()` under a ratio, and wraps.
   mutable std::uint8_t yieldCounter_ = 0;
   // The last result of `taskScheduled()` that was announced.
   bool busy_ = false;
};

// The name of the task, or "<none>" for null: for messages, which cannot take a pointer to a task.
ORUQUARN_API std::string_view taskText( _TaskBase const* task );

// Writes the text of `taskText`.
ORUQUARN_API std::ostream& operator<<( std::ostream& out, _TaskBase const* task );

} // namespace Quarn
