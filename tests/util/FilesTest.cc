#include <Quarn/UtilCpp.h>

#include "support/Fatal.h"
#include "support/TempDir.h"
#include "support/TraceCapture.h"

#include <Quarn/base/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn::Util;
using testing::HasSubstr;
using testing_support::openDescriptors;
using testing_support::TempDir;
using testing_support::TraceCapture;

class FilesTest : public testing::Test {
 protected:
   FilesTest() {
      // Every trace is written, so that errno has to survive it.
      tracesAre( true );
   }
   ~FilesTest() override { tracesAre( false ); }

   void tracesAre( bool on ) const {
      for( unsigned short level = 0; level < 16; ++level ) {
         handler->enabledIs( level, on );
         utilHandler->enabledIs( level, on );
      }
   }

   static unsigned modeOf( const std::string& path ) {
      struct stat status;
      return stat( path.c_str(), &status ) == 0 ? status.st_mode & 07777u : 0;
   }

   // What a call of `body` throws.
   static std::string thrown( const std::function<void()>& body ) {
      try {
         body();
      } catch( const Quarn::RuntimeException& e ) {
         return e.what();
      }
      return "nothing was thrown";
   }

   const std::shared_ptr<Quarn::Platform::DebugHandler> handler =
         Quarn::Platform::getDebugHandler( "FilesTest", false );
   const std::shared_ptr<Quarn::Platform::DebugHandler> utilHandler =
         Quarn::Platform::getDebugHandler( "QuarnUtil", false );
   TempDir dir;
   // Before the descriptors are counted.
   TraceCapture trace;
   const mode_t umaskBefore = umask( 077 );
   const std::ptrdiff_t descriptors = openDescriptors();

   void TearDown() override {
      EXPECT_EQ( umask( umaskBefore ), 077u );
      EXPECT_EQ( openDescriptors(), descriptors );
   }
};

TEST_F( FilesTest, MkpathMakesWhatIsMissingWithoutUmask ) {
   EXPECT_EQ( mkpath( dir.path( "a/b//c/" ).c_str(), 0757 ), 0 );
   EXPECT_EQ( modeOf( dir.path( "a" ) ), 0757u );
   EXPECT_EQ( modeOf( dir.path( "a/b/c" ) ), 0757u );
   EXPECT_EQ( mkpath( dir.path( "a" ).c_str(), 0700 ), 0 );
   EXPECT_EQ( modeOf( dir.path( "a" ) ), 0757u ) << "an existing one stays as it is";
   EXPECT_EQ(
         trace.count( "Quarn::Util::mkpath() creating path: " + dir.path( "a" ) + " mode: 757\n" ),
         1u );
}

TEST_F( FilesTest, MkpathTellsWhyItFails ) {
   dir.fileIs( "file", "" );
   EXPECT_EQ( mkpath( dir.path( "file/a/b" ).c_str(), 0777 ), -1 );
   EXPECT_EQ( errno, ENOTDIR );
   // A link to nowhere is there for mkdir and missing for what is below it.
   std::filesystem::create_symlink( "gone", dir.path( "link" ) );
   EXPECT_EQ( mkpath( dir.path( "link/a" ).c_str(), 0777 ), -1 );
   EXPECT_EQ( errno, ENOENT );
   EXPECT_EQ( mkpath( "", 0777 ), -1 );
   EXPECT_EQ( errno, ENOENT );
   EXPECT_EQ( mkpath( nullptr, 0777 ), -1 );
}

TEST_F( FilesTest, CurrentDirectoryThatIsGone ) {
   const auto before = std::filesystem::current_path();
   EXPECT_EQ( getCwd( *handler ), before.string() );
   std::filesystem::create_directory( dir.path( "cwd" ) );
   ASSERT_EQ( chdir( dir.path( "cwd" ).c_str() ), 0 );
   ASSERT_EQ( rmdir( dir.path( "cwd" ).c_str() ), 0 );
   EXPECT_EQ( mkpath( "x", 0777 ), -1 );
   EXPECT_EQ( errno, ENOENT );
   const std::string text = "Quarn::Util::getCwd() getcwd() failed:No such file or directory";
   EXPECT_EQ( thrown( [ & ] { getCwd( *handler ); } ), text );
   EXPECT_EQ( trace.count( text ), 1u );
   std::filesystem::current_path( before );
}

