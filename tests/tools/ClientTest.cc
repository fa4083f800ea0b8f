// The client: what it makes of reports, and the program with agents that do not behave.

#include "tools/oruquarn-show/Paint.h"
#include "tools/show/ShowListener.h"
#include "tools/show/ShowSocket.h"

#include "support/Shell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace OruQuarnShow {
namespace {

using namespace std::string_literals;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

TEST( PaintTest, BytesThatCouldSteerATerminalAreReplacedOneByOne ) {
   EXPECT_EQ( harmless( "a\x1b[2J\t\r\x7F\0b\n"s ), "a?[2J????b\n" );
   EXPECT_EQ( harmless( "\u00e9 \u20ac \U0001f600 \u00a0" ), "\u00e9 \u20ac \U0001f600 \u00a0" );
   // One-byte and two-byte CSI, overlong, surrogate, too large, cut, lone continuation.
   EXPECT_EQ( harmless( "\x9b \xc2\x9b \xc0\x9b \xe0\x82\x9b \xed\xa0\x80 \xf4\x90\x80\x80 \xf5 "
                        "\x80 \xe2\x82" ),
              "? ?? ?? ??? ??? ???? ? ? ??" );
}

constexpr char report[] = "Priority\nnormal\nslip\n\nSP   = legend\nMore = legend\n\n"
                          "TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs\n"
                          "--------\n"
                          "severe 1  n          1         0.002  0.001   0.001    3    1     2\n"
                          "moderate  n          1         0.002  0.001   0.001    1    0     2\n"
                          "queued    N          1         0.002  0.001   0.001    0    0     2\n"
                          "idle 9 9 tn          1         0.002  0.001   0.001    0    0     2\n"
                          "Skipped 2 tasks with no runs\n";

TEST( PaintTest, RowsAreColouredByWhatTheTaskDid ) {
   const std::string text = coloured( report );
   EXPECT_THAT( text, AllOf( HasSubstr( "\x1b[1mPriority\x1b[0m\n" ),
                             HasSubstr( "\x1b[1mTaskName" ), HasSubstr( "\x1b[31msevere" ),
                             HasSubstr( "\x1b[33mmoderate" ), HasSubstr( "\x1b[32mqueued" ),
                             HasSubstr( "\nidle" ), HasSubstr( "\nSkipped" ) ) );
   EXPECT_THAT( withoutLegend( report ),
                AllOf( HasSubstr( "slip\n\nTaskName" ), Not( HasSubstr( "legend" ) ) ) );
   EXPECT_EQ( withoutLegend( "\nTaskName\n\nSP " ), "\nTaskName\n\nSP " );
   EXPECT_EQ( coloured( "" ), "" );
}

const std::string program = "'" SHOW_PROGRAM "' ";

std::string uniqueName() { return "c" + std::to_string( getpid() ); }

// Serves one client with the bytes, whatever it asked.
std::string serve( int listening, const std::string& bytes ) {
   const auto waitFor = []( int fd ) {
      pollfd readable{ fd, POLLIN, 0 };
      return poll( &readable, 1, 20000 ) == 1;
   };
   EXPECT_TRUE( waitFor( listening ) );
   const Show::Descriptor client = Show::acceptClient( listening );
   EXPECT_TRUE( client.valid() && waitFor( client.get() ) );
   const Show::Received received = Show::peekRecord( client.get() );
   EXPECT_EQ( write( received.passed.get(), bytes.data(), bytes.size() ),
              static_cast<ssize_t>( bytes.size() ) );
   return received.record;
}

TEST( ClientThreadTest, ExitCodeSaysHowItWent ) {
   const Show::Descriptor listening = Show::listenAs( uniqueName() );
   ASSERT_TRUE( listening.valid() );
   const struct {
      char const* arguments;
      std::string answer;
      int code;
      std::string record;
      std::string says;
   } cases[] = {
         { "", "ok 3\na\tb", 0, "text", "a\tb" },
         { "json --all", "{\"\\u001b\x1b\":\"\xFF\"}", 0, "json all",
           "{\"\\u001b\x1b\":\"\xFF\"}" },
         { "history --completed --match ' x '", "error: no\x1b\n", 1, "history completed match  x ",
           "oruquarn-show: " + uniqueName() + ": no?\n" },
         { "", "ok 4\nabc", 1, "text",
           "oruquarn-show: the answer of " + uniqueName() + " broke off\n" },
         { "json", "", 1, "json", "oruquarn-show: " + uniqueName() + " gave no answer\n" },
         { ">/dev/full", "ok 1\nx", 5, "text",
           "oruquarn-show: cannot write to standard output: No space left on device\n" },
   };
   for( const auto& [ arguments, answer, code, record, says ] : cases ) {
      auto run = std::async( std::launch::async, shell,
                             "{ " + program + uniqueName() + " " + arguments + "; } 2>&1" );
      EXPECT_EQ( serve( listening.get(), answer ), record );
      EXPECT_EQ( run.get(), std::pair( code, says ) ) << arguments;
   }
   // Nobody accepts.
   EXPECT_EQ( shell( program + uniqueName() + " --timeout 0.05 2>/dev/null" ).first, 4 );
   EXPECT_EQ( shell( program + "none-" + uniqueName() + " --wait 0.05 2>/dev/null" ).first, 3 );
   for( char const* wrong :
        { "'a b'", "x yaml", "--watch nan", "--watch 0", "--timeout 1h", "--bogus", "--wait -1",
          "x text y", "x --match $(printf %02049d 0)" } ) {
      EXPECT_EQ( shell( program + wrong + " 2>/dev/null" ).first, 2 ) << wrong;
   }
   EXPECT_THAT( shell( program + "--help" ), ::testing::Pair( 0, HasSubstr( "--watch" ) ) );
   EXPECT_THAT( shell( program + "--version" ),
                ::testing::Pair( 0, HasSubstr( "oruquarn-show " ) ) );
}

TEST( ClientThreadTest, WatchWithoutATerminalPutsReportBelowReportUntilTheAgentGivesNone ) {
   const Show::Descriptor listening = Show::listenAs( uniqueName() );
   auto run = std::async( std::launch::async, shell,
                          "{ " + program + uniqueName() + " --watch 0.1; } 2>&1" );
   for( char const* answer : { "ok 3\nabc", "ok 2\nde", "" } ) {
      serve( listening.get(), answer );
   }
   EXPECT_EQ( run.get(),
              std::pair( 1, "abc\nde\noruquarn-show: " + uniqueName() + " gave no answer\n" ) );
}

#ifdef FAULTS_LIBRARY

TEST( ClientThreadTest, CallsThatFailAreNamed ) {
   const Show::Descriptor listening = Show::listenAs( uniqueName() );
   const struct {
      char const* fault;
      int code;
      std::string says;
   } table[] = {
         { "socket:24:1", 5, "cannot reach the agent: Too many open files" },
         { "connect:13:1", 5, "cannot reach the agent: Permission denied" },
         { "getsockopt:9:1", 1, uniqueName() + " belongs to another user" },
         { "pipe2:24:1", 5, "cannot make a pipe: Too many open files" },
         { "sendmsg:5:1", 5, "cannot send the request: Input/output error" },
         { "sendmsg:32:1", 1, uniqueName() + " hung up" },
         { "sendmsg:104:1", 1, uniqueName() + " hung up" },
   };
   for( const auto& [ fault, code, says ] : table ) {
      EXPECT_EQ( shell( "{ PROVE_FAULTS=" + std::string( fault ) +
                        " LD_PRELOAD='" FAULTS_LIBRARY "' " + program + uniqueName() + "; } 2>&1" ),
                 std::pair( code, "oruquarn-show: " + says + "\n" ) )
            << fault;
   }
}

#endif

// Runs `body` while signals that interrupt system calls rain on the calling thread.
void underSignals( const std::function<void()>& body ) {
   struct sigaction action {};
   action.sa_handler = []( int ) {};
   struct sigaction before {};
   sigaction( SIGWINCH, &action, &before );
   std::atomic<bool> over = false;
   std::thread rain( [ &over, target = pthread_self() ] {
      while( !over ) {
         pthread_kill( target, SIGWINCH );
         poll( nullptr, 0, 1 );
      }
   } );
   body();
   over = true;
   rain.join();
   sigaction( SIGWINCH, &before, nullptr );
}

TEST( ClientThreadTest, SignalsNeitherEndNorProlongTheWaitForAnAgent ) {
   const Show::Descriptor listening = Show::listenAs( uniqueName() );
   std::vector<Show::Descriptor> waiting;
   const auto connect = [ &waiting ]( std::chrono::milliseconds limit ) {
      waiting.push_back( Show::connectTo( uniqueName(), limit ) );
      return waiting.back().valid();
   };
   // However slow the machine is.
   for( int n = 0; n <= Show::waitingMax; ++n ) {
      ASSERT_TRUE( connect( std::chrono::minutes( 1 ) ) );
   }
   underSignals( [ & ] {
      EXPECT_FALSE( connect( std::chrono::milliseconds( 100 ) ) );
      EXPECT_EQ( errno, EAGAIN );
      // A connection that takes nothing more.
      const Show::Descriptor accepted = Show::acceptClient( listening.get() );
      const int client = waiting.front().get();
      std::size_t sent = 0;
      while( Show::sendRecord( client, "x", STDOUT_FILENO, std::chrono::milliseconds( 100 ) ) ) {
         ++sent;
      }
      EXPECT_EQ( errno, EAGAIN );
      EXPECT_GT( sent, 0u );
   } );
}

TEST( ClientForkTest, OutputThatDoesNotBlockGetsAllOfAReport ) {
   const std::string name = uniqueName();
   const Show::Descriptor listening = Show::listenAs( name );
   int ends[ 2 ];
   ASSERT_EQ( pipe2( ends, O_CLOEXEC | O_NONBLOCK ), 0 );
   const Show::Descriptor readEnd( ends[ 0 ] );
   Show::Descriptor writeEnd( ends[ 1 ] );
   fcntl( writeEnd.get(), F_SETPIPE_SZ, 4096 );
   const pid_t client = fork();
   if( client == 0 ) {
      dup2( writeEnd.get(), STDOUT_FILENO );
      execl( SHOW_PROGRAM, SHOW_PROGRAM, name.c_str(), nullptr );
      _exit( 127 );
   }
   writeEnd.reset();
   const std::string text( 50'000, 'x' );
   serve( listening.get(), "ok 50000\n" + text );
   std::string got;
   char buffer[ 4096 ];
   pollfd readable{ readEnd.get(), POLLIN, 0 };
   ssize_t size = 0;
   while( poll( &readable, 1, 20000 ) == 1 &&
          ( size = read( readEnd.get(), buffer, sizeof( buffer ) ) ) > 0 ) {
      got.append( buffer, static_cast<std::size_t>( size ) );
   }
   EXPECT_EQ( got, text );
   int status = -1;
   ASSERT_EQ( waitpid( client, &status, 0 ), client );
   EXPECT_EQ( status, 0 );
}

// The client on a terminal of its own, of four lines.
class OnTerminal {
 public:
   OnTerminal( const std::string& name, char const* seconds )
         : pid_( _start( name, seconds, terminal_ ) ) {}

   pid_t pid() const { return pid_; }
   int terminal() const { return terminal_.get(); }

   // What is written up to `end`, which an empty one leaves to the end of the program.
   std::string upTo( std::string_view end ) {
      std::string text;
      char buffer[ 4096 ];
      while( end.empty() || text.find( end ) == text.npos ) {
         const ssize_t got = read( terminal_.get(), buffer, sizeof( buffer ) );
         if( got <= 0 ) {
            break;
         }
         text.append( buffer, static_cast<std::size_t>( got ) );
      }
      return text;
   }

   int status() {
      int status = -1;
      EXPECT_EQ( waitpid( pid_, &status, 0 ), pid_ );
      return status;
   }

 private:
   static pid_t _start( const std::string& name, char const* seconds, Show::Descriptor& terminal ) {
      int fd = -1;
      winsize size{ 4, 80, 0, 0 };
      const pid_t pid = forkpty( &fd, nullptr, nullptr, &size );
      if( pid == 0 ) {
         setenv( "TERM", "xterm", 1 );
         unsetenv( "NO_COLOR" );
         execl( SHOW_PROGRAM, SHOW_PROGRAM, name.c_str(), "--watch", seconds, nullptr );
         _exit( 127 );
      }
      terminal = Show::Descriptor( fd );
      return pid;
   }

   // Before the process, which it is made with.
   Show::Descriptor terminal_;
   pid_t pid_;
};

constexpr std::string_view drawn = "\x1b[J";
const std::string fiveLines = "ok 11\na\x1b\nb\nc\nd\ne\n";

TEST( ClientForkTest, WatchRedrawsInPlaceAndASignalBringsTheScreenBack ) {
   for( const int signal : { SIGINT, SIGTERM, SIGPIPE } ) {
      // Anew, for a client that is ended late has asked once more and waits to be accepted.
      const Show::Descriptor listening = Show::listenAs( uniqueName() );
      OnTerminal client( uniqueName(), "0.1" );
      for( int round = 0; round < 2; ++round ) {
         serve( listening.get(), fiveLines );
         const std::string screen = client.upTo( drawn );
         EXPECT_EQ( screen.find( "\x1b[?1049h" ) != screen.npos, round == 0 );
         // The title and as many lines as fit; no name steers the terminal.
         EXPECT_THAT( screen, AllOf( HasSubstr( "\x1b[1ma?\x1b[0m" ), HasSubstr( "\nc" ),
                                     Not( HasSubstr( "\nd" ) ) ) );
      }
      kill( client.pid(), signal );
      EXPECT_THAT( client.upTo( {} ), EndsWith( "\x1b[?25h\x1b[?1049l" ) );
      const int status = client.status();
      EXPECT_TRUE( WIFSIGNALED( status ) );
      EXPECT_EQ( WTERMSIG( status ), signal );
   }
}

TEST( ClientForkTest, ScreenFollowsTheWindowAndAStopAndIsLeftWhenTheAgentHasGone ) {
   Show::Descriptor listening = Show::listenAs( uniqueName() );
   OnTerminal client( uniqueName(), "0.1" );
   serve( listening.get(), fiveLines );
   client.upTo( drawn );
   // The system tells the program of it.
   const winsize taller{ 5, 80, 0, 0 };
   ASSERT_EQ( ioctl( client.terminal(), TIOCSWINSZ, &taller ), 0 );
   serve( listening.get(), fiveLines );
   EXPECT_THAT( client.upTo( "\nd" ), HasSubstr( "\nc" ) );
   kill( client.pid(), SIGTSTP );
   int status = 0;
   ASSERT_EQ( waitpid( client.pid(), &status, WUNTRACED ), client.pid() );
   EXPECT_TRUE( WIFSTOPPED( status ) );
   client.upTo( "\x1b[?1049l" );
   kill( client.pid(), SIGCONT );
   serve( listening.get(), fiveLines );
   EXPECT_THAT( client.upTo( drawn ), HasSubstr( "\x1b[?1049h" ) );
   listening.reset();
   EXPECT_THAT( client.upTo( {} ),
                ::testing::ContainsRegex( "\x1b\\[\\?1049loruquarn-show: .*\r\n$" ) );
   status = client.status();
   EXPECT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) != 0 );
}

} // namespace
} // namespace OruQuarnShow
