// Timer tasks: starts in both delay forms, jitter, ends of a wait, lifetimes.

#include "support/Fatal.h"
#include "support/Tasks.h"
#include "support/TraceCapture.h"

#include <Quarn/Debug.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/Clocks.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <thread>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;
using Quarn::Testing::ManualSteadyClock;
using Quarn::Testing::ManualTimerClock;
using testing_support::historyOf;
using testing_support::TraceCapture;

constexpr double infinity = std::numeric_limits<double>::infinity();

class Timer : public TimerTask {
 public:
   using TimerTask::TimerTask;

   std::function<void( Timer& )> body;
   std::function<void( Timer& )> onBusy;
   unsigned runs = 0;

   void handleTaskBusy() override {
      if( onBusy ) {
         const auto told = onBusy;
         told( *this );
      }
   }

 private:
   void taskExecute() override {
      ++runs;
      if( body ) {
         const auto run = body;
         run( *this );
      }
   }
};

// Reaches the root's seed, since the highest step comes once in 45 million draws.
template<unsigned TaskSchedulerRoot::*member>
struct Seed {
   friend unsigned& seedOf( TaskSchedulerRoot& root ) { return root.*member; }
};
unsigned& seedOf( TaskSchedulerRoot& root );
template struct Seed<&TaskSchedulerRoot::jitterSeed_>;

constexpr unsigned seedOfStep100 = 57966750;

class TimerTaskTest : public testing::Test {
 protected:
   std::shared_ptr<Timer> timer( String name = "t" ) {
      return std::make_shared<Timer>( root, TaskPriority::normal, std::move( name ) );
   }
   unsigned long deliver() {
      return processExpiredTimersForTaskScheduler( root->timerWheelForTest() );
   }
   bool step() { return root->_handleSchedulerRun( TaskPriority::scavenge ); }
   // Events since the last call, and nothing else.
   std::string events() {
      std::string text;
      for( const std::string& line : historyOf( *root ) ) {
         text += ( text.empty() ? "" : ", " ) + line;
      }
      root->clearHistory();
      return text;
   }

   ManualSteadyClock clock;
   ManualTimerClock timerClock;
   std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
};

// The state of a task: timer running, queued, suspended; the counts, and what the task was told.
std::string stateOf( const Timer& t ) {
   std::string text;
   const unsigned status = t.taskStatus();
   text += ( status & 1 ) != 0 ? "" : "no timer task ";
   text += ( status & 2 ) != 0 ? "timing" : "";
   text += ( status & 4 ) != 0 ? "queued" : "";
   text += ( status & 16 ) != 0 ? "suspended" : "";
   EXPECT_EQ( t.taskScheduled(), ( status & 6 ) != 0 );
   return text.empty() ? "idle" : text;
}

template<typename Delay>
class TimerTaskFormsTest : public TimerTaskTest {
 protected:
   static Delay in( double seconds ) {
      if constexpr( std::is_same_v<Delay, double> ) {
         return seconds;
      } else {
         return TaskTimeDuration( static_cast<std::int64_t>( seconds * 1e9 ) );
      }
   }
   // Steps of a fresh root, as parts of a hundred.
   static constexpr int steps[] = { 0, 79, 83, 10, 76, 63, 42, 99 };
};

using Forms = testing::Types<double, TaskTimeDuration>;
TYPED_TEST_SUITE( TimerTaskFormsTest, Forms );

