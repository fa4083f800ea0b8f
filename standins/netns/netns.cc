#include <netns.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

constexpr char namespaceOfProcess1[] = "/proc/1/ns/net";
constexpr char namedNamespaces[] = "/var/run/netns/";
constexpr std::size_t longestName = 255; // a file name of Linux

// Room for the longest name, the directory and the words around them.
thread_local constinit char traceBuffer[ 512 ] = "";

// Keeps the reason and gives what a failed call returns.
[[gnu::format( printf, 2, 3 )]] int failure( int error, char const* format, ... ) {
   va_list arguments;
   va_start( arguments, format );
   std::vsnprintf( traceBuffer, sizeof( traceBuffer ), format, arguments );
   va_end( arguments );
   errno = error;
   return -1;
}

// The system's text of an error; the description is constant, unlike that of strerror().
char const* textOf( int error ) {
   char const* const text = strerrordesc_np( error );
   return text ? text : "unknown error";
}

bool isName( char const* name ) {
   constexpr char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
   std::size_t const size = std::strspn( name, letters );
   return size != 0 && name[ size ] == '\0' && std::strcmp( name, "." ) != 0 &&
          std::strcmp( name, ".." ) != 0;
}

} // namespace

int setnsByName( char const* name, int nstype ) {
   if( !name || !isName( name ) ) {
      return failure( EINVAL, "'%.*s' is no name of a network namespace", 255, name ? name : "" );
   }
   if( std::strlen( name ) > longestName ) {
      return failure( ENAMETOOLONG, "name of a network namespace longer than 255 bytes" );
   }
   char path[ sizeof( namedNamespaces ) + longestName ];
   std::snprintf( path, sizeof( path ), "%s%s", namedNamespaces, name );
   int fd = open( path, O_RDONLY | O_CLOEXEC );
   if( fd < 0 && errno == ENOENT && std::strcmp( name, DEFAULT_NS ) == 0 ) {
      std::snprintf( path, sizeof( path ), "%s", namespaceOfProcess1 );
      fd = open( path, O_RDONLY | O_CLOEXEC );
   }
   if( fd < 0 ) {
      int const error = errno;
      return failure( error, "cannot open %s: %s", path, textOf( error ) );
   }
   // Also into the namespace that the thread is in already: whether it may come back from where it
   // is going shows now.
   int const result = setns( fd, nstype );
   int const error = errno;
   // Nothing was written through it, so its own failure says nothing.
   close( fd );
   if( result != 0 ) {
      return failure( error, "cannot enter %s: %s", path, textOf( error ) );
   }
   // A successful close may have changed it all the same.
   errno = error;
   return 0;
}

char const* netnsGetTracebuffer( void ) { return traceBuffer; }
