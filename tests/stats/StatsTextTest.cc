// The text report: one golden file, and what does not fit in there.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/Clocks.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include <unistd.h>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;
using Quarn::Testing::ManualSteadyClock;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testing_support::FunctionTask;
using testing_support::makeTask;

constexpr auto normal = TaskPriority::normal;

std::string table( BasicVector<TaskStat> stats, String title, unsigned skipped, bool completed,
                   bool includeTaskKeys = false ) {
   std::ostringstream out;
   TaskSchedulerRoot::statsRenderTextTasks( out, std::move( stats ), std::move( title ), skipped,
                                            completed, includeTaskKeys );
   return out.str();
}

std::size_t count( const std::string& text, std::string_view part ) {
   std::size_t n = 0;
   for( auto at = text.find( part ); at != text.npos; at = text.find( part, at + 1 ) ) {
      ++n;
   }
   return n;
}

class Poll : public TimerTask {
 public:
   Poll( std::shared_ptr<TaskScheduler> scheduler, ManualSteadyClock& clock )
         : TimerTask( std::move( scheduler ), TaskPriority::low, "poll" ),
           clock_( clock ) {}

 private:
   void taskExecute() override {
      clock_.advance( 1499999ns ); // just less than a millisecond and a half
      scheduleTaskDelay( 60.0 );
   }

   ManualSteadyClock& clock_;
};

// A root in which everything happened once, at times that the test sets.
class StatsTextTest : public testing::Test {
 protected:
   StatsTextTest() {
      plain->bodyIs( [ this ]( FunctionTask& self ) {
         clock.advance( 45ms );
         self.taskWorkCountInc( 12345 );
         self.taskWorkPendingIs( 77 );
      } );
      plain->scheduleTask();
      clock.advance( 2s );
      turn();
      for( const int ms : { 3, 4 } ) {
         members.push_back(
               makeTask( group, TaskPriority::low, fmt::format( "member {} ms", ms ),
                         [ this, ms ]( FunctionTask& ) { clock.advance( ms * 1ms ); } ) );
         members.back()->scheduleTask();
      }
      turn();
      for( const char* name : { "bad\xff\xfe utf-8", "t\xc3\xbcr" } ) {
         others.push_back( makeTask( root, TaskPriority::high, name, [ this ]( FunctionTask& ) {
            clock.advance( ( 101 + std::ssize( others ) ) * 1ms );
         } ) );
         others.back()->scheduleTask();
         turn();
      }
      others.back()->scheduleTask(); // on the run queue
      poll->taskRunFromTest();
      plain->taskSuspendedIs( true );
      for( const auto time : { 1500000ns, 250ns } ) {
         const auto gone = makeTask( root, normal, "gone",
                                     [ this, time ]( FunctionTask& ) { clock.advance( time ); } );
         gone->taskRunFromTest();
      }
      makeTask( root, TaskPriority::absolute, "never ran" );
   }

   void turn() { EXPECT_TRUE( root->_handleSchedulerRun( TaskPriority::scavenge ) ); }

   ManualSteadyClock clock;
   std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "reported" );
   std::shared_ptr<FunctionTask> plain = makeTask( root, normal, "plain" );
   std::shared_ptr<FunctionTask> idle = makeTask( root, normal, "idle" );
   std::shared_ptr<TaskGroup> group =
         TaskGroup::TaskGroupIs( "members", TaskPriority::low, false, root );
   std::shared_ptr<Poll> poll = std::make_shared<Poll>( root, clock );
   std::vector<std::shared_ptr<FunctionTask>> others;
   std::vector<std::shared_ptr<FunctionTask>> members;
};

