// A timer wheel under random operations, compared with a sorted multimap.
//
// A step is an operation from outside: timers are started, moved, stopped and replaced, the clock
// is moved, ahead and back, and what is due is delivered. A timer that fires draws operations of
// its own: it starts and stops timers, itself too, throws, moves the clock, and delivers within the
// delivery. Whatever is due when a pass begins must be delivered by it, earliest first, and nothing
// before its time; what is started meanwhile may wait for the next pass.
//
// The clock of timers stands still while a play lives; there is one at a time.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace testing_support {

class TimerPlay {
 public:
   // Where the steps come from: any number, each time. Equal numbers make equal plays.
   using Draw = std::function<std::uint64_t()>;

   struct Setting {
      unsigned timers = 24;
      double clockStart = 1.75e9;
      // The wheel's own structures are looked at after every so many steps, which takes as long as
      // there are timers.
      unsigned checkEvery = 1;
   };

   struct Counts {
      std::uint64_t operations = 0;
      std::uint64_t delivered = 0;
      // What the comparison is worth.
      std::uint64_t ties = 0;
      std::uint64_t nestedPasses = 0;
      std::uint64_t throughPasses = 0;
      std::uint64_t restartsInside = 0;
      std::uint64_t clockBack = 0;
      std::uint64_t farAhead = 0;
      std::uint64_t waitedInTick = 0;
   };

   // Whether a `long double` tells more apart than a `double`, as the wheel counts on where a tick
   // is below what a double tells apart. Under valgrind it does not.
   static bool hasExtendedPrecision();

   static std::unique_ptr<TimerPlay> make( const Setting& setting, Draw draw );

   // Stops the timers.
   virtual ~TimerPlay() = default;

   // Returns false once the two have differed.
   virtual bool stepOnce() = 0;

   // Lets everything that still runs come due, and delivers it. Returns false when the two have
   // differed, then or before.
   virtual bool finish() = 0;

   // What differed; empty while nothing does.
   virtual const std::string& fault() const = 0;

   // Writes the last operations, of timers that fired too.
   virtual void show( std::ostream& out ) const = 0;

   virtual const Counts& counts() const = 0;
};

} // namespace testing_support
