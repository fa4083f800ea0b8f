// Snapshots delivered as JSON onto descriptors, while the loop goes on.

#include "support/Fatal.h"
#include "support/Tasks.h"
#include "support/TraceCapture.h"

#include <Quarn/Debug.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing_support::historyOf;
using testing_support::makeTask;
using testing_support::TraceCapture;
using Shots = std::vector<std::shared_ptr<const TaskSchedulerSnapshot>>;

bool isOpen( int fd ) { return fcntl( fd, F_GETFD ) != -1; }
bool isNonBlocking( int fd ) { return ( fcntl( fd, F_GETFL ) & O_NONBLOCK ) != 0; }

// A pipe of one page, with a look at the open file that survives the descriptor.
struct Pipe {
   Pipe() {
      int fds[ 2 ];
      EXPECT_EQ( pipe( fds ), 0 );
      reader = fds[ 0 ];
      writer = fds[ 1 ];
      fcntl( reader, F_SETFL, O_NONBLOCK );
      fcntl( writer, F_SETPIPE_SZ, 4096 );
   }
   ~Pipe() { close( reader ); }
   Pipe( const Pipe& ) = delete;
   Pipe& operator=( const Pipe& ) = delete;

   // Takes what is there, up to `most` bytes; 0 at the end, and -1 when there is nothing yet.
   ssize_t take( std::size_t most ) {
      std::string bytes( most, '\0' );
      const ssize_t n = read( reader, bytes.data(), most );
      if( n > 0 ) {
         got.append( bytes, 0, static_cast<std::size_t>( n ) );
      }
      return n;
   }

   int reader;
   int writer;
   std::string got;
};

std::string documentOf( const Shots& shots ) {
   std::ostringstream out;
   const auto context = TaskScheduler::PrintContextIs( out );
   for( const auto& shot : shots ) {
      shot->renderJson( *context );
   }
   context->closeJson();
   return out.str();
}

// Snapshots of some 60 thousand bytes each.
Shots largeShots( TaskSchedulerRoot& root ) {
   std::vector<std::shared_ptr<Task>> tasks;
   for( unsigned n = 0; n < 100; ++n ) {
      tasks.push_back( makeTask( root.shared_from_this(), TaskPriority::normal, "task" ) );
   }
   return { root.snapshot( "a", true, false, true, {}, 0 ),
            root.snapshot( "b", true, false, false, {}, 1 ) };
}

class SnapshotAsyncTest : public testing::Test {
 protected:
   SnapshotAsyncTest() {
      // However slow the machine is, a run yields only where it is told to.
      root->defaultTaskQuantumIs( std::chrono::hours( 1 ) );
   }
   std::function<void()> done( int fd ) {
      return [ this, fd ] {
         ++completions;
         EXPECT_FALSE( isOpen( fd ) ) << "closed before";
      };
   }
   void turns( unsigned count ) {
      for( unsigned n = 0; n < count; ++n ) {
         loop.runOneTurn();
      }
   }
   static String nameFor( int fd ) { return fmt::format( "TaskSchedulerRenderJson-fd:{}", fd ); }
   TaskStat writingOf( int fd ) const {
      return root->taskStatForTest( nameFor( fd ) + ":FdWrite:write" );
   }
   std::shared_ptr<TaskImpl> taskOf( int fd, char const* end = "" ) const {
      return std::dynamic_pointer_cast<TaskImpl>( root->taskForTest( nameFor( fd ) + end ) );
   }

   Testing::VirtualTimeLoop loop;
   std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   unsigned completions = 0;
};

