// Hooks of an optional heap checker.
//
// A checker that is loaded with the program is told of blocks that a custom allocator hands out and
// takes back:
//
//     void* const hook = Quarn::HeapChecker::resolveAllocSym( handler );
//
// Without the environment variable "HEAPCHECK" or "HEAP_CHECK_QUARN_ENABLED_DONT_DELETE" (set to
// anything, the empty text too) nothing is looked up and the answer is null.
//
// Thread: any, as long as no other changes the environment.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/debug/DebugHandler.h>

namespace Quarn {

struct HeapChecker {
   // The address of "HeapChecker_RecordClientAlloc", null without a checker.
   ORUQUARN_API static void* resolveAllocSym( Platform::DebugHandler& handler );

   // The address of "HeapChecker_RecordClientFree", null without a checker.
   ORUQUARN_API static void* resolveFreeSym( Platform::DebugHandler& handler );
};

} // namespace Quarn
