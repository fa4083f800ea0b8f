#include <Quarn/base/FileControl.h>
#include <Quarn/base/Time.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <time.h>
#include <unistd.h>

namespace {

double wallSeconds() {
   timespec now;
   ::clock_gettime( CLOCK_REALTIME, &now );
   return static_cast<double>( now.tv_sec ) + static_cast<double>( now.tv_nsec ) * 1e-9;
}

} // namespace

TEST( TimeTest, TheInstalledFunctionAnswersUntilNullRestoresTheWallClock ) {
   Quarn::Impl::timeIndirectFnIs( [] { return -12.5; } );
   EXPECT_EQ( Quarn::Impl::timeIndirect(), -12.5 );
   Quarn::Impl::timeIndirectFnIs( nullptr );
   double const before = wallSeconds();
   double const now = Quarn::Impl::timeIndirect();
   EXPECT_LE( before, now );
   EXPECT_LE( now, wallSeconds() );
}

TEST( FileControlTest, LocksOfTwoDescriptionsInOneProcessExclude ) {
   char path[] = "/tmp/quarn-base-lock-XXXXXX";
   int const first = ::mkstemp( path );
   ASSERT_GE( first, 0 );
   int const second = ::open( path, O_RDWR | O_CLOEXEC );
   ASSERT_GE( second, 0 );
   ::unlink( path );
   struct flock lock {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   EXPECT_EQ( ::fcntl( first, Quarn::cmd_F_OFD_SETLK(), &lock ), 0 );
   // Locks of the process would both be granted.
   EXPECT_EQ( ::fcntl( second, Quarn::cmd_F_OFD_SETLK(), &lock ), -1 );
   EXPECT_TRUE( errno == EAGAIN || errno == EACCES );
   ::close( first );
   EXPECT_EQ( ::fcntl( second, Quarn::cmd_F_OFD_SETLK(), &lock ), 0 );
   ::close( second );
}
