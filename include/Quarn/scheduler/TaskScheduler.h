// A scheduler: its registered tasks, a run queue for each priority, and the choice of the next
// task.
//
// There are two kinds: the root of a thread (`TaskSchedulerRoot`), which the event loop calls, and
// the task group, which is one task of another scheduler.
//
// The rule of choice: the most urgent priority with a runnable task goes first. Against starvation,
// high and normal give way once: when they have run n tasks in a row, and n times the weighted
// backlog of the priorities down to low exceeds their own weighted backlog, one task of those runs.
//
// Thread: that of the root, for every operation. Nothing is locked.
// Cost:   scheduling, choosing and unscheduling take constant time and allocate nothing.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/IntrusiveBookmarkLinkedList.h>
#include <Quarn/Vector.h>
#include <Quarn/scheduler/TaskImpl.h>
#include <Quarn/stats/TaskSchedulerHistory.h>
#include <Quarn/stats/TaskStat.h>

#include <array>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Quarn {

class TaskNameRegex;
class TaskSchedulerPrintContext;
class TaskSchedulerRoot;
class TaskSchedulerSnapshot;

// What a scheduler knows of one priority.
struct TaskQueueStats {
   // Tasks on the run queue.
   std::uint64_t runnable = 0;
   // Registered tasks that are not on it.
   std::uint64_t idle = 0;
   // Tasks that are gone and whose statistics were kept.
   std::uint64_t completed = 0;
   // Runs since the statistics were last cleared.
   std::uint64_t total = 0;

   bool operator==( const TaskQueueStats& ) const = default;
   TaskQueueStats& operator+=( const TaskQueueStats& other ) {
      runnable += other.runnable;
      idle += other.idle;
      completed += other.completed;
      total += other.total;
      return *this;
   }
};

// An entry for each of the six priorities.
using TaskQueueStatsMap = std::map<TaskPriority, TaskQueueStats>;