TEST_F( SnapshotAsyncTest, SlowReaderGetsTheWholeDocument ) {
   for( const bool nonBlockingBefore : { false, true } ) {
      Pipe pipe;
      fcntl( pipe.writer, F_SETFL, nonBlockingBefore ? O_NONBLOCK : 0 );
      const int look = dup( pipe.writer );
      const Shots shots = largeShots( *root );
      const std::string expected = documentOf( shots );
      completions = 0;
      root->snapshotRenderJsonAsync( pipe.writer, shots, done( pipe.writer ) );
      EXPECT_TRUE( isNonBlocking( look ) );
      turns( 10 );
      const TaskStat writing = writingOf( pipe.writer );
      EXPECT_EQ( writing.taskWorkCountTotal(), 4096u );
      EXPECT_EQ( writing.taskWorkCountTotal() + writing.taskWorkPending(),
                 expected.find( ",\"b\":{\"schedulerName\"" ) );
      EXPECT_EQ( root->taskStatForTest( nameFor( pipe.writer ) ).taskWorkPending(), 1u );
      while( completions == 0 && pipe.got.size() < expected.size() ) {
         pipe.take( 1000 );
         turns( 2 );
      }
      turns( 5 );
      while( pipe.take( 1000 ) > 0 ) {
      }
      EXPECT_EQ( pipe.got, expected );
      EXPECT_EQ( completions, 1u );
      EXPECT_EQ( isNonBlocking( look ), nonBlockingBefore );
      EXPECT_FALSE( root->taskForTest( nameFor( pipe.writer ) ) );
      const auto render = root->completedTaskStatForTest( nameFor( pipe.writer ) );
      EXPECT_EQ( render.taskWorkCountTotal(), 2u * render.taskCompletedCount() );
      EXPECT_EQ( root->completedTaskStatForTest( nameFor( pipe.writer ) + ":FdWrite:write" )
                       .taskWorkPending(),
                 0u );
      close( look );
   }
}

TEST_F( SnapshotAsyncTest, GoneReaderEndsItQuietly ) {
   signal( SIGPIPE, SIG_DFL );
   const auto body = [ & ] {
      Pipe pipe;
      root->snapshotRenderJsonAsync( pipe.writer, largeShots( *root ), done( pipe.writer ) );
      turns( 5 );
      pipe.take( 4096 );
      turns( 5 );
      Platform::setTraceFormat( "%f/%l %m" );
      Platform::getDebugHandler( "TaskScheduler", false )->enabledIs( 2, true );
      TraceCapture trace;
      close( pipe.reader );
      loop.runUntilIdle();
      EXPECT_EQ( completions, 1u );
      EXPECT_FALSE( isOpen( pipe.writer ) );
      EXPECT_EQ( pipe.got.size(), 4096u );
      // The rest of each piece, and once the two brackets.
      EXPECT_EQ( trace.count( "TaskScheduler/2 SnapshotWriteJsonTask::taskExecuteWritable() "
                              "Writing to fd " ),
                 3u );
      EXPECT_THAT( trace.text(), HasSubstr( "at offset 0 of 2 failed Broken pipe\n" ) );
      // Without its reader, the descriptor counts as readable.
      EXPECT_THAT( historyOf( *root ), Not( testing::Contains( HasSubstr( "fdReadable" ) ) ) );
      _exit( HasFailure() ? 1 : 0 );
   };
   EXPECT_EXIT( body(), testing::ExitedWithCode( 0 ), "" );
}

TEST_F( SnapshotAsyncTest, WriterYieldsBetweenWritesAndTellsWhatIsLeft ) {
   Platform::setTraceFormat( "%f/%l %m" );
   Platform::getDebugHandler( "TaskScheduler", false )->enabledIs( 3, true );
   Pipe pipe;
   const int fd = pipe.writer;
   constexpr std::size_t room = 32768;
   fcntl( fd, F_SETPIPE_SZ, room );
   const Shots shots = { largeShots( *root )[ 0 ] };
   const std::string expected = documentOf( shots );
   // All but the two last brackets.
   const std::size_t size = expected.size() - 2;
   TraceCapture trace;
   root->snapshotRenderJsonAsync( fd, shots, [ & ] {
      EXPECT_EQ( root->taskStatForTest( nameFor( fd ) ).taskWorkPending(), 0u );
      ++completions;
   } );
   turns( 1 );
   EXPECT_EQ( trace.text(),
              fmt::format( "TaskScheduler/3 SnapshotRenderJsonTask::writeOstrToFileDescriptor() "
                           "Request write to fd {} of {} bytes\n",
                           fd, size ) );
   const auto writer = taskOf( fd, ":FdWrite:write" );
   writer->taskForceYieldInTestIs( true );
   const auto expectRun = [ & ]( std::size_t left, const std::string& traced ) {
      const std::uint64_t runs = writer->taskRunCount();
      for( unsigned n = 0; n < 10 && writer->taskRunCount() == runs; ++n ) {
         turns( 1 );
      }
      EXPECT_EQ( writingOf( fd ).taskWorkPending(), left );
      EXPECT_EQ( writingOf( fd ).taskWorkCountTotal(), size - left );
      EXPECT_THAT( trace.text(),
                   EndsWith( "\nTaskScheduler/3 SnapshotWriteJsonTask::taskExecuteWritable() " +
                             traced ) );
   };
   const auto wrote = [ & ]( std::size_t at, std::size_t bytes ) {
      return fmt::format(
            "Writing to fd {} at offset {} of {} wrote {} bytes of {} remaining yielding\n", fd, at,
            size, bytes, size - at );
   };
   expectRun( size - room, wrote( 0, room ) );
   expectRun( size - room,
              fmt::format( "Writing to fd {} at offset {} of {} got Resource temporarily "
                           "unavailable\n",
                           fd, room, size ) );
   pipe.take( room );
   expectRun( 0, wrote( room, size - room ) );
   expectRun( 0, fmt::format( "Completed writing to fd {}\n", fd ) );
   loop.runUntilIdle();
   EXPECT_EQ( completions, 1u );
   pipe.take( room );
   EXPECT_TRUE( pipe.got == expected );
}

