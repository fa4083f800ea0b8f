// The whole scheduler under seeded random operations, compared after each with a naive model.
//
// Environment: ORUQUARN_MODEL_STEPS sets the number of steps of each case, ORUQUARN_MODEL_SEED the
// seed of the first case.

#include "support/SchedulerPlay.h"
#include "support/Tasks.h"
#include "support/TraceCapture.h"

#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/debug/Environment.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>

namespace {

using namespace Quarn;
using testing_support::SchedulerPlay;
namespace model = testing_support::model;

std::uint64_t fromEnvironment( char const* name, std::uint64_t otherwise ) {
   char const* text = std::getenv( name );
   return text ? std::strtoull( text, nullptr, 10 ) : otherwise;
}

class SchedulerModelTest : public testing::TestWithParam<std::uint64_t> {};

TEST_P( SchedulerModelTest, RandomOperationsAgreeWithTheModel ) {
   const std::uint64_t seed = fromEnvironment( "ORUQUARN_MODEL_SEED", 1 ) + GetParam();
   const std::uint64_t steps = fromEnvironment( "ORUQUARN_MODEL_STEPS", 40'000 );
   const auto play = SchedulerPlay::make( std::mt19937_64( seed ) );
   bool good = true;
   for( std::uint64_t n = 0; n < steps && good; ++n ) {
      good = play->stepOnce();
   }
   if( good && play->finish() ) {
      if( steps >= 40'000 ) {
         // What the comparison is worth: the rarer rules came up again and again.
         const model::Tally& tally = play->tally();
         EXPECT_GT( tally.waysGiven, 5u );
         EXPECT_GT( tally.snapshotRuns, 10u );
         EXPECT_GT( tally.throughSnapshot, 2u );
         EXPECT_GT( tally.criticalLetIn, 10u );
         EXPECT_GT( tally.resetSlices, 2u );
         EXPECT_GT( tally.tasksGoneInOwnRun, 2u );
         EXPECT_GT( tally.expiredSuspended, 2u );
         EXPECT_GE( tally.deepestRun, 3u );
      }
      return;
   }
   std::cerr << "ORUQUARN_MODEL_SEED=" << seed << ": " << play->fault() << '\n';
   play->show( std::cerr );
   // What is broken may not come down in one piece.
   std::cerr.flush();
   std::_Exit( 1 );
}

TEST( SchedulerModelTraceTest, TracingEverythingChangesNothing ) {
   const auto runsOf = []( std::uint64_t seed ) {
      const auto play = SchedulerPlay::make( std::mt19937_64( seed ) );
      for( int n = 0; n < 1'000 && play->stepOnce(); ++n ) {
      }
      EXPECT_TRUE( play->finish() ) << play->fault();
      return play->runs();
   };
   const std::uint64_t quietly = runsOf( 7 );
   const testing_support::TraceCapture capture;
   Platform::setupQuarnDebug( "*/9" );
   EXPECT_EQ( runsOf( 7 ), quietly );
   Platform::clearQuarnDebug( "*/9" );
   EXPECT_GT( capture.count( "TaskScheduler/" ), quietly );
}

// Cases that the comparison has found, at their smallest.

TEST( SchedulerModelFindingsTest, GroupWithForcedMembersStaysForcedWithoutItsSwitch ) {
   const auto root = TaskSchedulerRoot::TaskSchedulerRootIs( "root" );
   const auto outer = TaskGroup::TaskGroupIs( "outer", TaskPriority::normal, false, root );
   const auto inner = TaskGroup::TaskGroupIs( "inner", TaskPriority::normal, false, outer );
   const auto member = testing_support::makeTask( inner, TaskPriority::normal, "member" );
   member->taskForceYieldInTestIs( true );
   inner->taskGroupForceYieldInTestIs( true );
   inner->taskGroupForceYieldInTestIs( false );
   EXPECT_TRUE( outer->anyTaskForcesYieldInTest() );
   member->taskForceYieldInTestIs( false );
   EXPECT_FALSE( outer->anyTaskForcesYieldInTest() );
   EXPECT_FALSE( root->anyTaskForcesYieldInTest() );
}

INSTANTIATE_TEST_SUITE_P( Seeds, SchedulerModelTest, testing::Range<std::uint64_t>( 0, 8 ) );

} // namespace
