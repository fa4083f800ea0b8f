// Process-wide switches that tell the library how many threads use it, and who the caller is.
//
// The thread-safe-pointer mode decides how reference counts are kept (see RefCount.h). A process
// that runs the library on one thread only switches it off early in main() and saves the locked
// instructions:
//
//     Quarn::ThreadControl::threadSafePointerIs( false );

#pragma once

#include <Quarn/base/Export.h>

#include <atomic>
#include <sys/types.h>

namespace Quarn {

namespace Impl {

// The mode behind ThreadControl::threadSafePointer(). Exported so that the read is inline; written
// by ThreadControl only.
extern QUARN_BASE_API std::atomic<bool> threadSafePointerMode;

// Installs the function that ThreadControl calls, with the new value, after each change of the
// mode; null removes it. There is one such function, and it belongs to the object framework.
//
// Thread: before threads are started, like the change of the mode itself.
QUARN_BASE_API void threadSafePointerIsFnIs( void ( *fn )( bool ) );

} // namespace Impl

// The thread-safe-pointer mode of the process; on at the start, which is right for every program.
struct ThreadControl {
   // Whether reference counts are kept with atomic read-modify-writes.
   //
   // Thread: any. One relaxed load.
   static bool threadSafePointer() noexcept {
      return Impl::threadSafePointerMode.load( std::memory_order_relaxed );
   }

   // Switches the mode. An unchanged value does nothing; a change also calls the function installed
   // with Impl::threadSafePointerIsFnIs(), after the new value is in force.
   //
   // Thread: any, but only while a single thread uses the library. Counts are kept in the same
   //         variable in both modes, so objects that already exist stay valid.
   QUARN_BASE_API static void threadSafePointerIs( bool on );
};

// The kernel's id of the calling thread. Remembered per thread, so only the first call in a thread
// enters the kernel. A forked child forgets what its parent remembered; one made by a bare clone()
// system call does not.
QUARN_BASE_API pid_t gettid();

// Whether the caller is the thread that main() runs on. In a child process that is the thread that
// called fork(), whichever it was in the parent. Costs what gettid() costs.
QUARN_BASE_API bool isMainThread();

// Whether objects of which there is one by default exist once per thread (true, the start value)
// or once per process.
//
// Thread: any.
QUARN_BASE_API bool hasThreadLocalSingletons();

// Chooses between the two. Objects that were already handed out are not moved, so this belongs
// before the first use of any of them.
QUARN_BASE_API void hasThreadLocalSingletonsIs( bool on );

} // namespace Quarn
