#include <Quarn/util/Files.h>

#include <Quarn/base/Exception.h>

#include "debug/Handlers.h"
#include "util/UmaskZero.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quarn::Util {

namespace {

constexpr char sourceFile[] = "UtilCpp";
constexpr char className[] = "Quarn::Util";

// Gives the system's calls and the formatting library a text in any case.
char const* orEmpty( char const* path ) { return path ? path : ""; }

int makeDirectory( char const* path, unsigned int mode ) {
   const UmaskZero umaskZero;
   return mkdir( path, mode );
}

// Whether all of it worked, as far as the rules of `fileWrite` go.
bool writeTo( Platform::DebugHandler& handler, char const* path, std::string_view data ) {
   constexpr char function[] = "fileWrite";
   const int fd = openOrMake( path, O_RDWR | O_TRUNC );
   if( fd < 0 ) {
      const int error = errno;
      QUARN_TRACE_AS( handler, 0, className, function, "unable to open {} reason:{}", path,
                      strerror( error ) );
      errno = error;
      return false;
   }
   int failed = 0;
   const ssize_t written = write( fd, data.data(), data.size() );
   if( written < 0 ) {
      failed = errno;
      QUARN_TRACE_AS( handler, 0, className, function, "unable to write to {} reason:{}", path,
                      strerror( failed ) );
   } else if( static_cast<std::size_t>( written ) < data.size() ) {
      QUARN_TRACE_AS( handler, 0, className, function,
                      "wrote:{} bytes to file:{} but wanted to write:{}", written, path,
                      data.size() );
   }
   if( close( fd ) != 0 ) {
      const int error = errno;
      QUARN_TRACE_AS( handler, 0, className, function, "unable to close fd:{} reason:{}", fd,
                      strerror( error ) );
      failed = failed ? failed : error;
   }
   if( failed ) {
      errno = failed;
   }
   return failed == 0;
}

} // namespace

int mkpath( char const* path, unsigned int mode ) {
   path = orEmpty( path );
   QUARN_TRACE( Platform::utilHandler, 9, className, "creating path: {} mode: {:o}", path, mode );
   if( makeDirectory( path, mode ) == 0 || errno == EEXIST ) {
      return 0;
   }
   if( errno != ENOENT ) {
      return -1;
   }
   const std::string_view whole( path );
   const std::size_t slash = whole.rfind( '/' );
   if( slash == std::string_view::npos || slash == 0 ) {
      return -1;
   }
   if( mkpath( String( whole.substr( 0, slash ) ).c_str(), mode ) != 0 ) {
      return -1;
   }
   if( makeDirectory( path, mode ) != 0 && errno != EEXIST ) {
      return -1;
   }
   // Not through a link, which somebody who may write to the parent could have put there.
   static_cast<void>( fchmodat( AT_FDCWD, path, mode, AT_SYMLINK_NOFOLLOW ) );
   return 0;
}

int trimpath( char const* absolute, std::string_view trailing ) {
   const std::string_view whole( orEmpty( absolute ) );
   if( whole.empty() ) {
      QUARN_FAIL_ON( Platform::utilHandler, className, "absolute path is empty" );
   }
   if( whole.front() != '/' ) {
      QUARN_FAIL_ON( Platform::utilHandler, className, "absolute path is not absolute" );
   }
   if( trailing.empty() ) {
      QUARN_FAIL_ON( Platform::utilHandler, className, "trailing path is empty" );
   }
   if( whole.size() <= trailing.size() ) {
      QUARN_FAIL_ON( Platform::utilHandler, className, "trailing path longer than absolute path" );
   }
   if( !whole.ends_with( trailing ) ) {
      QUARN_FAIL_ON( Platform::utilHandler, className,
                     "trailing path is not a terminal substring of absolute path" );
   }
   const std::size_t prefix = whole.size() - trailing.size();
   std::string current( whole );
   for( ;; ) {
      QUARN_TRACE( Platform::utilHandler, 9, className, "removing dir {}", current );
      if( rmdir( current.c_str() ) != 0 && errno != ENOENT ) {
         const int error = errno;
         QUARN_TRACE( Platform::utilHandler, 5, className, "rmdir() error {} reason: {}", current,
                      strerror( error ) );
         errno = error;
         return -1;
      }
      const std::size_t slash = current.rfind( '/' );
      if( slash == std::string::npos || slash <= prefix ) {
         QUARN_TRACE( Platform::utilHandler, 5, className,
                      "removed sub-tree {} from absolute path {}", trailing, whole );
         return 0;
      }
      current.resize( slash );
   }
}

bool touch( Platform::DebugHandler& handler, char const* path ) {
   path = orEmpty( path );
   const int fd = openOrMake( path, O_WRONLY );
   if( fd < 0 ) {
      const int error = errno;
      QUARN_TRACE( handler, 0, className, "unable to open {} reason: {}", path, strerror( error ) );
      errno = error;
      return false;
   }
   if( close( fd ) != 0 ) {
      const int error = errno;
      QUARN_TRACE( handler, 0, className, "unable to close fd:{} reason:{}", fd,
                   strerror( error ) );
      errno = error;
      return false;
   }
   return true;
}

