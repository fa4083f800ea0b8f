// The agent's show socket, with clients of every kind on the same loop; then both programs.

#include "examples/agent/Agent.h"
#include "examples/agent/ShowPipe.h"
#include "examples/agent/ShowServer.h"

#include "examples/ProcFolder.h"
#include "examples/RuntimeFolder.h"
#include "support/Shell.h"
#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace HostAgent {
namespace {

using Show::Descriptor;
using Show::Kind;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using State = Show::Answer::State;

std::size_t openDescriptors() {
   const std::filesystem::directory_iterator folder( "/proc/self/fd" );
   return static_cast<std::size_t>( std::distance( begin( folder ), end( folder ) ) );
}

// A pipe that was made for an answer.
struct Pipe {
   Pipe() {
      int ends[ 2 ];
      EXPECT_EQ( pipe2( ends, O_CLOEXEC ), 0 );
      readEnd = Descriptor( ends[ 0 ] );
      writeEnd = Descriptor( ends[ 1 ] );
   }
   Descriptor readEnd;
   Descriptor writeEnd;
};

// Takes a byte from a pipe at every beat.
struct Beat : Quarn::TimerTask {
   Beat() : TimerTask( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::low, "beat" ) {}
   void taskExecute() override {
      char byte;
      EXPECT_EQ( read( slowEnd, &byte, slowEnd < 0 ? 0 : 1 ), slowEnd < 0 ? -1 : 1 );
      if( ++beats < beatsWanted ) {
         scheduleTaskDelay( 0.001 );
      }
   }
   int slowEnd = -1;
   int beats = 0;
   int beatsWanted = 1;
};

class ShowTest : public ::testing::Test {
 protected:
   // Some turns of the loop, for what has happened already.
   static void turns( int count = 20 ) {
      for( ; count > 0; --count ) {
         Quarn::Platform::doEventLoop( 0.0 );
      }
   }

   template<typename Condition>
   static void turnsUntil( Condition condition ) {
      while( !condition() ) {
         Quarn::Platform::doEventLoop( 0.001 );
      }
   }

   // Asks, and keeps a write end only when told to.
   Pipe ask( const std::string& record ) const {
      Pipe pipe;
      const Descriptor client = connect();
      EXPECT_TRUE( Show::sendRecord( client.get(), record, pipe.writeEnd.get() ) );
      pipe.writeEnd.reset();
      return pipe;
   }

   Descriptor connect() const {
      Descriptor client = Show::connectTo( name_, std::chrono::seconds( 10 ) );
      EXPECT_TRUE( client.valid() );
      return client;
   }

   // Sends a request with any number of descriptors.
   static void sendTogether( int client, const std::vector<int>& fds ) {
      alignas( cmsghdr ) std::array<char, CMSG_SPACE( 12 * sizeof( int ) )> control{};
      iovec part{ const_cast<char*>( "text" ), 4 };
      msghdr message{};
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      message.msg_control = control.data();
      message.msg_controllen = CMSG_SPACE( fds.size() * sizeof( int ) );
      cmsghdr* const header = CMSG_FIRSTHDR( &message );
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN( fds.size() * sizeof( int ) );
      std::memcpy( CMSG_DATA( header ), fds.data(), fds.size() * sizeof( int ) );
      ASSERT_EQ( sendmsg( client, &message, 0 ), 4 );
   }

   // Everything that comes until the agent closes the pipe.
   static std::string read( const Pipe& pipe ) {
      fcntl( pipe.readEnd.get(), F_SETFL, O_NONBLOCK );
      std::string bytes;
      std::array<char, 65536> buffer;
      for( ;; ) {
         const ssize_t size = ::read( pipe.readEnd.get(), buffer.data(), buffer.size() );
         if( size == 0 ) {
            return bytes;
         }
         if( size > 0 ) {
            bytes.append( buffer.data(), static_cast<std::size_t>( size ) );
         } else {
            Quarn::Platform::doEventLoop( 0.0 );
         }
      }
   }

