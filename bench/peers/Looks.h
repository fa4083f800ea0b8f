// Counts how often this process looks at its descriptors, whichever library does it.

#pragma once

#include <cstdint>

namespace bench::peers {

// Calls of epoll_wait, poll and their kin so far.
std::int64_t looks();

} // namespace bench::peers
