#include <Oru/GuardedWrite.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

namespace Oru {

ssize_t guardedWrite( int fd, void const* data, std::size_t size ) noexcept {
   int const savedErrno = errno;
   // write() is a point where a cancelled thread ends, which must not happen with the signal
   // masked.
   int oldCancelState;
   pthread_setcancelstate( PTHREAD_CANCEL_DISABLE, &oldCancelState );
   sigset_t pipeSignal;
   sigset_t pending;
   sigset_t oldMask;
   sigemptyset( &pipeSignal );
   sigaddset( &pipeSignal, SIGPIPE );
   sigemptyset( &pending );
   sigpending( &pending );
   bool const wasPending = sigismember( &pending, SIGPIPE ) == 1;
   pthread_sigmask( SIG_BLOCK, &pipeSignal, &oldMask );

   ssize_t written = ::write( fd, data, size );
   if( written < 0 ) {
      int const error = errno;
      written = -error;
      // A signal that was pending before merged with ours and belongs to somebody else.
      if( error == EPIPE && !wasPending ) {
         timespec const zero = {};
         while( sigtimedwait( &pipeSignal, nullptr, &zero ) < 0 && errno == EINTR ) {
         }
      }
   }
   pthread_sigmask( SIG_SETMASK, &oldMask, nullptr );
   pthread_setcancelstate( oldCancelState, nullptr );
   errno = savedErrno;
   return written;
}

} // namespace Oru
