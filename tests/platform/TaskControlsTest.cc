// Controls whose notifications run as tasks.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/platform/TaskControls.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include <unistd.h>

namespace {

using namespace Quarn;
using testing::ElementsAre;

constexpr double infinity = std::numeric_limits<double>::infinity();

// All three kinds of handler, with one body and one answer to exceptions.
struct Handler : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
   std::function<void()> on = [] {};
   bool swallow = false;
   std::vector<std::string> calls;
   std::vector<int> asked;

   void readFdEvent( int fd ) override { called( "read " + std::to_string( fd ) ); }
   void writeFdEvent( int fd ) override { called( "write " + std::to_string( fd ) ); }
   void timeout() override { called( "timeout" ); }
   void callback() override { called( "callback" ); }
   bool handleFdException( int fd ) override { return answer( fd ); }
   bool handleTimeoutException() override { return answer( -2 ); }
   bool handleCallbackException() override { return answer( -3 ); }

   void called( const std::string& call ) {
      calls.push_back( call );
      const std::function<void()> body = on;
      body();
   }
   bool answer( int value ) {
      asked.push_back( value );
      return swallow;
   }
};

class TaskControlsTest : public testing::Test {
 protected:
   TaskControlsTest() { EXPECT_EQ( pipe( pipe_ ), 0 ); }
   ~TaskControlsTest() override {
      close( pipe_[ 0 ] );
      close( pipe_[ 1 ] );
   }
   std::shared_ptr<Platform::FdControl> fds( Handler* to ) {
      return Platform::getFdControl( to, root, TaskPriority::low, "c" );
   }
   std::shared_ptr<Platform::TimerControl> timer( Handler* to ) {
      return Platform::getTimerControl( to, root, TaskPriority::low, "c" );
   }
   std::shared_ptr<Platform::CallbackControl> callbacks( Handler* to ) {
      return Platform::getCallbackControl( to, root, TaskPriority::low, "c" );
   }
   void turns( unsigned count ) {
      for( unsigned n = 0; n < count; ++n ) {
         loop.runOneTurn();
      }
   }

   int pipe_[ 2 ] = {};
   Handler handler;
   Testing::VirtualTimeLoop loop;
   std::shared_ptr<TaskSchedulerRoot> root = loop.root();
};

TEST_F( TaskControlsTest, NotificationsAreRunsOfNamedTasks ) {
   const auto fd = fds( &handler );
   EXPECT_EQ( fd->getFd(), -1 );
   fd->setFd( pipe_[ 1 ] );
   EXPECT_EQ( fd->getFd(), pipe_[ 1 ] );
   fd->setWrites( true );
   const auto time = timer( &handler );
   time->setTimeout( 0.0 );
   const auto call = callbacks( &handler );
   call->requestCallback();
   EXPECT_EQ( root->tasksPerPriority( TaskPriority::low ), 4u );
   EXPECT_THAT( handler.calls, ElementsAre() );
   turns( 10 );
   EXPECT_THAT( loop.runLog(), testing::UnorderedElementsAre( "c", "c", "c:write" ) );
   EXPECT_THAT( handler.calls,
                testing::UnorderedElementsAre( "timeout", "callback",
                                               "write " + std::to_string( pipe_[ 1 ] ) ) );
   root->suspendedIs( true );
   call->requestCallback();
   turns( 5 );
   EXPECT_EQ( handler.calls.size(), 3u );
   root->suspendedIs( false );
   turns( 5 );
   EXPECT_EQ( handler.calls.size(), 4u );
}

TEST_F( TaskControlsTest, ClearingTheEventsForgetsTheDescriptor ) {
   const std::string read = "read " + std::to_string( pipe_[ 0 ] );
   const auto control = fds( &handler );
   char byte = 'x';
   handler.on = [ & ] { EXPECT_EQ( ::read( pipe_[ 0 ], &byte, 1 ), 1 ); };
   EXPECT_EQ( write( pipe_[ 1 ], "abc", 3 ), 3 );
   const std::function<void()> forget[] = { [ & ] { control->clearEvents(); },
                                            [ & ] { control->delFd(); } };
   for( const auto& call : forget ) {
      handler.calls.clear();
      control->setFd( pipe_[ 0 ] );
      EXPECT_EQ( control->getFd(), pipe_[ 0 ] );
      // Waits for its run by now, which is dropped.
      loop.root()->suspendedIs( true );
      turns( 2 );
      call();
      loop.root()->suspendedIs( false );
      EXPECT_EQ( control->getFd(), -1 );
      control->setReads( false );
      control->setReads( true );
      turns( 5 );
      EXPECT_THAT( handler.calls, ElementsAre() );
   }
   control->setFd( pipe_[ 0 ] );
   turns( 8 );
   EXPECT_THAT( handler.calls, ElementsAre( read, read, read ) );
}

