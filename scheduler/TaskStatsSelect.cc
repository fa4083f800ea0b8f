// How statistics leave a scheduler.

#include <Quarn/scheduler/TaskSchedulerRoot.h>
#include <Quarn/stats/TaskNameRegex.h>

#include <algorithm>

namespace Quarn {

namespace {

// Makes room for `more` records. Exact for a first use, but never by little and little, for callers
// append the records of many schedulers to one vector.
void reserveMore( BasicVector<TaskStat>& out, std::size_t more ) {
   const std::size_t wanted = out.size() + more;
   if( wanted > out.capacity() ) {
      out.reserve( out.empty() ? wanted : std::max( wanted, 2 * out.capacity() ) );
   }
}

// Why a record is left out; `runs` and `name` are its own.
enum class Verdict { taken, neverRan, filtered };

Verdict judge( std::uint64_t runs, const String& name, bool includeNoRuns,
               TaskNameRegex const* filter ) {
   if( runs == 0 && !includeNoRuns ) {
      return Verdict::neverRan;
   }
   if( filter && !( filter->valid() && filter->match<0>( name ) ) ) {
      return Verdict::filtered;
   }
   return Verdict::taken;
}

} // namespace

TaskQueueStatsMap TaskScheduler::queueStats() const {
   root_->sanityCheckCurrentRunningThread();
   TaskQueueStatsMap all;
   for( TaskPriority p = TaskPriority::critical; p <= TaskPriority::scavenge; ++p ) {
      TaskQueueStats& stats = all[ p ];
      stats.runnable = static_cast<std::uint64_t>( runnableTaskCount( p ) );
      const std::uint64_t registered = tasksPerPriority( p );
      stats.idle = registered > stats.runnable ? registered - stats.runnable : 0;
      stats.completed = completedTasksPerPriority( p );
      stats.total = _of( p ).dequeuedCount - _of( p ).dequeuedCountAtReset;
   }
   return all;
}

void TaskScheduler::clearStats() {
   root_->sanityCheckCurrentRunningThread();
   for( PerPriority& p : perPriority_ ) {
      p.dequeuedCountAtReset = p.dequeuedCount;
   }
   maxRunGap_ = {};
   completedTaskStats_.clear();
   completedTasksPerPriority_.clear();
}

unsigned TaskScheduler::getTaskStats( BasicVector<TaskStat>& out, bool includeNoRuns ) const {
   return getTaskStats( out, includeNoRuns, nullptr );
}

unsigned TaskScheduler::getTaskStats( BasicVector<TaskStat>& out, bool includeNoRuns,
                                      TaskNameRegex const* filter ) const {
   root_->sanityCheckCurrentRunningThread();
   std::size_t registered = 0;
   for( const auto& entry : tasksPerPriority_ ) {
      registered += entry.second;
   }
   reserveMore( out, registered );
   unsigned neverRan = 0;
   for( TaskImpl const* task = registeredTasks_.front(); task;
        task = registeredTasks_.next( task ) ) {
      const Verdict verdict =
            judge( task->taskRunCount(), task->taskName(), includeNoRuns, filter );
      if( verdict == Verdict::taken ) {
         out.push_back( task->getStats() );
      } else if( verdict == Verdict::neverRan ) {
         ++neverRan;
      }
   }
   return neverRan;
}

unsigned TaskScheduler::getCompletedTaskStats( BasicVector<TaskStat>& out,
                                               bool includeNoRuns ) const {
   return getCompletedTaskStats( out, includeNoRuns, nullptr );
}

unsigned TaskScheduler::getCompletedTaskStats( BasicVector<TaskStat>& out, bool includeNoRuns,
                                               TaskNameRegex const* filter ) const {
   root_->sanityCheckCurrentRunningThread();
   reserveMore( out, completedTaskStats_.size() );
   unsigned neverRan = 0;
   for( const auto& [ name, stat ] : completedTaskStats_ ) {
      const Verdict verdict = judge( stat.taskRunCount(), name, includeNoRuns, filter );
      if( verdict == Verdict::taken ) {
         out.push_back( stat );
      } else if( verdict == Verdict::neverRan ) {
         ++neverRan;
      }
   }
   return neverRan;
}

} // namespace Quarn