TYPED_TEST( TimerTaskFormsTest, EveryCallInEveryState ) {
   const auto in = []( double seconds ) { return TestFixture::in( seconds ); };
   using Call = std::function<void( Timer& )>;
   const Call down0 = [ & ]( Timer& t ) {
      seedOf( *this->root ) = seedOfStep100;
      t.scheduleTaskJitterDown( in( 5 ), 100 );
   };
   const Call schedule = []( Timer& t ) { t.scheduleTask(); };
   const Call expire = [ this ]( Timer& ) {
      this->timerClock.advance( 10 );
      this->deliver();
   };
   const Call suspend = []( Timer& t ) { t.taskSuspendedIs( true ); };
   const Call delay10 = [ & ]( Timer& t ) { t.scheduleTaskDelay( in( 10 ) ); };
   const struct {
      std::string name;
      Call call;
   } before[] = { { "idle", []( Timer& ) {} },
                  { "timing", delay10 },
                  { "queued", schedule },
                  { "suspended", suspend },
                  { "timingsuspended", [ & ]( Timer& t ) {
                      suspend( t );
                      delay10( t );
                   } } };
   // For each state before: the state after, the running count, the seconds left, and the events.
   using After = std::vector<std::string>;
   const After started = { "timing 1 5: schedulerBusy root, timerStart N t, busy N t",
                           "timing 1 5: timerStart N t",
                           "timing 1 5: unschedule N t, timerStart N t",
                           "timingsuspended 1 5: schedulerBusy root, timerStart N t, busy N t",
                           "timingsuspended 1 5: timerStart N t" };
   const After atOnce = {
         "queued 0 -: schedule N t, schedulerHasRunnableTasks root, schedulerBusy root, busy N t",
         "queued 0 -: schedule N t, schedulerHasRunnableTasks root",
         "queued 0 -: ", "suspended 0 -: scheduleSus N t",
         "suspended 0 -: scheduleSus N t, schedulerIdle root, idle N t" };
   // Never moved to a later expiry, nor to the same; a queued task stays queued.
   const After lowest = { "timing 1 10: schedulerBusy root, timerStart N t, busy N t",
                          "timing 1 10: ", "queued 0 -: ",
                          "timingsuspended 1 10: schedulerBusy root, timerStart N t, busy N t",
                          "timingsuspended 1 10: " };
   After lowestEarlier = started;
   lowestEarlier[ 2 ] = "queued 0 -: ";
   const struct {
      char const* name;
      Call call;
      After after;
   } table[] = {
         { "delay 5", [ & ]( Timer& t ) { t.scheduleTaskDelay( in( 5 ) ); }, started },
         { "delay 0", [ & ]( Timer& t ) { t.scheduleTaskDelay( in( 0 ) ); }, atOnce },
         { "lowest 5", [ & ]( Timer& t ) { t.scheduleTaskLowestDelay( in( 5 ) ); }, lowestEarlier },
         { "lowest 10", [ & ]( Timer& t ) { t.scheduleTaskLowestDelay( in( 10 ) ); }, lowest },
         { "lowest 0", [ & ]( Timer& t ) { t.scheduleTaskLowestDelay( in( 0 ) ); }, atOnce },
         { "up 5", [ & ]( Timer& t ) { t.scheduleTaskJitterUp( in( 5 ), 0 ); }, started },
         { "down 5", [ & ]( Timer& t ) { t.scheduleTaskJitterDown( in( 5 ), 0 ); }, started },
         { "down 0", down0, atOnce },
         { "schedule", schedule, atOnce },
         { "stop",
           []( Timer& t ) { t.stopTimerTask(); },
           { "idle 0 -: ", "idle 0 -: timerStop N t, schedulerIdle root, idle N t",
             "idle 0 -: unschedule N t, idle N t",
             "suspended 0 -: ", "suspended 0 -: timerStop N t, schedulerIdle root, idle N t" } },
         // The scheduler does not flicker through idle.
         { "expire",
           expire,
           { "idle 0 -: ", "queued 0 -: schedule N t, schedulerHasRunnableTasks root",
             "queued 0 -: ", "suspended 0 -: ",
             "suspended 0 -: scheduleSus N t, schedulerIdle root, idle N t" } },
         { "run from test",
           []( Timer& t ) { t.taskRunFromTest(); },
           { "idle 0 -: run start N t, run end N t",
             "idle 0 -: schedulerIdle root, run start N t, run end N t, idle N t",
             "idle 0 -: unschedule N t, idle N t, run start N t, run end N t",
             "suspended 0 -: run start N t, run end N t",
             "suspended 0 -: schedulerIdle root, run start N t, run end N t, idle N t" } },
         { "suspend",
           suspend,
           { "suspended 0 -: suspendOn N t", "timingsuspended 1 10: suspendOn N t",
             "suspended 0 -: suspendOn N t, unschedule N t, idle N t",
             "suspended 0 -: ", "timingsuspended 1 10: " } },
         // A timer that runs goes on; nothing was missed.
         { "resume",
           []( Timer& t ) { t.taskSuspendedIs( false ); },
           { "idle 0 -: ", "timing 1 10: ", "queued 0 -: ",
             ( "queued 0 -: suspendOff N t, schedule N t, schedulerHasRunnableTasks root, "
               "schedulerBusy root, busy N t" ),
             "timing 1 10: suspendOff N t" } },
   };
   for( const auto& row : table ) {
      for( std::size_t n = 0; n < std::size( before ); ++n ) {
         const auto t = this->timer();
         before[ n ].call( *t );
         ASSERT_EQ( stateOf( *t ), before[ n ].name );
         ASSERT_EQ( this->root->timerRunningCount(), ( t->taskStatus() & 2 ) != 0 ? 1u : 0u );
         this->root->clearHistory();
         row.call( *t );
         const std::string left = t->timerRemaining() == infinity
                                        ? "-"
                                        : std::to_string( static_cast<int>( t->timerRemaining() ) );
         EXPECT_EQ( stateOf( *t ) + " " + std::to_string( this->root->timerRunningCount() ) + " " +
                          left + ": " + this->events(),
                    row.after.at( n ) )
               << row.name << " while " << before[ n ].name;
         EXPECT_TRUE( this->root->checkForTest() );
         t->stopTimerTask();
         t->taskSuspendedIs( false );
         t->stopTimerTask();
         this->step();
         ASSERT_FALSE( this->root->busy() );
      }
   }
}

