// The controls on framework objects: what they ask of these, and what they do not share with the
// libevent flavour.

#include "support/Fatal.h"
#include "support/Tasks.h"
#include "support/TraceCapture.h"

#include <OruQuarn/Callback.h>
#include <OruQuarn/ClockTimer.h>
#include <OruQuarn/FileDescriptor.h>

#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/base/ThreadControl.h>

#include <Oru/ActivityManager.h>
#include <Oru/System.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using testing::ElementsAre;
using testing::HasSubstr;
using testing_support::makeTask;
using testing_support::TraceCapture;

constexpr double infinity = std::numeric_limits<double>::infinity();

// All kinds of handler in one, with a log.
struct Handler : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
   std::function<void()> on = [] {};
   bool swallow = false;
   std::vector<std::string> log;

   void readFdEvent( int ) override { called( "read" ); }
   void writeFdEvent( int ) override { called( "write" ); }
   void timeout() override { called( "timeout" ); }
   void callback() override { called( "callback" ); }
   bool handleFdException( int fd ) override { return asked( "fd " + std::to_string( fd ) ); }
   bool handleTimeoutException() override { return asked( "timeout" ); }
   bool handleCallbackException() override { return asked( "callback" ); }

   void called( const std::string& what ) {
      log.push_back( what );
      const std::function<void()> body = on; // it may replace itself
      body();
   }
   bool asked( const std::string& what ) {
      log.push_back( "asked for " + what );
      return swallow;
   }
   std::vector<std::string> taken() { return std::exchange( log, {} ); }
};

// Reaches the notifiees of controls, which the framework may hold for longer than their controls
// live.
using FdNotifiee = Oru::Ptr<OruQuarn::FileDescriptor::Notifiee>;
using ClockNotifiee = Oru::Ptr<OruQuarn::ClockTimer::Notifiee>;
template<FdNotifiee OruQuarn::FileDescriptor::*member>
struct OfFd {
   friend FdNotifiee notifieeOf( OruQuarn::FileDescriptor& control ) { return control.*member; }
};
template<ClockNotifiee OruQuarn::ClockTimer::*member>
struct OfTimer {
   friend ClockNotifiee notifieeOf( OruQuarn::ClockTimer& control ) { return control.*member; }
};
FdNotifiee notifieeOf( OruQuarn::FileDescriptor& control );
ClockNotifiee notifieeOf( OruQuarn::ClockTimer& control );
template struct OfFd<&OruQuarn::FileDescriptor::notifiee_>;
template struct OfTimer<&OruQuarn::ClockTimer::notifiee_>;

class Reader final : public FileDescriptorTask {
 public:
   Reader( std::shared_ptr<TaskScheduler> scheduler, int fd )
         : FileDescriptorTask( std::move( scheduler ), TaskPriority::normal, "reader" ) {
      taskWatchFdIs( fd );
   }
   int reads = 0;

 private:
   void taskExecuteReadable() override {
      ++reads;
      char byte;
      EXPECT_EQ( read( taskWatchFd(), &byte, 1 ), 1 );
   }
   void taskExecuteWritable() override {}
};

class FrameworkControlTest : public testing::Test {
 protected:
   FrameworkControlTest() {
      hasThreadLocalSingletonsIs( false );
      EXPECT_EQ( pipe2( pipe_, O_CLOEXEC ), 0 );
   }
   ~FrameworkControlTest() override {
      Oru::ActivityManagerConfig::virtualTimeIs( false );
      close( pipe_[ 0 ] );
      close( pipe_[ 1 ] );
   }
   void fill() const { EXPECT_EQ( write( pipe_[ 1 ], "x", 1 ), 1 ); }
   static void turn() { Platform::doEventLoop( 0 ); }

   int pipe_[ 2 ] = {};
   Handler handler;
};

TEST_F( FrameworkControlTest, FactoriesMakeTheFrameworksFlavour ) {
   using std::dynamic_pointer_cast;
   EXPECT_TRUE(
         dynamic_pointer_cast<OruQuarn::FileDescriptor>( Platform::getFdControl( &handler ) ) );
   EXPECT_TRUE(
         dynamic_pointer_cast<OruQuarn::ClockTimer>( Platform::getTimerControl( &handler ) ) );
   EXPECT_TRUE( dynamic_pointer_cast<OruQuarn::ClockTimer>( Platform::getTimerControl(
         &handler, Platform::EventPriority::eventPriorityStrictHigh ) ) );
   EXPECT_TRUE(
         dynamic_pointer_cast<OruQuarn::Callback>( Platform::getCallbackControl( &handler ) ) );
   EXPECT_FALSE(
         dynamic_pointer_cast<OruQuarn::ClockTimer>( Platform::getLeTimerControl( &handler ) ) );
   EXPECT_FATAL( Platform::getFdControl( nullptr ), "handler is null" );
   EXPECT_FATAL( Platform::getTimerControl( nullptr ), "handler is null" );
   EXPECT_FATAL( Platform::getCallbackControl( nullptr ), "handler is null" );
   const auto wheel = getTimerWheel();
   std::thread( [ & ] { EXPECT_EQ( getTimerWheel(), wheel ) << "one for the process"; } ).join();
}