class ORUQUARN_API TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
 public:
   // For roots, with `this` as the root, and task groups. The history is that of the root.
   TaskScheduler( String name, TaskSchedulerRoot* root,
                  std::shared_ptr<TaskSchedulerHistory> history );

   // Whether a reset of the statistics is under way: from `resetStats()` until its walk has come to
   // the end of the list.
   virtual bool resetStatsInProgress() const;

   // While suspended none of its tasks runs; they keep their places in the queues.
   virtual void suspendedIs( bool suspended ) = 0;

   // Runs all queued critical tasks of the thread now; see `TaskSchedulerRoot`.
   virtual void runCriticalPriorityTasks();

   // Asks the owner to call this scheduler's run entry soon.
   virtual void requestSchedulerRun() = 0;

   // Told that the set of tasks with a forced yield has become empty, or is so no longer.
   virtual void handleTaskForceYieldInTest() = 0;

   // Told that the root has changed between real and virtual time.
   virtual void handleVirtualTimeChange() = 0;

   // Called by the task's constructor. A critical task belongs to a root, and is for authorized
   // names: those that contain "RibOutKeepalive", or "test" in either case.
   //
   // Errors: fatal for a priority above scavenge, an unauthorized or misplaced critical task, and a
   // task that is registered already.
   virtual void taskRegister( TaskImpl* task );

   // Counts the armed timers of this scheduler's tasks.
   virtual void timerRunningInc( const TaskTimeStamp& now ) = 0;
   virtual void timerRunningDec( const TaskTimeStamp& now ) = 0;

   virtual ~TaskScheduler();

   TaskScheduler( const TaskScheduler& ) = delete;
   TaskScheduler& operator=( const TaskScheduler& ) = delete;

   // Called by the task's destructor; keeps its statistics as those of a completed task.
   //
   // Errors: fatal for a task that is queued or not registered.
   void taskUnregister( TaskImpl* task );

   // Takes a queued task off its run queue.
   //
   // Errors: fatal for a task that is not queued.
   void unscheduleTask( const TaskTimeStamp& now, TaskImpl* task );

   // Chooses a task of the priorities `from` to `to` and takes it off its queue; null for none.
   //
   // Errors: fatal for a priority above scavenge.
   TaskImpl* pickOneTask( const TaskTimeStamp& now, TaskPriority from, TaskPriority to );

   // Runs one task of the priorities from critical to `maxPriority`; false when there was none.
   //
   // Errors: `std::bad_weak_ptr` when the scheduler is being destroyed; and what the task's body
   // throws, after which the scheduler goes on. Fatal where it would run a task inside the run of
   // another ("currentlyRunningTask_ is not NULL ...").
   bool _handleSchedulerRun( TaskPriority maxPriority );

   // Whether a run was asked for, because work is runnable. Goes with the run that finds none.
   void schedulerHasRunnableTasksIs( bool runnable, const TaskTimeStamp& now );
   bool schedulerHasRunnableTasks() const { return hasRunnableTasks_; }

   const String& schedulerName() const { return schedulerName_; }
   TaskSchedulerRoot* schedulerRoot() const { return root_; }
   bool suspended() const { return suspended_; }

   // Whether there are runnable tasks or armed timers.
   bool busy() const { return busy_; }

   // Has `callback` called whenever `busy()` changes, in the order of the keys; registering a key
   // again replaces its callback, and unregistering an unknown one does nothing. A callback may
   // register, unregister, schedule and destroy anything; a key that is registered meanwhile is
   // called from the next change on. Calling allocates nothing.
   //
   // Errors: an empty function raises `std::bad_function_call` when it is called. What a callback
   //         throws leaves the operation on the task that led to it; in the destructor of a timer
   //         task or a task group that ends the process.
   void registerBusyCallback( void* key, std::function<void()> callback );
   void unregisterBusyCallback( void* key );
   bool schedulerBaseBusyCallbacksRegistered() const { return !busyCallbacks_.empty(); }

   // Tasks on the run queues, of all priorities or of one.
   //
   // Errors: fatal for a priority above scavenge.
   std::int64_t runnableTaskCount() const;
   std::int64_t runnableTaskCount( TaskPriority priority ) const;

   // How many tasks of the priority were taken off their queue to be run.
   std::uint64_t runTaskCount( TaskPriority priority ) const;

   // Registered tasks of the priority, and tasks that are gone with their statistics kept.
   std::uint32_t tasksPerPriority( TaskPriority priority ) const;
   std::uint64_t completedTasksPerPriority( TaskPriority priority ) const;

   // The quantum that new tasks start with; 20 ms at first. Any value is taken, also 0: a task that
   // starts with it never counts violations.
   TaskTimeDuration defaultTaskQuantum() const { return defaultTaskQuantum_; }
   void defaultTaskQuantumIs( TaskTimeDuration quantum );

   // The longest time between the end of a run and the next run entry, while something was
   // runnable. A critical run inside another run counts from the end of the run before that one.
   TaskTimeDuration maxRunGap() const { return maxRunGap_; }

   // The task being run by this scheduler, which holds it for the run; null outside a run.
   TaskImpl* currentlyRunningTask() const { return currentlyRunningTask_; }

   // How many of its timer tasks are armed; the armed ones of a group count as one.
   unsigned timerRunningCount() const { return timerRunningCount_; }

   // The registered task of that name (the newest of several), and its counters.
   //
   // Errors: `taskStatForTest` is fatal when there is none.
   std::shared_ptr<_TaskBase> taskForTest( const String& name ) const;
   TaskStat taskStatForTest( const String& name ) const;

   // The record into which completed tasks of that statistics name were folded.
   //
   // Errors: fatal when there is none.
   TaskStat completedTaskStatForTest( const String& name ) const;

   // The counts of each priority.
   TaskQueueStatsMap queueStats() const;

   // Appends the records of the registered tasks to `out`, newest task first. A task that never ran
   // is left out unless `includeNoRuns` is set; so is one whose name the filter does not match. An
   // invalid filter matches nothing; null matches all.
   //
   // Returns how many were left out because they never ran.
   unsigned getTaskStats( BasicVector<TaskStat>& out, bool includeNoRuns ) const;
   unsigned getTaskStats( BasicVector<TaskStat>& out, bool includeNoRuns,
                          TaskNameRegex const* filter ) const;

   // The same for the records of completed tasks, in no promised order. The name is the statistics
   // name.
   unsigned getCompletedTaskStats( BasicVector<TaskStat>& out, bool includeNoRuns ) const;
   unsigned getCompletedTaskStats( BasicVector<TaskStat>& out, bool includeNoRuns,
                                   TaskNameRegex const* filter ) const;

   // Clears the counters of every registered task, and at the end those of the scheduler. A task of
   // its own does it (";ResetStats" behind the scheduler's name, of priority normal, in a group of
   // the group's), which yields like any other; tasks may come and go meanwhile, and those that
   // come are not visited. Called again, it starts anew. Only this scheduler is cleared, not the
   // groups under it.
   void resetStats();

   // Clears what `resetStats()` clears at its end: the numbers of runs, the longest run gap, and
   // the records and counts of completed tasks.
   void clearStats();

   // All of this scheduler at this moment, the groups under it and, for a root that is asked to,
   // the history included. `name` stands in reports instead of the scheduler's name, unless it is
   // empty; `displayOrder` is the caller's, to order reports by, and `noDisplayOrder` leaves it out
   // of them. `includeNoRuns` includes tasks and records that never ran, which are only counted
   // otherwise; `includeCompleted` the records of completed tasks; `includeHistory` a root's
   // events.
   //
   // An empty expression lets every name pass; one that is invalid gives a snapshot that says so
   // and is empty otherwise, and is reported on standard error.
   std::shared_ptr<const TaskSchedulerSnapshot> snapshot( String name, bool includeNoRuns,
                                                          bool includeCompleted,
                                                          bool includeHistory, String taskNameRegex,
                                                          std::uint32_t displayOrder ) const;

   // Snapshots the scheduler, with the display order 0, and renders it at once, as the JSON
   // document that `TaskSchedulerPrintContext` describes. Flags and expression are those of
   // `snapshot()`.
   void statsRenderJson( std::ostream& out, bool includeNoRuns = false,
                         bool includeCompleted = false, bool includeHistory = false,
                         String taskNameRegex = {} ) const;
   String statsRenderJsonToString( bool includeNoRuns = false, bool includeCompleted = false,
                                   bool includeHistory = false, String taskNameRegex = {} ) const;
   // The same onto a descriptor, which stays open.
   //
   // Errors: those of `FdToStream`; what cannot be written is lost without a word.
   void statsRenderJsonToBlockingFdForTest( int fd, bool includeNoRuns = false,
                                            bool includeCompleted = false,
                                            bool includeHistory = false,
                                            String taskNameRegex = {} ) const;

   // Renders the snapshots as one JSON document onto a descriptor, without ever blocking: a task of
   // this scheduler renders one snapshot a run, and a descriptor task writes what fits. `done` is
   // called at the end, when the descriptor is closed. Both tasks have the priority normal, in a
   // task group the group's.
   //
   // A snapshot is rendered in one run with the groups in it, which keeps the loop from all else
   // for as long: some 70 ms for a hundred thousand tasks. Snapshots of the groups, each by itself,
   // are rendered in as many runs.
   //
   // A reader that goes away ends it quietly, as a pipe or a local stream socket tells of it.
   // Network and sequenced-packet sockets can also bring ECONNRESET, which is fatal as every other
   // error.
   //
   // Ownership: the descriptor passes to the scheduler, which closes it at the end, 0 to 2 like any
   //            other: pass a duplicate of what is still needed. When the call fails it stays the
   //            caller's. It is made non-blocking, for all who share it, until it is closed. The
   //            scheduler lives until then, unless it belongs to the thread's own root and the
   //            thread ends: then the descriptor is closed with the document cut short, and `done`
   //            is not called. With a root of one's own, keep turning the loop until `done`.
   // Errors:    fatal when the descriptor's flags cannot be read or set, and for a null snapshot;
   //            what `done` throws leaves the scheduler's run, with everything released. A snapshot
   //            that finds no memory says so; a document that finds none ends too early
   //            (`TaskSchedulerSnapshot::renderJson`).
   void
   snapshotRenderJsonAsync( int fd,
                            std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots,
                            std::function<void()> done );
   void
   snapshotRenderJsonAsync( int fd,
                            std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots );
   void snapshotRenderJsonAsync( int fd, std::shared_ptr<const TaskSchedulerSnapshot> snapshot );

   // Opens a JSON document on a stream, which outlives it, or on a blocking descriptor, which is
   // closed with it, also when the call fails, if the flag says so.
   static std::shared_ptr<TaskSchedulerPrintContext> PrintContextIs( std::ostream& out );
   static std::shared_ptr<TaskSchedulerPrintContext> PrintContextIs( int fd, bool closeOnDestroy );

   // Keeps the set of tasks that have a forced yield.
   void taskForceYieldInTestNotify( TaskImpl* task, bool on );
   bool anyTaskForcesYieldInTest() const { return !forcedYieldTasks_.empty(); }

   // Whether queues, registration list and counts agree. Visits every task.
   bool checkForTest() const;

 protected:
   // The time of a history event: `now`, or the virtual clock while the root runs on it.
   void historyEvent( const TaskTimeStamp& now, TaskSchedulerEventType type ) const;

   // Brings `busy()` up to date.
   void schedulerBusyUpdate( const TaskTimeStamp& now );

   // One run step without holding the scheduler, which the caller does.
   bool runStep( TaskPriority maxPriority );
   // Fatal when that would run a task; the step is asked for again.
   void _refuseRunInRun( TaskPriority maxPriority );

   // The base part of counting timers.
   void timerRunningCountInc( const TaskTimeStamp& now );
   void timerRunningCountDec( const TaskTimeStamp& now );

   // Ends a reset for good: what a destructor does first, while the scheduler can still let go of
   // the task that does it.
   void _abandonReset();

   // Whether an operation on a task may call out, here or further up: a task that becomes busy
   // makes its scheduler busy, and a group the task that runs it.
   bool _anyBusyCallbacks() const {
      for( TaskScheduler const* s = this; s; s = s->enclosing_ ) {
         if( !s->busyCallbacks_.empty() ) {
            return true;
         }
      }
      return false;
   }

   // The scheduler whose task this one is; null for a root. Kept alive by the group.
   TaskScheduler* enclosing_ = nullptr;

   using RegisteredTasks = IntrusiveBookmarkLinkedList<TaskImpl, &TaskImpl::taskRegisteredLink_>;
   const RegisteredTasks& registeredTasks() const { return registeredTasks_; }

 private:
   friend class _TaskBase;
   friend class FileDescriptorTask;
   friend class TaskImpl;
   friend class TaskGroup;
   friend class TaskSchedulerRoot;
   friend class TaskSchedulerSnapshot;
   friend class TimerTask;
   friend class CurrentlyRunningTaskAnchor;
   friend class PreserveCurrentlyRunningTaskAnchor;

   class ResetStatsTask;
   class SnapshotRenderJsonTask;
   class SnapshotWriteJsonTask;

   using RunQueue = IntrusiveBookmarkLinkedList<TaskImpl, &TaskImpl::taskRunQueueLink_>;

   struct PerPriority {
      RunQueue runQueue;
      // For task groups, during a run of their parent task.
      RunQueue temporaryRunQueue;
      // The queue that tasks are taken from.
      RunQueue* pickQueue = &runQueue;
      // Two counts that only grow, so that the second is also the number of runs.
      std::uint64_t enqueuedCount = 0;
      std::uint64_t dequeuedCount = 0;
      std::uint32_t consecutiveRuns = 0;
      std::uint64_t dequeuedCountAtReset = 0;
   };
   static constexpr std::size_t priorities = TaskPriority::oneBeyondLast;
   static_assert( priorities == 6 );

   void historyEvent( const TaskTimeStamp& now, TaskSchedulerEventType type,
                      _TaskBase const* task ) const;
   void scheduleTaskPrivate( const TaskTimeStamp& now, TaskImpl* task );
   void taskSchedulerUnlinkTask( const TaskTimeStamp& now, TaskPriority priority, TaskImpl* task );
   TaskImpl* _pick( const TaskTimeStamp& now, TaskPriority from, TaskPriority to );
   bool attemptLowerPriorityBump( TaskPriority priority, std::uint32_t consecutiveRuns ) const;
   void updateCompletedTaskStats( TaskImpl* task );
   void runEntered( const TaskTimeStamp& now );
   void recoverFromException() noexcept;
   TaskImpl* _findTask( std::string_view name ) const;
   TaskPriority _statsTaskPriority() const;
   void _resetWalk( ResetStatsTask& task );
   void _abandonRenders();
   // The parent tasks of the groups under this scheduler, newest first.
   std::vector<TaskImpl const*> _groupTasks() const;
   void _appendInOrder( std::vector<TaskScheduler const*>& out ) const;

   const PerPriority& _of( TaskPriority priority ) const {
      return perPriority_[ priority.value() ];
   }
   PerPriority& _of( TaskPriority priority ) { return perPriority_[ priority.value() ]; }

   std::unordered_map<String, TaskStat> completedTaskStats_;
   String schedulerName_;
   TaskSchedulerRoot* root_;
   std::shared_ptr<TaskSchedulerHistory> history_;
   RegisteredTasks registeredTasks_;
   // Where a reset has come to; linked while one is under way.
   IntrusiveListBookmark resetBookmark_;
   // Made for the first reset and kept.
   std::shared_ptr<ResetStatsTask> resetStatsTask_;
   // The renders under way, each of which holds this scheduler in turn.
   std::unordered_set<std::shared_ptr<SnapshotRenderJsonTask>> snapshotRenderJsonTasks_;
   std::array<PerPriority, priorities> perPriority_;
   TaskTimeStamp lastRunEndTime_;
   TaskTimeStamp lastRunStartTime_;
   TaskTimeDuration defaultTaskQuantum_ = std::chrono::milliseconds( 20 );
   TaskTimeDuration maxRunGap_{};
   // Seconds on the virtual clock at which the current task began.
   double virtualRunStartTime_ = 0.0;
   std::map<TaskPriority, std::uint32_t> tasksPerPriority_;
   std::map<TaskPriority, std::uint64_t> completedTasksPerPriority_;
   bool hasRunnableTasks_ = false;
   // Plain, since whoever sets it holds the task for the run.
   TaskImpl* currentlyRunningTask_ = nullptr;
   std::unordered_set<TaskImpl*> forcedYieldTasks_;
   bool suspended_ = false;
   struct BusyCallback {
      // Shared with a call under way, which the callback may unregister.
      std::shared_ptr<const std::function<void()>> function;
      // Keys are counted as they come; a call under way passes over those that came later.
      std::uint64_t number = 0;
   };
   std::map<void*, BusyCallback> busyCallbacks_;
   std::uint64_t busyCallbacksRegistered_ = 0;
   bool busy_ = false;
   std::uint32_t timerRunningCount_ = 0;
   // Task groups under this scheduler, for most have none, and to look for them is to visit every
   // task.
   std::uint32_t groupCount_ = 0;
};

// The name of the scheduler, or "<none>" for null.
ORUQUARN_API std::string_view schedulerText( TaskScheduler const* scheduler );

// Writes the text of `schedulerText`.
ORUQUARN_API std::ostream& operator<<( std::ostream& out, TaskScheduler const* scheduler );

} // namespace Quarn
