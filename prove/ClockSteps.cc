// Row 12: the wall clock is set by seconds, hours and years, to and fro, while timers run.
//
// Timers of every kind are armed, and the clock is set before, between and inside of what they
// call. Each must come once and no earlier than it was asked for, by the system's monotonic clock
// past all replacements. Only what waits for the event library's own timers, plain controls and the
// end of the loop on it, may be early by that clock, by as much as the library's own is behind: it
// reads the coarse one. By the coarse one they are not early either; how far it is behind depends
// on the kernel, and on how late the machine is with a tick, so that there is no number. The clocks
// of timers and tasks are compared with the monotonic one all the time. All of that on both loops,
// in real and in virtual time, a process for each. In virtual time periodic timers have come as
// often as the calendar says, to the run.

#include "prove/Row.h"
#include "prove/SharedMemory.h"
#include "prove/WallClock.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <Oru/System.h>

#include <event2/event.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using prove::rawMonotonic;
using prove::rawMonotonicCoarse;
using prove::wallClockStep;

// What a process leaves for its parent, in memory that they share.
struct Result {
   std::uint64_t steps;
   std::uint64_t timers;
   std::uint64_t early;
   std::uint64_t lost;
   // Fired more often than asked for.
   std::uint64_t twice;
   std::uint64_t clockFaults;
   double latest;
   // By how much what a coarse clock decides was early at most.
   double coarseEarly;
   bool finished;
   char fault[ 200 ];
};

constinit Result* result = nullptr;

[[gnu::format( printf, 1, 2 )]] void complain( char const* format, ... ) {
   if( result->fault[ 0 ] == '\0' ) {
      va_list arguments;
      va_start( arguments, format );
      std::vsnprintf( result->fault, sizeof( result->fault ), format, arguments );
      va_end( arguments );
   }
}

// -------------------------------------------------------------------------------------- the steps

constexpr std::int64_t hour = 3600;
constexpr std::int64_t year = hour * 24 * 365;
constexpr std::array<std::int64_t, 12> steps{
      1, -1, 7, -13, hour, -hour, year, -year, 5 * hour, -9 * hour, 20 * year, -20 * year };

class Stepper {
 public:
   explicit Stepper( std::uint64_t seed ) : random_( seed ) {}

   void step() {
      std::int64_t by = steps[ random_() % steps.size() ];
      // Between 1990 and 2110, by and large: the system's time has to stay one.
      if( std::abs( sum_ + by ) > 40 * year ) {
         by = -by;
      }
      sum_ += by;
      wallClockStep( by );
      ++result->steps;
   }

   std::mt19937_64& random() { return random_; }

 private:
   std::mt19937_64 random_;
   std::int64_t sum_ = 0;
};

// Compares the clocks of the library with the monotonic one: the differences between two readings
// lie between those of readings around them.
class Clocks {
 public:
   void check() {
      _check( _timers, "Quarn::time()", Quarn::time );
      _check( _framework, "Oru::System::currentTime()", Oru::System::currentTime );
      _check( _tasks, "taskTimeNow()", [] {
         return static_cast<double>( taskTimeNow().time_since_epoch().count() ) / 1e9;
      } );
   }

 private:
   struct Reading {
      double before = 0.0;
      double read = 0.0;
      double after = 0.0;
   };

   static void _check( Reading& first, char const* name, double ( *clock )() ) {
      Reading now;
      now.before = rawMonotonic();
      now.read = clock();
      now.after = rawMonotonic();
      if( first.read == 0.0 ) {
         first = now;
         return;
      }
      // The double of a time since 1970 has steps of 0.25 us.
      constexpr double rounding = 1e-6;
      const double moved = now.read - first.read;
      if( moved < now.before - first.after - rounding ||
          moved > now.after - first.before + rounding ) {
         ++result->clockFaults;
         complain( "%s has moved by %.6f s in %.6f s", name, moved, now.before - first.after );
      }
   }

   Reading _timers;
   Reading _framework;
   Reading _tasks;
};

// -------------------------------------------------------------------------------------- real time

// What decides when a timer of this kind fires.
enum class Kind { exact, coarse };

// Delays are cut to whole microseconds, and so is the coarse clock when they are added.
constexpr double microsecond = 1e-6;

// Waits from when it is made, on both clocks.
class Wait {
 public:
   // Complains when it ends after less than that on the clock that decides. By the exact one, what
   // a coarse clock decides is then early by no more than the coarse one was behind at first.
   void endsAfter( double seconds, Kind kind, char const* what ) const {
      const double took = rawMonotonic() - at_;
      if( kind == Kind::coarse ) {
         const double coarse = rawMonotonicCoarse() - coarseAt_;
         if( coarse < seconds - 2 * microsecond ) {
            ++result->early;
            complain( "%s of %.6f s ended after %.6f s of the coarse clock", what, seconds,
                      coarse );
         }
         result->coarseEarly = std::max( result->coarseEarly, seconds - took );
      } else if( took < seconds - microsecond ) {
         ++result->early;
         complain( "%s of %.6f s ended after %.6f s", what, seconds, took );
      }
      result->latest = std::max( result->latest, took - seconds );
   }