TYPED_TEST( TimerTaskFormsTest, JitterFollowsTheSeedOfTheRoot ) {
   const auto t = this->timer();
   const auto up = [ & ]( double seconds, std::uint8_t percent ) {
      t->scheduleTaskJitterUp( this->in( seconds ), percent );
      return t->timerRemaining();
   };
   const auto down = [ & ]( double seconds, std::uint8_t percent ) {
      t->scheduleTaskJitterDown( this->in( seconds ), percent );
      return t->timerRemaining();
   };
   // A refused call draws nothing.
   EXPECT_FATAL( up( 1, 101 ), "maxJitterPercentage: e > 100" );
   EXPECT_FATAL( down( 1, 255 ), "maxJitterPercentage: \xff > 100" );
   for( const int step : TestFixture::steps ) {
      EXPECT_EQ( up( 100, 100 ), 100 + step );
   }
   seedOf( *this->root ) = 0;
   for( const int step : TestFixture::steps ) {
      EXPECT_EQ( down( 10000, 50 ), 10000 - 50 * step );
   }
   EXPECT_EQ( down( 100, 0 ), 100 );
   // In nanoseconds a hundred times a hundred times these does not fit 64 bits.
   for( const double days : { 11, 3000 } ) {
      seedOf( *this->root ) = 0;
      for( const int step : TestFixture::steps ) {
         EXPECT_EQ( up( days * 86400, 100 ), days * 864 * ( 100 + step ) ) << days;
      }
      seedOf( *this->root ) = 0;
      for( const int step : TestFixture::steps ) {
         EXPECT_EQ( down( days * 86400, 100 ), days * 864 * ( 100 - step ) ) << days;
      }
   }
   seedOf( *this->root ) = seedOfStep100;
   EXPECT_EQ( up( 100, 100 ), 200 );
}

TYPED_TEST( TimerTaskFormsTest, HighestStepNeverPassesTheDelay ) {
   std::mt19937 random( 7 );
   std::uniform_real_distribution<double> delays( 0.001, 1000 );
   const auto t = this->timer();
   for( int n = 0; n < 200; ++n ) {
      const auto delay = this->in( delays( random ) );
      seedOf( *this->root ) = seedOfStep100;
      t->scheduleTaskJitterDown( delay, 100 );
      // Rounding may leave a trace of it.
      ASSERT_TRUE( stateOf( *t ) == "queued" || t->timerRemaining() < 1e-6 ) << n;
      t->stopTimerTask();
   }
}

