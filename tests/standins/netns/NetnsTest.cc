#include <netns.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using testing::HasSubstr;

std::string linkText( char const* path ) {
   char text[ PATH_MAX ];
   ssize_t const size = readlink( path, text, sizeof( text ) );
   return size < 0 ? std::string() : std::string( text, static_cast<std::size_t>( size ) );
}

// The number that the next descriptor gets: it grows when one leaks.
int nextDescriptor() {
   int const fd = open( "/dev/null", O_RDONLY | O_CLOEXEC );
   close( fd );
   return fd;
}

TEST( NetnsTest, FailuresSetErrnoAndTellWhy ) {
   std::string const longName( 256, 'n' );
   struct {
      char const* name;
      int error;
      char const* reason;
   } const cases[] = {
         { nullptr, EINVAL, "no name" },
         { "", EINVAL, "'' is no name" },
         { ".", EINVAL, "'.' is no name" },
         { "..", EINVAL, "'..' is no name" },
         { "a/b", EINVAL, "'a/b' is no name" },
         { "../netns/x", EINVAL, "no name" },
         { longName.c_str(), ENAMETOOLONG, "longer than 255" },
         { "no-such-namespace", ENOENT, "/var/run/netns/no-such-namespace: No such file" },
   };
   int const descriptor = nextDescriptor();
   for( auto const& c : cases ) {
      SCOPED_TRACE( c.name ? c.name : "null" );
      errno = 0;
      EXPECT_EQ( setnsByName( c.name, CLONE_NEWNET ), -1 );
      EXPECT_EQ( errno, c.error );
      EXPECT_THAT( netnsGetTracebuffer(), HasSubstr( c.reason ) );
   }
   EXPECT_EQ( nextDescriptor(), descriptor );
}

TEST( NetnsTest, ReasonBelongsToTheThread ) {
   EXPECT_EQ( setnsByName( "mine/", 0 ), -1 );
   std::thread( [] {
      EXPECT_STREQ( netnsGetTracebuffer(), "" );
      EXPECT_EQ( setnsByName( "other/", 0 ), -1 );
      EXPECT_THAT( netnsGetTracebuffer(), HasSubstr( "other/" ) );
   } ).join();
   EXPECT_THAT( netnsGetTracebuffer(), HasSubstr( "mine/" ) );
}

// A kind of namespace that the file is not: setns itself fails, after the file was opened.
TEST( NetnsTest, FailedEntryClosesTheDescriptor ) {
   if( access( "/proc/1/ns/net", R_OK ) != 0 ) {
      GTEST_SKIP() << "no access to the namespaces of process 1";
   }
   int const descriptor = nextDescriptor();
   EXPECT_EQ( setnsByName( DEFAULT_NS, CLONE_NEWUTS ), -1 );
   EXPECT_THAT( errno, testing::AnyOf( EINVAL, EPERM ) );
   EXPECT_THAT( netnsGetTracebuffer(), HasSubstr( "/proc/1/ns/net: " ) );
   EXPECT_EQ( nextDescriptor(), descriptor );
}

// On a thread of its own, which leaves its namespace first where that is permitted.
TEST( NetnsTest, DefaultIsTheNamespaceOfProcess1 ) {
   int error = 0;
   std::string entered;
   std::string reason;
   int const descriptor = nextDescriptor();
   std::thread( [ & ] {
      static_cast<void>( unshare( CLONE_NEWNET ) );
      error = setnsByName( DEFAULT_NS, CLONE_NEWNET ) == 0 ? 0 : errno;
      reason = netnsGetTracebuffer();
      entered = linkText( "/proc/thread-self/ns/net" );
   } ).join();
   EXPECT_EQ( nextDescriptor(), descriptor );
   if( error != 0 ) {
      ASSERT_THAT( error, testing::AnyOf( EPERM, EACCES ) );
      GTEST_SKIP() << "not permitted here: " << reason;
   }
   EXPECT_EQ( entered, linkText( "/proc/1/ns/net" ) );
}

} // namespace
