#include "prove/Faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// Everybody's, in a library whose own functions are hidden.
#pragma GCC visibility push( default )

namespace {

constexpr int none = -2;

constinit char names[ 64 ] = "";
constinit int failure = 0;
constinit int firstFailing = 0;
constinit int failingTimes = 0;
constinit int counted = 0;
constinit int hits = 0;
constinit bool namespacesAreFree = false;
constinit bool typesAreUnknown = false;
constinit bool kcmpIsMissing = false;
constinit thread_local bool armed = false;
constinit ProveSites* sites = nullptr;

// Which network namespace a thread is in, and which one a descriptor stands for, where everybody
// may enter them. One that is entered is only noted.
enum class Namespace : unsigned char {
   other, // the descriptor stands for something else
   own,
   first, // that of the first process
};
constexpr char firstNamespace[] = "/proc/1/ns/net";
constexpr char ownNamespace[] = "/proc/self/ns/net";
constexpr char threadNamespace[] = "/proc/thread-self/ns/net";
constexpr char namedNamespace[] = "/var/run/netns/default";
constinit thread_local Namespace entered = Namespace::own;
constinit Namespace namespaceOf[ 1024 ] = {};

void noteNamespace( int fd, Namespace which ) {
   if( fd >= 0 && fd < static_cast<int>( std::size( namespaceOf ) ) ) {
      namespaceOf[ fd ] = which;
   }
}

// Whether `name` is one of those between the bars.
bool isNamed( char const* name ) {
   const std::size_t size = std::strlen( name );
   for( char const* at = names; at; ) {
      char const* const end = std::strchr( at, '|' );
      const std::size_t length = end ? static_cast<std::size_t>( end - at ) : std::strlen( at );
      if( length == size && std::strncmp( at, name, size ) == 0 ) {
         return true;
      }
      at = end ? end + 1 : nullptr;
   }
   return false;
}

void note( void const* at, char const* name, bool fails ) {
   if( !sites ) {
      return;
   }
   for( int n = 0; n < sites->count && n < proveSitesMax; ++n ) {
      if( sites->all[ n ].at == at ) {
         sites->all[ n ].hasFailed |= fails;
         return;
      }
   }
   if( sites->count < proveSitesMax ) {
      ProveSite& site = sites->all[ sites->count ];
      site = { at, "", fails };
      std::snprintf( site.call, sizeof( site.call ), "%s", name );
   }
   ++sites->count;
}

// The error with which this call fails, which returns to `site`, or `none`. `errno` is set.
int faultOf( char const* name, void const* site ) {
   if( !armed ) {
      return none;
   }
   bool fails = false;
   if( names[ 0 ] != '\0' && isNamed( name ) ) {
      ++counted;
      fails = counted >= firstFailing && counted < firstFailing + failingTimes;
   }
   note( site, name, fails );
   if( !fails ) {
      return none;
   }
   ++hits;
   if( failure > 0 ) {
      errno = failure;
   }
   return failure;
}

template<typename Function>
Function* realOf( Function* /* of the same type */, char const* name ) {
   return reinterpret_cast<Function*>( dlsym( RTLD_NEXT, name ) );
}

// For the form of the environment.
[[gnu::constructor]] void readEnvironment() {
   char const* const text = std::getenv( "PROVE_FAULTS" );
   char name[ sizeof( names ) ];
   int error = 0;
   int nth = 1;
   if( text && std::sscanf( text, "%63[^:]:%d:%d", name, &error, &nth ) >= 2 ) {
      proveFaultIs( name, error, nth, 1 );
      armed = true;
   }
}

} // namespace

// Where the interposed function was called.
#define SITE __builtin_return_address( 0 )
// Answers like the call itself: 0 for one that only pretends, else -1 or null.
#define FAIL_OR_PRETEND( name )                      \
   do {                                              \
      const int fault = faultOf( name, SITE );       \
      if( fault != none ) {                          \
         return fault == proveFaultPretend ? 0 : -1; \
      }                                              \
   } while( false )
