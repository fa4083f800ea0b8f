// Snapshots, and the JSON that is made of them: one golden file, and what does not fit in there.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <Quarn/platform/EventLoop.h>
#include <Quarn/testing/Clocks.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace Quarn {

// Snapshots of prepared records.
struct SnapshotForTest {
   using Snapshot = TaskSchedulerSnapshot;

   static Snapshot named( String name ) {
      Snapshot made;
      made.schedulerName_ = std::move( name );
      return made;
   }

   static Snapshot report() {
      using namespace std::chrono_literals;
      Snapshot root = named( "main" );
      root.taskNameRegex_ = ".*\"a\\d\".*";
      root.generalError_ = "tab\there";
      root.priorityStats_[ TaskPriority::critical ] = { 1, 2, 3, 4 };
      root.priorityStats_[ TaskPriority::scavenge ] = { 0, 18446744073709551615u, 0, 7 };
      root.maxSchedulerSlip_ = 1234567ns;
      root.isRootScheduler_ = true;
      root.displayOrder_ = 3;
      root.skippedTasks_ = 5;
      root.skippedCompletedTasks_ = 1;
      root.tasks_ = { idle( "second", 20ns ), idle( "first of two equal ones", 30ns ), group(),
                      idle( "last of two equal ones", 30ns ), busy() };
      root.completedTasks_ = { completed() };

      Snapshot sub = named( "sub \xE2\x82\xAC" );
      sub.taskNameRegexError_ = "error";
      sub.tasks_ = { idle( "member\x80\xFF of \xF0\x9F\x98\x80", 0ns ) };
      root.subSchedulers_.emplace_back( subSchedulerKey( group() ), std::move( sub ) );

      auto history = std::make_shared<Snapshot::History>();
      history->capacity = 100;
      history->events = {
            { TaskSchedulerEventType::runEnd, TaskTimeStamp( 1000000001ns ), "N second" },
            { TaskSchedulerEventType::schedulerBusy, TaskTimeStamp( 999ns ), "main" } };
      root.history_ = std::move( history );
      return root;
   }

   static TaskStat record( String name, std::uintptr_t address, TaskPriority priority ) {
      return TaskStat( std::move( name ), std::bit_cast<TaskImpl const*>( address ), priority );
   }
   static TaskStat idle( String name, TaskStat::duration time ) {
      TaskStat stat = record( std::move( name ), 16, TaskPriority::normal );
      stat.taskTotalRunTimeInc( time );
      return stat;
   }
   static TaskStat group() {
      TaskStat stat = record( "TaskGroup;g", 4096, TaskPriority::high );
      stat.taskStatusIs( TaskStat::TaskStatus( 32 | 64 ) );
      // Reported what is left, and never what was done.
      stat.taskWorkPendingIs( 8 );
      stat.taskWorkPendingHighWaterMarkIs( 9 );
      return stat;
   }
   static TaskStat busy() {
      using namespace std::chrono_literals;
      TaskStat stat = record( "busy", 18446744073709551615u, TaskPriority::absolute );
      stat.taskStatusIs( TaskStat::TaskStatus( 1 | 2 | 4 | 8 | 16 ) );
      stat.taskRunInc( 12 );
      stat.taskTotalRunTimeInc( 100000000001ns );
      stat.taskFirstRunTimestampIs( TaskTimeStamp( 1h ) );
      stat.taskLastRunTimestampIs( TaskTimeStamp( 9223372036854775807ns ) );
      stat.taskLastSchedulingLatencyIs( 1ns );
      stat.taskSchedulingLatencyHighWaterMarkIs( 2s );
      stat.taskQuantumViolation200Inc( 2 );
      stat.taskQuantumViolation500Inc( 5 );
      stat.taskRunTimeHighWaterMarkIs( 1500000ns );
      stat.taskWorkCountTotalInc( 10 );
      stat.taskWorkCountDecayAvgIs( 0.1f );
      stat.taskWorkCountHighWaterMarkIs( 0 );
      return stat;
   }
   static TaskStat completed() {
      TaskStat stat = record( "gone", 0, TaskPriority::low );
      stat.taskRunTimeHighWaterMarkIs( std::chrono::nanoseconds( 1499999 ) );
      stat.taskCompletedCountIs( 77 );
      return stat;
   }
   static Snapshot withTask( TaskStat stat ) {
      Snapshot made = named( "x" );
      made.tasks_.push_back( std::move( stat ) );
      return made;
   }
};

} // namespace Quarn

