#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TimerWheelCpp.h>

#include <Quarn/base/ThreadControl.h>

#include <Oru/ActivityManager.h>

#include "support/AllocationCount.h"
#include "support/Fatal.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using namespace Quarn::Platform;
using testing::ElementsAre;
using testing_support::TraceCapture;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

// A precise base: with the coarse clock of the usual one, a kernel tick decides what is due.
event_base* preciseBase() {
   event_base_free( leCreateBase() ); // which sets libevent up for threads
   event_config* config = event_config_new();
   event_config_set_flag( config, EVENT_BASE_FLAG_NO_CACHE_TIME );
   event_config_set_flag( config, EVENT_BASE_FLAG_PRECISE_TIMER );
   event_base* base = event_base_new_with_config( config );
   event_config_free( config );
   event_base_priority_init( base, 2 );
   leRegisterBase( base );
   return base;
}

struct Timeouts : TimeoutHandler {
   explicit Timeouts( std::function<void()> body = [] {} ) : on( std::move( body ) ) {}
   void timeout() override {
      ++fired;
      on();
   }
   std::function<void()> on;
   int fired = 0;
   std::shared_ptr<TimerControl> control = getLeTimerControl( this );
};

// An event as a caller of libevent makes it, which notes its name when it is called.
class RawEvent {
 public:
   using Log = std::vector<std::string>;

   RawEvent( event_base* base, Log& log, std::string name, int fd = -1, short flags = 0 )
         : log_( log ),
           name_( std::move( name ) ) {
      event_assign( &event_, base, fd, flags, &RawEvent::called, this );
      event_priority_set( &event_, 1 );
   }
   ~RawEvent() { event_del( &event_ ); }
   RawEvent( const RawEvent& ) = delete;
   RawEvent& operator=( const RawEvent& ) = delete;

   void add( timeval const& delay ) { ASSERT_EQ( event_add( &event_, &delay ), 0 ); }
   void addWithoutTimeout() { ASSERT_EQ( event_add( &event_, nullptr ), 0 ); }
   // In microseconds on the base's clock.
   std::int64_t expiry() const {
      return std::int64_t{ event_.ev_timeout.tv_sec } * 1'000'000 +
             ( event_.ev_timeout.tv_usec & 0xfffff );
   }
   long highBits() const { return event_.ev_timeout.tv_usec & ~0xfffffL; }

 private:
   static void called( evutil_socket_t, short what, void* argument ) {
      auto* self = static_cast<RawEvent*>( argument );
      self->log_.push_back( self->name_ + ( ( what & EV_TIMEOUT ) ? "" : " ready" ) );
   }

   Log& log_;
   std::string name_;
   event event_;
};

class VirtualTimeTest : public testing::Test {
 protected:
   VirtualTimeTest() { setLeFastForward( true ); }
   ~VirtualTimeTest() override {
      setLeFastForward( false );
      leFree();
   }

   event_base* const base = preciseBase();
};

// ----------------------------------------------------------------------------------------- shifts

