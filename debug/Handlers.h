// The seven load-time handlers, and the macros with which the library traces and asserts.
//
// A source file that traces names its family once:
//
//     namespace { constexpr char sourceFile[] = "TimerWheelCpp"; }
//
// and the macros take the file from there, the line and the function from where they stand. They
// trace on a load-time handler, on a `DebugHandler&` of the caller's, or on a `Debuggable`.

#pragma once

#include <Quarn/debug/Assert.h>
#include <Quarn/debug/Debuggable.h>
#include <Quarn/debug/Trace.h>

#include <atomic>
#include <cstddef>
#include <memory>

namespace Quarn::Platform {

// Room for one load-time handler.
//
// It is constant-initialised and never destroyed, so that a trace before the handlers exist (none
// of ours), or after they are released (a detached thread, the destructor of a static), reads a
// mask of 0 instead of freed memory.
class HandlerSlot {
 public:
   // One load of the mask's address, one of the mask, one bit test.
   bool levelEnabled( unsigned level ) const {
      return level < 16 &&
             ( __atomic_load_n( levels_.load( std::memory_order_relaxed ), __ATOMIC_RELAXED ) >>
                     level &
               1 ) != 0;
   }

   // Null before load time only.
   DebugHandler* handler() const { return handler_.load( std::memory_order_relaxed ); }

   void handlerIs( std::shared_ptr<DebugHandler> handler );
   // From here on nothing is enabled; the handler is never destroyed.
   void release();

 private:
   static constexpr unsigned short noLevels = 0;

   std::atomic<unsigned short const*> levels_{ &noLevels };
   std::atomic<DebugHandler*> handler_{ nullptr };
   // The owning shared pointer, as bytes, so that the slot is trivially destructible.
   alignas( std::shared_ptr<DebugHandler> )
         std::byte owner_[ sizeof( std::shared_ptr<DebugHandler> ) ] = {};
};

// In the order in which they are made; released in the reverse order at process exit.
extern HandlerSlot utilHandler;
extern HandlerSlot timerWheelHandler;
extern HandlerSlot taskSchedulerHandler;
extern HandlerSlot pluginHandler;
extern HandlerSlot oruQuarnHandler;
extern HandlerSlot libeventHandler;
extern HandlerSlot assertHandler;

} // namespace Quarn::Platform

