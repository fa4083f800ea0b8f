#include "util/SigpipeGuard.h"

#include <cerrno>
#include <ctime>

namespace Quarn::Util {

namespace {

sigset_t onlySigpipe() {
   sigset_t set;
   sigemptyset( &set );
   sigaddset( &set, SIGPIPE );
   return set;
}

bool sigpipePending() {
   sigset_t pending;
   sigemptyset( &pending );
   sigpending( &pending );
   return sigismember( &pending, SIGPIPE ) == 1;
}

} // namespace

SigpipeGuard::SigpipeGuard() noexcept {
   const sigset_t sigpipe = onlySigpipe();
   pthread_sigmask( SIG_BLOCK, &sigpipe, &maskBefore_ );
   blockedBefore_ = sigismember( &maskBefore_, SIGPIPE ) == 1;
   // A thread that does not block a signal never has it pending.
   pendingBefore_ = blockedBefore_ && sigpipePending();
}

SigpipeGuard::~SigpipeGuard() {
   const int error = errno;
   if( !pendingBefore_ && sigpipePending() ) {
      // Takes that of the thread, where a write's goes, before that of the process.
      const sigset_t sigpipe = onlySigpipe();
      const timespec atOnce{};
      while( sigtimedwait( &sigpipe, nullptr, &atOnce ) < 0 && errno == EINTR ) {
      }
   }
   if( !blockedBefore_ ) {
      pthread_sigmask( SIG_SETMASK, &maskBefore_, nullptr );
   }
   errno = error;
}

} // namespace Quarn::Util
