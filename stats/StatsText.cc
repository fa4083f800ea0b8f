// The reports of a root as text: what its schedulers count, and the history.

#include <Quarn/fdtask/FdToStream.h>
#include <Quarn/scheduler/TaskKey.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>
#include <Quarn/stats/TaskNameRegex.h>

#include <fmt/compile.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <iterator>
#include <new>
#include <optional>
#include <sstream>

namespace Quarn {

namespace {

using Text = fmt::memory_buffer;

void put( std::ostream& out, Text& text ) {
   out.write( text.data(), static_cast<std::streamsize>( text.size() ) );
   text.clear();
}

void putLine( std::ostream& out, Text& line ) {
   line.push_back( '\n' );
   put( out, line );
   out.flush();
}

// A stream in memory fails for want of it alone.
String textOf( const std::ostringstream& out ) {
   if( !out ) {
      throw std::bad_alloc();
   }
   return String( out.view() );
}

double seconds( TaskStat::duration time ) { return static_cast<double>( time.count() ) / 1e9; }

// ------------------------------------------------------------------------------------------ tables

// The widths of a header and its rows are the same, except that "Completed" needs nine columns
// above numbers of four.
constexpr std::size_t columnsWidth = 107;
constexpr std::size_t completedColumnWidth = 5;

void appendHeader( Text& line, bool completed ) {
   const auto to = std::back_inserter( line );
   fmt::format_to( to, FMT_COMPILE( " {:2s} {:>10s} {:>13s} {:>14s} {:4s} {:4s} {:5s}" ), "SP",
                   "RunCount", "TotalSec", "Last/Max-Delay", "200%", "500%", "MaxMs" );
   if( completed ) {
      fmt::format_to( to, FMT_COMPILE( " {:>4s}" ), "Completed" );
   }
   fmt::format_to( to, FMT_COMPILE( " {:>26s} {:>20s}" ), "Total/DecayA/Max-WorkCount",
                   "Last/Max-WorkPending" );
}

// What follows the name in a row. Marks that were never set take the numbers beside them with them.
void appendColumns( Text& line, const TaskStat& stat, bool completed ) {
   const auto to = std::back_inserter( line );
   const std::int64_t maxMs = std::llround( seconds( stat.taskRunTimeHighWaterMark() ) * 1000 );
   fmt::format_to( to,
                   FMT_COMPILE( " {:2s} {:>10d} {:>13.3f} {:>6.3f} {:>7.3f} {:>4d} {:>4d} {:>5d}" ),
                   std::string_view( stat.taskStatusString() ), stat.taskRunCount(),
                   seconds( stat.taskTotalRunTime() ), seconds( stat.taskLastSchedulingLatency() ),
                   seconds( stat.taskSchedulingLatencyHighWaterMark() ),
                   stat.taskQuantumViolation200(), stat.taskQuantumViolation500(), maxMs );
   if( completed ) {
      fmt::format_to( to, FMT_COMPILE( " {:>4d}" ), stat.taskCompletedCount() );
   }
   if( stat.taskWorkCountHighWaterMark() == taskStatUnset ) {
      fmt::format_to( to, FMT_COMPILE( " {:>10s} {:>8s} {:>6s}" ), "-", "-", "-" );
   } else {
      fmt::format_to( to, FMT_COMPILE( " {:>10d} {:>8.1f} {:>6d}" ), stat.taskWorkCountTotal(),
                      stat.taskWorkCountDecayAvg(), stat.taskWorkCountHighWaterMark() );
   }
   if( stat.taskWorkPendingHighWaterMark() == taskStatUnset ) {
      fmt::format_to( to, FMT_COMPILE( " {:>9s} {:>10s}" ), "-", "-" );
   } else {
      fmt::format_to( to, FMT_COMPILE( " {:>9d} {:>10d}" ), stat.taskWorkPending(),
                      stat.taskWorkPendingHighWaterMark() );
   }
}

void append( Text& text, std::string_view what ) {
   text.append( what.data(), what.data() + what.size() );
}

// Padded by bytes: names need not be text, and columns of the screen are no concern of the stream.
void pad( Text& text, std::size_t used, std::size_t width ) {
   for( ; used < width; ++used ) {
      text.push_back( ' ' );
   }
}

} // namespace

void TaskSchedulerRoot::statsRenderTextTasks( std::ostream& out, BasicVector<TaskStat> stats,
                                              String title, unsigned skipped, bool completed,
                                              bool includeTaskKeys ) {
   // With the key beside the pointer, sorting does not touch the records.
   struct Row {
      TaskStat::duration total;
      TaskStat const* stat;
   };
   BasicVector<Row> rows;
   rows.reserve( stats.size() );
   const auto keyOf = [ includeTaskKeys ]( const TaskStat& stat ) {
      return includeTaskKeys ? TaskKey( stat.task() ).toStrep() : String();
   };
   std::size_t nameWidth = title.size();
   for( const TaskStat& stat : stats ) {
      rows.push_back( { stat.taskTotalRunTime(), &stat } );
      nameWidth = std::max( nameWidth, stat.taskName().size() + keyOf( stat ).size() );
   }
   // Stable, so that equal records give equal reports.
   std::ranges::stable_sort( rows, std::ranges::greater(), &Row::total );

   Text line;
   append( line, title );
   pad( line, line.size(), nameWidth );
   appendHeader( line, completed );
   putLine( out, line );
   line.resize( nameWidth + columnsWidth + ( completed ? completedColumnWidth : 0 ) );
   std::ranges::fill( line, '-' );
   putLine( out, line );

   for( const Row& row : rows ) {
      append( line, row.stat->taskName() );
      append( line, keyOf( *row.stat ) );
      pad( line, line.size(), nameWidth );
      appendColumns( line, *row.stat, completed );
      putLine( out, line );
   }
   if( skipped != 0 ) {
      fmt::format_to( std::back_inserter( line ), "Skipped {:d} task{:s} with no runs\n", skipped,
                      skipped == 1 ? "" : "s" );
      put( out, line );
   }
}

// ------------------------------------------------------------------------------------------ report

namespace {

void appendPriorities( Text& text, const TaskQueueStatsMap& priorities ) {
   const auto to = std::back_inserter( text );
   fmt::format_to( to, "{:8s} {:>13s} {:>13s} {:>9s} {:>15s}\n", "Priority", "RunnableCount",
                   "IdleCount", "DoneCount", "TotalRunCount" );
   for( const auto& [ priority, stats ] : priorities ) {
      fmt::format_to( to, "{:8s} {:>13d} {:>13d} {:>9d} {:>15d}\n", priority.toStrep(),
                      stats.runnable, stats.idle, stats.completed, stats.total );
   }
}

struct LegendLine {
   char const* label;
   char const* text;
   bool onlyWithCompleted = false;
};

constexpr LegendLine legend[] = {
      { "SP", "= Task status and priority , two characters:" },
      { "   first", "  T/t for active/idle timers, * for running task, blank or" },
      { "", "  S for suspended tasks, X for tasks under suspended scheduler" },
      { "   second", "  priority and runnable status, upper case for runnable" },
      { "RunCount", "= Number of times task has run" },
      { "TotalSec", "= Total run time in seconds" },
      { "LastDelay", "= Scheduling delay last time task ran, in seconds" },
      { "MaxDelay", "= Maximum scheduling delay encountered, in seconds" },
      { "200, 500,", "= Number of times task used this percentage of quantum" },
      { "MaxMs", "= Maximum single run time in milliseconds" },
      { "Completed", "= Number of times a task with this name has completed", true },
      { "TotalWorkCount", "= Counter of total work units processed" },
      { "DecayAvgWorkCount", "=    exponential decaying average of work units processed" },
      { "MaxWorkCount", "=    high watermark of work units processed in one run" },
      { "LastWorkPending", "= Work units pending processing" },
      { "MaxWorkPending", "=    high watermark of work units pending processing" },
};

void appendLegend( Text& text, bool includeCompleted ) {
   for( const LegendLine& line : legend ) {
      if( includeCompleted || !line.onlyWithCompleted ) {
         fmt::format_to( std::back_inserter( text ), "{:17s} {:>s}\n", line.label, line.text );
      }
   }
   text.push_back( '\n' );
}

} // namespace

void TaskSchedulerRoot::statsRenderTextForDebug( std::ostream& out, bool includeNoRuns,
                                                 bool includeCompleted, bool includeTaskKeys,
                                                 bool includeHistory, String taskNameRegex ) const {
   sanityCheckCurrentRunningThread();
   std::optional<TaskNameRegex> regex;
   if( !taskNameRegex.empty() ) {
      regex.emplace( taskNameRegex );
   }
   TaskNameRegex const* const filter = regex ? &*regex : nullptr;

   BasicVector<TaskStat> live;
   BasicVector<TaskStat> completed;
   unsigned skipped = 0;
   unsigned skippedCompleted = 0;
   for( TaskScheduler const* scheduler : _schedulersInOrder() ) {
      skipped += scheduler->getTaskStats( live, includeNoRuns, filter );
      if( includeCompleted ) {
         skippedCompleted += scheduler->getCompletedTaskStats( completed, includeNoRuns, filter );
      }
   }

   Text text;
   appendPriorities( text, queueStatsRoot() );
   fmt::format_to( std::back_inserter( text ), "Maximum scheduler slip {:.6f} seconds\n\n",
                   seconds( maxRunGap() ) );
   appendLegend( text, includeCompleted );
   put( out, text );
   statsRenderTextTasks( out, std::move( live ), "TaskName", skipped, false, includeTaskKeys );
   if( includeCompleted ) {
      statsRenderTextTasks( out, std::move( completed ), "TaskName (completed)", skippedCompleted,
                            true, false );
   }
   if( includeHistory ) {
      historyRenderTextForDebug( out, filter );
   }
}

void TaskSchedulerRoot::statsRenderTextForDebug( int fd, bool includeNoRuns, bool includeCompleted,
                                                 bool includeTaskKeys, bool includeHistory,
                                                 String taskNameRegex ) const {
   FdToStream out( fd, false );
   statsRenderTextForDebug( out, includeNoRuns, includeCompleted, includeTaskKeys, includeHistory,
                            std::move( taskNameRegex ) );
}

String TaskSchedulerRoot::statsRenderTextForDebugToString( bool includeNoRuns,
                                                           bool includeCompleted,
                                                           bool includeTaskKeys,
                                                           bool includeHistory,
                                                           String taskNameRegex ) const {
   std::ostringstream out;
   statsRenderTextForDebug( out, includeNoRuns, includeCompleted, includeTaskKeys, includeHistory,
                            std::move( taskNameRegex ) );
   return textOf( out );
}

// Not through `FdToStream`, which refuses a standard error that somebody made non-blocking.
void TaskSchedulerRoot::statsRenderTextForDebugStdErr() const {
   statsRenderTextForDebug( std::cerr );
}

// ----------------------------------------------------------------------------------------- history

void TaskSchedulerRoot::historyRenderTextForDebug( std::ostream& out ) const {
   historyRenderTextForDebug( out, nullptr );
}

void TaskSchedulerRoot::historyRenderTextForDebug( std::ostream& out,
                                                   TaskNameRegex const* filter ) const {
   sanityCheckCurrentRunningThread();
   history_->renderText( out, filter );
}

void TaskSchedulerRoot::historyRenderTextForDebug( int fd ) const {
   FdToStream out( fd, false );
   historyRenderTextForDebug( out );
}

String TaskSchedulerRoot::historyRenderTextForDebugToString() const {
   std::ostringstream out;
   historyRenderTextForDebug( out );
   return textOf( out );
}

void TaskSchedulerRoot::historyRenderTextForDebugStdErr() const {
   historyRenderTextForDebug( std::cerr );
}

} // namespace Quarn
