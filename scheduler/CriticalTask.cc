#include <Quarn/scheduler/CriticalTask.h>

#include "debug/Handlers.h"
#include "scheduler/TaskAnchors.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include <pthread.h>

extern "C" {
void ( *assertNotRunningCriticalTaskFn )() = nullptr;
}

namespace Quarn {

constinit std::atomic<unsigned> auxThreadCount{ 0 };

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

constinit thread_local bool runningCriticalTask = false;

void checkNotRunningCriticalTask() {
   if( runningCriticalTask ) {
      QUARN_STREAM_FAIL_AS( "assertNotRunningCriticalTask",
                            "Disallowed operation while in running critical task" );
   }
}

// The global mutex, never destroyed, and usable in the child of a fork that another thread's
// critical run was overtaken by.
struct Marker {
   std::mutex mutex;
   // Threads that run a critical task.
   unsigned count = 0;
};

Marker& marker() {
   static Marker* const theMarker = [] {
      // Made first: handlers that were set twice would lock twice.
      auto made = std::make_unique<Marker>();
      const int error = pthread_atfork(
            [] { marker().mutex.lock(); }, [] { marker().mutex.unlock(); },
            [] {
               // The other threads, and with them their shares, do not exist here.
               marker().count = runningCriticalTask ? 1 : 0;
               if( !runningCriticalTask ) {
                  std::atomic_ref( assertNotRunningCriticalTaskFn ).store( nullptr );
               }
               marker().mutex.unlock();
            } );
      if( error != 0 ) {
         throw std::bad_alloc();
      }
      return made.release();
   }();
   return *theMarker;
}

// Made while the library is loaded: a child that is forked in the middle of it would have it half
// made for ever.
[[maybe_unused]] Marker const& madeAtLoad = marker();

} // namespace

CriticalTaskMarker::CriticalTaskMarker( bool critical ) : marked_( critical ) {
   if( !critical ) {
      return;
   }
   Marker& m = marker();
   const std::lock_guard lock( m.mutex );
   if( runningCriticalTask ) {
      QUARN_STREAM_FAIL( "running=" << runningCriticalTask );
   }
   runningCriticalTask = true;
   ++m.count;
   // Readers take no lock.
   std::atomic_ref( assertNotRunningCriticalTaskFn ).store( &checkNotRunningCriticalTask );
}

void CriticalTaskMarker::prepare() { marker(); }

CriticalTaskMarker::~CriticalTaskMarker() {
   if( marked_ ) {
      release();
   }
}

void CriticalTaskMarker::release() {
   if( !std::exchange( marked_, false ) ) {
      return;
   }
   Marker& m = marker();
   const std::lock_guard lock( m.mutex );
   if( !runningCriticalTask ) {
      QUARN_STREAM_FAIL( "running=" << runningCriticalTask );
   }
   runningCriticalTask = false;
   if( --m.count == 0 ) {
      const std::atomic_ref hook( assertNotRunningCriticalTaskFn );
      if( hook.load() != &checkNotRunningCriticalTask ) {
         QUARN_STREAM_FAIL( "assertNotRunningCriticalTaskFn "
                            << reinterpret_cast<void*>( hook.load() ) );
      }
      hook.store( nullptr );
   }
}

} // namespace Quarn
