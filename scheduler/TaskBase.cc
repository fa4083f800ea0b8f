#include <Quarn/scheduler/TaskBase.h>

#include <Quarn/scheduler/TaskScheduler.h>

#include "debug/Handlers.h"

#include <ostream>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

_TaskBase::_TaskBase( std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
                      String name )
      : scheduler_( std::move( scheduler ) ),
        taskName_( name.deduped() ),
        taskStatsName_( taskName_ ),
        taskTaggedName_( ( priority.oneCharString() + " " + taskName_ ).deduped() ),
        priority_( priority ) {}

_TaskBase::~_TaskBase() = default;

void _TaskBase::handleTaskBusy() {}

void _TaskBase::handleResetStats() {}

void _TaskBase::scheduleTask() { QUARN_STREAM_FAIL( "Task: " << this << " cannot be scheduled" ); }

void _TaskBase::taskRunFromTest() { QUARN_STREAM_FAIL( "Task: " << this << " cannot be run" ); }

unsigned _TaskBase::taskStatus() const { return 0; }

void _TaskBase::updateTaskBusy( TaskTimeStamp now ) {
   const bool scheduled = taskScheduled();
   if( scheduled == busy_ ) {
      return;
   }
   busy_ = scheduled;
   scheduler_->historyEvent(
         now, scheduled ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle, this );
   handleTaskBusy();
}

std::string_view taskText( _TaskBase const* task ) {
   return task ? std::string_view( task->taskName() ) : std::string_view( "<none>" );
}

std::ostream& operator<<( std::ostream& out, _TaskBase const* task ) {
   return out << taskText( task );
}

} // namespace Quarn
