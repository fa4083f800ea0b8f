#include <Quarn/FileLockCpp.h>

#include <Quarn/Debug.h>

#include "support/Child.h"
#include "support/TempDir.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Quarn::FileLock;
using Quarn::Util::readLockPid;
using testing::HasSubstr;
using testing_support::Child;
using testing_support::openDescriptors;
using testing_support::TempDir;
using testing_support::TraceCapture;

// Opens the file and asks for a lock of the given kind; says what came of it.
std::string lockBy( const std::string& path, int command ) {
   const int fd = open( path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666 );
   struct flock request = {};
   request.l_type = F_WRLCK;
   request.l_whence = SEEK_SET;
   return fcntl( fd, command, &request ) == 0 ? "locked" : "failed";
}

class LockPidForkTest : public testing::Test {
 protected:
   int owner( const std::string& path ) { return readLockPid( *handler_, path ); }

   TempDir dir_;
   std::shared_ptr<Quarn::Platform::DebugHandler> handler_ =
         Quarn::Platform::getDebugHandler( "LockPidTest", false );
};

TEST_F( LockPidForkTest, OwnLockIsFoundWhileItIsHeld ) {
   FileLock lock( *handler_, dir_.path(), "lk" );
   EXPECT_EQ( owner( dir_.path( "lk" ) ), 0 );
   ASSERT_TRUE( lock.lock( false ) );
   const auto descriptors = openDescriptors();
   EXPECT_EQ( owner( dir_.path( "lk" ) ), getpid() );
   EXPECT_EQ( owner( dir_.path( "l" ) ), 0 );
   EXPECT_EQ( owner( dir_.path( "lkX" ) ), 0 );
   EXPECT_EQ( owner( "" ), 0 );
   EXPECT_EQ( openDescriptors(), descriptors );
   lock.release();
   EXPECT_EQ( owner( dir_.path( "lk" ) ), 0 );
}

TEST_F( LockPidForkTest, AnotherProcessIsFoundByEitherKindOfLock ) {
   // The one whose number the system tells comes first, as the other opens the search to all.
   const Child posix( [ & ] { return lockBy( dir_.path( "posix" ), F_SETLK ); } );
   ASSERT_EQ( posix.said(), "locked" );
   EXPECT_EQ( owner( dir_.path( "posix" ) ), posix.pid() );
   const Child ofd( [ & ] { return lockBy( dir_.path( "ofd" ), F_OFD_SETLK ); } );
   ASSERT_EQ( ofd.said(), "locked" );
   EXPECT_EQ( owner( dir_.path( "ofd" ) ), ofd.pid() );
}

TEST_F( LockPidForkTest, AChildFindsItselfFirstForTheLockItShares ) {
   FileLock lock( *handler_, dir_.path(), "lk" );
   ASSERT_TRUE( lock.lock( false ) );
   const Child child( [ & ] { return std::to_string( owner( lock.file().stdString() ) ); } );
   EXPECT_EQ( child.said(), std::to_string( child.pid() ) );
   EXPECT_EQ( owner( lock.file().stdString() ), getpid() );
}

TEST_F( LockPidForkTest, AHolderIsFoundAmongThoseWhoOnlyHaveTheFileOpen ) {
   const Child holder( [ & ] { return lockBy( dir_.path( "lk" ), F_OFD_SETLK ); } );
   ASSERT_EQ( holder.said(), "locked" );
   const Child reader( [ & ] { return lockBy( dir_.path( "lk" ), F_OFD_SETLK ); } );
   ASSERT_EQ( reader.said(), "failed" );
   const int fd = open( dir_.path( "lk" ).c_str(), O_RDONLY | O_CLOEXEC );

   Quarn::Platform::setTraceFormat( "%l %m" );
   handler_->enabledIs( 5, true );
   TraceCapture capture;
   EXPECT_EQ( owner( dir_.path( "lk" ) ), holder.pid() );
   EXPECT_THAT( capture.text(),
                HasSubstr( fmt::format( "5 FileLock::readLockPid() pid:{} file:{} is open, but not "
                                        "locked associated with lock\n",
                                        getpid(), dir_.path( "lk" ) ) ) );
   EXPECT_THAT( capture.text(),
                HasSubstr( fmt::format( "5 FileLock::readLockPid() found owner pid:{}\n",
                                        holder.pid() ) ) );
   close( fd );
}

} // namespace
