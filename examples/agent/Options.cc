#include "examples/agent/Options.h"

#include "examples/agent/ProcText.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

namespace HostAgent {

namespace {

// The range checks of the option parser let NaN pass, and its conversions take "inf" and
// hexadecimal numbers; these checks see the text first.
template<typename Number>
std::optional<Number> numberOf( std::string_view text ) {
   Number number{};
   char const* const end = text.data() + text.size();
   const auto result = std::from_chars( text.data(), end, number );
   if( result.ec != std::errc() || result.ptr != end ) {
      return std::nullopt;
   }
   return number;
}

std::string checkSeconds( const std::string& text ) {
   const auto seconds = numberOf<double>( text );
   return seconds && *seconds >= 0.0 && *seconds <= 1e9
                ? std::string()
                : fmt::format( "'{}' is not a number of seconds from 0 to 1000000000", text );
}

std::string checkInterval( const std::string& text ) {
   const auto seconds = numberOf<double>( text );
   return seconds && *seconds > 0.0 && *seconds <= 3600.0
                ? std::string()
                : fmt::format( "'{}' is not a number of seconds above 0 and up to 3600", text );
}

std::string checkHours( const std::string& text ) {
   const auto hours = numberOf<double>( text );
   return hours && *hours > 0.0 && *hours <= 10000.0
                ? std::string()
                : fmt::format( "'{}' is not a number of hours above 0 and up to 10000", text );
}

std::string checkJitter( const std::string& text ) {
   const auto percent = numberOf<unsigned>( text );
   return percent && *percent <= 50
                ? std::string()
                : fmt::format( "'{}' is not a whole number of percent from 0 to 50", text );
}

std::string checkName( const std::string& text ) {
   return Show::agentNameValid( text )
                ? std::string()
                : fmt::format( "'{}' is not a name of 1 to 64 letters, digits, '.', '_' and '-'",
                               text );
}

std::string checkFolder( const std::string& text ) {
   return text.empty() ? "the name of the folder is empty" : std::string();
}

std::string checkTop( const std::string& text ) {
   const auto rows = numberOf<unsigned>( text );
   return rows && *rows >= 1 && *rows <= 10000
                ? std::string()
                : fmt::format( "'{}' is not a whole number from 1 to 10000", text );
}

} // namespace

std::variant<Options, ExitCode> optionsFromCommandLine( int argc, char const* const* argv,
                                                        std::ostream& out, std::ostream& err ) {
   Options options;
   CLI::App app( "Watches the processes and links of this host and reports who uses it.",
                 "host-agent" );
   auto* const seconds = app.add_option( "--seconds", options.seconds,
                                         "How long to run; 0 runs until SIGINT or SIGTERM" )
                               ->check( CLI::Validator( checkSeconds, "" ) )
                               ->type_name( "N" )
                               ->capture_default_str();
   auto* const hours =
         app.add_option( "--fast-forward", options.fastForwardHours,
                         "Run for hours of virtual time instead, jumping from timer to timer" )
               ->check( CLI::Validator( checkHours, "" ) )
               ->type_name( "HOURS" );
   app.add_option( "--interval", options.intervalSeconds,
                   "Seconds from one walk over the processes to the next" )
         ->check( CLI::Validator( checkInterval, "" ) )
         ->type_name( "S" )
         ->capture_default_str();
   app.add_option( "--jitter", options.jitterPercent,
                   "Percent by which --interval is shortened, at random each time" )
         ->check( CLI::Validator( checkJitter, "" ) )
         ->type_name( "PERCENT" )
         ->capture_default_str();
   app.add_option( "--top", options.top, "Rows of the list of busiest processes" )
         ->check( CLI::Validator( checkTop, "" ) )
         ->type_name( "N" )
         ->capture_default_str();
   app.add_option( "--name", options.name, "The name by which oruquarn-show finds this agent" )
         ->check( CLI::Validator( checkName, "" ) )
         ->type_name( "NAME" )
         ->capture_default_str();
   app.add_option( "--watch-folder", options.watchFolder, "Watch the entries of a folder too" )
         ->check( CLI::Validator( checkFolder, "" ) )
         ->type_name( "PATH" );
   app.add_flag( "--framework", options.framework,
                 "Run on the loop of the object framework instead of libevent's" );
   app.add_option( "--trace", options.trace,
                   "Trace settings, as in the environment variable TRACE" )
         ->type_name( "SETTINGS" );
   app.set_version_flag( "--version", "host-agent " HOST_AGENT_VERSION );
   app.failure_message( []( CLI::App const*, const CLI::Error& error ) {
      // The text repeats what the user typed.
      return "host-agent: " + printable( error.what() ) + " (--help shows the options)\n";
   } );
   try {
      app.parse( argc, argv );
      if( seconds->count() != 0 && hours->count() != 0 ) {
         throw CLI::ExcludesError( "--fast-forward", "--seconds" );
      }
   } catch( const CLI::ParseError& error ) {
      return ExitCode{ app.exit( error, out, err ) == 0 ? 0 : exitUsage };
   }
   return options;
}

} // namespace HostAgent
