// Process-wide trace settings: "TRACE" says which levels of which facilities are on, "TRACEFORMAT"
// how a line looks. The framework's facility manager reads both; docs/tracing.md has the syntax.
//
// Thread: these functions change the environment of the process and must not race with each other
// or with anything that reads it. None lets an exception out; a failure ends the process. A text
// that the environment finds no memory for is left out, and the settings stay what they were.

#pragma once

#include <Quarn/Export.h>

namespace Quarn::Platform {

// Adds the comma-separated items of `spec` to "TRACE" and has the settings read again. Settings add
// up over calls. Null does nothing.
ORUQUARN_API void setupQuarnDebug( char const* spec ) noexcept;

// Turns the items of `spec` off: puts "-" before each and hands the list to `setupQuarnDebug`.
// Null does nothing.
ORUQUARN_API void clearQuarnDebug( char const* spec ) noexcept;

// Replaces "TRACEFORMAT" and has the settings read again. Null does nothing.
ORUQUARN_API void setTraceFormat( char const* format ) noexcept;

// Sets "TRACEFORMAT" to the empty text, which selects the default line, and has the settings read
// again.
ORUQUARN_API void clearTraceFormat() noexcept;

// Writes the levels of every facility, and then the items of "TRACE" as they were given, to
// standard output, a line each.
ORUQUARN_API void dumpQuarnDebugMap() noexcept;

} // namespace Quarn::Platform
