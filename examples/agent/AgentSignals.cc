#include "examples/agent/AgentSignals.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <sys/signalfd.h>
#include <unistd.h>

namespace HostAgent {

namespace {

sigset_t endSignals() {
   sigset_t signals;
   sigemptyset( &signals );
   sigaddset( &signals, SIGINT );
   sigaddset( &signals, SIGTERM );
   return signals;
}

} // namespace

AgentSignals::Blocked::Blocked( const sigset_t& signals ) {
   if( const int error = pthread_sigmask( SIG_BLOCK, &signals, &before_ ) ) {
      throw std::system_error( error, std::generic_category(), "cannot block signals" );
   }
}

AgentSignals::Blocked::~Blocked() { pthread_sigmask( SIG_SETMASK, &before_, nullptr ); }

AgentSignals::SignalFd::SignalFd( const sigset_t& signals )
      : fd_( signalfd( -1, &signals, SFD_NONBLOCK | SFD_CLOEXEC ) ) {
   if( fd_ < 0 ) {
      throw std::system_error( errno, std::generic_category(), "cannot watch signals" );
   }
}

AgentSignals::SignalFd::~SignalFd() {
   while( take() != 0 ) {
   }
   close( fd_ );
}

int AgentSignals::SignalFd::take() const {
   signalfd_siginfo info;
   return read( fd_, &info, sizeof( info ) ) == sizeof( info ) ? static_cast<int>( info.ssi_signo )
                                                               : 0;
}

AgentSignals::AgentSignals( std::function<void( int )> received )
      : received_( std::move( received ) ),
        blocked_( endSignals() ),
        fd_( endSignals() ),
        control_( Quarn::Platform::getFdControl( this ) ) {
   control_->setFd( fd_.get() );
}

AgentSignals::~AgentSignals() { stop(); }

void AgentSignals::stop() { control_->delFd(); }

void AgentSignals::readFdEvent( int ) {
   while( const int signal = fd_.take() ) {
      received_( signal );
   }
}

// Writes are never watched.
void AgentSignals::writeFdEvent( int ) {}

} // namespace HostAgent
