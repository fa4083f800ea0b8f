#include "prove/WallClock.h"

#include <atomic>
#include <cerrno>
#include <ctime>

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace prove {

namespace {

constinit std::atomic<std::int64_t> offset{ 0 };

int rawRead( clockid_t clock, timespec* now ) {
   return static_cast<int>( syscall( SYS_clock_gettime, clock, now ) );
}

double rawSeconds( clockid_t clock ) {
   timespec now{};
   rawRead( clock, &now );
   return static_cast<double>( now.tv_sec ) + static_cast<double>( now.tv_nsec ) / 1e9;
}

bool isWallClock( clockid_t clock ) {
   return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

timespec wallNow() {
   timespec now{};
   rawRead( CLOCK_REALTIME, &now );
   now.tv_sec += offset.load( std::memory_order_relaxed );
   return now;
}

} // namespace

void wallClockStep( std::int64_t seconds ) {
   offset.fetch_add( seconds, std::memory_order_relaxed );
}

double rawMonotonic() { return rawSeconds( CLOCK_MONOTONIC ); }

double rawMonotonicCoarse() { return rawSeconds( CLOCK_MONOTONIC_COARSE ); }

} // namespace prove

// Everybody's, in a program whose own functions are hidden.
#pragma GCC visibility push( default )

extern "C" {

int clock_gettime( clockid_t clock, timespec* now ) noexcept {
   const int result = prove::rawRead( clock, now );
   if( result == 0 && prove::isWallClock( clock ) ) {
      now->tv_sec += prove::offset.load( std::memory_order_relaxed );
   }
   return result;
}

int gettimeofday( timeval* now, void* ) noexcept {
   const timespec wall = prove::wallNow();
   now->tv_sec = wall.tv_sec;
   now->tv_usec = wall.tv_nsec / 1000;
   return 0;
}

time_t time( time_t* now ) noexcept {
   const time_t wall = prove::wallNow().tv_sec;
   if( now ) {
      *now = wall;
   }
   return wall;
}

} // extern "C"

#pragma GCC visibility pop
