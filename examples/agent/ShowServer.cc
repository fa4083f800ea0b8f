#include "examples/agent/ShowServer.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/base/Exception.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include <unistd.h>

namespace HostAgent {

namespace {

// How long to leave clients alone when there is no descriptor or memory for them.
constexpr double exhaustedSeconds = 1.0;

} // namespace

class ShowServer::Patience final : public Quarn::TimerTask {
 public:
   explicit Patience( ShowServer& server )
         : TimerTask( server.root_, Quarn::TaskPriority::normal, "ShowPatience" ),
           server_( server ) {}

 private:
   void taskExecute() override { server_._giveUpOverdue(); }

   ShowServer& server_;
};

ShowServer::ShowServer( std::shared_ptr<Quarn::TaskSchedulerRoot> root, const std::string& name,
                        double patience )
      : FileDescriptorTask( root, Quarn::TaskPriority::normal, "ShowServer" ),
        debug_( Quarn::Platform::getDebugHandler( "HostAgent", false ) ),
        root_( std::move( root ) ),
        patience_( patience ),
        timer_( std::make_shared<Patience>( *this ) ),
        listening_( Show::listenAs( name ) ) {
   if( !listening_.valid() ) {
      refusal_ = errno == EADDRINUSE ? fmt::format( "another agent has the name '{}'", name )
                                     : Quarn::strerror( errno );
      QUARN_FMTRACE( *debug_, 1, "ShowServer", "answers nothing: {}", refusal_ );
      return;
   }
   taskWatchFdIs( listening_.get() );
}

// The socket is closed before the base class would forget it.
ShowServer::~ShowServer() { taskWatchFdDel(); }

void ShowServer::stop() {
   taskWatchFdDel();
   listening_.reset();
   timer_->stopTimerTask();
   // Those that end at once leave the list meanwhile.
   for( const Entry& entry : std::vector( sessions_.begin(), sessions_.end() ) ) {
      entry.session->giveUp();
   }
}

void ShowServer::taskExecuteReadable() {
   // One a run: who waits makes the socket readable again at once.
   Show::Descriptor client = Show::acceptClient( listening_.get() );
   if( client.valid() ) {
      _admit( std::move( client ) );
      taskWorkCountInc( 1 );
   } else if( errno != EAGAIN && errno != EINTR && errno != ECONNABORTED ) {
      QUARN_FMTRACE( *debug_, 1, "ShowServer", "cannot accept: {}", Quarn::strerror( errno ) );
      taskWatchReadableIs( false );
      timer_->scheduleTaskLowestDelay( exhaustedSeconds );
   }
}

// Writes are never watched.
void ShowServer::taskExecuteWritable() {}

std::size_t ShowServer::_count( bool trusted ) const {
   return static_cast<std::size_t>( std::ranges::count(
         sessions_, trusted, []( const Entry& entry ) { return entry.session->trusted(); } ) );
}

void ShowServer::_admit( Show::Descriptor client ) {
   const auto user = Show::peerUser( client.get() );
   const bool trusted = user && ( *user == geteuid() || *user == 0 );
   if( !trusted ) {
      QUARN_FMTRACE( *debug_, 1, "ShowServer", "a request of user {}",
                     user ? std::to_string( *user ) : "unknown" );
      if( _count( false ) != 0 ) {
         return;
      }
   }
   auto session = std::make_shared<ShowSession>(
         root_, std::move( client ), trusted,
         [ this ]( ShowSession& ended, ShowSession::Outcome outcome ) {
            _ended( ended, outcome );
         } );
   sessions_.push_back( { std::move( session ), Quarn::time() + patience_ } );
   timer_->scheduleTaskLowestDelay( patience_ );
   taskWatchReadableIs( _count( true ) < sessionsMax );
}

void ShowServer::_ended( ShowSession& session, ShowSession::Outcome outcome ) {
   answered_ += outcome == ShowSession::Outcome::answered ? 1 : 0;
   refused_ += outcome == ShowSession::Outcome::refused ? 1 : 0;
   givenUp_ += outcome == ShowSession::Outcome::givenUp ? 1 : 0;
   sessions_.remove_if(
         [ &session ]( const Entry& entry ) { return entry.session.get() == &session; } );
   if( !listening_.valid() ) {
      return;
   }
   taskWatchReadableIs( true );
   if( sessions_.empty() ) {
      timer_->stopTimerTask();
   }
}

void ShowServer::_giveUpOverdue() {
   taskWatchReadableIs( _count( true ) < sessionsMax );
   const double now = Quarn::time();
   while( !sessions_.empty() && sessions_.front().deadline <= now ) {
      // It may end at once, or be there for another while.
      sessions_.splice( sessions_.end(), sessions_, sessions_.begin() );
      sessions_.back().deadline = now + patience_;
      const auto session = sessions_.back().session;
      session->giveUp();
   }
   if( !sessions_.empty() ) {
      timer_->scheduleTaskDelay( sessions_.front().deadline - now );
   }
}

} // namespace HostAgent
