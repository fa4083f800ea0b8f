#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/Clocks.h>

#include "support/Fatal.h"
#include "support/TimerPlay.h"
#include "support/TraceCapture.h"

#include <Quarn/debug/Environment.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <thread>
#include <utility>

namespace {

using namespace Quarn;
using Quarn::Testing::ManualTimerClock;
using testing::HasSubstr;
using testing_support::TimerPlay;
using testing_support::TraceCapture;

constexpr double infinity = std::numeric_limits<double>::infinity();

class Event : public TimerWheelEvent {
 public:
   explicit Event( std::function<void()> on = [] {} ) : on_( std::move( on ) ) {}
   void timeout() override {
      ++fired;
      const std::function<void()> on = on_;
      on();
   }
   void onIs( std::function<void()> on ) { on_ = std::move( on ); }
   int fired = 0;

 private:
   std::function<void()> on_;
};

// A wheel under a clock that the test moves.
class TimerWheelTest : public testing::Test {
 protected:
   static void startOnNothing() {
      Event event;
      event.setTimeout( nullptr, 1 );
   }
   static void stopOnNothing() {
      Event event;
      event.delTimeout( nullptr );
   }

   ManualTimerClock clock;
   std::shared_ptr<TimerWheel> wheel =
         getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault );
};

TEST( TimerTicksTest, ConversionRoundsInExtendedPrecision ) {
   if( !TimerPlay::hasExtendedPrecision() ) {
      GTEST_SKIP() << "no extended precision, as under valgrind";
   }
   const struct {
      double seconds;
      timeout_t floor;
      timeout_t ceil;
   } table[] = {
         { 0.0, 0, 0 },
         { 0.1, 10, 11 },
         { 0.3, 29, 30 },
         { 0.7, 69, 70 },
         { 1000000000.1, 100000000010, 100000000011 },
         { 0.01, 1, 2 },
         { 0.5, 50, 50 },
         { -3.0, 0, 0 },
         { -infinity, 0, 0 },
         { NAN, 0, 0 },
         { 1e17, 10000000000000000000u, 10000000000000000000u },
   };
   for( const auto& row : table ) {
      EXPECT_EQ( timeToTickFloorForTest( row.seconds ), row.floor ) << row.seconds;
      EXPECT_EQ( timeToTickCeilForTest( row.seconds ), row.ceil ) << row.seconds;
   }
   constexpr double limit = 1.8446744073709551615e17;
   const timeout_t maxTick = ~timeout_t{ 0 };
   TraceCapture capture;
   EXPECT_LT( timeToTickCeilForTest( std::nextafter( limit, 0 ) ), maxTick );
   EXPECT_EQ( capture.text(), "" );
   EXPECT_EQ( timeToTickFloorForTest( limit ), maxTick );
   EXPECT_EQ( timeToTickFloorForTest( infinity ), maxTick );
   EXPECT_EQ( capture.count( "truncating ticks from " ), 2u );
   EXPECT_EQ( capture.count( "QuarnTimerWheel/0 timeToTickOverflowCheck() " ), 2u );
}

TEST_F( TimerWheelTest, ArmsItsMasterForTheEarliestTimer ) {
   EXPECT_EQ( wheel->masterExpiryForTest(), infinity );
   Event late;
   Event early;
   wheel->timerStart( &late, 20.0 );
   EXPECT_LE( wheel->masterExpiryForTest(), late.expirationTime() );
   wheel->timerStart( &early, 2.0 );
   EXPECT_LE( wheel->masterExpiryForTest(), early.expirationTime() );
   EXPECT_EQ( early.remainingTimeout(), 2.0 );
   const double master = wheel->masterExpiryForTest();
   wheel->timerStop( &early );
   EXPECT_EQ( early.remainingTimeout(), infinity );
   EXPECT_EQ( wheel->masterExpiryForTest(), master ) << "stopping leaves the master alone";
   wheel->timerStop( &late );
   clock.advance( 3.0 );
   wheel->timeout();
   EXPECT_EQ( wheel->masterExpiryForTest(), infinity ) << "a wake-up for nothing re-arms";
   wheel->timerStart( &late, 0.0 );
   EXPECT_EQ( wheel->masterExpiryForTest(), 0.0 ) << "expired already: at once";
   wheel->timerStop( &late );
}