namespace {

using namespace Quarn;
using Quarn::Testing::ManualSteadyClock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing_support::makeTask;

constexpr char goldenFile[] = STATS_GOLDEN_DIR "/report.json";

template<typename... Snapshots>
std::string documentOf( const Snapshots&... snapshots ) {
   std::ostringstream out;
   const auto context = TaskScheduler::PrintContextIs( out );
   ( snapshots.renderJson( *context ), ... );
   context->closeJson();
   return out.str();
}

TEST( SnapshotJsonTest, ReportIsThatOfTheGoldenFileWhichOthersCanParse ) {
   const std::string report = documentOf( SnapshotForTest::report() );
   std::ifstream file( goldenFile, std::ios::binary );
   std::ostringstream golden;
   golden << file.rdbuf();
   EXPECT_EQ( report, golden.str() ) << "whole:\n" << report;
   if( std::system( "python3 -c 'import json'" ) != 0 ) {
      GTEST_SKIP() << "there is no python3";
   }
   const std::string program = std::string( "python3 - " ) + goldenFile + R"( <<'END'
import json, sys
text = open( sys.argv[ 1 ], 'rb' ).read().decode( 'utf-8', 'strict' )
root = json.loads( text )[ 'schedulers' ][ 'main' ]
assert [ t[ 'name' ] for t in root[ 'tasks' ][ 'tasks' ] ] == [ 'busy',
   'first of two equal ones', 'last of two equal ones', 'second', 'TaskGroup;g' ]
assert root[ 'taskNameRegex' ] == '.*"a\\d".*'
group = root[ 'tasks' ][ 'tasks' ][ 4 ]
member = root[ 'subSchedulers' ][ group[ 'subScheduler' ] ][ 'tasks' ][ 'tasks' ][ 0 ]
assert member[ 'name' ] == 'member\ufffd\ufffd of \U0001F600'
assert root[ 'tasks' ][ 'tasks' ][ 0 ][ 'totalRunTime' ] == 100.000000001
END
)";
   EXPECT_EQ( std::system( program.c_str() ), 0 );
}

