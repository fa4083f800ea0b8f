#include <OruQuarn/Callback.h>

#include "debug/Handlers.h"

namespace OruQuarn {

using Quarn::Platform::oruQuarnHandler;

namespace {

constexpr char sourceFile[] = "Callback";

// The start of 1970, which every clock has passed.
constexpr double alwaysPast = 0.0;

} // namespace

Callback::Callback( Quarn::Platform::CallbackHandler* handler )
      : handler_( handler ),
        timer_( this ) {
   if( !handler ) {
      QUARN_FAIL( "Callback", "handler is null" );
   }
}

// The timer goes next, and takes its deadline with it.
Callback::~Callback() { QUARN_TRACE_AS( oruQuarnHandler, 5, "Callback", "orphan", "" ); }

void Callback::requestCallback() { timer_.notifiee_->timeMinIs( alwaysPast ); }

void Callback::cancelCallback() { timer_.delTimeout(); }

bool Callback::pendingCallback() const {
   return timer_.notifiee_->timeMin() != ClockTimer::Notifiee::never;
}

void Callback::timeout() { handler_->callback(); }

bool Callback::handleTimeoutException() { return onNotificationException(); }

bool Callback::onNotificationException() { return handler_->handleCallbackException(); }

} // namespace OruQuarn
