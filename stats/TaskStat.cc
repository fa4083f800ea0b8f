#include <Quarn/stats/TaskStat.h>

#include "debug/Handlers.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

// The larger of two marks, of which an unset one never wins.
std::uint32_t maxMark( std::uint32_t a, std::uint32_t b ) {
   if( a == taskStatUnset ) {
      return b;
   }
   return b == taskStatUnset ? a : std::max( a, b );
}

} // namespace

TaskStat::TaskStat( String name, TaskImpl const* task, TaskPriority priority )
      : taskName_( std::move( name ) ),
        task_( task ),
        priority_( priority ) {}

String TaskStat::taskStatusString() const {
   char text[ 2 ] = { ' ', priority_.oneChar() };
   if( status_.taskCurrentlyRunning() ) {
      text[ 0 ] = '*';
   } else if( status_.taskSuspended() ) {
      text[ 0 ] = 'S';
   } else if( status_.schedulerSuspended() ) {
      text[ 0 ] = 'X';
   } else if( status_.taskTimer() ) {
      text[ 0 ] = status_.taskTimerRunning() ? 'T' : 't';
   }
   if( !status_.taskOnRunQueue() ) {
      text[ 1 ] = static_cast<char>( std::tolower( static_cast<unsigned char>( text[ 1 ] ) ) );
   }
   return String( text, sizeof( text ) );
}

TaskStat& TaskStat::operator+=( const TaskStat& other ) {
   if( taskName_ != other.taskName_ ) {
      QUARN_STREAM_FAIL( taskName_ << " != " << other.taskName_ );
   }
   runCount_ += other.runCount_;
   totalRunTime_ += other.totalRunTime_;
   workCountTotal_ += other.workCountTotal_;
   quantumViolations500_ += other.quantumViolations500_;
   quantumViolations200_ += other.quantumViolations200_;

   workCountDecayAvg_ = other.workCountDecayAvg_;
   workPending_ = other.workPending_;
   lastSchedulingLatency_ = other.lastSchedulingLatency_;
   status_ = other.status_;

   runTimeHighWaterMark_ = std::max( runTimeHighWaterMark_, other.runTimeHighWaterMark_ );
   schedulingLatencyHighWaterMark_ =
         std::max( schedulingLatencyHighWaterMark_, other.schedulingLatencyHighWaterMark_ );
   workCountHighWaterMark_ = maxMark( workCountHighWaterMark_, other.workCountHighWaterMark_ );
   workPendingHighWaterMark_ =
         maxMark( workPendingHighWaterMark_, other.workPendingHighWaterMark_ );

   // By one, whatever the other says: it stands for one task.
   ++completedCount_;
   return *this;
}

} // namespace Quarn