TEST( SnapshotJsonTest, NamesAreMadeValidUtf8 ) {
   using namespace std::string_literals;
   const auto fffd = []( unsigned count ) {
      std::string text;
      while( count-- > 0 ) {
         text += "\xEF\xBF\xBD";
      }
      return text;
   };
   const struct {
      std::string name;
      std::string shown;
   } table[] = {
         { "", "" },
         { "\x7F/\b\f\n\r\t\x01\x1F", "\x7F/\\b\\f\\n\\r\\t\\u0001\\u001F" },
         { "a\0b"s, "a\\u0000b" },
         { "\xC2\x80 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xF4\x8F\xBF\xBF",
           "\xC2\x80 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xF4\x8F\xBF\xBF" },
         // Surrogates, longer forms than need be, beyond the last character, no lead bytes.
         { "\xED\xA0\x80", fffd( 3 ) },
         { "\xC0\xAF\xC1\xBF\xE0\x9F\xBF\xF0\x8F\xBF\xBF", fffd( 11 ) },
         { "\xF4\x90\x80\x80\xF5\x80\x80\x80\xFF", fffd( 9 ) },
         { "\x80\xBF", fffd( 2 ) },
         // Cut short: by another character, by another lead byte, by the end.
         { "\xE2\x82x", fffd( 2 ) + "x" },
         { "\xF0\x9F\x98\xC3\xA9", fffd( 3 ) + "\xC3\xA9" },
         { "x\xE2\x82", "x" + fffd( 2 ) },
         { "x\xF0", "x" + fffd( 1 ) },
   };
   for( const auto& row : table ) {
      EXPECT_THAT( documentOf( SnapshotForTest::named( row.name ) ),
                   HasSubstr( "{\"schedulers\":{\"" + row.shown + "\":{\"schedulerName\":\"" +
                              row.shown + "\",\"generalError\"" ) );
   }
   // Wherever a character stands that cannot stay as it is, it is found.
   const std::pair<char, std::string> characters[] = {
         { '\x1F', "\\u001F" }, { '"', "\\\"" }, { '\\', "\\\\" }, { '\x80', fffd( 1 ) },
         { ' ', " " },          { '!', "!" },    { '#', "#" },     { '[', "[" } };
   for( std::size_t i = 0; i < std::size_t{ 30 } * 30; ++i ) {
      const std::size_t before = i % 30;
      const std::size_t after = i / 30;
      for( const auto& [ c, shown ] : characters ) {
         const std::string name = std::string( before, 'n' ) + c + std::string( after, 'n' );
         ASSERT_THAT( documentOf( SnapshotForTest::withTask(
                            SnapshotForTest::record( name, 0, TaskPriority::normal ) ) ),
                      HasSubstr( "{\"name\":\"" + std::string( before, 'n' ) + shown +
                                 std::string( after, 'n' ) + "\",\"address\"" ) );
      }
   }
}

TEST( SnapshotJsonTest, FailureLeavesADocumentThatSaysSo ) {
   const TaskStat bad = SnapshotForTest::record( "b", 0, TaskPriority( std::uint8_t{ 9 } ) );
   const std::string text =
         documentOf( SnapshotForTest::withTask( bad ), SnapshotForTest::named( "next" ) );
   EXPECT_THAT( text,
                testing::MatchesRegex( "\\{\"schedulers\":\\{\"x\":\\{\"generalError\":\".*"
                                       "unexpected priority value 9.*\"\\},\"next\":\\{.*" ) );
   // The same in memory, where a value is taken back from behind what was written already.
   const auto shared = []( TaskSchedulerSnapshot shot ) {
      return std::make_shared<const TaskSchedulerSnapshot>( std::move( shot ) );
   };
   int fds[ 2 ];
   ASSERT_EQ( pipe( fds ), 0 );
   bool done = false;
   schedulerRootQuarn()->snapshotRenderJsonAsync(
         fds[ 1 ],
         { shared( SnapshotForTest::withTask( bad ) ), shared( SnapshotForTest::named( "next" ) ) },
         [ & ] { done = true; } );
   while( !done ) {
      Platform::doEventLoop( 0.0 );
   }
   std::string read( 100000, '\0' );
   read.resize( static_cast<std::size_t>( ::read( fds[ 0 ], read.data(), read.size() ) ) );
   EXPECT_EQ( read, text );
   close( fds[ 0 ] );

   TaskStat odd = SnapshotForTest::busy();
   odd.taskWorkCountDecayAvgIs( std::nanf( "" ) );
   EXPECT_THAT( documentOf( SnapshotForTest::withTask( odd ) ),
                HasSubstr( "\"decayingAvg\":null,\"highwater\":0}" ) );
}

TEST( SnapshotJsonTest, TablesOfAnyRecordsStandBesideSnapshots ) {
   const TaskSchedulerSnapshot shot = SnapshotForTest::withTask( SnapshotForTest::busy() );
   std::ostringstream out;
   const auto context = TaskScheduler::PrintContextIs( out );
   shot.renderJsonTasks( *context, {}, "none", 7, false );
   shot.renderJson( *context );
   shot.renderJsonTasks( *context, shot.tasks(), "tasks", 0, false );
   context->closeJson();
   const std::string one = documentOf( shot );
   const std::string tasks = one.substr(
         one.find( "\"tasks\":" ), one.find( ",\"completedTasks\":{" ) - one.find( "\"tasks\":" ) );
   EXPECT_EQ( out.str(), "{\"schedulers\":{\"none\":{\"tasks\":[],\"skipped\":7}," +
                               one.substr( 15, one.size() - 17 ) + "," + tasks + "}}" );
   EXPECT_FATAL( shot.renderJsonTasks( *context, {}, "late", 0, false ), "JSON already closed" );
}