TEST_F( FrameworkControlTest, RegularFilesAreAlwaysReady ) {
   const auto control = Platform::getFdControl( &handler );
   const int file = memfd_create( "file", MFD_CLOEXEC );
   control->setWrites( true );
   control->setFd( file );
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "read", "write" ) );
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "read" ) ) << "one write for each request";
   close( file );
}

TEST_F( FrameworkControlTest, ClearingForgetsTheDescriptorAndANewOneWatchesNoWrites ) {
   const auto control = Platform::getFdControl( &handler );
   control->setWrites( true );
   control->setFd( pipe_[ 1 ] );
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "write" ) );
   control->clearEvents();
   EXPECT_EQ( control->getFd(), -1 );
   control->setFd( pipe_[ 1 ] );
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre() );
   control->setWrites( true );
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "write" ) );
}

// The counts outlive a descriptor; what was last seen of the one must not swallow the first
// readiness of the next.
TEST_F( FrameworkControlTest, EachDescriptorIsHeardFromItsFirstReadiness ) {
   const auto control = Platform::getFdControl( &handler );
   for( int n = 0; n < 3; ++n ) {
      int ends[ 2 ];
      ASSERT_EQ( pipe2( ends, O_CLOEXEC ), 0 );
      EXPECT_EQ( write( ends[ 1 ], "x", 1 ), 1 );
      control->setFd( ends[ 0 ] );
      turn();
      EXPECT_THAT( handler.taken(), ElementsAre( "read" ) );
      control->delFd();
      close( ends[ 0 ] );
      close( ends[ 1 ] );
   }
}

TEST_F( FrameworkControlTest, ReadyDescriptorsComeBeforeDueTimersAndTimersByTime ) {
   const auto fd = Platform::getFdControl( &handler );
   const auto timer = Platform::getTimerControl( &handler );
   const auto callback = Platform::getCallbackControl( &handler );
   timer->setTimeout( -1 );
   callback->requestCallback();
   fill();
   fd->setFd( pipe_[ 0 ] );
   handler.on = [ & ] { callback->requestCallback(); };
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "read", "callback", "timeout" ) )
         << "a callback's time is always the earliest, and comes once a turn";
}

TEST_F( FrameworkControlTest, PendingUntilItFires ) {
   const auto callback = Platform::getCallbackControl( &handler );
   const auto timer = Platform::getTimerControl( &handler );
   callback->requestCallback();
   timer->setTimeout( -5 );
   EXPECT_TRUE( callback->pendingCallback() );
   EXPECT_EQ( timer->remainingTimeout(), 0.0 );
   handler.on = [ & ] {
      // The callback comes first, and is no longer pending in its own call.
      EXPECT_FALSE( callback->pendingCallback() );
      EXPECT_EQ( timer->remainingTimeout(), handler.log.size() == 1 ? 0.0 : infinity );
   };
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "callback", "timeout" ) );
}

TEST_F( FrameworkControlTest, HandlerMayDestroyItsControlAndIsNotAskedThen ) {
   for( const bool throws : { false, true } ) {
      auto fd = Platform::getFdControl( &handler );
      auto timer = Platform::getTimerControl( &handler );
      auto callback = Platform::getCallbackControl( &handler );
      handler.swallow = true;
      handler.on = [ & ] {
         fd.reset();
         timer.reset();
         callback.reset();
         if( throws ) {
            throw std::runtime_error( "gone" );
         }
      };
      const auto run = [ & ]( char const* what ) {
         if( throws ) {
            EXPECT_THROW( turn(), std::runtime_error );
         } else {
            turn();
         }
         EXPECT_THAT( handler.taken(), ElementsAre( what ) );
      };
      callback->requestCallback();
      run( "callback" );
      timer = Platform::getTimerControl( &handler );
      timer->setTimeout( 0 );
      run( "timeout" );
      fd = Platform::getFdControl( &handler );
      fill();
      fd->setFd( pipe_[ 0 ] );
      run( "read" );
   }
}

