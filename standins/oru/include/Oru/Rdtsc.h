// The cycle counter's rate, under the framework's name.

#pragma once

#include <Quarn/base/Rdtsc.h>

#include <cstdint>

namespace Oru {

struct Rdtsc {
   // About how far the cycle counter goes in 500 microseconds.
   static std::uint64_t approxTicksIn500Usec() { return Quarn::Rdtsc::ticksIn500Usec(); }
};

} // namespace Oru
