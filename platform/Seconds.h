// Seconds as the library's interfaces have them, and as libevent wants them.

#pragma once

#include <sys/time.h>

namespace Quarn::Platform {

// Whole seconds and whole microseconds, both truncated. Negative values and -infinity give 0;
// values above 1e15, which libevent would wrap into the past, give 1e15.
//
// Errors: fatal on NaN ("invalid timeout ...").
timeval secondsToTimeval( double seconds );

inline bool isBefore( const timeval& a, const timeval& b ) {
   return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

} // namespace Quarn::Platform
