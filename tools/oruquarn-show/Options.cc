#include "tools/oruquarn-show/Options.h"

#include "tools/oruquarn-show/Paint.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include <charconv>
#include <string_view>

namespace OruQuarnShow {

namespace {

// The range checks of the option parser let NaN pass, and its conversions take "inf" and
// hexadecimal numbers; this check sees the text first.
CLI::Validator secondsBetween( double least, double most ) {
   const auto check = [ least, most ]( const std::string& text ) {
      double seconds = 0.0;
      char const* const end = text.data() + text.size();
      const auto result = std::from_chars( text.data(), end, seconds );
      return result.ec == std::errc() && result.ptr == end && seconds >= least && seconds <= most
                   ? std::string()
                   : fmt::format( "'{}' is not a number of seconds from {} to {}", text, least,
                                  most );
   };
   return CLI::Validator( check, "" );
}

std::string checkAgent( const std::string& text ) {
   return Show::agentNameValid( text )
                ? std::string()
                : fmt::format(
                        "'{}' is not the name of an agent: 1 to 64 letters, digits, '.', '_' "
                        "and '-'",
                        text );
}

std::string checkKind( const std::string& text ) {
   return Show::kindOf( text ) ? std::string()
                               : fmt::format( "'{}' is none of text, json and history", text );
}

std::string checkMatch( const std::string& text ) {
   return text.size() <= 2048 ? std::string() : "the expression has more than 2048 bytes";
}

constexpr char footer[] =
      "Exit codes: 0 answered, 1 refused or broken off, 2 usage, 3 no such agent, 4 no answer in "
      "time,\n5 output failed. See also oruquarn-show(1).";

} // namespace

std::variant<Options, ExitCode> optionsFromCommandLine( int argc, char const* const* argv,
                                                        std::ostream& out, std::ostream& err ) {
   Options options;
   std::string kind = "text";
   CLI::App app( "Shows what the scheduler of a running agent is doing.", "oruquarn-show" );
   app.add_option( "AGENT", options.agent, "The agent's name" )
         ->check( CLI::Validator( checkAgent, "" ) )
         ->type_name( "" )
         ->capture_default_str();
   app.add_option( "KIND", kind, "text, json or history" )
         ->check( CLI::Validator( checkKind, "" ) )
         ->type_name( "" )
         ->capture_default_str();
   app.add_option( "--match", options.request.match,
                   "Only tasks whose whole name matches the regular expression" )
         ->check( CLI::Validator( checkMatch, "" ) )
         ->type_name( "REGEX" );
   app.add_flag( "--all", options.request.all, "Tasks that never ran, too" );
   app.add_flag( "--completed", options.request.completed, "Tasks that are gone, too" );
   app.add_option( "--watch", options.watchSeconds, "Ask again every so often, until interrupted" )
         ->check( secondsBetween( 0.1, 86400.0 ) )
         ->type_name( "SECONDS" );
   app.add_option( "--timeout", options.timeoutSeconds, "How long an answer may take" )
         ->check( secondsBetween( 0.001, 86400.0 ) )
         ->type_name( "SECONDS" )
         ->capture_default_str();
   app.add_option( "--wait", options.waitSeconds, "How long to wait for the agent to come up" )
         ->check( secondsBetween( 0.0, 86400.0 ) )
         ->type_name( "SECONDS" )
         ->capture_default_str();
   app.set_version_flag( "--version", "oruquarn-show " ORUQUARN_VERSION );
   app.footer( footer );
   app.failure_message( []( CLI::App const*, const CLI::Error& error ) {
      // The text repeats what the user typed.
      return "oruquarn-show: " + printable( error.what() ) + " (--help shows the options)\n";
   } );
   try {
      app.parse( argc, argv );
   } catch( const CLI::ParseError& error ) {
      return app.exit( error, out, err ) == 0 ? exitAnswered : exitUsage;
   }
   options.request.kind = *Show::kindOf( kind );
   return options;
}

} // namespace OruQuarnShow
