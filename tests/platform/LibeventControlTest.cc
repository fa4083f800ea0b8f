// Controls and loops. What does not name libevent runs on the loop of the framework too.

#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>

#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>
#include <Quarn/timers/TimerWheel.h>

#include "support/Fatal.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <event2/event.h>

#include <cmath>
#include <functional>
#include <limits>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using namespace Quarn::Platform;
using testing_support::TraceCapture;

constexpr double infinity = std::numeric_limits<double>::infinity();

struct Fds : FdEventHandler {
   std::function<void( int )> onRead = []( int ) {};
   std::function<void( int )> onWrite = []( int ) {};
   bool swallow = false;
   int reads = 0;
   int writes = 0;
   int asked = 0;

   void readFdEvent( int fd ) override {
      ++reads;
      onRead( fd );
   }
   void writeFdEvent( int fd ) override {
      ++writes;
      onWrite( fd );
   }
   bool handleFdException( int ) override {
      ++asked;
      return swallow;
   }
};

struct Timeouts : TimeoutHandler {
   std::function<void()> on = [] {};
   bool swallow = false;
   int fired = 0;
   int asked = 0;

   void timeout() override {
      ++fired;
      on();
   }
   bool handleTimeoutException() override {
      ++asked;
      return swallow;
   }
};

struct Callbacks : CallbackHandler {
   std::function<void()> on = [] {};
   bool swallow = false;
   int called = 0;
   int asked = 0;

   void callback() override {
      ++called;
      on();
   }
   bool handleCallbackException() override {
      ++asked;
      return swallow;
   }
};

struct Pipe {
   Pipe() { EXPECT_EQ( pipe2( ends, O_CLOEXEC ), 0 ); }
   ~Pipe() {
      closeRead();
      closeWrite();
   }
   void closeRead() { closeEnd( ends[ 0 ] ); }
   void closeWrite() { closeEnd( ends[ 1 ] ); }
   static void closeEnd( int& fd ) {
      if( fd >= 0 ) {
         close( fd );
      }
      fd = -1;
   }
   void fill() { EXPECT_EQ( write( ends[ 1 ], "x", 1 ), 1 ); }
   int ends[ 2 ];
};

// ------------------------------------------------------------------------------------ descriptors

TEST( FdControlTest, WatchesReadsFromTheStartOnceThereIsADescriptor ) {
   Fds handler;
   Pipe pipe;
   const auto control = getFdControl( &handler );
   EXPECT_EQ( control->getFd(), -1 );
   control->setReads( true );
   pipe.fill();
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.reads, 0 );
   control->setFd( pipe.ends[ 0 ] );
   EXPECT_TRUE( fcntl( pipe.ends[ 0 ], F_GETFL ) & O_NONBLOCK );
   Platform::doEventLoop( 0 );
   const int seen = handler.reads;
   EXPECT_GE( seen, 1 ) << "read readiness is reported for as long as it lasts";
   control->setReads( false );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.reads, seen );
   control->delFd();
   EXPECT_EQ( control->getFd(), -1 );
}

TEST( FdControlTest, WritesAreReportedOncePerRequest ) {
   Fds handler;
   Pipe pipe;
   const auto control = getFdControl( &handler );
   control->setWrites( true );
   control->setFd( pipe.ends[ 1 ] );
   Platform::doEventLoop( 0 );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.writes, 1 );
   control->setWrites( true );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.writes, 2 );
   control->clearEvents();
   EXPECT_EQ( control->getFd(), hasThreadLocalSingletons() ? pipe.ends[ 1 ] : -1 );
}

TEST( FdControlTest, BadDescriptorIsFatalAndForgetsTheOldWatch ) {
   Fds handler;
   Pipe pipe;
   pipe.fill();
   const auto control = getFdControl( &handler );
   control->setFd( pipe.ends[ 0 ] );
   EXPECT_FATAL( control->setFd( 1 << 20 ),
                 hasThreadLocalSingletons() ? "flags >= 0" : "cannot be made non-blocking" );
   EXPECT_EQ( control->getFd(), -1 );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.reads, 0 );
   EXPECT_FATAL( getFdControl( nullptr ), "handler is null" );
}

