#include <Quarn/UtilCpp.h>

#include <Quarn/base/Exception.h>
#include <Quarn/debug/DebugHandler.h>

#include "support/Fatal.h"
#include "support/NetworkNamespaces.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace Util = Quarn::Util;
using Quarn::String;
using testing::HasSubstr;
using namespace testing_support;

constexpr char defaultNamespace[] = "/var/run/netns/default";

class SocketTest : public testing::Test {
 protected:
   // No other test binds it, also when the programs run side by side.
   String uniqueName( const std::string& tail = {} ) const {
      return "quarn-test-" + std::to_string( getpid() ) + "-" + tail;
   }

   std::string runtimeText( const std::function<void()>& body ) const {
      try {
         body();
      } catch( const Quarn::RuntimeException& e ) {
         return e.what();
      }
      ADD_FAILURE() << "no exception was thrown";
      return {};
   }

 private:
   const std::shared_ptr<Quarn::Platform::DebugHandler> handlerOwner_ =
         Quarn::Platform::getDebugHandler( "SocketTest", false );

 protected:
   Quarn::Platform::DebugHandler& handler = *handlerOwner_;
};

// As the system sees it: the namespace that a socket lives in.
ino_t namespaceOfSocket( int sd ) {
   const int fd = ioctl( sd, SIOCGSKNS );
   EXPECT_GE( fd, 0 ) << strerror( errno );
   struct stat status {};
   EXPECT_EQ( fstat( fd, &status ), 0 );
   close( fd );
   return status.st_ino;
}

std::string contentOf( char const* path ) {
   std::ifstream file( path );
   return std::string( std::istreambuf_iterator<char>( file ), {} );
}

// The local sockets of the thread's network namespace.
std::string localSockets() { return contentOf( "/proc/thread-self/net/unix" ); }

// Lets the process open so many more descriptors.
void moreDescriptorsAre( unsigned more ) {
   std::vector<int> free;
   for( unsigned i = 0; i <= more; ++i ) {
      free.push_back( open( "/dev/null", O_RDONLY | O_CLOEXEC ) );
   }
   for( const int fd : free ) {
      close( fd );
   }
   rlimit limit{};
   ASSERT_EQ( getrlimit( RLIMIT_NOFILE, &limit ), 0 );
   limit.rlim_cur = static_cast<rlim_t>( free.back() );
   ASSERT_EQ( setrlimit( RLIMIT_NOFILE, &limit ), 0 );
}

#define SKIP_WHEN_REFUSED( refusal )                                    \
   do {                                                                 \
      if( const std::string why = ( refusal ); !why.empty() ) {         \
         GTEST_SKIP() << "the system refuses namespaces here: " << why; \
      }                                                                 \
   } while( false )

TEST_F( SocketTest, ForkedChildGetsItsSocketInTheDefaultNamespace ) {
   SKIP_WHEN_REFUSED( inNetworkNamespaces( [ this ] {
      const ino_t own = ownNetworkNamespace();
      handler.enabledIs( 2, true );
      const TraceCapture trace;
      const unsigned descriptors = openDescriptors();
      const int sd = Util::socket( handler, AF_INET, SOCK_DGRAM, 0 );
      ASSERT_GE( sd, 0 );
      EXPECT_EQ( namespaceOfSocket( sd ), namespaceOf( defaultNamespace ) );
      EXPECT_EQ( ownNetworkNamespace(), own );
      EXPECT_NE( own, namespaceOf( defaultNamespace ) );
      EXPECT_EQ( fcntl( sd, F_GETFD ), 0 );
      EXPECT_EQ( openDescriptors(), descriptors + 1 );

      const std::string text = trace.text();
      std::size_t at = 0;
      for( char const* line :
           { "Quarn::Util::socket() success opening /proc/self/ns/net\n",
             "Quarn::Util::socket() setnsByName() to default success\n",
             "Quarn::Util::socket() success opening default socket: Success\n" } ) {
         at = text.find( line, at );
         EXPECT_NE( at, std::string::npos ) << line << text;
      }
      EXPECT_EQ( trace.count( "\n" ), 3u );
   } ) );
}

