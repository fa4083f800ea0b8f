#include <Oru/System.h>

#include "VirtualTime.h"

#include <Oru/ActivityManager.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace Oru {

namespace {

using SecondsFn = double ( * )();

constinit std::atomic<SecondsFn> offsetFn{ nullptr };
constinit std::atomic<SecondsFn> clockFn{ nullptr };

// Wall clock minus monotonic clock in nanoseconds, taken once; 0 until then. Not a function-local
// static: its guard would be read at each call, and this word has to be read anyway.
constinit std::atomic<std::int64_t> wallMinusMonotonicNs{ 0 };

std::int64_t clockNs( clockid_t clock ) {
   timespec now;
   clock_gettime( clock, &now );
   return std::int64_t{ now.tv_sec } * 1'000'000'000 + now.tv_nsec;
}

// Kept out of line, off the path of all later calls.
[[gnu::noinline]] std::int64_t takeWallMinusMonotonicNs() {
   std::int64_t difference = clockNs( CLOCK_REALTIME ) - clockNs( CLOCK_MONOTONIC );
   if( difference == 0 ) {
      difference = 1;
   }
   // The first thread decides for all.
   std::int64_t known = 0;
   if( !wallMinusMonotonicNs.compare_exchange_strong( known, difference,
                                                      std::memory_order_relaxed ) ) {
      return known;
   }
   return difference;
}

double realTime() {
   std::int64_t difference = wallMinusMonotonicNs.load( std::memory_order_relaxed );
   if( difference == 0 ) [[unlikely]] {
      difference = takeWallMinusMonotonicNs();
   }
   // Added as integers: both conversions round in one direction, so the result never goes back.
   return static_cast<double>( difference + clockNs( CLOCK_MONOTONIC ) ) / 1e9;
}

} // namespace

double System::currentTime() {
   SecondsFn const clock = clockFn.load( std::memory_order_relaxed );
   double const now =
         ( clock ? clock() : realTime() ) + virtualTimeOffset.load( std::memory_order_relaxed );
   SecondsFn const offset = offsetFn.load( std::memory_order_relaxed );
   return offset ? now + offset() : now;
}

System::System() : status_( new SystemStatus ) {}

void System::doRun() { ActivityManager::instance()->doRun(); }

void System::doStop() { ActivityManager::instance()->doStop(); }

void System::currentTimeOffsetFnIs( double ( *offset )() ) {
   offsetFn.store( offset, std::memory_order_relaxed );
}

void System::clockFnIs( double ( *clock )() ) { clockFn.store( clock, std::memory_order_relaxed ); }

Quarn::String System::getenv( Quarn::String const& name ) {
   char const* const value = ::getenv( name.c_str() );
   return value ? Quarn::String( value ) : Quarn::String();
}

} // namespace Oru
