#include "util/UmaskZero.h"

#include <cerrno>
#include <mutex>

#include <pthread.h>
#include <sys/stat.h>

namespace Quarn::Util {

namespace {

constinit std::mutex umaskMutex;

// A fork in the middle would give the child the umask 0, and a mutex that nobody unlocks.
void forkWaits() {
   static const int registered = pthread_atfork(
         [] { umaskMutex.lock(); }, [] { umaskMutex.unlock(); }, [] { umaskMutex.unlock(); } );
   static_cast<void>( registered );
}

} // namespace

UmaskZero::UmaskZero() {
   forkWaits();
   umaskMutex.lock();
   before_ = umask( 0 );
}

UmaskZero::~UmaskZero() {
   const int error = errno;
   umask( before_ );
   umaskMutex.unlock();
   errno = error;
}

} // namespace Quarn::Util