#define FAIL_AS_NULL( name )                \
   do {                                     \
      if( faultOf( name, SITE ) != none ) { \
         return nullptr;                    \
      }                                     \
   } while( false )
// Answers like the calls whose result is the error.
#define FAIL_AS_ERROR( name )                  \
   do {                                        \
      const int fault = faultOf( name, SITE ); \
      if( fault != none ) {                    \
         return fault;                         \
      }                                        \
   } while( false )
// A static pointer without a guard: two threads find the same.
#define REAL( name )                            \
   static decltype( &( name ) ) real = nullptr; \
   if( !real ) {                                \
      real = realOf( &( name ), #name );        \
   }

extern "C" {

void proveFaultIs( char const* call, int error, int nth, int times ) {
   std::snprintf( names, sizeof( names ), "%s", call );
   failure = error;
   firstFailing = nth;
   failingTimes = times;
   counted = 0;
   hits = 0;
}

void proveFaultsArmed( bool on ) { armed = on; }

void proveNamespacesAreFree( bool on ) {
   namespacesAreFree = on;
   entered = Namespace::own;
}

void proveFileTypesAreUnknown( bool on ) { typesAreUnknown = on; }

void proveKcmpIsMissing( bool on ) { kcmpIsMissing = on; }

int proveNamespaceIsLeft() { return entered != Namespace::own; }

int proveFaultHits() { return hits; }

void proveSitesAre( ProveSites* where ) { sites = where; }

// -------------------------------------------------------------------------------- files by a path

int open( char const* path, int flags, ... ) {
   REAL( open );
   FAIL_OR_PRETEND( "open" );
   va_list arguments;
   va_start( arguments, flags );
   const mode_t mode = ( flags & ( O_CREAT | O_TMPFILE ) ) != 0 ? va_arg( arguments, mode_t ) : 0;
   va_end( arguments );
   if( !armed || !namespacesAreFree ) {
      return real( path, flags, mode );
   }
   // It may be there on this machine and not on the next.
   if( std::strcmp( path, namedNamespace ) == 0 ) {
      errno = ENOENT;
      return -1;
   }
   const bool first = std::strcmp( path, firstNamespace ) == 0;
   const int fd = real( first ? ownNamespace : path, flags, mode );
   noteNamespace( fd, first ? Namespace::first
                      : std::strcmp( path, ownNamespace ) == 0 ||
                                  std::strcmp( path, threadNamespace ) == 0
                            ? entered
                            : Namespace::other );
   return fd;
}

FILE* fopen( char const* path, char const* mode ) {
   REAL( fopen );
   FAIL_AS_NULL( "fopen" );
   return real( path, mode );
}

FILE* fopen64( char const* path, char const* mode ) {
   REAL( fopen64 );
   FAIL_AS_NULL( "fopen" );
   return real( path, mode );
}

DIR* opendir( char const* path ) {
   REAL( opendir );
   FAIL_AS_NULL( "opendir" );
   return real( path );
}

int stat( char const* path, struct stat* status ) noexcept {
   static int ( *real )( char const*, struct stat* ) = nullptr;
   if( !real ) {
      real = realOf( real, "stat" );
   }
   FAIL_OR_PRETEND( "stat" );
   return real( path, status );
}

int lstat( char const* path, struct stat* status ) noexcept {
   REAL( lstat );
   FAIL_OR_PRETEND( "lstat" );
   return real( path, status );
}

int fstatat( int folder, char const* path, struct stat* status, int flags ) noexcept {
   REAL( fstatat );
   FAIL_OR_PRETEND( "fstatat" );
   return real( folder, path, status, flags );
}

int mkdir( char const* path, mode_t mode ) noexcept {
   REAL( mkdir );
   FAIL_OR_PRETEND( "mkdir" );
   return real( path, mode );
}

int rmdir( char const* path ) noexcept {
   REAL( rmdir );
   FAIL_OR_PRETEND( "rmdir" );
   return real( path );
}

int unlink( char const* path ) noexcept {
   REAL( unlink );
   FAIL_OR_PRETEND( "unlink" );
   return real( path );
}

int fchmodat( int folder, char const* path, mode_t mode, int flags ) noexcept {
   REAL( fchmodat );
   FAIL_OR_PRETEND( "fchmodat" );
   return real( folder, path, mode, flags );
}

ssize_t readlink( char const* path, char* target, std::size_t size ) noexcept {
   REAL( readlink );
   FAIL_OR_PRETEND( "readlink" );
   return real( path, target, size );
}

char* getcwd( char* path, std::size_t size ) noexcept {
   REAL( getcwd );
   FAIL_AS_NULL( "getcwd" );
   return real( path, size );
}

// ------------------------------------------------------------------------- what is open already

int close( int fd ) {
   REAL( close );
   const int fault = faultOf( "close", SITE );
   noteNamespace( fd, Namespace::other );
   const int result = real( fd );
   if( fault == none ) {
      return result;
   }
   errno = fault;
   return -1;
}

int fclose( FILE* file ) {
   REAL( fclose );
   const int fault = faultOf( "fclose", SITE );
   const int result = real( file );
   if( fault == none ) {
      return result;
   }
   errno = fault;
   return EOF;
}

int closedir( DIR* stream ) {
   REAL( closedir );
   const int fault = faultOf( "closedir", SITE );
   const int result = real( stream );
   if( fault == none ) {
      return result;
   }
   errno = fault;
   return -1;
}

dirent* readdir( DIR* stream ) {
   REAL( readdir );
   FAIL_AS_NULL( "readdir" );
   dirent* const entry = real( stream );
   if( entry && armed && typesAreUnknown ) {
      entry->d_type = DT_UNKNOWN;
   }
   return entry;
}

int fscanf( FILE* file, char const* format, ... ) {
   FAIL_OR_PRETEND( "fscanf" );
   va_list arguments;
   va_start( arguments, format );
   const int result = std::vfscanf( file, format, arguments );
   va_end( arguments );
   return result;
}

int fprintf( FILE* file, char const* format, ... ) {
   FAIL_OR_PRETEND( "fprintf" );
   va_list arguments;
   va_start( arguments, format );
   const int result = std::vfprintf( file, format, arguments );
   va_end( arguments );
   return result;
}

ssize_t read( int fd, void* bytes, std::size_t size ) {
   REAL( read );
   FAIL_OR_PRETEND( "read" );
   return real( fd, bytes, size );
}

ssize_t write( int fd, void const* bytes, std::size_t size ) {
   REAL( write );
   // Traces go to standard error in the midst of everything.
   const int fault = faultOf( fd == STDERR_FILENO ? "write(stderr)" : "write", SITE );
   if( fault == proveFaultHalf ) {
      return real( fd, bytes, size / 2 );
   }
   if( fault != none ) {
      return fault == proveFaultPretend ? 0 : -1;
   }
   return real( fd, bytes, size );
}

int fstat( int fd, struct stat* status ) noexcept {
   static int ( *real )( int, struct stat* ) = nullptr;
   if( !real ) {
      real = realOf( real, "fstat" );
   }
   FAIL_OR_PRETEND( "fstat" );
   return real( fd, status );
}

int ftruncate( int fd, off_t size ) noexcept {
   REAL( ftruncate );
   FAIL_OR_PRETEND( "ftruncate" );
   return real( fd, size );
}

int fcntl( int fd, int command, ... ) {
   REAL( fcntl );
   va_list arguments;
   va_start( arguments, command );
   void* const argument = va_arg( arguments, void* );
   va_end( arguments );
   char const* const name = command == F_GETFL       ? "fcntl(F_GETFL)"
                            : command == F_SETFL     ? "fcntl(F_SETFL)"
                            : command == F_SETFD     ? "fcntl(F_SETFD)"
                            : command == F_OFD_SETLK ? "fcntl(F_OFD_SETLK)"
                                                     : "fcntl";
   FAIL_OR_PRETEND( name );
   return real( fd, command, argument );
}

// ---------------------------------------------------------------------------- sockets, namespaces

int socket( int domain, int type, int protocol ) noexcept {
   REAL( socket );
   FAIL_OR_PRETEND( "socket" );
   return real( domain, type, protocol );
}

int bind( int sd, sockaddr const* address, socklen_t size ) noexcept {
   REAL( bind );
   FAIL_OR_PRETEND( "bind" );
   return real( sd, address, size );
}

int connect( int sd, sockaddr const* address, socklen_t size ) {
   REAL( connect );
   FAIL_OR_PRETEND( "connect" );
   return real( sd, address, size );
}

int getsockopt( int sd, int level, int option, void* value, socklen_t* size ) noexcept {
   REAL( getsockopt );
   FAIL_OR_PRETEND( "getsockopt" );
   return real( sd, level, option, value, size );
}

ssize_t sendmsg( int sd, msghdr const* message, int flags ) {
   REAL( sendmsg );
   FAIL_OR_PRETEND( "sendmsg" );
   return real( sd, message, flags );
}

ssize_t recvmsg( int sd, msghdr* message, int flags ) {
   REAL( recvmsg );
   FAIL_OR_PRETEND( "recvmsg" );
   return real( sd, message, flags );
}

int setsockopt( int sd, int level, int option, void const* value, socklen_t size ) noexcept {
   REAL( setsockopt );
   FAIL_OR_PRETEND( "setsockopt" );
   return real( sd, level, option, value, size );
}

int setns( int fd, int type ) noexcept {
   REAL( setns );
   FAIL_OR_PRETEND( "setns" );
   if( !armed || !namespacesAreFree ) {
      return real( fd, type );
   }
   if( fd < 0 || fd >= static_cast<int>( std::size( namespaceOf ) ) ||
       namespaceOf[ fd ] == Namespace::other ) {
      errno = EINVAL;
      return -1;
   }
   entered = namespaceOf[ fd ];
   return 0;
}

// --------------------------------------------------------------------------------- events, memory

int epoll_create( int size ) noexcept {
   REAL( epoll_create );
   FAIL_OR_PRETEND( "epoll_create" );
   return real( size );
}

int epoll_create1( int flags ) noexcept {
   REAL( epoll_create1 );
   FAIL_OR_PRETEND( "epoll_create1" );
   return real( flags );
}

int epoll_ctl( int ep, int operation, int fd, epoll_event* event ) noexcept {
   REAL( epoll_ctl );
   FAIL_OR_PRETEND( operation == EPOLL_CTL_DEL ? "epoll_ctl(EPOLL_CTL_DEL)" : "epoll_ctl" );
   return real( ep, operation, fd, event );
}

int epoll_wait( int ep, epoll_event* events, int most, int milliseconds ) {
   REAL( epoll_wait );
   FAIL_OR_PRETEND( "epoll_wait" );
   return real( ep, events, most, milliseconds );
}

int eventfd( unsigned value, int flags ) noexcept {
   REAL( eventfd );
   FAIL_OR_PRETEND( "eventfd" );
   return real( value, flags );
}

int accept4( int sd, sockaddr* address, socklen_t* size, int flags ) {
   REAL( accept4 );
   FAIL_OR_PRETEND( "accept4" );
   return real( sd, address, size, flags );
}

ssize_t recvfrom( int sd, void* buffer, std::size_t size, int flags, sockaddr* address,
                  socklen_t* addressSize ) {
   REAL( recvfrom );
   FAIL_OR_PRETEND( "recvfrom" );
   return real( sd, buffer, size, flags, address, addressSize );
}

ssize_t send( int sd, void const* buffer, std::size_t size, int flags ) {
   REAL( send );
   FAIL_OR_PRETEND( "send" );
   return real( sd, buffer, size, flags );
}

int signalfd( int fd, sigset_t const* signals, int flags ) noexcept {
   REAL( signalfd );
   FAIL_OR_PRETEND( "signalfd" );
   return real( fd, signals, flags );
}

int inotify_init1( int flags ) noexcept {
   REAL( inotify_init1 );
   FAIL_OR_PRETEND( "inotify_init1" );
   return real( flags );
}

int socketpair( int domain, int type, int protocol, int* ends ) noexcept {
   REAL( socketpair );
   FAIL_OR_PRETEND( "socketpair" );
   return real( domain, type, protocol, ends );
}

int pipe( int* ends ) noexcept {
   REAL( pipe );
   FAIL_OR_PRETEND( "pipe" );
   return real( ends );
}

int pipe2( int* ends, int flags ) noexcept {
   REAL( pipe2 );
   FAIL_OR_PRETEND( "pipe2" );
   return real( ends, flags );
}

int ppoll( pollfd* entries, nfds_t count, timespec const* wait, sigset_t const* mask ) {
   REAL( ppoll );
   FAIL_OR_PRETEND( "ppoll" );
   return real( entries, count, wait, mask );
}

void* mmap( void* address, std::size_t size, int protection, int flags, int fd,
            off_t offset ) noexcept {
   REAL( mmap );
   if( faultOf( "mmap", SITE ) != none ) {
      return MAP_FAILED;
   }
   return real( address, size, protection, flags, fd, offset );
}

int munmap( void* address, std::size_t size ) noexcept {
   REAL( munmap );
   FAIL_OR_PRETEND( "munmap" );
   return real( address, size );
}

int madvise( void* address, std::size_t size, int advice ) noexcept {
   REAL( madvise );
   FAIL_OR_PRETEND( "madvise" );
   return real( address, size, advice );
}

// ---------------------------------------------------------------------- the process, its threads

int setenv( char const* name, char const* value, int replace ) noexcept {
   REAL( setenv );
   FAIL_OR_PRETEND( "setenv" );
   return real( name, value, replace );
}

int sigtimedwait( sigset_t const* signals, siginfo_t* info, timespec const* wait ) {
   REAL( sigtimedwait );
   FAIL_OR_PRETEND( "sigtimedwait" );
   return real( signals, info, wait );
}

int pthread_getattr_np( pthread_t thread, pthread_attr_t* attributes ) noexcept {
   REAL( pthread_getattr_np );
   FAIL_AS_ERROR( "pthread_getattr_np" );
   return real( thread, attributes );
}

int pthread_attr_getstack( pthread_attr_t const* attributes, void** lowest,
                           std::size_t* size ) noexcept {
   REAL( pthread_attr_getstack );
   FAIL_AS_ERROR( "pthread_attr_getstack" );
   return real( attributes, lowest, size );
}

int pthread_key_create( pthread_key_t* key, void ( *destroy )( void* ) ) noexcept {
   REAL( pthread_key_create );
   FAIL_AS_ERROR( "pthread_key_create" );
   return real( key, destroy );
}

int pthread_setspecific( pthread_key_t key, void const* value ) noexcept {
   REAL( pthread_setspecific );
   FAIL_AS_ERROR( "pthread_setspecific" );
   return real( key, value );
}

void* dlopen( char const* file, int mode ) noexcept {
   REAL( dlopen );
   FAIL_AS_NULL( "dlopen" );
   return real( file, mode );
}

long syscall( long number, ... ) noexcept {
   REAL( syscall );
   long a[ 6 ];
   va_list arguments;
   va_start( arguments, number );
   for( long& argument : a ) {
      argument = va_arg( arguments, long );
   }
   va_end( arguments );
   FAIL_OR_PRETEND( number == SYS_kcmp ? "syscall(SYS_kcmp)" : "syscall" );
   if( number == SYS_kcmp && armed && kcmpIsMissing ) {
      errno = ENOSYS;
      return -1;
   }
   return real( number, a[ 0 ], a[ 1 ], a[ 2 ], a[ 3 ], a[ 4 ], a[ 5 ] );
}

} // extern "C"

#pragma GCC visibility pop
