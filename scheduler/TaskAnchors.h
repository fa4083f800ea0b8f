// What is true while a task runs, and is undone however the run ends.

#pragma once

#include <Quarn/scheduler/TaskScheduler.h>

namespace Quarn {

// Makes a task its scheduler's running one and keeps it alive for the run.
//
// On the normal way out `release()` is called, whose check may fail like any other; the destructor
// covers unwinding, where a failed check ends the process.
class CurrentlyRunningTaskAnchor {
 public:
   // Errors: fatal when the scheduler runs a task already; `std::bad_weak_ptr` when nobody owns the
   //         task any more.
   CurrentlyRunningTaskAnchor( TaskScheduler& scheduler, TaskImpl& task );
   ~CurrentlyRunningTaskAnchor();
   CurrentlyRunningTaskAnchor( const CurrentlyRunningTaskAnchor& ) = delete;
   CurrentlyRunningTaskAnchor& operator=( const CurrentlyRunningTaskAnchor& ) = delete;

   // Drops the reference last: the task may be gone when this returns.
   void release();

 private:
   void _clear();

   // The owner of the run holds the scheduler.
   TaskScheduler& scheduler_;
   TaskImpl* task_;
   std::uint32_t const volatile* magic_;
   std::shared_ptr<_TaskBase> hold_;
};

// Marks this thread as running a critical task, for the whole process to see.
class CriticalTaskMarker {
 public:
   explicit CriticalTaskMarker( bool critical );
   ~CriticalTaskMarker();
   CriticalTaskMarker( const CriticalTaskMarker& ) = delete;
   CriticalTaskMarker& operator=( const CriticalTaskMarker& ) = delete;

   void release();

 private:
   bool marked_;
};

// Takes the running task off a scheduler, so that another may run in the middle of it, and puts it
// back.
class PreserveCurrentlyRunningTaskAnchor {
 public:
   explicit PreserveCurrentlyRunningTaskAnchor( TaskScheduler& scheduler );
   ~PreserveCurrentlyRunningTaskAnchor();
   PreserveCurrentlyRunningTaskAnchor( const PreserveCurrentlyRunningTaskAnchor& ) = delete;
   PreserveCurrentlyRunningTaskAnchor&
   operator=( const PreserveCurrentlyRunningTaskAnchor& ) = delete;

   void release();

 private:
   TaskScheduler* scheduler_;
   TaskImpl* task_;
   // The run inside sets its own; the outer task's quantum would start anew with it.
   double virtualRunStartTime_;
};

} // namespace Quarn
