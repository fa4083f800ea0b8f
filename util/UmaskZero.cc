#include "util/UmaskZero.h"

#include <cerrno>
#include <mutex>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

namespace Quarn::Util {

namespace {

constinit std::mutex umaskMutex;

// From load time on. A fork in the middle would give the child the umask 0, and a mutex that nobody
// unlocks.
[[maybe_unused]] const int forkWaits = pthread_atfork(
      [] { umaskMutex.lock(); }, [] { umaskMutex.unlock(); }, [] { umaskMutex.unlock(); } );

} // namespace

UmaskZero::UmaskZero() {
   umaskMutex.lock();
   before_ = umask( 0 );
}

UmaskZero::~UmaskZero() {
   const int error = errno;
   umask( before_ );
   umaskMutex.unlock();
   errno = error;
}

int openOrMake( char const* path, int flags ) {
   const int before = errno;
   const int fd = open( path, flags | O_CLOEXEC );
   if( fd >= 0 || errno != ENOENT ) {
      return fd;
   }
   errno = before;
   const UmaskZero umaskZero;
   return open( path, flags | O_CREAT | O_CLOEXEC, 0666 );
}

} // namespace Quarn::Util
