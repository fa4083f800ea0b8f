// The steps in the life of timers, for a side that says how one timer is started, moved and
// stopped.

#pragma once

#include "Peer.h"

#include <algorithm>
#include <iterator>

namespace bench::peers {

// `Side` has `add`, `moveTo` and `remove` for the timer of an index, a static `delayOf` that
// converts seconds, and `run`, which runs the loop until all timers have fired. Delays are
// converted beforehand. A side that has more to do hides the functions below.
template<typename Side, typename Delay>
class TimersOf : public Timers {
 public:
   explicit TimersOf( const Draws& draws )
         : draws_( draws ),
           delays_( converted( draws.delays ) ),
           freshDelays_( converted( draws.freshDelays ) ),
           soonDelays_( converted( draws.soonDelays ) ) {}

   Time start() final { return startAll( delays_ ); }
   void startSoon() final { startAll( soonDelays_ ); }
   Time move() final {
      self().refreshClock();
      return timeOf( [ this ] {
         for( const std::size_t i : draws_.moveOrder ) {
            self().moveTo( i, freshDelays_[ i ] );
         }
         self().settle();
      } );
   }
   Time stop() final {
      const Time time = timeOf( [ this ] {
         for( const std::size_t i : draws_.stopOrder ) {
            self().remove( i );
         }
         self().settle();
      } );
      self().stopped();
      return time;
   }
   Time deliver() final {
      fired_ = 0;
      const Time time = timeOf( [ this ] { self().run(); } );
      if( fired_ != count() ) {
         fail( "firing all timers" );
      }
      return time;
   }

 protected:
   // For loops that read the clock once a turn: before timers are started.
   void refreshClock() {}
   // What is left to do, in the measured time, when timers were moved or stopped.
   void settle() {}
   // The same beside the measured time.
   void stopped() {}

   std::size_t count() const { return delays_.size(); }
   bool allFired() const { return fired_ == delays_.size(); }

   std::size_t fired_ = 0;

 private:
   Side& self() { return static_cast<Side&>( *this ); }

   static std::vector<Delay> converted( const std::vector<double>& seconds ) {
      std::vector<Delay> delays;
      delays.reserve( seconds.size() );
      std::ranges::transform( seconds, std::back_inserter( delays ), &Side::delayOf );
      return delays;
   }

   Time startAll( const std::vector<Delay>& delays ) {
      self().refreshClock();
      return timeOf( [ & ] {
         for( std::size_t i = 0; i < delays.size(); ++i ) {
            self().add( i, delays[ i ] );
         }
      } );
   }

   const Draws& draws_;
   std::vector<Delay> delays_;
   std::vector<Delay> freshDelays_;
   std::vector<Delay> soonDelays_;
};

} // namespace bench::peers
