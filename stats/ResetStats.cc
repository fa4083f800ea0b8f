// Clearing the statistics of a scheduler in slices.

#include <Quarn/scheduler/Task.h>
#include <Quarn/scheduler/TaskGroup.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>

namespace Quarn {

// Held by its scheduler, so it holds the scheduler without owning it: as an owner it would keep a
// group alive for ever.
class TaskScheduler::ResetStatsTask final : public Task {
 public:
   explicit ResetStatsTask( TaskScheduler& scheduler )
         : Task( std::shared_ptr<TaskScheduler>( std::shared_ptr<TaskScheduler>(), &scheduler ),
                 scheduler._statsTaskPriority(), scheduler.schedulerName() + ";ResetStats" ) {}

 private:
   void taskExecute() override { taskScheduler()->_resetWalk( *this ); }
};

// What works on a scheduler's statistics is of priority normal, save in a group, which takes tasks
// of its own priority only.
TaskPriority TaskScheduler::_statsTaskPriority() const {
   auto const* group = dynamic_cast<TaskGroup const*>( this );
   return group ? group->priority() : TaskPriority( TaskPriority::normal );
}

void TaskScheduler::resetStats() {
   root_->sanityCheckCurrentRunningThread();
   if( !resetStatsTask_ ) {
      resetStatsTask_ = std::make_shared<ResetStatsTask>( *this );
   }
   resetStatsTask_->scheduleTask();
   registeredTasks_.insertFront( resetBookmark_ );
}

void TaskScheduler::_resetWalk( ResetStatsTask& task ) {
   if( !resetBookmark_.linked() ) {
      // A reset that a hook asked for in the last slice was walked in that slice already.
      return;
   }
   unsigned long cleared = 0;
   try {
      // A hook may destroy any tasks, those around the walk included, so nothing but the bookmark
      // is held over it.
      while( TaskImpl* next = registeredTasks_.next( resetBookmark_ ) ) {
         if( cleared > 0 && task.taskShouldYield() ) {
            task.taskWorkCountInc( cleared );
            task.scheduleTask();
            return;
         }
         registeredTasks_.insertAfter( *next, resetBookmark_ );
         next->_clearStats();
         ++cleared;
         next->handleResetStats();
      }
   } catch( ... ) {
      // The walk goes on behind the task whose hook failed.
      task.scheduleTask();
      throw;
   }
   task.taskWorkCountInc( cleared );
   resetBookmark_.unlink();
   clearStats();
}

} // namespace Quarn
