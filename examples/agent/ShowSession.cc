#include "examples/agent/ShowSession.h"

#include "examples/agent/ShowPipe.h"

#include <Quarn/base/Exception.h>

#include <Oru/GuardedWrite.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <sstream>
#include <utility>
#include <variant>

#include <unistd.h>

namespace HostAgent {

namespace {

// What one write or read moves: the usual capacity of a pipe.
constexpr std::size_t sliceSize = 65536;

// What the agent has against an expression, if anything, that the library would take.
std::string_view wrongWith( std::string_view match ) {
   // Control bytes of ASCII, and those of Latin 1 in UTF-8. An invalid expression is reported on
   // standard error as it came.
   for( std::size_t i = 0; i < match.size(); ++i ) {
      const auto byte = static_cast<unsigned char>( match[ i ] );
      const auto before = static_cast<unsigned char>( i == 0 ? 0 : match[ i - 1 ] );
      if( byte < ' ' || byte == 0x7F || ( before == 0xC2 && byte >= 0x80 && byte < 0xA0 ) ) {
         return "the expression has a control character; write \\t, \\n or \\xHH";
      }
   }
   // Matching those may take exponential time.
   for( std::size_t i = 0; i + 1 < match.size(); ++i ) {
      if( match[ i ] == '\\' ) {
         ++i;
         if( match[ i ] >= '1' && match[ i ] <= '9' ) {
            return "the expression has a back-reference";
         }
      }
   }
   return {};
}

} // namespace

ShowSession::ShowSession( std::shared_ptr<Quarn::TaskSchedulerRoot> root, Show::Descriptor client,
                          std::shared_ptr<ConnectionCloser> closer,
                          std::function<void( ShowSession&, Outcome )> ended )
      : FileDescriptorTask( root, Quarn::TaskPriority::normal, "ShowSession" ),
        debug_( Quarn::Platform::getDebugHandler( "HostAgent", false ) ),
        root_( std::move( root ) ),
        ended_( std::move( ended ) ),
        client_( std::move( client ) ),
        closer_( std::move( closer ) ) {
   taskWatchFdIs( client_.get() );
}

// The descriptors are closed before the base class would forget them.
ShowSession::~ShowSession() {
   taskWatchFdDel();
   closer_->close( std::move( client_ ) );
}

void ShowSession::giveUp() {
   switch( step_ ) {
   case Step::waiting:
      _end( Outcome::nothing );
      break;
   case Step::writing:
      _end( Outcome::givenUp );
      break;
   case Step::rendering:
      pipe_ = pipeReadEndOf( rendering_ );
      if( !pipe_.valid() ) {
         if( !std::exchange( stuck_, true ) ) {
            QUARN_FMTRACE( *debug_, 1, "ShowSession", "cannot empty the pipe: {}",
                           Quarn::strerror( errno ) );
         }
         return;
      }
      step_ = Step::draining;
      taskWatchFdIs( pipe_.get() );
      taskWatchReadableIs( true );
      break;
   case Step::draining:
   case Step::over:
      break;
   }
}

void ShowSession::taskExecuteReadable() {
   if( step_ == Step::draining ) {
      _drainSome();
   } else {
      takeRecord();
   }
}

bool ShowSession::takeRecord() {
   if( asked() ) {
      return false;
   }
   Show::Received received = Show::peekRecord( client_.get() );
   if( received.state == Show::Received::State::nothing ) {
      return false;
   }
   taskWatchFdDel();
   const bool isPipe = received.passed.valid() && isPipeWriteEnd( received.passed.get() );
   if( !isPipe ) {
      // While the connection still has it too.
      received.passed.reset();
   }
   closer_->close( std::move( client_ ) );
   if( received.state == Show::Received::State::ended ) {
      _end( Outcome::nothing );
   } else if( !isPipe ) {
      QUARN_FMTRACE( *debug_, 1, "ShowSession", "a request without the write end of a pipe" );
      _end( Outcome::refused );
   } else {
      pipe_ = std::move( received.passed );
      _takeRequest( received );
   }
   return true;
}

void ShowSession::_takeRequest( const Show::Received& received ) {
   if( received.surplus ) {
      return _refuse( "more than one descriptor came with the request" );
   }
   if( received.tooLong ) {
      return _refuse( "the request is too long" );
   }
   const auto parsed = Show::parseRequest( received.record );
   if( auto const* wrong = std::get_if<std::string_view>( &parsed ) ) {
      return _refuse( *wrong );
   }
   try {
      _answer( std::get<Show::Request>( parsed ) );
   } catch( const std::exception& error ) {
      // Out of memory, for a report of a hundred thousand tasks. The agent goes on.
      _refuse( error.what() );
   }
}

void ShowSession::_answer( const Show::Request& request ) {
   if( const std::string_view wrong = wrongWith( request.match ); !wrong.empty() ) {
      return _refuse( wrong );
   }
   if( !request.match.empty() ) {
      const Quarn::TaskNameRegex filter{ Quarn::String( request.match ) };
      if( !filter.valid() ) {
         return _refuse( filter.error() );
      }
   }
   // The read end may have to be opened later, when it is too late to refuse.
   if( !pipeReadEndOf( pipe_.get() ).valid() ) {
      return _refuse( "the pipe may not be opened: " + Quarn::strerror( errno ) );
   }
   Show::Descriptor own = pipeWriteEndOf( pipe_.get() );
   if( !own.valid() ) {
      // Without a reader there is nobody to tell.
      return errno == ENXIO ? _end( Outcome::nothing )
                            : _refuse( "the pipe may not be opened: " + Quarn::strerror( errno ) );
   }
   pipe_ = std::move( own );
   if( request.kind == Show::Kind::json ) {
      _answerJson( request );
   } else {
      _answerText( request );
   }
}

void ShowSession::_answerText( const Show::Request& request ) {
   const Quarn::String match( request.match );
   Quarn::String report;
   if( request.kind == Show::Kind::text ) {
      report = root_->statsRenderTextForDebugToString( request.all, request.completed, false, false,
                                                       match );
   } else {
      std::optional<Quarn::TaskNameRegex> filter;
      if( !match.empty() ) {
         filter.emplace( match );
      }
      std::ostringstream out;
      root_->historyRenderTextForDebug( out, filter ? &*filter : nullptr );
      report = Quarn::String( out.view() );
   }
   text_ = Quarn::String( Show::answerHead( report.size() ) ) + report;
   step_ = Step::writing;
   // The write end of a pipe whose reader is gone counts as readable, for ever.
   taskWatchReadableIs( false );
   taskWatchFdIs( pipe_.get() );
   taskWatchWritableIs( true );
}

void ShowSession::_answerJson( const Show::Request& request ) {
   auto snapshot = root_->snapshot( {}, request.all, request.completed, true, request.match, 0 );
   const std::weak_ptr<Quarn::_TaskBase> session = weak_from_this();
   root_->snapshotRenderJsonAsync( pipe_.get(), { std::move( snapshot ) }, [ this, session ] {
      if( const auto held = session.lock() ) {
         _end( step_ == Step::draining ? Outcome::givenUp : Outcome::answered );
      }
   } );
   rendering_ = pipe_.release();
   step_ = Step::rendering;
}

void ShowSession::taskExecuteWritable() {
   while( step_ == Step::writing ) {
      const ssize_t size = Oru::guardedWrite( pipe_.get(), text_.data() + written_,
                                              std::min( text_.size() - written_, sliceSize ) );
      if( size == -EAGAIN || size == -EINTR ) {
         return taskWatchWritableIs( true );
      }
      if( size < 0 ) {
         // The reader is gone.
         return _end( Outcome::nothing );
      }
      written_ += static_cast<std::size_t>( size );
      taskWorkCountInc( static_cast<unsigned long>( size ) );
      if( written_ == text_.size() ) {
         return _end( Outcome::answered );
      }
      if( taskShouldYield() ) {
         return scheduleTaskWritable();
      }
   }
}

void ShowSession::_drainSome() {
   std::array<char, sliceSize> ignored;
   while( read( pipe_.get(), ignored.data(), ignored.size() ) > 0 && !taskShouldYield() ) {
   }
}

void ShowSession::_refuse( std::string_view reason ) {
   QUARN_FMTRACE( *debug_, 2, "ShowSession", "refused: {}", reason );
   writeLineAtOnce( pipe_.get(), Show::answerError( reason ) );
   _end( Outcome::refused );
}

void ShowSession::_end( Outcome outcome ) {
   step_ = Step::over;
   taskWatchFdDel();
   closer_->close( std::move( client_ ) );
   pipe_.reset();
   text_ = {};
   // Not from the member, which may be destroyed by the call.
   const auto ended = std::move( ended_ );
   ended( *this, outcome );
}

} // namespace HostAgent
