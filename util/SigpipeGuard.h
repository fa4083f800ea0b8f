// Writing to a pipe or socket whose reader is gone without the signal that ends a process.

#pragma once

#include <signal.h>

namespace Quarn::Util {

// While one lives, a write of this thread to a closed pipe fails with EPIPE and does nothing else,
// whatever the process does about SIGPIPE. Other threads do not notice.
//
//     ssize_t written;
//     {
//        const SigpipeGuard guard;
//        written = ::write( fd, bytes, size );
//     }
//     if( written < 0 && errno == EPIPE ) { ...
//
// It blocks the signal for the thread and takes away at the end what became pending meanwhile. A
// signal that was pending before stays so: then that of the write is left beside it. `errno` is
// kept.
//
// Thread: lives and dies on one thread; several may nest.
// Cost:   three system calls.
class SigpipeGuard {
 public:
   SigpipeGuard() noexcept;
   ~SigpipeGuard();

   SigpipeGuard( const SigpipeGuard& ) = delete;
   SigpipeGuard& operator=( const SigpipeGuard& ) = delete;

 private:
   sigset_t maskBefore_;
   bool blockedBefore_;
   bool pendingBefore_;
};

} // namespace Quarn::Util
