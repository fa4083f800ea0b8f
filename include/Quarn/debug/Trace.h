// Formatting entry points: trace lines, and texts that are built to be thrown.
//
// Formats use the "{}" syntax and are checked at compile time. A text from a class reads
// "Class::function() message"; with the empty class name it reads "function() message", and with a
// null class name it is the message alone.
//
// The argument orders differ between the functions, as the lists below say; the macro keeps callers
// from mixing up three neighbouring character strings.
//
// When memory is out: a trace whose text finds no memory ends the process; a line that finds no
// memory is dropped, where the text is there and is laid out.

#pragma once

#include <Quarn/debug/DebugHandler.h>

#include <Oru/Trace.h>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <utility>

namespace Quarn {

namespace Impl {

// The text of a trace or an assertion, from packed arguments. With `withLocation` it begins with
// "file:line: ".
ORUQUARN_API String vtracestr( bool withLocation, char const* className, char const* file,
                               char const* function, int line, fmt::string_view format,
                               fmt::format_args arguments );

// Writes a trace line without testing the level. An exception inside ends the process.
[[gnu::cold]] ORUQUARN_API void vfmtrace( const Platform::DebugHandler& handler,
                                          unsigned short level, char const* className,
                                          char const* file, char const* function, int line,
                                          fmt::string_view format,
                                          fmt::format_args arguments ) noexcept;

// See `fmthrow`.
ORUQUARN_API String vfmthrow( const Platform::DebugHandler& handler, unsigned short level,
                              char const* className, char const* file, char const* function,
                              int line, fmt::string_view format, fmt::format_args arguments );

// `text`, or "(null)" for a null pointer, which the formatting library would refuse.
inline char const* orNull( char const* text ) { return text ? text : "(null)"; }

} // namespace Impl

// Hands a finished message to the framework, which writes it as one line. Never throws: a line
// that finds no memory is dropped.
ORUQUARN_API void dumpDebugMsg( const String& message, unsigned short level,
                                const Platform::DebugHandler& handler, char const* file,
                                char const* function, int line ) noexcept;
ORUQUARN_API void dumpDebugMsg( const String& message, unsigned short level,
                                const Oru::TraceHandle& handle, char const* file,
                                char const* function, int line ) noexcept;

// Writes a trace line. The caller has tested the level.
template<typename... Args>
void fmtrace( const Platform::DebugHandler& handler, unsigned short level, char const* file,
              char const* function, int line, char const* className,
              fmt::format_string<Args...> format, Args&&... args ) noexcept {
   Impl::vfmtrace( handler, level, className, file, function, line, format,
                   fmt::make_format_args( args... ) );
}

// Builds a text as a trace would and returns it, without writing anything.
template<typename... Args>
String fmtracestr( bool withLocation, char const* className, char const* file, char const* function,
                   int line, fmt::format_string<Args...> format, Args&&... args ) {
   return Impl::vtracestr( withLocation, className, file, function, line, format,
                           fmt::make_format_args( args... ) );
}

// Builds an error text, traces it when `level` is enabled on the handler, and returns it for the
// caller to throw.
template<typename... Args>
String fmthrow( const Platform::DebugHandler& handler, unsigned short level, char const* className,
                char const* file, char const* function, int line,
                fmt::format_string<Args...> format, Args&&... args ) {
   return Impl::vfmthrow( handler, level, className, file, function, line, format,
                          fmt::make_format_args( args... ) );
}

} // namespace Quarn

// Traces when `level` is enabled on `handler` (a `DebugHandler&`); the arguments are evaluated only
// then. The line carries this file and function.
#define QUARN_FMTRACE( handler, level, className, ... )                                            \
   do {                                                                                            \
      if( ( handler ).levelEnabled( level ) ) [[unlikely]] {                                       \
         ::Quarn::fmtrace( handler, level, __FILE__, __func__, __LINE__, className, __VA_ARGS__ ); \
      }                                                                                            \
   } while( false )
