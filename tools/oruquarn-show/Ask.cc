#include "tools/oruquarn-show/Ask.h"

#include "tools/show/ShowSocket.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace OruQuarnShow {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// No report is that long; an agent gone mad shall not fill the memory.
constexpr std::size_t answerSizeMax = std::size_t{ 1 } << 30;
// How often to look for an agent that is not there yet. Nothing tells of its coming.
constexpr milliseconds lookAgain( 20 );

milliseconds upward( double seconds ) {
   return milliseconds( static_cast<std::int64_t>( std::ceil( seconds * 1000.0 ) ) );
}

milliseconds leftUntil( Clock::time_point end ) {
   return std::max( milliseconds( 0 ), std::chrono::ceil<milliseconds>( end - Clock::now() ) );
}

Outcome systemFailure( char const* what, int error ) {
   return { exitFailure, fmt::format( "{}: {}", what, strerror( error ) ) };
}

Outcome noAnswer( const Options& options ) {
   return { exitTimeout,
            fmt::format( "no answer from {} within {} s", options.agent, options.timeoutSeconds ) };
}

Outcome noAgent( const Options& options ) {
   char const* const hint =
         Show::kindOf( options.agent ) ? " (the agent's name comes before what is asked for)" : "";
   return { exitNoAgent, fmt::format( "no agent named '{}' is running{}", options.agent, hint ) };
}

Show::Descriptor findAgent( const Options& options ) {
   const Clock::time_point end = Clock::now() + upward( options.waitSeconds );
   for( ;; ) {
      Show::Descriptor agent = Show::connectTo( options.agent, upward( options.timeoutSeconds ) );
      if( agent.valid() || errno != ECONNREFUSED || Clock::now() >= end ) {
         return agent;
      }
      poll( nullptr, 0, static_cast<int>( std::min( lookAgain, leftUntil( end ) ).count() ) );
      errno = ECONNREFUSED;
   }
}

// Reads to the end of the pipe, which the agent closes.
Outcome readAnswer( const Options& options, int pipe, Clock::time_point end ) {
   Outcome outcome{ exitAnswered, {} };
   std::string& bytes = outcome.text;
   std::array<char, 65536> buffer;
   for( ;; ) {
      pollfd ready{ pipe, POLLIN, 0 };
      const auto wait = std::min<std::int64_t>( leftUntil( end ).count(), 1 << 30 );
      if( poll( &ready, 1, static_cast<int>( wait ) ) == 0 ) {
         return noAnswer( options );
      }
      if( ready.revents == 0 ) {
         // A signal that the program survives: the size of the window has changed, for example.
         continue;
      }
      const ssize_t size = read( pipe, buffer.data(), buffer.size() );
      if( size == 0 ) {
         return outcome;
      }
      if( size > 0 ) {
         bytes.append( buffer.data(), static_cast<std::size_t>( size ) );
      } else if( errno != EINTR ) {
         return systemFailure( "cannot read the answer", errno );
      }
      if( bytes.size() > answerSizeMax ) {
         return { exitRefused, "the answer is longer than any report" };
      }
   }
}

Outcome takeApart( const Options& options, Outcome outcome ) {
   if( outcome.code != exitAnswered ) {
      return outcome;
   }
   const Show::Answer answer = Show::parseAnswer( options.request.kind, outcome.text );
   switch( answer.state ) {
   case Show::Answer::State::whole:
      // The head of an answer goes, without a copy of the rest.
      outcome.text.erase( 0, outcome.text.size() - answer.text.size() );
      return outcome;
   case Show::Answer::State::refused:
      return { exitRefused, fmt::format( "{}: {}", options.agent, answer.text ) };
   case Show::Answer::State::brokenOff:
      break;
   }
   return { exitRefused, outcome.text.empty()
                               ? fmt::format( "{} gave no answer", options.agent )
                               : fmt::format( "the answer of {} broke off", options.agent ) };
}

} // namespace

Outcome ask( const Options& options ) {
   Show::Descriptor agent = findAgent( options );
   if( !agent.valid() ) {
      return errno == ECONNREFUSED ? noAgent( options )
             : errno == EAGAIN     ? noAnswer( options )
                                   : systemFailure( "cannot reach the agent", errno );
   }
   const Clock::time_point end = Clock::now() + upward( options.timeoutSeconds );
   // Anybody may take the name; what another user has to say is for root only.
   const auto user = Show::peerUser( agent.get() );
   if( !user || ( *user != geteuid() && *user != 0 && geteuid() != 0 ) ) {
      return { exitRefused, fmt::format( "{} belongs to another user", options.agent ) };
   }
   int ends[ 2 ];
   if( pipe2( ends, O_CLOEXEC ) != 0 ) {
      return systemFailure( "cannot make a pipe", errno );
   }
   const Show::Descriptor readEnd( ends[ 0 ] );
   Show::Descriptor writeEnd( ends[ 1 ] );
   // The agent opens the pipe for itself, which one of another user than root may not otherwise.
   if( *user != geteuid() && geteuid() == 0 &&
       fchown( writeEnd.get(), *user, static_cast<gid_t>( -1 ) ) != 0 ) {
      return systemFailure( "cannot give the pipe to the agent's user", errno );
   }
   if( !Show::sendRecord( agent.get(), Show::formatRequest( options.request ), writeEnd.get(),
                          leftUntil( end ) ) ) {
      return errno == EAGAIN ? noAnswer( options )
             : errno == EPIPE || errno == ECONNRESET
                   ? Outcome{ exitRefused, fmt::format( "{} hung up", options.agent ) }
                   : systemFailure( "cannot send the request", errno );
   }
   writeEnd.reset();
   return takeApart( options, readAnswer( options, readEnd.get(), end ) );
}

} // namespace OruQuarnShow