namespace Quarn::Impl {

// Where a trace or an assertion stands. Built by the macros alone, so that the character strings
// cannot change places.
struct SourceLoc {
   char const* className;
   char const* file;
   char const* function;
   int line;
};

template<typename... Args>
[[gnu::cold, gnu::noinline]] void traceAt( const Platform::HandlerSlot& slot, unsigned short level,
                                           const SourceLoc& at, fmt::format_string<Args...> format,
                                           Args&&... args ) noexcept {
   if( Platform::DebugHandler const* handler = slot.handler() ) {
      vfmtrace( *handler, level, at.className, at.file, at.function, at.line, format,
                fmt::make_format_args( args... ) );
   }
}

template<typename... Args>
[[gnu::cold, gnu::noinline]] void
traceAt( const Platform::DebugHandler& handler, unsigned short level, const SourceLoc& at,
         fmt::format_string<Args...> format, Args&&... args ) noexcept {
   vfmtrace( handler, level, at.className, at.file, at.function, at.line, format,
             fmt::make_format_args( args... ) );
}

// The value has a handler, as a level of its own is enabled.
template<typename... Args>
[[gnu::cold, gnu::noinline]] void traceAt( const Debuggable& debuggable, unsigned short level,
                                           const SourceLoc& at, fmt::format_string<Args...> format,
                                           Args&&... args ) noexcept {
   vfmtrace( *debuggable.debugHandler(), level, at.className, at.file, at.function, at.line, format,
             fmt::make_format_args( args... ) );
}

template<typename... Args>
[[noreturn, gnu::cold, gnu::noinline]] void
assertAt( const SourceLoc& at, fmt::format_string<Args...> format, Args&&... args ) {
   vfmassert( at.className, at.file, at.function, at.line, format,
              fmt::make_format_args( args... ) );
}

// On the caller's handler instead of "Assert".
template<typename... Args>
[[noreturn, gnu::cold, gnu::noinline]] void
assertAt( const Platform::DebugHandler& handler, const SourceLoc& at,
          fmt::format_string<Args...> format, Args&&... args ) {
   vfmassert( handler, at.className, at.file, at.function, at.line, format,
              fmt::make_format_args( args... ) );
}

// On a load-time handler. Before load time there is none, and the text is only thrown.
template<typename... Args>
[[noreturn, gnu::cold, gnu::noinline]] void
assertAt( const Platform::HandlerSlot& slot, const SourceLoc& at,
          fmt::format_string<Args...> format, Args&&... args ) {
   if( Platform::DebugHandler const* handler = slot.handler() ) {
      vfmassert( *handler, at.className, at.file, at.function, at.line, format,
                 fmt::make_format_args( args... ) );
   }
   vfmassert( at.className, at.file, at.function, at.line, format,
              fmt::make_format_args( args... ) );
}

// For a destructor that finds its object in use: no exception can leave it, so the text is traced
// at level 0 whatever the mode is, and the process ends.
[[noreturn]] void vdieAt( const SourceLoc& at, fmt::string_view format,
                          fmt::format_args arguments ) noexcept;

template<typename... Args>
[[noreturn]] void dieAt( const SourceLoc& at, fmt::format_string<Args...> format,
                         Args&&... args ) noexcept {
   vdieAt( at, format, fmt::make_format_args( args... ) );
}

} // namespace Quarn::Impl

#define QUARN_SOURCE_AT( className, function ) \
   ::Quarn::Impl::SourceLoc { className, sourceFile, function, __LINE__ }

// Traces on a handler as if from `function`.
#define QUARN_TRACE_AS( slot, level, className, function, ... )                       \
   do {                                                                               \
      if( ( slot ).levelEnabled( level ) ) [[unlikely]] {                             \
         ::Quarn::Impl::traceAt( slot, level, QUARN_SOURCE_AT( className, function ), \
                                 __VA_ARGS__ );                                       \
      }                                                                               \
   } while( false )

#define QUARN_TRACE( slot, level, className, ... ) \
   QUARN_TRACE_AS( slot, level, className, __func__, __VA_ARGS__ )

// Fails with a formatted text as if from `function`.
#define QUARN_FAIL_AS( className, function, ... ) \
   ::Quarn::Impl::assertAt( QUARN_SOURCE_AT( className, function ), __VA_ARGS__ )

#define QUARN_FAIL( className, ... ) QUARN_FAIL_AS( className, __func__, __VA_ARGS__ )

// Fails on a handler other than "Assert": a load-time one or a `DebugHandler&`.
#define QUARN_FAIL_ON( handler, className, ... ) \
   ::Quarn::Impl::assertAt( handler, QUARN_SOURCE_AT( className, __func__ ), __VA_ARGS__ )

// Ends the process with a formatted text as if from `function`.
#define QUARN_DIE( className, function, ... ) \
   ::Quarn::Impl::dieAt( QUARN_SOURCE_AT( className, function ), __VA_ARGS__ )

// Fails with a streamed text as if from `function`.
#define QUARN_STREAM_FAIL_AS( function, ... )                                   \
   do {                                                                         \
      ::Quarn::Platform::DebugStream quarnFailText;                             \
      quarnFailText << __VA_ARGS__;                                             \
      ::Quarn::debugAndAssert( quarnFailText, sourceFile, function, __LINE__ ); \
   } while( false )

#define QUARN_STREAM_FAIL( ... ) QUARN_STREAM_FAIL_AS( __func__, __VA_ARGS__ )
