// The timer task that takes a sample again and again.

#pragma once

#include <Quarn/Task.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace HostAgent {

// How often a sample is taken.
struct Rhythm {
   // The longest time from one sample to the next, on the clock of `Quarn::time()`.
   double intervalSeconds = 1.0;
   // By how much each time may be shorter, so that timers with a common multiple do not fall due
   // together again and again. The draws are the same in every run of the program: agents that were
   // started together on several hosts do stay in step.
   std::uint8_t jitterPercent = 0;
};

class SampleTimer final : public Quarn::TimerTask {
 public:
   // `sample` is called from the task's runs and may stop the timer.
   SampleTimer( std::shared_ptr<Quarn::TaskScheduler> scheduler, Quarn::TaskPriority priority,
                Quarn::String name, const Rhythm& rhythm, std::function<void()> sample );

   // Takes the first sample at once, and goes on until `stop()`.
   void start() { scheduleTask(); }
   void stop() { stopTimerTask(); }

   const Rhythm& rhythm() const { return rhythm_; }

 private:
   void taskExecute() override;

   Rhythm rhythm_;
   std::function<void()> sample_;
};

} // namespace HostAgent
