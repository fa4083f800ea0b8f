#include "support/NetworkNamespaces.h"

#include <netns.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

namespace {

using testing::HasSubstr;
using namespace testing_support;

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
         { "two words", EINVAL, "no name" },
         { "line\n", EINVAL, "no name" },
         { "gr\xc3\xbcn", EINVAL, "no name" },
         { "no_such.NAME-09", ENOENT, "/var/run/netns/no_such.NAME-09: No such file" },
         { longName.c_str(), ENAMETOOLONG, "longer than 255" },
         { "no-such-namespace", ENOENT, "/var/run/netns/no-such-namespace: No such file" },
   };
   unsigned const descriptors = openDescriptors();
   for( auto const& c : cases ) {
      SCOPED_TRACE( c.name ? c.name : "null" );
      errno = 0;
      EXPECT_EQ( setnsByName( c.name, CLONE_NEWNET ), -1 );
      EXPECT_EQ( errno, c.error );
      EXPECT_THAT( netnsGetTracebuffer(), HasSubstr( c.reason ) );
   }
   EXPECT_EQ( openDescriptors(), descriptors );
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

TEST( NetnsTest, ForkedChildMovesToTheNamedDefault ) {
   std::string const refusal = inNetworkNamespaces( [] {
      ino_t const named = namespaceOf( "/var/run/netns/default" );
      unsigned const descriptors = openDescriptors();
      ino_t const own = ownNetworkNamespace();
      std::thread( [ & ] {
         ASSERT_EQ( setnsByName( DEFAULT_NS, CLONE_NEWNET ), 0 ) << netnsGetTracebuffer();
         EXPECT_EQ( ownNetworkNamespace(), named );
         // A kind of namespace that the file is not: setns fails, after the file was opened.
         EXPECT_EQ( setnsByName( DEFAULT_NS, CLONE_NEWUTS ), -1 );
         EXPECT_EQ( errno, EINVAL );
         EXPECT_THAT( netnsGetTracebuffer(), HasSubstr( "cannot enter /var/run/netns/default: " ) );
         // Where the thread is already it may go only if it may go at all.
         EXPECT_EQ( setnsByName( DEFAULT_NS, CLONE_NEWNET ), 0 );
         dropCapabilities();
         EXPECT_EQ( setnsByName( DEFAULT_NS, CLONE_NEWNET ), -1 );
         EXPECT_EQ( errno, EPERM );
         EXPECT_EQ( ownNetworkNamespace(), named );
      } ).join();
      EXPECT_EQ( ownNetworkNamespace(), own );
      EXPECT_EQ( openDescriptors(), descriptors );
   } );
   if( !refusal.empty() ) {
      GTEST_SKIP() << "not permitted here: " << refusal;
   }
}

TEST( NetnsTest, ForkedChildWithoutTheNameGoesToTheNamespaceOfProcess1 ) {
   std::string const refusal = inNetworkNamespaces( [] {
      ASSERT_EQ( umount2( "/var/run/netns/default", MNT_DETACH ), 0 );
      ASSERT_EQ( unlink( "/var/run/netns/default" ), 0 );
      ino_t const own = ownNetworkNamespace();
      if( setnsByName( DEFAULT_NS, CLONE_NEWNET ) == 0 ) {
         EXPECT_EQ( ownNetworkNamespace(), namespaceOf( "/proc/1/ns/net" ) );
      } else {
         EXPECT_THAT( errno, testing::AnyOf( EPERM, EACCES ) );
         EXPECT_THAT( netnsGetTracebuffer(), HasSubstr( " /proc/1/ns/net: " ) );
         EXPECT_EQ( ownNetworkNamespace(), own );
      }
   } );
   if( !refusal.empty() ) {
      GTEST_SKIP() << "not permitted here: " << refusal;
   }
}

} // namespace
