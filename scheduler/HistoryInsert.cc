// The inserts that take a task or a scheduler, defined where their identifiers are at hand.

#include <Quarn/scheduler/TaskBase.h>
#include <Quarn/scheduler/TaskScheduler.h>
#include <Quarn/stats/TaskSchedulerHistory.h>

namespace Quarn {

void TaskSchedulerHistory::insert( const time_point& when, TaskSchedulerEventType type,
                                   _TaskBase const* task ) {
   insert( when, type, task->taskTaggedName() );
}

void TaskSchedulerHistory::insert( const time_point& when, TaskSchedulerEventType type,
                                   TaskScheduler const* scheduler ) {
   insert( when, type, scheduler->schedulerName() );
}

} // namespace Quarn
