// The timer controls that sit on a wheel, and the wheels that the library makes by itself.

#include <Quarn/base/MemTrack.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/timers/TimerWheel.h>

#include "debug/Handlers.h"
#include "platform/ControlLife.h"
#include "platform/ThreadEnd.h"
#include "util/ThreadSlot.h"

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TimerWheelCpp";

class TimerWheelTimerControl final : public Platform::TimerControl, public TimerWheelEvent {
 public:
   TimerWheelTimerControl( Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel )
         : handler_( handler ),
           wheel_( std::move( wheel ) ) {
      if( !handler_ || !wheel_ ) {
         QUARN_FAIL( "TimerWheelTimerControl", "handler or wheel is null" );
      }
   }

   void setTimeout( double seconds ) override { wheel_->timerStart( this, seconds ); }
   void delTimeout() override { wheel_->timerStop( this ); }
   double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }

   void timeout() override {
      Platform::TimeoutHandler* handler = handler_;
      ControlLife::Watch watch( life_ );
      try {
         handler->timeout();
      } catch( ... ) {
         // With the control gone the handler may be gone too, and is not asked.
         if( threadEnds() || !watch.alive() || !handler->handleTimeoutException() ) {
            throw;
         }
         QUARN_TRACE( Platform::timerWheelHandler, 9, "TimerWheelTimerControl",
                      "Timeout notification exception was handled" );
      }
   }

 private:
   Platform::TimeoutHandler* handler_;
   std::shared_ptr<TimerWheel> wheel_;
   ControlLife life_;
};

constinit thread_local Util::ThreadSlot<TimerWheel> wheelSlot;
thread_local Util::ThreadSlot<TimerWheel>::Releaser wheelReleaser{ wheelSlot };

} // namespace

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler( Platform::EventPriority priority ) {
   return std::allocate_shared<TimerWheel>( Allocator<TimerWheel>(), priority );
}

std::shared_ptr<TimerWheel> getTimerWheel() {
   if( !hasThreadLocalSingletons() ) {
      // Released at exit, before the handlers that it traces to.
      static const std::shared_ptr<TimerWheel> wheelOfProcess =
            getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault );
      return wheelOfProcess;
   }
   if( wheelSlot.holds() ) {
      return wheelSlot.get();
   }
   std::shared_ptr<TimerWheel> wheel =
         getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault );
   if( !wheelSlot.released() ) {
      wheelReleaser.touch();
      wheelSlot.hold( wheel );
   }
   return wheel;
}

namespace Platform {

std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler,
                                               std::shared_ptr<TimerWheel> wheel ) {
   return std::allocate_shared<TimerWheelTimerControl>( Allocator<TimerWheelTimerControl>(),
                                                        handler, std::move( wheel ) );
}

} // namespace Platform

} // namespace Quarn
