#include <Quarn/platform/VirtualTime.h>

namespace Quarn {

constinit std::atomic<bool> fastForward{ false };

bool leFastForward() { return fastForward.load( std::memory_order_relaxed ); }

double leVirtualTimeOffset() { return 0.0; }

} // namespace Quarn