TYPED_TEST( TimerTaskFormsTest, NegativeDelays ) {
   const auto t = this->timer();
   // Not before a pass of the wheel, unlike 0.
   t->scheduleTaskDelay( this->in( -5 ) );
   EXPECT_EQ( stateOf( *t ), "timing" );
   EXPECT_EQ( t->timerRemaining(), 0.0 );
   EXPECT_EQ( this->deliver(), 1u );
   EXPECT_EQ( stateOf( *t ), "queued" );
   this->step();
   EXPECT_EQ( t->runs, 1u );
   // Any part of a negative delay but all of it is more than that.
   std::string shown = std::is_same_v<TypeParam, double>
                             ? "-1 )"
                             : durationToString( TaskTimeDuration( -1s ) ).stdString() + " )";
   EXPECT_FATAL( t->scheduleTaskJitterUp( this->in( -1 ), 100 ), " ) > delayIntoFuture( " + shown );
   EXPECT_FATAL( t->scheduleTaskJitterDown( this->in( -1 ), 10 ),
                 " ) > delayIntoFuture( " + shown );
   EXPECT_EQ( stateOf( *t ), "idle" );
}

TYPED_TEST( TimerTaskFormsTest, BelongsToTheThreadOfItsRoot ) {
   const auto t = this->timer();
   t->scheduleTaskDelay( this->in( 10 ) );
   std::thread( [ & ] {
      const std::function<void()> calls[] = {
            [ & ] { t->scheduleTaskDelay( this->in( 1 ) ); },
            [ & ] { t->scheduleTaskLowestDelay( this->in( 1 ) ); },
            [ & ] { t->scheduleTaskJitterUp( this->in( 1 ), 0 ); },
            [ & ] { t->scheduleTaskJitterDown( this->in( 1 ), 0 ); },
            [ & ] { t->stopTimerTask(); },
            [ & ] { t->scheduleTask(); },
            [ & ] { t->timeout(); },
            [ & ] { t->taskScheduled(); },
            [ & ] { t->currentExpirationTime(); } };
      for( const auto& call : calls ) {
         EXPECT_FATAL( call(), "Executing in wrong thread" );
      }
      EXPECT_EQ( t->timerRemaining(), 10.0 );
   } ).join();
   EXPECT_EQ( stateOf( *t ), "timing" );
}

TEST_F( TimerTaskTest, InfinityStopsAndNanChangesNothing ) {
   const double nan = std::numeric_limits<double>::quiet_NaN();
   const auto t = timer();
   const std::function<void( double )> calls[] = {
         [ & ]( double d ) { t->scheduleTaskDelay( d ); },
         [ & ]( double d ) { t->scheduleTaskJitterUp( d, 10 ); },
         [ & ]( double d ) { t->scheduleTaskJitterDown( d, 10 ); },
         [ & ]( double d ) { t->scheduleTaskLowestDelay( d ); },
   };
   for( std::size_t n = 0; n < std::size( calls ); ++n ) {
      for( const bool queued : { false, true } ) {
         if( queued ) {
            t->scheduleTask();
         } else {
            t->scheduleTaskDelay( 10.0 );
         }
         const std::string before = stateOf( *t );
         for( const double value : { nan, -nan } ) {
            EXPECT_FATAL( calls[ n ]( value ), "delayIntoFuture: nan" );
            EXPECT_EQ( stateOf( *t ), before );
         }
         if( n == 3 ) {
            EXPECT_FATAL( calls[ n ]( infinity ), "delayIntoFuture: inf" );
            EXPECT_EQ( stateOf( *t ), before );
         } else {
            calls[ n ]( infinity );
            EXPECT_EQ( stateOf( *t ), "idle" );
         }
         t->stopTimerTask();
      }
   }
   EXPECT_EQ( seedOf( *root ), 0u );
}

TEST_F( TimerTaskTest, NanosecondsSaturate ) {
   const auto t = timer();
   const double centuries = static_cast<double>( TaskTimeDuration::max().count() ) / 1e9;
   for( int draw = 0; draw < 3; ++draw ) {
      t->scheduleTaskJitterUp( TaskTimeDuration::max(), 100 );
      EXPECT_NEAR( t->timerRemaining(), centuries, 1e-5 ) << draw;
   }
   t->scheduleTaskLowestDelay( TaskTimeDuration::max() );
   EXPECT_EQ( stateOf( *t ), "timing" );
   t->scheduleTaskDelay( TaskTimeDuration( 1 ) );
   EXPECT_LT( t->timerRemaining(), 1e-6 );
   EXPECT_EQ( stateOf( *t ), "timing" ) << "only a delay of 0 queues at once";
}

