#include "examples/agent/TaskReport.h"

#include "examples/agent/Agent.h"
#include "examples/agent/TextTable.h"

#include <algorithm>
#include <ostream>
#include <string>

namespace HostAgent {

namespace {

using Align = TextTable::Align;
using Stats = Quarn::BasicVector<Quarn::TaskStat>;

std::string kindOf( Quarn::TaskStat::TaskStatus status ) {
   return status.taskIsTaskGroup() ? "group" : status.taskTimer() ? "timer" : "task";
}

void rowAdd( TextTable* table, const Quarn::TaskScheduler& scheduler, const std::string& kind,
             const Quarn::TaskStat& stat ) {
   const auto text = []( Quarn::TaskTimeDuration time ) {
      return Quarn::durationToString( time ).stdString();
   };
   table->rowAdd( { scheduler.schedulerName().stdString(), stat.taskName().stdString(),
                    stat.taskPriority().toStrep().stdString(), kind,
                    std::to_string( stat.taskRunCount() ),
                    std::to_string( stat.taskWorkCountTotal() ), text( stat.taskTotalRunTime() ),
                    text( stat.taskRunTimeHighWaterMark() ),
                    text( stat.taskSchedulingLatencyHighWaterMark() ),
                    std::to_string( stat.taskQuantumViolation200() ),
                    std::to_string( stat.taskQuantumViolation500() ) } );
}

void tasksAdd( TextTable* table, const Quarn::TaskScheduler& scheduler ) {
   Stats living;
   scheduler.getTaskStats( living, true );
   // Handed out with the newest task first.
   std::ranges::reverse( living );
   for( const Quarn::TaskStat& stat : living ) {
      rowAdd( table, scheduler, kindOf( stat.taskStatus() ), stat );
   }
   Stats gone;
   scheduler.getCompletedTaskStats( gone, true );
   for( const Quarn::TaskStat& stat : gone ) {
      rowAdd( table, scheduler, "gone", stat );
   }
}

void queuesAdd( TextTable* table, const Quarn::TaskScheduler& scheduler ) {
   for( const auto& [ priority, queue ] : scheduler.queueStats() ) {
      if( queue == Quarn::TaskQueueStats() ) {
         continue;
      }
      table->rowAdd( { scheduler.schedulerName().stdString(), priority.toStrep().stdString(),
                       std::to_string( queue.runnable ), std::to_string( queue.idle ),
                       std::to_string( queue.completed ), std::to_string( queue.total ) } );
   }
}

} // namespace

void renderTasks( std::ostream& out, const Agent& agent ) {
   TextTable tasks;
   tasks.columnAdd( "scheduler", Align::left );
   tasks.columnAdd( "task", Align::left );
   tasks.columnAdd( "priority", Align::left );
   tasks.columnAdd( "kind", Align::left );
   tasks.columnAdd( "runs", Align::right );
   tasks.columnAdd( "work", Align::right );
   tasks.columnAdd( "total run", Align::right );
   tasks.columnAdd( "longest run", Align::right );
   tasks.columnAdd( "largest wait", Align::right );
   tasks.columnAdd( "2-5 quanta", Align::right );
   tasks.columnAdd( "5+ quanta", Align::right );
   TextTable queues;
   queues.columnAdd( "scheduler", Align::left );
   queues.columnAdd( "queue", Align::left );
   queues.columnAdd( "runnable", Align::right );
   queues.columnAdd( "idle", Align::right );
   queues.columnAdd( "gone", Align::right );
   queues.columnAdd( "runs", Align::right );
   const Quarn::TaskScheduler& root = agent.scheduler();
   for( Quarn::TaskScheduler const* scheduler :
        { &root, static_cast<Quarn::TaskScheduler const*>( &agent.samples() ) } ) {
      tasksAdd( &tasks, *scheduler );
      queuesAdd( &queues, *scheduler );
   }
   out << "\nTasks of this agent\n";
   tasks.render( out );
   out << "\nRun queues\n";
   queues.render( out );
}

} // namespace HostAgent
