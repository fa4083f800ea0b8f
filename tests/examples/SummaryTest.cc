// What is made of the tables of two walks.

#include "examples/agent/TopList.h"
#include "examples/agent/UserSummary.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <ostream>

using namespace std::chrono_literals;

namespace HostAgent {

static void PrintTo( const UserTotals& user, std::ostream* out ) {
   *out << user.uid << ":" << user.processes << "," << user.cpuTicksSincePrevious << ","
        << user.residentPages;
}

static bool operator==( const UserTotals& a, const UserTotals& b ) {
   return a.uid == b.uid && a.processes == b.processes &&
          a.cpuTicksSincePrevious == b.cpuTicksSincePrevious && a.residentPages == b.residentPages;
}

namespace {

constexpr auto largest = std::numeric_limits<std::uint64_t>::max();

ProcessRecord processOf( pid_t pid, uid_t uid, std::uint64_t cpuTicks, std::uint64_t pages = 1,
                         std::uint64_t startTicks = 100 ) {
   ProcessRecord process;
   process.pid = pid;
   process.uid = uid;
   process.startTicks = startTicks;
   process.cpuTicks = cpuTicks;
   process.residentPages = pages;
   return process;
}

std::shared_ptr<const ProcessTable> tableOf( std::chrono::seconds began,
                                             std::initializer_list<ProcessRecord> processes,
                                             std::shared_ptr<const ProcessTable> previous = {} ) {
   auto table =
         std::make_shared<ProcessTable>( Quarn::TaskTimeStamp( began ), std::move( previous ) );
   for( const ProcessRecord& process : processes ) {
      table->processAdd( process );
   }
   table->close();
   return table;
}

std::vector<pid_t> pidsOf( const std::vector<ProcessRecord>& processes ) {
   std::vector<pid_t> pids;
   pids.reserve( processes.size() );
   for( const ProcessRecord& process : processes ) {
      pids.push_back( process.pid );
   }
   return pids;
}

using Users = std::vector<UserTotals>;

TEST( ProcessTableTest, FirstWalkHasNothingToCompareWith ) {
   const auto first = tableOf( 5s, { processOf( 1, 0, 700 ) } );
   EXPECT_FALSE( first->interval() );
   EXPECT_EQ( first->find( 1 )->cpuTicksSincePrevious, 0u );
   EXPECT_EQ( tableOf( 8s, {}, first )->interval(), 3s );
}

TEST( ProcessTableTest, FindsProcessesWhateverTheOrderTheyCameIn ) {
   const auto table =
         tableOf( 0s, { processOf( 9, 0, 1 ), processOf( 3, 0, 2 ), processOf( 5, 0, 3 ) } );
   EXPECT_EQ( table->find( 3 )->cpuTicks, 2u );
   EXPECT_EQ( table->find( 5 )->cpuTicks, 3u );
   EXPECT_EQ( table->find( 9 )->cpuTicks, 1u );
   EXPECT_EQ( table->find( 4 ), nullptr );
   EXPECT_EQ( table->find( 10 ), nullptr );
}

TEST( ProcessTableTest, ReusedNumberCountsFromZero ) {
   const auto first =
         tableOf( 0s, { processOf( 10, 0, 500, 1, 100 ), processOf( 11, 0, 500, 1, 100 ),
                        processOf( 12, 0, 500, 1, 100 ) } );
   // Another start time; more ticks than the former owner had; fewer ticks at the same start time.
   const auto second = tableOf( 1s,
                                { processOf( 10, 0, 20, 1, 900 ), processOf( 11, 0, 600, 1, 900 ),
                                  processOf( 12, 0, 30, 1, 100 ), processOf( 13, 0, 40, 1, 950 ) },
                                first );
   EXPECT_EQ( second->find( 10 )->cpuTicksSincePrevious, 20u );
   EXPECT_EQ( second->find( 11 )->cpuTicksSincePrevious, 600u );
   EXPECT_EQ( second->find( 12 )->cpuTicksSincePrevious, 30u );
   EXPECT_EQ( second->find( 13 )->cpuTicksSincePrevious, 40u );
}

TEST( ProcessTableTest, LetsThePreviousWalkGoWhenItIsClosed ) {
   auto first = tableOf( 0s, { processOf( 1, 0, 1 ) } );
   const std::weak_ptr<const ProcessTable> watch = first;
   const auto second = tableOf( 1s, {}, std::move( first ) );
   EXPECT_TRUE( watch.expired() );
}

TEST( UserSummaryTest, AddsUpWhatHappenedSinceTheWalkBefore ) {
   const auto first = tableOf( 0s, { processOf( 1, 0, 100, 10 ), processOf( 2, 7, 50, 20 ),
                                     processOf( 3, 7, 60, 30 ), processOf( 4, 8, 9, 1 ) } );
   EXPECT_EQ( summarizeUsers( *first ),
              ( Users{ { 7, 2, 0, 50 }, { 0, 1, 0, 10 }, { 8, 1, 0, 1 } } ) );
   // The process 3 has ended and took its ticks with it, 5 is new, and 8 has no process left.
   const auto second = tableOf(
         1s,
         { processOf( 1, 0, 103, 10 ), processOf( 2, 7, 51, 25 ), processOf( 5, 7, 4, 5, 120 ) },
         first );
   EXPECT_EQ( summarizeUsers( *second ), ( Users{ { 7, 2, 5, 30 }, { 0, 1, 3, 10 } } ) );
}

TEST( UserSummaryTest, SumsThatDoNotFitStayAtTheLargestNumber ) {
   const auto first = tableOf( 0s, {} );
   const auto second =
         tableOf( 1s, { processOf( 1, 0, largest, largest ), processOf( 2, 0, 2, 3 ) }, first );
   EXPECT_EQ( summarizeUsers( *second ), ( Users{ { 0, 2, largest, largest } } ) );
}

TEST( TopListTest, OrdersByTicksThenMemoryThenNumber ) {
   const auto first = tableOf( 0s, { processOf( 6, 0, 1000000 ) } );
   const auto second = tableOf( 1s,
                                { processOf( 6, 0, 1000001 ), processOf( 5, 0, 8, 1 ),
                                  processOf( 4, 0, 8, 2 ), processOf( 3, 0, 8, 1 ),
                                  processOf( 2, 0, 0, largest ), processOf( 1, 0, 9, 0 ) },
                                first );
   EXPECT_EQ( pidsOf( topProcesses( *second, 10 ) ), ( std::vector<pid_t>{ 1, 4, 3, 5, 6, 2 } ) );
   EXPECT_EQ( pidsOf( topProcesses( *second, 3 ) ), ( std::vector<pid_t>{ 1, 4, 3 } ) );
   EXPECT_TRUE( topProcesses( *tableOf( 2s, {} ), 3 ).empty() );
}

TEST( TopListTest, NewerTableTakesThePlaceOfOneThatWaits ) {
   const auto root = Quarn::schedulerRootQuarn();
   const auto top = std::make_shared<TopList>( root, 10 );
   const auto first = tableOf( 0s, { processOf( 1, 0, 1 ) } );
   top->tableIs( first );
   top->tableIs( tableOf( 4s, { processOf( 2, 0, 1 ) }, first ) );
   Quarn::Platform::doEventLoop();
   EXPECT_EQ( pidsOf( top->processes() ), ( std::vector<pid_t>{ 2 } ) );
   EXPECT_EQ( top->interval(), 4s );
   EXPECT_EQ( top->taskRunCount(), 1u );
}

} // namespace
} // namespace HostAgent
