// The thread-local state of the libevent binding.

#pragma once

#include <event2/event.h>
#include <event2/event_struct.h>

#include <atomic>
#include <cstdint>
#include <exception>

#include <sys/types.h>

namespace Quarn::Platform {

struct ThreadBase {
   event_base* base = nullptr;
   // The process in which the base was made or last set up again.
   pid_t pid = 0;
   bool mainThread = false;
   // Whether the end of the thread frees the base.
   bool freedAtThreadEnd = false;
   // Whether one of our loop functions is on this thread's stack.
   bool loopRunning = false;
   // Different for every base that was ever registered, so that a new base at the address of a
   // freed one is not taken for it; 0 is no base.
   std::uint64_t generation = 0;
};

// Constant-initialised and read on every event, hence the direct access model.
extern constinit thread_local ThreadBase threadBase
      __attribute__( ( tls_model( "initial-exec" ) ) );

// Whether events that were assigned under `generation` are on the thread's current base. An event
// of a base that was freed must not be handed to libevent, which would touch the freed base.
inline bool onCurrentBase( std::uint64_t generation ) {
   return threadBase.base && generation == threadBase.generation;
}

// The id of this process on a page that the kernel clears in the child of a fork: reads 0 there.
// Null until the first base is registered, and where the kernel has no such pages.
extern constinit std::atomic<std::atomic<pid_t>*> processMark;

// `getpid()`, and taking note of it.
pid_t processAsked();

// The id of this process, without a system call when it is known.
inline pid_t process() {
   std::atomic<pid_t> const* mark = processMark.load( std::memory_order_acquire );
   const pid_t known = mark ? mark->load( std::memory_order_relaxed ) : 0;
   return known != 0 ? known : processAsked();
}

// In the child of a fork, sets the base up again before anything touches descriptors: the watch
// list in the kernel is still shared with the parent, which would lose what the child deletes.
void baseAfterFork();

// Takes the exception in flight out of a libevent callback. While a loop function of ours runs, the
// exception is kept and the loop broken, and the loop function throws it again; libevent's own
// frames are never unwound then, which would leave the base unusable. When the caller drives the
// base by itself, the exception is thrown on.
void escapeFromCallback();

// The exception kept by `escapeFromCallback`, if any; the caller takes it over.
std::exception_ptr takeEscaped() noexcept;

} // namespace Quarn::Platform
