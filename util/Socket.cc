#include <Quarn/util/Socket.h>

#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/util/Files.h>

#include "debug/Handlers.h"

#include <netns.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Quarn::Util {

namespace {

constexpr char sourceFile[] = "UtilCpp";
constexpr char className[] = "Quarn::Util";

constexpr char processNamespace[] = "/proc/self/ns/net";
constexpr char threadNamespace[] = "/proc/thread-self/ns/net";

constexpr char maxSendBufferFile[] = "/proc/sys/net/core/wmem_max";
constexpr unsigned int maxSendBufferDefault = 8 * 1024 * 1024;

// Opens what brings this thread back to its network namespace, or gives -1. `path` becomes the file
// that was opened last.
int openOwnNamespace( char const*& path ) {
   path = processNamespace;
   int fd = open( path, O_RDONLY | O_CLOEXEC );
   // That file is the namespace of the main thread; another thread may live elsewhere, and what
   // hinders it from knowing where counts the same.
   if( fd >= 0 && !isMainThread() ) {
      close( fd );
      path = threadNamespace;
      fd = open( path, O_RDONLY | O_CLOEXEC );
   }
   return fd;
}

void closeSocket( int sd ) {
   if( sd >= 0 ) {
      close( sd );
   }
}

// Makes the socket where the thread is and leaves why it failed, or 0, in `error`. Throws nothing,
// as the thread may be away from its own namespace.
int makeSocket( Platform::DebugHandler& handler, int domain, int type, int protocol,
                char const* where, int& error ) noexcept {
   errno = 0;
   const int sd = ::socket( domain, type, protocol );
   error = errno;
   QUARN_TRACE_AS( handler, 2, className, "socket", "{} opening {} socket: {}",
                   sd < 0 ? "failed" : "success", where, strerror( error ) );
   return sd;
}

// Throws a text as if from `function`.
template<typename... Args>
[[noreturn]] void fail( char const* function, fmt::format_string<Args...> format, Args&&... args ) {
   RuntimeException::throwException( fmtracestr( false, className, sourceFile, function, 0, format,
                                                 std::forward<Args>( args )... ) );
}

} // namespace

int socket( Platform::DebugHandler& handler, int domain, int type, int protocol ) {
   char const* path;
   const int localNsFd = openOwnNamespace( path );
   if( localNsFd < 0 ) {
      const int error = errno;
      if( error != ENOENT && error != EACCES ) {
         return -1;
      }
      QUARN_TRACE( handler, 2, className, "failed to open {} reason: {}", path, strerror( error ) );
      const int sd = ::socket( domain, type, protocol );
      if( sd >= 0 ) {
         QUARN_TRACE( handler, 2, className, "success opening local socket, sd:{}", sd );
      }
      return sd;
   }
   QUARN_TRACE( handler, 2, className, "success opening {}", processNamespace );

   int error;
   if( setnsByName( DEFAULT_NS, CLONE_NEWNET ) != 0 ) {
      QUARN_TRACE( handler, 2, className, "setnsByName() to {} failure: {}", DEFAULT_NS,
                   netnsGetTracebuffer() );
      const int sd = makeSocket( handler, domain, type, protocol, "local", error );
      close( localNsFd );
      errno = error;
      return sd;
   }
   QUARN_TRACE( handler, 2, className, "setnsByName() to {} success", DEFAULT_NS );
   const int sd = makeSocket( handler, domain, type, protocol, DEFAULT_NS, error );
   errno = 0;
   if( setns( localNsFd, CLONE_NEWNET ) != 0 ) {
      const int backError = errno;
      close( localNsFd );
      closeSocket( sd );
      fail( __func__, "failed to switch back to caller's namespace: {}", strerror( backError ) );
   }
   if( close( localNsFd ) != 0 ) {
      const int closeError = errno;
      closeSocket( sd );
      fail( __func__, "failed to close( localNsFd ): {}", strerror( closeError ) );
   }
   errno = error;
   return sd;
}

unsigned int createSockaddr( Platform::DebugHandler& handler, void* address, const String& name ) {
   sockaddr_un local{};
   static_assert( sizeof( local ) == 110 );
   local.sun_family = AF_UNIX;
   // A first byte of 0 makes the name an abstract one.
   const std::size_t size = std::min( name.size(), sizeof( local.sun_path ) - 1 );
   std::memcpy( local.sun_path + 1, name.data(), size );
   std::memcpy( address, &local, sizeof( local ) );
   QUARN_TRACE( handler, 2, className, "using abstract socket {}", name );
   return static_cast<unsigned int>( offsetof( sockaddr_un, sun_path ) + 1 + size );
}

int createAndBindSocket( Platform::DebugHandler& handler, const String& name ) {
   const int sd = Util::socket( handler, AF_UNIX, SOCK_SEQPACKET, 0 );
   if( sd < 0 ) {
      QUARN_FAIL_ON( handler, className, "socket() failed: {}", strerror( errno ) );
   }
   const int on = 1;
   if( setsockopt( sd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof( on ) ) != 0 ) {
      const int error = errno;
      close( sd );
      QUARN_FAIL_ON( handler, className, "setsockopt() failed: {}", strerror( error ) );
   }
   sockaddr_un local;
   const unsigned int length = createSockaddr( handler, &local, name );
   QUARN_TRACE( handler, 2, className, "using abstract socket {}", name );
   if( bind( sd, reinterpret_cast<sockaddr const*>( &local ), length ) != 0 ) {
      const int error = errno;
      close( sd );
      fail( __func__, "bind() failed for socket:{} error: {}", name, strerror( error ) );
   }
   return sd;
}

unsigned int SYSTEM_MAX_SEND_BUFFER_SIZE() {
   // 0 until it is known; threads that ask at once all find the same.
   static constinit std::atomic<unsigned int> cached{ 0 };
   unsigned int size = cached.load( std::memory_order_relaxed );
   if( size != 0 ) {
      return size;
   }
   Platform::DebugHandler& handler = *Platform::utilHandler.handler();
   size = maxSendBufferDefault;
   if( fileExists( handler, maxSendBufferFile ) ) {
      const String text = fileRead( handler, maxSendBufferFile, true );
      try {
         size = static_cast<unsigned int>( std::stoi( text.stdString() ) );
      } catch( const std::exception& e ) {
         QUARN_FAIL_ON( handler, className, "unable to convert string: {} to int: {}", text,
                        e.what() );
      }
   }
   cached.store( size, std::memory_order_relaxed );
   return size;
}

int setSocketSendBufferSize( int sd, int size ) {
   if( sd < 0 ) {
      QUARN_FAIL_ON( Platform::utilHandler, className, "invalid sd: {}", sd );
   }
   if( size <= 0 ) {
      QUARN_FAIL_ON( Platform::utilHandler, className, "invalid size: {}", size );
   }
   if( setsockopt( sd, SOL_SOCKET, SO_SNDBUF, &size, sizeof( size ) ) != 0 ) {
      QUARN_FAIL_ON( Platform::utilHandler, className,
                     "unable to set socket {} buffer size to {} bytes: {}", sd, size,
                     strerror( errno ) );
   }
   return 0;
}

} // namespace Quarn::Util
