// Virtual time as the loop functions use it.

#pragma once

#include <sys/time.h>

namespace Quarn::Platform {

// `fastForwardDelayToFirstTimer()` for a thread that has a base, whatever the switch says. A loop
// looks at the switch once a step: the main thread may change it at any time.
bool delayToFirstTimer( timeval* out );

} // namespace Quarn::Platform
