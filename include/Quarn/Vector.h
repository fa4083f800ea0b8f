// A vector whose memory the base library's trackers count.

#pragma once

#include <Quarn/base/MemTrack.h>

#include <vector>

namespace Quarn {

template<typename T>
using BasicVector = std::vector<T, Allocator<T>>;

} // namespace Quarn
