#include "examples/agent/SampleTimer.h"

#include <utility>

namespace HostAgent {

SampleTimer::SampleTimer( std::shared_ptr<Quarn::TaskScheduler> scheduler,
                          Quarn::TaskPriority priority, Quarn::String name, const Rhythm& rhythm,
                          std::function<void()> sample )
      : TimerTask( std::move( scheduler ), priority, std::move( name ) ),
        rhythm_( rhythm ),
        sample_( std::move( sample ) ) {}

void SampleTimer::taskExecute() {
   // Started before the sample is taken: the time that it takes does not stretch the interval.
   scheduleTaskJitterDown( rhythm_.intervalSeconds, rhythm_.jitterPercent );
   sample_();
}

} // namespace HostAgent
