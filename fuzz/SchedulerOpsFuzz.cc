// The scheduler and its naive model: an input is the draws of a play, two bytes each, from which
// operations on tasks, groups, timers and the root come, of bodies too. After each the two must
// look the same; at the end everything comes to rest and is taken down.

#include "fuzz/Draws.h"
#include "fuzz/Fuzz.h"

#include "support/SchedulerPlay.h"

#include <iostream>
#include <memory>

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   Fuzz::Draws draws( Fuzz::asText( data, size ) );
   const auto play = testing_support::SchedulerPlay::make( [ &draws ] { return draws(); } );
   bool same = true;
   while( same && !draws.ended() ) {
      same = play->stepOnce();
   }
   same = same && play->finish();
   if( !same ) {
      std::cerr << play->fault() << '\n';
      play->show( std::cerr );
   }
   FUZZ_REQUIRE( same );
   return 0;
}