TEST_F( VirtualTimeTest, ShiftKeepsOrderAndExactDistancesOfEveryKindOfEvent ) {
   int ends[ 2 ];
   ASSERT_EQ( pipe2( ends, O_CLOEXEC | O_NONBLOCK ), 0 );
   RawEvent::Log log;
   {
      RawEvent a( base, log, "a" );
      RawEvent b( base, log, "b" );
      RawEvent c( base, log, "c" );
      RawEvent far( base, log, "far" );
      RawEvent read( base, log, "read", ends[ 0 ], EV_READ | EV_PERSIST );
      RawEvent signal( base, log, "signal", SIGUSR2, EV_SIGNAL | EV_PERSIST );
      far.add( { 7200, 0 } );
      read.add( { 1800, 999999 } );
      signal.add( { 5400, 1 } );
      // Three within 60 us, which is less than the extra delay of a jump, and added out of order.
      // The clock goes on between the calls, so it may take some rounds.
      do {
         c.add( { 3600, 60 } );
         a.add( { 3600, 0 } );
         b.add( { 3600, 30 } );
      } while( a.expiry() >= b.expiry() || b.expiry() >= c.expiry() );
      ASSERT_LE( c.expiry() - a.expiry(), 60 );
      const auto all = { &a, &b, &c, &far, &read, &signal };
      std::vector<std::int64_t> before;
      for( RawEvent* ev : all ) {
         before.push_back( ev->expiry() );
      }
      const timeval delta{ 1799, 999999 };
      applyFastForwardDelta( &delta );
      auto was = before.begin();
      for( RawEvent* ev : all ) {
         EXPECT_EQ( *was++ - ev->expiry(), 1799'999'999 );
      }
      EXPECT_EQ( leVirtualTimeOffset(), 1799.999999 );

      // The time limit of the descriptor comes first, and persists.
      doLeEventLoop( 3000.0 );
      EXPECT_THAT( log, ElementsAre( "read", "a", "b", "c", "read" ) );
      log.clear();
      ASSERT_EQ( write( ends[ 1 ], "x", 1 ), 1 );
      eventLoopFastForwardToFirstTimer( 0.0 );
      EXPECT_THAT( log, ElementsAre( "read ready" ) );
      char byte;
      ASSERT_EQ( ::read( ends[ 0 ], &byte, 1 ), 1 );
      log.clear();
      doLeEventLoop( 2500.0 );
      EXPECT_THAT( log, ElementsAre( "signal", "read", "far" ) );
   }
   close( ends[ 0 ] );
   close( ends[ 1 ] );
}

TEST_F( VirtualTimeTest, ShiftKeepsCommonTimeoutQueues ) {
   const timeval halfHour{ 1800, 700000 };
   timeval const* const common = event_base_init_common_timeout( base, &halfHour );
   RawEvent::Log log;
   RawEvent first( base, log, "first" );
   RawEvent second( base, log, "second" );
   RawEvent between( base, log, "between" );
   first.add( *common );
   second.add( *common );
   const long bits = first.highBits();
   ASSERT_NE( bits, 0 );
   between.add( { 1000, 0 } );
   const std::int64_t before = first.expiry();
   const std::int64_t apart = second.expiry() - before;
   const timeval delta{ 900, 800000 };
   applyFastForwardDelta( &delta );
   EXPECT_EQ( before - first.expiry(), 900'800'000 );
   EXPECT_EQ( second.expiry() - first.expiry(), apart );
   EXPECT_EQ( first.highBits(), bits );
   // One more after the shift takes its place behind them.
   RawEvent third( base, log, "third" );
   third.add( *common );
   doLeEventLoop( 1700.0 );
   EXPECT_THAT( log, ElementsAre( "between", "first", "second" ) );
   doLeEventLoop( 200.0 );
   EXPECT_THAT( log, ElementsAre( "between", "first", "second", "third" ) );
}

TEST_F( VirtualTimeTest, ManyTimersExpireInOrderWhateverTheOrderOfAdding ) {
   constexpr unsigned count = 997;
   RawEvent::Log log;
   std::vector<std::unique_ptr<RawEvent>> events;
   for( unsigned n = 0; n < count; ++n ) {
      // 251 is prime to the count, so each second is taken once.
      const unsigned seconds = n * 251 % count + 1;
      events.push_back( std::make_unique<RawEvent>( base, log, fmt::format( "{:03}", seconds ) ) );
      events.back()->add( { seconds, 0 } );
   }
   const timeval small{ 0, 1 };
   applyFastForwardDelta( &small );
   EXPECT_EQ( testing_support::allocationsOf( [ & ] { applyFastForwardDelta( &small ); } ), 0U )
         << "the walk has its memory from the first time";
   doLeEventLoop( count + 1.0 );
   EXPECT_EQ( log.size(), count );
   EXPECT_TRUE( std::is_sorted( log.begin(), log.end() ) );
}

