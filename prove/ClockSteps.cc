// Row 12: the wall clock is set by seconds, hours and years, to and fro, while timers run.
//
// Timers of every kind are armed, and the clock is set before, between and inside of what they
// call. Each must come no earlier than it was asked for, by the system's monotonic clock past all
// replacements, and none may stay away. The clocks of timers and tasks are compared with it all the
// time. All of that on both loops, in real and in virtual time, a process for each.

#include "prove/Row.h"
#include "prove/WallClock.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <Oru/System.h>

#include <event2/event.h>

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using prove::rawMonotonic;
using prove::wallClockStep;

// What a process leaves for its parent, in memory that they share.
struct Result {
   std::uint64_t steps;
   std::uint64_t timers;
   std::uint64_t early;
   std::uint64_t lost;
   std::uint64_t clockFaults;
   double latest;
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

// One timer that was armed.
struct Armed {
   double at = 0.0;
   double delay = 0.0;
   unsigned fired = 0;
};

// By how much a kind of timer may be early.
constexpr double exactly = 0.0;
// What the headers say of a loop that reads a coarse clock.
constexpr double coarseClock = 0.004;

struct Round {
   Stepper& stepper;
   Clocks& clocks;
   double tolerance;
};

void fires( Round& round, Armed& armed, double tolerance ) {
   const double elapsed = rawMonotonic() - armed.at;
   ++armed.fired;
   if( elapsed < armed.delay - tolerance - 1e-6 ) {
      ++result->early;
      complain( "a timer of %.6f s came after %.6f s", armed.delay, elapsed );
   }
   result->latest = std::max( result->latest, elapsed - armed.delay );
   round.clocks.check();
   round.stepper.step();
   round.clocks.check();
}

class Task final : public TimerTask {
 public:
   Task( std::shared_ptr<TaskScheduler> scheduler, Round& round )
         : TimerTask( std::move( scheduler ), TaskPriority::normal, "step" ),
           round_( round ) {}
   void arm( double delay ) {
      armed = { rawMonotonic(), delay, 0 };
      scheduleTaskDelay( delay );
   }
   Armed armed;

 private:
   void taskExecute() override { fires( round_, armed, exactly ); }
   Round& round_;
};

class Control final : public Platform::TimeoutHandler {
 public:
   Control( Round& round, std::shared_ptr<TimerWheel> wheel )
         : round_( round ),
           tolerance_( wheel ? exactly : round.tolerance ),
           timer_( wheel ? Platform::getTimerControl( this, std::move( wheel ) )
                         : Platform::getTimerControl( this ) ) {}
   void arm( double delay ) {
      armed = { rawMonotonic(), delay, 0 };
      timer_->setTimeout( delay );
   }
   Armed armed;

 private:
   void timeout() override { fires( round_, armed, tolerance_ ); }
   Round& round_;
   double tolerance_;
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
   Round round{ stepper, clocks, framework ? exactly : coarseClock };
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
      const auto waiting = [ & ] {
         std::uint64_t count = 0;
         for( const auto& task : tasks ) {
            count += task->armed.fired == 0 ? 1 : 0;
         }
         for( const auto& control : controls ) {
            count += control->armed.fired == 0 ? 1 : 0;
         }
         return count;
      };
      // Much longer than a busy machine takes, and much shorter than the smaller steps.
      const double deadline = rawMonotonic() + 0.9;
      while( waiting() != 0 && rawMonotonic() < deadline ) {
         const double slice = 0.02;
         const double before = rawMonotonic();
         Platform::doEventLoop( slice );
         if( const double took = rawMonotonic() - before; took < slice - round.tolerance - 1e-6 ) {
            ++result->early;
            complain( "a loop of %.3f s ended after %.6f s", slice, took );
         }
         stepper.step();
      }
      result->lost += waiting();
      for( const auto& task : tasks ) {
         result->lost += task->armed.fired > 1 ? 1 : 0;
         task->stopTimerTask();
      }
   }
   controls.clear();
}