TEST_F( TimerWheelTest, CollectsAtTheTickAndDeliversAtTheExactTime ) {
   const auto handler = Platform::getDebugHandler( "QuarnTimerWheel", false );
   handler->enabledIs( 9, true );
   handler->enabledIs( 8, true );
   clock.set( 1000000.009 );
   Event event;
   wheel->timerStart( &event, 0.004 );
   clock.set( 1000000.0105 );
   TraceCapture capture;
   wheel->timeout();
   EXPECT_EQ( event.fired, 0 );
   EXPECT_EQ( event.state(), TimerWheelState::inTimersExpiryingSoon );
   EXPECT_THAT( capture.text(), HasSubstr( "master timer expired" ) );
   EXPECT_THAT( capture.text(), HasSubstr( "TimerWheel::setCurrentTime() advance time to " ) );
   EXPECT_THAT( capture.text(), HasSubstr( "Defer processing timers with expiry time " ) );
   EXPECT_THAT( capture.text(), HasSubstr( "has scheduled timers, firstExpiryTime=" ) );
   EXPECT_EQ( wheel->masterExpiryForTest(), event.expirationTime() );
   clock.set( event.expirationTime() );
   wheel->timeout();
   EXPECT_EQ( event.fired, 1 );
   EXPECT_EQ( event.state(), TimerWheelState::notLinked );
   EXPECT_THAT( capture.text(), HasSubstr( "TimerWheel::timerExpired() timer " ) );
}

TEST_F( TimerWheelTest, ManyThatAreDueAtOnceFireInOrder ) {
   // On a grid of milliseconds, over ten ticks: most have others of their time.
   constexpr int count = 1000;
   std::mt19937 random( 42 );
   std::vector<std::pair<double, int>> expected;
   std::vector<std::pair<double, int>> order;
   std::vector<std::unique_ptr<Event>> events;
   for( int n = 0; n < count; ++n ) {
      const double delay = 1 + static_cast<int>( random() % 100 ) / 1000.0;
      expected.emplace_back( delay, n );
      events.push_back(
            std::make_unique<Event>( [ &order, delay, n ] { order.emplace_back( delay, n ); } ) );
      wheel->timerStart( events.back().get(), delay );
   }
   std::ranges::sort( expected );
   clock.advance( 2 );
   EXPECT_EQ( wheel->_processExpiredTimers(), 1u * count );
   EXPECT_EQ( order, expected );
}

TEST_F( TimerWheelTest, SameExpiryIsNoMoveAndAnotherIs ) {
   const auto handler = Platform::getDebugHandler( "QuarnTimerWheel", false );
   Event event;
   wheel->timerStart( &event, 5.0 );
   handler->enabledIs( 9, true );
   TraceCapture capture;
   wheel->timerStart( &event, 5.0 );
   EXPECT_EQ( capture.text(), "" );
   wheel->timerStart( &event, 6.0 );
   EXPECT_EQ( event.remainingTimeout(), 6.0 );
   wheel->timerStop( &event );
   wheel->timerStop( &event );
   EXPECT_EQ( capture.count( "del timeout, not running" ), 1u );
}

TEST_F( TimerWheelTest, StrangeDelays ) {
   Event event;
   EXPECT_FATAL( wheel->timerStart( &event, NAN ), "invalid timer delay nan" );
   for( const double now : { 0.0, -infinity, -1e300, -5.0 } ) {
      wheel->timerStart( &event, now );
      wheel->timeout();
   }
   EXPECT_EQ( event.fired, 4 );
   wheel->timerStart( &event, infinity );
   EXPECT_EQ( event.state(), TimerWheelState::notLinked );
   wheel->timerStart( &event, 1.0 );
   wheel->timerStart( &event, infinity );
   EXPECT_EQ( event.state(), TimerWheelState::notLinked ) << "+infinity stops a timer that runs";
   TraceCapture capture;
   wheel->timerStart( &event, 1e300 );
   EXPECT_EQ( capture.count( "down to 18446744073709551615" ), 1u );
   clock.advance( 1e9 );
   wheel->timeout();
   EXPECT_EQ( event.fired, 4 );
   wheel->timerStop( &event );
}

