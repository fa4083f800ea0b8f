// The command line, and the program from the outside.

#include "examples/agent/Options.h"

#include "examples/RuntimeFolder.h"
#include "support/Shell.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include <unistd.h>

namespace HostAgent {
namespace {

using ::testing::HasSubstr;

struct Outcome {
   std::variant<Options, ExitCode> parsed;
   std::string out;
   std::string err;
};

Outcome parse( std::vector<char const*> arguments ) {
   arguments.insert( arguments.begin(), "host-agent" );
   std::ostringstream out;
   std::ostringstream err;
   auto parsed =
         optionsFromCommandLine( static_cast<int>( arguments.size() ), arguments.data(), out, err );
   return { std::move( parsed ), out.str(), err.str() };
}

TEST( OptionsTest, ValuesAtTheEdgesAreTaken ) {
   const auto defaults = std::get<Options>( parse( {} ).parsed );
   EXPECT_EQ( defaults.seconds, 10.0 );
   EXPECT_EQ( defaults.intervalSeconds, 1.0 );
   EXPECT_EQ( defaults.top, 10u );
   EXPECT_EQ( defaults.fastForwardHours, 0.0 );
   EXPECT_EQ( defaults.jitterPercent, 10u );
   EXPECT_EQ( defaults.watchFolder, "" );
   EXPECT_EQ( defaults.name, "host-agent" );
   const auto least = std::get<Options>(
         parse( { "--seconds", "0", "--interval=1e-3", "--top", "1", "--trace", "X/5" } ).parsed );
   EXPECT_EQ( least.seconds, 0.0 );
   EXPECT_EQ( least.intervalSeconds, 1e-3 );
   EXPECT_EQ( least.top, 1u );
   EXPECT_EQ( least.trace, "X/5" );
   EXPECT_EQ( std::get<Options>( parse( { "--interval", "3600" } ).parsed ).intervalSeconds,
              3600.0 );
   const auto others = std::get<Options>( parse( { "--fast-forward=1e-3", "--jitter", "50",
                                                   "--watch-folder", "a b", "--name=A-z_0.9" } )
                                                .parsed );
   EXPECT_EQ( others.fastForwardHours, 1e-3 );
   EXPECT_EQ( others.jitterPercent, 50u );
   EXPECT_EQ( others.watchFolder, "a b" );
   EXPECT_EQ( others.name, "A-z_0.9" );
}

TEST( OptionsTest, BadValuesGiveOneLineThatNamesTheOption ) {
   const struct {
      char const* option;
      std::vector<char const*> values;
   } cases[] = {
         { "--seconds",
           { "-1", "nan", "inf", "1e999", "1e10", "", "abc", "1x", "0x10", " 1", "1,5" } },
         { "--interval", { "0", "-0", "-1", "nan", "-nan", "inf", "3600.1", "", "1\n2" } },
         { "--fast-forward", { "0", "-0", "-1", "nan", "inf", "10000.1", "", "1h" } },
         { "--jitter", { "-1", "51", "256", "1.5", "", "nan", "10%" } },
         { "--watch-folder", { "" } },
         { "--name", { "", "a b", "a/b", "a\n", "-x" } },
         { "--top", { "0", "-1", "1.5", "10001", "99999999999999999999", "", "nan" } },
   };
   for( const auto& [ option, values ] : cases ) {
      for( char const* value : values ) {
         const Outcome outcome = parse( { option, value } );
         ASSERT_TRUE( std::holds_alternative<ExitCode>( outcome.parsed ) ) << option << value;
         EXPECT_EQ( std::get<ExitCode>( outcome.parsed ).value, exitUsage );
         EXPECT_THAT( outcome.err, HasSubstr( option ) );
         EXPECT_EQ( std::ranges::count( outcome.err, '\n' ), 1 ) << outcome.err;
         EXPECT_EQ( outcome.out, "" );
      }
   }
}

TEST( OptionsTest, UnknownAndIncompleteArgumentsAreErrors ) {
   for( const auto& arguments :
        std::vector<std::vector<char const*>>{ { "--bogus" },
                                               { "extra\nline" },
                                               { "--seconds" },
                                               { "--top", "1", "--top", "2" },
                                               { "--seconds", "10", "--fast-forward", "1" } } ) {
      const Outcome outcome = parse( arguments );
      ASSERT_TRUE( std::holds_alternative<ExitCode>( outcome.parsed ) ) << arguments.front();
      EXPECT_EQ( std::get<ExitCode>( outcome.parsed ).value, exitUsage );
      EXPECT_EQ( std::ranges::count( outcome.err, '\n' ), 1 ) << outcome.err;
   }
}

class ProgramTest : public ::testing::Test {
   const testing_support::RuntimeFolder folder_;
};

// Under a name that no other agent has, whose complaint would be one line more.
const std::string program =
      "'" HOST_AGENT_PROGRAM "' --name t$$ ${ORUQUARN_TEST_FRAMEWORK:+--framework} ";

TEST_F( ProgramTest, ShortRunReportsAndEndsWithZero ) {
   const auto [ code, text ] = shell( program + "--seconds 0.05 --interval 0.01 --top 3" );
   EXPECT_EQ( code, 0 );
   for( char const* part :
        { "time is over", "processes seen", "UserSummary", "scheduler events" } ) {
      EXPECT_THAT( text, HasSubstr( part ) );
   }
}

TEST_F( ProgramTest, HourOfVirtualTimeReportsAndEndsWithZero ) {
   const auto [ code, text ] = shell( program + "--fast-forward 1 --interval 600 --jitter 0" );
   EXPECT_EQ( code, 0 );
   for( char const* part : { "Ran for 60min of virtual time", "WalkTimer", "time is over" } ) {
      EXPECT_THAT( text, HasSubstr( part ) );
   }
}

TEST_F( ProgramTest, FolderThatCannotBeWatchedIsAFailureWithOneLine ) {
   const auto [ code, text ] = shell( program + "--watch-folder '/none\n' 2>&1" );
   EXPECT_EQ( code, 1 );
   EXPECT_THAT( text, HasSubstr( "cannot watch folder /none" ) );
   EXPECT_EQ( std::ranges::count( text, '\n' ), 1 ) << text;
}

TEST_F( ProgramTest, OutputThatCannotBeWrittenIsAFailureWithOneLine ) {
   for( char const* redirection : { "> /dev/full", ">&-", ">&- <&-" } ) {
      for( char const* arguments : { "--seconds 0.01", "--help", "--version" } ) {
         const auto [ code, text ] =
               shell( "{ " + program + arguments + " " + redirection + "; } 2>&1" );
         EXPECT_EQ( code, 1 ) << arguments << redirection;
         EXPECT_THAT( text, HasSubstr( "cannot write to standard output: " ) );
         EXPECT_EQ( std::ranges::count( text, '\n' ), 1 ) << text;
      }
   }
}

TEST_F( ProgramTest, ReaderThatHasGoneIsAFailureAndNotADeath ) {
   int ends[ 2 ];
   ASSERT_EQ( pipe( ends ), 0 );
   close( ends[ 0 ] );
   // The shell hands the end of the broken pipe on; standard error goes to the test.
   const auto [ code, text ] =
         shell( program + "--seconds 0.01 2>&1 >&" + std::to_string( ends[ 1 ] ) );
   close( ends[ 1 ] );
   EXPECT_EQ( code, 1 );
   EXPECT_EQ( text, "host-agent: cannot write to standard output: Broken pipe\n" );
}

#ifdef FAULTS_LIBRARY

TEST_F( ProgramTest, CallsThatFailAreToldAndTheRestGoesOn ) {
   const testing_support::TempDir watched;
   const struct {
      char const* fault;
      int code;
      char const* says;
   } table[] = {
         { "socket:24:1", 0, "Links: not watched: Too many open files\n" },
         { "bind:13:1", 0, "Links: not watched: Permission denied\n" },
         { "recvfrom:5:1", 0, "Links: not watched: Input/output error\n" },
         { "recvfrom:4:1", 0, "news lost 0 times" },
         { "recvfrom:105:1", 0, "news lost 1 times" },
         { "send:105:1", 0, "cannot ask for the list of links: No buffer space available\n" },
         { "socket:24:2", 0, "host-agent: answers no show requests: " },
         { "readdir:5:3", 0, "cannot list the processes: Input/output error\n" },
         { "fstatat:13:1", 0, "skipped a process: Permission denied\n" },
         { "inotify_init1:24:1", 1, "host-agent: cannot watch folder /" },
         { "signalfd:24:1", 1, "host-agent: cannot watch signals: Too many open files\n" },
         { "open:13:1", 1, "host-agent: cannot open the lock file /" },
   };
   for( const auto& [ fault, code, says ] : table ) {
      const auto [ ended, text ] =
            shell( "PROVE_FAULTS=" + std::string( fault ) + " LD_PRELOAD='" FAULTS_LIBRARY "' " +
                   program + "--seconds 0.05 --interval 0.02 --trace '*/9' --watch-folder '" +
                   watched.path() + "' 2>&1" );
      EXPECT_EQ( ended, code ) << fault;
      EXPECT_THAT( text, HasSubstr( says ) ) << fault;
      EXPECT_EQ( text.find( "time is over" ) != text.npos, code == 0 ) << fault;
   }
}

#endif

TEST_F( ProgramTest, HelpAndVersionEndWithZero ) {
   EXPECT_THAT( shell( program + "--help" ).second, HasSubstr( "--interval" ) );
   EXPECT_EQ( shell( program + "--help" ).first, 0 );
   EXPECT_THAT( shell( program + "--version" ).second, HasSubstr( "host-agent " ) );
   EXPECT_EQ( shell( program + "--interval nan 2>&1" ).first, exitUsage );
}

} // namespace
} // namespace HostAgent
