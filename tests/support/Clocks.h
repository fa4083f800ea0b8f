// Clocks that stand still until a test moves them.

#pragma once

#include <Quarn/base/Rdtsc.h>
#include <Quarn/scheduler/TaskTime.h>

#include <Oru/System.h>

#include <cstdint>

namespace testing_support {

// Replaces the steady clock of task accounting and the processor's time-stamp counter, which both
// follow one value, one tick a nanosecond. One at a time.
class ManualSteadyClock {
 public:
   explicit ManualSteadyClock( std::chrono::nanoseconds start = std::chrono::seconds( 1000 ) ) {
      now_ = start;
      reads_ = 0;
      Quarn::taskClockForTestIs( [] {
         ++reads_;
         return Quarn::TaskTimeStamp( now_ );
      } );
      Quarn::Rdtsc::sourceForTestIs( [] { return static_cast<std::uint64_t>( now_.count() ); },
                                     1e9 );
   }
   ~ManualSteadyClock() {
      Quarn::taskClockForTestIs( nullptr );
      Quarn::Rdtsc::sourceForTestIs( nullptr, 0 );
   }
   ManualSteadyClock( const ManualSteadyClock& ) = delete;
   ManualSteadyClock& operator=( const ManualSteadyClock& ) = delete;

   void advance( std::chrono::nanoseconds by ) { now_ += by; }
   // How often the steady clock was read.
   unsigned reads() const { return reads_; }

 private:
   static inline std::chrono::nanoseconds now_{};
   static inline unsigned reads_ = 0;
};

// Replaces the clock of timers. One at a time.
class ManualTimerClock {
 public:
   explicit ManualTimerClock( double start = 1.75e9 ) {
      now_ = start;
      Oru::System::clockFnIs( [] { return now_; } );
   }
   ~ManualTimerClock() { Oru::System::clockFnIs( nullptr ); }
   ManualTimerClock( const ManualTimerClock& ) = delete;
   ManualTimerClock& operator=( const ManualTimerClock& ) = delete;

   void set( double now ) { now_ = now; }
   void advance( double by ) { now_ += by; }
   double now() const { return now_; }

 private:
   static inline double now_ = 0.0;
};

} // namespace testing_support