TEST_F( VirtualTimeTest, OffsetCarriesAndStaysExact ) {
   const timeval part{ 1, 600000 };
   for( int n = 0; n < 5; ++n ) {
      applyFastForwardDelta( &part );
   }
   EXPECT_EQ( leVirtualTimeOffset(), 8.0 );
   std::thread( [] { EXPECT_EQ( leVirtualTimeOffset(), 0.0 ); } ).join();
   for( const timeval& bad : { timeval{ -1, 0 }, timeval{ 0, -1 }, timeval{ 0, 1000000 },
                               timeval{ std::numeric_limits<time_t>::max(), 0 } } ) {
      EXPECT_FATAL( applyFastForwardDelta( &bad ), "invalid virtual time delta " );
   }
   setLeFastForward( false );
   EXPECT_EQ( leVirtualTimeOffset(), 8.0 );
}

TEST_F( VirtualTimeTest, TimeAndRemainingTimeoutsFollowTheOffset ) {
   Timeouts handler;
   handler.control->setTimeout( 5000.0 );
   const double before = time();
   const timeval delta{ 4000, 0 };
   applyFastForwardDelta( &delta );
   EXPECT_GE( time(), before + 4000.0 );
   EXPECT_LT( time(), before + 4060.0 );
   EXPECT_LE( handler.control->remainingTimeout(), 1000.0 );
   EXPECT_GT( handler.control->remainingTimeout(), 940.0 );
}

// ------------------------------------------------------------------------------- the first timer

TEST_F( VirtualTimeTest, DelayToTheFirstTimer ) {
   timeval delay{ 77, 77 };
   EXPECT_FALSE( fastForwardDelayToFirstTimer( &delay ) );
   EXPECT_EQ( delay.tv_sec, 77 );
   RawEvent::Log log;
   RawEvent late( base, log, "late" );
   RawEvent soon( base, log, "soon" );
   late.add( { 500, 0 } );
   soon.add( { 100, 0 } );
   ASSERT_TRUE( fastForwardDelayToFirstTimer( &delay ) );
   // 100 s and 100 us, less the time since `add`.
   const double seconds =
         static_cast<double>( delay.tv_sec ) + static_cast<double>( delay.tv_usec ) / 1e6;
   EXPECT_LE( seconds, 100.0001 );
   EXPECT_GT( seconds, 99.0 );
   RawEvent now( base, log, "now" );
   now.add( { 0, 0 } );
   ASSERT_TRUE( fastForwardDelayToFirstTimer( &delay ) );
   EXPECT_EQ( delay.tv_sec, 0 );
   EXPECT_EQ( delay.tv_usec, 0 );
   EXPECT_TRUE( log.empty() );
}

TEST_F( VirtualTimeTest, TracesTellTheReckoning ) {
   getDebugHandler( "QuarnLibevent", false )->enabledIs( 2, true );
   getDebugHandler( "QuarnLibevent", false )->enabledIs( 5, true );
   getDebugHandler( "QuarnLibevent", false )->enabledIs( 9, true );
   TraceCapture capture;
   eventLoopFastForwardToFirstTimer( 1.5 );
   EXPECT_THAT( capture.text(),
                testing::AllOf( testing::HasSubstr( "Quarn::eventLoopFastForwardToFirstTimer() "
                                                    "maxTimeout 1.5\n" ),
                                testing::HasSubstr( "() no timers\n" ),
                                testing::HasSubstr( "() Increasing virtual time offset by "
                                                    "1.500000 to 1.500000\n" ) ) );
   Timeouts handler;
   handler.control->setTimeout( 0.0 );
   eventLoopFastForwardToFirstTimer( 1.0 );
   handler.control->setTimeout( 2.0 );
   eventLoopFastForwardToFirstTimer( 1.0 );
   EXPECT_THAT( capture.text(),
                testing::ContainsRegex( "\\(\\) first timer expired at [0-9.]+ now [0-9.]+ return "
                                        "zero delta\n" ) );
   EXPECT_THAT( capture.text(),
                testing::ContainsRegex( "\\(\\) first timer will at [0-9.]+ now [0-9.]+ delta "
                                        "[0-9.]+ extraDelay 0.000100 return delta [0-9.]+\n" ) );
}