TEST_F( StatsTextTest, ReportsAreThoseOfTheGoldenFile ) {
   TaskStat wide( "as wide as it gets", nullptr, normal );
   wide.taskStatusIs( TaskStat::TaskStatus( 8 + 16 + 4 ) );
   wide.taskRunInc( 12345678901 );
   wide.taskTotalRunTimeInc( std::chrono::nanoseconds::max() );
   wide.taskRunTimeHighWaterMarkIs( 100'000s );
   wide.taskLastSchedulingLatencyIs( 12345s );
   wide.taskSchedulingLatencyHighWaterMarkIs( 123456s );
   wide.taskQuantumViolation200Inc( 12345 );
   wide.taskQuantumViolation500Inc( 0xFFFFFFFF );
   wide.taskWorkCountTotalInc( ~std::uint64_t{ 0 } );
   wide.taskWorkCountDecayAvgIs( 16777216.25f );
   wide.taskWorkCountHighWaterMarkIs( 0xFFFFFFFE );
   wide.taskWorkPendingIs( 0xFFFFFFFE );
   wide.taskWorkPendingHighWaterMarkIs( 0xFFFFFFFE );
   wide.taskCompletedCountIs( 12345 );
   TaskStat half( "half", nullptr, TaskPriority::scavenge );
   half.taskWorkCountHighWaterMarkIs( 0 );
   TaskStat tied = half;
   tied.taskNameIs( "tied with half, and behind it" );
   const BasicVector<TaskStat> fixed = { half, tied, wide };

   root->historyEntryCountIs( 16 );
   const std::string report =
         root->statsRenderTextForDebugToString( false, true, false, true ).stdString() +
         table( fixed, "Live", 1, false ) + table( fixed, "Completed", 0, true ) +
         table( {}, "None", 2, false );
   std::ifstream file( STATS_GOLDEN_DIR "/report.txt", std::ios::binary );
   std::ostringstream golden;
   golden << file.rdbuf();
   EXPECT_EQ( report, golden.str() ) << "whole:\n" << report;
}

TEST_F( StatsTextTest, OptionsAddTheirParts ) {
   const std::string bare = root->statsRenderTextForDebugToString().stdString();
   EXPECT_THAT( bare, Not( HasSubstr( "ompleted" ) ) );
   EXPECT_THAT( bare, Not( HasSubstr( "scheduler events" ) ) );
   EXPECT_THAT( bare, HasSubstr( "\nSkipped 1 task with no runs\n" ) );
   const std::string all = root->statsRenderTextForDebugToString( true, true, true ).stdString();
   EXPECT_THAT( all, Not( HasSubstr( "Skipped" ) ) );
   EXPECT_THAT( all, HasSubstr( "\nnever ran " ) );
   // Keys are those of tasks that live, and count for the width.
   EXPECT_THAT( all, HasSubstr( "\ngone       " ) );
   const String longest = "TaskGroup;members" +
                          TaskKey( root->taskStatForTest( "TaskGroup;members" ).task() ).toStrep();
   EXPECT_THAT( all, HasSubstr( "\n" + longest.stdString() + "  l " ) );
   EXPECT_THAT( all, HasSubstr( "\n" + std::string( longest.size() + 107, '-' ) + "\n" ) );
}

TEST_F( StatsTextTest, FilterShowsMatchingTasksAndNoSchedulers ) {
   const std::string some =
         root->statsRenderTextForDebugToString( true, true, false, true, "pl.*|gone" ).stdString();
   EXPECT_EQ( count( some, "\nplain " ), 1u );
   EXPECT_EQ( count( some, "\ngone " ), 1u );
   EXPECT_EQ( count( some, "t\xc3\xbcr" ), 0u );
   const std::string all = root->historyRenderTextForDebugToString().stdString();
   EXPECT_GT( count( all, " reported\n" ), 0u );
   EXPECT_EQ( count( some, " N plain\n" ), count( all, " N plain\n" ) );
   EXPECT_EQ( count( some, " ns since boot " ),
              count( all, " N plain\n" ) + count( all, " N gone\n" ) );
   // The header tells of all, and distances are from the newest of all.
   const std::string last = some.substr( some.find( "\nLast " ) + 1 );
   EXPECT_THAT( last, StartsWith( all.substr( 0, all.find( '\n' ) ) ) );
   EXPECT_THAT( all, HasSubstr( last.substr( last.rfind( '\n', last.size() - 2 ) ) ) );

   const std::string none =
         root->statsRenderTextForDebugToString( true, true, false, true, "(" ).stdString();
   EXPECT_EQ( count( none, " ns since boot " ) + count( none, "\nplain " ), 0u );
   EXPECT_EQ( count( none, "-\n" ), 3u );
}

TEST_F( StatsTextTest, LinesOfTablesAreFlushed ) {
   struct Flushes : std::stringbuf {
      int sync() override {
         lines.push_back( str() );
         str( {} );
         return 0;
      }
      std::vector<std::string> lines;
   } buffer;
   std::ostream out( &buffer );
   const TaskStat stat( "row", nullptr, normal );
   TaskSchedulerRoot::statsRenderTextTasks( out, { stat, stat }, "Title", 3, false, false );
   EXPECT_THAT( buffer.lines, ElementsAre( StartsWith( "Title" ), StartsWith( "---" ),
                                           StartsWith( "row" ), StartsWith( "row" ) ) );
   EXPECT_THAT( buffer.lines, Each( EndsWith( "\n" ) ) );
}

// The schedulers of a root are kept by address.
TEST( StatsTextOrderTest, TiesStandInTheOrderOfTheirSchedulers ) {
   const auto root = schedulerRootQuarnNonShared( "r" );
   std::vector<std::shared_ptr<TaskGroup>> groups;
   std::vector<std::shared_ptr<Task>> tasks = {
         makeTask( root, TaskPriority::low, "of the root" ) };
   std::vector<std::string> expected;
   const auto add = [ & ]( const std::string& name, const std::shared_ptr<TaskScheduler>& parent ) {
      groups.push_back( TaskGroup::TaskGroupIs( name, TaskPriority::low, false, parent ) );
      tasks.push_back( makeTask( groups.back(), TaskPriority::low, "of " + name ) );
      return groups.back();
   };
   for( char name = 'a'; name <= 'p'; ++name ) {
      const auto group = add( std::string( 1, name ), root );
      add( std::string( 1, name ) + "1", group );
      add( std::string( 1, name ) + "2", group );
      expected.insert( expected.begin(),
                       { std::string( "of " ) + name, std::string( "of " ) + name + "2",
                         std::string( "of " ) + name + "1" } );
   }
   expected.insert( expected.begin(), "of the root" );
   std::istringstream report(
         root->statsRenderTextForDebugToString( true, false, false, false, "of .*" ).stdString() );
   std::vector<std::string> names;
   for( std::string line; std::getline( report, line ); ) {
      if( line.starts_with( "of " ) ) {
         names.push_back( line.substr( 0, line.find( "  " ) ) );
      }
   }
   EXPECT_EQ( names, expected );
}

TEST_F( StatsTextTest, FormsForDescriptorsAndStandardErrorWriteTheSame ) {
   int fds[ 2 ];
   ASSERT_EQ( pipe( fds ), 0 );
   root->statsRenderTextForDebug( fds[ 1 ], false, false, true );
   root->historyRenderTextForDebug( fds[ 1 ] );
   ASSERT_EQ( close( fds[ 1 ] ), 0 );
   std::string got( 60'000, '?' );
   got.resize( static_cast<std::size_t>( read( fds[ 0 ], got.data(), got.size() ) ) );
   close( fds[ 0 ] );
   EXPECT_EQ( got, root->statsRenderTextForDebugToString( false, false, true ).stdString() +
                         root->historyRenderTextForDebugToString().stdString() );

   std::ostringstream captured;
   std::streambuf* const before = std::cerr.rdbuf( captured.rdbuf() );
   root->statsRenderTextForDebugStdErr();
   root->historyRenderTextForDebugStdErr();
   std::cerr.rdbuf( before );
   EXPECT_EQ( captured.str(), root->statsRenderTextForDebugToString().stdString() +
                                    root->historyRenderTextForDebugToString().stdString() );

   std::thread( [ & ] {
      EXPECT_FATAL( root->statsRenderTextForDebugToString(), "Executing in wrong thread" );
   } ).join();
}

} // namespace
