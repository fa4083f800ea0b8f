// The scheduler against its naive model: random operations on roots, nested groups, tasks and
// timers, compared after each, on both loops at once, each in a process of its own.

#include "prove/Plays.h"
#include "prove/Row.h"

#include "support/SchedulerPlay.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <iterator>
#include <string>

namespace {

using testing_support::SchedulerPlay;

struct Counts : testing_support::model::Tally {
   std::uint64_t operations = 0;
   std::uint64_t runs = 0;
   // Plays in which a run led to another.
   std::uint64_t nested = 0;
};

constexpr prove::Counted<Counts> counted[] = {
      { &Counts::operations },
      { &Counts::runs },
      { &Counts::waysGiven, "ways given" },
      { &Counts::snapshotRuns, "snapshot runs" },
      { &Counts::throughSnapshot, "exceptions through a snapshot" },
      { &Counts::criticalLetIn, "critical tasks let in" },
      { &Counts::resetSlices, "slices of a reset" },
      { &Counts::tasksGoneInOwnRun, "tasks gone in their run" },
      { &Counts::groupsGoneInOwnRun, "groups gone in their run" },
      { &Counts::expiredSuspended, "timers expired while suspended" },
      { &Counts::nested, "runs within runs" },
};

bool playScheduler( prove::Play<Counts>& play ) {
   constexpr std::uint64_t lengths[] = { 300, 3'000, 30'000, 100'000 };
   play.length = std::min( lengths[ play.random() % std::size( lengths ) ], play.left );
   auto scheduler = SchedulerPlay::make( play.random );
   bool good = true;
   std::string thrown;
   try {
      while( good && scheduler->operations() < play.length ) {
         good = scheduler->stepOnce();
      }
      good = good && scheduler->finish();
   } catch( const std::exception& e ) {
      good = false;
      thrown = e.what();
   }
   play.counts = { scheduler->tally(), scheduler->operations(), scheduler->runs(),
                   scheduler->tally().deepestRun > 1 ? 1u : 0u };
   if( !good ) {
      play.said << scheduler->fault() << thrown << '\n';
      scheduler->show( play.said );
      // What is broken may not come down in one piece.
      (void)scheduler.release();
   }
   return good;
}

constexpr prove::Game<Counts> game{
      .play = playScheduler,
      .counted = counted,
      .longEnough = 1'000'000,
      .difference = "the scheduler and its model differ",
      .figure =
            []( const Counts& sum, std::uint64_t plays ) {
               return fmt::format( "{} operations and {} runs in {} plays on two loops, none "
                                   "differs",
                                   sum.operations, sum.runs, plays );
            },
};

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow(
         argc, argv,
         { 7, "scheduler",
           "10 million operations, no difference in order, counters, history, "
           "status, busy state",
           10'000'000 },
         []( const prove::Order& order ) { return prove::outcome( game, order ); } );
}
