// SIGINT and SIGTERM as events of the loop.

#pragma once

#include <Quarn/LibeventFactoryCpp.h>

#include <functional>
#include <memory>

#include <signal.h>

namespace HostAgent {

// Blocks the two signals for the calling thread and takes them through a descriptor, so that they
// are served between two tasks like any other event and no code runs in a signal handler. Made
// before the process has other threads, which inherit the blocked signals.
//
// Destruction drops signals that came in the meantime and unblocks both: from then on a signal ends
// the process the usual way.
class AgentSignals final : private Quarn::Platform::FdEventHandler {
 public:
   // `received` is called from the loop with the number of each signal. It must not destroy this
   // object, but may stop it.
   //
   // Errors: `std::system_error`.
   explicit AgentSignals( std::function<void( int )> received );
   ~AgentSignals() override;

   AgentSignals( const AgentSignals& ) = delete;
   AgentSignals& operator=( const AgentSignals& ) = delete;

   // Leaves the loop: nothing is received any more. The signals stay blocked.
   void stop();

 private:
   // A descriptor that closes itself, declared before the control that watches it: a watched
   // descriptor must not be closed.
   class SignalFd {
    public:
      explicit SignalFd( const sigset_t& signals );
      ~SignalFd();
      SignalFd( const SignalFd& ) = delete;
      SignalFd& operator=( const SignalFd& ) = delete;

      int get() const { return fd_; }
      // The next signal that is there, or 0.
      int take() const;

    private:
      int fd_;
   };

   // Blocks signals for its lifetime.
   class Blocked {
    public:
      explicit Blocked( const sigset_t& signals );
      ~Blocked();
      Blocked( const Blocked& ) = delete;
      Blocked& operator=( const Blocked& ) = delete;

    private:
      sigset_t before_;
   };

   void readFdEvent( int fd ) override;
   void writeFdEvent( int fd ) override;

   std::function<void( int )> received_;
   Blocked blocked_;
   SignalFd fd_;
   std::shared_ptr<Quarn::Platform::FdControl> control_;
};

} // namespace HostAgent
