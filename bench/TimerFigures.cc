// The timer wheel against the event library's own timers.

#include "Draws.h"
#include "Figure.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TimerWheelCpp.h>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdlib>
#include <thread>

#include <fmt/format.h>

namespace bench {

namespace {

// Timers that have fired, of either side.
std::size_t fired = 0;

// The slowest of the timers that are to expire is due after 100 ms.
void waitUntilAllAreDue() { std::this_thread::sleep_for( std::chrono::milliseconds( 125 ) ); }

// Fails the program: a figure of timers that did not fire would be a good one.
void requireFired( std::size_t count ) {
   if( fired != count ) {
      fmt::print( stderr, "{} of {} timers fired\n", fired, count );
      std::abort();
   }
   fired = 0;
}

class CountingEvent final : public Quarn::TimerWheelEvent {
 public:
   void timeout() override { ++fired; }
};

// Timers on the thread's wheel.
class WheelTimers {
 public:
   explicit WheelTimers( const Draws& draws ) : draws_( draws ), events_( draws.delays.size() ) {}

   Time start( const std::vector<double>& delays ) {
      return timed( [ & ] {
         for( std::size_t i = 0; i < events_.size(); ++i ) {
            events_[ i ].setTimeout( wheel_, delays[ i ] );
         }
      } );
   }
   Time move() {
      return timed( [ this ] {
         for( const std::size_t i : draws_.moveOrder ) {
            events_[ i ].setTimeout( wheel_, draws_.freshDelays[ i ] );
         }
      } );
   }
   Time stop() {
      const Time time = timed( [ this ] {
         for( const std::size_t i : draws_.stopOrder ) {
            events_[ i ].delTimeout( wheel_ );
         }
      } );
      // Stopping leaves the master timer as it is, and loops of other figures would wait for it.
      wheel_->setMasterTimer();
      return time;
   }
   // Through the loop, as in a program; it ends when no timer is left.
   Time deliver() {
      const Time time = timed( [] { Quarn::doLeEventLoop(); } );
      requireFired( events_.size() );
      return time;
   }

 private:
   const Draws& draws_;
   std::shared_ptr<Quarn::TimerWheel> wheel_ = Quarn::getTimerWheel();
   std::vector<CountingEvent> events_;
};

// The same on a base of libevent. The delays are converted beforehand.
class BareTimers {
 public:
   explicit BareTimers( const Draws& draws )
         : draws_( draws ),
           base_( Quarn::leCreateBase() ),
           events_( draws.delays.size() ),
           delays_( converted( draws.delays ) ),
           freshDelays_( converted( draws.freshDelays ) ),
           soonDelays_( converted( draws.soonDelays ) ) {
      for( event& ev : events_ ) {
         evtimer_assign( &ev, base_, &BareTimers::expired, nullptr );
      }
   }
   ~BareTimers() { event_base_free( base_ ); }
   BareTimers( const BareTimers& ) = delete;
   BareTimers& operator=( const BareTimers& ) = delete;

   Time start() { return _start( delays_ ); }
   Time startSoon() { return _start( soonDelays_ ); }
   Time move() {
      return timed( [ this ] {
         for( const std::size_t i : draws_.moveOrder ) {
            event_add( &events_[ i ], &freshDelays_[ i ] );
         }
      } );
   }
   Time stop() {
      return timed( [ this ] {
         for( const std::size_t i : draws_.stopOrder ) {
            event_del( &events_[ i ] );
         }
      } );
   }
   Time deliver() {
      const Time time = timed( [ this ] { event_base_dispatch( base_ ); } );
      requireFired( events_.size() );
      return time;
   }

 private:
   static void expired( evutil_socket_t, short, void* ) { ++fired; }

   static std::vector<timeval> converted( const std::vector<double>& delays ) {
      std::vector<timeval> values;
      values.reserve( delays.size() );
      for( const double seconds : delays ) {
         const auto whole = static_cast<time_t>( seconds );
         values.push_back( { whole, static_cast<suseconds_t>(
                                          ( seconds - static_cast<double>( whole ) ) * 1e6 ) } );
      }
      return values;
   }

   Time _start( const std::vector<timeval>& delays ) {
      return timed( [ & ] {
         for( std::size_t i = 0; i < events_.size(); ++i ) {
            event_add( &events_[ i ], &delays[ i ] );
         }
      } );
   }

   const Draws& draws_;
   event_base* base_;
   std::vector<event> events_;
   std::vector<timeval> delays_;
   std::vector<timeval> freshDelays_;
   std::vector<timeval> soonDelays_;
};

enum class Step { start, move, stop, expire };

// One step of the life of all timers is timed, and the rest of it done around that.
class TimerSides final : public Sides {
 public:
   TimerSides( std::size_t count, Step step, int cycles )
         : step_( step ),
           cycles_( cycles ),
           draws_( count ) {}

   Time ours() override {
      return _cycles( [ this ] {
         if( step_ == Step::expire ) {
            wheel_.start( draws_.soonDelays );
            waitUntilAllAreDue();
            return wheel_.deliver();
         }
         return _life( wheel_, [ this ] { return wheel_.start( draws_.delays ); } );
      } );
   }
   Time floor() override {
      return _cycles( [ this ] {
         if( step_ == Step::expire ) {
            bare_.startSoon();
            waitUntilAllAreDue();
            return bare_.deliver();
         }
         return _life( bare_, [ this ] { return bare_.start(); } );
      } );
   }

 private:
   template<typename Cycle>
   Time _cycles( Cycle cycle ) {
      Time total{};
      for( int i = 0; i < cycles_; ++i ) {
         total += cycle();
      }
      return total;
   }

   template<typename Timers, typename Start>
   Time _life( Timers& timers, Start start ) {
      const Time started = start();
      const Time moved = step_ == Step::move ? timers.move() : Time();
      const Time stopped = timers.stop();
      switch( step_ ) {
      case Step::start:
         return started;
      case Step::move:
         return moved;
      default:
         return stopped;
      }
   }

   Step step_;
   int cycles_;
   Draws draws_;
   WheelTimers wheel_{ draws_ };
   BareTimers bare_{ draws_ };
};

Figure timerFigure( std::string name, std::optional<double> goal, std::size_t timers, Step step,
                    int cycles ) {
   const std::size_t inOne = step == Step::move ? timers / 5 : timers;
   const std::int64_t count = static_cast<std::int64_t>( inOne ) * cycles;
   return { std::move( name ), goal, count, count,
            [ = ] { return std::make_unique<TimerSides>( timers, step, cycles ); } };
}

} // namespace

void timerFigures( std::vector<Figure>& figures ) {
   figures.push_back( timerFigure( "timer_start", 1.0, million, Step::start, 1 ) );
   figures.push_back( timerFigure( "timer_stop", 0.12, million, Step::stop, 1 ) );
   figures.push_back( timerFigure( "timer_move", 0.35, million, Step::move, 1 ) );
   figures.push_back( timerFigure( "timer_expire", 0.25, million, Step::expire, 1 ) );
   figures.push_back( timerFigure( "timer_start_10k", std::nullopt, 10'000, Step::start, 20 ) );
   figures.push_back( timerFigure( "timer_stop_10k", std::nullopt, 10'000, Step::stop, 20 ) );
   figures.push_back( timerFigure( "timer_move_10k", std::nullopt, 10'000, Step::move, 20 ) );
   figures.push_back( timerFigure( "timer_expire_10k", std::nullopt, 10'000, Step::expire, 2 ) );
}

} // namespace bench
