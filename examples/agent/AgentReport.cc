#include "examples/agent/AgentReport.h"

#include "examples/agent/Agent.h"
#include "examples/agent/ProcText.h"
#include "examples/agent/TaskReport.h"
#include "examples/agent/TextTable.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

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

void renderTimers( std::ostream& out, const Agent& agent ) {
   TextTable table;
   table.columnAdd( "timer", Align::left );
   table.columnAdd( "at most every", Align::right );
   table.columnAdd( "jitter", Align::right );
   table.columnAdd( "samples", Align::right );
   for( SampleTimer const* timer : agent.timers() ) {
      table.rowAdd( { timer->taskName().stdString(),
                      fmt::format( "{} s", timer->rhythm().intervalSeconds ),
                      fmt::format( "{}%", timer->rhythm().jitterPercent ),
                      std::to_string( timer->taskRunCount() ) } );
   }
   table.render( out );
}

void renderLoad( std::ostream& out, const LoadSample& load ) {
   if( load.taken() == 0 ) {
      out << "Load average: not readable\n";
      return;
   }
   fmt::print( out, "Load average over a minute: last {:.2f}, least {:.2f}, most {:.2f}\n",
               load.last(), load.least(), load.most() );
}

void renderLinks( std::ostream& out, const LinkWatch& watch ) {
   if( !watch.refusal().empty() ) {
      fmt::print( out, "Links: not watched: {}\n", watch.refusal() );
      return;
   }
   const LinkTable& links = watch.links();
   fmt::print( out, "Links: {} went up, {} went down; news lost {} times, malformed {}\n",
               links.ups(), links.downs(), watch.overruns(), watch.malformed() );
   TextTable table;
   table.columnAdd( "link", Align::left );
   table.columnAdd( "state", Align::left );
   table.columnAdd( "went up", Align::right );
   table.columnAdd( "went down", Align::right );
   for( const auto& [ index, link ] : links.links() ) {
      table.rowAdd( { printable( link.name ), link.up ? "up" : "down", std::to_string( link.ups ),
                      std::to_string( link.downs ) } );
   }
   table.render( out );
}

void renderFolder( std::ostream& out, const std::string& folder, const FolderWatch& watch ) {
   fmt::print( out, "\nFolder {}: {} entries created, {} removed, {} files written{}; ",
               printable( folder ), watch.created(), watch.removed(), watch.written(),
               watch.ended() ? ", watch ended" : "" );
   fmt::print( out, "events lost {} times, malformed {}\n", watch.overruns(), watch.malformed() );
}

void renderShows( std::ostream& out, const Agent& agent ) {
   ShowServer const* const server = agent.showServer();
   if( !server ) {
      return;
   }
   if( !server->refusal().empty() ) {
      fmt::print( out, "\nShow requests: not answered: {}\n", server->refusal() );
      return;
   }
   fmt::print( out, "\nShow requests to {}: {} answered, {} refused, {} given up\n",
               agent.options().name, server->answered(), server->refused(), server->givenUp() );
}

void renderWork( std::ostream& out, const WorkCounters& counters ) {
   if( !counters.fromPlugin() ) {
      return;
   }
   TextTable table;
   table.columnAdd( "counter", Align::left );
   table.columnAdd( "", Align::right );
   for( std::size_t i = 0; i < WorkCounters::names.size(); ++i ) {
      table.rowAdd( { WorkCounters::names[ i ],
                      std::to_string( counters.count( WorkCounters::Work( i ) ) ) } );
   }
   out << "\nCounters of the plugin\n";
   table.render( out );
}

void renderEvents( std::ostream& out, const EventLog& log ) {
   if( log.events().empty() ) {
      return;
   }
   TextTable table;
   table.columnAdd( "at", Align::right );
   table.columnAdd( "event", Align::left );
   table.columnAdd( "name", Align::left );
   for( const EventLog::Event& event : log.events() ) {
      table.rowAdd(
            { fmt::format( "{:.3f} s", event.seconds ), event.what, printable( event.name ) } );
   }
   fmt::print( out, "\nLast events, up to {}\n", EventLog::capacity );
   table.render( out );
}

void renderHead( std::ostream& out, const Agent& agent ) {
   if( agent.fastForward() ) {
      out << "Ran for " << Quarn::durationToString( agent.timerTime() )
          << " of virtual time, which took " << Quarn::durationToString( agent.runTime() );
   } else {
      out << "Ran for " << Quarn::durationToString( agent.runTime() );
   }
   out << ", ended: " << agent.stopReason() << "\n\n";
}

} // namespace

void renderReport( std::ostream& out, Agent& agent ) {
   renderHead( out, agent );
   renderTimers( out, agent );
   out << '\n';
   renderCounts( out, agent );
   out << "\nUsers, processor time since the walk before\n";
   renderUsers( out, agent );
   out << "\nBusiest processes since the walk before\n";
   renderTop( out, agent );
   out << '\n';
   renderLoad( out, agent.load() );
   out << '\n';
   renderLinks( out, agent.linkWatch() );
   if( FolderWatch const* const folder = agent.folderWatch() ) {
      renderFolder( out, agent.options().watchFolder, *folder );
   }
   renderShows( out, agent );
   renderWork( out, agent.counters() );
   renderEvents( out, agent.eventLog() );
   renderTasks( out, agent );
   out << '\n';
   agent.scheduler().historyRenderTextForDebug( out );
}

} // namespace HostAgent