TEST( LibeventFdControlTest, RegularFileIsAlwaysWritableAndNeverReadable ) {
   Fds handler;
   const int file = memfd_create( "file", MFD_CLOEXEC );
   const auto control = getFdControl( &handler );
   {
      TraceCapture capture;
      control->setFd( file );
      EXPECT_EQ( capture.count( "cannot be polled" ), 1u );
   }
   TraceCapture capture; // libevent complains once more for the write watch
   control->setWrites( true );
   eventLoopTimeout( 0 );
   eventLoopTimeout( 0 );
   EXPECT_EQ( handler.writes, 1 );
   EXPECT_EQ( handler.reads, 0 );
   close( file );
}

TEST( LibeventFdControlTest, WriteWatchOnAClosedDescriptorLetsTheWriterMeetTheError ) {
   Fds handler;
   Pipe pipe;
   const auto control = getFdControl( &handler );
   control->setFd( pipe.ends[ 1 ] );
   pipe.closeWrite();
   TraceCapture capture;
   control->setWrites( true );
   eventLoopTimeout( 0 );
   EXPECT_EQ( handler.writes, 1 );
}

TEST( FdControlTest, ReusedNumberIsHeardWhenTheOldOneWasForgottenFirst ) {
   Fds first;
   Fds second;
   Pipe a;
   const auto control = getFdControl( &first );
   control->setFd( a.ends[ 0 ] );
   const int number = a.ends[ 0 ];
   control->delFd();
   a.closeRead();
   Pipe b;
   ASSERT_EQ( b.ends[ 0 ], number );
   b.fill();
   second.onRead = [ & ]( int fd ) {
      char c;
      EXPECT_EQ( read( fd, &c, 1 ), 1 );
   };
   const auto other = getFdControl( &second );
   other->setFd( b.ends[ 0 ] );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( second.reads, 1 );
   EXPECT_EQ( first.reads, 0 );
}

TEST( FdControlTest, HandlerMayDestroyItsControl ) {
   for( const bool throws : { false, true } ) {
      Fds handler;
      handler.swallow = true;
      Pipe pipe;
      pipe.fill();
      auto control = getFdControl( &handler );
      handler.onRead = [ & ]( int ) {
         control.reset();
         if( throws ) {
            throw std::runtime_error( "gone" );
         }
      };
      control->setFd( pipe.ends[ 0 ] );
      if( throws ) {
         EXPECT_THROW( Platform::doEventLoop( 0 ), std::runtime_error );
         EXPECT_EQ( handler.asked, 0 ) << "the handler may be gone with its control";
      } else {
         Platform::doEventLoop( 0 );
      }
      EXPECT_EQ( handler.reads, 1 );
   }
}

// ------------------------------------------------------------------------------ timers, callbacks

TEST( TimerControlTest, FiresOnceAndTellsWhatIsLeft ) {
   Timeouts handler;
   const auto control = getTimerControl( &handler );
   EXPECT_EQ( control->remainingTimeout(), infinity );
   control->setTimeout( 3600 );
   EXPECT_GT( control->remainingTimeout(), 3500 );
   EXPECT_LE( control->remainingTimeout(), 3600.1 );
   control->setTimeout( 0 );
   EXPECT_LT( control->remainingTimeout(), 1.0 ) << "by libevent's coarse clock";
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.fired, 1 );
   EXPECT_EQ( control->remainingTimeout(), infinity );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.fired, 1 );
   control->setTimeout( 0 );
   control->delTimeout();
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.fired, 1 );
}

