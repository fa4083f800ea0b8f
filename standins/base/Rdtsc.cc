#include <Quarn/base/Rdtsc.h>

#include <algorithm>
#include <time.h>

namespace Quarn {

namespace Impl {

constinit std::atomic<std::uint64_t ( * )()> rdtscSource{ nullptr };
constinit std::atomic<std::uint64_t> rdtscTicksIn500Usec{ 0 };

std::uint64_t monotonicNs() noexcept {
   timespec now;
   ::clock_gettime( CLOCK_MONOTONIC, &now );
   return static_cast<std::uint64_t>( now.tv_sec ) * 1'000'000'000U +
          static_cast<std::uint64_t>( now.tv_nsec );
}

} // namespace Impl

namespace {

// Rate of the source that stands in for the counter; looked at while there is one.
constinit std::atomic<double> rateForTest{ 0 };

// Keeps a late computation of the ticks in 500 microseconds from outliving a change of source.
// Nothing here is locked, for a measurement takes its time, and a fork may fall into it.
constinit std::atomic<unsigned> sourceChanges{ 0 };

// What was measured first; 0 before.
constinit std::atomic<double> measured{ 0 };

#if defined( __x86_64__ ) || defined( __i386__ )

// The counter and the clock at one moment.
struct Moment {
   std::uint64_t ticks;
   std::uint64_t ns;
};

// Reads the clock between two reads of the counter and keeps the tightest of several such pairs: a
// pair that was interrupted is wide, so it does not count.
Moment momentNow() {
   constexpr int tries = 16;
   Moment best{};
   std::uint64_t bestWidth = UINT64_MAX;
   for( int i = 0; i < tries; ++i ) {
      std::uint64_t const before = __rdtsc();
      std::uint64_t const ns = Impl::monotonicNs();
      std::uint64_t const width = __rdtsc() - before;
      if( width < bestWidth ) {
         bestWidth = width;
         best = { before + width / 2, ns };
      }
   }
   return best;
}

double measuredRate() {
   constexpr std::uint64_t spinNs = 500'000;
   Moment const start = momentNow();
   while( Impl::monotonicNs() - start.ns < spinNs ) {
   }
   Moment const end = momentNow();
   // Signed, for a counter that a virtual machine sets back; the floor keeps the rate positive.
   auto const ticks = static_cast<double>( static_cast<std::int64_t>( end.ticks - start.ticks ) );
   return std::max( 1.0, ticks / static_cast<double>( end.ns - start.ns ) * 1e9 );
}

#else

double measuredRate() { return 1e9; }

#endif

// Threads that come at the same time measure side by side, and go by the one that is done first.
double realRate() {
   double rate = measured.load();
   if( rate == 0 ) {
      double const mine = measuredRate();
      if( measured.compare_exchange_strong( rate, mine ) ) {
         rate = mine;
      }
   }
   return rate;
}

} // namespace

std::uint64_t Impl::rdtscComputeTicksIn500Usec() {
   unsigned const changes = sourceChanges.load();
   auto const ticks = static_cast<std::uint64_t>( Rdtsc::calibrationRate() * 0.0005 );
   rdtscTicksIn500Usec = ticks;
   if( sourceChanges.load() != changes ) {
      rdtscTicksIn500Usec = 0;
   }
   return ticks;
}

double Rdtsc::calibrationRate() {
   return Impl::rdtscSource.load() != nullptr ? rateForTest.load() : realRate();
}

void Rdtsc::sourceForTestIs( std::uint64_t ( *source )(), double ticksPerSecond ) {
   rateForTest = ticksPerSecond;
   Impl::rdtscSource = source;
   ++sourceChanges;
   Impl::rdtscTicksIn500Usec = 0;
}

} // namespace Quarn
