// An event loop in virtual time, for tests.
//
// While it lives, its thread has a fresh event base and a root scheduler that nobody else uses, and
// the loop jumps to the next timer instead of sleeping, so that hours of timers pass in moments.
// The test makes its tasks on `root()`, moves time with `advance()`, and reads in `runLog()` what
// ran.
//
//     Quarn::Testing::VirtualTimeLoop loop;
//     auto poll = std::make_shared<Poll>( loop.root() ); // a task that runs once a minute
//     loop.advance( 3600.0 );
//     EXPECT_EQ( loop.runLog().size(), 60u );
//
// Real time keeps counting beneath the jumps: `now()` is never exact, and differs by microseconds
// and more between two runs of one test, while the order in which timers expire does not. Timers
// that are apart by less than the test takes to arm them have no order to rely on.
//
// Work that is runnable holds time back: a jump is made only when nothing is. A task that schedules
// itself for ever turns `advance( 3600.0 )` into an hour.
//
// Without thread-local singletons it is the framework's loop that jumps. There is one in the
// process, so what others have on it runs as well.
//
// Tasks of task groups run at most once in a run of their group, as always under virtual time.
//
// Order:  make it before anything that uses the event loop of the thread (controls, wheels, the
//         thread's own root), and destroy what was made on it before it goes.
// Thread: the main one.
// Errors: an exception that leaves a task leaves the function that ran the loop, which may be
//         called again. Fatal inside a running loop of libevent.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct event_base;

namespace Quarn::Testing {

class ORUQUARN_API VirtualTimeLoop {
 public:
   // Makes the base and the root, named "main", and switches fast-forward and the framework's
   // virtual time on.
   //
   // Errors: fatal on a thread other than the main one, and on one that has an event base.
   VirtualTimeLoop();

   // Undoes all that: the switches are set back to what they were. Virtual time stays ahead, for it
   // never goes back. Fast-forward notifiers must not throw here. A render of snapshots that is
   // under way ends as it does with its thread: the descriptor is closed and nobody told.
   ~VirtualTimeLoop();

   VirtualTimeLoop( const VirtualTimeLoop& ) = delete;
   VirtualTimeLoop& operator=( const VirtualTimeLoop& ) = delete;

   // The scheduler for the tasks of the test. It is not that of `schedulerRootQuarn()`, whose tasks
   // run in this loop as well but are not in the log.
   const std::shared_ptr<TaskSchedulerRoot>& root() const { return root_; }

   // Runs the loop for so many seconds of virtual time: what is due by then has run, at its time,
   // or later where what ran before took longer. 0 and less runs what is due now. What runs last
   // may leave what it schedules for later.
   void advance( double seconds );

   // Runs the loop until nothing is due. Time does not jump: timers that are armed for later stay.
   // Does not return while a task keeps scheduling itself, or a watched descriptor stays ready.
   void runUntilIdle();

   // Runs the loop once, without waiting or jumping: timers and descriptors that are ready, and one
   // task of the root (a task group counts as one, and runs several). Returns whether a task ran.
   bool runOneTurn();

   // The names of the tasks of the root and its task groups in the order in which they ran, since
   // the start or the last `clearRunLog()`. A group's own task precedes the members that it runs.
   const std::vector<std::string>& runLog() const { return runLog_; }
   void clearRunLog() { runLog_.clear(); }

   // Virtual time, as `Quarn::time()`.
   double now() const;

 private:
   struct Base {
      Base();
      ~Base();
      event_base* base = nullptr; // none on the framework's loop
   };
   struct Switches {
      Switches();
      ~Switches();
      bool fastForwardBefore;
      bool virtualTimeBefore;
   };

   // In this order: the root goes first, and the switches want a base.
   Base base_;
   Switches switches_;
   std::vector<std::string> runLog_;
   std::uint64_t runs_ = 0;
   std::shared_ptr<TaskSchedulerRoot> root_;
};

} // namespace Quarn::Testing
