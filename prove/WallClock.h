// A wall clock that can be set while the process runs.
//
// Linking this in replaces `clock_gettime`, `gettimeofday` and `time` in the whole process, the
// event library included: what they say of the wall clock is off by the steps made so far. Other
// clocks are the system's.

#pragma once

#include <cstdint>

namespace prove {

// Sets the wall clock on, or back when negative.
void wallClockStep( std::int64_t seconds );

// The system's monotonic clock, past every replacement, in seconds.
double rawMonotonic();

// The same clock at the last tick of the kernel, which is what an event base reads.
double rawMonotonicCoarse();

} // namespace prove
