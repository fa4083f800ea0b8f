// What depends on the process mode: libevent with thread-local singletons, the framework without.

#include <Quarn/base/ThreadControl.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/platform/Time.h>
#include <Quarn/platform/VirtualTime.h>

#include "debug/Handlers.h"

#include <Oru/ActivityManager.h>
#include <Oru/System.h>

#include <set>

namespace Quarn {

double time() { return Oru::System::currentTime(); }

namespace Platform {

namespace {

constexpr char sourceFile[] = "Platform";

void requireThreadLocalSingletons( char const* function ) {
   if( !hasThreadLocalSingletons() ) {
      QUARN_FAIL_AS( "Quarn::Platform", function,
                     "the framework's controls are not in this build; thread-local singletons are "
                     "needed" );
   }
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
   requireThreadLocalSingletons( __func__ );
   return getLeFdControl( handler );
}

std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler ) {
   requireThreadLocalSingletons( __func__ );
   return getLeTimerControl( handler );
}

std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler, EventPriority priority ) {
   requireThreadLocalSingletons( __func__ );
   return getLeTimerControl( handler, priority );
}

std::shared_ptr<CallbackControl> getCallbackControl( CallbackHandler* handler ) {
   requireThreadLocalSingletons( __func__ );
   return getLeCallbackControl( handler );
}

void doEventLoop() {
   requireThreadLocalSingletons( __func__ );
   doLeEventLoop();
}

void doEventLoop( double timeout ) {
   requireThreadLocalSingletons( __func__ );
   doLeEventLoop( timeout );
}

void doEventLoopInWaitfor( double timeout ) {
   requireThreadLocalSingletons( __func__ );
   doLeEventLoopInWaitfor( timeout );
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