TEST_F( TaskControlsTest, RequestsBeforeTheRunAreOne ) {
   const auto control = callbacks( &handler );
   control->requestCallback();
   control->requestCallback();
   EXPECT_TRUE( control->pendingCallback() );
   turns( 5 );
   EXPECT_FALSE( control->pendingCallback() );
   EXPECT_THAT( handler.calls, ElementsAre( "callback" ) );
   control->requestCallback();
   control->cancelCallback();
   EXPECT_FALSE( control->pendingCallback() );
   turns( 5 );
   EXPECT_EQ( handler.calls.size(), 1u );
}

TEST_F( TaskControlsTest, RemainingTimeout ) {
   const auto control = timer( &handler );
   EXPECT_EQ( control->remainingTimeout(), infinity );
   control->setTimeout( 100.0 );
   control->setTimeout( 10.0 );
   EXPECT_NEAR( control->remainingTimeout(), 10.0, 1.0 );
   control->delTimeout();
   EXPECT_EQ( control->remainingTimeout(), infinity );
   loop.advance( 20 );
   EXPECT_THAT( handler.calls, ElementsAre() );
   control->setTimeout( 0.0 );
   EXPECT_EQ( control->remainingTimeout(), infinity ) << "waits for its run";
   control->delTimeout();
   loop.advance( 0 );
   EXPECT_THAT( handler.calls, ElementsAre() );
   control->setTimeout( 10.0 );
   loop.advance( 9 );
   EXPECT_THAT( handler.calls, ElementsAre() );
   loop.advance( 2 );
   EXPECT_THAT( handler.calls, ElementsAre( "timeout" ) );
   EXPECT_EQ( control->remainingTimeout(), infinity );
}

TEST_F( TaskControlsTest, DescriptorExceptionsAreOfferedToTheHandler ) {
   // Which descriptor it was, even when the handler has changed it.
   for( const bool swallow : { true, false } ) {
      for( const bool drops : { false, true } ) {
         auto control = fds( &handler );
         control->setReads( false );
         control->setFd( pipe_[ 1 ] );
         control->setWrites( true );
         handler.swallow = swallow;
         handler.asked.clear();
         handler.calls.clear();
         handler.on = [ & ] {
            control->delFd();
            if( drops ) {
               control.reset();
            }
            throw std::runtime_error( "mine" );
         };
         if( swallow && !drops ) {
            turns( 5 );
         } else {
            EXPECT_THROW( turns( 5 ), std::runtime_error );
         }
         EXPECT_EQ( handler.calls.size(), 1u );
         if( drops ) {
            EXPECT_THAT( handler.asked, ElementsAre() ) << "it may be gone with its control";
            EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
            continue;
         }
         EXPECT_THAT( handler.asked, ElementsAre( pipe_[ 1 ] ) );
         // The next notification comes as if nothing had been.
         handler.on = [] {};
         control->setFd( pipe_[ 1 ] );
         control->setWrites( true );
         turns( 5 );
         EXPECT_EQ( handler.calls.size(), 2u );
      }
   }
}

TEST_F( TaskControlsTest, OtherExceptionsLeaveTheRun ) {
   handler.swallow = true;
   handler.on = [] { throw std::runtime_error( "mine" ); };
   const auto time = timer( &handler );
   time->setTimeout( 0.0 );
   EXPECT_THROW( turns( 5 ), std::runtime_error );
   const auto call = callbacks( &handler );
   call->requestCallback();
   EXPECT_THROW( turns( 5 ), std::runtime_error );
   EXPECT_THAT( handler.asked, ElementsAre() );
   handler.on = [] {};
   call->requestCallback();
   time->setTimeout( 0.0 );
   turns( 5 );
   EXPECT_EQ( handler.calls.size(), 4u );
}

TEST_F( TaskControlsTest, HandlersMayDropTheirControls ) {
   auto time = timer( &handler );
   auto call = callbacks( &handler );
   auto fd = fds( &handler );
   handler.on = [ & ] {
      time.reset();
      call.reset();
      fd.reset();
   };
   const std::function<void()> arm[] = { [ & ] { time->setTimeout( 0.0 ); },
                                         [ & ] { call->requestCallback(); },
                                         [ & ] {
                                            fd->setFd( pipe_[ 1 ] );
                                            fd->setWrites( true );
                                         } };
   for( const auto& a : arm ) {
      time = timer( &handler );
      call = callbacks( &handler );
      fd = fds( &handler );
      handler.calls.clear();
      a();
      turns( 5 );
      EXPECT_EQ( handler.calls.size(), 1u );
      EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
      EXPECT_FALSE( root->busy() );
   }
}

TEST_F( TaskControlsTest, HandlerAndSchedulerAreNeeded ) {
   EXPECT_FATAL( fds( nullptr ), "TaskFdControl::TaskFdControl() handler is null" );
   EXPECT_FATAL( timer( nullptr ), "TaskTimerControl::TaskTimerControl() handler is null" );
   EXPECT_FATAL( callbacks( nullptr ),
                 "TaskCallbackControl::TaskCallbackControl() handler is null" );
   EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
   EXPECT_FATAL( Platform::getFdControl( &handler, nullptr, TaskPriority::low, "c" ),
                 "Need a TaskScheduler" );
}

} // namespace
