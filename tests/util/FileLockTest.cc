#include <Quarn/FileLockCpp.h>

#include "support/Fatal.h"
#include "support/Shell.h"
#include "support/TempDir.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Quarn::FileLock;
using testing::HasSubstr;
using testing::Not;
using testing_support::openDescriptors;
using testing_support::TempDir;
using testing_support::TraceCapture;

// A program of another make that asks for the lock once, says what it got, and keeps it until it is
// let go.
class Rival {
 public:
   explicit Rival( const std::string& path ) {
      int fromUs[ 2 ];
      int toUs[ 2 ];
      if( pipe2( fromUs, O_CLOEXEC ) != 0 || pipe2( toUs, O_CLOEXEC ) != 0 ) {
         return;
      }
      char const* const script =
            "import fcntl, os, struct, sys\n"
            "fd = os.open(sys.argv[1], os.O_RDWR | os.O_CREAT)\n"
            "try:\n"
            "    fcntl.fcntl(fd, 37, struct.pack('hhqqi4x', fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))\n"
            "    print('locked', flush=True)\n"
            "except BlockingIOError:\n"
            "    print('refused', flush=True)\n"
            "sys.stdin.read()\n";
      child_ = fork();
      if( child_ == 0 ) {
         dup2( fromUs[ 0 ], STDIN_FILENO );
         dup2( toUs[ 1 ], STDOUT_FILENO );
         execlp( "python3", "python3", "-c", script, path.c_str(), nullptr );
         _exit( 127 );
      }
      close( fromUs[ 0 ] );
      close( toUs[ 1 ] );
      hold_ = fromUs[ 1 ];
      for( char c; read( toUs[ 0 ], &c, 1 ) == 1 && c != '\n'; ) {
         answer_ += c;
      }
      close( toUs[ 0 ] );
   }
   ~Rival() {
      close( hold_ );
      waitpid( child_, nullptr, 0 );
   }
   Rival( const Rival& ) = delete;
   Rival& operator=( const Rival& ) = delete;

   // Empty without Python.
   const std::string& answer() const { return answer_; }

 private:
   pid_t child_ = -1;
   int hold_ = -1;
   std::string answer_;
};

class FileLockTest : public testing::Test {
 protected:
   FileLockTest() {
      handler->enabledIs( 1, true );
      handler->enabledIs( 5, true );
   }

   // What the system says of locks on the file.
   std::string systemLocks( const std::string& path ) const {
      struct stat status = {};
      stat( path.c_str(), &status );
      const std::string inode = ":" + std::to_string( status.st_ino ) + " ";
      std::ifstream file( "/proc/locks" );
      std::string found;
      for( std::string line; std::getline( file, line ); ) {
         if( line.find( inode ) != std::string::npos ) {
            found += line + "\n";
         }
      }
      return found;
   }

   // How a forked child ends that runs `body`; it exits with what `body` returns.
   template<typename Body>
   static int forked( Body body ) {
      const pid_t child = fork();
      if( child == 0 ) {
         const rlimit noCore = { 0, 0 };
         setrlimit( RLIMIT_CORE, &noCore );
         _exit( body() );
      }
      int status = -1;
      waitpid( child, &status, 0 );
      return status;
   }

   const std::shared_ptr<Quarn::Platform::DebugHandler> handler =
         Quarn::Platform::getDebugHandler( "FileLockTest", false );
   TempDir dir;
   TraceCapture trace;
   const std::ptrdiff_t descriptors = openDescriptors();
};

TEST_F( FileLockTest, TheSystemShowsTheLock ) {
   if( !std::filesystem::exists( "/proc/locks" ) ) {
      GTEST_SKIP() << "this system has no /proc/locks";
   }
   FileLock lock( *handler, dir.path(), "lk" );
   EXPECT_EQ( lock.file(), dir.path( "lk" ) );
   EXPECT_FALSE( std::filesystem::exists( dir.path( "lk" ) ) );
   ASSERT_TRUE( lock.lock( false ) );
   EXPECT_THAT( systemLocks( lock.file().stdString() ), HasSubstr( "OFDLCK" ) );
   EXPECT_THAT( systemLocks( lock.file().stdString() ), HasSubstr( "WRITE" ) );
   EXPECT_THAT( systemLocks( lock.file().stdString() ), HasSubstr( " 0 EOF" ) );
   lock.release();
   EXPECT_EQ( systemLocks( lock.file().stdString() ), "" );
   EXPECT_EQ( openDescriptors(), descriptors );
}

TEST_F( FileLockTest, ForkedProgramsLockIsRespectedAndOursByIt ) {
   FileLock lock( *handler, dir.path(), "lk" );
   {
      const Rival rival( dir.path( "lk" ) );
      if( rival.answer().empty() ) {
         GTEST_SKIP() << "python3 is needed for the other program";
      }
      ASSERT_EQ( rival.answer(), "locked" );
      EXPECT_FALSE( lock.lock( true ) );
      EXPECT_EQ( errno, EAGAIN );
      EXPECT_EQ( trace.count( "FileLock::lock() error: conflicting lock held on file:" +
                              dir.path( "lk" ) + "\n" ),
                 1u );
      EXPECT_FATAL( lock.release(), "attempting to release a lock that is not currently held. "
                                    "File:" +
                                          dir.path( "lk" ) );
   }
   ASSERT_TRUE( lock.lock( true ) );
   EXPECT_EQ( Rival( dir.path( "lk" ) ).answer(), "refused" );
   lock.release();
   EXPECT_EQ( Rival( dir.path( "lk" ) ).answer(), "locked" );
}

