#include <OruQuarn/ClockTimer.h>

#include "debug/Handlers.h"
#include "platform/ThreadEnd.h"

#include <Oru/ActivityManager.h>
#include <Oru/System.h>

#include <cmath>

namespace OruQuarn {

using Quarn::Platform::oruQuarnHandler;

namespace {

constexpr char sourceFile[] = "ClockTimer";

} // namespace

ClockTimer::ClockTimer( Quarn::Platform::TimeoutHandler* handler ) : handler_( handler ) {
   if( !handler ) {
      QUARN_FAIL( "ClockTimer", "handler is null" );
   }
   clock_ = Oru::ActivityManager::instance()->clock();
   notifiee_ = new Notifiee( *this );
   notifiee_->notifierIs( clock_ );
   notifiee_->isRegisteredNotifieeIs( true );
}

ClockTimer::~ClockTimer() {
   QUARN_TRACE_AS( oruQuarnHandler, 5, "ClockTimer", "orphan", "" );
   // Before all else, so that no notification finds a timer that is half gone.
   notifiee_->owner_ = nullptr;
   ClockTimer::delTimeout();
   notifiee_ = nullptr;
   clock_ = nullptr;
}

void ClockTimer::setTimeout( double seconds ) {
   if( std::isnan( seconds ) ) {
      QUARN_FAIL( "ClockTimer", "invalid timeout {}", seconds );
   }
   QUARN_TRACE( oruQuarnHandler, 5, "ClockTimer", "{}", seconds );
   notifiee_->timeMinIs( Oru::System::currentTime() + seconds );
}

void ClockTimer::delTimeout() { notifiee_->timeMinIs( Notifiee::never ); }

double ClockTimer::remainingTimeout() const {
   const double timeMin = notifiee_->timeMin();
   if( timeMin == Notifiee::never ) {
      return timeMin;
   }
   const double now = Oru::System::currentTime();
   return now > timeMin ? 0.0 : timeMin - now;
}

bool ClockTimer::onNotificationException() { return handler_->handleTimeoutException(); }

// --------------------------------------------------------------------------------- notifications

ClockTimer::Notifiee::Notifiee( ClockTimer& owner ) : owner_( &owner ) {}

ClockTimer::Notifiee::~Notifiee() {
   QUARN_TRACE_AS( oruQuarnHandler, 5, "ClockTimer::Notifiee", "~Notifiee", "" );
}

void ClockTimer::Notifiee::onAttribute( Oru::AttributeId id, void const* value ) {
   if( id != Oru::Clock::timeAttribute ) {
      NotifieeConst::onAttribute( id, value );
      return;
   }
   // The handler may destroy the timer, which lets go of this.
   const Oru::Ptr<Notifiee> hold = this;
   try {
      _onTime();
   } catch( ... ) {
      // Without its timer the handler may be gone too, and is not asked.
      if( Quarn::threadEnds() || !owner_ || !owner_->onNotificationException() ) {
         throw;
      }
      QUARN_TRACE( oruQuarnHandler, 9, "ClockTimer::Notifiee",
                   "Timeout notification exception was handled" );
   }
}

// After a normal return of the handler nothing of the timer is touched: it may be gone.
void ClockTimer::Notifiee::_onTime() {
   if( !owner_ ) {
      QUARN_TRACE_AS( oruQuarnHandler, 5, "ClockTimer::Notifiee", "onTime", "ignoring orphan" );
      return;
   }
   QUARN_TRACE_AS( oruQuarnHandler, 5, "ClockTimer::Notifiee", "onTime", "" );
   owner_->handler_->timeout();
}

} // namespace OruQuarn
