// A counters plugin that keeps one counter, and what it was told.

#include "platform/plugins/TestCounters.h"

namespace {

TestCounters plugin;
[[maybe_unused]] const bool registered = ( Quarn::Platform::registerPlugin( &plugin ), true );

} // namespace