// ------------------------------------------------------------------------------------------ steps

TEST_F( VirtualTimeTest, StepIsCappedByItsMaximum ) {
   Timeouts handler;
   const auto timer = getLeTimerControl( &handler );
   timer->setTimeout( 3600.0 );
   eventLoopFastForwardToFirstTimer( 10.0 );
   EXPECT_EQ( leVirtualTimeOffset(), 10.0 );
   EXPECT_EQ( handler.fired, 0 );
}

TEST_F( VirtualTimeTest, StepJumpsToTheFirstTimerAndRunsIt ) {
   Timeouts handler;
   const auto timer = getLeTimerControl( &handler );
   timer->setTimeout( 3600.0 );
   eventLoopFastForwardToFirstTimer( 7200.0 );
   EXPECT_EQ( handler.fired, 1 );
   EXPECT_LE( leVirtualTimeOffset(), 3600.0001 );
   EXPECT_GT( leVirtualTimeOffset(), 3599.0 );
}

TEST_F( VirtualTimeTest, StepWithoutTimersTakesTheMaximum ) {
   eventLoopFastForwardToFirstTimer( 12.25 );
   EXPECT_EQ( leVirtualTimeOffset(), 12.25 );
   for( const double none : { 0.0, -5.0, -infinity } ) {
      eventLoopFastForwardToFirstTimer( none );
      EXPECT_EQ( leVirtualTimeOffset(), 12.25 ) << none;
   }
   EXPECT_FATAL( eventLoopFastForwardToFirstTimer( notANumber ), "invalid timeout nan" );
   EXPECT_EQ( leVirtualTimeOffset(), 12.25 );
}

TEST_F( VirtualTimeTest, RunnableWorkHoldsTimeBack ) {
   Timeouts due;
   Timeouts far;
   due.control->setTimeout( 0.0 );
   far.control->setTimeout( 100.0 );
   eventLoopFastForwardToFirstTimer( infinity );
   EXPECT_EQ( leVirtualTimeOffset(), 0.0 );
   EXPECT_EQ( due.fired, 1 );
   EXPECT_EQ( far.fired, 0 );
}

TEST_F( VirtualTimeTest, StepWithoutLimit ) {
   Timeouts far;
   far.control->setTimeout( 1e6 );
   eventLoopFastForwardToFirstTimer( infinity );
   EXPECT_EQ( far.fired, 1 );
   const double offset = leVirtualTimeOffset();
   EXPECT_LE( offset, 1e6 + 0.0001 );

   // Without a timer it waits for a descriptor, and time stands.
   int ends[ 2 ];
   ASSERT_EQ( pipe2( ends, O_CLOEXEC ), 0 );
   RawEvent::Log log;
   {
      RawEvent read( base, log, "read", ends[ 0 ], EV_READ );
      read.addWithoutTimeout();
      ASSERT_EQ( write( ends[ 1 ], "x", 1 ), 1 );
      eventLoopFastForwardToFirstTimer( infinity );
      EXPECT_THAT( log, ElementsAre( "read ready" ) );
   }
   close( ends[ 0 ] );
   close( ends[ 1 ] );
   eventLoopFastForwardToFirstTimer( infinity ); // nothing at all to wait for
   EXPECT_EQ( leVirtualTimeOffset(), offset );
}

TEST_F( VirtualTimeTest, SwitchIsRequired ) {
   setLeFastForward( false );
   timeval delay;
   EXPECT_FATAL( fastForwardDelayToFirstTimer( &delay ), "Called without fast forward enabled" );
   EXPECT_FATAL( eventLoopFastForwardToFirstTimer( 1.0 ), "Called without fastForward enabled" );
   EXPECT_EQ( leVirtualTimeOffset(), 0.0 );
}