TEST_F( SnapshotAsyncTest, SnapshotsAreReleasedBeforeTheLastWriteEnds ) {
   Pipe pipe;
   const int look = dup( pipe.writer );
   auto shot = root->snapshot( {}, true, false, false, {}, 0 );
   const std::weak_ptr<const TaskSchedulerSnapshot> held = shot;
   root->snapshotRenderJsonAsync( pipe.writer, { std::move( shot ) }, done( pipe.writer ) );
   turns( 1 );
   while( writingOf( pipe.writer ).taskWorkCountTotal() == 0 ) {
      turns( 1 );
   }
   EXPECT_FALSE( held.expired() );
   // Nobody reads what fills the pipe now.
   while( write( look, "junk", 4 ) > 0 ) {
   }
   turns( 10 );
   EXPECT_TRUE( held.expired() );
   EXPECT_EQ( completions, 0u );
   while( pipe.take( 4096 ) > 0 ) {
      turns( 3 );
   }
   EXPECT_EQ( completions, 1u );
   EXPECT_THAT( pipe.got, EndsWith( "junk}}" ) );
   close( look );
}

TEST_F( SnapshotAsyncTest, RunsOutOfTurnAreFatal ) {
   Pipe pipe;
   root->snapshotRenderJsonAsync( pipe.writer, Shots(), done( pipe.writer ) );
   turns( 1 );
   EXPECT_FATAL( taskOf( pipe.writer )->taskRunFromTest(),
                 "Executing before previous write completed." );
   taskOf( pipe.writer, ":FdWrite:write" )->taskRunFromTest();
   EXPECT_FATAL( taskOf( pipe.writer, ":FdWrite:write" )->taskRunFromTest(),
                 "Notified about an unexpected write complete" );
   loop.runUntilIdle();
   EXPECT_EQ( completions, 1u );
}

TEST_F( SnapshotAsyncTest, EveryKindOfDescriptorComesToAnEnd ) {
   const Shots shots = largeShots( *root );
   const auto deliver = [ & ]( int fd, const Shots& what ) {
      completions = 0;
      root->snapshotRenderJsonAsync( fd, what, done( fd ) );
      loop.runUntilIdle();
      EXPECT_EQ( completions, 1u );
      EXPECT_FALSE( isOpen( fd ) );
      EXPECT_FALSE( root->taskForTest( nameFor( fd ) ) );
   };
   std::FILE* file = std::tmpfile();
   deliver( dup( fileno( file ) ), shots );
   std::string text( 1000000, '\0' );
   text.resize( static_cast<std::size_t>( pread( fileno( file ), text.data(), text.size(), 0 ) ) );
   EXPECT_EQ( text, documentOf( shots ) );
   EXPECT_FALSE( isNonBlocking( fileno( file ) ) );
   std::fclose( file );

   deliver( open( "/dev/null", O_WRONLY ), shots );

   Pipe pipe;
   deliver( pipe.writer, {} );
   pipe.take( 100 );
   EXPECT_EQ( pipe.got, "{\"schedulers\":{}}" );

   // Closed under the render.
   Pipe second;
   completions = 0;
   root->snapshotRenderJsonAsync( second.writer, shots, done( second.writer ) );
   close( second.writer );
   loop.runUntilIdle();
   EXPECT_EQ( completions, 1u );
}

