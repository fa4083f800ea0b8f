// A timer on the thread's timer wheel that calls a function.

#pragma once

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TimerWheelCpp.h>

#include <functional>
#include <memory>

namespace HostAgent {

// Stopped when it is destroyed, which its own function must not do.
class AgentTimer final : private Quarn::Platform::TimeoutHandler {
 public:
   explicit AgentTimer( std::function<void()> expired );
   ~AgentTimer() override;

   AgentTimer( const AgentTimer& ) = delete;
   AgentTimer& operator=( const AgentTimer& ) = delete;

   // Calls the function once, `delaySeconds` from now on the clock of `Quarn::time()`; a timer that
   // runs is moved.
   void start( double delaySeconds );

   // Leaves the loop nothing to wait for on this timer's account.
   void stop();

 private:
   void timeout() override;

   std::function<void()> expired_;
   std::shared_ptr<Quarn::TimerWheel> wheel_;
   std::shared_ptr<Quarn::Platform::TimerControl> control_;
};

} // namespace HostAgent
