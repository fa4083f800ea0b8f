// Time as task accounting knows it: the steady clock, in nanoseconds.
//
// Timers use another clock, `Quarn::time()`, which virtual time can move.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

#include <chrono>
#include <iosfwd>

namespace Quarn {

using TaskTimeStamp = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;
// Signed, 64 bits.
using TaskTimeDuration = std::chrono::nanoseconds;

// The steady clock, which the whole scheduler reads through this one function.
ORUQUARN_API TaskTimeStamp taskTimeNow();

// Replaces the clock; null restores it. The function must be callable from any thread that
// schedules tasks.
ORUQUARN_API void taskClockForTestIs( TaskTimeStamp ( *clock )() );

// `seconds` as a duration, truncated; what does not fit becomes the largest one, 292 years. Not
// negative.
ORUQUARN_API TaskTimeDuration durationOfSeconds( double seconds );

// A whole number with its unit, truncated: nanoseconds up to 999 (and when negative), microseconds,
// milliseconds up to 59999, seconds below an hour, minutes from there on.
ORUQUARN_API String durationToString( TaskTimeDuration duration );

// Writes the text of `durationToString`.
ORUQUARN_API std::ostream& operator<<( std::ostream& out, const TaskTimeDuration& duration );

} // namespace Quarn