TEST( TimerControlTest, StrangeDelays ) {
   Timeouts handler;
   const auto control = getTimerControl( &handler, EventPriority::eventPriorityStrictHigh );
   for( const double now : { -1.0, -infinity, -0.0, 1e-9 } ) {
      control->setTimeout( now );
      // None, and as far as libevent's readings of two clocks may be apart.
      EXPECT_GE( control->remainingTimeout(), 0.0 ) << now;
      EXPECT_LT( control->remainingTimeout(), 0.5 ) << now;
   }
   for( const double late : { 1e15, 1e19, 1.7e308 } ) {
      control->setTimeout( late );
      EXPECT_GT( control->remainingTimeout(), 9e14 ) << late;
      Platform::doEventLoop( 0 );
      EXPECT_EQ( handler.fired, 0 ) << late;
   }
   control->setTimeout( infinity );
   EXPECT_EQ( control->remainingTimeout(), infinity );
   control->setTimeout( 5 );
   EXPECT_FATAL( control->setTimeout( NAN ), "invalid timeout nan" );
   EXPECT_FATAL( Platform::doEventLoop( NAN ), "invalid timeout nan" );
   EXPECT_GT( control->remainingTimeout(), 4.0 ) << "a refused delay changes nothing";
}

TEST( LibeventTimerControlTest, DelayCountsFromTheRequestHoweverLongTheTurnTook ) {
   // The loop's own clock is what is measured here; a precise base leaves no coarse ticks.
   event_config* config = event_config_new();
   event_config_set_flag( config, EVENT_BASE_FLAG_NO_CACHE_TIME );
   event_config_set_flag( config, EVENT_BASE_FLAG_PRECISE_TIMER );
   event_base* base = event_base_new_with_config( config );
   event_config_free( config );
   event_base_priority_init( base, 2 );
   leRegisterBase( base );
   Timeouts late;
   const auto lateTimer = getTimerControl( &late );
   Timeouts busy;
   const auto busyTimer = getTimerControl( &busy );
   double left = 0;
   busy.on = [ & ] {
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds( 40 );
      while( std::chrono::steady_clock::now() < end ) {
      }
      left = lateTimer->remainingTimeout();
   };
   lateTimer->setTimeout( 0.05 );
   busyTimer->setTimeout( 0 );
   eventLoopTimeout( 0 );
   EXPECT_EQ( busy.fired, 1 );
   EXPECT_LE( left, 0.01 );
   lateTimer->delTimeout();
   leFree();
}

TEST( CallbackControlTest, RequestsCoalesce ) {
   Callbacks handler;
   const auto control = getCallbackControl( &handler );
   EXPECT_FALSE( control->pendingCallback() );
   control->requestCallback();
   control->requestCallback();
   EXPECT_TRUE( control->pendingCallback() );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.called, 1 );
   EXPECT_FALSE( control->pendingCallback() );
   control->requestCallback();
   control->cancelCallback();
   EXPECT_FALSE( control->pendingCallback() );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.called, 1 );
}

TEST( CallbackControlTest, HandlerMayAskAgainOrDestroyItsControl ) {
   Callbacks handler;
   auto control = getCallbackControl( &handler );
   handler.on = [ & ] {
      if( handler.called < 3 ) {
         control->requestCallback();
      } else {
         control.reset();
      }
   };
   control->requestCallback();
   Platform::doEventLoop();
   EXPECT_EQ( handler.called, 3 );
}

// -------------------------------------------------------------------------------------- exceptions

TEST( ExceptionRuleTest, HookDecidesAndTheLoopGoesOn ) {
   Timeouts thrower;
   thrower.on = [] { throw std::runtime_error( "thrown" ); };
   Timeouts other;
   const auto throwing = getTimerControl( &thrower );
   const auto later = getTimerControl( &other );
   const auto arm = [ & ] {
      throwing->setTimeout( 0 );
      later->setTimeout( 0 );
   };

   thrower.swallow = true;
   arm();
   Platform::doEventLoop( 0 );
   EXPECT_EQ( thrower.asked, 1 );
   EXPECT_EQ( other.fired, 1 );

   // Several times on one base: a base whose C frames were unwound would refuse the second run.
   thrower.swallow = false;
   for( int n = 2; n < 5; ++n ) {
      arm();
      EXPECT_THROW( Platform::doEventLoop( 0 ), std::runtime_error );
      Platform::doEventLoop( 0 );
      EXPECT_EQ( thrower.fired, n );
      EXPECT_EQ( other.fired, n ) << "what was left runs in the next loop";
   }
}

