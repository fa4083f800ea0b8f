// What depends on the process mode: libevent with thread-local singletons, the framework without.

#include <Quarn/base/ThreadControl.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/platform/Time.h>

#include "debug/Handlers.h"

#include <Oru/System.h>

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

} // namespace Platform

} // namespace Quarn