   double seconds() const { return rawMonotonic() - at_; }

 private:
   double at_ = rawMonotonic();
   double coarseAt_ = rawMonotonicCoarse();
};

struct Round {
   Stepper& stepper;
   Clocks& clocks;
   // Of the loop's own timers.
   Kind loop;
};

// A timer that was armed, how often, and how often it fired.
class Armed {
 public:
   void armed( double delay ) {
      wait_ = Wait();
      delay_ = delay;
      ++times_;
   }
   void fires( Round& round, Kind kind ) {
      ++fired_;
      wait_.endsAfter( delay_, kind, "a timer" );
      round.clocks.check();
      round.stepper.step();
      round.clocks.check();
   }
   bool waits() const { return fired_ < times_; }
   // Counts what has not come, and what has come too often, since it was called last.
   void check() {
      if( fired_ < times_ ) {
         result->lost += times_ - fired_;
         complain( "a timer of %.6f s has not come", delay_ );
      } else if( fired_ > times_ ) {
         result->twice += fired_ - times_;
         complain( "a timer of %.6f s has come %llu times instead of %llu", delay_,
                   static_cast<unsigned long long>( fired_ ),
                   static_cast<unsigned long long>( times_ ) );
      }
      times_ = fired_ = 0;
   }

 private:
   Wait wait_;
   double delay_ = 0.0;
   std::uint64_t times_ = 0;
   std::uint64_t fired_ = 0;
};

class Task final : public TimerTask {
 public:
   Task( std::shared_ptr<TaskScheduler> scheduler, Round& round )
         : TimerTask( std::move( scheduler ), TaskPriority::normal, "step" ),
           round_( round ) {}
   void arm( double delay ) {
      armed.armed( delay );
      scheduleTaskDelay( delay );
   }
   Armed armed;

 private:
   void taskExecute() override { armed.fires( round_, Kind::exact ); }
   Round& round_;
};

class Control final : public Platform::TimeoutHandler {
 public:
   Control( Round& round, std::shared_ptr<TimerWheel> wheel )
         : round_( round ),
           kind_( wheel ? Kind::exact : round.loop ),
           timer_( wheel ? Platform::getTimerControl( this, std::move( wheel ) )
                         : Platform::getTimerControl( this ) ) {}
   void arm( double delay ) {
      armed.armed( delay );
      timer_->setTimeout( delay );
   }
   Armed armed;

 private:
   void timeout() override { armed.fires( round_, kind_ ); }
   Round& round_;
   Kind kind_;
   std::shared_ptr<Platform::TimerControl> timer_;
};

// The event library sees the clock that is set, or the row proves nothing.
void requireReach( Stepper& stepper ) {
   leInit();
   event_base* const base = leCreateBase();
   timeval before{};
   timeval after{};
   event_base_gettimeofday_cached( base, &before );
   wallClockStep( year );
   event_base_gettimeofday_cached( base, &after );
   wallClockStep( -year );
   event_base_free( base );
   if( after.tv_sec - before.tv_sec < year - 1 ) {
      complain( "the event library does not see the steps" );
      ++result->clockFaults;
   }
   stepper.step();
}

void realTime( std::uint64_t rounds, std::uint64_t seed, bool framework ) {
   Stepper stepper( seed );
   if( !framework ) {
      requireReach( stepper );
   }
   Clocks clocks;
   Round round{ stepper, clocks, framework ? Kind::exact : Kind::coarse };
   const auto root = schedulerRootQuarn();
   const auto wheel = getTimerWheel();
   constexpr int ofEach = 12;
   std::vector<std::shared_ptr<Task>> tasks;
   std::vector<std::unique_ptr<Control>> controls;
   for( int i = 0; i < ofEach; ++i ) {
      tasks.push_back( std::make_shared<Task>( root, round ) );
      controls.push_back( std::make_unique<Control>( round, wheel ) );
      controls.push_back( std::make_unique<Control>( round, nullptr ) );
   }
   std::uniform_real_distribution<double> delays( 0.0, 0.08 );
   for( std::uint64_t r = 0; r < rounds; ++r ) {
      for( const auto& task : tasks ) {
         task->arm( delays( stepper.random() ) );
         stepper.step();
      }
      for( const auto& control : controls ) {
         control->arm( delays( stepper.random() ) );
         stepper.step();
      }
      result->timers += tasks.size() + controls.size();
      const auto slice = [ & ] {
         constexpr double seconds = 0.02;
         const Wait wait;
         Platform::doEventLoop( seconds );
         wait.endsAfter( seconds, round.loop, "a loop" );
         stepper.step();
         return std::min( wait.seconds(), 2 * seconds ); // not what the machine stood still
      };
      const auto isWaiting = []( const auto& timer ) { return timer->armed.waits(); };
      // Much longer than a busy machine takes, and shorter than the smallest step.
      double left = 0.7;
      while( left > 0.0 && ( std::any_of( tasks.begin(), tasks.end(), isWaiting ) ||
                             std::any_of( controls.begin(), controls.end(), isWaiting ) ) ) {
         left -= slice();
      }
      // For one that comes once more.
      slice();
      for( const auto& task : tasks ) {
         task->armed.check();
      }
      for( const auto& control : controls ) {
         control->armed.check();
      }
   }
   controls.clear();
}