TEST_F( SnapshotAsyncTest, OtherErrorsAreFatalAndLeaveNothingBehind ) {
   const int fd = open( "/dev/full", O_WRONLY );
   root->snapshotRenderJsonAsync( fd, largeShots( *root ), done( fd ) );
   const std::string text =
         fmt::format( ": Write to fd {} failed No space left on device(28)", fd );
   for( unsigned piece = 0; piece < 3; ++piece ) {
      EXPECT_FATAL( loop.runUntilIdle(), text );
   }
   loop.runUntilIdle();
   EXPECT_EQ( completions, 1u );
   EXPECT_FALSE( root->taskForTest( nameFor( fd ) ) );

   // What the end of the write throws does not hide the assertion.
   const int next = open( "/dev/full", O_WRONLY );
   root->snapshotRenderJsonAsync( next, Shots() );
   turns( 1 );
   const auto writer = taskOf( next, ":FdWrite:write" );
   writer->taskSuspendedIs( true );
   loop.runUntilIdle();
   unsigned thrown = 0;
   root->registerBusyCallback( this, [ & ] {
      ++thrown;
      throw std::runtime_error( "thrown when busy" );
   } );
   EXPECT_FATAL( writer->taskRunFromTest(), "TaskSchedulerCpp:taskExecuteWritable:" );
   EXPECT_EQ( thrown, 1u );
   root->unregisterBusyCallback( this );
}

TEST_F( SnapshotAsyncTest, CompletionMayThrowAndStartAnother ) {
   Pipe pipe;
   Pipe next;
   root->snapshotRenderJsonAsync( pipe.writer, Shots(), [ & ] {
      done( pipe.writer )();
      root->snapshotRenderJsonAsync( next.writer, Shots() );
      throw std::runtime_error( "thrown by the completion" );
   } );
   EXPECT_THROW( loop.runUntilIdle(), std::runtime_error );
   EXPECT_EQ( completions, 1u );
   EXPECT_FALSE( root->taskForTest( nameFor( pipe.writer ) ) );
   loop.runUntilIdle();
   EXPECT_FALSE( isOpen( next.writer ) );
   next.take( 100 );
   EXPECT_EQ( next.got, "{\"schedulers\":{}}" );
}

TEST_F( SnapshotAsyncTest, GroupLivesUntilItsRenderEnds ) {
   auto group = TaskGroup::TaskGroupIs( "g", TaskPriority::high, false, root );
   const std::weak_ptr<TaskGroup> weak = group;
   Pipe pipe;
   const Shots shots = largeShots( *root );
   group->snapshotRenderJsonAsync( pipe.writer, shots, done( pipe.writer ) );
   turns( 5 );
   for( char const* end : { "", ":FdWrite:read", ":FdWrite:write" } ) {
      EXPECT_EQ( group->taskForTest( nameFor( pipe.writer ) + end )->taskPriority(),
                 TaskPriority::high );
   }
   group.reset();
   turns( 5 );
   EXPECT_FALSE( weak.expired() );
   while( pipe.take( 4096 ) != 0 ) {
      turns( 2 );
   }
   EXPECT_EQ( pipe.got, documentOf( shots ) );
   EXPECT_EQ( completions, 1u );
   EXPECT_TRUE( weak.expired() );
}

// Renders of a root and of a group, under way on full pipes.
struct AbandonedRenders {
   template<typename Turn>
   void start( const std::shared_ptr<TaskSchedulerRoot>& root, const Turn& turn ) {
      const auto group = TaskGroup::TaskGroupIs( "g", TaskPriority::low, false, root );
      schedulers[ 0 ] = root;
      schedulers[ 1 ] = group;
      const Shots shots = largeShots( *root );
      shot = shots[ 0 ];
      auto held = std::make_shared<int>();
      captured = held;
      const auto unwanted = [ held ] { ADD_FAILURE() << "completed"; };
      root->snapshotRenderJsonAsync( pipe.writer, shots, unwanted );
      group->snapshotRenderJsonAsync( ofGroup.writer, shots, unwanted );
      for( unsigned n = 0; n < 20; ++n ) {
         turn();
      }
   }
   void expectGone() {
      for( Pipe* p : { &pipe, &ofGroup } ) {
         EXPECT_FALSE( isOpen( p->writer ) );
         EXPECT_EQ( p->take( 10000 ), 4096 );
         EXPECT_EQ( p->take( 1 ), 0 ) << "the reader sees the end";
      }
      EXPECT_TRUE( schedulers[ 0 ].expired() );
      EXPECT_TRUE( schedulers[ 1 ].expired() );
      EXPECT_TRUE( shot.expired() );
      EXPECT_TRUE( captured.expired() );
   }