TEST( SnapshotJsonTest, StreamLearnsOfItsFailureWhenTheDocumentIsClosed ) {
   std::ofstream full( "/dev/full" );
   full.exceptions( std::ios::badbit );
   const auto context = TaskScheduler::PrintContextIs( full );
   SnapshotForTest::report().renderJson( *context );
   EXPECT_TRUE( full.good() );
   EXPECT_THROW( context->closeJson(), std::ios::failure );
   EXPECT_TRUE( full.bad() );
   EXPECT_FATAL( context->closeJson(), "JSON already closed" );
   EXPECT_DEATH( SnapshotForTest::report().renderJson( *context ), "JSON already closed" );
}

TEST( SnapshotJsonTest, LiveFormsWriteTheSame ) {
   const auto root = schedulerRootQuarnNonShared( "r" );
   const auto task = makeTask( root, TaskPriority::low, "t" );
   task->taskRunFromTest();
   std::ostringstream out;
   root->statsRenderJson( out );
   EXPECT_THAT( out.str(), HasSubstr( "{\"schedulers\":{\"r\":{\"schedulerName\":\"r\","
                                      "\"displayOrder\":0," ) );
   EXPECT_THAT( out.str(), HasSubstr( "\"skipped\":0},\"subSchedulers\":{}}}}" ) );
   EXPECT_EQ( root->statsRenderJsonToString(), out.str() );
   int fds[ 2 ];
   ASSERT_EQ( pipe( fds ), 0 );
   root->statsRenderJsonToBlockingFdForTest( fds[ 1 ] );
   std::string read( 100000, '\0' );
   read.resize( static_cast<std::size_t>( ::read( fds[ 0 ], read.data(), read.size() ) ) );
   EXPECT_EQ( read, out.str() );
   EXPECT_EQ( close( fds[ 1 ] ), 0 );
   close( fds[ 0 ] );
   EXPECT_THAT( root->statsRenderJsonToString( true, true, true, "t" ).stdString(),
                HasSubstr( "\"eventType\":\"run end\",\"eventId\":\"L t\"" ) );
}

// ------------------------------------------------------------------------------------ construction

std::vector<String> namesOf( const BasicVector<TaskStat>& stats ) {
   std::vector<String> names;
   for( const TaskStat& stat : stats ) {
      names.push_back( stat.taskName() );
   }
   return names;
}