TEST_F( FrameworkControlTest, HookDecidesOnExceptions ) {
   const auto fd = Platform::getFdControl( &handler );
   const auto timer = Platform::getTimerControl( &handler );
   const auto callback = Platform::getCallbackControl( &handler );
   handler.on = [] { throw std::runtime_error( "thrown" ); };
   const auto debug = Platform::getDebugHandler( "OruQuarn", false );
   debug->enabledIs( 9, true );
   for( const bool swallow : { false, true } ) {
      handler.swallow = swallow;
      TraceCapture capture;
      callback->requestCallback();
      timer->setTimeout( 0 );
      fill();
      fd->setFd( pipe_[ 0 ] );
      if( swallow ) {
         turn();
      } else {
         // One leaves the loop at a time; nothing that was due is lost.
         for( int n = 0; n < 3; ++n ) {
            EXPECT_THROW( turn(), std::runtime_error );
            fd->delFd();
         }
      }
      fd->delFd();
      EXPECT_THAT( handler.taken(),
                   ElementsAre( "read", "asked for fd " + std::to_string( pipe_[ 0 ] ), "callback",
                                "asked for callback", "timeout", "asked for timeout" ) );
      EXPECT_EQ( capture.count( "FileDescriptor::onAttribute() Fd notification exception was "
                                "handled" ),
                 swallow ? 1u : 0u );
      EXPECT_EQ( capture.count( "ClockTimer::Notifiee::onAttribute() Timeout notification "
                                "exception was handled" ),
                 swallow ? 2u : 0u );
   }
   debug->enabledIs( 9, false );
}

TEST_F( FrameworkControlTest, CountThatWasSeenIsNotReportedAgain ) {
   OruQuarn::FileDescriptor control( &handler );
   fill();
   control.setFd( pipe_[ 0 ] );
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "read" ) );
   const auto notifiee = notifieeOf( control );
   notifiee->onAttribute( Oru::FileDescriptor::readableAttribute, nullptr );
   notifiee->onAttribute( Oru::FileDescriptor::writableAttribute, nullptr );
   notifiee->onAttribute( 7, nullptr );
   EXPECT_THAT( handler.taken(), ElementsAre() );
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "read" ) );

   OruQuarn::FileDescriptor writer( &handler );
   writer.setWrites( true );
   writer.setFd( pipe_[ 1 ] );
   control.delFd();
   turn();
   EXPECT_THAT( handler.taken(), ElementsAre( "write" ) );
   notifieeOf( writer )->onAttribute( Oru::FileDescriptor::writableAttribute, nullptr );
   EXPECT_THAT( handler.taken(), ElementsAre() );
}

TEST_F( FrameworkControlTest, WriteHandlerMayAskForTheNextWrite ) {
   const auto control = Platform::getFdControl( &handler );
   handler.on = [ & ] { control->setWrites( handler.log.size() == 1 ); };
   control->setWrites( true );
   control->setFd( pipe_[ 1 ] );
   for( int n = 0; n < 3; ++n ) {
      turn();
   }
   EXPECT_THAT( handler.taken(), ElementsAre( "write", "write" ) );
}

TEST_F( FrameworkControlTest, HookIsAskedAboutTheDescriptorThatWasNotified ) {
   const auto control = Platform::getFdControl( &handler );
   handler.swallow = true;
   handler.on = [ & ] {
      control->delFd();
      throw std::runtime_error( "thrown" );
   };
   fill();
   control->setFd( pipe_[ 0 ] );
   turn();
   EXPECT_THAT( handler.taken(),
                ElementsAre( "read", "asked for fd " + std::to_string( pipe_[ 0 ] ) ) );
}

TEST_F( FrameworkControlTest, NotifieeWithoutItsControlOnlyTraces ) {
   const auto debug = Platform::getDebugHandler( "OruQuarn", false );
   debug->enabledIs( 5, true );
   FdNotifiee fd;
   ClockNotifiee clock;
   const std::string number = "fd:" + std::to_string( pipe_[ 0 ] );
   {
      TraceCapture capture;
      OruQuarn::FileDescriptor control( &handler );
      OruQuarn::ClockTimer timer( &handler );
      OruQuarn::Callback callback( &handler );
      control.setFd( pipe_[ 0 ] );
      control.setReads( false );
      timer.setTimeout( -1 );
      fd = notifieeOf( control );
      clock = notifieeOf( timer );
      EXPECT_THAT( capture.text(), HasSubstr( "FileDescriptor::FileDescriptor() done, ref:1" ) );
      EXPECT_THAT( capture.text(), HasSubstr( "FileDescriptor::setFd() registering " + number ) );
      EXPECT_THAT( capture.text(), HasSubstr( "FileDescriptor::setReads() false" ) );
      EXPECT_THAT( capture.text(), HasSubstr( "ClockTimer::setTimeout() -1" ) );
   }
   EXPECT_EQ( clock->timeMin(), infinity );
   TraceCapture capture;
   turn();
   fd->onAttribute( Oru::FileDescriptor::readableAttribute, nullptr );
   fd->onAttribute( Oru::FileDescriptor::writableAttribute, nullptr );
   clock->onAttribute( Oru::Clock::timeAttribute, nullptr );
   EXPECT_THAT( handler.taken(), ElementsAre() );
   EXPECT_EQ( capture.count( "FileDescriptor::onReadableCount() " + number + " ignoring orphan" ),
              1u );
   EXPECT_EQ( capture.count( "FileDescriptor::onWritableCount() " + number + " ignoring orphan" ),
              1u );
   EXPECT_EQ( capture.count( "ClockTimer::Notifiee::onTime() ignoring orphan" ), 1u );
   debug->enabledIs( 5, false );
}

