#include "examples/agent/ShowPipe.h"

#include <Oru/GuardedWrite.h>

#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace HostAgent {

namespace {

Show::Descriptor openAnew( int fd, int mode ) {
   const std::string path = fmt::format( "/proc/self/fd/{}", fd );
   return Show::Descriptor( open( path.c_str(), mode | O_NONBLOCK | O_CLOEXEC ) );
}

// Holds SIGPIPE back for the calling thread and takes away the one that was raised meanwhile.
class PipeSignalHeld {
 public:
   PipeSignalHeld() {
      sigemptyset( &pipeSignal_ );
      sigaddset( &pipeSignal_, SIGPIPE );
      sigset_t pending;
      sigpending( &pending );
      wasPending_ = sigismember( &pending, SIGPIPE ) == 1;
      pthread_sigmask( SIG_BLOCK, &pipeSignal_, &before_ );
   }
   ~PipeSignalHeld() {
      constexpr timespec atOnce{};
      while( !wasPending_ && sigtimedwait( &pipeSignal_, nullptr, &atOnce ) < 0 &&
             errno == EINTR ) {
      }
      pthread_sigmask( SIG_SETMASK, &before_, nullptr );
   }
   PipeSignalHeld( const PipeSignalHeld& ) = delete;
   PipeSignalHeld& operator=( const PipeSignalHeld& ) = delete;

 private:
   sigset_t pipeSignal_;
   sigset_t before_;
   bool wasPending_;
};

} // namespace

bool isPipeWriteEnd( int fd ) {
   if( fcntl( fd, F_GETPIPE_SZ ) < 0 ) {
      return false;
   }
   const int flags = fcntl( fd, F_GETFL );
   return flags >= 0 && ( flags & O_ACCMODE ) == O_WRONLY;
}

Show::Descriptor pipeWriteEndOf( int fd ) { return openAnew( fd, O_WRONLY ); }

Show::Descriptor pipeReadEndOf( int fd ) { return openAnew( fd, O_RDONLY ); }

void writeLineAtOnce( int fd, std::string_view line ) {
   int ends[ 2 ];
   if( pipe2( ends, O_CLOEXEC | O_NONBLOCK ) != 0 ) {
      return;
   }
   const Show::Descriptor readEnd( ends[ 0 ] );
   const Show::Descriptor writeEnd( ends[ 1 ] );
   if( Oru::guardedWrite( writeEnd.get(), line.data(), line.size() ) > 0 ) {
      const PipeSignalHeld held;
      // Unlike a write, which asks the pipe's own flags whether it may wait.
      (void)splice( readEnd.get(), nullptr, fd, nullptr, line.size(), SPLICE_F_NONBLOCK );
   }
}

} // namespace HostAgent
