#include "examples/agent/SampleTimer.h"
#include "examples/agent/FastForward.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace HostAgent {
namespace {

TEST( SampleTimerTest, IntervalsAreShortenedByTheJitterAtMost ) {
   const FastForward fastForward;
   std::vector<double> times;
   const auto timer = std::make_shared<SampleTimer>(
         Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal, "timer", Rhythm{ 100.0, 20 },
         [ &times ] { times.push_back( Quarn::time() ); } );
   timer->start();
   Quarn::Platform::doEventLoop( 10000.0 );
   timer->stop();
   ASSERT_GE( times.size(), 100u );
   ASSERT_LE( times.size(), 126u );
   std::vector<double> intervals;
   for( std::size_t i = 1; i < times.size(); ++i ) {
      intervals.push_back( times[ i ] - times[ i - 1 ] );
   }
   const auto [ least, most ] = std::ranges::minmax( intervals );
   EXPECT_GE( least, 80.0 );
   EXPECT_LT( least, 90.0 );
   EXPECT_GT( most, 90.0 );
}

TEST( SampleTimerTest, MayBeStoppedByItsOwnSample ) {
   const FastForward fastForward;
   int samples = 0;
   std::shared_ptr<SampleTimer> timer;
   timer = std::make_shared<SampleTimer>( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal,
                                          "timer", Rhythm{ 1.0, 0 }, [ & ] {
                                             if( ++samples == 3 ) {
                                                timer->stop();
                                             }
                                          } );
   timer->start();
   Quarn::Platform::doEventLoop( 100.0 );
   EXPECT_EQ( samples, 3 );
   EXPECT_FALSE( timer->taskScheduled() );
   timer.reset();
}

} // namespace
} // namespace HostAgent
