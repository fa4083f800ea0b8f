// What depends on the process mode: libevent with thread-local singletons, the framework without.

#include <OruQuarn/Callback.h>
#include <OruQuarn/ClockTimer.h>
#include <OruQuarn/FileDescriptor.h>

#include <Quarn/base/MemTrack.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/platform/Time.h>
#include <Quarn/platform/VirtualTime.h>

#include "debug/Handlers.h"
#include "platform/DeferredRelease.h"

#include <Oru/ActivityManager.h>
#include <Oru/System.h>

#include <cmath>
#include <set>

namespace Quarn {

double time() { return Oru::System::currentTime(); }

namespace Platform {

namespace {

constexpr char sourceFile[] = "Platform";

void runFramework() {
   // However it ends.
   struct Release {
      ~Release() { releaseDeferred(); }
   };
   const Release release;
   Oru::System::doRun();
}

template<typename Adapter, typename Handler>
std::shared_ptr<Adapter> adapter( Handler* handler ) {
   return std::allocate_shared<Adapter>( Allocator<Adapter>(), handler );
}

void refuseThreadLocalSingletons( char const* function ) {
   if( hasThreadLocalSingletons() ) {
      QUARN_FAIL_AS( "Quarn::Platform", function,
                     "ThreadLocal fastForward invoked from non-main thread" );
   }
}

// Made by the first registration, which may be a static initialiser's, and never destroyed.
std::set<void ( * )()>& fastForwardNotifiers() {
   static auto* const all = new std::set<void ( * )()>;
   return *all;
}

} // namespace

std::shared_ptr<FdControl> getFdControl( FdEventHandler* handler ) {
   if( hasThreadLocalSingletons() ) {
      return getLeFdControl( handler );
   }
   return adapter<OruQuarn::FileDescriptor>( handler );
}

std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler ) {
   return getTimerControl( handler, EventPriority::eventPriorityDefault );
}

std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler, EventPriority priority ) {
   if( hasThreadLocalSingletons() ) {
      return getLeTimerControl( handler, priority );
   }
   // The framework has one queue of deadlines and no priorities.
   return adapter<OruQuarn::ClockTimer>( handler );
}

std::shared_ptr<CallbackControl> getCallbackControl( CallbackHandler* handler ) {
   if( hasThreadLocalSingletons() ) {
      return getLeCallbackControl( handler );
   }
   return adapter<OruQuarn::Callback>( handler );
}

void doEventLoop() {
   if( hasThreadLocalSingletons() ) {
      doLeEventLoop();
   } else {
      runFramework();
   }
}

void doEventLoop( double timeout ) {
   if( hasThreadLocalSingletons() ) {
      doLeEventLoop( timeout );
      return;
   }
   if( std::isnan( timeout ) ) {
      QUARN_FAIL( "Quarn::Platform", "invalid timeout {}", timeout );
   }
   Oru::ActivityManager::instance()->executionTimeIs( timeout );
   runFramework();
}

void doEventLoopInWaitfor( double timeout ) {
   if( hasThreadLocalSingletons() ) {
      doLeEventLoopInWaitfor( timeout );
   } else {
      doEventLoop( timeout );
   }
}

bool fastForward() {
   refuseThreadLocalSingletons( __func__ );
   return Oru::ActivityManager::instance()->virtualTime();
}

void setFastForward( bool on ) {
   refuseThreadLocalSingletons( __func__ );
   if( on == Oru::ActivityManager::instance()->virtualTime() ) {
      return;
   }
   Oru::ActivityManagerConfig::virtualTimeIs( on );
   // A copy: a notifier may add others.
   const auto called = fastForwardNotifiers();
   for( const auto notifier : called ) {
      notifier();
   }
}

void registerFastForwardChangeNotifier( void ( *notifier )() ) {
   if( !notifier ) {
      QUARN_FAIL( "Quarn::Platform", "notifier is null" );
   }
   fastForwardNotifiers().insert( notifier );
}

} // namespace Platform

} // namespace Quarn
