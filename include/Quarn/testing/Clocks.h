// Clocks that stand still until a test moves them.
//
// They take the place of a clock of the process while they live: one of each kind at a time, and no
// other thread that reads the time when they come and go.

#pragma once

#include <Quarn/base/Rdtsc.h>
#include <Quarn/scheduler/TaskTime.h>

#include <Oru/System.h>

#include <chrono>
#include <cstdint>

namespace Quarn::Testing {

// Replaces the steady clock of task accounting and the processor's time-stamp counter, which both
// follow one value, one tick a nanosecond.
//
//     Quarn::Testing::ManualSteadyClock clock;
//     clock.advance( std::chrono::milliseconds( 11 ) ); // say, in the body of a task
class ManualSteadyClock {
 public:
   explicit ManualSteadyClock( std::chrono::nanoseconds start = std::chrono::seconds( 1000 ) ) {
      now_ = start;
      reads_ = 0;
      taskClockForTestIs( [] {
         ++reads_;
         return TaskTimeStamp( now_ );
      } );
      Rdtsc::sourceForTestIs( [] { return static_cast<std::uint64_t>( now_.count() ); }, 1e9 );
   }
   ~ManualSteadyClock() {
      taskClockForTestIs( nullptr );
      Rdtsc::sourceForTestIs( nullptr, 0 );
   }
   ManualSteadyClock( const ManualSteadyClock& ) = delete;
   ManualSteadyClock& operator=( const ManualSteadyClock& ) = delete;

   void advance( std::chrono::nanoseconds by ) { now_ += by; }

   // How often the steady clock was read; the counter is not.
   unsigned reads() const { return reads_; }

 private:
   static inline std::chrono::nanoseconds now_{};
   static inline unsigned reads_ = 0;
};

// Replaces the clock of timers, `Quarn::time()`, to which a thread's virtual-time offset is still
// added. In seconds. The event loop has a clock of its own, so this one is for timers that the test
// delivers itself; where the loop delivers them, `VirtualTimeLoop` moves both.
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

} // namespace Quarn::Testing
