// The cheapest clock of the machine: a counter of ticks, read without entering the kernel.
//
// On x86 it is the processor's time-stamp counter, which ticks at a constant rate on all processors
// of the last decade and may differ slightly between sockets; elsewhere it is CLOCK_MONOTONIC in
// nanoseconds. Tests can put a source of their own in its place.

#pragma once

#include <Quarn/base/Export.h>

#include <atomic>
#include <cstdint>

#if defined( __x86_64__ ) || defined( __i386__ )
#include <x86intrin.h>
#endif

namespace Quarn {

namespace Impl {

// The source that stands in for the counter, or null. Written by Rdtsc::sourceForTestIs() only.
extern QUARN_BASE_API std::atomic<std::uint64_t ( * )()> rdtscSource;

// Ticks in 500 microseconds of the current source, 0 while unknown.
extern QUARN_BASE_API std::atomic<std::uint64_t> rdtscTicksIn500Usec;

// Works out the value above.
QUARN_BASE_API std::uint64_t rdtscComputeTicksIn500Usec();

// CLOCK_MONOTONIC in nanoseconds.
QUARN_BASE_API std::uint64_t monotonicNs() noexcept;

} // namespace Impl

// Thread: any, save that sourceForTestIs() expects no reader on another thread in the same moment.
struct Rdtsc {
   // Ticks since some moment in the past. Not ordered against the memory accesses around it: the
   // processor may take the value a few instructions early or late.
   static std::uint64_t read() {
      auto* const source = Impl::rdtscSource.load( std::memory_order_relaxed );
      if( source ) [[unlikely]] {
         return source();
      }
#if defined( __x86_64__ ) || defined( __i386__ )
      return __rdtsc();
#else
      return Impl::monotonicNs();
#endif
   }

   // Ticks per second of the current source. The real counter is measured by the first caller, and
   // those who come meanwhile, who spin about 500 microseconds; all then go by one result, which is
   // good to some parts in ten thousand.
   QUARN_BASE_API static double calibrationRate();

   // Ticks in 500 microseconds of the current source, rounded down. The first call after a change
   // of source works it out, which may include the measurement above; later ones cost a load.
   static std::uint64_t ticksIn500Usec() {
      std::uint64_t const ticks = Impl::rdtscTicksIn500Usec.load( std::memory_order_relaxed );
      return ticks != 0 ? ticks : Impl::rdtscComputeTicksIn500Usec();
   }

   // Replaces the counter by `source`, which ticks `ticksPerSecond` times a second; null restores
   // the real one, and the rate is then not looked at.
   QUARN_BASE_API static void sourceForTestIs( std::uint64_t ( *source )(), double ticksPerSecond );
};

} // namespace Quarn
