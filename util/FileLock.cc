#include <Quarn/util/FileLock.h>

#include <Quarn/base/Exception.h>
#include <Quarn/base/FileControl.h>
#include <Quarn/util/Files.h>

#include "debug/Handlers.h"
#include "util/UmaskZero.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "FileLockCpp";
constexpr char className[] = "FileLock";

String pathOf( const String& directory, const String& fileName ) {
   return directory.empty() ? fileName : String( fmt::format( "{}/{}", directory, fileName ) );
}

// For the whole file, whatever its size becomes.
int setLock( int fd, short type ) {
   // The pid must be 0 in a request of this kind.
   struct flock request = {};
   request.l_type = type;
   request.l_whence = SEEK_SET;
   return fcntl( fd, cmd_F_OFD_SETLK(), &request );
}

} // namespace

FileLock::FileLock( Platform::DebugHandler& handler, const String& directory,
                    const String& fileName )
      : Debuggable( handler ),
        directory_( directory ),
        file_( pathOf( directory, fileName ) ) {
   if( fileName.find( '/' ) != String::npos ) {
      QUARN_FAIL_ON( handler, className, "unexpected '/' in filename: {}", fileName );
   }
}

FileLock::~FileLock() {
   QUARN_TRACE( *this, 5, className, "file:{}", file_ );
   if( fd_ >= 0 ) {
      release();
   }
}

bool FileLock::lock( bool allowReentry ) {
   QUARN_TRACE( *this, 5, className, "file:{}", file_ );
   const int pid = getpid();
   if( allowReentry && ownerPid_ == pid ) {
      QUARN_TRACE( *this, 5, className, "re-entry held by pid:{} on file:{}", pid, file_ );
      return true;
   }
   if( !directory_.empty() && Util::mkpath( directory_.c_str(), 0777 ) < 0 && errno != EEXIST ) {
      QUARN_FAIL_ON( *debugHandler(), className, "unexpected mkpath() error {}: {}", directory_,
                     strerror( errno ) );
   }
   const int fd = Util::openOrMake( file_.c_str(), O_RDWR );
   if( fd < 0 ) {
      const int error = errno;
      QUARN_TRACE( *this, 1, className, "error: could not open lock file:{} {}", file_,
                   strerror( error ) );
      errno = error;
      return false;
   }
   if( setLock( fd, F_WRLCK ) != 0 ) {
      const int error = errno;
      if( error != EAGAIN ) {
         close( fd );
         QUARN_FAIL_ON( *debugHandler(), className, "unexpected error: {} file:{}",
                        strerror( error ), file_ );
      }
      QUARN_TRACE( *this, 1, className, "error: conflicting lock held on file:{}", file_ );
      close( fd );
      errno = error;
      return false;
   }
   if( fcntl( fd, F_SETFD, FD_CLOEXEC ) != 0 ) {
      const int error = errno;
      close( fd );
      QUARN_FAIL_ON( *debugHandler(), className, "unexpected error:{} file:{}", strerror( error ),
                     file_ );
   }
   QUARN_TRACE( *this, 5, className, "acquired lock on file:{}", file_ );
   if( fd_ >= 0 ) {
      // The path names another file since the lock was taken, and that one is now ours too. The
      // first goes; in a child it stays with the parent.
      _closeFd();
   }
   fd_ = fd;
   ownerPid_ = pid;
   return true;
}

void FileLock::release() {
   QUARN_TRACE( *this, 5, className, "file:{}", file_ );
   if( fd_ < 0 ) {
      QUARN_FAIL_ON( *debugHandler(), className,
                     "attempting to release a lock that is not currently held. File:{}", file_ );
   }
   if( const int pid = getpid(); pid != ownerPid_ ) {
      QUARN_FAIL_ON( *debugHandler(), className, "called from child process:{} of owner pid:{}",
                     pid, ownerPid_ );
   }
   if( setLock( fd_, F_UNLCK ) != 0 ) {
      QUARN_FAIL_ON( *debugHandler(), className, "unexpected error: {} file:{} fd:{}",
                     strerror( errno ), file_, fd_ );
   }
   _closeFd();
   ownerPid_ = -1;
   QUARN_TRACE( *this, 5, className, "released lock on file:{}", file_ );
}

void FileLock::_closeFd() {
   QUARN_TRACE( *this, 5, className, "file:{} fd:{}", file_, fd_ );
   if( fd_ < 0 ) {
      QUARN_TRACE( *this, 5, className, "no active fd: nothing to do" );
      return;
   }
   // The descriptor is gone even when this fails.
   const int fd = std::exchange( fd_, -1 );
   if( close( fd ) == 0 ) {
      QUARN_TRACE( *this, 5, className, "closed fd for file:{}", file_ );
   } else {
      QUARN_TRACE( *this, 1, className, "error: {} file:{} fd:{}", strerror( errno ), file_, fd );
   }
}

} // namespace Quarn
