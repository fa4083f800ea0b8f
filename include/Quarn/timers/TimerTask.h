// A task that runs after a delay.
//
// It sits on the timer wheel of its scheduler's root; when its time has come it joins its run queue
// and runs like any task. It is idle, timing or queued, never two of these at once. A periodic task
// starts itself again in its body:
//
//     class Sample : public Quarn::TimerTask {
//      public:
//        Sample() : TimerTask( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal, "sample" )
//        {
//           scheduleTaskJitterUp( 10.0, 20 );
//        }
//      private:
//        void taskExecute() override {
//           takeSample();
//           scheduleTaskJitterUp( 10.0, 20 );
//        }
//     };
//
// Units:     every delay comes in two forms, seconds as `double` and nanoseconds as
//            `TaskTimeDuration`, both on the clock of `Quarn::time()`. +infinity is never; what is
//            0 queues the task at once; negative fires in the next pass of the wheel.
// Ownership: the wheel links the task and does not own it; destroying the task stops the timer.
// Thread:    that of the scheduler's root.
// Errors:    fatal on NaN ("delayIntoFuture: nan"), before anything has changed, and when there
//            is no room for the wheel's own timer ("Failed to add event fd -1 ...").
// Cost:      starting and stopping take constant time and allocate nothing.

#pragma once

#include <Quarn/scheduler/TaskImpl.h>
#include <Quarn/timers/TimerWheelEvent.h>

namespace Quarn {

class ORUQUARN_API TimerTask : public TaskImpl, private TimerWheelEvent {
 public:
   TimerTask( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name );

   // Shares ownership of the scheduler.
   //
   // Errors: `std::bad_weak_ptr` for one whose owners are gone.
   TimerTask( TaskScheduler* scheduler, TaskPriority priority, String name );

   // Stops the timer.
   ~TimerTask() override;

   // Starts the timer, or moves it when it runs already. A task that was on the run queue leaves
   // it, unless the delay is 0. +infinity stops the timer.
   void scheduleTaskDelay( double delay );
   void scheduleTaskDelay( TaskTimeDuration delay );

   // Starts the timer, or moves it, only when that makes it fire earlier. A queued task stays
   // queued.
   //
   // Errors: fatal on +infinity ("delayIntoFuture: inf").
   void scheduleTaskLowestDelay( double delay );
   void scheduleTaskLowestDelay( TaskTimeDuration delay );

   // `scheduleTaskDelay` with `delay` plus, or minus, a part of it: a whole number of hundredths,
   // drawn anew each time, of `maxJitterPercentage` percent of it. Keeps tasks that were made
   // together from firing together. The draws follow a seed of the root, which starts at 0, so a
   // thread's sequence is the same in every run of the program.
   //
   // Errors: fatal above 100 percent, and for a negative delay when the part drawn exceeds it
   //         ("offset( ... ) > delayIntoFuture( ... )").
   void scheduleTaskJitterUp( double delay, std::uint8_t maxJitterPercentage );
   void scheduleTaskJitterUp( TaskTimeDuration delay, std::uint8_t maxJitterPercentage );
   void scheduleTaskJitterDown( double delay, std::uint8_t maxJitterPercentage );
   void scheduleTaskJitterDown( TaskTimeDuration delay, std::uint8_t maxJitterPercentage );

   // Stops the timer and takes the task off its run queue.
   void stopTimerTask();

   // Queues the task at once and stops the timer. A suspended task is not queued, and its timer is
   // stopped all the same.
   void scheduleTask() override;

   // The time has come. While the task is suspended it does not join the run queue; it does when it
   // is unsuspended.
   void timeout() override;

   // Whether the task is on the run queue or its timer runs.
   bool taskScheduled() const override;

   // Stops the timer and runs the task once, now.
   void taskRunFromTest() override;

   // The bits of a task, 1 always, and 2 while the timer runs.
   unsigned taskStatus() const override;

   // Seconds until the timer fires: 0 when overdue, +infinity when it does not run.
   double timerRemaining() const;

   // When the task is due, in seconds on the clock of `Quarn::time()`: now while it is queued, when
   // the timer fires while that runs, else +infinity.
   double currentExpirationTime() const;

 private:
   template<typename Delay>
   void _scheduleTaskDelayed( Delay delay, bool restart );
   template<typename Delay>
   void _scheduleTaskLowestDelay( Delay delay );
   template<typename Delay>
   void _scheduleTaskJitter( Delay delay, std::uint8_t maxJitterPercentage, bool up );
   template<typename Delay>
   Delay jitterOffset( Delay delay, std::uint8_t maxJitterPercentage );
   unsigned _jitterStep();
   static bool _isNever( double delay );
   void _timerEnds( TaskTimeStamp now );
   std::shared_ptr<_TaskBase> _holdForCallbacks();

   bool timerRunning_ = false;
};

} // namespace Quarn
