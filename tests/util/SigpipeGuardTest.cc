// Writes to a pipe without a reader, by processes that leave SIGPIPE at its default.

#include "util/SigpipeGuard.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <latch>
#include <thread>

#include <unistd.h>

namespace {

using Quarn::Util::SigpipeGuard;

class SigpipeGuardTest : public testing::Test {
 protected:
   SigpipeGuardTest() {
      EXPECT_EQ( pipe( fds ), 0 );
      close( fds[ 0 ] );
      signal( SIGPIPE, SIG_DFL );
   }
   ~SigpipeGuardTest() override { close( fds[ 1 ] ); }

   // Whether the write failed with EPIPE; the guard is gone by then.
   bool guardedWriteBreaks() const {
      ssize_t written;
      errno = 0;
      {
         const SigpipeGuard guard;
         written = write( fds[ 1 ], "x", 1 );
      }
      return written == -1 && errno == EPIPE;
   }

   static bool pending() {
      sigset_t set;
      sigpending( &set );
      return sigismember( &set, SIGPIPE ) == 1;
   }
   // Whether SIGPIPE was blocked before.
   static bool blockedIs( bool blocked ) {
      sigset_t set;
      sigset_t before;
      sigemptyset( &set );
      sigaddset( &set, SIGPIPE );
      pthread_sigmask( blocked ? SIG_BLOCK : SIG_UNBLOCK, &set, &before );
      return sigismember( &before, SIGPIPE ) == 1;
   }

   int fds[ 2 ];
};

TEST_F( SigpipeGuardTest, BrokenPipeIsAnErrorOnly ) {
   EXPECT_EXIT( ( write( fds[ 1 ], "x", 1 ), std::_Exit( 0 ) ), testing::KilledBySignal( SIGPIPE ),
                "" );
   EXPECT_EXIT( std::_Exit( guardedWriteBreaks() && guardedWriteBreaks() ? 7 : 1 ),
                testing::ExitedWithCode( 7 ), "" );
   // And the next one without a guard is what it was.
   EXPECT_EXIT( ( guardedWriteBreaks(), write( fds[ 1 ], "x", 1 ), std::_Exit( 0 ) ),
                testing::KilledBySignal( SIGPIPE ), "" );
}

TEST_F( SigpipeGuardTest, BlockedSignalStaysAsItWas ) {
   blockedIs( true );
   EXPECT_TRUE( guardedWriteBreaks() );
   EXPECT_FALSE( pending() );
   raise( SIGPIPE );
   EXPECT_TRUE( guardedWriteBreaks() );
   EXPECT_TRUE( pending() );
   EXPECT_TRUE( blockedIs( true ) );
   // Ignoring it drops what is pending.
   signal( SIGPIPE, SIG_IGN );
   blockedIs( false );
}

TEST_F( SigpipeGuardTest, OtherThreadsKeepTheSignal ) {
   std::latch guarded( 1 );
   bool blocked = true;
   std::thread other( [ & ] {
      guarded.wait();
      blocked = blockedIs( false );
   } );
   {
      const SigpipeGuard guard;
      EXPECT_TRUE( blockedIs( true ) );
      guarded.count_down();
      other.join();
   }
   EXPECT_FALSE( blocked );
   EXPECT_FALSE( blockedIs( false ) );
}

} // namespace
