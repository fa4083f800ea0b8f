#include "examples/agent/Agent.h"
#include "examples/agent/AgentReport.h"
#include "examples/agent/TextTable.h"

#include "examples/ProcFolder.h"
#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include <signal.h>

namespace HostAgent {
namespace {

using ::testing::HasSubstr;

TEST( AgentTest, SignalEndsTheRunAndTheReportHasWhatWasWalked ) {
   for( const int signal : { SIGINT, SIGTERM } ) {
      const ProcFolder folder;
      folder.processIs( 77, 5 );
      Options options;
      options.seconds = 0.0;
      options.intervalSeconds = 3600.0;
      Agent agent( options, folder.path() );
      // Pending before the loop begins, so that it is met in its first turns; a second one that
      // nobody waits for must not outlive the agent.
      raise( signal );
      agent.run();
      raise( signal );
      EXPECT_EQ( agent.stopReason(), signal == SIGINT ? "SIGINT" : "SIGTERM" );
      std::ostringstream report;
      renderReport( report, agent );
      EXPECT_THAT( report.str(), HasSubstr( "ended: SIG" ) );
      EXPECT_THAT( report.str(), HasSubstr( "ProcessWalk" ) );
   }
   // Both signals are back to what they were.
   sigset_t blocked;
   pthread_sigmask( SIG_SETMASK, nullptr, &blocked );
   EXPECT_FALSE( sigismember( &blocked, SIGINT ) );
   EXPECT_FALSE( sigismember( &blocked, SIGTERM ) );
}

TEST( AgentTest, BeatDuringAWalkIsCountedAndTheWalkGoesOn ) {
   const ProcFolder folder;
   for( pid_t pid = 1; pid <= 100; ++pid ) {
      folder.processIs( pid, 1 );
   }
   folder.textIs( 101, "101 (b\x1b[2J) R 1 1 1 0 -1 0 0 0 0 0 9 0 0 0 20 0 1 0 5 8192 9\n" );
   Options options;
   options.seconds = 0.0;
   // Shorter than the clock can tell: every pass of the timers is a beat.
   options.intervalSeconds = 1e-300;
   Agent agent( options, folder.path() );
   const auto root = Quarn::schedulerRootQuarn();
   root->taskTestYieldRatioIs( 1 );
   const auto ender = testing_support::makeTask(
         root, Quarn::TaskPriority::low, "ender", [ & ]( testing_support::FunctionTask& task ) {
            if( agent.walk().walksDone() > 0 && agent.walksSkipped() > 0 ) {
               raise( SIGTERM );
            } else {
               task.scheduleTask();
            }
         } );
   ender->scheduleTask();
   agent.run();
   EXPECT_EQ( agent.stopReason(), "SIGTERM" );
   EXPECT_GT( agent.walk().walksDone(), 0u );
   EXPECT_GT( agent.walksSkipped(), 0u );
   EXPECT_EQ( agent.walk().processesSeen(), 101 * agent.walk().walksDone() );
   ASSERT_EQ( agent.topList().processes().size(), 10u );
   EXPECT_EQ( agent.topList().processes().front().pid, 101 );
   EXPECT_EQ( agent.userSummary().users().size(), 1u );
   std::ostringstream report;
   renderReport( report, agent );
   EXPECT_THAT( report.str(), HasSubstr( "b\\x1b[2J\n" ) );
}

TEST( AgentTest, HourOfVirtualTimeTakesEachTimersSamplesAndEnds ) {
   const ProcFolder folder;
   folder.processIs( 77, 5 );
   Options options;
   options.fastForwardHours = 1.0;
   options.intervalSeconds = 60.0;
   options.jitterPercent = 0;
   {
      Agent agent( options, folder.path() );
      agent.run();
      EXPECT_EQ( agent.stopReason(), "time is over" );
      EXPECT_GE( agent.timerTime(), std::chrono::hours( 1 ) );
      EXPECT_LT( agent.runTime(), agent.timerTime() );
      // At the start and at each full minute but the last, which is the end.
      EXPECT_EQ( agent.walk().walksDone(), 60u );
      // Every 4 to 5 seconds.
      const std::uint64_t loads = agent.load().taken() + agent.load().failed();
      EXPECT_GE( loads, 720u );
      EXPECT_LE( loads, 900u );
      // The folder has no such file.
      EXPECT_EQ( agent.load().taken(), 0u );
      std::ostringstream report;
      renderReport( report, agent );
      EXPECT_THAT( report.str(), HasSubstr( "Ran for 60min of virtual time, which took " ) );
      EXPECT_THAT( report.str(), HasSubstr( "Load average: not readable" ) );
   }
   EXPECT_FALSE( Quarn::leFastForward() );
}

TEST( AgentTest, SignalEndsARunOfVirtualTimeBeforeItsTime ) {
   const ProcFolder folder;
   Options options;
   options.fastForwardHours = 10000.0;
   Agent agent( options, folder.path() );
   raise( SIGTERM );
   agent.run();
   EXPECT_EQ( agent.stopReason(), "SIGTERM" );
   EXPECT_LT( agent.timerTime(), std::chrono::hours( 10000 ) );
}

TEST( AgentTest, ReportHasATaskOfTheGroupAndOneThatIsGone ) {
   const ProcFolder folder;
   folder.processIs( 77, 5 );
   Options options;
   options.fastForwardHours = 0.01;
   options.watchFolder = folder.path();
   Agent agent( options, folder.path() );
   agent.run();
   std::ostringstream report;
   renderReport( report, agent );
   for( char const* row :
        { "\n  main +TaskGroup;samples +low +group +[1-9]", "\n  samples +ProcessWalk +low +task ",
          "\n  samples +LoadTimer +low +timer ", "\n  main +FolderWatch:read +normal +task +0 ",
          "\n  main +EndTimer +normal +gone +[1-9]", "\n  samples +low +0 +2 +0 +[1-9]" } ) {
      EXPECT_THAT( report.str(), ::testing::ContainsRegex( row ) );
   }
}

TEST( TextTableTest, AlignsColumnsAndEndsNoLineInBlanks ) {
   TextTable table;
   table.columnAdd( "name", TextTable::Align::left );
   table.columnAdd( "n", TextTable::Align::right );
   table.columnAdd( "last", TextTable::Align::left );
   table.rowAdd( { "a", "1", "x" } );
   table.rowAdd( { "longer", "1000", "" } );
   std::ostringstream out;
   table.render( out );
   EXPECT_EQ( out.str(), "  name       n  last\n"
                         "  a          1  x\n"
                         "  longer  1000\n" );
}

} // namespace
} // namespace HostAgent
