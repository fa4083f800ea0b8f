// The timer wheel against a sorted multimap: ties, zero, negative, infinite and huge delays, delays
// below a tick, starts and passes inside deliveries, a clock that is set back, and one that looks
// beyond the last tick. On both loops at once, each in a process of its own.

#include "prove/BothLoops.h"
#include "prove/Row.h"

#include "support/TimerPlay.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <random>
#include <sstream>

namespace {

using testing_support::TimerPlay;

struct Result {
   bool good = false;
   std::uint64_t plays = 0;
   TimerPlay::Counts counts{};
};

void add( const TimerPlay::Counts& more, TimerPlay::Counts& sum ) {
   sum.operations += more.operations;
   sum.delivered += more.delivered;
   sum.ties += more.ties;
   sum.nestedPasses += more.nestedPasses;
   sum.throughPasses += more.throughPasses;
   sum.restartsInside += more.restartsInside;
   sum.clockBack += more.clockBack;
   sum.farAhead += more.farAhead;
   sum.waitedInTick += more.waitedInTick;
}

char const* missing( const TimerPlay::Counts& counts ) {
   return counts.ties == 0             ? "ties"
          : counts.nestedPasses == 0   ? "passes inside deliveries"
          : counts.throughPasses == 0  ? "exceptions"
          : counts.restartsInside == 0 ? "starts inside deliveries"
          : counts.clockBack == 0      ? "clocks set back"
          : counts.farAhead == 0       ? "huge delays"
          : counts.waitedInTick == 0   ? "timers that wait within their tick"
                                       : nullptr;
}

Result plays( std::uint64_t count, std::uint64_t seed, bool framework ) {
   Result result;
   for( ; result.counts.operations < count; ++result.plays ) {
      const std::uint64_t playSeed = seed + result.plays;
      std::mt19937_64 random( playSeed );
      constexpr unsigned sizes[] = { 3, 24, 24, 24, 400, 400, 400, 20'000 };
      constexpr double clocks[] = { 1.75e9, 1.75e9 + 0.00137, 1.0, 1e15 };
      constexpr std::uint64_t lengths[] = { 1'000, 100'000, 1'000'000, 1'000'000 };
      TimerPlay::Setting setting;
      setting.timers = sizes[ random() % std::size( sizes ) ];
      setting.clockStart = clocks[ random() % std::size( clocks ) ];
      setting.checkEvery = 8 * setting.timers;
      const std::uint64_t length = std::min( lengths[ random() % std::size( lengths ) ],
                                             count - result.counts.operations );
      const auto play = TimerPlay::make( setting, random );
      bool good = true;
      while( good && play->counts().operations < length ) {
         good = play->stepOnce();
      }
      add( play->counts(), result.counts );
      if( !good ) {
         std::ostringstream said;
         said << "play " << playSeed % prove::frameworkSeeds << " on "
              << prove::loopText( framework ) << ", " << setting.timers
              << " timers: " << play->fault() << '\n';
         play->show( said );
         said << prove::byItself( length, playSeed ) << '\n';
         std::cerr << said.str() << std::flush;
         return result;
      }
   }
   result.good = true;
   return result;
}

prove::Outcome run( const prove::Order& order ) {
   auto [ first, second ] = prove::halfOnEachLoop( order, &plays );
   if( !first.good || !second.good ) {
      return { false, "the wheel and the multimap differ" };
   }
   if( order.count >= 10'000'000 ) {
      // A comparison in which something never came up says nothing about it.
      for( Result const* result : { &first, &second } ) {
         if( char const* what = missing( result->counts ) ) {
            return { false, fmt::format( "{} never came up", what ) };
         }
      }
   }
   add( second.counts, first.counts );
   return { true, fmt::format( "{} operations and {} deliveries in {} plays on two loops, none "
                               "early, none lost, all in order",
                               first.counts.operations, first.counts.delivered,
                               first.plays + second.plays ) };
}

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow(
         argc, argv, { 8, "timers", "100 million operations, none early, none lost", 100'000'000 },
         run );
}
