// The root scheduler of a thread: where the event loop and the tasks meet.
//
// Each thread has one, made by the first `schedulerRootQuarn()` and kept until the thread ends, or
// longer while tasks hold it. It asks the event loop to be called back whenever work is runnable,
// and runs exactly one task in each callback, so that descriptors and timers are served between any
// two tasks.
//
// Destroy a thread's tasks before the thread ends, or raise `auxThreadCount` while another thread
// does: what outlives the thread keeps the root, and destroying it elsewhere fails the thread
// check.
//
// Thread: its own, for every operation ("Executing in wrong thread ..."), except in the child of a
//         fork. In framework mode one loop of the process calls every root back, so only the thread
//         of that loop schedules.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/scheduler/TaskScheduler.h>
#include <Quarn/timers/TimerWheel.h>

#include <memory>
#include <unordered_set>
#include <vector>

#include <pthread.h>
#include <sys/types.h>

namespace Quarn {

namespace Testing {
class VirtualTimeLoop;
}

class ORUQUARN_API TaskSchedulerRoot final : public TaskScheduler,
                                             public Platform::CallbackHandler {
 public:
   // Events that the history ring holds at first.
   static constexpr unsigned historyEntryCountDefault = 100;

   // A root is owned by shared pointers: `TaskSchedulerRootIs` makes one.
   explicit TaskSchedulerRoot( String name );

   // Makes a root that is not the thread's own, for tests and tools.
   static std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs( String name );

   // Whether a reset is under way in any scheduler of the thread.
   bool resetStatsInProgress() const override;

   // While suspended nothing runs, and running tasks are told to yield. Resuming asks for a run.
   void suspendedIs( bool suspended ) override;

   // Delivers the timers that are due, then runs all queued critical tasks, also from inside
   // another task. A critical task that reschedules itself keeps it
   // from ending. Not to be called from a critical task. The time since the last run ended before
   // this call counts as run gap, the surrounding task's time included.
   //
   // Errors: what a critical task throws.
   void runCriticalPriorityTasks() override;

   // Asks the event loop for a callback; many requests before it are one. Ignored while suspended.
   void requestSchedulerRun() override;
   void handleTaskForceYieldInTest() override;
   void handleVirtualTimeChange() override;
   void taskRegister( TaskImpl* task ) override;
   void timerRunningInc( const TaskTimeStamp& now ) override;
   void timerRunningDec( const TaskTimeStamp& now ) override;
   ~TaskSchedulerRoot() override;

   // The run entry: runs one task, or finds the root idle.
   //
   // Errors: what the task throws; `handleSchedulerRun` is fatal where it would run a task inside
   //         the run of another ("currentlyRunningTask_ is not NULL ...").
   void callback() override;
   void handleSchedulerRun();

   // Adds and removes a scheduler of this thread.
   //
   // Errors: fatal when it is there already ("insert failed for ..."), or is not ("delete
   //         failed for ...").
   void registerScheduler( TaskScheduler* scheduler );
   void unregisterScheduler( TaskScheduler* scheduler );

   // For tests: the forced-yield ratio of all tasks of the thread that have none of their own.
   void taskTestYieldRatioIs( unsigned char ratio );
   unsigned char taskTestYieldRatio() const { return taskTestYieldRatio_; }

   // Takes note of whether the process runs on virtual time, which only the main thread's root
   // does.
   void virtualTimeCheck();
   bool virtualTime() const { return virtualTime_; }

   // The counts of each priority, summed over all schedulers of this root.
   TaskQueueStatsMap queueStatsRoot() const;

   // Switches the thread check of this root.
   void threadSanityDisabledIs( bool disabled );
   bool threadSanityDisabled() const { return threadSanityDisabled_; }

   // Fails on any thread but the root's. Asked first by every operation.
   void sanityCheckCurrentRunningThread() const {
      if( !_isOwnThread() ) [[unlikely]] {
         _wrongThread();
      }
   }

   // Tasks registered with all schedulers of this root.
   unsigned totalRegisteredTaskCount() const;

   // Schedulers of this root but itself.
   unsigned taskGroupCount() const;

   // A scheduler of that name, or empty.
   std::shared_ptr<TaskScheduler> findSchedulerForTest( const String& name ) const;

   // The capacity of the history ring, in events; the setter keeps the newest and returns the
   // previous capacity. 0 switches the history off.
   unsigned historyEntryCount() const;
   unsigned historyEntryCountIs( unsigned count );
   // How many events the ring holds.
   unsigned historyEventCount() const;
   void clearHistory();

   // Writes the history, newest event first: to a stream, to a blocking descriptor, as a string, or
   // to standard error. With a filter, the events of the tasks whose names match, and none of
   // schedulers; null shows all.
   //
   // Errors: those of the forms of `statsRenderTextForDebug`.
   void historyRenderTextForDebug( std::ostream& out ) const;
   void historyRenderTextForDebug( std::ostream& out, TaskNameRegex const* filter ) const;
   void historyRenderTextForDebug( int fd ) const;
   String historyRenderTextForDebugToString() const;
   void historyRenderTextForDebugStdErr() const;

   // The wheel of the thread's timer tasks. Nothing else belongs on it: it is served before
   // anything else, so a timer that restarts itself at once would starve the loop.
   const std::shared_ptr<TimerWheel>& timerWheelForTest() const { return timerWheel_; }
   // Writes a report of all schedulers of this root: counts of each priority, the longest run gap,
   // a legend, a row for each task and, when asked for, for each name of completed tasks, and the
   // history. An empty expression shows all tasks, an invalid one none. Rows of equal run time
   // stand in the order of the schedulers: the root, then its groups, newest first, each followed
   // by the groups under it.
   //
   // The form for a descriptor leaves it open. Standard error is written to in any mode.
   //
   // Errors: fatal for a descriptor in non-blocking mode, as in `FdToStream`. What a descriptor or
   //         standard error does not take is lost without a word. An invalid expression is reported
   //         on standard error, too. A stream keeps what is thrown into it as its bad bit. A sort
   //         that finds no memory for its buffer gives the same text.
   void statsRenderTextForDebug( std::ostream& out, bool includeNoRuns = false,
                                 bool includeCompleted = false, bool includeTaskKeys = false,
                                 bool includeHistory = false, String taskNameRegex = {} ) const;
   void statsRenderTextForDebug( int fd, bool includeNoRuns = false, bool includeCompleted = false,
                                 bool includeTaskKeys = false, bool includeHistory = false,
                                 String taskNameRegex = {} ) const;
   String statsRenderTextForDebugToString( bool includeNoRuns = false,
                                           bool includeCompleted = false,
                                           bool includeTaskKeys = false,
                                           bool includeHistory = false,
                                           String taskNameRegex = {} ) const;
   void statsRenderTextForDebugStdErr() const;

   // Writes a table of records, that of the largest total run time first. `title` heads the column
   // of names, to which the tasks' keys are added when asked for; `skipped` tasks are mentioned
   // below.
   static void statsRenderTextTasks( std::ostream& out, BasicVector<TaskStat> stats, String title,
                                     unsigned skipped, bool completed, bool includeTaskKeys );

   // Has `observer` called with each task of this root's schedulers that is about to run; an empty
   // function ends it.
   void runObserverForTestIs( std::function<void( const TaskImpl& )> observer );

   // The thread that the root belongs to.
   pthread_t threadId() const { return threadId_; }

   // For tests: has task groups let members run more than once under virtual time.
   static bool testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime;

 private:
   friend class TaskImpl;
   friend class TaskSchedulerSnapshot;
   friend class TimerTask;
   friend class Testing::VirtualTimeLoop;
   friend struct ThreadEnd;

   // Several times a run, so without a call where there is a way: on x86-64 the C library's thread
   // number is the thread pointer.
   bool _isOwnThread() const {
#if defined( __x86_64__ ) && defined( __GLIBC__ ) && __has_builtin( __builtin_thread_pointer )
      return reinterpret_cast<pthread_t>( __builtin_thread_pointer() ) == threadId_;
#else
      return pthread_equal( pthread_self(), threadId_ ) != 0;
#endif
   }
   [[gnu::cold]] void _wrongThread() const;
   void _reevaluateYieldModes();
   std::vector<TaskScheduler const*> _schedulersInOrder() const;
   // Ends what would keep this root and its schedulers alive for ever.
   void abandonRenders();

   std::unordered_set<TaskScheduler*> schedulers_;
   std::shared_ptr<Platform::CallbackControl> callbackControl_;
   std::shared_ptr<TimerWheel> timerWheel_;
   pthread_t threadId_;
   pid_t pid_;
   char threadName_[ 16 ] = {};
   bool threadSanityDisabled_ = false;
   bool virtualTime_ = false;
   bool isMainThread_;
   std::uint8_t taskTestYieldRatio_ = 0;
   // Advanced by jittered timer tasks alone, so that a thread's sequence is reproducible.
   unsigned jitterSeed_ = 0;
   std::function<void( const TaskImpl& )> runObserver_;
};

// The calling thread's root, "main" on the main thread and "thread:" with the thread's number
// elsewhere. While the thread ends, once its root is released, every call makes a fresh one that
// belongs to the caller.
ORUQUARN_API std::shared_ptr<TaskSchedulerRoot> schedulerRootQuarn();

// `TaskSchedulerRoot::TaskSchedulerRootIs`.
ORUQUARN_API std::shared_ptr<TaskSchedulerRoot> schedulerRootQuarnNonShared( String name );

} // namespace Quarn
