// The timer wheel and a sorted multimap: an input is how many timers there are, what the clock says
// at first, and then the draws of a play, two bytes each. Every timer must fire in its pass, in its
// order and not before its time, also those that are started inside a delivery, and when the clock
// goes back.

#include "fuzz/Draws.h"
#include "fuzz/Fuzz.h"

#include "support/TimerPlay.h"

#include <iostream>
#include <iterator>

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   // Few timers meet each other often; many fill the wheel.
   constexpr unsigned timers[] = { 24, 1, 2, 3, 7, 100, 400 };
   // Now, now between two ticks, the beginning of time, and where a tick is below what a double
   // tells apart.
   constexpr double belowTicks = 1e15;
   constexpr double clocks[] = { 1.75e9, 1.75e9 + 0.00137, 1.0, belowTicks };
   Fuzz::Draws draws( Fuzz::asText( data, size ) );
   testing_support::TimerPlay::Setting setting;
   setting.timers = timers[ draws.byte() % std::size( timers ) ];
   setting.clockStart = clocks[ draws.byte() % std::size( clocks ) ];
   setting.checkEvery = 1 + setting.timers / 24;
   if( setting.clockStart == belowTicks && !testing_support::TimerPlay::hasExtendedPrecision() ) {
      return 0;
   }

   const auto play = testing_support::TimerPlay::make( setting, [ &draws ] { return draws(); } );
   bool same = true;
   while( same && !draws.ended() ) {
      same = play->stepOnce();
   }
   same = same && play->finish();
   if( !same ) {
      std::cerr << setting.timers << " timers: " << play->fault() << '\n';
      play->show( std::cerr );
   }
   FUZZ_REQUIRE( same );
   return 0;
}
