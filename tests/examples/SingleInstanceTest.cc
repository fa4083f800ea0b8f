#include "examples/agent/SingleInstance.h"

#include "examples/RuntimeFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace HostAgent {
namespace {

namespace fs = std::filesystem;

const std::string ownName = "oruquarn-" + std::to_string( geteuid() );

TEST( SingleInstanceTest, NameIsHeldUntilItsHolderGoes ) {
   const testing_support::RuntimeFolder folder;
   auto first = std::make_unique<SingleInstance>( "a" );
   EXPECT_TRUE( first->held() );
   EXPECT_EQ( first->lockFile(), folder.path() + "/" + ownName + "/a.lock" );
   struct stat found {};
   ASSERT_EQ( stat( ( folder.path() + "/" + ownName ).c_str(), &found ), 0 );
   EXPECT_EQ( found.st_mode & 07777u, 0700u );
   const SingleInstance second( "a" );
   EXPECT_FALSE( second.held() );
   EXPECT_EQ( second.otherPid(), getpid() );
   EXPECT_TRUE( SingleInstance( ".." ).held() ) << "any name of an agent fits";
   first.reset();
   EXPECT_TRUE( SingleInstance( "a" ).held() );
}

TEST( SingleInstanceTest, HolderIsFoundThroughASymbolicLink ) {
   const testing_support::RuntimeFolder folder;
   fs::create_directory( folder.path() + "/real" );
   const std::string link = folder.path() + "/link";
   fs::create_directory_symlink( "real", link );
   setenv( "XDG_RUNTIME_DIR", link.c_str(), 1 );
   const SingleInstance first( "a" );
   EXPECT_EQ( SingleInstance( "a" ).otherPid(), getpid() );
}

TEST( SingleInstanceTest, FolderThatIsNotTheUsersOwnIsNotUsed ) {
   const testing_support::RuntimeFolder folder;
   const std::string own = folder.path() + "/" + ownName;
   const auto isUsed = [ &own ] {
      const SingleInstance instance( "test" + std::to_string( getpid() ) );
      const bool used = instance.lockFile().starts_with( own );
      if( !used ) {
         EXPECT_TRUE( instance.lockFile().starts_with( "/tmp/" + ownName + "/" ) );
         unlink( instance.lockFile().c_str() );
      }
      return used;
   };
   fs::create_directory( folder.path() + "/elsewhere" );
   fs::create_directory_symlink( "elsewhere", own );
   EXPECT_FALSE( isUsed() ) << "a symbolic link";
   EXPECT_TRUE( fs::is_empty( folder.path() + "/elsewhere" ) );
   fs::remove( own );
   fs::create_directory( own );
   chmod( own.c_str(), 0777 );
   EXPECT_FALSE( isUsed() ) << "anybody may write to it";
   chmod( own.c_str(), 0700 );
   EXPECT_TRUE( isUsed() );
   if( geteuid() == 0 ) {
      EXPECT_EQ( chown( own.c_str(), 65534, 65534 ), 0 );
      EXPECT_FALSE( isUsed() ) << "of another user";
   }
   setenv( "XDG_RUNTIME_DIR", ( folder.path() + "/none" ).c_str(), 1 );
   EXPECT_FALSE( isUsed() );
}

} // namespace
} // namespace HostAgent