   // So many tasks that no answer with "all" fits into a pipe.
   void fill() {
      for( int i = 0; i < 3000; ++i ) {
         filling_.push_back( std::make_shared<testing_support::FunctionTask>(
               root_, Quarn::TaskPriority::low, "filling" ) );
      }
   }

   const std::string name_ = "s" + std::to_string( getpid() );
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ = Quarn::schedulerRootQuarn();
   std::vector<std::shared_ptr<Quarn::Task>> filling_;
   std::shared_ptr<ShowServer> server_ = std::make_shared<ShowServer>( root_, name_ );
};

TEST_F( ShowTest, EveryKindIsAnsweredWhole ) {
   fill();
   const std::size_t before = openDescriptors();
   for( const Kind kind : { Kind::text, Kind::json, Kind::history } ) {
      const std::string word( Show::kindText( kind ) );
      for( const std::string flags : { "", " all completed", " match Show.*" } ) {
         const std::string bytes = read( ask( word + flags ) );
         const auto answer = Show::parseAnswer( kind, bytes );
         EXPECT_EQ( answer.state, State::whole ) << word << flags;
         EXPECT_THAT( answer.text, HasSubstr( "ShowServer:read" ) ) << word << flags;
         if( kind != Kind::history && flags == " all completed" ) {
            EXPECT_GT( answer.text.size(), 300000u );
            EXPECT_THAT( answer.text, AllOf( HasSubstr( "filling" ), HasSubstr( "ShowSession" ) ) );
         } else {
            EXPECT_THAT( answer.text, Not( HasSubstr( "filling" ) ) );
         }
      }
   }
   EXPECT_EQ( server_->answered(), 9u );
   EXPECT_EQ( server_->sessions(), 0u );
   EXPECT_EQ( openDescriptors(), before );
}

TEST_F( ShowTest, WhatIsNoRequestGetsOneLine ) {
   const struct {
      std::string record;
      char const* says;
   } cases[] = {
         { "bogus", "error: the request is not understood" },
         { std::string(), "error: the request is not understood" },
         { std::string( "text\0", 5 ), "error: the request is not understood" },
         { "text match " + std::string( Show::requestSizeMax, 'a' ),
           "error: the request is too long\n" },
         { "text match (", "error: Mismatched '('" },
         { "text match a\x1b[2J(", "error: the expression has a control character" },
         { "text match \xc2\x9b", "error: the expression has a control character" },
         { "text match (?:|){64}(b)?\\1x", "error: the expression has a back-reference\n" },
         { "json match \\\\\\9", "error: the expression has a back-reference\n" },
         { "json match " + std::string( 2049, 'a' ), "error: Regular expression is too long" },
   };
   for( const auto& [ record, says ] : cases ) {
      const std::string answer = read( ask( record ) );
      EXPECT_THAT( answer, StartsWith( says ) ) << record.size();
      EXPECT_EQ( Show::parseAnswer( Kind::json, answer ).state, State::refused );
   }
   EXPECT_EQ( server_->refused(), std::size( cases ) );
   // An escaped backslash, a NUL, and a character of two bytes.
   for( char const* good : { "\\\\1", "a\\0", "\u00e9" } ) {
      EXPECT_THAT( read( ask( std::string( "text match " ) + good ) ), StartsWith( "ok " ) )
            << good;
   }
}

TEST_F( ShowTest, WhatIsNoWriteEndOfAPipeIsClosedUntouched ) {
   Pipe pipe;
   int sockets[ 2 ];
   ASSERT_EQ( socketpair( AF_UNIX, SOCK_STREAM, 0, sockets ), 0 );
   const Descriptor ends[] = { Descriptor( sockets[ 0 ] ), Descriptor( sockets[ 1 ] ) };
   const Descriptor file( memfd_create( "file", MFD_CLOEXEC ) );
   const Descriptor null( open( "/dev/null", O_WRONLY ) );
   const std::string path = "/proc/self/fd/" + std::to_string( pipe.writeEnd.get() );
   const Descriptor onlyPath( open( path.c_str(), O_PATH ) );
   const std::size_t before = openDescriptors();
   std::size_t sent = 0;
   for( const int fd : { sockets[ 0 ], file.get(), null.get(), pipe.readEnd.get(), onlyPath.get(),
                         server_->taskWatchFd() } ) {
      ASSERT_TRUE( Show::sendRecord( connect().get(), "text", fd ) );
      ++sent;
   }
   // None at all.
   ASSERT_EQ( send( connect().get(), "text", 4, 0 ), 4 );
   ++sent;
   // Gone without a word.
   connect().reset();
   turnsUntil( [ & ] { return server_->refused() == sent && server_->sessions() == 0; } );
   char byte;
   EXPECT_EQ( recv( sockets[ 1 ], &byte, 1, MSG_DONTWAIT ), -1 );
   EXPECT_EQ( lseek( file.get(), 0, SEEK_END ), 0 );
   EXPECT_EQ( openDescriptors(), before );
}

TEST_F( ShowTest, SurplusDescriptorsAreClosedAndRefused ) {
   const std::size_t before = openDescriptors();
   for( const std::size_t count : { 2u, 12u } ) {
      Pipe pipe;
      sendTogether( connect().get(), std::vector<int>( count, pipe.writeEnd.get() ) );
      pipe.writeEnd.reset();
      EXPECT_EQ( read( pipe ), "error: more than one descriptor came with the request\n" );
   }
   EXPECT_EQ( openDescriptors(), before );
}

// What keeps the last close of a socket waiting for an hour: it has data that nobody takes.
struct Lingering {
   Lingering() {
      const Descriptor listening( socket( AF_INET, SOCK_STREAM, 0 ) );
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl( INADDR_LOOPBACK );
      socklen_t size = sizeof( address );
      auto* const plain = reinterpret_cast<sockaddr*>( &address );
      EXPECT_EQ( bind( listening.get(), plain, size ), 0 );
      EXPECT_EQ( listen( listening.get(), 1 ), 0 );
      EXPECT_EQ( getsockname( listening.get(), plain, &size ), 0 );
      sender = Descriptor( socket( AF_INET, SOCK_STREAM, 0 ) );
      EXPECT_EQ( ::connect( sender.get(), plain, size ), 0 );
      receiver = Descriptor( accept( listening.get(), nullptr, nullptr ) );
      const std::vector<char> data( 65536 );
      while( send( sender.get(), data.data(), data.size(), MSG_DONTWAIT ) > 0 ) {
      }
      const linger hour{ 1, 3600 };
      EXPECT_EQ( setsockopt( sender.get(), SOL_SOCKET, SO_LINGER, &hour, sizeof( hour ) ), 0 );
   }
   Descriptor sender;
   Descriptor receiver;
};

TEST_F( ShowTest, DescriptorWhoseCloseWaitsHoldsNobodyUp ) {
   const std::size_t before = openDescriptors();
   // The only descriptor; beside a pipe; in a second record that nobody reads.
   constexpr std::array<char const*, 3> words = { "", "error:", "ok" };
   for( const std::size_t way : { 0u, 1u, 2u } ) {
      Lingering lingering;
      Pipe pipe;
      const Descriptor client = connect();
      if( way == 2 ) {
         sendTogether( client.get(), { pipe.writeEnd.get() } );
      }
      sendTogether( client.get(), way == 1
                                        ? std::vector{ pipe.writeEnd.get(), lingering.sender.get(),
                                                       lingering.sender.get() }
                                        : std::vector{ lingering.sender.get() } );
      lingering.sender.reset();
      pipe.writeEnd.reset();
      const std::string answer = read( pipe );
      EXPECT_EQ( answer.substr( 0, answer.find( ' ' ) ), words[ way ] );
   }
   // Nobody has accepted this one yet when the agent ends, nor read that one.
   Lingering first;
   Lingering second;
   const Descriptor admitted = connect();
   turnsUntil( [ & ] { return server_->sessions() == 1; } );
   const Descriptor waiting = connect();
   sendTogether( admitted.get(), { first.sender.get() } );
   sendTogether( waiting.get(), { second.sender.get() } );
   first.sender.reset();
   second.sender.reset();
   server_.reset();
   first.receiver.reset();
   second.receiver.reset();
   // The two connections are open here; the socket that listened is gone.
   EXPECT_EQ( openDescriptors(), before + 1 );
}

TEST_F( ShowTest, ReaderThatGoesEndsItsSessionAndNothingElse ) {
   fill();
   const std::size_t before = openDescriptors();
   for( char const* record : { "text all", "json all", "text match (" } ) {
      for( const int late : { 0, 20 } ) {
         Pipe pipe = ask( record );
         // At first nothing has been written; later the pipe is full.
         turns( late );
         pipe.readEnd.reset();
         turnsUntil( [ & ] { return openDescriptors() == before && server_->sessions() == 0; } );
      }
   }
   // The process has not been ended by SIGPIPE, whose handling is the default one here.
   EXPECT_EQ( Show::parseAnswer( Kind::text, read( ask( "text" ) ) ).state, State::whole );
}

TEST_F( ShowTest, ReaderThatNeverReadsIsGivenUp ) {
   fill();
   server_.reset();
   server_ = std::make_shared<ShowServer>( root_, name_, ShowServer::Patience{ 0.02, 0.02, 0.02 } );
   const std::size_t before = openDescriptors();
   for( const Kind kind : { Kind::text, Kind::json } ) {
      const Pipe pipe = ask( std::string( Show::kindText( kind ) ) + " all" );
      const Descriptor idle = connect();
      const std::uint64_t givenUp = server_->givenUp();
      turnsUntil( [ & ] { return server_->givenUp() == givenUp + 1; } );
      turnsUntil( [ & ] { return server_->sessions() == 0; } );
      EXPECT_EQ( Show::parseAnswer( kind, read( pipe ) ).state, State::brokenOff );
   }
   EXPECT_EQ( server_->answered(), 0u );
   EXPECT_EQ( openDescriptors(), before );
}

TEST_F( ShowTest, TimersRunOnTimeWhileAReaderTakesAByteATime ) {
   fill();
   // A client that makes the pipe blocking again behind the agent's back.
   Pipe slow;
   ASSERT_TRUE( Show::sendRecord( connect().get(), "text all", slow.writeEnd.get() ) );
   const Pipe document = ask( "json all" );
   turnsUntil( [ & ] { return server_->sessions() == 2; } );
   turns();
   EXPECT_EQ( fcntl( slow.writeEnd.get(), F_GETFL ) & O_NONBLOCK, 0 );
   const auto beat = std::make_shared<Beat>();
   beat->beatsWanted = 100;
   beat->slowEnd = slow.readEnd.get();
   const std::uint64_t before = root_->runTaskCount( Quarn::TaskPriority::normal ) +
                                root_->runTaskCount( Quarn::TaskPriority::scavenge );
   beat->scheduleTaskDelay( 0.001 );
   turnsUntil( [ & ] { return beat->beats == 100; } );
   // A hundred bytes make no room for more, so nothing else has had anything to do.
   EXPECT_LE( root_->runTaskCount( Quarn::TaskPriority::normal ) +
                    root_->runTaskCount( Quarn::TaskPriority::scavenge ) - before,
              2u );
   EXPECT_EQ( server_->sessions(), 2u );
}

TEST_F( ShowTest, ClientsBeyondTheBoundWaitForTheirTurn ) {
   std::vector<Descriptor> clients;
   for( std::size_t i = 0; i < ShowServer::sessionsMax + 3; ++i ) {
      clients.push_back( connect() );
   }
   const Pipe last = ask( "text" );
   turns( 50 );
   EXPECT_EQ( server_->sessions(), ShowServer::sessionsMax );
   clients.clear();
   EXPECT_EQ( Show::parseAnswer( Kind::text, read( last ) ).state, State::whole );
   EXPECT_EQ( server_->sessions(), 0u );
}

TEST_F( ShowTest, OldestMakesPlaceForWhoWaits ) {
   fill();
   server_.reset();
   server_ = std::make_shared<ShowServer>( root_, name_, ShowServer::Patience{ 3600, 3600, 0.02 } );
   std::vector<Pipe> slow;
   for( char const* record : { "json all", "text all", "json all", "text all" } ) {
      slow.push_back( ask( record ) );
   }
   turnsUntil( [ & ] { return server_->sessions() == ShowServer::sessionsMax; } );
   // Nobody waits, so nobody is given up.
   Quarn::Platform::doEventLoop( 0.05 );
   EXPECT_EQ( server_->sessions(), ShowServer::sessionsMax );
   const Pipe fifth = ask( "text" );
   EXPECT_EQ( Show::parseAnswer( Kind::text, read( fifth ) ).state, State::whole );
   EXPECT_GE( server_->givenUp(), 1u );
   EXPECT_EQ( Show::parseAnswer( Kind::json, read( slow[ 0 ] ) ).state, State::brokenOff );
}

TEST_F( ShowTest, ClientThatDoesNotAskIsGivenUpLongBeforeAReader ) {
   fill();
   server_.reset();
   // The reader has asked before the agent comes to look, however long that takes.
   server_ = std::make_shared<ShowServer>( root_, name_, ShowServer::Patience{ 0, 3600, 3600 } );
   const Pipe reader = ask( "text all" );
   const Descriptor silent = connect();
   char byte;
   turnsUntil( [ & ] { return recv( silent.get(), &byte, 1, MSG_DONTWAIT ) == 0; } );
   EXPECT_EQ( server_->sessions(), 1u );
   EXPECT_EQ( Show::parseAnswer( Kind::text, read( reader ) ).state, State::whole );
}

TEST_F( ShowTest, AgentThatWasHeldUpAnswersWhoAskedMeanwhile ) {
   fill();
   Pipe pipe;
   const Descriptor client = connect();
   turnsUntil( [ & ] { return server_->sessions() == 1; } );
   EXPECT_TRUE( Show::sendRecord( client.get(), "text all", pipe.writeEnd.get() ) );
   pipe.writeEnd.reset();
   if( Quarn::hasThreadLocalSingletons() ) {
      const timeval hour{ 3600, 0 };
      Quarn::applyFastForwardDelta( &hour );
   }
   EXPECT_EQ( Show::parseAnswer( Kind::text, read( pipe ) ).state, State::whole );
}

TEST_F( ShowTest, NameIsFreeAgainWhenItsAgentHasStopped ) {
   const auto second = std::make_shared<ShowServer>( root_, name_ );
   EXPECT_EQ( second->refusal(), "another agent has the name '" + name_ + "'" );
   fill();
   const Pipe never = ask( "json all" );
   const Pipe neverText = ask( "text all" );
   const Descriptor idle = connect();
   turnsUntil( [ & ] { return server_->sessions() == 3; } );
   turns();
   server_->stop();
   const auto third = std::make_shared<ShowServer>( root_, name_ );
   EXPECT_EQ( third->refusal(), "" );
   third->stop();
   second->stop();
   // The loop ends by itself, although nobody reads. The last pass of the timers disarms the wheel.
   const auto last = std::make_shared<Beat>();
   last->scheduleTaskDelay( -1.0 );
   Quarn::Platform::doEventLoop();
   EXPECT_EQ( server_->sessions(), 0u );
   EXPECT_EQ( server_->givenUp(), 2u );
}

TEST_F( ShowTest, ForkedClientOfAnotherUserGetsNoWordAndNoPlace ) {
   if( geteuid() != 0 ) {
      GTEST_SKIP() << "only root can become another user";
   }
   Lingering lingering;
   const pid_t child = fork();
   if( child == 0 ) {
      bool silent = setuid( 65534 ) == 0;
      std::vector<Descriptor> connections;
      while( connections.size() < ShowServer::sessionsMax ) {
         connections.push_back( connect() );
      }
      sendTogether( connect().get(), { lingering.sender.get() } );
      lingering.sender.reset();
      const Pipe pipe = ask( "text" );
      char byte;
      silent = silent && ::read( pipe.readEnd.get(), &byte, 1 ) == 0;
      _exit( silent ? 0 : 1 );
   }
   lingering.sender.reset();
   int status = -1;
   turnsUntil( [ & ] {
      EXPECT_EQ( server_->sessions(), 0u );
      return waitpid( child, &status, WNOHANG ) == child;
   } );
   EXPECT_EQ( status, 0 );
   EXPECT_EQ( server_->refused(), ShowServer::sessionsMax + 2 );
}

TEST( ShowPipeTest, LineIsDroppedWhereItWouldWait ) {
   Pipe pipe;
   fcntl( pipe.writeEnd.get(), F_SETPIPE_SZ, 4096 );
   const std::string full( 4096, 'x' );
   ASSERT_EQ( write( pipe.writeEnd.get(), full.data(), full.size() ), 4096 );
   writeLineAtOnce( pipe.writeEnd.get(), "line\n" );
   pipe.readEnd.reset();
   writeLineAtOnce( pipe.writeEnd.get(), "line\n" );
   sigset_t pending;
   sigpending( &pending );
   EXPECT_FALSE( sigismember( &pending, SIGPIPE ) );
}

// Asks its agent for a long answer, then locks the pipe and ends the run.
struct EndBehindALock : Quarn::TimerTask {
   explicit EndBehindALock( std::string name )
         : TimerTask( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::low, "end" ),
           name_( std::move( name ) ) {}
   void taskExecute() override {
      if( !asked_ ) {
         asked_ = true;
         fcntl( pipe.writeEnd.get(), F_SETPIPE_SZ, 4096 );
         const Descriptor client = Show::connectTo( name_, std::chrono::seconds( 10 ) );
         EXPECT_TRUE( Show::sendRecord( client.get(), "json all", pipe.writeEnd.get() ) );
         return scheduleTaskDelay( 0.001 );
      }
      int waiting = 0;
      EXPECT_EQ( ioctl( pipe.readEnd.get(), FIONREAD, &waiting ), 0 );
      if( waiting == 0 ) {
         return scheduleTaskDelay( 0.001 );
      }
      fchmod( pipe.writeEnd.get(), 0 );
      // Root would open it nevertheless.
      setfsuid( 65534 );
      raise( SIGTERM );
   }
   Pipe pipe;