void fileWrite( Platform::DebugHandler& handler, char const* path, std::string_view data,
                bool noThrow ) {
   if( !writeTo( handler, orEmpty( path ), data ) && !noThrow ) {
      RuntimeException::throwException(
            fmtracestr( false, nullptr, sourceFile, __func__, __LINE__, "{}", data ) );
   }
}

String fileRead( Platform::DebugHandler& handler, char const* path, bool traceFailure ) {
   path = orEmpty( path );
   try {
      std::ifstream file( path, std::ios::in | std::ios::binary );
      if( !file.is_open() ) {
         const int error = errno;
         if( traceFailure ) {
            QUARN_TRACE( handler, 5, className, "unable to open file {}", path );
         }
         errno = error;
         return {};
      }
      // Sets no flag at the end of the file, so the state of the stream afterwards tells of
      // failures alone; a directory opens well and throws here.
      std::string content( std::istreambuf_iterator<char>( file ), {} );
      if( const std::size_t end = content.find( '\0' ); end != std::string::npos ) {
         content.resize( end );
      }
      if( file.fail() ) {
         QUARN_TRACE( handler, 1, className, "failed to read from {}", path );
      } else {
         QUARN_TRACE( handler, 5, className, "read {} '{}'", path, content );
      }
      return content;
   } catch( const std::exception& e ) {
      const int error = errno;
      if( traceFailure ) {
         QUARN_TRACE( handler, 5, className, "unable to open file {}. Caught std::exception: {}",
                      path, e.what() );
      }
      errno = error;
      return {};
   }
}

bool fileExists( Platform::DebugHandler& handler, char const* path ) {
   path = orEmpty( path );
   struct stat status;
   const int result = stat( path, &status );
   const int error = errno;
   QUARN_TRACE( handler, 5, className, "checking if {} exists, stat result: {}", path, result );
   errno = error;
   return result == 0;
}

bool fileRemove( Platform::DebugHandler& handler, char const* path ) {
   path = orEmpty( path );
   if( unlink( path ) != 0 && errno != ENOENT ) {
      const int error = errno;
      QUARN_TRACE( handler, 0, className, "unlink() error {}: {}", path, strerror( error ) );
      errno = error;
      return false;
   }
   QUARN_TRACE( handler, 5, className, "removed file {}", path );
   return true;
}

unsigned long fileSize( Platform::DebugHandler& handler, char const* path ) {
   path = orEmpty( path );
   struct stat status;
   if( stat( path, &status ) != 0 ) {
      const int error = errno;
      QUARN_TRACE( handler, 5, className, "unable to stat file {}: {}", path, strerror( error ) );
      errno = error;
      return 0;
   }
   return static_cast<unsigned long>( status.st_size );
}

unsigned long fileSize( Platform::DebugHandler& handler, int fd ) {
   struct stat status;
   if( fstat( fd, &status ) != 0 ) {
      const int error = errno;
      QUARN_TRACE( handler, 5, className, "unable to fstat fd {}: {}", fd, strerror( error ) );
      errno = error;
      return 0;
   }
   return static_cast<unsigned long>( status.st_size );
}

int truncate( Platform::DebugHandler& handler, char const* path, int fd, unsigned long length ) {
   // A length that has the sign bit set becomes negative, which the system refuses.
   const int result = ftruncate( fd, static_cast<off_t>( length ) );
   if( result != 0 ) {
      const int error = errno;
      QUARN_TRACE( handler, 0, className, "size:{} error: {}: {}", length, orEmpty( path ),
                   strerror( error ) );
      errno = error;
   }
   return result;
}

unsigned long fileSizeHelper( unsigned long entries, unsigned long entrySize,
                              unsigned long extra ) {
   unsigned long records;
   const bool overflow = __builtin_mul_overflow( entries, entrySize, &records );
   const unsigned long all = records + extra;
   if( overflow || all < records ) {
      RuntimeException::throwException(
            fmtracestr( false, className, sourceFile, __func__, __LINE__,
                        "fileSizeHelper overflow, entries:{} entrySize:{} xResult:{} endResult:{}",
                        entries, entrySize, records, all ) );
   }
   return all;
}

String getCwd( Platform::DebugHandler& handler ) {
   char path[ 4096 ];
   if( !getcwd( path, sizeof( path ) ) ) {
      const int error = errno;
      const String text = fmthrow( handler, 0, className, sourceFile, __func__, __LINE__,
                                   "getcwd() failed:{}", strerror( error ) );
      errno = error;
      RuntimeException::throwException( text );
   }
   return path;
}

} // namespace Quarn::Util
