// What a scheduler knows about itself at one moment, as a value.
//
// A snapshot is taken in one pass on the scheduler's thread (`TaskScheduler::snapshot`) and never
// changes afterwards, so it can be rendered later and in slices while the scheduler goes on. It
// refers to nothing of the scheduler's and may outlive it; the task pointers in its records are
// identities, not to be followed.
//
// Thread: that of the scheduler's root takes it; any may read it, without locks. Its texts share
//         storage with those of the scheduler, so that other threads need the thread-safe-pointer
//         mode, which is on by default.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/Vector.h>
#include <Quarn/scheduler/TaskScheduler.h>
#include <Quarn/stats/TaskSchedulerHistory.h>
#include <Quarn/stats/TaskStat.h>

#include <cstdint>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace Quarn {

class TaskSchedulerPrintContext;

class ORUQUARN_API TaskSchedulerSnapshot {
 public:
   // The display order of a snapshot that has none.
   static constexpr std::uint32_t noDisplayOrder = 0xFFFFFFFF;

   // The scheduling events that the ring held.
   struct History {
      std::uint32_t capacity = 0;
      // Newest first.
      std::vector<TaskSchedulerHistory::Event> events;
   };

   using SubSchedulers = std::vector<std::pair<String, TaskSchedulerSnapshot>>;

   // `TaskScheduler::snapshot` makes one. An empty name stands for the scheduler's own; a null
   // filter lets every name pass, and with an invalid one the snapshot holds the error and neither
   // tasks nor sub-schedulers nor history.
   //
   // Thread: that of the scheduler's root.
   TaskSchedulerSnapshot( TaskScheduler const* scheduler, String name, bool includeNoRuns,
                          bool includeCompleted, bool includeHistory, TaskNameRegex const* filter,
                          std::uint32_t displayOrder, bool threadSanityDisabled );
   TaskSchedulerSnapshot( TaskSchedulerSnapshot&& ) noexcept;
   ~TaskSchedulerSnapshot();
   TaskSchedulerSnapshot( const TaskSchedulerSnapshot& ) = delete;
   TaskSchedulerSnapshot& operator=( const TaskSchedulerSnapshot& ) = delete;

   const String& schedulerName() const { return schedulerName_; }
   // The filter's expression and error; empty without a filter, and without an error.
   const String& taskNameRegex() const { return taskNameRegex_; }
   const String& taskNameRegexError() const { return taskNameRegexError_; }
   // An error about the whole snapshot; empty when there is none.
   const String& generalError() const { return generalError_; }
   const TaskQueueStatsMap& priorityStats() const { return priorityStats_; }
   // The scheduler's longest run gap.
   TaskTimeDuration maxSchedulerSlip() const { return maxSchedulerSlip_; }
   bool isRootScheduler() const { return isRootScheduler_; }
   bool threadSanityDisabled() const { return threadSanityDisabled_; }
   // The caller's key for ordering snapshots; `noDisplayOrder` for a sub-scheduler.
   std::uint32_t displayOrder() const { return displayOrder_; }
   // Live tasks, and records of completed ones, that were left out because they never ran.
   std::uint32_t skippedTasks() const { return skippedTasks_; }
   std::uint32_t skippedCompletedTasks() const { return skippedCompletedTasks_; }
   const BasicVector<TaskStat>& tasks() const { return tasks_; }
   const BasicVector<TaskStat>& completedTasks() const { return completedTasks_; }
   // One for each task group of the scheduler, by `subSchedulerKey`, newest group first.
   const SubSchedulers& subSchedulers() const { return subSchedulers_; }
   // Null unless it is that of a root and was asked for.
   const std::shared_ptr<const History>& history() const { return history_; }
   // The thread that took the snapshot.
   std::thread::id thread() const { return thread_; }

   // Writes a member: the scheduler's name, and the snapshot as an object. When that fails for want
   // of memory or otherwise, the object has the one member "generalError" instead; with no memory
   // for that either, the document ends there, as on a stream that fails.
   //
   // Errors: ends the process when the document is closed already ("JSON already closed"), and on
   //         an exception that is not a `std::exception`.
   void renderJson( TaskSchedulerPrintContext& context ) const noexcept;

   // Writes a member of any name: records as an object of "tasks", that of the largest total run
   // time first, and "skipped". It stands where the document has come to: between `renderJson()` of
   // two snapshots, beside them. What fails is written as there.
   //
   // Errors: fatal when the document is closed already ("JSON already closed").
   void renderJsonTasks( TaskSchedulerPrintContext& context, const BasicVector<TaskStat>& stats,
                         String key, unsigned skipped, bool completed ) const;

 private:
   // Makes one of prepared records.
   friend struct SnapshotForTest;
   TaskSchedulerSnapshot() = default;

   std::shared_ptr<const History> _copiedHistory( const TaskScheduler& scheduler,
                                                  TaskNameRegex const* filter ) const;
   void _addSubSchedulers( const TaskScheduler& scheduler, bool includeNoRuns,
                           bool includeCompleted, bool includeHistory,
                           TaskNameRegex const* filter );
   void renderJsonImpl( TaskSchedulerPrintContext& context ) const;

   String schedulerName_;
   String taskNameRegex_;
   String taskNameRegexError_;
   String generalError_;
   TaskQueueStatsMap priorityStats_;
   TaskTimeDuration maxSchedulerSlip_{};
   bool isRootScheduler_ = false;
   bool threadSanityDisabled_ = false;
   std::uint32_t displayOrder_ = noDisplayOrder;
   std::uint32_t skippedTasks_ = 0;
   std::uint32_t skippedCompletedTasks_ = 0;
   BasicVector<TaskStat> tasks_;
   BasicVector<TaskStat> completedTasks_;
   SubSchedulers subSchedulers_;
   std::shared_ptr<const History> history_;
   std::thread::id thread_;
};

// The key of a task group's sub-snapshot: the name of its parent task, "-" and the task's key.
//
// Errors: fatal for the record of any other task ("... is not TaskGroup").
ORUQUARN_API String subSchedulerKey( const TaskStat& stat );

} // namespace Quarn
