#include "examples/agent/ProcessWalk.h"

#include "examples/ProcFolder.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <system_error>
#include <utility>
#include <vector>

#include <unistd.h>

namespace HostAgent {
namespace {

using ::testing::ElementsAre;

class ProcessWalkTest : public ::testing::Test {
 protected:
   std::shared_ptr<ProcessWalk> walkOf( const std::string& folder ) {
      return std::make_shared<ProcessWalk>( Quarn::schedulerRootQuarn(), folder,
                                            [ this ]( std::shared_ptr<const ProcessTable> table ) {
                                               tables_.push_back( std::move( table ) );
                                            } );
   }

   std::vector<pid_t> pids() const {
      std::vector<pid_t> result;
      for( const ProcessRecord& process : tables_.back()->processes() ) {
         result.push_back( process.pid );
      }
      return result;
   }

   ProcFolder folder_;
   std::vector<std::shared_ptr<const ProcessTable>> tables_;
};

TEST_F( ProcessWalkTest, GoesOnWhereItYielded ) {
   for( const pid_t pid : { 30, 4, 17, 256, 1 } ) {
      folder_.processIs( pid, 1 );
   }
   const auto walk = walkOf( folder_.path() );
   walk->taskForceYieldInTestIs( true );
   ASSERT_TRUE( walk->walkStart() );
   EXPECT_FALSE( walk->walkStart() );
   Quarn::Platform::doEventLoop();
   ASSERT_EQ( tables_.size(), 1u );
   EXPECT_THAT( pids(), ElementsAre( 1, 4, 17, 30, 256 ) );
   // One for each process and one that finds the end.
   EXPECT_EQ( walk->taskRunCount(), 6u );
   EXPECT_EQ( walk->walksDone(), 1u );
   EXPECT_EQ( walk->processesSeen(), 5u );
   EXPECT_FALSE( walk->walking() );
}

TEST_F( ProcessWalkTest, GoesOnInTheNextRunOfItsGroup ) {
   for( const pid_t pid : { 3, 1, 2 } ) {
      folder_.processIs( pid, 1 );
   }
   const auto group = Quarn::TaskGroup::TaskGroupIs( "group", Quarn::TaskPriority::low, false,
                                                     Quarn::schedulerRootQuarn() );
   const auto walk = std::make_shared<ProcessWalk>(
         group, folder_.path(), [ this ]( std::shared_ptr<const ProcessTable> table ) {
            tables_.push_back( std::move( table ) );
         } );
   // Has the group yield after each of the walk's runs, too.
   walk->taskForceYieldInTestIs( true );
   walk->walkStart();
   Quarn::Platform::doEventLoop();
   ASSERT_EQ( tables_.size(), 1u );
   EXPECT_THAT( pids(), ElementsAre( 1, 2, 3 ) );
   EXPECT_EQ( walk->taskRunCount(), 4u );
   EXPECT_EQ( group->parentTaskRunCount(), 4u );
}

TEST_F( ProcessWalkTest, SeesEveryProcessOnceWhenAllChangesBetweenItsRuns ) {
   for( pid_t pid = 1; pid <= 200; ++pid ) {
      folder_.processIs( pid, 1 );
   }
   const auto walk = walkOf( folder_.path() );
   walk->taskTestYieldRatioIs( 7 );
   walk->walkStart();
   while( walk->walking() ) {
      walk->taskRunFromTest();
      // Ends one that is listed already; whether it was read by now is the folder's business.
      folder_.processDel( 100 );
   }
   EXPECT_GT( walk->taskRunCount(), 25u );
   EXPECT_EQ( walk->processesSeen() + walk->processesVanished(), 200u );
   EXPECT_GE( walk->processesSeen(), 199u );
   walk->unscheduleTask();
}

TEST_F( ProcessWalkTest, CountsWhatItCannotReadAndGoesOn ) {
   folder_.processIs( 1, 1 );
   folder_.folderIs( 2 );
   folder_.textIs( 3, "" );
   folder_.textIs( 4, "4 (cut off) S 1 2" );
   folder_.textIs( 5, "6 (a) S 1 1 1 0 -1 0 0 0 0 0 1 0 0 0 20 0 1 0 5 8192 3\n" );
   folder_.textIs( 6, std::string( 100000, '6' ) );
   folder_.processIs( 7, 1 );
   const auto walk = walkOf( folder_.path() );
   walk->walkStart();
   Quarn::Platform::doEventLoop();
   EXPECT_THAT( pids(), ElementsAre( 1, 7 ) );
   EXPECT_EQ( walk->processesVanished(), 1u );
   EXPECT_EQ( walk->processesUnreadable(), 4u );
   EXPECT_EQ( tables_.back()->find( 7 )->uid, geteuid() );
}

TEST_F( ProcessWalkTest, NextWalkReadsTheFolderAnewAndCountsFromTheLast ) {
   folder_.processIs( 1, 10 );
   folder_.processIs( 2, 10 );
   const auto walk = walkOf( folder_.path() );
   walk->walkStart();
   Quarn::Platform::doEventLoop();
   folder_.processDel( 1 );
   folder_.processIs( 2, 14 );
   folder_.processIs( 3, 2 );
   ASSERT_TRUE( walk->walkStart() );
   Quarn::Platform::doEventLoop();
   EXPECT_THAT( pids(), ElementsAre( 2, 3 ) );
   EXPECT_EQ( tables_.back()->find( 2 )->cpuTicksSincePrevious, 4u );
   EXPECT_EQ( tables_.back()->find( 3 )->cpuTicksSincePrevious, 2u );
   EXPECT_GT( tables_.back()->interval()->count(), 0 );
}

TEST_F( ProcessWalkTest, StoppedWalkPublishesNothingAndLeavesTheLoopIdle ) {
   folder_.processIs( 1, 10 );
   folder_.processIs( 2, 10 );
   const auto walk = walkOf( folder_.path() );
   walk->taskForceYieldInTestIs( true );
   walk->walkStart();
   walk->taskRunFromTest();
   walk->walkStop();
   walk->walkStop();
   Quarn::Platform::doEventLoop();
   EXPECT_TRUE( tables_.empty() );
   EXPECT_EQ( walk->walksStopped(), 1u );
   // The next one begins at the front.
   walk->walkStart();
   Quarn::Platform::doEventLoop();
   EXPECT_THAT( pids(), ElementsAre( 1, 2 ) );
}

TEST_F( ProcessWalkTest, FolderThatCannotBeOpenedIsAnError ) {
   EXPECT_THROW( walkOf( folder_.path() + "/none" ), std::system_error );
}

TEST_F( ProcessWalkTest, FindsItselfOnThisHost ) {
   const auto walk = walkOf( "/proc" );
   walk->walkStart();
   Quarn::Platform::doEventLoop();
   ASSERT_EQ( tables_.size(), 1u );
   ProcessRecord const* self = tables_.back()->find( getpid() );
   ASSERT_NE( self, nullptr );
   EXPECT_EQ( self->uid, geteuid() );
   EXPECT_EQ( self->state, 'R' );
   EXPECT_GT( self->residentPages, 0u );
}

} // namespace
} // namespace HostAgent
