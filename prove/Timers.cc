// The timer wheel against a sorted multimap: ties, zero, negative, infinite and huge delays, delays
// below a tick, starts and passes inside deliveries, a clock that is set back, and one that looks
// beyond the last tick. The plays make the passes themselves, so that no time goes by: that the
// loop begins them in time is for other rows. With the controls of both loops at once, each in a
// process of its own.

#include "prove/Plays.h"
#include "prove/Row.h"

#include "support/TimerPlay.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace {

using testing_support::TimerPlay;
using Counts = TimerPlay::Counts;

constexpr prove::Counted<Counts> counted[] = {
      { &Counts::operations },
      { &Counts::delivered },
      { &Counts::ties, "ties" },
      { &Counts::nestedPasses, "passes inside deliveries" },
      { &Counts::throughPasses, "exceptions" },
      { &Counts::restartsInside, "starts inside deliveries" },
      { &Counts::clockBack, "clocks set back" },
      { &Counts::farAhead, "huge delays" },
      { &Counts::waitedInTick, "timers that wait within their tick" },
};

bool playTimers( prove::Play<Counts>& play ) {
   constexpr unsigned sizes[] = { 3, 24, 24, 24, 400, 400, 400, 20'000 };
   constexpr double clocks[] = { 1.75e9, 1.75e9 + 0.00137, 1.0, 1e15 };
   constexpr std::uint64_t lengths[] = { 1'000, 100'000, 1'000'000, 1'000'000 };
   TimerPlay::Setting setting;
   setting.timers = sizes[ play.random() % std::size( sizes ) ];
   setting.clockStart = clocks[ play.random() % std::size( clocks ) ];
   setting.checkEvery = 8 * setting.timers;
   play.length = std::min( lengths[ play.random() % std::size( lengths ) ], play.left );
   const auto timers = TimerPlay::make( setting, play.random );
   bool good = true;
   while( good && timers->counts().operations < play.length ) {
      good = timers->stepOnce();
   }
   good = good && timers->finish();
   play.counts = timers->counts();
   if( !good ) {
      play.said << setting.timers << " timers: " << timers->fault() << '\n';
      timers->show( play.said );
   }
   return good;
}

constexpr prove::Game<Counts> game{
      .play = playTimers,
      .counted = counted,
      .longEnough = 10'000'000,
      .difference = "the wheel and the multimap differ",
      .figure =
            []( const Counts& sum, std::uint64_t plays ) {
               return fmt::format( "{} operations and {} deliveries in {} plays, none early, none "
                                   "lost, all in order",
                                   sum.operations, sum.delivered, plays );
            },
};

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow(
         argc, argv, { 8, "timers", "100 million operations, none early, none lost", 100'000'000 },
         []( const prove::Order& order ) { return prove::outcome( game, order ); } );
}
