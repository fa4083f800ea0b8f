#include "support/NetworkNamespaces.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

namespace {

bool writeTo( char const* path, const std::string& text ) {
   const int fd = open( path, O_WRONLY | O_CLOEXEC );
   const bool written = fd >= 0 && write( fd, text.data(), text.size() ) > 0;
   close( fd );
   return written;
}

// Makes this process root of a user namespace.
bool ownUsers() {
   const std::string user = "0 " + std::to_string( geteuid() ) + " 1";
   const std::string group = "0 " + std::to_string( getegid() ) + " 1";
   return unshare( CLONE_NEWUSER ) == 0 && writeTo( "/proc/self/setgroups", "deny" ) &&
          writeTo( "/proc/self/uid_map", user ) && writeTo( "/proc/self/gid_map", group );
}

// Says which step the system refused.
std::string refused( char const* step ) { return std::string( step ) + ": " + strerror( errno ); }

// The namespace "default", made by a thread, so that this one stays where it is.
std::string makeDefault() {
   if( unshare( CLONE_NEWNS ) != 0 || mount( "none", "/", "none", MS_REC | MS_PRIVATE, nullptr ) ) {
      return refused( "no mounts of its own" );
   }
   if( mount( "none", "/var/run", "tmpfs", 0, nullptr ) != 0 ) {
      return refused( "no /var/run of its own" );
   }
   mkdir( "/var/run/netns", 0777 );
   close( open( "/var/run/netns/default", O_CREAT | O_RDONLY | O_CLOEXEC, 0666 ) );
   std::string result;
   std::thread( [ &result ] {
      if( unshare( CLONE_NEWNET ) != 0 ) {
         result = refused( "no network namespace" );
      } else if( mount( "/proc/thread-self/ns/net", "/var/run/netns/default", "none", MS_BIND,
                        nullptr ) != 0 ) {
         result = refused( "no name for a network namespace" );
      }
   } ).join();
   return result;
}

// Runs `body` in a forked child and gives the text that the child found instead.
std::string ofChild( const std::function<std::string()>& body ) {
   int ends[ 2 ];
   if( pipe2( ends, O_CLOEXEC ) != 0 ) {
      ADD_FAILURE() << refused( "pipe" );
      return {};
   }
   std::fflush( nullptr );
   const pid_t child = fork();
   if( child == 0 ) {
      close( ends[ 0 ] );
      alarm( 60 );
      std::string text;
      try {
         text = body();
      } catch( const std::exception& e ) {
         ADD_FAILURE() << e.what();
      }
      std::fflush( nullptr );
      const bool told = text.empty() || write( ends[ 1 ], text.data(), text.size() ) > 0;
      _exit( told && !testing::Test::HasFailure() ? 0 : 1 );
   }
   close( ends[ 1 ] );
   char text[ 256 ];
   const ssize_t size = read( ends[ 0 ], text, sizeof( text ) );
   close( ends[ 0 ] );
   int status = 0;
   while( waitpid( child, &status, 0 ) < 0 && errno == EINTR ) {
   }
   EXPECT_EQ( status, 0 ) << "in the forked child";
   return std::string( text, size > 0 ? static_cast<std::size_t>( size ) : 0 );
}

} // namespace

std::string inNetworkNamespaces( const std::function<void()>& body ) {
   return ofChild( [ &body ]() -> std::string {
      if( geteuid() != 0 && !ownUsers() ) {
         return refused( "no user namespace" );
      }
      if( std::string why = makeDefault(); !why.empty() ) {
         return why;
      }
      if( unshare( CLONE_NEWNET ) != 0 ) {
         return refused( "no second network namespace" );
      }
      body();
      return {};
   } );
}

std::string inNetworkNamespaceOfNoReturn( const std::function<void()>& body ) {
   return ofChild( [ &body ]() -> std::string {
      if( !ownUsers() ) {
         return refused( "no user namespace" );
      }
      if( std::string why = makeDefault(); !why.empty() ) {
         return why;
      }
      body();
      return {};
   } );
}

void inForkedChild( const std::function<void()>& body ) {
   ofChild( [ &body ] {
      body();
      return std::string();
   } );
}

void dropCapabilities() {
   __user_cap_header_struct header{ _LINUX_CAPABILITY_VERSION_3, 0 };
   __user_cap_data_struct none[ _LINUX_CAPABILITY_U32S_3 ] = {};
   ASSERT_EQ( syscall( SYS_capset, &header, none ), 0 );
}

ino_t namespaceOf( const std::string& file ) {
   struct stat status {};
   return stat( file.c_str(), &status ) == 0 ? status.st_ino : 0;
}

ino_t ownNetworkNamespace() { return namespaceOf( "/proc/thread-self/ns/net" ); }

unsigned openDescriptors() {
   unsigned n = 0;
   if( DIR* const folder = opendir( "/proc/self/fd" ) ) {
      while( dirent const* const entry = readdir( folder ) ) {
         n += entry->d_name[ 0 ] != '.';
      }
      closedir( folder );
   }
   return n;
}

} // namespace testing_support
