#include <Quarn/base/Time.h>

#include <atomic>
#include <time.h>

namespace Quarn::Impl {

namespace {

double wallClock() {
   timespec now;
   ::clock_gettime( CLOCK_REALTIME, &now );
   return static_cast<double>( now.tv_sec ) + static_cast<double>( now.tv_nsec ) * 1e-9;
}

constinit std::atomic<double ( * )()> timeFn{ &wallClock };

} // namespace

void timeIndirectFnIs( double ( *fn )() ) { timeFn = fn ? fn : &wallClock; }

double timeIndirect() { return timeFn.load( std::memory_order_acquire )(); }

} // namespace Quarn::Impl