TEST_F( FrameworkControlTest, DestructionGoesInOrder ) {
   const auto debug = Platform::getDebugHandler( "OruQuarn", false );
   debug->enabledIs( 5, true );
   auto control = Platform::getFdControl( &handler );
   auto callback = Platform::getCallbackControl( &handler );
   control->setFd( pipe_[ 0 ] );
   const std::string number = "fd:" + std::to_string( pipe_[ 0 ] );
   {
      TraceCapture capture;
      control.reset();
      EXPECT_THAT( capture.text(),
                   testing::ContainsRegex( "orphan\\(\\) " + number + "\n.*delFd\\(\\) deleting " +
                                           number + "\n.*clearEvents\\(\\) " + number +
                                           "\n.*~Notifiee\\(\\) " + number + "\n" ) );
   }
   TraceCapture capture;
   callback.reset();
   EXPECT_THAT( capture.text(),
                testing::ContainsRegex( "Callback::orphan.*\n.*ClockTimer::orphan.*\n"
                                        ".*ClockTimer::Notifiee::~Notifiee" ) );
   debug->enabledIs( 5, false );
}

TEST_F( FrameworkControlTest, VirtualTimeJumpsExactly ) {
   Oru::ActivityManagerConfig::virtualTimeIs( true );
   const auto timer = Platform::getTimerControl( &handler );
   const double start = time();
   timer->setTimeout( 86400.0 );
   double fired = 0;
   handler.on = [ & ] { fired = time(); };
   Platform::doEventLoop();
   EXPECT_GE( fired, start + 86400.0 );
   EXPECT_LT( fired, start + 86401.0 );
   Platform::doEventLoop( 3600.0 );
   EXPECT_GE( time(), fired + 3600.0 );
}

// The loop within a task runs no other task of the root, and says so to nobody twice.
TEST_F( FrameworkControlTest, LoopWithinATaskLeavesTheOthersQueued ) {
   const auto root = schedulerRootQuarnNonShared( "root" );
   fill();
   const auto reader = std::make_shared<Reader>( root, pipe_[ 0 ] );
   int runs = 0;
   const auto other = makeTask( root, TaskPriority::normal, "other", [ & ]( auto& ) { ++runs; } );
   const auto nesting = makeTask( root, TaskPriority::high, "nesting", [ & ]( auto& ) {
      other->scheduleTask();
      root->requestSchedulerRun();
      const auto manager = Oru::ActivityManager::instance();
      const std::uint64_t before = manager->served();
      Platform::doEventLoop( 0.02 );
      EXPECT_LT( manager->served() - before, 10u ) << "the ready descriptor does not spin";
      EXPECT_EQ( runs, 0 );
   } );
   nesting->scheduleTask();
   for( int n = 0; n < 10; ++n ) {
      turn();
   }
   EXPECT_EQ( runs, 1 );
   EXPECT_GE( reader->reads, 1 );
   EXPECT_TRUE( root->checkForTest() );
}

TEST_F( FrameworkControlTest, TurnOnAWrongThreadLosesNoTask ) {
   const auto root = schedulerRootQuarnNonShared( "root" );
   int runs = 0;
   const auto task = makeTask( root, TaskPriority::normal, "task", [ & ]( auto& ) { ++runs; } );
   task->scheduleTask();
   std::thread( [] {
      EXPECT_FATAL( Platform::doEventLoop( 0 ), "Executing in wrong thread" );
   } ).join();
   EXPECT_EQ( runs, 0 );
   turn();
   EXPECT_EQ( runs, 1 );
}

TEST_F( FrameworkControlTest, WaitRunsALoopWithinTheLoopWithTheLockHeld ) {
   const auto outer = Platform::getTimerControl( &handler );
   Handler inner;
   const auto callback = Platform::getCallbackControl( &inner );
   handler.on = [ & ] {
      EXPECT_TRUE( Platform::Loco::owns_loco() );
      callback->requestCallback();
      Platform::doEventLoopInWaitfor( 0 );
      EXPECT_THAT( inner.taken(), ElementsAre( "callback" ) );
   };
   outer->setTimeout( 0 );
   Platform::doEventLoop();
   EXPECT_THAT( handler.taken(), ElementsAre( "timeout" ) );
   EXPECT_FALSE( Platform::Loco::owns_loco() );
   EXPECT_FATAL( Platform::doEventLoop( NAN ), "invalid timeout nan" );
}

} // namespace