TEST_F( TimerWheelTest, TimeoutMayDestroyTheWheel ) {
   for( const bool throws : { false, true } ) {
      wheel = getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault );
      Event inner( [ & ] {
         wheel.reset();
         if( throws ) {
            throw std::runtime_error( "thrown" );
         }
      } );
      Event outer( [ & ] { wheel->_processExpiredTimers(); } );
      wheel->timerStart( &outer, 1.0 );
      wheel->timerStart( &inner, 1.0 );
      clock.advance( 1.0 );
      if( throws ) {
         EXPECT_THROW( wheel->timeout(), std::runtime_error );
      } else {
         wheel->timeout();
      }
      EXPECT_FALSE( wheel );
      EXPECT_EQ( inner.fired, 1 );
   }
}

TEST_F( TimerWheelTest, LinkedEventsDieWithAMessage ) {
   EXPECT_DEATH(
         {
            Event event;
            wheel->timerStart( &event, 1.0 );
         },
         "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel" );
   const auto endIn = [ & ]( bool wheelGoes ) {
      Event event;
      wheel->timerStart( &event, 0.0099 );
      clock.advance( 0.009 );
      wheel->timeout();
      if( wheelGoes ) {
         wheel.reset();
      }
   };
   EXPECT_DEATH( endIn( true ), "Destroyed while non-empty" );
   EXPECT_DEATH( endIn( false ), "destroyed while inTimersExpiryingSoon" );
}

TEST_F( TimerWheelTest, StatesAreChecked ) {
   Event event;
   EXPECT_STREQ( timerWheelStateToString( TimerWheelState( 3 ) ), "unknownState" );
   EXPECT_FATAL( event.stateIs( TimerWheelState( 3 ) ), "invalid state 3" );
   event.stateIs( TimerWheelState::inTimerWheel );
   event.stateIs( TimerWheelState::inTimerWheel );
   EXPECT_FATAL( event.stateIs( TimerWheelState::inTimersExpiryingSoon ),
                 "State change inTimerWheel -> inTimersExpiryingSoon must go via notLinked" );
   event.stateIs( TimerWheelState::notLinked );
}

TEST_F( TimerWheelTest, ControlsOnAWheel ) {
   struct Handler : Platform::TimeoutHandler {
      void timeout() override {
         ++fired;
         if( throws ) {
            throw std::runtime_error( "thrown" );
         }
      }
      bool handleTimeoutException() override { return swallow; }
      int fired = 0;
      bool throws = false;
      bool swallow = false;
   } handler;
   auto control = Platform::getTimerControl( &handler, wheel );
   EXPECT_EQ( control->remainingTimeout(), infinity );
   control->setTimeout( 2.0 );
   EXPECT_EQ( control->remainingTimeout(), 2.0 );
   control->setTimeout( infinity );
   EXPECT_EQ( control->remainingTimeout(), infinity );
   control->setTimeout( 2.0 );
   control->delTimeout();
   EXPECT_EQ( control->remainingTimeout(), infinity );
   const auto fire = [ & ] {
      control->setTimeout( 2.0 );
      clock.advance( 2.0 );
      wheel->timeout();
   };
   fire();
   EXPECT_EQ( handler.fired, 1 );
   handler.throws = true;
   EXPECT_THROW( fire(), std::runtime_error );
   handler.swallow = true;
   fire();
   EXPECT_EQ( handler.fired, 3 );
   // A nested delivery that destroys the control is seen by the outer one.
   struct Nested : Platform::TimeoutHandler {
      std::function<void()> on;
      void timeout() override { on(); }
   } nested;
   auto brief = Platform::getTimerControl( &nested, wheel );
   int depth = 0;
   nested.on = [ & ] {
      if( ++depth == 1 ) {
         brief->setTimeout( 0 );
         wheel->_processExpiredTimers();
         throw std::runtime_error( "outer" );
      }
      brief.reset();
   };
   brief->setTimeout( 0 );
   EXPECT_THROW( wheel->timeout(), std::runtime_error );
   EXPECT_EQ( depth, 2 );
   EXPECT_FATAL( TimerWheelTest::startOnNothing(), "wheel is null" );
   EXPECT_FATAL( TimerWheelTest::stopOnNothing(), "wheel is null" );
   EXPECT_FATAL( Platform::getTimerControl( nullptr, wheel ), "handler or wheel is null" );
   EXPECT_FATAL( Platform::getTimerControl( &nested, nullptr ), "handler or wheel is null" );
   // The control holds the wheel.
   std::weak_ptr<TimerWheel> weak = wheel;
   wheel.reset();
   EXPECT_FALSE( weak.expired() );
   control.reset();
   EXPECT_TRUE( weak.expired() );
}

