// Virtual time of the libevent mode.

#pragma once

#include <Quarn/Export.h>

#include <atomic>

namespace Quarn {

// The process-wide switch; read it through `leFastForward()`.
extern ORUQUARN_API std::atomic<bool> fastForward;

// Whether loops jump to their next timer instead of sleeping.
ORUQUARN_API bool leFastForward();

// Seconds by which the calling thread's virtual time is ahead of real time. Only grows.
ORUQUARN_API double leVirtualTimeOffset();

} // namespace Quarn