// ------------------------------------------------------------------------------------ virtual time

class Hourly final : public TimerTask {
 public:
   Hourly( std::shared_ptr<TaskScheduler> scheduler, Stepper& stepper, double period )
         : TimerTask( std::move( scheduler ), TaskPriority::normal, "hourly" ),
           stepper_( stepper ),
           period_( period ) {
      _arm();
   }
   std::uint64_t runs = 0;

 private:
   void _arm() {
      due_ = Quarn::time() + period_;
      scheduleTaskDelay( period_ );
   }
   void taskExecute() override {
      ++runs;
      ++result->timers;
      if( Quarn::time() < due_ ) {
         ++result->early;
         complain( "a timer of %.0f s in virtual time came %.6f s early", period_,
                   due_ - Quarn::time() );
      }
      stepper_.step();
      _arm();
   }
   Stepper& stepper_;
   double period_;
   double due_ = 0.0;
};

void virtualTime( std::uint64_t rounds, std::uint64_t seed, bool ) {
   Stepper stepper( seed );
   Quarn::Testing::VirtualTimeLoop loop;
   std::vector<std::shared_ptr<Hourly>> tasks;
   for( const double period : { 0.5, 60.0, 3600.0, 86400.0 } ) {
      tasks.push_back( std::make_shared<Hourly>( loop.root(), stepper, period ) );
   }
   for( std::uint64_t r = 0; r < rounds; ++r ) {
      const double start = loop.now();
      std::vector<std::uint64_t> before;
      before.reserve( tasks.size() );
      for( const auto& task : tasks ) {
         before.push_back( task->runs );
      }
      loop.advance( 3700.0 );
      stepper.step();
      // A jump ends some microseconds behind the timer, and the next period counts from there.
      const double passed = loop.now() - start;
      if( passed < 3700.0 || passed > 3705.0 ) {
         ++result->clockFaults;
         complain( "3700 s of virtual time took %.3f s", passed );
      }
      for( std::size_t i = 0; i < 3; ++i ) {
         const double period = i == 0 ? 0.5 : i == 1 ? 60.0 : 3600.0;
         const auto expected = static_cast<std::uint64_t>( 3700.0 / period );
         const std::uint64_t ran = tasks[ i ]->runs - before[ i ];
         // The drift of a run is below a hundredth.
         if( ran > expected + 1 || ran + 1 + expected / 50 < expected ) {
            result->lost += ran < expected ? expected - ran : 0;
            result->early += ran > expected ? ran - expected : 0;
            complain( "%llu runs instead of %llu in virtual time",
                      static_cast<unsigned long long>( ran ),
                      static_cast<unsigned long long>( expected ) );
         }
      }
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
   void* const shared = mmap( nullptr, sizeof( Result ), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   if( shared == MAP_FAILED ) {
      std::perror( "mmap" );
      return 2;
   }
   result = static_cast<Result*>( shared );
   return prove::runRow(
         argc, argv, { 12, "clock_steps", "no timer early, none lost, on both loops", 30 },
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
               fmt::print( "{}: {} steps, {} timers, {} early, {} lost, {} faults of a clock, "
                           "{:.1f} ms late at most{}{}\n",
                           name, one.steps, one.timers, one.early, one.lost, one.clockFaults,
                           one.latest * 1e3, one.fault[ 0 ] != '\0' ? "; FAULT " : "", one.fault );
               finished = finished && one.finished;
               all.steps += one.steps;
               all.timers += one.timers;
               all.early += one.early;
               all.lost += one.lost;
               all.clockFaults += one.clockFaults;
            }
            const std::string figure =
                  fmt::format( "{} timers, {} steps: {} early, {} lost, {} faults of a clock",
                               all.timers, all.steps, all.early, all.lost, all.clockFaults );
            return prove::Outcome{ finished && all.timers > 0 &&
                                         all.early + all.lost + all.clockFaults == 0,
                                   figure };
         } );
}
