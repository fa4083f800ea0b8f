// The record that carries one task's counters out of the scheduler.
//
// A record is a copy: it stays as it is while the task goes on. For tasks that are gone, records of
// one statistics name are folded into one.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/scheduler/TaskPriority.h>

#include <chrono>
#include <cstdint>

namespace Quarn {

class TaskImpl;

// The value of a 32-bit high-water mark that was never set; a value that happens to equal it is
// recorded as one less.
constexpr std::uint32_t taskStatUnset = 0xFFFFFFFF;

class ORUQUARN_API TaskStat {
 public:
   using time_point = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;
   using duration = std::chrono::nanoseconds;

   // State of the task at the moment of the copy. The bits are those of `_TaskBase::taskStatus()`.
   class ORUQUARN_API TaskStatus {
    public:
      constexpr TaskStatus() = default;
      constexpr explicit TaskStatus( std::uint8_t bits ) : bits_( bits ) {}

      constexpr std::uint8_t bits() const { return bits_; }
      constexpr bool operator==( const TaskStatus& ) const = default;

      bool taskTimer() const { return _bit( 0 ); }
      bool taskTimerRunning() const { return _bit( 1 ); }
      bool taskOnRunQueue() const { return _bit( 2 ); }
      bool taskCurrentlyRunning() const { return _bit( 3 ); }
      bool taskSuspended() const { return _bit( 4 ); }
      bool taskIsTaskGroup() const { return _bit( 5 ); }
      bool schedulerSuspended() const { return _bit( 6 ); }

      void taskTimerIs( bool on ) { _bitIs( 0, on ); }
      void taskTimerRunningIs( bool on ) { _bitIs( 1, on ); }
      void taskOnRunQueueIs( bool on ) { _bitIs( 2, on ); }
      void taskCurrentlyRunningIs( bool on ) { _bitIs( 3, on ); }
      void taskSuspendedIs( bool on ) { _bitIs( 4, on ); }
      void taskIsTaskGroupIs( bool on ) { _bitIs( 5, on ); }
      void schedulerSuspendedIs( bool on ) { _bitIs( 6, on ); }

    private:
      constexpr bool _bit( unsigned n ) const { return ( bits_ >> n & 1 ) != 0; }
      constexpr void _bitIs( unsigned n, bool on ) {
         bits_ = static_cast<std::uint8_t>( ( bits_ & ~( 1u << n ) ) | ( unsigned{ on } << n ) );
      }

      std::uint8_t bits_ = 0;
   };

   TaskStat( String name, TaskImpl const* task, TaskPriority priority );

   // The task's name; in a completed record its statistics name.
   const String& taskName() const { return taskName_; }
   void taskNameIs( String name ) { taskName_ = std::move( name ); }

   // Identity of the live task, not to be followed once the task may be gone.
   TaskImpl const* task() const { return task_; }
   TaskPriority taskPriority() const { return priority_; }
   TaskStatus taskStatus() const { return status_; }
   void taskStatusIs( TaskStatus status ) { status_ = status; }

   // Runs, and the time that all of them took together.
   std::uint64_t taskRunCount() const { return runCount_; }
   void taskRunInc( std::uint64_t runs = 1 ) { runCount_ += runs; }
   duration taskTotalRunTime() const { return totalRunTime_; }
   void taskTotalRunTimeInc( duration time ) { totalRunTime_ += time; }

   // Starts of the first run (0 when it never ran) and of the latest, on the steady clock.
   time_point taskFirstRunTimestamp() const { return firstRunTimestamp_; }
   void taskFirstRunTimestampIs( time_point when ) { firstRunTimestamp_ = when; }
   time_point taskLastRunTimestamp() const { return lastRunTimestamp_; }
   void taskLastRunTimestampIs( time_point when ) { lastRunTimestamp_ = when; }

