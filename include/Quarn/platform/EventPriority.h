// How urgently the event loop serves an event.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

#include <fmt/format.h>

#include <cstdint>

namespace Quarn::Platform {

// Every base is made with exactly these two priorities, so the value is libevent's.
enum class EventPriority : std::uint8_t {
   // Served before anything else: a timer of this priority that restarts itself at once starves the
   // loop, its breaks included.
   eventPriorityStrictHigh = 0,
   eventPriorityDefault = 1, // descriptors, callbacks, loop breaks, timers without a priority
};

// The name of the value, or "Invalid EventPriority=" and its number.
ORUQUARN_API String toString( EventPriority priority );

} // namespace Quarn::Platform

template<>
struct fmt::formatter<Quarn::Platform::EventPriority> : fmt::formatter<std::string_view> {
   template<typename Context>
   auto format( Quarn::Platform::EventPriority priority, Context& context ) const {
      return fmt::formatter<std::string_view>::format( Quarn::Platform::toString( priority ),
                                                       context );
   }
};