   Pipe pipe;
   Pipe ofGroup;
   std::weak_ptr<TaskScheduler> schedulers[ 2 ];
   std::weak_ptr<const TaskSchedulerSnapshot> shot;
   std::weak_ptr<int> captured;
};

TEST( SnapshotAsyncEndTest, EndOfTheThreadAbandonsRenders ) {
   AbandonedRenders renders;
   std::thread( [ & ] {
      renders.start( schedulerRootQuarn(), [] { Platform::doEventLoop( 0.0 ); } );
   } ).join();
   renders.expectGone();
}

TEST( SnapshotAsyncEndTest, EndOfTheVirtualTimeLoopAbandonsRenders ) {
   AbandonedRenders renders;
   {
      Testing::VirtualTimeLoop loop;
      renders.start( loop.root(), [ & ] { loop.runOneTurn(); } );
   }
   renders.expectGone();
}

// The mode belongs to the open file. With a blocking one the next write would stop the loop for as
// long as the reader pauses.
TEST_F( SnapshotAsyncTest, LastRenderOnAnOpenFileTakesItsModeBack ) {
   Pipe pipe;
   const int kept = dup( pipe.writer );
   const int second = dup( pipe.writer );
   root->snapshotRenderJsonAsync( pipe.writer, Shots(), done( pipe.writer ) );
   root->snapshotRenderJsonAsync( second, largeShots( *root ), done( second ) );
   turns( 20 );
   EXPECT_EQ( completions, 1 );
   EXPECT_TRUE( isNonBlocking( kept ) );
   const pid_t child = fork();
   if( child == 0 ) {
      exit( 0 ); // ends this thread's renders
   }
   int status = -1;
   ASSERT_EQ( waitpid( child, &status, 0 ), child );
   EXPECT_TRUE( isNonBlocking( kept ) ) << "a forked child leaves the parent's file alone";
   for( int n = 0; n < 1000 && completions < 2; ++n ) {
      pipe.take( 4096 );
      loop.runOneTurn();
   }
   EXPECT_EQ( completions, 2 );
   EXPECT_FALSE( isNonBlocking( kept ) );
   close( kept );
}

TEST_F( SnapshotAsyncTest, FailedCallLeavesTheDescriptorAsItWas ) {
   Pipe pipe;
   const auto unchanged = [ & ] {
      loop.runUntilIdle();
      return isOpen( pipe.writer ) && !isNonBlocking( pipe.writer ) && completions == 0 &&
             !root->taskForTest( nameFor( pipe.writer ) );
   };
   EXPECT_FATAL( root->snapshotRenderJsonAsync( -1, Shots() ),
                 "TaskScheduler::snapshotRenderJsonAsync() flags >= 0" );
   EXPECT_FATAL( root->snapshotRenderJsonAsync( pipe.writer, nullptr ), "snapshot is null" );
   EXPECT_TRUE( unchanged() );
   std::thread( [ & ] {
      EXPECT_FATAL( root->snapshotRenderJsonAsync( pipe.writer, Shots(), done( pipe.writer ) ),
                    "Executing in wrong thread" );
      EXPECT_FATAL( root->snapshot( {}, false, false, false, {}, 0 ), "Executing in wrong thread" );
   } ).join();
   EXPECT_TRUE( unchanged() );
   root->registerBusyCallback( this, [] { throw std::runtime_error( "thrown when busy" ); } );
   EXPECT_THROW( root->snapshotRenderJsonAsync( pipe.writer, Shots(), done( pipe.writer ) ),
                 std::runtime_error );
   root->unregisterBusyCallback( this );
   EXPECT_TRUE( unchanged() );
   close( pipe.writer );
}

} // namespace
