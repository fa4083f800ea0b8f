#include <Quarn/util/HeapChecker.h>

#include <Quarn/util/Process.h>

#include <cstdlib>

namespace Quarn {

namespace {

bool isEnabled() {
   return std::getenv( "HEAPCHECK" ) || std::getenv( "HEAP_CHECK_QUARN_ENABLED_DONT_DELETE" );
}

} // namespace

void* HeapChecker::resolveAllocSym( Platform::DebugHandler& handler ) {
   return isEnabled() ? Util::resolveSym( handler, "HeapChecker_RecordClientAlloc" ) : nullptr;
}

void* HeapChecker::resolveFreeSym( Platform::DebugHandler& handler ) {
   return isEnabled() ? Util::resolveSym( handler, "HeapChecker_RecordClientFree" ) : nullptr;
}

} // namespace Quarn
