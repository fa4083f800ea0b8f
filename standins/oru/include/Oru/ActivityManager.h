// The activity loop: descriptors and deadlines of one process, served on one thread.
//
// A turn of the loop waits until a descriptor is ready or a deadline has come, then notifies ready
// descriptors in the order in which their watches began, then due deadlines by time. What a
// notification makes ready or due is served in the next turn.
//
// The loop has the activity lock (ActivityLock.h) while it notifies and lets it go while it waits,
// unless the caller of doRun() has it on his own account. Another thread that has the lock
// meanwhile does not end the wait: what it sets is looked at when the wait is over.

#pragma once

#include <Oru/Clock.h>
#include <Oru/Export.h>
#include <Oru/Ptr.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <pthread.h>

namespace Oru {

class DescriptorWatches;
class FileDescriptor;

class ORU_API ActivityManager : public PtrInterface {
 public:
   // The only one, also Entity::singletonIs<ActivityManager>().
   //
   // Thread: any.
   static Ptr<ActivityManager> instance();

   // The clock that deadlines are set on.
   //
   // Thread: any; what it gives belongs to the loop's.
   Ptr<Clock> clock() const { return clock_; }

   // How many seconds the next doRun() lasts; +infinity, as at the start, for no limit. doRun()
   // takes it away when it begins, so each value counts for one run. Negative counts as 0.
   //
   // Errors: Quarn::AssertException for NaN, and while another thread runs the loop.
   void executionTimeIs( double seconds );
   double executionTime() const { return executionTime_; }

   // Runs the loop until the execution time is over or doStop() is called; without a limit also
   // until nothing is watched and no deadline is set. One turn is always served. A run without a
   // stop ends only after a turn of its end time or later, which has served all deadlines up to
   // there.
   //
   // A notification may call it again: the inner run serves what the outer turn has left and ends
   // by itself, then the outer one goes on with a new turn.
   //
   // Thread: any, one at a time. A child made by fork() may call it whichever thread forked; in a
   //         notification it is within the run there, as its parent is.
   // Errors: an exception of a notification leaves it; what was not served yet is served by the
   //         next run. Quarn::AssertException while another thread runs the loop.
   //         Quarn::RuntimeException when the system refuses to wait (no memory, more watches than
   //         the process may have descriptors).
   void doRun();

   // Ends the innermost run when the notification under way returns. Does nothing without a run.
   //
   // Thread: one that has the activity lock.
   void doStop();

   // How many descriptors and deadlines the loop has served in all. A turn that leaves it as it was
   // found nothing to do.
   std::uint64_t served() const { return served_; }

   // Whether waits for deadlines are skipped by moving the clock instead; off at start. Looked at
   // in each turn: when nothing is ready and nothing is due, the clock is put forward to the next
   // deadline or to the end of the run. In between it goes on with real time.
   //
   // Thread: any.
   bool virtualTime() const { return virtualTime_.load( std::memory_order_relaxed ); }

   // How far the clock was put forward in all, in seconds. Stays when virtual time is switched off.
   //
   // Thread: any.
   static double virtualTimeOffset();

 private:
   friend struct Entity;
   friend struct ActivityManagerConfig;
   friend class FileDescriptor;
   ActivityManager();
   ~ActivityManager() override;
   void _checkThread() const;
   void _forgetRunsOfLostThread();

   class Run;

   static std::atomic<bool> virtualTime_;

   Ptr<Clock> const clock_;
   std::unique_ptr<DescriptorWatches> const watches_;
   double executionTime_ = std::numeric_limits<double>::infinity();
   Run* run_ = nullptr; // the innermost one
   std::uint64_t served_ = 0;
   // The thread that runs the loop, zero for none. Written under the activity lock.
   std::atomic<pthread_t> runner_{ 0 };
};

// Sets the mode, before or after there is a manager.
struct ORU_API ActivityManagerConfig {
   static void virtualTimeIs( bool on );
};

} // namespace Oru
