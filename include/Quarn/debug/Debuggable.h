// The base of classes that trace through a handler of their own.

#pragma once

#include <Quarn/debug/DebugHandler.h>
#include <Quarn/debug/Trace.h>

namespace Quarn {

// A value that shares ownership of a debug handler. An empty one has no level enabled, so tracing
// through it does nothing.
class ORUQUARN_API Debuggable {
 public:
   Debuggable() = default;

   // Shares `handler`, which may be empty.
   explicit Debuggable( const std::shared_ptr<Platform::DebugHandler>& handler );

   // Shares `handler`.
   //
   // Errors: `std::bad_weak_ptr` when no shared pointer owns it.
   explicit Debuggable( Platform::DebugHandler& handler );

   // Makes a handler of its own, as `Platform::getDebugHandler` does.
   Debuggable( const String& name, bool removeFacilityOnDestroy );

   // Whether `level` is traced; false for an empty value.
   bool levelEnabled( unsigned level ) const { return handler_ && handler_->levelEnabled( level ); }

   // The handler; empty for an empty value.
   const std::shared_ptr<Platform::DebugHandler>& debugHandler() const { return handler_; }

 private:
   std::shared_ptr<Platform::DebugHandler> handler_;
};

// Writes a trace line through the value's handler; does nothing for an empty value.
template<typename... Args>
void fmtrace( const Debuggable& debuggable, unsigned short level, char const* file,
              char const* function, int line, char const* className,
              fmt::format_string<Args...> format, Args&&... args ) noexcept {
   if( Platform::DebugHandler const* handler = debuggable.debugHandler().get() ) {
      Impl::vfmtrace( *handler, level, className, file, function, line, format,
                      fmt::make_format_args( args... ) );
   }
}

} // namespace Quarn