   // Work units reported: all of them, their decaying average, the largest report (or unset).
   std::uint64_t taskWorkCountTotal() const { return workCountTotal_; }
   void taskWorkCountTotalInc( std::uint64_t units ) { workCountTotal_ += units; }
   float taskWorkCountDecayAvg() const { return workCountDecayAvg_; }
   void taskWorkCountDecayAvgIs( float average ) { workCountDecayAvg_ = average; }
   std::uint32_t taskWorkCountHighWaterMark() const { return workCountHighWaterMark_; }
   void taskWorkCountHighWaterMarkIs( std::uint32_t mark ) { workCountHighWaterMark_ = mark; }

   // Work units last reported as pending, and the largest such report (or unset).
   std::uint32_t taskWorkPending() const { return workPending_; }
   void taskWorkPendingIs( std::uint32_t units ) { workPending_ = units; }
   std::uint32_t taskWorkPendingHighWaterMark() const { return workPendingHighWaterMark_; }
   void taskWorkPendingHighWaterMarkIs( std::uint32_t mark ) { workPendingHighWaterMark_ = mark; }

   // Runs that took five quanta or more, and those that took at least two and fewer than five.
   std::uint32_t taskQuantumViolation500() const { return quantumViolations500_; }
   void taskQuantumViolation500Inc( std::uint32_t runs = 1 ) { quantumViolations500_ += runs; }
   std::uint32_t taskQuantumViolation200() const { return quantumViolations200_; }
   void taskQuantumViolation200Inc( std::uint32_t runs = 1 ) { quantumViolations200_ += runs; }

   // The longest run.
   duration taskRunTimeHighWaterMark() const { return runTimeHighWaterMark_; }
   void taskRunTimeHighWaterMarkIs( duration time ) { runTimeHighWaterMark_ = time; }

   // From being put on the run queue to being taken off it: the last time, and the longest.
   duration taskLastSchedulingLatency() const { return lastSchedulingLatency_; }
   void taskLastSchedulingLatencyIs( duration time ) { lastSchedulingLatency_ = time; }
   duration taskSchedulingLatencyHighWaterMark() const { return schedulingLatencyHighWaterMark_; }
   void taskSchedulingLatencyHighWaterMarkIs( duration time ) {
      schedulingLatencyHighWaterMark_ = time;
   }

   // How many tasks that are gone were folded into this record; 0 for a live task.
   std::uint64_t taskCompletedCount() const { return completedCount_; }
   void taskCompletedCountInc() { ++completedCount_; }
   void taskCompletedCountIs( std::uint64_t count ) { completedCount_ = count; }

   // Two characters: the state ("*" running, "S" suspended, "X" under a suspended scheduler, "T"
   // and "t" for a timer that runs and one that does not, else a blank) and the priority, in upper
   // case when the task is on a run queue.
   String taskStatusString() const;

   // Folds the record of another task of the same name into this one. Counts and times are summed,
   // marks are maxima, momentary values are the other's; the time stamps of the first and last run
   // stay those of the record folded first, on purpose. The completed count grows by one.
   //
   // Errors: fatal when the names differ.
   TaskStat& operator+=( const TaskStat& other );

 private:
   String taskName_;
   TaskImpl const* task_;
   TaskPriority priority_;
   TaskStatus status_;
   std::uint64_t runCount_ = 0;
   duration totalRunTime_{};
   time_point firstRunTimestamp_;
   time_point lastRunTimestamp_;
   std::uint64_t workCountTotal_ = 0;
   float workCountDecayAvg_ = 0.0f;
   std::uint32_t workCountHighWaterMark_ = taskStatUnset;
   std::uint32_t workPending_ = 0;
   std::uint32_t workPendingHighWaterMark_ = taskStatUnset;
   std::uint32_t quantumViolations500_ = 0;
   std::uint32_t quantumViolations200_ = 0;
   duration runTimeHighWaterMark_{};
   duration lastSchedulingLatency_{};
   duration schedulingLatencyHighWaterMark_{};
   std::uint64_t completedCount_ = 0;
};

} // namespace Quarn
