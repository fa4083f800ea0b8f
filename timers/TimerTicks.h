// Seconds as ticks of the wheel.

#pragma once

#include <timeout.h>

namespace Quarn {

constexpr unsigned ticksPerSecond = 100;

// 100 x seconds, rounded up or down in extended precision: in plain double arithmetic 100 x 0.7 is
// 70, in extended precision it lies below. Values below 0, and NaN, give 0; values that do not fit
// 64 bits give the largest tick, with a trace.
timeout_t timeToTickCeil( double seconds );
timeout_t timeToTickFloor( double seconds );

} // namespace Quarn
