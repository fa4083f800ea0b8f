#include "examples/agent/FolderWatch.h"

#include "examples/agent/ProcText.h"

#include <cerrno>
#include <span>
#include <system_error>
#include <utility>

#include <sys/inotify.h>
#include <unistd.h>

namespace HostAgent {

FolderWatch::FolderWatch( std::shared_ptr<Quarn::TaskScheduler> scheduler,
                          const std::string& folder, EventLog* log )
      : FileDescriptorTask( std::move( scheduler ), Quarn::TaskPriority::normal, "FolderWatch" ),
        log_( log ),
        inotify_( inotify_init1( IN_NONBLOCK | IN_CLOEXEC ) ) {
   constexpr std::uint32_t wanted =
         IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_CLOSE_WRITE | IN_ONLYDIR;
   if( !inotify_.valid() || inotify_add_watch( inotify_.get(), folder.c_str(), wanted ) < 0 ) {
      throw std::system_error( errno, std::generic_category(),
                               "cannot watch folder " + printable( folder ) );
   }
   taskWatchFdIs( inotify_.get() );
}

// The descriptor is closed before the base class would forget it.
FolderWatch::~FolderWatch() { stop(); }

void FolderWatch::taskExecuteReadable() {
   const ssize_t size = read( inotify_.get(), buffer_.data(), buffer_.size() );
   if( size < 0 ) {
      if( errno != EAGAIN && errno != EINTR ) {
         // It would fail again and again.
         _end( "watch failed" );
      }
      return;
   }
   // One read a run: what is left makes the descriptor readable again at once.
   const auto parsed =
         parseFolderEvents( std::span( buffer_ ).first( static_cast<std::size_t>( size ) ) );
   malformed_ += parsed.malformed ? 1 : 0;
   for( const FolderEvent& event : parsed.events ) {
      _take( event );
   }
   taskWorkCountInc( parsed.events.size() );
}

// Writes are never watched.
void FolderWatch::taskExecuteWritable() {}

void FolderWatch::_take( const FolderEvent& event ) {
   const std::string name( event.name );
   switch( event.kind ) {
   case FolderEvent::Kind::created:
      ++created_;
      log_->add( "entry created", name );
      break;
   case FolderEvent::Kind::removed:
      ++removed_;
      log_->add( "entry removed", name );
      break;
   case FolderEvent::Kind::written:
      ++written_;
      log_->add( "file written", name );
      break;
   case FolderEvent::Kind::overrun:
      ++overruns_;
      log_->add( "events lost", "" );
      break;
   case FolderEvent::Kind::ended:
      _end( "folder gone" );
      break;
   }
}

void FolderWatch::_end( char const* reason ) {
   ended_ = true;
   log_->add( reason, "" );
   stop();
}

} // namespace HostAgent