TEST( ExceptionRuleTest, EveryKindOfHandlerIsAsked ) {
   Callbacks callbacks;
   callbacks.on = [] { throw 1; };
   const auto callback = getCallbackControl( &callbacks );
   callback->requestCallback();
   EXPECT_THROW( Platform::doEventLoop(), int );
   EXPECT_EQ( callbacks.asked, 1 );
   callbacks.swallow = true;
   callback->requestCallback();
   Platform::doEventLoop();
   EXPECT_EQ( callbacks.asked, 2 );

   Fds fds;
   fds.onWrite = []( int ) { throw 2; };
   Pipe pipe;
   const auto fd = getFdControl( &fds );
   fd->setReads( false );
   fd->setFd( pipe.ends[ 1 ] );
   fd->setWrites( true );
   EXPECT_THROW( Platform::doEventLoop(), int );
   fds.swallow = true;
   fd->setWrites( true );
   Platform::doEventLoop();
   EXPECT_EQ( fds.asked, 2 );
}

// The end of a thread unwinds its stack as an exception does, and no hook may hold it up.
TEST( ExceptionRuleTest, HandlersMayEndTheirThread ) {
   Timeouts timeouts;
   timeouts.on = [] { pthread_exit( nullptr ); };
   Callbacks callbacks;
   callbacks.on = timeouts.on;
   Fds fds;
   fds.onWrite = []( int ) { pthread_exit( nullptr ); };
   timeouts.swallow = callbacks.swallow = fds.swallow = true;
   Pipe pipe;
   const auto writesOf = [ & ]( std::shared_ptr<FdControl> control ) {
      control->setReads( false );
      control->setFd( pipe.ends[ 1 ] );
      control->setWrites( true );
      return control;
   };
   const auto due = []( std::shared_ptr<TimerControl> control ) {
      control->setTimeout( 0 );
      return control;
   };
   const std::function<std::shared_ptr<void>()> kinds[] = {
         [ & ] { return due( getTimerControl( &timeouts ) ); },
         [ & ] { return due( getTimerControl( &timeouts, getTimerWheel() ) ); },
         [ & ] {
            auto control = getCallbackControl( &callbacks );
            control->requestCallback();
            return control;
         },
         [ & ] { return writesOf( getFdControl( &fds ) ); },
         [ & ] {
            return writesOf(
                  getFdControl( &fds, schedulerRootQuarn(), TaskPriority::normal, "watch" ) );
         },
   };
   for( const auto& kind : kinds ) {
      bool goesOn = false;
      std::thread( [ & ] {
         const std::shared_ptr<void> control = kind();
         doEventLoop();
         goesOn = true;
      } ).join();
      EXPECT_FALSE( goesOn ) << "kind " << &kind - kinds;
   }
   EXPECT_EQ( timeouts.fired + callbacks.called + fds.writes, 5 );
   EXPECT_EQ( timeouts.asked + callbacks.asked + fds.asked, 0 );
}

TEST( LibeventLoopTest, CallersOwnDispatchGetsTheExceptionDirectly ) {
   event_base* base = leCreateBase();
   leRegisterBase( base );
   Timeouts handler;
   handler.on = [] { throw std::runtime_error( "direct" ); };
   const auto control = getTimerControl( &handler );
   control->setTimeout( 0 );
   EXPECT_THROW( event_base_dispatch( base ), std::runtime_error );
   leFree();
}

TEST( LibeventLoopTest, NestedLoopIsRefused ) {
   Timeouts handler;
   std::string text;
   handler.on = [ & ] { text = testing_support::fatalText( [] { eventLoopTimeout( 0 ); } ); };
   const auto control = getTimerControl( &handler );
   control->setTimeout( 0 );
   doLeEventLoop();
   EXPECT_THAT( text, testing::HasSubstr( "event loop is already running on this thread" ) );
   handler.on = [] {};
   control->setTimeout( 0 );
   doLeEventLoop();
   EXPECT_EQ( handler.fired, 2 ) << "and the mark is gone with the refusal";
}

// ------------------------------------------------------------------------------------------ loops

