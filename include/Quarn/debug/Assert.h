// Fatal assertions: misuse and internal inconsistency end here, in `Quarn::AssertException`.
//
// Two forms build the text. `fmassert` formats: "file:line: Class::function() text".
// `debugAndAssert` takes a stream: "file:function:line: text". Callers treat both as not returning.
//
// The text is also traced, at level 0 and whatever the mask says, when the base library does not
// run in its throw-on-assert mode or `forceTraceOnAssertIs( true )` was called; a line that finds
// no memory is dropped.

#pragma once

#include <Quarn/debug/Trace.h>

namespace Quarn {

namespace Impl {

[[noreturn]] ORUQUARN_API void vfmassert( const Platform::DebugHandler& handler,
                                          char const* className, char const* file,
                                          char const* function, int line, fmt::string_view format,
                                          fmt::format_args arguments );
// On the load-time handler "Assert".
[[noreturn]] ORUQUARN_API void vfmassert( char const* className, char const* file,
                                          char const* function, int line, fmt::string_view format,
                                          fmt::format_args arguments );

} // namespace Impl

// Fails with a formatted text.
//
// Errors: always throws `AssertException`.
template<typename... Args>
[[noreturn]] void fmassert( const Platform::DebugHandler& handler, char const* className,
                            char const* file, char const* function, int line,
                            fmt::format_string<Args...> format, Args&&... args ) {
   Impl::vfmassert( handler, className, file, function, line, format,
                    fmt::make_format_args( args... ) );
}

// The same on the load-time handler "Assert".
template<typename... Args>
[[noreturn]] void fmassert( char const* className, char const* file, char const* function, int line,
                            fmt::format_string<Args...> format, Args&&... args ) {
   Impl::vfmassert( className, file, function, line, format, fmt::make_format_args( args... ) );
}

// Fails with a text that the caller has streamed.
//
// Errors: always throws `AssertException`.
[[noreturn]] ORUQUARN_API void debugAndAssert( Platform::DebugHandler& handler,
                                               Platform::DebugStream& text, char const* file,
                                               char const* function, int line );

// The same on the load-time handler "Assert".
[[noreturn]] ORUQUARN_API void debugAndAssert( Platform::DebugStream& text, char const* file,
                                               char const* function, int line );

// Whether assertions are traced even in throw-on-assert mode; off at first. Any thread.
ORUQUARN_API void forceTraceOnAssertIs( bool force );

} // namespace Quarn
