#include "examples/agent/AgentReport.h"

#include "examples/agent/Agent.h"
#include "examples/agent/ProcText.h"
#include "examples/agent/TextTable.h"

#include <fmt/format.h>

#include <chrono>
#include <limits>
#include <ostream>
#include <string>

#include <unistd.h>

namespace HostAgent {

namespace {

using Align = TextTable::Align;

std::string residentKibText( std::uint64_t pages ) {
   static const auto kibPerPage = static_cast<std::uint64_t>( sysconf( _SC_PAGESIZE ) ) / 1024;
   std::uint64_t kib = 0;
   if( __builtin_mul_overflow( pages, kibPerPage, &kib ) ) {
      kib = std::numeric_limits<std::uint64_t>::max();
   }
   return std::to_string( kib );
}

// Processor time as a share of one processor; "-" when there is nothing to compare with.
std::string shareText( std::uint64_t ticks, std::optional<Quarn::TaskTimeDuration> interval ) {
   if( !interval || interval->count() <= 0 ) {
      return "-";
   }
   static const auto ticksPerSecond = static_cast<double>( sysconf( _SC_CLK_TCK ) );
   const double seconds = std::chrono::duration<double>( *interval ).count();
   return fmt::format( "{:.1f}", 100.0 * static_cast<double>( ticks ) / ticksPerSecond / seconds );
}

void renderCounts( std::ostream& out, const Agent& agent ) {
   const ProcessWalk& walk = agent.walk();
   TextTable table;
   table.columnAdd( "walks", Align::left );
   table.columnAdd( "", Align::right );
   table.rowAdd( { "done", std::to_string( walk.walksDone() ) } );
   table.rowAdd( { "skipped", std::to_string( agent.walksSkipped() ) } );
   table.rowAdd( { "unfinished", std::to_string( walk.walksStopped() ) } );
   table.rowAdd( { "failed", std::to_string( walk.walksFailed() ) } );
   table.rowAdd( { "processes seen", std::to_string( walk.processesSeen() ) } );
   table.rowAdd( { "processes vanished", std::to_string( walk.processesVanished() ) } );
   table.rowAdd( { "processes unreadable", std::to_string( walk.processesUnreadable() ) } );
   table.render( out );
}

void renderUsers( std::ostream& out, Agent& agent ) {
   TextTable table;
   table.columnAdd( "user", Align::left );
   table.columnAdd( "processes", Align::right );
   table.columnAdd( "ticks", Align::right );
   table.columnAdd( "cpu%", Align::right );
   table.columnAdd( "resident KiB", Align::right );
   const UserSummary& summary = agent.userSummary();
   for( const UserTotals& user : summary.users() ) {
      table.rowAdd( { printable( agent.userNames().name( user.uid ) ),
                      std::to_string( user.processes ),
                      std::to_string( user.cpuTicksSincePrevious ),
                      shareText( user.cpuTicksSincePrevious, summary.interval() ),
                      residentKibText( user.residentPages ) } );
   }
   table.render( out );
}

void renderTop( std::ostream& out, Agent& agent ) {
   TextTable table;
   table.columnAdd( "pid", Align::right );
   table.columnAdd( "user", Align::left );
   table.columnAdd( "state", Align::left );
   table.columnAdd( "ticks", Align::right );
   table.columnAdd( "cpu%", Align::right );
   table.columnAdd( "resident KiB", Align::right );
   table.columnAdd( "name", Align::left );
   const TopList& top = agent.topList();
   for( const ProcessRecord& process : top.processes() ) {
      table.rowAdd(
            { std::to_string( process.pid ), printable( agent.userNames().name( process.uid ) ),
              std::string( 1, process.state ), std::to_string( process.cpuTicksSincePrevious ),
              shareText( process.cpuTicksSincePrevious, top.interval() ),
              residentKibText( process.residentPages ), printable( process.name ) } );
   }
   table.render( out );
}

void renderTasks( std::ostream& out, const Agent& agent ) {
   TextTable table;
   table.columnAdd( "task", Align::left );
   table.columnAdd( "priority", Align::left );
   table.columnAdd( "runs", Align::right );
   table.columnAdd( "total run", Align::right );
   table.columnAdd( "longest run", Align::right );
   table.columnAdd( "largest wait", Align::right );
   for( Quarn::TaskImpl const* task :
        { static_cast<Quarn::TaskImpl const*>( &agent.walk() ),
          static_cast<Quarn::TaskImpl const*>( &agent.userSummary() ),
          static_cast<Quarn::TaskImpl const*>( &agent.topList() ) } ) {
      const Quarn::TaskStat stat = task->getStats();
      table.rowAdd(
            { stat.taskName().stdString(), stat.taskPriority().toStrep().stdString(),
              std::to_string( stat.taskRunCount() ),
              Quarn::durationToString( stat.taskTotalRunTime() ).stdString(),
              Quarn::durationToString( stat.taskRunTimeHighWaterMark() ).stdString(),
              Quarn::durationToString( stat.taskSchedulingLatencyHighWaterMark() ).stdString() } );
   }
   table.render( out );
}

} // namespace

void renderReport( std::ostream& out, Agent& agent ) {
   out << "Ran for " << Quarn::durationToString( agent.runTime() )
       << ", ended: " << agent.stopReason() << "\n\n";
   renderCounts( out, agent );
   out << "\nUsers, processor time since the walk before\n";
   renderUsers( out, agent );
   out << "\nBusiest processes since the walk before\n";
   renderTop( out, agent );
   out << "\nTasks of this agent\n";
   renderTasks( out, agent );
   out << '\n';
   agent.scheduler().historyRenderTextForDebug( out );
}

} // namespace HostAgent