TEST( EventLoopTest, BreakOfZeroComesBehindEverythingDue ) {
   Timeouts handler;
   std::vector<std::shared_ptr<TimerControl>> controls;
   controls.reserve( 6 );
   for( int n = 0; n < 6; ++n ) {
      controls.push_back( getTimerControl( &handler ) );
   }
   for( int round = 1; round <= 50; ++round ) {
      for( const auto& control : controls ) {
         control->setTimeout( 0 );
      }
      Platform::doEventLoop( 0 );
      ASSERT_EQ( handler.fired, 6 * round );
   }
}

TEST( EventLoopTest, LoopEndsWithItsLastEvent ) {
   Platform::doEventLoop(); // nothing to wait for
   Timeouts handler;
   const auto control = getTimerControl( &handler );
   control->setTimeout( 0.001 );
   Platform::doEventLoop();
   EXPECT_EQ( handler.fired, 1 );
   control->setTimeout( 0 );
   Platform::doEventLoop( 0 );
   EXPECT_EQ( handler.fired, 2 );
}

TEST( LibeventLoopTest, WaitHoldsTheActivityLockAndReleasesItByExceptionToo ) {
   Timeouts handler;
   bool held = false;
   handler.on = [ & ] {
      held = Loco::owns_loco();
      if( handler.fired == 2 ) {
         throw std::runtime_error( "out" );
      }
   };
   const auto control = getTimerControl( &handler );
   control->setTimeout( 0 );
   doLeEventLoopInWaitfor( 0 );
   EXPECT_TRUE( held );
   EXPECT_FALSE( Loco::owns_loco() );
   control->setTimeout( 0 );
   EXPECT_THROW( doLeEventLoopInWaitfor( infinity ), std::runtime_error );
   EXPECT_FALSE( Loco::owns_loco() );
}

// ------------------------------------------------------------------------------------------ bases

TEST( EventBaseTest, OneBaseForEachThread ) {
   EXPECT_FALSE( leInitialized() );
   leFree();
   event_base* base = leCreateBase();
   EXPECT_EQ( event_base_get_npriorities( base ), 2 );
   leRegisterBase( base );
   leRegisterBase( base );
   EXPECT_TRUE( leInitialized() );
   event_base* second = leCreateBase();
   EXPECT_FATAL( leRegisterBase( second ), "but a thread_local  base already exists: " );
   event_base_free( second );
   std::thread( [] {
      EXPECT_FALSE( leInitialized() );
      leInit();
      EXPECT_TRUE( leInitialized() );
   } ).join();
   leFree();
   EXPECT_FALSE( leInitialized() );
}

TEST( EventBaseTest, EndOfAThreadFreesItsBase ) {
   const auto descriptors = [] {
      int count = 0;
      for( int fd = 0; fd < 256; ++fd ) {
         count += fcntl( fd, F_GETFD ) >= 0 ? 1 : 0;
      }
      return count;
   };
   std::thread( [] { leInit(); } ).join();
   const int before = descriptors();
   for( int n = 0; n < 10; ++n ) {
      std::thread( [] {
         Timeouts handler;
         const auto control = getTimerControl( &handler );
         control->setTimeout( 0 );
         doLeEventLoop();
         EXPECT_EQ( handler.fired, 1 );
      } ).join();
   }
   EXPECT_EQ( descriptors(), before );
}

TEST( EventBaseTest, ControlsOutliveTheirBaseAndMoveToTheNext ) {
   Timeouts handler;
   Fds fds;
   Pipe pipe;
   pipe.fill();
   const auto timer = getTimerControl( &handler );
   auto dropped = getTimerControl( &handler );
   const auto fd = getFdControl( &fds );
   timer->setTimeout( 0 );
   dropped->setTimeout( 0 );
   fd->setFd( pipe.ends[ 0 ] );
   leFree();
   dropped.reset();
   EXPECT_EQ( timer->remainingTimeout(), infinity );
   timer->delTimeout();
   leInit();
   eventLoopTimeout( 0 );
   EXPECT_EQ( handler.fired, 0 );
   timer->setTimeout( 0 );
   fds.onRead = [ & ]( int ) { fd->setReads( false ); };
   fd->setReads( true );
   eventLoopTimeout( 0 );
   EXPECT_EQ( handler.fired, 1 );
   EXPECT_EQ( fds.reads, 1 );
}

