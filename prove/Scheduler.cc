// The scheduler against its naive model: random operations on roots, nested groups, tasks and
// timers, compared after each, on both loops at once, each in a process of its own.

#include "prove/BothLoops.h"
#include "prove/Row.h"

#include "support/SchedulerPlay.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <exception>
#include <iostream>
#include <random>
#include <sstream>
#include <string>

namespace {

using testing_support::SchedulerPlay;
namespace model = testing_support::model;

// What a process hands over.
struct Result {
   bool good = false;
   std::uint64_t operations = 0;
   std::uint64_t runs = 0;
   std::uint64_t plays = 0;
   std::array<std::uint64_t, 9> rare{};
};

constexpr char const* rareNames[] = { "ways given",
                                      "snapshot runs",
                                      "exceptions through a snapshot",
                                      "critical tasks let in",
                                      "slices of a reset",
                                      "tasks gone in their run",
                                      "groups gone in their run",
                                      "timers expired while suspended",
                                      "runs within runs" };

void add( const model::Tally& tally, std::array<std::uint64_t, 9>& rare ) {
   const std::uint64_t more[] = {
         tally.waysGiven,          tally.snapshotRuns,     tally.throughSnapshot,
         tally.criticalLetIn,      tally.resetSlices,      tally.tasksGoneInOwnRun,
         tally.groupsGoneInOwnRun, tally.expiredSuspended, tally.deepestRun > 1 ? 1u : 0u };
   for( std::size_t n = 0; n < rare.size(); ++n ) {
      rare[ n ] += more[ n ];
   }
}

// Plays of all lengths until there were `count` operations.
Result plays( std::uint64_t count, std::uint64_t seed, bool framework ) {
   Result result;
   for( ; result.operations < count; ++result.plays ) {
      const std::uint64_t playSeed = seed + result.plays;
      std::mt19937_64 random( playSeed );
      constexpr std::uint64_t lengths[] = { 300, 3'000, 30'000, 100'000 };
      const std::uint64_t length = std::min( lengths[ random() % 4 ], count - result.operations );
      auto play = SchedulerPlay::make( random );
      bool good = true;
      std::string thrown;
      try {
         while( good && play->operations() < length ) {
            good = play->stepOnce();
         }
         good = good && play->finish();
      } catch( const std::exception& e ) {
         good = false;
         thrown = e.what();
      }
      result.operations += play->operations();
      result.runs += play->runs();
      if( !good ) {
         std::ostringstream said;
         said << "play " << playSeed % prove::frameworkSeeds << " on "
              << prove::loopText( framework ) << ": " << play->fault() << thrown << '\n';
         play->show( said );
         said << prove::byItself( length, playSeed ) << '\n';
         std::cerr << said.str() << std::flush;
         // What is broken may not come down in one piece.
         (void)play.release();
         return result;
      }
      add( play->tally(), result.rare );
   }
   result.good = true;
   return result;
}

prove::Outcome run( const prove::Order& order ) {
   const auto [ first, second ] = prove::halfOnEachLoop( order, &plays );
   if( !first.good || !second.good ) {
      return { false, "the scheduler and its model differ" };
   }
   // A comparison in which a rule never came up says nothing about it.
   if( order.count >= 1'000'000 ) {
      for( std::size_t n = 0; n < first.rare.size(); ++n ) {
         if( first.rare[ n ] == 0 || second.rare[ n ] == 0 ) {
            return { false, fmt::format( "{} never came up", rareNames[ n ] ) };
         }
      }
   }
   return { true, fmt::format( "{} operations and {} runs in {} plays on two loops, none differs",
                               first.operations + second.operations, first.runs + second.runs,
                               first.plays + second.plays ) };
}

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow( argc, argv,
                         { 7, "scheduler",
                           "10 million operations, no difference in order, counters, history, "
                           "status, busy state",
                           10'000'000 },
                         run );
}
