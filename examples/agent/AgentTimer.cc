#include "examples/agent/AgentTimer.h"

#include <utility>

namespace HostAgent {

AgentTimer::AgentTimer( std::function<void()> expired )
      : expired_( std::move( expired ) ),
        wheel_( Quarn::getTimerWheel() ),
        control_( Quarn::Platform::getTimerControl( this, wheel_ ) ) {}

// A timer on a wheel may not be destroyed while it runs.
AgentTimer::~AgentTimer() { stop(); }

void AgentTimer::start( double delaySeconds ) { control_->setTimeout( delaySeconds ); }

void AgentTimer::stop() {
   control_->delTimeout();
   // The wheel's own timer stays set for a timer that was stopped, which would keep a loop that
   // ends when nothing is pending until then.
   wheel_->setMasterTimer();
}

void AgentTimer::timeout() { expired_(); }

} // namespace HostAgent
