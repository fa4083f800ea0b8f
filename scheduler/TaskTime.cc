#include <Quarn/scheduler/TaskTime.h>

#include <fmt/format.h>

#include <atomic>
#include <ostream>

#include <time.h>

namespace Quarn {

namespace {

constinit std::atomic<TaskTimeStamp ( * )()> clockForTest{ nullptr };

} // namespace

TaskTimeStamp taskTimeNow() {
   if( const auto clock = clockForTest.load( std::memory_order_relaxed ) ) [[unlikely]] {
      return clock();
   }
   // What the steady clock reads, without the call between.
   timespec now;
   clock_gettime( CLOCK_MONOTONIC, &now );
   return TaskTimeStamp( std::chrono::seconds( now.tv_sec ) +
                         std::chrono::nanoseconds( now.tv_nsec ) );
}

TaskTimeDuration durationOfSeconds( double seconds ) {
   const double ns = seconds * 1e9;
   // 2^63, the first that does not fit.
   return ns < 9223372036854775808.0 ? TaskTimeDuration( static_cast<std::int64_t>( ns ) )
                                     : TaskTimeDuration::max();
}

void taskClockForTestIs( TaskTimeStamp ( *clock )() ) {
   clockForTest.store( clock, std::memory_order_relaxed );
}

String durationToString( TaskTimeDuration duration ) {
   const auto v = duration.count();
   if( v > 3'599'999'999'999 ) {
      return String( fmt::format( "{}min", v / 60'000'000'000 ) );
   }
   if( v > 59'999'999'999 ) {
      return String( fmt::format( "{}s", v / 1'000'000'000 ) );
   }
   if( v > 999'999 ) {
      return String( fmt::format( "{}ms", v / 1'000'000 ) );
   }
   if( v <= 999 ) {
      return String( fmt::format( "{}ns", v ) );
   }
   return String( fmt::format( "{}\u00b5s", v / 1'000 ) );
}

std::ostream& operator<<( std::ostream& out, const TaskTimeDuration& duration ) {
   return out << durationToString( duration );
}

} // namespace Quarn
