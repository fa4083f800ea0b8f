// A group of tasks of one priority that competes for time as one task.
//
// A group is a scheduler with run queues of its own. Its parent task, "TaskGroup;" and the group's
// name, is registered with another scheduler, the parent, which may be a group itself; the parent
// task's run runs members until its quantum is used up. A group can be suspended as a whole.
//
//     auto samples = Quarn::TaskGroup::TaskGroupIs( "samples", Quarn::TaskPriority::low, false,
//                                                   Quarn::schedulerRootQuarn() );
//     auto cpu = std::make_shared<CpuSample>( samples, Quarn::TaskPriority::low, "cpu" );
//
// A member that schedules itself in its run runs again in the same run of the parent task, unless
// multiple runs are not permitted; then it waits for the next. Under virtual time they are not
// permitted, for a run would never end if the clock stood still.
//
// With a quantum of more than 20 ms, the run lets critical tasks in after 20 ms and every 10 ms
// after that.
//
// Ownership: by shared pointers; members hold their group, the parent task does not. A group holds
//            its parent.
// Thread:    that of the root.

#pragma once

#include <Quarn/scheduler/Task.h>
#include <Quarn/scheduler/TaskScheduler.h>

namespace Quarn {

class ORUQUARN_API TaskGroup final : public TaskScheduler {
 public:
   // The task that runs the members.
   class ORUQUARN_API ParentTask;

   // `flag` is kept for the caller and read by nobody else. New members start with the default
   // quantum of the parent, as it is now.
   //
   // Errors: fatal without a parent ("Need a TaskScheduler"), and by the rules of
   //         `TaskScheduler::taskRegister` for the parent task.
   TaskGroup( String name, TaskPriority priority, bool flag,
              std::shared_ptr<TaskScheduler> parent );
   static std::shared_ptr<TaskGroup> TaskGroupIs( String name, TaskPriority priority, bool flag,
                                                  std::shared_ptr<TaskScheduler> parent );

   // While suspended no member runs; members may be scheduled and wait. Resuming always queues the
   // parent task.
   void suspendedIs( bool suspended ) override;
   void taskGroupSuspendedIs( bool suspended );
   bool taskGroupSuspended() const;

   // Schedules the parent task.
   void requestSchedulerRun() override;

   // A group one of whose members is forced to yield, yields after each run of a member.
   void handleTaskForceYieldInTest() override;
   void handleVirtualTimeChange() override;

   // Errors: also fatal for a task of another priority ("taskPriority( ... ) !=
   //         taskGroupPriority( ... )").
   void taskRegister( TaskImpl* task ) override;

   // The first armed timer of a group counts as one of the parent's.
   void timerRunningInc( const TaskTimeStamp& now ) override;
   void timerRunningDec( const TaskTimeStamp& now ) override;

   ~TaskGroup() override;

   // As given to the constructor.
   TaskPriority priority() const { return priority_; }
   bool flag() const { return flag_; }
   const std::shared_ptr<TaskScheduler>& parentScheduler() const { return parentScheduler_; }

   // The quantum of the parent task.
   void taskGroupQuantumIs( TaskTimeDuration quantum );
   void taskGroupQuantumNoCheckIs( TaskTimeDuration quantum );
   TaskTimeDuration taskGroupQuantum() const;

   // Whether a member may run more than once in a run of the parent task; it may at first. Under
   // virtual time the process-wide switch for tests decides instead.
   void tasksPermittedMultipleRunsIs( bool permitted );
   bool tasksPermittedMultipleRuns() const { return tasksPermittedMultipleRuns_; }

   // For tests: enters the parent task in the parent's set of forced yields.
   void taskGroupForceYieldInTestIs( bool force );
   bool taskGroupForceYieldInTest() const { return taskGroupForceYieldInTest_; }

   std::uint64_t parentTaskRunCount() const;
   bool parentTaskScheduled() const;

   // Runs the parent task once, now, outside the loop of its scheduler.
   void taskGroupRunFromTest();

 private:
   void _run();
   unsigned long _runMembers();
   unsigned long _runMembersWithCriticalTasks();
   void _finishRun( unsigned long ran, bool multipleRuns );
   void movePersistentToTemporary();
   void moveTemporaryToPersistent();
   void _multipleRunsReevaluate();

   std::shared_ptr<ParentTask> parentTask_;
   std::shared_ptr<TaskScheduler> parentScheduler_;
   TaskPriority priority_;
   bool flag_;
   bool taskGroupForceYieldInTest_ = false;
   bool tasksPermittedMultipleRuns_ = true;
   // What is in force, with virtual time considered.
   bool multipleRuns_ = true;
};

class TaskGroup::ParentTask final : public Task {
 public:
   ParentTask( TaskGroup& group, std::shared_ptr<TaskScheduler> parent );
   ~ParentTask() override;

   // Errors: fatal when the group is gone ("TaskGroup is non-null").
   bool isTaskGroup() const override;
   unsigned taskStatus() const override;

   // The counters are those of any task; the group's own are not reset with them.
   void handleResetStats() override;

   // The group; empty when it is gone or going.
   std::shared_ptr<TaskGroup> taskGroup() const;

 private:
   friend class TaskGroup;

   // Errors: `std::bad_weak_ptr` while the group is being destroyed; what a member throws, after
   //         which the group goes on.
   void taskExecute() override;

   // Null from the start of the group's destructor on.
   TaskGroup* group_;
};

} // namespace Quarn
