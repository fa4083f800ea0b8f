#include "examples/agent/ShowServer.h"

#include "tools/show/ShowListener.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/base/Exception.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace HostAgent {

namespace {

// How long to leave clients alone when there is no descriptor or memory for them.
constexpr double exhaustedSeconds = 1.0;

} // namespace

class ShowServer::Look final : public Quarn::TimerTask {
 public:
   explicit Look( ShowServer& server )
         : TimerTask( server.root_, Quarn::TaskPriority::normal, "ShowPatience" ),
           server_( server ) {}

 private:
   void taskExecute() override { server_._giveUpOverdue(); }

   ShowServer& server_;
};

ShowServer::ShowServer( std::shared_ptr<Quarn::TaskSchedulerRoot> root, const std::string& name )
      : ShowServer( std::move( root ), name, Patience() ) {}

ShowServer::ShowServer( std::shared_ptr<Quarn::TaskSchedulerRoot> root, const std::string& name,
                        const Patience& patience )
      : FileDescriptorTask( root, Quarn::TaskPriority::normal, "ShowServer" ),
        debug_( Quarn::Platform::getDebugHandler( "HostAgent", false ) ),
        root_( std::move( root ) ),
        patience_( patience ),
        look_( std::make_shared<Look>( *this ) ),
        closer_( std::make_shared<ConnectionCloser>() ) {
   try {
      listening_ = Show::listenAs( name );
   } catch( const std::exception& error ) {
      refusal_ = error.what();
      QUARN_FMTRACE( *debug_, 1, "ShowServer", "answers nothing: {}", refusal_ );
      return;
   }
   taskWatchFdIs( listening_.get() );
}

// The socket is closed before the base class would forget it.
ShowServer::~ShowServer() { _leave(); }

void ShowServer::stop() {
   _leave();
   look_->stopTimerTask();
   // Those that end at once leave the list meanwhile.
   for( const Entry& entry : std::vector( sessions_.begin(), sessions_.end() ) ) {
      entry.session->giveUp();
   }
}

// Closing the socket would close those that wait to be accepted.
void ShowServer::_leave() {
   taskWatchFdDel();
   if( !listening_.valid() ) {
      return;
   }
   // From here on nobody can connect.
   shutdown( listening_.get(), SHUT_RDWR );
   Show::Descriptor client;
   while( ( client = Show::acceptClient( listening_.get() ) ).valid() || errno == ECONNABORTED ) {
      closer_->close( std::move( client ) );
   }
   if( errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS ) {
      // Some may be left. The name is free a moment later then.
      closer_->close( std::move( listening_ ) );
   }
   listening_.reset();
}

void ShowServer::taskExecuteReadable() {
   if( sessions_.size() >= sessionsMax ) {
      full_ = true;
      return _giveUpOverdue();
   }
   // One a run: who waits makes the socket readable again at once.
   Show::Descriptor client = Show::acceptClient( listening_.get() );
   if( client.valid() ) {
      _admit( std::move( client ) );
      taskWorkCountInc( 1 );
   } else if( errno != EAGAIN && errno != EINTR && errno != ECONNABORTED ) {
      QUARN_FMTRACE( *debug_, 1, "ShowServer", "cannot accept: {}", Quarn::strerror( errno ) );
      taskWatchReadableIs( false );
      look_->scheduleTaskLowestDelay( exhaustedSeconds );
   }
}

// Writes are never watched.
void ShowServer::taskExecuteWritable() {}

void ShowServer::_admit( Show::Descriptor client ) {
   const auto user = Show::peerUser( client.get() );
   if( !user || ( *user != geteuid() && *user != 0 ) ) {
      QUARN_FMTRACE( *debug_, 1, "ShowServer", "refused user {}",
                     user ? std::to_string( *user ) : "unknown" );
      ++refused_;
      closer_->close( std::move( client ) );
      return _watch();
   }
   auto session = std::make_shared<ShowSession>(
         root_, std::move( client ), closer_,
         [ this ]( ShowSession& ended, ShowSession::Outcome outcome ) {
            _ended( ended, outcome );
         } );
   sessions_.push_back( { std::move( session ), Quarn::time() } );
   look_->scheduleTaskLowestDelay( patience_.toAsk );
}

void ShowServer::_ended( ShowSession& session, ShowSession::Outcome outcome ) {
   if( outcome == ShowSession::Outcome::answered ) {
      ++answered_;
      if( answeredCounter_ ) {
         ++*answeredCounter_;
      }
   }
   refused_ += outcome == ShowSession::Outcome::refused ? 1 : 0;
   givenUp_ += outcome == ShowSession::Outcome::givenUp ? 1 : 0;
   sessions_.remove_if(
         [ &session ]( const Entry& entry ) { return entry.session.get() == &session; } );
   full_ = false;
   if( !listening_.valid() ) {
      return;
   }
   if( sessions_.empty() ) {
      look_->stopTimerTask();
   }
   _watch();
}

// Takes the next client when there is a place, and no connection that could not be closed.
void ShowServer::_watch() {
   const bool closed = closer_->retry();
   taskWatchReadableIs( closed && !full_ );
   if( !closed ) {
      QUARN_FMTRACE( *debug_, 1, "ShowServer", "cannot close a connection: {}",
                     Quarn::strerror( errno ) );
      look_->scheduleTaskLowestDelay( exhaustedSeconds );
   }
}

double ShowServer::_deadline( const Entry& entry ) const {
   return entry.since + ( !entry.session->asked() ? patience_.toAsk
                          : full_                 ? patience_.toReadWhenFull
                                                  : patience_.toRead );
}

void ShowServer::_giveUpOverdue() {
   const double now = Quarn::time();
   for( auto next = sessions_.begin(); next != sessions_.end(); ) {
      Entry& entry = *next++;
      if( _deadline( entry ) <= now ) {
         // It may end at once, which leaves a place, or be there for another while.
         entry.since = now;
         const auto session = entry.session;
         // If its record is there, it was the agent who was late.
         if( session->asked() || !session->takeRecord() ) {
            session->giveUp();
         }
      }
   }
   double first = std::numeric_limits<double>::infinity();
   for( const Entry& entry : sessions_ ) {
      first = std::min( first, _deadline( entry ) - now );
   }
   look_->scheduleTaskDelay( first );
   _watch();
}

} // namespace HostAgent