TEST_F( SocketTest, ThreadComesBackToItsOwnNamespace ) {
   SKIP_WHEN_REFUSED( inNetworkNamespaces( [ this ] {
      const ino_t ofMain = ownNetworkNamespace();
      std::thread( [ & ] {
         ASSERT_EQ( unshare( CLONE_NEWNET ), 0 );
         const ino_t own = ownNetworkNamespace();
         ASSERT_NE( own, ofMain );
         const unsigned descriptors = openDescriptors();
         const int sd = Util::socket( handler, AF_INET, SOCK_DGRAM, 0 );
         ASSERT_GE( sd, 0 );
         EXPECT_EQ( namespaceOfSocket( sd ), namespaceOf( defaultNamespace ) );
         EXPECT_EQ( ownNetworkNamespace(), own );
         EXPECT_EQ( openDescriptors(), descriptors + 1 );
      } ).join();
      EXPECT_EQ( ownNetworkNamespace(), ofMain );
   } ) );
}

TEST_F( SocketTest, ForkedChildBindsWhereToolsOutsideSeeIt ) {
   SKIP_WHEN_REFUSED( inNetworkNamespaces( [ this ] {
      const String name = uniqueName();
      ASSERT_GE( Util::createAndBindSocket( handler, name ), 0 );
      EXPECT_THAT( localSockets(), testing::Not( HasSubstr( name ) ) );
      const int there = open( defaultNamespace, O_RDONLY | O_CLOEXEC );
      ASSERT_EQ( setns( there, CLONE_NEWNET ), 0 );
      EXPECT_THAT( localSockets(), HasSubstr( "@" + name.stdString() + "\n" ) );
   } ) );
}

TEST_F( SocketTest, ForkedChildThatCannotComeBackThrowsWithoutASocket ) {
   SKIP_WHEN_REFUSED( inNetworkNamespaceOfNoReturn( [ this ] {
      const unsigned descriptors = openDescriptors();
      EXPECT_EQ( runtimeText( [ this ] { Util::socket( handler, AF_UNIX, SOCK_DGRAM, 0 ); } ),
                 "Quarn::Util::socket() failed to switch back to caller's namespace: "
                 "Operation not permitted" );
      EXPECT_EQ( openDescriptors(), descriptors );
   } ) );
}

TEST_F( SocketTest, ForkedChildWithoutPrivilegeGetsALocalSocket ) {
   inForkedChild( [ this ] {
      dropCapabilities();
      const ino_t own = ownNetworkNamespace();
      const String name = uniqueName();
      handler.enabledIs( 2, true );
      const TraceCapture trace;
      const unsigned descriptors = openDescriptors();
      const int sd = Util::createAndBindSocket( handler, name );
      ASSERT_GE( sd, 0 );
      EXPECT_EQ( ownNetworkNamespace(), own );
      EXPECT_THAT( localSockets(), HasSubstr( "@" + name.stdString() + "\n" ) );
      EXPECT_EQ( trace.count( "setnsByName() to default failure: cannot " ), 1u );
      EXPECT_EQ( trace.count( "socket() success opening local socket: Success\n" ), 1u );
      close( sd );
      EXPECT_EQ( openDescriptors(), descriptors );

      errno = 0;
      EXPECT_EQ( Util::socket( handler, AF_UNIX, SOCK_RDM, 0 ), -1 );
      EXPECT_EQ( errno, ESOCKTNOSUPPORT );
      EXPECT_EQ( trace.count( "socket() failed opening local socket: " ), 1u );
      EXPECT_EQ( openDescriptors(), descriptors );
   } );
}

TEST_F( SocketTest, ForkedChildWithoutNamespaceFilesGetsALocalSocket ) {
   SKIP_WHEN_REFUSED( inNetworkNamespaces( [ this ] {
      const ino_t own = ownNetworkNamespace();
      ASSERT_EQ( mount( "none", "/proc", "tmpfs", 0, nullptr ), 0 ) << strerror( errno );
      handler.enabledIs( 2, true );
      const TraceCapture trace;
      const int sd = Util::socket( handler, AF_INET, SOCK_DGRAM, 0 );
      ASSERT_GE( sd, 0 );
      EXPECT_EQ( namespaceOfSocket( sd ), own );
      EXPECT_EQ( trace.count( "socket() failed to open /proc/self/ns/net reason: "
                              "No such file or directory\n" ),
                 1u );
      EXPECT_EQ( trace.count( fmt::format( "socket() success opening local socket, sd:{}\n", sd ) ),
                 1u );
      EXPECT_EQ( Util::socket( handler, AF_UNIX, SOCK_RDM, 0 ), -1 );
      EXPECT_EQ( errno, ESOCKTNOSUPPORT );
   } ) );
}

