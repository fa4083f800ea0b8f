#include "ClockQueues.h"

#include "Held.h"

#include <Quarn/base/Exception.h>

#include <cmath>

namespace Oru {

Clock::Clock() : queues_( std::make_unique<Queues>() ) {}

Clock::~Clock() = default;

double Clock::Queues::next() const noexcept {
   return armed_.empty() ? Notifiee::never : armed_.begin()->timeMin_;
}

void Clock::Queues::collect( double now ) noexcept {
   while( !armed_.empty() && armed_.begin()->timeMin_ <= now ) {
      Notifiee& notifiee = *armed_.begin();
      armed_.erase( armed_.begin() );
      due_.push_back( notifiee );
   }
}

bool Clock::Queues::serveOne( double now ) {
   if( due_.empty() ) {
      return false;
   }
   Notifiee& notifiee = due_.front();
   due_.pop_front();
   // Before the call, which may set the next one.
   notifiee.timeMin_ = Notifiee::never;
   if( notifiee.isRegisteredNotifiee() && notifiee.hasNotificationActive() ) {
      Ptr<Notifiee> const hold = held( notifiee );
      notifiee.onAttribute( timeAttribute, &now );
   }
   return true;
}

void Clock::Queues::putBack() noexcept {
   while( !due_.empty() ) {
      Notifiee& notifiee = due_.front();
      due_.pop_front();
      armed_.insert( notifiee );
   }
}

Clock::NotifieeConst::~NotifieeConst() = default;

void Clock::NotifieeConst::timeMinIs( double seconds ) {
   if( std::isnan( seconds ) ) {
      Quarn::AssertException::throwException( "deadline is not a number" );
   }
   if( seconds == timeMin_ ) {
      return;
   }
   // Out of its place while the key changes.
   armedHook_.unlink();
   dueHook_.unlink();
   timeMin_ = seconds;
   _arm();
}

void Clock::NotifieeConst::_notifierChanged() {
   armedHook_.unlink();
   dueHook_.unlink();
   auto const* const clock = dynamic_cast<Clock const*>( notifier().get() );
   queues_ = clock ? clock->queues_.get() : nullptr;
   if( queues_ && isRegisteredNotifiee() ) {
      registration_ = queues_->newRegistration();
   }
   _arm();
}

void Clock::NotifieeConst::_arm() {
   if( queues_ && timeMin_ < never ) {
      queues_->arm( *this );
   }
}

} // namespace Oru