TEST_F( FilesTest, ConcurrentMkpathOfThreadsRestoresTheUmask ) {
   tracesAre( false );
   std::vector<std::thread> threads;
   threads.reserve( 4 );
   std::atomic<bool> forked{ false };
   std::atomic<unsigned> wrong{ 0 };
   for( int t = 0; t < 4; ++t ) {
      threads.emplace_back( [ &, t ] {
         // Below a folder that all threads want to make first.
         for( int i = 0; i < 50 || !forked; ++i ) {
            const std::string top = "t" + std::to_string( i );
            wrong += mkpath( dir.path( top + "/" + std::to_string( t ) ).c_str(), 0777 ) != 0;
            wrong += modeOf( dir.path( top ) ) != 0777;
         }
      } );
   }
   // A child that is forked meanwhile has the umask of the process, and can make files.
   unsigned good = 0;
   for( int i = 0; i < 10; ++i ) {
      const pid_t child = fork();
      if( child == 0 ) {
         // Ends a child that waits for a lock nobody will release.
         alarm( 30 );
         _exit( umask( 0 ) == 077 && mkpath( dir.path( "child" ).c_str(), 0777 ) == 0 ? 0 : 1 );
      }
      int status = -1;
      waitpid( child, &status, 0 );
      good += status == 0;
   }
   forked = true;
   for( auto& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( wrong, 0u );
   EXPECT_EQ( good, 10u );
}

// The open of a FIFO waits for a reader, and nobody else waits with it.
TEST_F( FilesTest, ConcurrentTouchOfAFifoHoldsNobodyUp ) {
   const std::string fifo = dir.path( "fifo" );
   ASSERT_EQ( mkfifo( fifo.c_str(), 0600 ), 0 );
   std::atomic<pid_t> thread{ 0 };
   bool touched = false;
   std::thread waiting( [ & ] {
      thread = gettid();
      touched = touch( *handler, fifo.c_str() );
   } );
   // Until it sleeps in the open.
   std::string state;
   while( state != "S" ) {
      std::ifstream stat( "/proc/self/task/" + std::to_string( thread ) + "/stat" );
      std::string skipped;
      stat >> skipped >> skipped >> state;
   }
   EXPECT_EQ( mkpath( dir.path( "beside" ).c_str(), 0777 ), 0 );
   const int reader = open( fifo.c_str(), O_RDONLY );
   waiting.join();
   EXPECT_TRUE( touched );
   close( reader );
}

TEST_F( FilesTest, TrimpathRemovesTheTrailingDirectories ) {
   std::filesystem::create_directories( dir.path( "b/x/y" ) );
   EXPECT_EQ( trimpath( dir.path( "b/x/y" ).c_str(), "x/y" ), 0 );
   EXPECT_TRUE( std::filesystem::is_empty( dir.path( "b" ) ) );
   EXPECT_EQ( trace.count( "removed sub-tree x/y from absolute path " + dir.path( "b/x/y" ) ), 1u );
   // A leading "/" names no directory more.
   std::filesystem::create_directories( dir.path( "b/x/y" ) );
   EXPECT_EQ( trimpath( dir.path( "b/x/y" ).c_str(), "/x/y" ), 0 );
   EXPECT_TRUE( std::filesystem::is_empty( dir.path( "b" ) ) );
   // One that is missing is passed over.
   std::filesystem::create_directories( dir.path( "b/x" ) );
   EXPECT_EQ( trimpath( dir.path( "b/x/y" ).c_str(), "b/x/y" ), 0 );
   EXPECT_FALSE( std::filesystem::exists( dir.path( "b" ) ) );
   // One that is in use ends it.
   std::filesystem::create_directories( dir.path( "b/x/y" ) );
   dir.fileIs( "b/file", "" );
   EXPECT_EQ( trimpath( dir.path( "b/x/y" ).c_str(), "b/x/y" ), -1 );
   EXPECT_EQ( errno, ENOTEMPTY );
   EXPECT_FALSE( std::filesystem::exists( dir.path( "b/x" ) ) );
   EXPECT_EQ( trace.count( "rmdir() error " + dir.path( "b" ) + " reason: Directory not empty" ),
              1u );
}

TEST_F( FilesTest, TrimpathRefusesPathsThatDoNotFit ) {
   EXPECT_FATAL( trimpath( "", "" ), "Quarn::Util::trimpath() absolute path is empty" );
   EXPECT_FATAL( trimpath( nullptr, "a" ), "absolute path is empty" );
   EXPECT_FATAL( trimpath( "a/b", "" ), "absolute path is not absolute" );
   EXPECT_FATAL( trimpath( "/a/b", "" ), "trailing path is empty" );
   EXPECT_FATAL( trimpath( "/a/b", "/a/b" ), "trailing path longer than absolute path" );
   EXPECT_FATAL( trimpath( "/a/b", "a" ),
                 "trailing path is not a terminal substring of absolute path" );
}

TEST_F( FilesTest, TouchMakesAndKeeps ) {
   EXPECT_TRUE( touch( *handler, dir.path( "f" ).c_str() ) );
   EXPECT_EQ( modeOf( dir.path( "f" ) ), 0666u );
   dir.fileIs( "f", "kept" );
   EXPECT_TRUE( touch( *handler, dir.path( "f" ).c_str() ) );
   EXPECT_EQ( fileSize( *handler, dir.path( "f" ).c_str() ), 4u );
   EXPECT_FALSE( touch( *handler, dir.path().c_str() ) );
   EXPECT_EQ( errno, EISDIR );
   EXPECT_EQ( trace.count( "touch() unable to open " + dir.path() + " reason: Is a directory" ),
              1u );
}

TEST_F( FilesTest, FileWriteReplacesAndThrowsTheData ) {
   const std::string path = dir.path( "f" );
   dir.fileIs( "f", "a longer text before" );
   fileWrite( *handler, path.c_str(), std::string_view( "a\0{}", 4 ), false );
   EXPECT_EQ( fileSize( *handler, path.c_str() ), 4u );
   fileWrite( *handler, dir.path( "new" ).c_str(), {}, false );
   EXPECT_EQ( modeOf( dir.path( "new" ) ), 0666u );

   EXPECT_EQ( thrown( [ & ] { fileWrite( *handler, dir.path().c_str(), "{} is %s", false ); } ),
              "{} is %s" );
   EXPECT_EQ( trace.count( "fileWrite() unable to open " + dir.path() + " reason:Is a directory" ),
              1u );
   fileWrite( *handler, "/dev/full", "data", true );
   EXPECT_EQ( errno, ENOSPC );
   EXPECT_EQ( trace.count( "unable to write to /dev/full reason:No space left on device" ), 1u );
   EXPECT_EQ( thrown( [ & ] { fileWrite( *handler, "/dev/full", "data", false ); } ), "data" );
}

TEST_F( FilesTest, FileWriteAcceptsPartOfTheData ) {
   const auto signalBefore = std::signal( SIGXFSZ, SIG_IGN );
   rlimit before;
   getrlimit( RLIMIT_FSIZE, &before );
   rlimit limit = before;
   limit.rlim_cur = 10;
   const std::string path = dir.path( "f" );
   setrlimit( RLIMIT_FSIZE, &limit );
   // The captured trace is a file too.
   handler->enabledIs( 0, false );
   fileWrite( *handler, path.c_str(), "twelve bytes", false );
   setrlimit( RLIMIT_FSIZE, &before );
   std::signal( SIGXFSZ, signalBefore );
   EXPECT_EQ( fileRead( *handler, path.c_str(), true ), "twelve byt" );
}

TEST_F( FilesTest, FileReadEndsAtTheFirstNul ) {
   dir.fileIs( "f", std::string( "ab\0cd", 5 ) );
   dir.fileIs( "empty", "" );
   EXPECT_EQ( fileRead( *handler, dir.path( "f" ).c_str(), true ), "ab" );
   EXPECT_EQ( fileRead( *handler, dir.path( "empty" ).c_str(), true ), "" );
   EXPECT_EQ( trace.count( "fileRead() read " + dir.path( "f" ) + " 'ab'\n" ), 1u );
   EXPECT_EQ( trace.count( "fileRead() read " + dir.path( "empty" ) + " ''\n" ), 1u );
   // As the files of /proc, which have the size 0.
   EXPECT_THAT( fileRead( *handler, "/proc/self/status", true ).stdString(), HasSubstr( "Pid:" ) );
}

TEST_F( FilesTest, FileReadOfWhatCannotBeRead ) {
   const std::string gone = dir.path( "gone" );
   EXPECT_EQ( fileRead( *handler, gone.c_str(), false ), "" );
   EXPECT_EQ( fileRead( *handler, dir.path().c_str(), false ), "" );
   EXPECT_EQ( trace.text(), "" );
   EXPECT_EQ( fileRead( *handler, gone.c_str(), true ), "" );
   EXPECT_EQ( errno, ENOENT );
   EXPECT_EQ( trace.count( "unable to open file " + gone + "\n" ), 1u );
   EXPECT_EQ( fileRead( *handler, dir.path().c_str(), true ), "" );
   EXPECT_EQ( trace.count( "unable to open file " + dir.path() + ". Caught std::exception: " ),
              1u );
}

TEST_F( FilesTest, ExistenceSizeAndRemoval ) {
   const std::string path = dir.path( "f" );
   EXPECT_FALSE( fileExists( *handler, path.c_str() ) );
   EXPECT_EQ( errno, ENOENT );
   EXPECT_EQ( fileSize( *handler, path.c_str() ), 0u );
   EXPECT_EQ( errno, ENOENT );
   EXPECT_TRUE( fileRemove( *handler, path.c_str() ) );
   dir.fileIs( "f", "12345" );
   EXPECT_TRUE( fileExists( *handler, path.c_str() ) );

   const int fd = open( path.c_str(), O_RDWR | O_CLOEXEC );
   EXPECT_EQ( truncate( *handler, path.c_str(), fd, 5'000'000'000 ), 0 );
   EXPECT_EQ( fileSize( *handler, fd ), 5'000'000'000u );
   EXPECT_EQ( fileSize( *handler, path.c_str() ), 5'000'000'000u );
   EXPECT_EQ( truncate( *handler, path.c_str(), fd, ~0ul ), -1 );
   EXPECT_EQ( errno, EINVAL );
   EXPECT_EQ( trace.count( "size:18446744073709551615 error: " + path + ": Invalid argument" ),
              1u );
   close( fd );
   EXPECT_EQ( fileSize( *handler, fd ), 0u );
   EXPECT_EQ( errno, EBADF );

   EXPECT_TRUE( fileRemove( *handler, path.c_str() ) );
   EXPECT_FALSE( std::filesystem::exists( path ) );
   dir.fileIs( "f", "" );
   EXPECT_FALSE( fileRemove( *handler, dir.path( "f/below" ).c_str() ) );
   EXPECT_EQ( errno, ENOTDIR );
}

TEST_F( FilesTest, FileSizeHelperThrowsOnOverflow ) {
   EXPECT_EQ( fileSizeHelper( 1ul << 32, ( 1ul << 32 ) - 1, 0xffffffff ), ~0ul );
   EXPECT_EQ( thrown( [] { fileSizeHelper( 1ul << 32, 1ul << 32, 7 ); } ),
              "Quarn::Util::fileSizeHelper() fileSizeHelper overflow, entries:4294967296 "
              "entrySize:4294967296 xResult:0 endResult:7" );
   EXPECT_THAT( thrown( [] { fileSizeHelper( 1, ~0ul, 1 ); } ), HasSubstr( "endResult:0" ) );
}

} // namespace