TEST_F( SocketTest, ForkedChildSeesTheErrorOfASocketThatFailedInTheDefaultNamespace ) {
   SKIP_WHEN_REFUSED( inNetworkNamespaces( [ this ] {
      const ino_t own = ownNetworkNamespace();
      const unsigned descriptors = openDescriptors();
      EXPECT_EQ( Util::socket( handler, AF_UNIX, SOCK_RDM, 0 ), -1 );
      EXPECT_EQ( errno, ESOCKTNOSUPPORT );
      EXPECT_EQ( ownNetworkNamespace(), own );
      EXPECT_EQ( openDescriptors(), descriptors );
   } ) );
}

// Room for no descriptor, for one that saves the namespace, and for one more beside it.
TEST_F( SocketTest, ForkedChildShortOfDescriptorsKeepsNone ) {
   for( const unsigned room : { 0u, 1u, 2u } ) {
      inForkedChild( [ this, room ] {
         const ino_t own = ownNetworkNamespace();
         // A sanitizer takes descriptors to look at the first object of a kind.
         close( Util::socket( handler, AF_UNIX, SOCK_DGRAM, 0 ) );
         EXPECT_FATAL( Util::setSocketSendBufferSize( -1, 1 ), "invalid sd" );
         moreDescriptorsAre( room );
         const int sd = Util::socket( handler, AF_UNIX, SOCK_DGRAM, 0 );
         EXPECT_EQ( sd >= 0, room == 2 );
         EXPECT_TRUE( sd >= 0 || errno == EMFILE );
         if( room == 0 ) {
            EXPECT_FATAL( Util::createAndBindSocket( handler, "none" ),
                          "createAndBindSocket() socket() failed: Too many open files" );
         }
         close( sd );
         EXPECT_EQ( ownNetworkNamespace(), own );
         // There is room for as many as before.
         for( unsigned i = 0; i < room; ++i ) {
            EXPECT_GE( open( "/dev/null", O_RDONLY | O_CLOEXEC ), 0 );
         }
         EXPECT_EQ( open( "/dev/null", O_RDONLY | O_CLOEXEC ), -1 );
      } );
   }
}

TEST_F( SocketTest, AddressHoldsTheNameBehindAZeroByte ) {
   const std::string longName( 108, 'n' );
   for( const std::string& name : { std::string(), std::string( "a" ), std::string( "a\0b\0", 4 ),
                                    longName.substr( 1 ), longName } ) {
      struct {
         unsigned char address[ 110 ];
         unsigned char behind[ 2 ];
      } room;
      std::memset( &room, 0xaa, sizeof( room ) );
      const std::string kept = name.substr( 0, 107 );
      const unsigned int length = Util::createSockaddr( handler, &room, String( name ) );
      EXPECT_EQ( length, kept.size() + 3 );
      std::string expected( 110, '\0' );
      expected[ 0 ] = AF_UNIX;
      expected.replace( 3, kept.size(), kept );
      EXPECT_EQ( std::string( room.address, room.address + 110 ), expected );
      EXPECT_EQ( room.behind[ 0 ], 0xaa );
   }
}

// What bind(2) was given, told by the system. Names of the longest kind collide when they differ
// only in what is cut off.
TEST_F( SocketTest, BoundNameIsExactlyTheBytes ) {
   const std::string start = uniqueName().stdString();
   const std::string longest = start + std::string( 107 - start.size(), 'x' );
   const std::string zeros = start + std::string( "\0z\0", 3 );
   for( const std::string& name : { zeros, longest } ) {
      const int sd = Util::createAndBindSocket( handler, String( name ) );
      ASSERT_GE( sd, 0 );
      sockaddr_un local{};
      socklen_t length = sizeof( local );
      ASSERT_EQ( getsockname( sd, reinterpret_cast<sockaddr*>( &local ), &length ), 0 );
      ASSERT_EQ( length, name.size() + 3 );
      EXPECT_EQ( std::string( local.sun_path, name.size() + 1 ), '\0' + name );
      int type = 0;
      length = sizeof( type );
      ASSERT_EQ( getsockopt( sd, SOL_SOCKET, SO_TYPE, &type, &length ), 0 );
      EXPECT_EQ( type, SOCK_SEQPACKET );
      if( name == longest ) {
         EXPECT_THROW( Util::createAndBindSocket( handler, String( longest + "y" ) ),
                       Quarn::RuntimeException );
      }
      close( sd );
   }
}

