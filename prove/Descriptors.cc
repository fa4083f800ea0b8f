// Descriptors whose numbers change hands: watches on them, with poll(2) as the oracle. On both
// loops at once, each in a process of its own.

#include "prove/BothLoops.h"
#include "prove/DescriptorPlay.h"
#include "prove/Row.h"

#include <Quarn/base/ThreadControl.h>

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <random>
#include <sstream>

namespace {

using prove::DescriptorPlay;

struct Result {
   bool good = false;
   std::uint64_t plays = 0;
   DescriptorPlay::Counts counts{};
};

void add( const DescriptorPlay::Counts& more, DescriptorPlay::Counts& sum ) {
   sum.operations += more.operations;
   sum.notifications += more.notifications;
   sum.reused += more.reused;
   sum.reusedWhileDue += more.reusedWhileDue;
   sum.hangUps += more.hangUps;
   sum.bothWays += more.bothWays;
   sum.droppedInOwnHandler += more.droppedInOwnHandler;
   sum.thrown += more.thrown;
   sum.excused += more.excused;
}

char const* missing( const DescriptorPlay::Counts& counts ) {
   return counts.reusedWhileDue == 0        ? "a number used again under a call that is due"
          : counts.hangUps == 0             ? "hang-ups"
          : counts.bothWays == 0            ? "descriptors that are ready both ways"
          : counts.droppedInOwnHandler == 0 ? "watches dropped by their own handlers"
          : counts.thrown == 0              ? "exceptions"
                                            : nullptr;
}

Result plays( std::uint64_t count, std::uint64_t seed, bool framework ) {
   Result result;
   for( ; result.counts.operations < count; ++result.plays ) {
      const std::uint64_t playSeed = seed + result.plays;
      std::mt19937_64 random( playSeed );
      const std::uint64_t length =
            std::min<std::uint64_t>( 5'000, count - result.counts.operations );
      DescriptorPlay play( random, !Quarn::hasThreadLocalSingletons() );
      bool good = true;
      while( good && play.counts().operations < length ) {
         for( unsigned turns = 0; good && turns < 32; ++turns ) {
            good = play.turn();
         }
         good = good && play.settle();
      }
      add( play.counts(), result.counts );
      if( !good ) {
         std::ostringstream said;
         said << "play " << playSeed % prove::frameworkSeeds << " on "
              << prove::loopText( framework ) << ", after these steps:\n"
              << play.lastSteps() << play.fault() << '\n'
              << prove::byItself( length, playSeed ) << '\n';
         std::cerr << said.str() << std::flush;
         return result;
      }
   }
   result.good = true;
   return result;
}

prove::Outcome run( const prove::Order& order ) {
   // A peer that hangs up is told of by the write.
   std::signal( SIGPIPE, SIG_IGN );
   auto [ first, second ] = prove::halfOnEachLoop( order, &plays );
   if( !first.good || !second.good ) {
      return { false, "a watch and poll(2) differ" };
   }
   if( order.count >= 100'000 ) {
      // A comparison in which something never came up says nothing about it.
      for( Result const* result : { &first, &second } ) {
         if( char const* what = missing( result->counts ) ) {
            return { false, fmt::format( "{} never came up", what ) };
         }
      }
   }
   add( second.counts, first.counts );
   return { true,
            fmt::format( "{} operations and {} events on two loops, {} numbers used again within "
                         "handlers: none to the wrong owner, none lost",
                         first.counts.operations, first.counts.notifications,
                         first.counts.reused ) };
}

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow( argc, argv,
                         { 13, "descriptors",
                           "1 million operations, no event to the wrong owner, none lost",
                           1'000'000 },
                         run );
}
