// A task that a scheduler can queue and run.

#pragma once

#include <Quarn/IntrusiveLinkedListBase.h>
#include <Quarn/scheduler/TaskBase.h>
#include <Quarn/scheduler/TaskKey.h>
#include <Quarn/stats/TaskStat.h>

namespace Quarn {

class TaskSchedulerRoot;

// How `taskShouldYield()` decides.
enum class TaskShouldYieldMode : std::uint8_t {
   realTime = 0,    // the quantum on the steady clock, looked at every 500 µs at most
   virtualTime = 1, // the quantum on the virtual clock
   testRatio = 2,   // every n-th call
};

// All scheduling state of a task. Applications derive from `Task`, `TimerTask` or
// `FileDescriptorTask`.
//
// The constructor registers the task with its scheduler, the destructor unschedules and unregisters
// it; what the scheduler calls during both reaches this class, not the derived one.
//
// Setters ending in `Is` do nothing when the value is unchanged.
//
// Thread: that of the scheduler's root. What changes scheduling fails elsewhere ("Executing in
//         wrong thread ..."); reading counters is not checked, nor is `taskShouldYield()`, which
//         is asked in inner loops.
class ORUQUARN_API TaskImpl : public _TaskBase {
 public:
   // Errors: fatal without a scheduler ("Need a TaskScheduler"), and by the rules of
   // `TaskScheduler::taskRegister`.
   TaskImpl( std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority, String name );

   void taskStatsNameIs( String name ) override;
   bool taskScheduled() const override;

   // Errors: fatal for a task that has run before and is not running now.
   bool taskShouldYield() const override;

   void taskWorkCountInc( unsigned long units ) override;
   void taskWorkPendingIs( unsigned int units ) override;

   // Unschedules and unregisters. The statistics are folded into the scheduler's completed ones
   // unless `includeInCompletedTaskIs( false )` was called; the status in that record is that of a
   // plain task, for the derived part is gone by then. The first record of a name that finds no
   // memory is left out, uncounted.
   ~TaskImpl() override;

   // Queues the task; does nothing when it is queued already. A suspended task is not queued: it is
   // when it is unsuspended.
   void scheduleTask() override;

   void taskRunFromTest() override;
   // The same with the scheduler's bookkeeping of a run around it.
   void taskRunAndRecordFromTest();

   unsigned taskStatus() const override;

   // Takes the task off its run queue, if it is on one.
   void unscheduleTask();

   // A suspended task is never queued. Unsuspending queues it, whether or not it was queued before,
   // so that no wake-up is lost; a timer task whose timer runs is left to its timer.
   void taskSuspendedIs( bool suspended );
   bool taskSuspended() const { return ( flags_ & flagSuspended ) != 0; }

   // How long a run may take before the task should yield; also the measure of violations. The
   // scheduler's default at first.
   //
   // Errors: fatal below 1 ns ("Quantum: ..."), also for an unchanged value in `taskQuantumIs`.
   void taskQuantumIs( TaskTimeDuration quantum );
   void taskQuantumNoCheckIs( TaskTimeDuration quantum );
   TaskTimeDuration taskQuantum() const { return taskQuantum_; }

   // Whether the statistics outlive the task; they do at first.
   void includeInCompletedTaskIs( bool include );
   bool includeInCompletedTask() const { return ( flags_ & flagIncludeInCompleted ) != 0; }

   // For tests: has every `ratio`-th call of `taskShouldYield()` answer true; 0 switches it off.
   // The count of calls has eight bits and wraps.
   void taskTestYieldRatioIs( unsigned char ratio );
   // A ratio of 1, or none.
   void taskForceYieldInTestIs( bool force );

   // How long the current run has taken, on the virtual clock under virtual time.
   //
   // Errors: fatal when the task is not running.
   TaskTimeDuration taskCurrentRunTime() const;

   // Whether the body is being run.
   bool taskCurrentlyRunning() const { return taskCurrentlyRunning_; }
   // Runs since the statistics were reset, the current one included.
   std::uint64_t taskRunCount() const { return taskRunCount_; }
   // What `taskShouldYield()` goes by.
   TaskShouldYieldMode taskShouldYieldMode() const { return taskShouldYieldMode_; }
   // What tells the task from others of its name in reports.
   TaskKey taskKey() const { return TaskKey( this ); }

   // Whether this is the parent task of a task group.
   virtual bool isTaskGroup() const;

   // A copy of the task's counters and state.
   TaskStat getStats() const;

   // Chooses how `taskShouldYield()` decides; called when something it depends on has changed.
   void taskShouldYieldModeReevaluate();

   // Runs the body once. `now` is when the scheduler entered the run; the end of the run is stored
   // in `endTime`. The task may be gone when this returns.
   void taskDoRun( const TaskTimeStamp& now, TaskTimeStamp* endTime );

 private:
   friend class FileDescriptorTask;
   friend class TaskGroup;
   friend class TaskScheduler;
   friend class TaskSchedulerRoot;
   friend class TimerTask;
   friend class CurrentlyRunningTaskAnchor;

   static constexpr std::uint8_t flagSuspended = 1;
   static constexpr std::uint8_t flagIncludeInCompleted = 2;
   static constexpr std::uint32_t magicConstructed = 0x42BE5AFE;
   static constexpr std::uint32_t magicDestroyed = 0xDEADDEAD;

   TaskSchedulerRoot& _root() const;
   void _sanityCheck() const;
   void handleInitialized();
   void unscheduleTaskPrivate( TaskTimeStamp now );
   void _queueWaitEnds( TaskTimeStamp now );
   void _quantumStore( TaskTimeDuration quantum );
   void _accountRun( TaskTimeDuration used );
   void _clearStats();
   TaskTimeDuration _virtualRunTime() const;

   std::uint8_t flags_ = flagIncludeInCompleted;
   TaskShouldYieldMode taskShouldYieldMode_ = TaskShouldYieldMode::realTime;
   bool taskCurrentlyRunning_ = false;
   TaskTimeDuration taskQuantum_;
   TaskTimeStamp lastScheduledTime_;
   TaskTimeStamp firstRunTime_;
   TaskTimeStamp runStartTime_;
   // Time-stamp counter at the last look at the clock; 0 for none.
   mutable std::uint64_t lastYieldCheckTsc_ = 0;
   TaskTimeDuration lastQueueWait_{};
   TaskTimeDuration maxQueueWait_{};
   TaskTimeDuration totalRunTime_{};
   TaskTimeDuration maxRunTime_{};
   std::uint64_t workCountTotal_ = 0;
   float workCountDecayAvg_ = 0.0f;
   std::uint32_t workCountHighWaterMark_ = taskStatUnset;
   std::uint32_t workPending_ = 0;
   std::uint32_t workPendingHighWaterMark_ = taskStatUnset;
   std::uint32_t severeQuantumViolations_ = 0;
   std::uint32_t moderateQuantumViolations_ = 0;
   std::uint64_t taskRunCount_ = 0;
   std::uint32_t taskMagicNumber_ = magicConstructed;
   IntrusiveLinkedListHook taskRunQueueLink_;
   IntrusiveLinkedListHook taskRegisteredLink_;
   std::uint64_t reserved_ = 0;
};

} // namespace Quarn
