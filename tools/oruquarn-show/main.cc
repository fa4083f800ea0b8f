// oruquarn-show: shows what the scheduler of a running agent is doing. oruquarn-show.1 is its
// manual.

#include "tools/oruquarn-show/Ask.h"
#include "tools/oruquarn-show/Options.h"
#include "tools/oruquarn-show/Paint.h"
#include "tools/oruquarn-show/Screen.h"
#include "tools/oruquarn-show/Write.h"

#include "tools/show/Descriptor.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <variant>

#include <poll.h>
#include <unistd.h>

namespace {

using namespace OruQuarnShow;

// What standard output is.
struct Output {
   bool terminal;
   // A terminal that knows control sequences, and whether the user wants colours.
   bool sequences;
   bool colours;
};

std::string_view environment( char const* name ) {
   char const* const value = std::getenv( name );
   return value ? value : "";
}

Output outputOfProcess() {
   const bool terminal = isatty( STDOUT_FILENO ) == 1;
   const std::string_view kind = environment( "TERM" );
   const bool sequences = terminal && !kind.empty() && kind != "dumb";
   return { terminal, sequences, sequences && environment( "NO_COLOR" ).empty() };
}

ExitCode complain( ExitCode code, std::string_view text ) {
   std::cerr << "oruquarn-show: " << printable( text ) << '\n';
   return code;
}

ExitCode cannotWrite() {
   return complain( exitFailure,
                    fmt::format( "cannot write to standard output: {}", strerror( errno ) ) );
}

// A report as it is shown. JSON is for programs and stays as it came.
std::string shown( const Options& options, const Output& output, std::string text ) {
   if( options.request.kind == Show::Kind::json || !output.terminal ) {
      return text;
   }
   const std::string clean = harmless( text );
   return output.colours ? coloured( clean ) : clean;
}

ExitCode showOnce( const Options& options, const Output& output ) {
   Outcome outcome = ask( options );
   if( outcome.code != exitAnswered ) {
      return complain( outcome.code, outcome.text );
   }
   return writeAll( shown( options, output, std::move( outcome.text ) ) ) ? exitAnswered
                                                                          : cannotWrite();
}

std::string titleOf( const Options& options ) {
   const std::time_t now = std::time( nullptr );
   std::tm local{};
   char clock[ 16 ] = "";
   if( localtime_r( &now, &local ) ) {
      std::strftime( clock, sizeof( clock ), "%H:%M:%S", &local );
   }
   return fmt::format( "{} {}, every {} s, {}", options.agent,
                       Show::kindText( options.request.kind ), options.watchSeconds, clock );
}

// One report below the other, with an empty line, or line feed after a document, between them.
ExitCode watchPlain( const Options& options, const Output& output ) {
   for( ;; ) {
      const auto next = std::chrono::steady_clock::now() +
                        std::chrono::duration<double>( options.watchSeconds );
      const ExitCode code = showOnce( options, output );
      if( code != exitAnswered ) {
         return code;
      }
      if( !writeAll( "\n" ) ) {
         return cannotWrite();
      }
      std::this_thread::sleep_until( next );
   }
}

// Waits, and says whether it was interrupted.
bool waitInterrupted( std::chrono::steady_clock::time_point end ) {
   const auto left = std::chrono::ceil<std::chrono::nanoseconds>(
         std::max( end - std::chrono::steady_clock::now(), std::chrono::nanoseconds::zero() ) );
   const auto seconds = std::chrono::floor<std::chrono::seconds>( left );
   const timespec wait{ seconds.count(), ( left - seconds ).count() };
   return ppoll( nullptr, 0, &wait, nullptr ) < 0;
}

ExitCode watchScreen( const Options& options, const Output& output ) {
   std::optional<Screen> screen( std::in_place );
   for( ;; ) {
      const auto next = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::duration<double>( options.watchSeconds ) );
      Outcome outcome = ask( options );
      if( outcome.code != exitAnswered ) {
         screen.reset();
         return complain( outcome.code, outcome.text );
      }
      const std::string title = titleOf( options );
      const std::string text = shown( options, output, withoutLegend( outcome.text ) );
      do {
         if( !screen->draw( title, text ) ) {
            const int error = errno;
            screen.reset();
            errno = error;
            return cannotWrite();
         }
      } while( waitInterrupted( next ) );
   }
}

int runProgram( int argc, char** argv ) {
   std::ostringstream text;
   const auto parsed = optionsFromCommandLine( argc, argv, text, std::cerr );
   if( auto const* code = std::get_if<ExitCode>( &parsed ) ) {
      return *code != exitAnswered || writeAll( text.view() ) ? *code : cannotWrite();
   }
   const Options& options = std::get<Options>( parsed );
   const Output output = outputOfProcess();
   if( options.watchSeconds == 0.0 ) {
      return showOnce( options, output );
   }
   return output.sequences && options.request.kind != Show::Kind::json
                ? watchScreen( options, output )
                : watchPlain( options, output );
}

} // namespace

int main( int argc, char** argv ) {
   Show::reserveStandardDescriptors();
   try {
      return runProgram( argc, argv );
   } catch( const std::exception& error ) {
      return complain( exitFailure, error.what() );
   }
}