TEST( EventBaseTest, NewBaseAtTheAddressOfTheOldOneIsNotTakenForIt ) {
   Timeouts timeouts;
   Callbacks callbacks;
   Fds fds;
   Pipe pipe;
   const auto timer = getTimerControl( &timeouts );
   const auto callback = getCallbackControl( &callbacks );
   const auto fd = getFdControl( &fds );
   fd->setReads( false );
   fd->setFd( pipe.ends[ 1 ] );
   for( int n = 1; n <= 20; ++n ) {
      timer->setTimeout( 0 );
      callback->requestCallback();
      fd->setWrites( true );
      leFree();
      leInit();
      timer->setTimeout( 0 );
      callback->requestCallback();
      fd->setWrites( true );
      eventLoopTimeout( 0 );
      ASSERT_EQ( timeouts.fired, n );
      ASSERT_EQ( callbacks.called, n );
      ASSERT_EQ( fds.writes, n );
   }
   timeouts.on = [] { leFree(); };
   timer->setTimeout( 0 );
   EXPECT_FATAL( doLeEventLoop(), "event base freed while its loop runs" );
}

TEST( EventBaseTest, ForkedChildLeavesTheParentsWatchesAlone ) {
   Fds handler;
   Pipe pipe;
   auto control = getFdControl( &handler );
   control->setFd( pipe.ends[ 0 ] );
   // Each child does one of the things that touch descriptors, before or without leForkReinit().
   for( int what = 0; what < 4; ++what ) {
      const pid_t child = fork();
      if( child == 0 ) {
         bool good = true;
         switch( what ) {
         case 0:
            control.reset();
            break;
         case 1:
            leFree();
            break;
         case 2:
            control->setReads( false );
            break;
         default:
            leForkReinit();
            pipe.fill();
            handler.onRead = [ & ]( int ) { control->setReads( false ); };
            eventLoopTimeout( 0 );
            good = handler.reads == 1;
            control.reset();
            char c;
            good = good && read( pipe.ends[ 0 ], &c, 1 ) == 1;
            break;
         }
         _exit( good ? 0 : 1 );
      }
      int status = -1;
      ASSERT_EQ( waitpid( child, &status, 0 ), child );
      EXPECT_EQ( status, 0 ) << what;
   }
   pipe.fill();
   handler.onRead = [ & ]( int ) { control->setReads( false ); };
   eventLoopTimeout( 0 );
   EXPECT_EQ( handler.reads, 1 ) << "the parent still hears its descriptor";
}

TEST( EventBaseTest, PrioritiesAndTheirNames ) {
   EXPECT_EQ( toString( EventPriority::eventPriorityStrictHigh ), "eventPriorityStrictHigh" );
   EXPECT_EQ( toString( EventPriority::eventPriorityDefault ), "eventPriorityDefault" );
   EXPECT_EQ( toString( EventPriority( 2 ) ), "Invalid EventPriority=2" );
   event_base* base = leCreateBase();
   event* ev = evtimer_new(
         base, []( int, short, void* ) {}, nullptr );
   EXPECT_FATAL( eventPrioritySet( ev, EventPriority( 2 ) ), "Failed to set priority on " );
   event_free( ev );
   event_base_free( base );
}

TEST( EventBaseTest, WarningsOfLibeventAreTraced ) {
   const auto handler = getDebugHandler( "QuarnLibevent", false );
   handler->enabledIs( 1, true );
   leInit();
   TraceCapture capture;
   event_base_free( nullptr );
   EXPECT_THAT( capture.text(), testing::AllOf( testing::HasSubstr( "QuarnLibevent/1 " ),
                                                testing::HasSubstr( "no base to free" ) ) );
}

TEST( EventBaseTest, FatalErrorOfLibeventIsAnAssertion ) {
   event_base* base = leCreateBase();
   leRegisterBase( base );
   // Too late for it, which libevent takes for fatal.
   EXPECT_FATAL( event_enable_debug_mode(), "libevent fatal error:1" );
   EXPECT_FALSE( leInitialized() ) << "the base is abandoned: its lock may be held";
   event_base_free( base ); // it is not, this time
}

} // namespace
