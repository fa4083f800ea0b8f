#include <Quarn/util/DirNode.h>

#include <Quarn/base/Exception.h>

#include "debug/Handlers.h"

#include <cerrno>
#include <type_traits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "DirNodeCpp";
constexpr char className[] = "DirNode";

// Not every file system tells the type in the entry.
bool isFileOrLink( DIR* stream, dirent const& entry ) {
   if( entry.d_type != DT_UNKNOWN ) {
      return entry.d_type == DT_REG || entry.d_type == DT_LNK;
   }
   struct stat status;
   return fstatat( dirfd( stream ), entry.d_name, &status, AT_SYMLINK_NOFOLLOW ) == 0 &&
          ( S_ISREG( status.st_mode ) || S_ISLNK( status.st_mode ) );
}

} // namespace

// A vector that grows moves its nodes only then, and copies them otherwise: each stream would be
// closed with the old node.
static_assert( std::is_nothrow_move_constructible_v<DirNode> );

DirNode::DirNode( Platform::DebugHandler& handler ) : Debuggable( handler ) {}

DirNode::DirNode( Platform::DebugHandler& handler, const String& path,
                  std::shared_ptr<DirNode> parent )
      : Debuggable( handler ),
        parent_( std::move( parent ) ),
        path_( path ) {
   QUARN_TRACE( *this, 9, className, "path: {}", path_ );
   openDir();
}

DirNode::DirNode( const DirNode& other ) = default;

DirNode::DirNode( DirNode&& other ) noexcept
      : Debuggable( std::move( other ) ),
        stream_( std::exchange( other.stream_, nullptr ) ),
        parent_( std::move( other.parent_ ) ),
        path_( std::move( other.path_ ) ) {}

DirNode::~DirNode() {
   QUARN_TRACE( *this, 9, className, "path: {}", path_ );
   _closeStream( "~DirNode" );
}

void DirNode::pathIs( const String& path ) {
   QUARN_TRACE( *this, 9, className, "path: {}", path );
   path_ = path;
   openDir();
}

void DirNode::openDir() {
   _closeStream( __func__ );
   stream_ = opendir( path_.c_str() );
   if( !stream_ ) {
      const int error = errno;
      const bool expected = error == ENOENT || error == EACCES || error == ENOTDIR;
      QUARN_TRACE( *this, expected ? 9 : 1, className, "failed to open {} errno: {}", path_,
                   strerror( error ) );
      errno = error;
   }
}

dirent const* DirNode::readEntry() const {
   QUARN_TRACE( *this, 9, className, "path: {}", path_ );
   if( !stream_ ) {
      QUARN_TRACE( *this, 5, className, "cannot read {} because the directory is not open", path_ );
      return nullptr;
   }
   errno = 0;
   dirent const* const entry = readdir( stream_ );
   if( !entry && errno != 0 ) {
      RuntimeException::throwException( fmtracestr( false, className, sourceFile, __func__,
                                                    __LINE__, "failed to read {} errno: {}", path_,
                                                    strerror( errno ) ) );
   }
   return entry;
}

void DirNode::rewind() const {
   QUARN_TRACE( *this, 9, className, "path: {}", path_ );
   if( !stream_ ) {
      RuntimeException::throwException(
            fmtracestr( false, className, sourceFile, __func__, __LINE__,
                        "cannot rewind {} because the directory is not open", path_ ) );
   }
   rewinddir( stream_ );
}

std::vector<String> DirNode::findFiles( const String& extension ) const {
   QUARN_TRACE( *this, 9, className, "path: {} extension: {}", path_, extension );
   if( !stream_ ) {
      RuntimeException::throwException( fmtracestr(
            false, className, sourceFile, __func__, __LINE__,
            "cannot find {} files in {} because the directory is not open", extension, path_ ) );
   }
   std::vector<String> found;
   rewind();
   while( dirent const* const entry = readEntry() ) {
      if( !isFileOrLink( stream_, *entry ) ) {
         continue;
      }
      const std::string_view name( entry->d_name );
      if( name.ends_with( extension ) ) {
         QUARN_TRACE( *this, 8, className, "found file with extension {}: {}", extension, name );
         found.emplace_back( name );
      } else {
         QUARN_TRACE( *this, 9, className, "skipping file: {}", name );
      }
   }
   return found;
}

// The directory is closed from within other work, so `errno` stays what it was.
void DirNode::_closeStream( char const* function ) {
   if( !stream_ ) {
      return;
   }
   const int before = errno;
   if( closedir( std::exchange( stream_, nullptr ) ) != 0 ) {
      QUARN_TRACE_AS( *this, 1, className, function, "failed to close {} errno: {}", path_,
                      strerror( errno ) );
   }
   errno = before;
}

} // namespace Quarn
