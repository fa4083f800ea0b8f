#include <Quarn/TaskSchedulerCpp.h>

#include "support/Fatal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;

TEST( TaskStatTest, FoldingSumsCountsAndKeepsMaximaAndFirstStamps ) {
   TaskStat a( "name", nullptr, TaskPriority::normal );
   a.taskRunInc( 3 );
   a.taskTotalRunTimeInc( 10ns );
   a.taskFirstRunTimestampIs( TaskTimeStamp( 5ns ) );
   a.taskLastRunTimestampIs( TaskTimeStamp( 6ns ) );
   a.taskWorkCountTotalInc( 7 );
   a.taskWorkCountDecayAvgIs( 1.5f );
   a.taskQuantumViolation200Inc( 1 );
   a.taskQuantumViolation500Inc( 2 );
   a.taskRunTimeHighWaterMarkIs( 100ns );
   a.taskSchedulingLatencyHighWaterMarkIs( 1ns );
   a.taskCompletedCountIs( 1 );
   TaskStat b = a;
   b.taskFirstRunTimestampIs( TaskTimeStamp( 50ns ) );
   b.taskLastRunTimestampIs( TaskTimeStamp( 60ns ) );
   b.taskWorkCountDecayAvgIs( 2.5f );
   b.taskWorkCountHighWaterMarkIs( 4 );
   b.taskWorkPendingIs( 9 );
   b.taskWorkPendingHighWaterMarkIs( 11 );
   b.taskRunTimeHighWaterMarkIs( 90ns );
   b.taskLastSchedulingLatencyIs( 3ns );
   b.taskSchedulingLatencyHighWaterMarkIs( 2ns );
   b.taskCompletedCountIs( 5 );
   b.taskStatusIs( TaskStat::TaskStatus( 16 ) );
   a += b;
   EXPECT_EQ( a.taskRunCount(), 6u );
   EXPECT_EQ( a.taskTotalRunTime(), 20ns );
   EXPECT_EQ( a.taskFirstRunTimestamp(), TaskTimeStamp( 5ns ) );
   EXPECT_EQ( a.taskLastRunTimestamp(), TaskTimeStamp( 6ns ) );
   EXPECT_EQ( a.taskWorkCountTotal(), 14u );
   EXPECT_EQ( a.taskWorkCountDecayAvg(), 2.5f );
   EXPECT_EQ( a.taskWorkCountHighWaterMark(), 4u ) << "a set mark beats an unset one";
   EXPECT_EQ( a.taskWorkPending(), 9u );
   EXPECT_EQ( a.taskWorkPendingHighWaterMark(), 11u );
   EXPECT_EQ( a.taskQuantumViolation200(), 2u );
   EXPECT_EQ( a.taskQuantumViolation500(), 4u );
   EXPECT_EQ( a.taskRunTimeHighWaterMark(), 100ns );
   EXPECT_EQ( a.taskLastSchedulingLatency(), 3ns );
   EXPECT_EQ( a.taskSchedulingLatencyHighWaterMark(), 2ns );
   EXPECT_EQ( a.taskCompletedCount(), 2u ) << "one task more, whatever the other counted";
   EXPECT_TRUE( a.taskStatus().taskSuspended() );

   TaskStat unset( "name", nullptr, TaskPriority::normal );
   a += unset;
   EXPECT_EQ( a.taskWorkCountHighWaterMark(), 4u );
   TaskStat other( "other", nullptr, TaskPriority::normal );
   EXPECT_FATAL( a += other, "name != other" );
}

TEST( TaskStatTest, StatusShowsInTwoCharacters ) {
   const struct {
      unsigned bits;
      TaskPriority priority;
      char const* text;
   } table[] = {
         { 0, TaskPriority::normal, " n" },
         { 4, TaskPriority::critical, " C" },
         { 1, TaskPriority::low, "tl" },
         { 1 | 2 | 4, TaskPriority::normal, "TN" },
         { 1 | 2 | 64, TaskPriority::high, "Xh" },
         { 16 | 64 | 1, TaskPriority::absolute, "Sa" },
         { 8 | 16 | 4, TaskPriority::scavenge, "*S" },
   };
   for( const auto& row : table ) {
      TaskStat stat( "x", nullptr, row.priority );
      stat.taskStatusIs( TaskStat::TaskStatus( static_cast<std::uint8_t>( row.bits ) ) );
      EXPECT_EQ( stat.taskStatusString(), row.text ) << row.bits;
   }
   TaskStat::TaskStatus status;
   status.taskTimerRunningIs( true );
   status.schedulerSuspendedIs( true );
   status.taskTimerRunningIs( false );
   EXPECT_EQ( status.bits(), 64 );
}

} // namespace