// ------------------------------------------------------------------------------------------ loops

TEST_F( VirtualTimeTest, LoopOfGivenLengthRunsItsTimersAndEndsOnTime ) {
   std::vector<int> order;
   double end = 0.0;
   Timeouts beat( [ & ] {
      order.push_back( 1 );
      beat.control->setTimeout( 1000.0 );
   } );
   Timeouts last( [ & ] { order.push_back( 2 ); } );
   Timeouts beyond( [ & ] { order.push_back( 3 ); } );
   beat.control->setTimeout( 1000.0 );
   last.control->setTimeout( 3500.0 );
   beyond.control->setTimeout( 3700.0 );
   end = time() + 3600.0;
   doLeEventLoop( 3600.0 );
   EXPECT_THAT( order, ElementsAre( 1, 1, 1, 2 ) );
   EXPECT_GE( time(), end );
   EXPECT_LT( time(), end + 60.0 );
}

TEST_F( VirtualTimeTest, WheelTimerHoursAheadIsOnTime ) {
   struct Event : TimerWheelEvent {
      void timeout() override { firedAt = time(); }
      double firedAt = 0.0;
   } near, far;
   const auto wheel = getTimerWheelForTaskScheduler( EventPriority::eventPriorityStrictHigh );
   near.setTimeout( wheel, 0.015 );
   far.setTimeout( wheel, 30000.0 );
   const double expiry = far.expirationTime();
   doLeEventLoop( 29999.0 );
   EXPECT_GT( near.firedAt, 0.0 );
   EXPECT_EQ( far.firedAt, 0.0 );
   doLeEventLoop( 60.0 );
   EXPECT_GE( far.firedAt, expiry );
   EXPECT_LT( far.firedAt, expiry + 1.0 );
}

TEST_F( VirtualTimeTest, LoopWithoutLimitJumpsOnceAndThenRuns ) {
   Timeouts first;
   first.control->setTimeout( 86400.0 );
   doLeEventLoop();
   EXPECT_EQ( first.fired, 1 );
   EXPECT_GT( leVirtualTimeOffset(), 86399.0 );
   doLeEventLoop(); // nothing to wait for, no jump
   EXPECT_LE( leVirtualTimeOffset(), 86400.0001 );
}

TEST_F( VirtualTimeTest, LoopOfInfiniteLengthEndsWhenAHandlerOrAThreadBreaksIt ) {
   Timeouts second( [ & ] { event_base_loopbreak( base ); } );
   Timeouts first( [ & ] { second.control->setTimeout( 3600.0 ); } );
   first.control->setTimeout( 3600.0 );
   doLeEventLoop( infinity );
   EXPECT_EQ( second.fired, 1 );
   EXPECT_GT( leVirtualTimeOffset(), 7199.0 );
   EXPECT_LE( leVirtualTimeOffset(), 7200.0002 );

   // Without any event it waits, for another thread to break it.
   std::atomic<bool> over{ false };
   std::thread breaker( [ & ] {
      while( !over ) {
         event_base_loopbreak( base );
         std::this_thread::yield();
      }
   } );
   doLeEventLoop( infinity );
   doLeEventLoopInWaitfor( infinity );
   over = true;
   breaker.join();
   EXPECT_LE( leVirtualTimeOffset(), 7200.0002 );
   EXPECT_FATAL( doLeEventLoop( notANumber ), "invalid timeout nan" );
}

TEST_F( VirtualTimeTest, SwitchingOffInsideTheLoopLetsTheRestPassInRealTime ) {
   Timeouts off( [] { setLeFastForward( false ); } );
   Timeouts after;
   Timeouts far;
   off.control->setTimeout( 999.99 );
   after.control->setTimeout( 999.995 );
   far.control->setTimeout( 2000.0 );
   doLeEventLoop( 1000.0 );
   EXPECT_EQ( off.fired, 1 );
   EXPECT_EQ( after.fired, 1 );
   EXPECT_EQ( far.fired, 0 );
   EXPECT_LE( leVirtualTimeOffset(), 999.9901 );
}

