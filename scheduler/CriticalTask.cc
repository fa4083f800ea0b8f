#include <Quarn/scheduler/CriticalTask.h>

#include "debug/Handlers.h"
#include "scheduler/TaskAnchors.h"

#include <atomic>
#include <mutex>
#include <type_traits>
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

// Never destroyed, and usable in the child of a fork that another thread's critical run was
// overtaken by.
struct Marker {
   std::mutex mutex;
   // Threads that run a critical task.
   unsigned count = 0;
};
static_assert( std::is_trivially_destructible_v<Marker> );

constinit Marker marker;

// From load time on, before there are threads.
[[maybe_unused]] const int forkWaits =
      pthread_atfork( [] { marker.mutex.lock(); }, [] { marker.mutex.unlock(); },
                      [] {
                         // The other threads, and with them their shares, do not exist here.
                         marker.count = runningCriticalTask ? 1 : 0;
                         if( !runningCriticalTask ) {
                            std::atomic_ref( assertNotRunningCriticalTaskFn ).store( nullptr );
                         }
                         marker.mutex.unlock();
                      } );

} // namespace

CriticalTaskMarker::CriticalTaskMarker( bool critical ) : marked_( critical ) {
   if( !critical ) {
      return;
   }
   const std::lock_guard lock( marker.mutex );
   if( runningCriticalTask ) {
      QUARN_STREAM_FAIL( "running=" << runningCriticalTask );
   }
   runningCriticalTask = true;
   ++marker.count;
   // Readers take no lock.
   std::atomic_ref( assertNotRunningCriticalTaskFn ).store( &checkNotRunningCriticalTask );
}

CriticalTaskMarker::~CriticalTaskMarker() {
   if( marked_ ) {
      release();
   }
}

void CriticalTaskMarker::release() {
   if( !std::exchange( marked_, false ) ) {
      return;
   }
   const std::lock_guard lock( marker.mutex );
   if( !runningCriticalTask ) {
      QUARN_STREAM_FAIL( "running=" << runningCriticalTask );
   }
   runningCriticalTask = false;
   if( --marker.count == 0 ) {
      const std::atomic_ref hook( assertNotRunningCriticalTaskFn );
      if( hook.load() != &checkNotRunningCriticalTask ) {
         QUARN_STREAM_FAIL( "assertNotRunningCriticalTaskFn "
                            << reinterpret_cast<void*>( hook.load() ) );
      }
      hook.store( nullptr );
   }
}

} // namespace Quarn