TEST( TaskSchedulerSnapshotTest, HoldsWhatWasAskedFor ) {
   ManualSteadyClock clock;
   auto root = schedulerRootQuarnNonShared( "r" );
   const auto group = TaskGroup::TaskGroupIs( "g", TaskPriority::low, false, root );
   auto task = makeTask( root, TaskPriority::normal, "task" );
   auto longer = makeTask( root, TaskPriority::normal, "tasks" );
   const auto member = makeTask( group, TaskPriority::low, "m" );
   auto gone = makeTask( root, TaskPriority::normal, "gone" );
   task->taskRunFromTest();
   longer->taskRunFromTest();
   gone->taskRunFromTest();
   gone.reset();
   task->scheduleTask();
   clock.advance( std::chrono::seconds( 2 ) );
   root->_handleSchedulerRun( TaskPriority::scavenge );
   root->threadSanityDisabledIs( true );

   const auto all = root->snapshot( "shown", false, true, true, {}, 4 );
   EXPECT_EQ( all->schedulerName(), "shown" );
   EXPECT_EQ( all->displayOrder(), 4u );
   EXPECT_TRUE( all->isRootScheduler() );
   EXPECT_THAT( namesOf( all->tasks() ), ElementsAre( "tasks", "task" ) );
   EXPECT_EQ( all->skippedTasks(), 1u ) << "the group's parent task";
   EXPECT_THAT( namesOf( all->completedTasks() ), ElementsAre( "gone" ) );
   ASSERT_TRUE( all->history() );
   EXPECT_EQ( all->history()->capacity, 100u );
   EXPECT_EQ( all->history()->events.size(), root->historyEventCount() );
   EXPECT_EQ( all->history()->events.front().eventIdentifier(), "N task" );
   EXPECT_EQ( all->maxSchedulerSlip(), std::chrono::seconds( 2 ) );
   EXPECT_TRUE( all->threadSanityDisabled() );
   EXPECT_EQ( all->thread(), std::this_thread::get_id() );
   ASSERT_EQ( all->subSchedulers().size(), 1u );
   const auto& [ key, sub ] = all->subSchedulers().front();
   EXPECT_EQ( key, "TaskGroup;g-" + TaskKey( root->taskForTest( "TaskGroup;g" ).get() ).toStrep() );
   EXPECT_EQ( sub.schedulerName(), "g" );
   EXPECT_EQ( sub.displayOrder(), TaskSchedulerSnapshot::noDisplayOrder );
   EXPECT_FALSE( sub.isRootScheduler() );
   EXPECT_TRUE( sub.threadSanityDisabled() );
   EXPECT_FALSE( sub.history() );
   EXPECT_EQ( sub.skippedTasks(), 1u );

   const auto some = root->snapshot( {}, true, false, true, "task", 0 );
   EXPECT_EQ( some->schedulerName(), "r" );
   EXPECT_THAT( namesOf( some->tasks() ), ElementsAre( "task" ) );
   EXPECT_TRUE( some->completedTasks().empty() );
   EXPECT_EQ( some->subSchedulers().size(), 1u );
   EXPECT_FALSE( some->history()->events.empty() );
   for( const TaskSchedulerHistory::Event& event : some->history()->events ) {
      EXPECT_EQ( event.eventIdentifier(), "N task" );
   }
   EXPECT_FALSE( root->snapshot( {}, true, true, false, {}, 0 )->history() );

   testing::internal::CaptureStderr();
   const auto none = root->snapshot( {}, true, true, true, "(", 0 );
   EXPECT_THAT( testing::internal::GetCapturedStderr(), HasSubstr( "regular expression '('" ) );
   EXPECT_EQ( none->taskNameRegex(), "(" );
   EXPECT_FALSE( none->taskNameRegexError().empty() );
   EXPECT_EQ( none->tasks().size() + none->completedTasks().size() + none->subSchedulers().size(),
              0u );
   EXPECT_FALSE( none->history() );
   EXPECT_EQ( none->priorityStats().at( TaskPriority::normal ).completed, 1u );

   EXPECT_FATAL( subSchedulerKey( task->getStats() ), "task is not TaskGroup" );
   // It outlives what it was taken of.
   task.reset();
   longer.reset();
   EXPECT_THAT( documentOf( *all ), HasSubstr( "\"name\":\"tasks\"" ) );
}

TEST( TaskSchedulerSnapshotTest, GroupThatIsGoneIsLeftOut ) {
   const auto root = schedulerRootQuarnNonShared( "r" );
   auto gone = TaskGroup::TaskGroupIs( "gone", TaskPriority::low, false, root );
   const auto kept = root->taskForTest( "TaskGroup;gone" );
   const auto group = TaskGroup::TaskGroupIs( "g", TaskPriority::low, false, root );
   gone.reset();
   const auto all = root->snapshot( {}, true, false, false, {}, 0 );
   EXPECT_EQ( all->tasks().size(), 2u );
   ASSERT_EQ( all->subSchedulers().size(), 1u );
   EXPECT_EQ( all->subSchedulers().front().second.schedulerName(), "g" );
}

} // namespace