TEST_F( TimerTaskTest, ExpirationIsNowWhileQueued ) {
   const auto t = timer();
   EXPECT_EQ( t->currentExpirationTime(), infinity );
   t->scheduleTaskDelay( 10.0 );
   timerClock.advance( 4 );
   EXPECT_EQ( t->currentExpirationTime(), timerClock.now() + 6 );
   EXPECT_EQ( t->timerRemaining(), 6 );
   EXPECT_EQ( deliver(), 0u ) << "never early";
   timerClock.advance( 6 );
   EXPECT_EQ( deliver(), 1u );
   timerClock.advance( 3 );
   EXPECT_EQ( t->currentExpirationTime(), timerClock.now() );
   EXPECT_EQ( t->timerRemaining(), infinity );
   t->body = []( Timer& self ) { self.scheduleTaskDelay( 2.0 ); };
   events();
   step();
   // Busy through and through: its next run is on its way.
   EXPECT_EQ( events(), "run start N t, timerStart N t, run end N t" );
   EXPECT_EQ( t->currentExpirationTime(), timerClock.now() + 2 );
}

TEST_F( TimerTaskTest, ExpiryWhileSuspendedIsMadeUpFor ) {
   const auto t = timer();
   t->scheduleTaskDelay( 10.0 );
   t->taskSuspendedIs( true );
   timerClock.advance( 10 );
   EXPECT_EQ( deliver(), 1u );
   EXPECT_FALSE( root->busy() );
   t->taskSuspendedIs( false );
   EXPECT_EQ( stateOf( *t ), "queued" );
   step();
   EXPECT_EQ( t->runs, 1u );
   // Resumed in time, it runs at its time.
   t->taskSuspendedIs( true );
   t->scheduleTaskDelay( 10.0 );
   t->taskSuspendedIs( false );
   EXPECT_FALSE( step() );
   timerClock.advance( 10 );
   deliver();
   step();
   EXPECT_EQ( t->runs, 2u );
}

TEST_F( TimerTaskTest, WhoeverIsToldMayDropTheTask ) {
   const std::function<void( Timer& )> arm = []( Timer& t ) { t.scheduleTaskDelay( 1.0 ); };
   const std::function<void( Timer& )> none = []( Timer& ) {};
   const std::function<void( Timer& )> expire = [ & ]( Timer& ) {
      timerClock.advance( 1 );
      deliver();
   };
   const struct {
      char const* name;
      std::function<void( Timer& )> before;
      std::function<void( Timer& )> call;
   } table[] = {
         { "start", none, arm },
         { "schedule", none, []( Timer& t ) { t.scheduleTask(); } },
         { "delay 0", none, []( Timer& t ) { t.scheduleTaskDelay( 0.0 ); } },
         { "stop", arm, []( Timer& t ) { t.stopTimerTask(); } },
         { "suspended schedule", arm,
           []( Timer& t ) {
              t.taskSuspendedIs( true );
              t.scheduleTask();
           } },
         { "suspended expiry", arm,
           [ & ]( Timer& t ) {
              t.taskSuspendedIs( true );
              expire( t );
           } },
         { "run from test", arm, []( Timer& t ) { t.taskRunFromTest(); } },
   };
   for( const bool byScheduler : { false, true } ) {
      for( const auto& row : table ) {
         auto t = timer();
         row.before( *t );
         if( byScheduler ) {
            root->registerBusyCallback( this, [ & ] { t.reset(); } );
         } else {
            t->onBusy = [ & ]( Timer& ) { t.reset(); };
         }
         const std::weak_ptr<Timer> watch = t;
         row.call( *t );
         EXPECT_TRUE( watch.expired() ) << row.name;
         EXPECT_EQ( root->timerRunningCount(), 0u ) << row.name;
         root->unregisterBusyCallback( this );
         step();
         EXPECT_FALSE( root->busy() ) << row.name;
      }
   }
}

