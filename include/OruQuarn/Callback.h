// The callback control on the framework's clock.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>

#include <OruQuarn/ClockTimer.h>

namespace OruQuarn {

// What `Platform::getCallbackControl` makes without thread-local singletons: a deadline that is
// always past, so that the loop calls back in its next turn.
//
// Ownership: the handler is held without ownership and outlives it.
// Thread:    that of the framework's loop.
class ORUQUARN_API Callback final : public Quarn::Platform::CallbackControl,
                                    public Quarn::Platform::TimeoutHandler {
 public:
   // Errors: fatal when the handler is null.
   explicit Callback( Quarn::Platform::CallbackHandler* handler );
   ~Callback() override;

   Callback( const Callback& ) = delete;
   Callback& operator=( const Callback& ) = delete;

   void requestCallback() override;
   void cancelCallback() override;
   bool pendingCallback() const override;

   // The clock's notification: calls the handler.
   void timeout() override;
   bool handleTimeoutException() override;

   // Whether the exception in flight, which left the handler, is dealt with: asks its hook.
   bool onNotificationException();

 private:
   Quarn::Platform::CallbackHandler* handler_;
   // Its handler is this.
   ClockTimer timer_;
};

} // namespace OruQuarn
