// Timer tasks against the timer wheel under them.

#include "Draws.h"
#include "Figure.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>

#include <cstdlib>
#include <thread>

#include <fmt/format.h>

namespace bench {

namespace {

constexpr std::size_t timers = 10'000;
constexpr int cycles = 2;

std::size_t fired = 0;

// Fails the program: a figure of timers that did not fire would be a good one.
void requireAllFired() {
   if( std::exchange( fired, 0 ) != timers ) {
      fmt::print( stderr, "not all of {} timers fired\n", timers );
      std::abort();
   }
}

class CountingEvent final : public Quarn::TimerWheelEvent {
 public:
   void timeout() override { ++fired; }
};

class CountingTask final : public Quarn::TimerTask {
 public:
   CountingTask()
         : TimerTask( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal,
                      "BenchCountingTimerTask" ) {}

 private:
   void taskExecute() override { ++fired; }
};

class TimerTasks {
 public:
   TimerTasks() {
      for( std::size_t i = 0; i < timers; ++i ) {
         tasks_.push_back( std::make_shared<CountingTask>() );
      }
   }
   void start( std::size_t i, double delay ) { tasks_[ i ]->scheduleTaskDelay( delay ); }
   void stop( std::size_t i ) { tasks_[ i ]->stopTimerTask(); }
   // Stopping leaves the master timer as it is, and loops of other figures would wait for it.
   void settle() { Quarn::schedulerRootQuarn()->timerWheelForTest()->setMasterTimer(); }

 private:
   std::vector<std::shared_ptr<CountingTask>> tasks_;
};

class WheelEvents {
 public:
   void start( std::size_t i, double delay ) { events_[ i ].setTimeout( wheel_, delay ); }
   void stop( std::size_t i ) { events_[ i ].delTimeout( wheel_ ); }
   void settle() { wheel_->setMasterTimer(); }

 private:
   std::shared_ptr<Quarn::TimerWheel> wheel_ = Quarn::getTimerWheel();
   std::vector<CountingEvent> events_ = std::vector<CountingEvent>( timers );
};

enum class Step { start, stop, expire };

class TimerTaskSides final : public Sides {
 public:
   explicit TimerTaskSides( Step step ) : step_( step ) {}

   Time ours() override { return _measure( tasks_ ); }
   Time floor() override { return _measure( events_ ); }

 private:
   template<typename Timers>
   Time _measure( Timers& of ) {
      Time total{};
      for( int cycle = 0; cycle < cycles; ++cycle ) {
         total += step_ == Step::expire ? _expire( of ) : _life( of );
      }
      return total;
   }

   template<typename Timers>
   Time _life( Timers& of ) {
      const Time started = timed( [ & ] {
         for( std::size_t i = 0; i < timers; ++i ) {
            of.start( i, draws_.delays[ i ] );
         }
      } );
      const Time stopped = timed( [ & ] {
         for( const std::size_t i : draws_.stopOrder ) {
            of.stop( i );
         }
      } );
      of.settle();
      return step_ == Step::start ? started : stopped;
   }

   // Through the loop, as in a program: a timer task has its run in this, a turn for each.
   template<typename Timers>
   Time _expire( Timers& of ) {
      for( std::size_t i = 0; i < timers; ++i ) {
         of.start( i, draws_.soonDelays[ i ] );
      }
      // The slowest is due after 100 ms.
      std::this_thread::sleep_for( std::chrono::milliseconds( 125 ) );
      const Time time = timed( [] { Quarn::doLeEventLoop(); } );
      requireAllFired();
      return time;
   }

   Step step_;
   Draws draws_{ timers };
   TimerTasks tasks_;
   WheelEvents events_;
};

Figure timerTaskFigure( std::string name, std::optional<double> goal, Step step ) {
   constexpr std::int64_t count = static_cast<std::int64_t>( timers ) * cycles;
   return { std::move( name ),
            goal,
            count,
            count,
            [ step ] { return std::make_unique<TimerTaskSides>( step ); },
            step == Step::expire ? 1 : 10 };
}

} // namespace

void timerTaskFigures( std::vector<Figure>& figures ) {
   figures.push_back( timerTaskFigure( "timer_task_start", 2.5, Step::start ) );
   figures.push_back( timerTaskFigure( "timer_task_stop", 2.5, Step::stop ) );
   figures.push_back( timerTaskFigure( "timer_task_expire", std::nullopt, Step::expire ) );
}

} // namespace bench
