// Every object that the library makes when it is loaded, in order. Nothing else has a dynamic
// initialiser.

#include <OruQuarn/SystemStatusSm.h>

#include <Quarn/base/ThreadControl.h>
#include <Quarn/base/Time.h>
#include <Quarn/debug/DebugHandler.h>
#include <Quarn/platform/Time.h>
#include <Quarn/platform/VirtualTime.h>

#include "debug/Handlers.h"
#include "framework/Modules.h"
#include "util/IntrospectionMap.h"

#include <Oru/Entity.h>
#include <Oru/System.h>

namespace Quarn::Platform {

constinit HandlerSlot utilHandler;
constinit HandlerSlot timerWheelHandler;
constinit HandlerSlot taskSchedulerHandler;
constinit HandlerSlot pluginHandler;
constinit HandlerSlot oruQuarnHandler;
constinit HandlerSlot libeventHandler;
constinit HandlerSlot assertHandler;

namespace {

constexpr struct {
   HandlerSlot& slot;
   char const* name;
} handlers[] = {
      { utilHandler, "QuarnUtil" },
      { timerWheelHandler, "QuarnTimerWheel" },
      { taskSchedulerHandler, "TaskScheduler" },
      { pluginHandler, "QuarnPlugin" },
      { oruQuarnHandler, "OruQuarn" },
      { libeventHandler, "QuarnLibevent" },
      { assertHandler, "Assert" },
};

// Its constructor is the load-time set-up, its destructor the release at process exit.
class LoadTime {
 public:
   LoadTime() {
      for( const auto& handler : handlers ) {
         handler.slot.handlerIs( getDebugHandler( handler.name, false ) );
      }
      Oru::oruModuleIs( OruQuarn::systemStatusSmModule() );
      Impl::makeIntrospectionMap();
      // All clocks are the framework's, which includes each thread's virtual-time offset.
      Oru::System::currentTimeOffsetFnIs( &leVirtualTimeOffset );
      Impl::timeIndirectFnIs( &Quarn::time );
      Impl::threadSafePointerIsFnIs( &Oru::VFPtrInterface::threadSafePointersIs );
      auto system = Oru::Entity::singletonExists<Oru::System>();
      if( !system ) {
         system = Oru::Entity::singletonIs<Oru::System>();
      }
      systemStatusSm_ = OruQuarn::SystemStatusSmIs( system->status() );
      Oru::oruModuleIs( OruQuarn::backtraceTrackerModule() );
   }

   ~LoadTime() {
      systemStatusSm_ = nullptr;
      for( auto handler = std::rbegin( handlers ); handler != std::rend( handlers ); ++handler ) {
         handler->slot.release();
      }
   }

   LoadTime( const LoadTime& ) = delete;
   LoadTime& operator=( const LoadTime& ) = delete;

 private:
   Oru::Ptr<OruQuarn::SystemStatusSm> systemStatusSm_;
};

LoadTime loadTime;

} // namespace

} // namespace Quarn::Platform
