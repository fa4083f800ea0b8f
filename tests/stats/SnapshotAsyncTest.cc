// Snapshots delivered as JSON onto descriptors, while the loop goes on.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <Quarn/platform/EventLoop.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using testing_support::makeTask;
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

   // Takes what is there, up to `most` bytes; false at the end.
   bool take( std::size_t most ) {
      std::string bytes( most, '\0' );
      const ssize_t n = read( reader, bytes.data(), most );
      if( n > 0 ) {
         got.append( bytes, 0, static_cast<std::size_t>( n ) );
      }
      return n != 0;
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

   Testing::VirtualTimeLoop loop;
   std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   unsigned completions = 0;
};

TEST_F( SnapshotAsyncTest, SlowReaderGetsTheWholeDocument ) {
   for( const bool nonBlockingBefore : { false, true } ) {
      Pipe pipe;
      fcntl( pipe.writer, F_SETFL, nonBlockingBefore ? O_NONBLOCK : 0 );
      const int look = dup( pipe.writer );
      Shots shots = largeShots( *root );
      const std::string expected = documentOf( shots );
      completions = 0;
      root->snapshotRenderJsonAsync( pipe.writer, shots, done( pipe.writer ) );
      const std::weak_ptr<const TaskSchedulerSnapshot> held = shots[ 0 ];
      shots.clear();
      EXPECT_TRUE( isNonBlocking( look ) );
      turns( 10 );
      const TaskStat writing = root->taskStatForTest( nameFor( pipe.writer ) + ":FdWrite:write" );
      EXPECT_EQ( writing.taskWorkCountTotal(), 4096u );
      EXPECT_EQ( writing.taskWorkCountTotal() + writing.taskWorkPending(),
                 expected.find( ",\"b\":{\"schedulerName\"" ) );
      EXPECT_EQ( root->taskStatForTest( nameFor( pipe.writer ) ).taskWorkPending(), 1u );
      while( completions == 0 && pipe.got.size() < expected.size() ) {
         ASSERT_FALSE( held.expired() && pipe.got.size() < 60000 );
         pipe.take( 1000 );
         turns( 2 );
      }
      turns( 5 );
      while( pipe.take( 1000 ) && errno != EAGAIN ) {
      }
      EXPECT_EQ( pipe.got, expected );
      EXPECT_EQ( completions, 1u );
      EXPECT_EQ( isNonBlocking( look ), nonBlockingBefore );
      EXPECT_TRUE( held.expired() );
      EXPECT_FALSE( root->taskForTest( nameFor( pipe.writer ) ) );
      const auto render = root->completedTaskStatForTest( nameFor( pipe.writer ) );
      EXPECT_EQ( render.taskWorkCountTotal(), 2u * render.taskCompletedCount() );
      EXPECT_EQ( root->historyRenderTextForDebugToString().find( "fdReadable" ), String::npos );
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
      close( pipe.reader );
      loop.runUntilIdle();
      _exit( completions == 1 && !isOpen( pipe.writer ) && pipe.got.size() == 4096 ? 0 : 1 );
   };
   EXPECT_EXIT( body(), testing::ExitedWithCode( 0 ), "" );
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
   const std::string text = fmt::format( "Write to fd {} failed No space left on device(28)", fd );
   for( unsigned piece = 0; piece < 3; ++piece ) {
      EXPECT_FATAL( loop.runUntilIdle(), text );
   }
   loop.runUntilIdle();
   EXPECT_EQ( completions, 1u );
   EXPECT_FALSE( root->taskForTest( nameFor( fd ) ) );
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
   while( pipe.take( 4096 ) ) {
      turns( 2 );
   }
   EXPECT_EQ( pipe.got, documentOf( shots ) );
   EXPECT_EQ( completions, 1u );
   EXPECT_TRUE( weak.expired() );
}

TEST_F( SnapshotAsyncTest, EndOfTheThreadAbandonsRenders ) {
   Pipe pipe;
   Pipe ofGroup;
   std::weak_ptr<TaskScheduler> schedulers[ 2 ];
   std::weak_ptr<const TaskSchedulerSnapshot> shot;
   auto captured = std::make_shared<int>();
   const std::weak_ptr<int> capture = captured;
   std::thread( [ & ] {
      const auto own = schedulerRootQuarn();
      const auto group = TaskGroup::TaskGroupIs( "g", TaskPriority::low, false, own );
      schedulers[ 0 ] = own;
      schedulers[ 1 ] = group;
      const Shots shots = largeShots( *own );
      shot = shots[ 0 ];
      own->snapshotRenderJsonAsync( pipe.writer, shots,
                                    [ this, held = std::move( captured ) ] { ++completions; } );
      group->snapshotRenderJsonAsync( ofGroup.writer, shots, [ this ] { ++completions; } );
      for( unsigned n = 0; n < 20; ++n ) {
         Platform::doEventLoop( 0.0 );
      }
   } ).join();
   EXPECT_EQ( completions, 0u );
   for( Pipe* p : { &pipe, &ofGroup } ) {
      EXPECT_FALSE( isOpen( p->writer ) );
      EXPECT_TRUE( p->take( 10000 ) );
      EXPECT_EQ( p->got.size(), 4096u );
      EXPECT_FALSE( p->take( 1 ) ) << "the reader sees the end";
   }
   EXPECT_TRUE( schedulers[ 0 ].expired() );
   EXPECT_TRUE( schedulers[ 1 ].expired() );
   EXPECT_TRUE( shot.expired() );
   EXPECT_TRUE( capture.expired() );
}

TEST_F( SnapshotAsyncTest, FailedCallLeavesTheDescriptorAsItWas ) {
   Pipe pipe;
   const auto unchanged = [ & ] {
      loop.runUntilIdle();
      return isOpen( pipe.writer ) && !isNonBlocking( pipe.writer ) && completions == 0 &&
             !root->taskForTest( nameFor( pipe.writer ) );
   };
   EXPECT_FATAL( root->snapshotRenderJsonAsync( -1, Shots() ), "flags >= 0" );
   EXPECT_FATAL( root->snapshotRenderJsonAsync( pipe.writer, nullptr ), "snapshot is null" );
   EXPECT_TRUE( unchanged() );
   std::thread( [ & ] {
      EXPECT_FATAL( root->snapshotRenderJsonAsync( pipe.writer, Shots(), done( pipe.writer ) ),
                    "Executing in wrong thread" );
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
