// The timer control on the framework's clock. What differs from the libevent flavour is told in
// `platform/Controls.h`; due timers are served by time, whatever priority they were asked for with.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>

#include <Oru/Allocator.h>
#include <Oru/Clock.h>
#include <Oru/Ptr.h>

namespace OruQuarn {

class Callback;

// What `Platform::getTimerControl` makes without thread-local singletons.
//
// Units:     seconds of Oru::System::currentTime(), virtual time included.
// Ownership: of its framework objects; the handler is held without ownership and outlives it.
// Thread:    that of the framework's loop.
class ORUQUARN_API ClockTimer : public Quarn::Platform::TimerControl {
 public:
   class Notifiee;

   // Errors: fatal when the handler is null.
   explicit ClockTimer( Quarn::Platform::TimeoutHandler* handler );
   ~ClockTimer() override;

   ClockTimer( const ClockTimer& ) = delete;
   ClockTimer& operator=( const ClockTimer& ) = delete;

   void setTimeout( double seconds ) override;
   void delTimeout() override;
   double remainingTimeout() const override;

   // Whether the exception in flight, which left the handler, is dealt with: asks its hook.
   virtual bool onNotificationException();

 private:
   friend class Callback;

   Quarn::Platform::TimeoutHandler* handler_;
   Oru::Ptr<Oru::Clock> clock_;
   Oru::Ptr<Notifiee> notifiee_;
};

// Has the deadline. Knows its timer until that is destroyed; the framework may hold it longer, and
// then it does nothing.
class ORUQUARN_API ClockTimer::Notifiee final : public Oru::Clock::NotifieeConst,
                                                public Oru::Allocated<Notifiee> {
 public:
   explicit Notifiee( ClockTimer& owner );
   ~Notifiee() override;

   void onAttribute( Oru::AttributeId id, void const* value ) override;

 private:
   friend class ClockTimer;
   void _onTime();

   ClockTimer* owner_;
};

} // namespace OruQuarn
