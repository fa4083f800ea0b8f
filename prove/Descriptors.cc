// Descriptors whose numbers change hands: watches on them, with poll(2) as the oracle. On both
// loops at once, each in a process of its own.

#include "prove/DescriptorPlay.h"
#include "prove/Plays.h"
#include "prove/Row.h"

#include <Quarn/base/ThreadControl.h>

#include <fmt/format.h>

#include <algorithm>
#include <csignal>

namespace {

using prove::DescriptorPlay;
using Counts = DescriptorPlay::Counts;

constexpr prove::Counted<Counts> counted[] = {
      { &Counts::operations },
      { &Counts::notifications },
      { &Counts::reused },
      { &Counts::reusedWhileDue, "a number used again under a call that is due" },
      { &Counts::hangUps, "hang-ups" },
      { &Counts::bothWays, "descriptors that are ready both ways" },
      { &Counts::droppedInOwnHandler, "watches dropped by their own handlers" },
      { &Counts::thrown, "exceptions" },
      { &Counts::excused },
};

bool playDescriptors( prove::Play<Counts>& play ) {
   play.length = std::min<std::uint64_t>( 5'000, play.left );
   DescriptorPlay descriptors( play.random, !Quarn::hasThreadLocalSingletons() );
   bool good = true;
   while( good && descriptors.counts().operations < play.length ) {
      for( unsigned turns = 0; good && turns < 32; ++turns ) {
         good = descriptors.turn();
      }
      good = good && descriptors.settle();
   }
   play.counts = descriptors.counts();
   if( good && play.counts.notifications >= 500 &&
       play.counts.excused > play.counts.notifications / 10 ) {
      play.said << play.counts.excused << " of " << play.counts.notifications
                << " events came when the descriptor was unready\n";
      good = false;
   }
   if( !good ) {
      play.said << "after these steps:\n" << descriptors.lastSteps() << descriptors.fault() << '\n';
   }
   return good;
}

constexpr prove::Game<Counts> game{
      .play = playDescriptors,
      .counted = counted,
      .longEnough = 100'000,
      .difference = "a watch and poll(2) differ",
      .figure =
            []( const Counts& sum, std::uint64_t /* plays */ ) {
               return fmt::format( "{} operations and {} events on two loops, {} of them too late "
                                   "for poll(2) to judge, {} numbers used again within handlers: "
                                   "none to the wrong owner, none lost",
                                   sum.operations, sum.notifications, sum.excused, sum.reused );
            },
};

} // namespace

int main( int argc, char** argv ) {
   // A peer that hangs up is told of by the write.
   std::signal( SIGPIPE, SIG_IGN );
   return prove::runRow(
         argc, argv,
         { 13, "descriptors", "1 million operations, no event to the wrong owner, none lost",
           1'000'000 },
         []( const prove::Order& order ) { return prove::outcome( game, order ); } );
}