TEST_F( FileLockTest, ReentryIsTheHoldersChoice ) {
   {
      FileLock lock( *handler, dir.path(), "lk" );
      ASSERT_TRUE( lock.lock( true ) );
      EXPECT_TRUE( lock.lock( true ) );
      EXPECT_EQ( openDescriptors(), descriptors + 1 );
      EXPECT_FALSE( lock.lock( false ) );
      EXPECT_EQ( trace.count( "conflicting lock held" ), 1u );
      FileLock other( *handler, dir.path(), "lk" );
      EXPECT_FALSE( other.lock( true ) );
      EXPECT_EQ( openDescriptors(), descriptors + 1 );
      lock.release();
      EXPECT_TRUE( other.lock( true ) );
      EXPECT_FALSE( lock.lock( true ) ) << "a lock that was released is not held";
   }
   EXPECT_EQ( trace.count( "released lock on file:" + dir.path( "lk" ) + "\n" ), 2u );
   EXPECT_EQ( openDescriptors(), descriptors );
}

TEST_F( FileLockTest, AReplacedFileIsLockedInsteadOfTheFirst ) {
   FileLock lock( *handler, dir.path(), "lk" );
   ASSERT_TRUE( lock.lock( false ) );
   std::filesystem::rename( dir.path( "lk" ), dir.path( "moved" ) );
   EXPECT_TRUE( lock.lock( false ) );
   EXPECT_EQ( openDescriptors(), descriptors + 1 );
   FileLock first( *handler, dir.path(), "moved" );
   EXPECT_TRUE( first.lock( false ) );
   FileLock second( *handler, dir.path(), "lk" );
   EXPECT_FALSE( second.lock( false ) );
}

TEST_F( FileLockTest, AForkedChildMayNotRelease ) {
   std::optional<FileLock> lock( std::in_place, *handler, dir.path(), "lk" );
   ASSERT_TRUE( lock->lock( false ) );
   const std::string expected = " of owner pid:" + std::to_string( getpid() );
   EXPECT_EQ( forked( [ & ] {
                 if( lock->lock( true ) ) {
                    return 1;
                 }
                 const std::string text = testing_support::fatalText( [ & ] { lock->release(); } );
                 return text.ends_with( "FileLock::release() called from child process:" +
                                        std::to_string( getpid() ) + expected )
                              ? 0
                              : 2;
              } ),
              0 );
   const int status = forked( [ & ] {
      std::signal( SIGABRT, SIG_DFL );
      lock.reset();
      return 0;
   } );
   EXPECT_TRUE( WIFSIGNALED( status ) && WTERMSIG( status ) == SIGABRT ) << status;
   // Neither child has taken the lock from its owner.
   FileLock other( *handler, dir.path(), "lk" );
   EXPECT_FALSE( other.lock( false ) );
   lock.reset();
   EXPECT_TRUE( other.lock( false ) );
}

TEST_F( FileLockTest, AProgramStartedMeanwhileDoesNotGetTheLock ) {
   FileLock lock( *handler, dir.path(), "lk" );
   ASSERT_TRUE( lock.lock( false ) );
   const auto [ code, text ] = shell( "exec ls -l /proc/self/fd" );
   ASSERT_EQ( code, 0 );
   EXPECT_THAT( text, Not( HasSubstr( dir.path( "lk" ) ) ) );
}

TEST_F( FileLockTest, MakesFolderAndFileForEverybody ) {
   const mode_t before = umask( 077 );
   FileLock lock( *handler, dir.path( "a/b" ), "lk" );
   EXPECT_TRUE( lock.lock( false ) );
   EXPECT_EQ( umask( before ), 077u );
   struct stat status;
   ASSERT_EQ( stat( dir.path( "a/b" ).c_str(), &status ), 0 );
   EXPECT_EQ( status.st_mode & 0777u, 0777u );
   ASSERT_EQ( stat( lock.file().c_str(), &status ), 0 );
   EXPECT_EQ( status.st_mode & 0777u, 0666u );
}

TEST_F( FileLockTest, WithoutAFolderTheFileIsInTheCurrentOne ) {
   const auto before = std::filesystem::current_path();
   std::filesystem::current_path( dir.path() );
   FileLock lock( *handler, "", "lk" );
   EXPECT_EQ( lock.file(), "lk" );
   EXPECT_TRUE( lock.lock( false ) );
   std::filesystem::current_path( before );
   EXPECT_TRUE( std::filesystem::exists( dir.path( "lk" ) ) );
}

TEST_F( FileLockTest, SaysWhyThereIsNoLock ) {
   std::filesystem::create_directory( dir.path( "folder" ) );
   dir.fileIs( "file", "" );
   FileLock folder( *handler, dir.path(), "folder" );
   EXPECT_FALSE( folder.lock( false ) );
   EXPECT_EQ( errno, EISDIR );
   EXPECT_EQ( trace.count( "error: could not open lock file:" + dir.path( "folder" ) +
                           " Is a directory\n" ),
              1u );
   FileLock below( *handler, dir.path( "file/x" ), "lk" );
   EXPECT_FATAL( below.lock( false ),
                 "unexpected mkpath() error " + dir.path( "file/x" ) + ": Not a directory" );
   EXPECT_FATAL( FileLock( *handler, dir.path(), "a/b" ),
                 "FileLock::FileLock() unexpected '/' in filename: a/b" );
   EXPECT_EQ( openDescriptors(), descriptors );
}

} // namespace