TEST_F( TimerTaskTest, Traces ) {
   const auto handler = Platform::getDebugHandler( "TaskScheduler", false );
   handler->enabledIs( 8, true );
   handler->enabledIs( 9, true );
   TraceCapture capture;
   const auto t = timer();
   seedOf( *root ) = seedOfStep100;
   t->scheduleTaskJitterUp( 100.0, 50 );
   seedOf( *root ) = seedOfStep100;
   t->scheduleTaskJitterDown( 100.0, 50 );
   t->scheduleTaskLowestDelay( 50.0 );
   t->stopTimerTask();
   t->scheduleTask();
   t->scheduleTaskLowestDelay( 1.0 );
   t->stopTimerTask();
   seedOf( *root ) = seedOfStep100;
   t->scheduleTaskJitterDown( std::chrono::seconds( 100 ), 50 );
   seedOf( *root ) = seedOfStep100;
   t->scheduleTaskJitterUp( std::chrono::seconds( 100 ), 50 );
   handler->enabledIs( 8, false );
   handler->enabledIs( 9, false );
   const std::string text = capture.text();
   std::size_t at = 0;
   for( char const* line :
        { "TaskScheduler/9 TimerTask::scheduleTaskJitterUp() "
          "Timer jitterUp t delay 100 + 50 = 150\n",
          "Timer started t delay 150\n", "Timer jitterDown t delay 100 - 50 = 50\n",
          "Timer started t delay 50\n",
          "TaskScheduler/8 TimerTask::scheduleTaskDelayedPrivate() "
          "Timer already running t expire 1750000050\n",
          "TaskScheduler/9 TimerTask::stopTimerTask() "
          "Timer stopped t, was running\n",
          "Already on runQueue t\n", "Timer stopped t, was not running\n",
          "Timer jitterDown t delay 100s - 50000ms = 50000ms\n",
          "Timer jitterUp t delay 100s + 50000ms = 150s\n" } ) {
      const std::size_t found = text.find( line, at );
      EXPECT_NE( found, std::string::npos ) << line << "in\n" << text;
      at = found == std::string::npos ? at : found;
   }
}

TEST_F( TimerTaskTest, JitterKeepsItsRangeAtTheEndsOfTheScale ) {
   const auto t = timer();
   for( int n = 0; n < 1000; ++n ) {
      t->scheduleTaskJitterDown( 1e308, 50 );
      ASSERT_GE( t->timerRemaining(), 0.499e308 );
      ASSERT_LE( t->timerRemaining(), 1e308 );
      t->scheduleTaskJitterUp( 1e308, 50 );
      ASSERT_GE( t->timerRemaining(), 1e308 );
      // Beyond the scale is never.
      t->scheduleTaskJitterUp( 1.7e308, 100 );
      ASSERT_EQ( t->taskScheduled(), t->timerRemaining() != infinity );
   }
   // The next pass, as without jitter.
   t->scheduleTaskJitterUp( -infinity, 50 );
   EXPECT_EQ( deliver(), 1u );
   EXPECT_TRUE( t->taskScheduled() );
   t->scheduleTaskJitterDown( -infinity, 50 );
   EXPECT_EQ( t->timerRemaining(), 0.0 );
   t->scheduleTaskDelay( 60.0 );
   t->timeout(); // by hand, ahead of its time
   EXPECT_EQ( t->timerRemaining(), infinity );
   EXPECT_EQ( root->timerRunningCount(), 0u );
   EXPECT_TRUE( t->taskScheduled() );
}

TEST_F( TimerTaskTest, ToldLateAfterACallbackThatThrew ) {
   for( const bool expires : { false, true } ) {
      for( const bool drops : { false, true } ) {
         auto t = timer();
         root->registerBusyCallback( this, [] { throw 7; } );
         EXPECT_THROW( t->scheduleTaskDelay( 5.0 ), int );
         root->unregisterBusyCallback( this );
         t->onBusy = [ & ]( Timer& self ) {
            self.onBusy = {};
            if( drops ) {
               t.reset();
            } else {
               self.stopTimerTask();
            }
         };
         if( expires ) {
            timerClock.advance( 5 );
            EXPECT_EQ( deliver(), 1u );
         } else {
            t->scheduleTask();
         }
         EXPECT_EQ( t == nullptr, drops );
         EXPECT_EQ( root->timerRunningCount(), 0u );
         EXPECT_FALSE( step() );
         EXPECT_TRUE( !root->busy() && root->checkForTest() );
      }
   }
}

TEST_F( TimerTaskTest, NeedsAScheduler ) {
   TaskScheduler* const none = nullptr;
   EXPECT_FATAL( Timer( none, TaskPriority::normal, "t" ), "Need a TaskScheduler" );
}

} // namespace
