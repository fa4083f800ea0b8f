#include "platform/Seconds.h"

#include "debug/Handlers.h"

#include <cmath>

namespace Quarn::Platform {

namespace {

constexpr char sourceFile[] = "LibeventFactoryCpp";

// About 31 million years; its microseconds still fit 64 bits.
constexpr double longestTimeout = 1e15;

} // namespace

timeval secondsToTimeval( double seconds ) {
   if( seconds == 0.0 ) {
      return { 0, 0 };
   }
   if( std::isnan( seconds ) ) {
      QUARN_FAIL( "Quarn::Platform", "invalid timeout {}", seconds );
   }
   if( !( seconds > 0.0 ) ) {
      return { 0, 0 };
   }
   if( seconds > longestTimeout ) {
      seconds = longestTimeout;
   }
   const double whole = std::trunc( seconds );
   return { static_cast<time_t>( whole ), static_cast<suseconds_t>( ( seconds - whole ) * 1e6 ) };
}

} // namespace Quarn::Platform