TEST_F( SocketTest, PeerConnectsToTheSameAddress ) {
   const String name = uniqueName( "peer" );
   const int server = Util::createAndBindSocket( handler, name );
   ASSERT_EQ( listen( server, 1 ), 0 );
   const int peer = Util::socket( handler, AF_UNIX, SOCK_SEQPACKET, 0 );
   sockaddr_un address;
   const unsigned int length = Util::createSockaddr( handler, &address, name );
   EXPECT_EQ( connect( peer, reinterpret_cast<sockaddr const*>( &address ), length ), 0 );
   const unsigned int shorter =
         Util::createSockaddr( handler, &address, name.substr( 0, name.size() - 1 ) );
   EXPECT_EQ( connect( peer, reinterpret_cast<sockaddr const*>( &address ), shorter ), -1 );
   close( peer );
   close( server );
}

TEST_F( SocketTest, SecondBindThrowsAndLeavesNoDescriptor ) {
   const String name = uniqueName( "twice" );
   const int first = Util::createAndBindSocket( handler, name );
   const unsigned descriptors = openDescriptors();
   EXPECT_EQ( runtimeText( [ & ] { Util::createAndBindSocket( handler, name ); } ),
              fmt::format( "Quarn::Util::createAndBindSocket() bind() failed for socket:{} error: "
                           "Address already in use",
                           name ) );
   EXPECT_EQ( openDescriptors(), descriptors );
   close( first );
   const int again = Util::createAndBindSocket( handler, name );
   EXPECT_GE( again, 0 );
   close( again );
}

TEST_F( SocketTest, SendBufferSizeReachesTheSystem ) {
   const int sd = Util::socket( handler, AF_UNIX, SOCK_SEQPACKET, 0 );
   EXPECT_EQ( Util::setSocketSendBufferSize( sd, 16384 ), 0 );
   int size = 0;
   socklen_t length = sizeof( size );
   ASSERT_EQ( getsockopt( sd, SOL_SOCKET, SO_SNDBUF, &size, &length ), 0 );
   EXPECT_EQ( size, 2 * 16384 ); // the system doubles it for its own use
   EXPECT_FATAL( Util::setSocketSendBufferSize( sd, 0 ),
                 "Quarn::Util::setSocketSendBufferSize() invalid size: 0" );
   EXPECT_FATAL( Util::setSocketSendBufferSize( sd, -7 ), "invalid size: -7" );
   EXPECT_FATAL( Util::setSocketSendBufferSize( -1, 0 ), "invalid sd: -1" );
   close( sd );
   const int file = open( "/dev/null", O_RDONLY | O_CLOEXEC );
   EXPECT_FATAL( Util::setSocketSendBufferSize( file, 8 ),
                 fmt::format( "unable to set socket {} buffer size to 8 bytes: "
                              "Socket operation on non-socket",
                              file ) );
   close( file );
}

// Each child of its own asks for the first time.
TEST_F( SocketTest, ForkedChildReadsTheLargestSendBufferOnce ) {
   constexpr char file[] = "/proc/sys/net/core/wmem_max";
   inForkedChild( [ & ] {
      const std::string text = contentOf( file );
      EXPECT_EQ( Util::SYSTEM_MAX_SEND_BUFFER_SIZE(),
                 text.empty() ? 8388608u : static_cast<unsigned>( std::stoul( text ) ) );
   } );
   SKIP_WHEN_REFUSED( inNetworkNamespaces( [ & ] {
      ASSERT_EQ( mount( "none", "/proc/sys", "tmpfs", 0, nullptr ), 0 ) << strerror( errno );
      for( char const* folder : { "/proc/sys/net", "/proc/sys/net/core" } ) {
         ASSERT_EQ( mkdir( folder, 0777 ), 0 );
      }
      const auto contentIs = [ & ]( char const* text ) { std::ofstream( file ) << text; };
      contentIs( "many\n" );
      EXPECT_FATAL( Util::SYSTEM_MAX_SEND_BUFFER_SIZE(),
                    "Quarn::Util::SYSTEM_MAX_SEND_BUFFER_SIZE() unable to convert string: many\n "
                    "to int: stoi" );
      contentIs( "99999999999\n" );
      EXPECT_FATAL( Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), "to int: stoi" );
      contentIs( "4711\n" );
      EXPECT_EQ( Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), 4711u );
      unlink( file );
      EXPECT_EQ( Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), 4711u );
   } ) );
   SKIP_WHEN_REFUSED( inNetworkNamespaces( [ & ] {
      ASSERT_EQ( mount( "none", "/proc/sys", "tmpfs", 0, nullptr ), 0 ) << strerror( errno );
      EXPECT_EQ( Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), 8388608u );
   } ) );
}

} // namespace
