#include <Oru/GuardedWrite.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

using Oru::guardedWrite;

class GuardedWriteTest : public testing::Test {
 protected:
   GuardedWriteTest() {
      EXPECT_EQ( pipe2( ends, O_CLOEXEC | O_NONBLOCK ), 0 );
      sigemptyset( &pipeSignal );
      sigaddset( &pipeSignal, SIGPIPE );
      signal( SIGPIPE, SIG_DFL ); // an unguarded write would end the process
   }
   ~GuardedWriteTest() override {
      closeReader();
      close( ends[ 1 ] );
   }
   void closeReader() {
      if( ends[ 0 ] >= 0 ) {
         close( ends[ 0 ] );
         ends[ 0 ] = -1;
      }
   }
   static bool pipeSignalPending() {
      sigset_t pending;
      sigpending( &pending );
      return sigismember( &pending, SIGPIPE ) == 1;
   }
   static bool pipeSignalBlocked() {
      sigset_t mask;
      pthread_sigmask( SIG_BLOCK, nullptr, &mask );
      return sigismember( &mask, SIGPIPE ) == 1;
   }

   int ends[ 2 ] = { -1, -1 };
   sigset_t pipeSignal;
};

TEST_F( GuardedWriteTest, WritesAndReportsWithoutTouchingErrno ) {
   errno = ERANGE;
   EXPECT_EQ( guardedWrite( ends[ 1 ], "abc", 3 ), 3 );
   EXPECT_EQ( guardedWrite( ends[ 0 ], "abc", 3 ), -EBADF );
   while( guardedWrite( ends[ 1 ], "x", 1 ) == 1 ) {
   }
   EXPECT_EQ( guardedWrite( ends[ 1 ], "x", 1 ), -EAGAIN );
   EXPECT_EQ( errno, ERANGE );
   char text[ 3 ];
   EXPECT_EQ( read( ends[ 0 ], text, 3 ), 3 );
   EXPECT_EQ( std::string( text, 3 ), "abc" );
}

TEST_F( GuardedWriteTest, ClosedPipeRaisesNothing ) {
   closeReader();
   errno = ERANGE;
   EXPECT_EQ( guardedWrite( ends[ 1 ], "abc", 3 ), -EPIPE );
   EXPECT_EQ( errno, ERANGE );
   EXPECT_FALSE( pipeSignalBlocked() );
   EXPECT_FALSE( pipeSignalPending() );
   struct sigaction action;
   sigaction( SIGPIPE, nullptr, &action );
   EXPECT_EQ( action.sa_handler, SIG_DFL );
}

TEST_F( GuardedWriteTest, SignalPendingBeforeStaysPending ) {
   closeReader();
   pthread_sigmask( SIG_BLOCK, &pipeSignal, nullptr );
   EXPECT_EQ( guardedWrite( ends[ 1 ], "abc", 3 ), -EPIPE );
   EXPECT_FALSE( pipeSignalPending() );

   pthread_kill( pthread_self(), SIGPIPE );
   EXPECT_EQ( guardedWrite( ends[ 1 ], "abc", 3 ), -EPIPE );
   EXPECT_TRUE( pipeSignalPending() );
   EXPECT_TRUE( pipeSignalBlocked() );

   timespec const zero = {};
   EXPECT_EQ( sigtimedwait( &pipeSignal, nullptr, &zero ), SIGPIPE );
   pthread_sigmask( SIG_UNBLOCK, &pipeSignal, nullptr );
}

} // namespace
