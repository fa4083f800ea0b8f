#include <Quarn/scheduler/Task.h>

#include <Quarn/scheduler/TaskScheduler.h>

namespace Quarn {

Task::Task( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name )
      : TaskImpl( std::move( scheduler ), priority, std::move( name ) ) {}

Task::Task( TaskScheduler* scheduler, TaskPriority priority, String name )
      : TaskImpl( scheduler ? scheduler->weak_from_this().lock() : nullptr, priority,
                  std::move( name ) ) {}

Task::~Task() = default;

bool Task::taskScheduled() const { return TaskImpl::taskScheduled(); }

void Task::scheduleTask() { TaskImpl::scheduleTask(); }

void Task::taskRunFromTest() { TaskImpl::taskRunFromTest(); }

unsigned Task::taskStatus() const { return TaskImpl::taskStatus(); }

} // namespace Quarn