TEST_F( VirtualTimeTest, WaitTakesOneStepWithoutTheActivityLock ) {
   bool held = true;
   Timeouts handler( [ & ] { held = Loco::owns_loco(); } );
   handler.control->setTimeout( 50.0 );
   doLeEventLoopInWaitfor( 20.0 );
   EXPECT_EQ( leVirtualTimeOffset(), 20.0 );
   EXPECT_EQ( handler.fired, 0 );
   Platform::doEventLoopInWaitfor( infinity );
   EXPECT_EQ( handler.fired, 1 );
   EXPECT_FALSE( held );
}

TEST_F( VirtualTimeTest, ExceptionsAndNestedLoopsAreTreatedAsInRealTime ) {
   Timeouts thrower( [] { throw std::runtime_error( "out" ); } );
   Timeouts other;
   const auto runs = std::vector<std::function<void()>>{
         [] { doLeEventLoop(); }, [] { doLeEventLoop( 100.0 ); },
         [] { doLeEventLoopInWaitfor( infinity ); },
         [] { eventLoopFastForwardToFirstTimer( 100.0 ); } };
   int fired = 0;
   for( const auto& run : runs ) {
      thrower.control->setTimeout( 10.0 );
      other.control->setTimeout( 20.0 );
      EXPECT_THROW( run(), std::runtime_error );
      EXPECT_EQ( other.fired, fired );
      run();
      EXPECT_EQ( other.fired, ++fired ) << "the loop goes on where it was";
   }

   for( const auto& run : runs ) {
      std::string text;
      const double before = leVirtualTimeOffset();
      double inside = 0.0;
      Timeouts nester( [ & ] {
         inside = leVirtualTimeOffset();
         text = testing_support::fatalText( run );
         EXPECT_EQ( leVirtualTimeOffset(), inside ) << "a refused loop does not jump";
      } );
      other.control->setTimeout( 900.0 );
      nester.control->setTimeout( 5.0 );
      eventLoopFastForwardToFirstTimer( 10.0 );
      EXPECT_THAT( text, testing::HasSubstr( "event loop is already running on this thread" ) );
      EXPECT_LE( inside, before + 5.0002 );
   }
}

TEST_F( VirtualTimeTest, OffsetsAreTheThreadsOwn ) {
   std::thread( [] {
      Timeouts handler;
      handler.control->setTimeout( 40.0 );
      doLeEventLoop( 100.0 );
      EXPECT_EQ( handler.fired, 1 );
      EXPECT_GT( leVirtualTimeOffset(), 99.9 - 1.0 );
   } ).join();
   EXPECT_EQ( leVirtualTimeOffset(), 0.0 );
}

// --------------------------------------------------------------------------------------- switches

int called = 0;
int calledToo = 0;
void notifier() { ++called; }
void adder() {
   ++calledToo;
   leRegisterFastForwardChangeNotifier( [] { ++calledToo; } );
}

TEST( FastForwardSwitchTest, NotifiersHearOfChangesOnly ) {
   leRegisterFastForwardChangeNotifier( notifier );
   leRegisterFastForwardChangeNotifier( notifier );
   registerFastForwardChangeNotifier( [] { ADD_FAILURE() << "of the other switch"; } );
   setLeFastForward( false );
   EXPECT_EQ( called, 0 );
   setLeFastForward( true );
   EXPECT_EQ( called, 1 );
   EXPECT_TRUE( leFastForward() );
   EXPECT_TRUE( Quarn::fastForward );
   setLeFastForward( true );
   EXPECT_EQ( called, 1 );
   leRegisterFastForwardChangeNotifier( adder );
   setLeFastForward( false );
   EXPECT_EQ( called, 2 );
   EXPECT_EQ( calledToo, 1 ) << "a notifier added meanwhile waits for the next change";
   setLeFastForward( true );
   EXPECT_EQ( calledToo, 3 );
   EXPECT_FATAL( leRegisterFastForwardChangeNotifier( nullptr ), "notifier is null" );
   setLeFastForward( false );
   leFree();
}

