// The random numbers of the timer figures: the same on both sides, and in every run.

#pragma once

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <random>
#include <vector>

namespace bench {

constexpr std::size_t million = 1'000'000;

struct Draws {
   explicit Draws( std::size_t count ) : stopOrder( count ) {
      std::mt19937_64 random( 42 );
      const auto draw = [ & ]( double from, double to ) {
         std::uniform_real_distribution<double> uniform( from, to );
         std::vector<double> seconds( count );
         std::ranges::generate( seconds, [ & ] { return uniform( random ); } );
         return seconds;
      };
      delays = draw( 60.0, 3600.0 );
      freshDelays = draw( 60.0, 3600.0 );
      soonDelays = draw( 0.0, 0.1 );
      std::iota( stopOrder.begin(), stopOrder.end(), std::size_t{ 0 } );
      moveOrder = stopOrder;
      std::ranges::shuffle( stopOrder, random );
      std::ranges::shuffle( moveOrder, random );
      moveOrder.resize( count / 5 );
   }

   // Seconds, by timer.
   std::vector<double> delays;
   std::vector<double> freshDelays;
   std::vector<double> soonDelays;
   // Timers: all of them, and a fifth.
   std::vector<std::size_t> stopOrder;
   std::vector<std::size_t> moveOrder;
};

} // namespace bench
