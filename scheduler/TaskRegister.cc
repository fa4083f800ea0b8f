// Registration: which tasks a scheduler has.

#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

// Critical priority is for keep-alive work that must never starve, and for tests; a short list of
// names keeps it so.
bool authorizedForCritical( const String& name ) {
   if( name.find( "RibOutKeepalive" ) != String::npos ) {
      return true;
   }
   return name.toLower().find( "test" ) != String::npos;
}

} // namespace

void TaskScheduler::taskRegister( TaskImpl* task ) {
   root_->sanityCheckCurrentRunningThread();
   const TaskTimeStamp now = taskTimeNow();
   const TaskPriority priority = task->taskPriority();
   if( priority > TaskPriority::scavenge ) {
      QUARN_STREAM_FAIL( priority.traceText() );
   }
   if( priority == TaskPriority::critical ) {
      if( root_ != this ) {
         QUARN_STREAM_FAIL( "Critical priority task "
                            << task << " can only be registered against root scheduler, not "
                            << this );
      }
      if( !authorizedForCritical( task->taskName() ) ) {
         QUARN_STREAM_FAIL( "Use of critical priority task " << task << " must be authorized" );
      }
   }
   QUARN_TRACE( taskSchedulerHandler, 9, "TaskScheduler", "{} Register {}", schedulerText( this ),
                taskText( task ) );
   if( task->taskRegisteredLink_.linked() ) {
      QUARN_STREAM_FAIL( "Task: " << task << " already registered" );
   }
   // The count first: making its entry may fail for want of memory, linking cannot.
   std::uint32_t& count = tasksPerPriority_[ priority ];
   registeredTasks_.pushFront( *task );
   if( ++count == 0 ) {
      QUARN_STREAM_FAIL( "Priority: " << priority << " count: " << count );
   }
   historyEvent( now, TaskSchedulerEventType::create, task );
}

void TaskScheduler::taskUnregister( TaskImpl* task ) {
   root_->sanityCheckCurrentRunningThread();
   QUARN_TRACE( taskSchedulerHandler, 9, "TaskScheduler", "{} Unregister {}", schedulerText( this ),
                taskText( task ) );
   if( task->taskRunQueueLink_.linked() ) {
      QUARN_STREAM_FAIL( "Task: " << task << " scheduled on unregister" );
   }
   if( task->includeInCompletedTask() ) {
      updateCompletedTaskStats( task );
   }
   const TaskPriority priority = task->taskPriority();
   std::uint32_t& count = tasksPerPriority_[ priority ];
   if( count == 0 ) {
      QUARN_STREAM_FAIL( "Priority: " << priority << " count: " << count );
   }
   --count;
   if( !task->taskRegisteredLink_.linked() ) {
      QUARN_STREAM_FAIL( "Task: " << task << " not registered" );
   }
   task->taskRegisteredLink_.unlink();
   historyEvent( taskTimeNow(), TaskSchedulerEventType::destroy, task );
}

std::uint32_t TaskScheduler::tasksPerPriority( TaskPriority priority ) const {
   const auto entry = tasksPerPriority_.find( priority );
   return entry == tasksPerPriority_.end() ? 0 : entry->second;
}

std::uint64_t TaskScheduler::completedTasksPerPriority( TaskPriority priority ) const {
   const auto entry = completedTasksPerPriority_.find( priority );
   return entry == completedTasksPerPriority_.end() ? 0 : entry->second;
}

TaskImpl* TaskScheduler::_findTask( std::string_view name ) const {
   // The list is walked for its elements, which a const walk would hand out as const.
   auto& tasks = const_cast<RegisteredTasks&>( registeredTasks_ );
   for( TaskImpl* task = tasks.front(); task; task = tasks.next( task ) ) {
      if( std::string_view( task->taskName() ) == name ) {
         return task;
      }
   }
   return nullptr;
}

std::shared_ptr<_TaskBase> TaskScheduler::taskForTest( const String& name ) const {
   TaskImpl* task = _findTask( name );
   return task ? task->weak_from_this().lock() : nullptr;
}

TaskStat TaskScheduler::taskStatForTest( const String& name ) const {
   TaskImpl const* task = _findTask( name );
   if( !task ) {
      QUARN_STREAM_FAIL( "Task: " << name << " not registered" );
   }
   return task->getStats();
}

TaskStat TaskScheduler::completedTaskStatForTest( const String& name ) const {
   const auto entry = completedTaskStats_.find( name );
   if( entry == completedTaskStats_.end() ) {
      QUARN_STREAM_FAIL( "Task: " << name << " not completed" );
   }
   return entry->second;
}

} // namespace Quarn
