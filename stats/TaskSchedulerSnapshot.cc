#include <Quarn/stats/TaskSchedulerSnapshot.h>

#include <Quarn/base/MemTrack.h>
#include <Quarn/scheduler/TaskGroup.h>
#include <Quarn/scheduler/TaskKey.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>
#include <Quarn/stats/TaskNameRegex.h>

#include "debug/Handlers.h"

#include <optional>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

TaskSchedulerSnapshot::TaskSchedulerSnapshot( TaskScheduler const* scheduler, String name,
                                              bool includeNoRuns, bool includeCompleted,
                                              bool includeHistory, TaskNameRegex const* filter,
                                              std::uint32_t displayOrder,
                                              bool threadSanityDisabled )
      : schedulerName_( name.empty() ? scheduler->schedulerName() : name ),
        taskNameRegex_( filter ? filter->pattern() : String() ),
        taskNameRegexError_( filter ? filter->error() : String() ),
        priorityStats_( scheduler->queueStats() ),
        maxSchedulerSlip_( scheduler->maxRunGap() ),
        isRootScheduler_( scheduler->schedulerRoot() == scheduler ),
        threadSanityDisabled_( threadSanityDisabled ),
        displayOrder_( displayOrder ),
        thread_( std::this_thread::get_id() ) {
   if( filter && !filter->valid() ) {
      return;
   }
   if( includeCompleted ) {
      skippedCompletedTasks_ =
            scheduler->getCompletedTaskStats( completedTasks_, includeNoRuns, filter );
   }
   if( isRootScheduler_ && includeHistory ) {
      history_ = _copiedHistory( *scheduler, filter );
   }
   skippedTasks_ = scheduler->getTaskStats( tasks_, includeNoRuns, filter );
   _addSubSchedulers( *scheduler, includeNoRuns, includeCompleted, includeHistory, filter );
}

TaskSchedulerSnapshot::TaskSchedulerSnapshot( TaskSchedulerSnapshot&& ) noexcept = default;

TaskSchedulerSnapshot::~TaskSchedulerSnapshot() = default;

std::shared_ptr<const TaskSchedulerSnapshot::History>
TaskSchedulerSnapshot::_copiedHistory( const TaskScheduler& scheduler,
                                       TaskNameRegex const* filter ) const {
   const TaskSchedulerHistory& ring = *scheduler.history_;
   auto copy = std::make_shared<History>();
   copy->capacity = ring.capacity();
   copy->events.reserve( ring.size() );
   for( std::uint32_t age = 0; age < ring.size(); ++age ) {
      const TaskSchedulerHistory::Event& event = ring.event( age );
      // Identifiers of tasks have a tag in front; those of schedulers belong to nobody's request.
      if( !filter ||
          ( eventNeedTask( event.eventType() ) && filter->match<2>( event.eventIdentifier() ) ) ) {
         copy->events.push_back( event );
      }
   }
   return copy;
}

void TaskSchedulerSnapshot::_addSubSchedulers( const TaskScheduler& scheduler, bool includeNoRuns,
                                               bool includeCompleted, bool includeHistory,
                                               TaskNameRegex const* filter ) {
   for( TaskImpl const* task : scheduler._groupTasks() ) {
      const auto group = static_cast<TaskGroup::ParentTask const*>( task )->taskGroup();
      subSchedulers_.emplace_back( subSchedulerKey( task->getStats() ),
                                   TaskSchedulerSnapshot( group.get(), String(), includeNoRuns,
                                                          includeCompleted, includeHistory, filter,
                                                          noDisplayOrder, threadSanityDisabled_ ) );
   }
}

String subSchedulerKey( const TaskStat& stat ) {
   if( !stat.taskStatus().taskIsTaskGroup() ) {
      QUARN_FAIL( "Quarn", "{} is not TaskGroup", stat.taskName() );
   }
   return stat.taskName() + "-" + TaskKey( stat.task() ).toStrep();
}

std::shared_ptr<const TaskSchedulerSnapshot>
TaskScheduler::snapshot( String name, bool includeNoRuns, bool includeCompleted,
                         bool includeHistory, String taskNameRegex,
                         std::uint32_t displayOrder ) const {
   root_->sanityCheckCurrentRunningThread();
   // Making one may fail, which would be told of an expression that nobody gave.
   std::optional<TaskNameRegex> filter;
   if( !taskNameRegex.empty() ) {
      filter.emplace( taskNameRegex );
   }
   return std::allocate_shared<TaskSchedulerSnapshot>(
         Allocator<TaskSchedulerSnapshot>(), this, std::move( name ), includeNoRuns,
         includeCompleted, includeHistory, filter ? &*filter : nullptr, displayOrder,
         root_->threadSanityDisabled() );
}

} // namespace Quarn
