#include <Quarn/debug/Assert.h>

#include "debug/Handlers.h"

#include <Quarn/base/Exception.h>

#include <exception>

namespace Quarn {

namespace {

constinit std::atomic<bool> forceTraceOnAssert{ false };

bool traceAssertions() {
   return forceTraceOnAssert.load( std::memory_order_relaxed ) || !throwOnAssertFail();
}

// `handler` may be null before load time; the text is then only thrown.
[[noreturn]] void failFormatted( Platform::DebugHandler const* handler, char const* className,
                                 char const* file, char const* function, int line,
                                 fmt::string_view format, fmt::format_args arguments ) {
   const String message =
         Impl::vtracestr( true, className, file, function, line, format, arguments );
   if( handler && traceAssertions() ) {
      dumpDebugMsg( message, 0, *handler, file, function, line );
   }
   AssertException::throwException( message );
}

[[noreturn]] void failStreamed( Platform::DebugHandler const* handler, Platform::DebugStream& text,
                                char const* file, char const* function, int line ) {
   // The function stands between file and line here, unlike in the formatted form.
   Platform::DebugStream message;
   message << Impl::orNull( file ) << ":" << Impl::orNull( function ) << ":" << line << ": "
           << text.str();
   const String what( message.str() );
   if( handler && traceAssertions() ) {
      handler->dump( message, 0, file, function, line );
   }
   AssertException::throwException( what );
}

} // namespace

namespace Impl {

void vfmassert( const Platform::DebugHandler& handler, char const* className, char const* file,
                char const* function, int line, fmt::string_view format,
                fmt::format_args arguments ) {
   failFormatted( &handler, className, file, function, line, format, arguments );
}

void vfmassert( char const* className, char const* file, char const* function, int line,
                fmt::string_view format, fmt::format_args arguments ) {
   failFormatted( Platform::assertHandler.handler(), className, file, function, line, format,
                  arguments );
}

void vdieAt( const SourceLoc& at, fmt::string_view format, fmt::format_args arguments ) noexcept {
   if( Platform::DebugHandler const* handler = Platform::assertHandler.handler() ) {
      dumpDebugMsg(
            vtracestr( true, at.className, at.file, at.function, at.line, format, arguments ), 0,
            *handler, at.file, at.function, at.line );
   }
   std::terminate();
}

} // namespace Impl

void debugAndAssert( Platform::DebugHandler& handler, Platform::DebugStream& text, char const* file,
                     char const* function, int line ) {
   failStreamed( &handler, text, file, function, line );
}

void debugAndAssert( Platform::DebugStream& text, char const* file, char const* function,
                     int line ) {
   failStreamed( Platform::assertHandler.handler(), text, file, function, line );
}

void forceTraceOnAssertIs( bool force ) {
   forceTraceOnAssert.store( force, std::memory_order_relaxed );
}

} // namespace Quarn
