#include "timers/TimerTicks.h"

#include <Quarn/timers/TimerWheel.h>

#include "debug/Handlers.h"

#include <cmath>
#include <limits>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TimerWheelCpp";

constexpr timeout_t maxTick = std::numeric_limits<timeout_t>::max();

timeout_t timeToTickOverflowCheck( long double ticks ) {
   // Written so that NaN is caught here too.
   if( !( ticks > 0.0L ) ) {
      return 0;
   }
   if( ticks >= static_cast<long double>( maxTick ) ) {
      QUARN_TRACE( Platform::timerWheelHandler, 0, "", "truncating ticks from {} down to {}", ticks,
                   maxTick );
      return maxTick;
   }
   return static_cast<timeout_t>( ticks );
}

} // namespace

timeout_t timeToTickCeil( double seconds ) {
   return timeToTickOverflowCheck(
         std::ceil( ticksPerSecond * static_cast<long double>( seconds ) ) );
}

timeout_t timeToTickFloor( double seconds ) {
   // The conversion to an integer is the floor.
   return timeToTickOverflowCheck( ticksPerSecond * static_cast<long double>( seconds ) );
}

timeout_t timeToTickCeilForTest( double seconds ) { return timeToTickCeil( seconds ); }

timeout_t timeToTickFloorForTest( double seconds ) { return timeToTickFloor( seconds ); }

} // namespace Quarn