// ------------------------------------------------------------------------------------ virtual time

// Real time, and the longest that passed between two looks at it.
class RealTime {
 public:
   double look() {
      const double now = rawMonotonic();
      longest_ = std::max( longest_, now - last_ );
      last_ = now;
      return now;
   }
   double longest() const { return longest_; }

 private:
   double last_ = rawMonotonic();
   double longest_ = 0.0;
};

// Due at fixed times: so many seconds apart, counted from its start.
class Periodic final : public TimerTask {
 public:
   Periodic( std::shared_ptr<TaskScheduler> scheduler, Stepper& stepper, RealTime& realTime,
             double itsPeriod )
         : TimerTask( std::move( scheduler ), TaskPriority::normal, "periodic" ),
           period( itsPeriod ),
           stepper_( stepper ),
           realTime_( realTime ) {
      _arm();
   }

   std::uint64_t dueBy( double now ) const {
      return static_cast<std::uint64_t>( std::max( 0.0, std::floor( ( now - start_ ) / period ) ) );
   }

   const double period;
   std::uint64_t runs = 0;

 private:
   void _arm() {
      armedAt_ = realTime_.look();
      // What was missed is made up for.
      const double now = Quarn::time();
      const double delay = start_ + static_cast<double>( runs + 1 ) * period - now;
      // Negative ones count as 0.
      asked_ = now + std::max( delay, 0.0 );
      scheduleTaskDelay( delay );
   }
   void taskExecute() override {
      ++runs;
      ++result->timers;
      const double now = Quarn::time();
      if( now < asked_ ) {
         ++result->early;
         complain( "a timer of %.1f s in virtual time came %.6f s early", period, asked_ - now );
      }
      // Jumps end at the next timer or a little behind it, so that only real time makes one late:
      // since it was armed, or while the loop was told when it has to wake up for another timer of
      // the same moment, before this one was armed.
      constexpr double behind = 0.001;
      const double real = realTime_.look() - armedAt_ + realTime_.longest();
      if( now - asked_ > real + behind ) {
         ++result->lost;
         complain( "a timer of %.1f s in virtual time came %.6f s late", period, now - asked_ );
      }
      stepper_.step();
      _arm();
   }

   Stepper& stepper_;
   RealTime& realTime_;
   const double start_ = Quarn::time();
   double asked_ = 0.0;
   double armedAt_ = 0.0;
};

class Calendar {
 public:
   explicit Calendar( std::uint64_t seed ) : stepper_( seed ) {
      for( const double period : { 0.5, 60.0, 3600.0, 86400.0 } ) {
         periodics_.push_back(
               std::make_shared<Periodic>( loop_.root(), stepper_, realTime_, period ) );
      }
   }

   // To between two times at which timers are due.
   void advance( double seconds ) {
      target_ += seconds;
      loop_.advance( target_ - Quarn::time() );
      stepper_.step();
      // A jump ends some microseconds behind the timer.
      const double behind = loop_.now() - target_;
      if( behind < -microsecond || behind > 5.0 ) {
         ++result->clockFaults;
         complain( "%.0f s of virtual time end by %.6f s behind", seconds, behind );
      }
      // Real time goes on beneath virtual time: until nothing falls due while the rest is run, nor
      // just before, when the loop may have been told late to wake up.
      double before;
      do {
         before = Quarn::time();
         loop_.runUntilIdle();
         realTime_.look();
         now_ = Quarn::time();
      } while( _anyDueBetween( before - std::min( realTime_.longest(), 0.2 ), now_ ) );
   }