TEST( FastForwardSwitchTest, OtherThreadsMayNotSwitch ) {
   std::thread( [] {
      EXPECT_FATAL( setLeFastForward( true ), "FastForward invoked from non-main thread" );
      EXPECT_FATAL( setLeFastForward( false ), "FastForward invoked from non-main thread" );
   } ).join();
   EXPECT_FALSE( leFastForward() );
}

TEST( FastForwardSwitchTest, FrameworkModeHasItsOwn ) {
   EXPECT_FATAL( Platform::fastForward(),
                 "Quarn::Platform::fastForward() ThreadLocal fastForward invoked from non-main "
                 "thread" );
   EXPECT_FATAL( Platform::setFastForward( true ),
                 "Quarn::Platform::setFastForward() ThreadLocal fastForward invoked from non-main "
                 "thread" );
   hasThreadLocalSingletonsIs( false );
   leRegisterFastForwardChangeNotifier( [] { ADD_FAILURE() << "of the other switch"; } );
   registerFastForwardChangeNotifier( notifier );
   registerFastForwardChangeNotifier( notifier );
   Platform::setFastForward( false );
   EXPECT_EQ( called, 0 );
   Platform::setFastForward( true );
   EXPECT_EQ( called, 1 );
   EXPECT_TRUE( Platform::fastForward() );
   EXPECT_TRUE( Oru::ActivityManager::instance()->virtualTime() );
   EXPECT_FALSE( leFastForward() );
   EXPECT_FATAL( registerFastForwardChangeNotifier( nullptr ), "notifier is null" );
   Platform::setFastForward( false );
   EXPECT_EQ( called, 2 );
}

// ------------------------------------------------------------------------------- default of waits

struct WaitDefault {
   char const* text;
   double seconds;
   bool complains;
};

// Names the case; without it that would be the bytes, addresses included.
void PrintTo( const WaitDefault& row, std::ostream* out ) {
   *out << ( row.text ? row.text : "unset" );
}

class WaitForDefaultTest : public testing::TestWithParam<WaitDefault> {};

// One case in each process: the value is taken once.
TEST_P( WaitForDefaultTest, IsTheNumberAtTheFrontOfTheVariable ) {
   if( GetParam().text ) {
      setenv( "WAITFOR_DEFAULT", GetParam().text, 1 );
   } else {
      unsetenv( "WAITFOR_DEFAULT" );
   }
   TraceCapture capture;
   const double seconds = waitForDefaultTimeout();
   if( std::isnan( GetParam().seconds ) ) {
      EXPECT_TRUE( std::isnan( seconds ) );
   } else {
      EXPECT_EQ( seconds, GetParam().seconds );
   }
   EXPECT_EQ( capture.text(),
              GetParam().complains ? "Parsing the WAITFOR_DEFAULT env. variable failed" : "" );
   setenv( "WAITFOR_DEFAULT", "1234", 1 );
   EXPECT_NE( waitForDefaultTimeout(), 1234.0 );
}

INSTANTIATE_TEST_SUITE_P(
      Texts, WaitForDefaultTest,
      testing::Values( WaitDefault{ nullptr, infinity, false }, WaitDefault{ "2.5", 2.5, false },
                       WaitDefault{ " 2.5x", 2.5, false }, WaitDefault{ "-3", -3.0, false },
                       WaitDefault{ "inf", infinity, false },
                       WaitDefault{ "nan", notANumber, false },
                       WaitDefault{ "abc", infinity, true }, WaitDefault{ "", infinity, true },
                       WaitDefault{ "1e999", infinity, true } ),
      []( const auto& row ) { return fmt::format( "n{}", row.index ); } );

} // namespace