 private:
   std::string name_;
   bool asked_ = false;
};

TEST( ShowAgentTest, AnswerThatCannotBeThrownAwayDoesNotKeepTheAgent ) {
   const ProcFolder folder;
   Options options;
   options.seconds = 0.0;
   options.name = "e" + std::to_string( getpid() );
   auto agent = std::make_unique<Agent>( options, folder.path() );
   std::array<std::shared_ptr<Quarn::Task>, 300> filling;
   for( auto& task : filling ) {
      task = std::make_shared<testing_support::FunctionTask>( Quarn::schedulerRootQuarn(),
                                                              Quarn::TaskPriority::low, "filling" );
   }
   const auto end = std::make_shared<EndBehindALock>( options.name );
   end->scheduleTaskDelay( 0.001 );
   const auto start = std::chrono::steady_clock::now();
   agent->run();
   EXPECT_GE( std::chrono::steady_clock::now() - start,
              std::chrono::duration<double>( Agent::lastAnswerSeconds ) );
   EXPECT_EQ( agent->stopReason(), "SIGTERM" );
   EXPECT_EQ( agent->showServer()->sessions(), 1u );
   setfsuid( geteuid() );
   agent.reset();
   // The rest of the document goes to nobody.
   end->pipe.readEnd.reset();
   Quarn::Platform::doEventLoop( 0.0 );
}

#ifdef SHOW_PROGRAM

class ShowProgramTest : public ::testing::Test {
   const testing_support::RuntimeFolder folder_;
};

// Runs the agent while the command does, with both in variables of the shell.
std::pair<int, std::string> besideAgent( const std::string& command,
                                         const std::string& environment = {} ) {
   return shell( "name=p$$; show='" SHOW_PROGRAM "'; agent='" HOST_AGENT_PROGRAM "'; " +
                 environment +
                 " \"$agent\" --seconds 0 --name $name ${ORUQUARN_TEST_FRAMEWORK:+--framework} "
                 ">/dev/null & "
                 "\"$show\" $name --wait 20 --all >/dev/null; { " +
                 command + " ; }; code=$?; kill $!; wait $!; exit $code" );
}

TEST_F( ShowProgramTest, RunningAgentAnswersTheClient ) {
   EXPECT_THAT( besideAgent( "$show $name" ),
                ::testing::Pair( 0, AllOf( StartsWith( "Priority " ), HasSubstr( "WalkTimer " ),
                                           Not( HasSubstr( "\x1b" ) ) ) ) );
   EXPECT_THAT( besideAgent( "$show $name history --match WalkTimer" ),
                ::testing::Pair( 0, AllOf( StartsWith( "Last " ), HasSubstr( "WalkTimer" ) ) ) );
   EXPECT_EQ( besideAgent( "$show $name --match '(' 2>/dev/null" ).first, 1 );
   // The user's own lock is in another place then.
   EXPECT_THAT(
         besideAgent( "mkdir $XDG_RUNTIME_DIR/other; XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR/other "
                      "$agent --seconds 0.01 --name $name 2>&1" ),
         ::testing::Pair( 0, HasSubstr( "host-agent: answers no show requests: another agent "
                                        "has the name 'p" ) ) );
   EXPECT_EQ( besideAgent( "kill -STOP $!; $show $name --timeout 0.1 2>/dev/null; code=$?; "
                           "kill -CONT $!; (exit $code)" )
                    .first,
              4 );
}

#ifdef FAULTS_LIBRARY

// The first client, whose answer nobody looks at, meets the call that fails.
TEST_F( ShowProgramTest, CallThatFailsForOneClientDoesNotForTheNext ) {
   for( char const* fault : { "accept4:5:1", "accept4:24:1", "accept4:103:1", "getsockopt:9:1",
                              "recvmsg:5:1", "recvmsg:4:1", "pipe2:24:1" } ) {
      EXPECT_THAT( besideAgent( "$show $name --match WalkTimer",
                                "PROVE_FAULTS='" + std::string( fault ) +
                                      "' LD_PRELOAD='" FAULTS_LIBRARY "'" ),
                   ::testing::Pair( 0, HasSubstr( "WalkTimer " ) ) )
            << fault;
   }
}

#endif

TEST_F( ShowProgramTest, SecondAgentOfANameSaysWhoIsTheFirstAndEnds ) {
   const auto [ code, text ] =
         besideAgent( "echo host-agent: process $! runs already under the name "
                      "\\'$name\\'; $agent --name $name 2>&1" );
   EXPECT_EQ( code, exitRunning );
   const auto lineEnd = text.find( '\n' ) + 1;
   ASSERT_NE( lineEnd, 0u );
   EXPECT_EQ( text.substr( lineEnd ), text.substr( 0, lineEnd ) );
   // The name is free when the first has ended, in whatever way, and others are free always.
   EXPECT_EQ( besideAgent( "kill -KILL $!; wait $!; $agent --seconds 0.01 --name $name" ).first,
              0 );
   EXPECT_EQ( besideAgent( "$agent --seconds 0.01 --name $name.2" ).first, 0 );
}

TEST_F( ShowProgramTest, JsonPassesAnotherParser ) {
   if( shell( "command -v python3" ).first != 0 ) {
      GTEST_SKIP() << "there is no python3";
   }
   EXPECT_EQ( besideAgent( "$show $name json --all --completed | python3 -c 'import json, sys\n"
                           "root = json.loads( sys.stdin.buffer.read() )[ \"schedulers\" ]\n"
                           "print( *root, root[ \"main\" ][ \"isRootScheduler\" ] )'" ),
              std::pair( 0, std::string( "main True\n" ) ) );
}

#endif

} // namespace
} // namespace HostAgent