   void check() {
      for( const auto& periodic : periodics_ ) {
         const std::uint64_t due = periodic->dueBy( now_ );
         if( periodic->runs != due ) {
            ( periodic->runs < due ? result->lost : result->twice ) +=
                  periodic->runs < due ? due - periodic->runs : periodic->runs - due;
            complain( "%llu runs instead of %llu every %.1f s in virtual time",
                      static_cast<unsigned long long>( periodic->runs ),
                      static_cast<unsigned long long>( due ), periodic->period );
         }
      }
   }

   // Whether every timer came at all.
   bool allHaveCome() const {
      return std::all_of( periodics_.begin(), periodics_.end(),
                          []( const auto& periodic ) { return periodic->runs > 0; } );
   }

 private:
   bool _anyDueBetween( double from, double to ) const {
      // What an expiry may lose by rounding.
      constexpr double rounding = 1e-5;
      return std::any_of( periodics_.begin(), periodics_.end(), [ & ]( const auto& periodic ) {
         return periodic->dueBy( from - rounding ) != periodic->dueBy( to + rounding );
      } );
   }

   Stepper stepper_;
   RealTime realTime_;
   Quarn::Testing::VirtualTimeLoop loop_;
   std::vector<std::shared_ptr<Periodic>> periodics_;
   double target_ = Quarn::time() + 0.25;
   // Everything due by then has come, and nothing else.
   double now_ = 0.0;
};

void virtualTime( std::uint64_t rounds, std::uint64_t seed, bool ) {
   Calendar calendar( seed );
   for( std::uint64_t r = 0; r < rounds; ++r ) {
      calendar.advance( 3700.0 );
      calendar.check();
   }
   // A count of nothing says nothing.
   calendar.advance( 86400.0 );
   calendar.check();
   if( !calendar.allHaveCome() ) {
      ++result->lost;
      complain( "a timer was never due in virtual time" );
   }
}

using Part = void ( * )( std::uint64_t rounds, std::uint64_t seed, bool framework );

Result inProcess( Part part, std::uint64_t rounds, std::uint64_t seed, bool framework ) {
   *result = {};
   std::fflush( stdout );
   const pid_t child = fork();
   if( child < 0 ) {
      throw std::runtime_error( "fork failed" );
   }
   if( child == 0 ) {
      alarm( static_cast<unsigned>( 20 + 5 * rounds ) );
      try {
         hasThreadLocalSingletonsIs( !framework );
         part( rounds, seed, framework );
         result->finished = true;
      } catch( const std::exception& e ) {
         complain( "%s", e.what() );
      }
      _exit( 0 );
   }
   int status = 0;
   while( waitpid( child, &status, 0 ) < 0 ) {
   }
   if( WIFSIGNALED( status ) ) {
      complain( "ended by signal %d", WTERMSIG( status ) );
   }
   return *result;
}

} // namespace

int main( int argc, char** argv ) {
   result = prove::sharedMemory<Result>();
   if( !result ) {
      std::perror( "mmap" );
      return 2;
   }
   return prove::runRow(
         argc, argv,
         { 12, "clock_steps",
           "no timer early, none lost or twice, on both loops; plain timers of libevent's loop by "
           "its own clock, which is coarse",
           30 },
         []( const prove::Order& order ) {
            Result all{};
            bool finished = true;
            const struct {
               char const* name;
               Part part;
               bool framework;
            } parts[] = { { "libevent's loop", &realTime, false },
                          { "the framework's loop", &realTime, true },
                          { "libevent's loop in virtual time", &virtualTime, false },
                          { "the framework's loop in virtual time", &virtualTime, true } };
            for( const auto& [ name, part, framework ] : parts ) {
               const Result one = inProcess( part, order.count, order.seed, framework );
               fmt::print( "{}: {} steps, {} timers, {} early, {} lost, {} twice, {} faults of a "
                           "clock, {:.1f} ms late at most{}{}\n",
                           name, one.steps, one.timers, one.early, one.lost, one.twice,
                           one.clockFaults, one.latest * 1e3,
                           one.fault[ 0 ] != '\0' ? "; FAULT " : "", one.fault );
               finished = finished && one.finished;
               all.steps += one.steps;
               all.timers += one.timers;
               all.early += one.early;
               all.lost += one.lost;
               all.twice += one.twice;
               all.clockFaults += one.clockFaults;
               all.coarseEarly = std::max( all.coarseEarly, one.coarseEarly );
            }
            const std::string figure = fmt::format(
                  "{} timers, {} steps: {} early, {} lost, {} twice, {} faults of a clock; plain "
                  "timers of libevent's loop up to {:.1f} ms early by the exact clock",
                  all.timers, all.steps, all.early, all.lost, all.twice, all.clockFaults,
                  all.coarseEarly * 1e3 );
            return prove::Outcome{ finished && all.timers > 0 &&
                                         all.early + all.lost + all.twice + all.clockFaults == 0,
                                   figure };
         } );
}
