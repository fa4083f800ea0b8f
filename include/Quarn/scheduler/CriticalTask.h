// What the rest of the process sees of critical tasks and of the thread check.

#pragma once

#include <Quarn/Export.h>

#include <atomic>

// While any thread runs a critical task this points to a check that fails on that thread
// ("Disallowed operation while in running critical task"); otherwise it is null. Code that must not
// run in a critical task, because it blocks for example, calls it when it is not null.
//
// Thread: any. Load it once, into a local, and test and call that; it changes under the hands of
// other threads.
extern "C" ORUQUARN_API void ( *assertNotRunningCriticalTaskFn )();

namespace Quarn {

// While it is not 0 the thread check of schedulers is off, for auxiliary threads that operate on
// them at start-up or shut-down. The caller sees to it that only one thread does at a time.
extern ORUQUARN_API std::atomic<unsigned> auxThreadCount;

} // namespace Quarn