TEST( TimerWheelThreadTest, EachThreadHasAWheel ) {
   const std::shared_ptr<TimerWheel> mine = getTimerWheel();
   EXPECT_EQ( getTimerWheel(), mine );
   std::weak_ptr<TimerWheel> other;
   // Outlives the wheel of its thread.
   struct Late {
      ~Late() { *ownersAfter = getTimerWheel().use_count(); }
      long* ownersAfter = nullptr;
   };
   long ownersAfter = 0;
   std::thread( [ & ] {
      static thread_local Late late;
      late.ownersAfter = &ownersAfter;
      other = getTimerWheel();
      EXPECT_NE( other.lock(), mine );
      Event event;
      getTimerWheel()->timerStart( &event, 0.0 );
      eventLoopTimeout( 0 );
      eventLoopTimeout( 0 );
      EXPECT_EQ( event.fired, 1 ) << "driven by the thread's own loop";
   } ).join();
   EXPECT_TRUE( other.expired() );
   EXPECT_EQ( ownersAfter, 1 ) << "one that nobody keeps";
}

TEST( TimerWheelLoopTest, RealTimersAreNeverEarly ) {
   // The loop's clock lags the wheel's; what fires early there is deferred here.
   const auto wheel = getTimerWheel();
   std::vector<std::unique_ptr<Event>> events;
   std::vector<double> due;
   int early = 0;
   int left = 0;
   for( int n = 0; n < 200; ++n ) {
      events.push_back( std::make_unique<Event>() );
      Event* event = events.back().get();
      const double delay = 0.0003 * n;
      const double at = Quarn::time() + delay;
      event->onIs( [ &, at ] {
         early += Quarn::time() < at ? 1 : 0;
         --left;
      } );
      ++left;
      wheel->timerStart( event, delay );
   }
   while( left > 0 ) {
      Platform::doEventLoop( 0.02 );
   }
   EXPECT_EQ( early, 0 );
}

TEST( TimerWheelLoopTest, ExceptionFromATimeoutLosesNoOther ) {
   const auto wheel = getTimerWheel();
   Event thrower( [] { throw std::runtime_error( "thrown" ); } );
   Event later;
   wheel->timerStart( &thrower, 0.0 );
   wheel->timerStart( &later, 0.001 );
   EXPECT_THROW( Platform::doEventLoop(), std::runtime_error );
   Platform::doEventLoop();
   EXPECT_EQ( later.fired, 1 );
}

// The wheel against a sorted multimap, under random steps.
class TimerWheelModel : public testing::TestWithParam<unsigned> {};

TEST_P( TimerWheelModel, AgreesWithASortedMap ) {
   std::mt19937_64 random( GetParam() );
   const double clockStart = GetParam() % 2 == 0 ? 1.0 : 1.7e9 + GetParam() * 0.00137;
   const auto play = TimerPlay::make( { 24, clockStart, 1 }, random );
   bool good = true;
   for( int step = 0; step < 20'000 && good; ++step ) {
      good = play->stepOnce();
   }
   if( !good || !play->finish() ) {
      play->show( std::cerr );
      FAIL() << "seed " << GetParam() << ": " << play->fault();
   }
   EXPECT_GT( play->counts().ties, 100u );
   EXPECT_GT( play->counts().nestedPasses, 50u );
}

TEST( TimerWheelTraceTest, TracingEverythingChangesNothing ) {
   const auto deliveredIn = []( std::uint64_t seed ) {
      const auto play = TimerPlay::make( {}, std::mt19937_64( seed ) );
      for( int step = 0; step < 1'000 && play->stepOnce(); ++step ) {
      }
      EXPECT_EQ( play->fault(), "" );
      return play->counts().delivered;
   };
   const std::uint64_t quietly = deliveredIn( 7 );
   TraceCapture capture;
   Platform::setupQuarnDebug( "*/9" );
   EXPECT_EQ( deliveredIn( 7 ), quietly );
   Platform::clearQuarnDebug( "*/9" );
   EXPECT_GT( capture.count( " expired\n" ), 0u );
}

INSTANTIATE_TEST_SUITE_P( Seeds, TimerWheelModel, testing::Values( 1, 2, 3, 42, 4711 ) );

} // namespace
