// Rows that play: random operations against an oracle, each play from a seed of its own, half of
// the operations on each loop.

#pragma once

#include "prove/BothLoops.h"
#include "prove/Row.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <random>
#include <span>
#include <sstream>
#include <string>

namespace prove {

// A count of a play. One with a name has to come up in a run that is long enough: a comparison
// without it would say nothing about it.
template<typename Counts>
struct Counted {
   std::uint64_t Counts::*count;
   char const* name = nullptr;
};

// One play: what it is to do, then what it has done.
template<typename Counts>
struct Play {
   std::mt19937_64& random;
   // How many operations may be made.
   std::uint64_t left;

   // How many this play set out to make.
   std::uint64_t length = 0;
   Counts counts{};
   // What went wrong, where something did.
   std::ostringstream said{};
};

// `Counts` is plain data with the counter `operations`, which each play raises.
template<typename Counts>
struct Game {
   // Returns whether the library and the oracle agreed.
   bool ( *play )( Play<Counts>& );
   // All the counters of `Counts`.
   std::span<const Counted<Counts>> counted;
   // The count of a run from which those with a name have to come up on each loop.
   std::uint64_t longEnough;
   // What it means when a play fails.
   char const* difference;
   // What was reached, for all plays together.
   std::string ( *figure )( const Counts& sum, std::uint64_t plays );
};

// The plays of one loop.
template<typename Counts>
struct Played {
   bool good = false;
   std::uint64_t plays = 0;
   Counts sum{};
};

// Keeps the seeds of the two loops apart; a seed on the command line counts for both.
constexpr std::uint64_t frameworkSeeds = std::uint64_t{ 1 } << 32;

template<typename Counts>
void add( const Game<Counts>& game, const Counts& more, Counts& sum ) {
   for( const Counted<Counts>& counted : game.counted ) {
      sum.*counted.count += more.*counted.count;
   }
}

// Plays until there were `count` operations, or one play has failed.
template<typename Counts>
Played<Counts> playOn( const Game<Counts>& game, std::uint64_t count, std::uint64_t seed,
                       bool framework ) {
   Played<Counts> played;
   for( ; played.sum.operations < count; ++played.plays ) {
      const std::uint64_t playSeed = ( seed + played.plays ) % frameworkSeeds;
      std::mt19937_64 random( playSeed + ( framework ? frameworkSeeds : 0 ) );
      Play<Counts> play{ .random = random, .left = count - played.sum.operations };
      bool good = false;
      try {
         good = game.play( play );
      } catch( const std::exception& e ) {
         play.said << e.what() << '\n';
      }
      add( game, play.counts, played.sum );
      if( !good ) {
         // In one piece: the other loop's process may have a fault as well.
         std::cerr << fmt::format( "play {} on {}: {}by itself: --count {} --seed {}\n", playSeed,
                                   loopText( framework ), play.said.str(), 2 * play.length,
                                   playSeed )
                   << std::flush;
         return played;
      }
   }
   played.good = true;
   return played;
}

// Plays half of the order on each loop at once.
template<typename Counts>
Outcome outcome( const Game<Counts>& game, const Order& order ) {
   auto [ first, second ] = onBothLoops<Played<Counts>>( [ & ]( bool framework ) {
      return framework ? playOn( game, order.count / 2, order.seed, true )
                       : playOn( game, order.count - order.count / 2, order.seed, false );
   } );
   if( !first.good || !second.good ) {
      return { false, game.difference };
   }
   if( order.count >= game.longEnough ) {
      for( const Counted<Counts>& counted : game.counted ) {
         if( counted.name != nullptr &&
             ( first.sum.*counted.count == 0 || second.sum.*counted.count == 0 ) ) {
            return { false, fmt::format( "{} never came up", counted.name ) };
         }
      }
   }
   add( game, second.sum, first.sum );
   return { true, game.figure( first.sum, first.plays + second.plays ) };
}

} // namespace prove
