// The clock of timers.

#pragma once

#include <Quarn/Export.h>

namespace Quarn {

// Seconds on the framework's clock: looks like Unix time, never steps when the wall clock is set,
// and includes the thread's virtual-time offset. Task accounting uses the steady clock instead
// (`scheduler/TaskTime.h`).
//
// Thread: any. Threads with different virtual-time offsets disagree, so never hand expiry times
// from one thread to another.
ORUQUARN_API double time();

} // namespace Quarn
