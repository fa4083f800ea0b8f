// Descriptor tasks on socket pairs.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <Quarn/base/ThreadControl.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing_support::historyOf;
using testing_support::makeTask;

struct Pair {
   Pair() { EXPECT_EQ( socketpair( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds ), 0 ); }
   ~Pair() {
      close( near() );
      hangUp();
   }
   Pair( const Pair& ) = delete;
   Pair& operator=( const Pair& ) = delete;

   int near() const { return fds[ 0 ]; }
   void send( std::string_view bytes ) const {
      EXPECT_EQ( write( fds[ 1 ], bytes.data(), bytes.size() ),
                 static_cast<ssize_t>( bytes.size() ) );
   }
   void hangUp() {
      if( fds[ 1 ] >= 0 ) {
         close( fds[ 1 ] );
      }
      fds[ 1 ] = -1;
   }

   int fds[ 2 ];
};

class Io : public FileDescriptorTask {
 public:
   using Body = std::function<void( Io& )>;
   using FileDescriptorTask::FileDescriptorTask;

   Body onRead = []( Io& self ) { self.take( 100 ); };
   Body onWrite = []( Io& ) {};
   std::string got;
   unsigned reads = 0;
   unsigned writes = 0;
   // What the task was told of itself: '+' busy, '-' idle.
   std::string told;

   void take( std::size_t most ) {
      char bytes[ 100 ];
      if( const ssize_t n = read( taskWatchFd(), bytes, most ); n > 0 ) {
         got.append( bytes, static_cast<std::size_t>( n ) );
      }
   }
   void handleTaskBusy() override { told += taskScheduled() ? '+' : '-'; }

 private:
   void taskExecuteReadable() override {
      ++reads;
      const Body body = onRead; // it may replace itself, or drop this task
      body( *this );
   }
   void taskExecuteWritable() override {
      ++writes;
      const Body body = onWrite;
      body( *this );
   }
};

class FileDescriptorTaskTest : public testing::Test {
 protected:
   FileDescriptorTaskTest() { root->historyEntryCountIs( 100000 ); }

   std::shared_ptr<Io> io( int fd, const std::shared_ptr<TaskScheduler>& scheduler = nullptr,
                           String name = "t" ) {
      auto task = std::make_shared<Io>( scheduler ? scheduler : root, TaskPriority::normal,
                                        std::move( name ) );
      if( fd >= 0 ) {
         task->taskWatchFdIs( fd );
      }
      return task;
   }
   void turns( unsigned count ) {
      for( unsigned n = 0; n < count; ++n ) {
         loop.runOneTurn();
      }
   }
   // How often the event has happened to a task since the last call.
   unsigned reports( char const* event = "fdReadable" ) {
      const std::string text = root->historyRenderTextForDebugToString().stdString();
      unsigned count = 0;
      for( std::size_t at = 0; ( at = text.find( event, at ) ) != std::string::npos; ++at ) {
         ++count;
      }
      root->clearHistory();
      return count;
   }
   std::shared_ptr<TaskImpl> subTask( String const& name ) {
      return std::dynamic_pointer_cast<TaskImpl>( root->taskForTest( name ) );
   }

   Pair pair;
   Testing::VirtualTimeLoop loop;
   std::shared_ptr<TaskSchedulerRoot> root = loop.root();
};

// The handler under the task, which is nobody's business but its control's.
Platform::FdEventHandler& handlerOf( Io& task ) {
   using Handler = Platform::FdEventHandler*;
   auto* const handler = Handler( &task );
   return *handler;
}

TEST_F( FileDescriptorTaskTest, ReadsForAsLongAsThereIsDataAndWritesWhenAsked ) {
   const auto t = io( pair.near() );
   turns( 3 );
   EXPECT_EQ( t->reads + t->writes, 0u );
   t->onRead = []( Io& self ) { self.take( 1 ); };
   pair.send( "abc" );
   turns( 10 );
   EXPECT_EQ( t->got, "abc" );
   EXPECT_EQ( t->reads, 3u );
   t->taskWatchWritableIs( true );
   EXPECT_TRUE( t->taskWatchWritable() );
   turns( 10 );
   EXPECT_EQ( t->writes, 1u ) << "one run for each request";
   EXPECT_FALSE( t->taskWatchWritable() );
   t->onWrite = []( Io& self ) {
      EXPECT_FALSE( self.taskWatchWritable() );
      EXPECT_TRUE( self.taskCurrentlyRunningWritable() );
      EXPECT_FALSE( self.taskCurrentlyRunningReadable() );
      self.taskWatchWritableIs( self.writes < 4 );
   };
   t->taskWatchWritableIs( true );
   turns( 10 );
   EXPECT_EQ( t->writes, 4u );
   t->scheduleTaskWritable();
   t->scheduleTaskWritable();
   t->scheduleTaskReadable();
   turns( 10 );
   EXPECT_EQ( t->writes, 5u );
   EXPECT_EQ( t->reads, 4u );
   pair.send( "d" );
   t->taskWatchReadableIs( false );
   turns( 5 );
   EXPECT_EQ( t->got, "abc" );
   t->taskWatchReadableIs( true );
   turns( 5 );
   EXPECT_EQ( t->got, "abcd" );
   EXPECT_EQ( t->taskRunCount(), t->reads );
   EXPECT_EQ( t->taskRunCountWritable(), t->writes );
}

TEST_F( FileDescriptorTaskTest, SuspendedReaderCostsNoTurns ) {
   const auto group = TaskGroup::TaskGroupIs( "g", TaskPriority::normal, false, root );
   const auto inner = TaskGroup::TaskGroupIs( "i", TaskPriority::normal, false, group );
   const auto t = io( pair.near(), inner );
   const std::function<void( bool )> switches[] = {
         [ & ]( bool on ) { t->taskSuspendedIs( on ); },
         [ & ]( bool on ) { inner->taskGroupSuspendedIs( on ); },
         [ & ]( bool on ) { group->taskGroupSuspendedIs( on ); },
         [ & ]( bool on ) { root->suspendedIs( on ); },
   };
   for( const auto& suspend : switches ) {
      for( const bool queuedBefore : { false, true } ) {
         t->got.clear();
         t->reads = 0;
         if( queuedBefore ) {
            t->scheduleTaskReadable();
         }
         suspend( true );
         reports();
         pair.send( "a" );
         turns( 50 );
         pair.send( "b" );
         turns( 50 );
         EXPECT_EQ( reports(), 1u );
         EXPECT_EQ( t->got, "" );
         EXPECT_TRUE( t->taskWatchReadable() );
         suspend( false );
         turns( 10 );
         EXPECT_EQ( t->got, "ab" );
         EXPECT_EQ( t->reads, 1u );
         // The watch is back.
         pair.send( "c" );
         turns( 10 );
         EXPECT_EQ( t->got, "abc" );
      }
   }
}

TEST_F( FileDescriptorTaskTest, BusyDescriptorsAreReportedAFewTimes ) {
   constexpr unsigned count = 100;
   constexpr unsigned bytes = 3;
   std::vector<std::unique_ptr<Pair>> pairs;
   std::vector<std::shared_ptr<Io>> readers;
   for( unsigned n = 0; n < count; ++n ) {
      pairs.push_back( std::make_unique<Pair>() );
      pairs.back()->send( "xyz" );
      readers.push_back( io( pairs.back()->near() ) );
      readers.back()->onRead = []( Io& self ) { self.take( 1 ); };
   }
   turns( count * bytes + 10 );
   for( const auto& t : readers ) {
      EXPECT_EQ( t->got, "xyz" );
      EXPECT_EQ( t->reads, bytes );
   }
   // Each run is preceded by the notification that queues it, and by one that ends the watch.
   EXPECT_LE( reports(), 2 * count * bytes );
}

TEST_F( FileDescriptorTaskTest, WatchSurvivesAWaitForTheTurn ) {
   const auto t = std::make_shared<Io>( root, TaskPriority::scavenge, "t" );
   t->taskWatchFdIs( pair.near() );
   const auto urgent = makeTask( root, TaskPriority::high, "urgent", []( auto& self ) {
      if( self.taskRunCount() < 50 ) {
         self.scheduleTask();
      }
   } );
   pair.send( "a" );
   urgent->scheduleTask();
   turns( 40 );
   EXPECT_TRUE( t->taskScheduledReadable() );
   EXPECT_EQ( reports(), 2u );
   // Off and on again gives the watch back, as a run does.
   t->taskWatchReadableIs( false );
   EXPECT_FALSE( t->taskScheduled() );
   t->taskWatchReadableIs( true );
   turns( 5 );
   EXPECT_EQ( reports(), 2u );
   turns( 30 );
   pair.send( "b" );
   turns( 5 );
   EXPECT_EQ( t->got, "ab" );
}

TEST_F( FileDescriptorTaskTest, UnsuspendedWriterRunsNoReader ) {
   const auto t = io( pair.near() );
   t->taskWatchReadableIs( false );
   pair.send( "a" );
   t->taskSuspendedIs( true );
   t->taskSuspendedIs( false );
   EXPECT_FALSE( t->taskScheduled() );
   t->scheduleTaskWritable();
   t->taskSuspendedIs( true );
   EXPECT_FALSE( t->taskScheduled() );
   turns( 5 );
   t->taskSuspendedIs( false );
   turns( 5 );
   EXPECT_EQ( t->reads, 0u );
   EXPECT_EQ( t->writes, 1u );
   EXPECT_EQ( reports(), 0u );
}

TEST_F( FileDescriptorTaskTest, ChangeOfTheDescriptorDropsWhatIsQueued ) {
   Pair other;
   other.send( "o" );
   pair.send( "p" );
   for( const bool suspended : { false, true } ) {
      reports();
      const auto t = io( pair.near() );
      t->taskSuspendedIs( suspended );
      if( suspended ) {
         turns( 5 );
         EXPECT_EQ( reports(), 1u );
      }
      t->scheduleTaskWritable();
      t->scheduleTaskReadable();
      EXPECT_EQ( t->taskScheduledReadable(), !suspended );
      t->taskWatchFdIs( pair.near() );
      EXPECT_EQ( t->taskScheduled(), !suspended ) << "the same one changes nothing";
      t->taskWatchFdIs( other.near() );
      EXPECT_FALSE( t->taskScheduled() );
      if( suspended ) {
         turns( 5 );
         EXPECT_EQ( reports(), 1u ) << "the new one is watched, until it has reported";
      }
      t->scheduleTaskWritable();
      t->scheduleTaskReadable();
      t->taskWatchFdDel();
      EXPECT_EQ( t->taskWatchFd(), -1 );
      EXPECT_FALSE( t->taskScheduled() );
      turns( 5 );
      EXPECT_EQ( reports(), 0u );
      t->taskWatchFdIs( other.near() );
      turns( 5 );
      EXPECT_EQ( t->got, suspended ? "" : "o" );
      EXPECT_EQ( t->writes, 0u );
      if( !suspended ) {
         other.send( "o" );
      } else {
         t->taskSuspendedIs( false );
         turns( 5 );
         EXPECT_EQ( t->got, "o" );
      }
   }
}

TEST_F( FileDescriptorTaskTest, RunMayDropTheTask ) {
   for( const bool writing : { false, true } ) {
      for( const bool throwing : { false, true } ) {
         auto t = io( pair.near() );
         const std::weak_ptr<Io> watch = t;
         const Io::Body drop = [ & ]( Io& self ) {
            self.scheduleTaskReadable();
            self.scheduleTaskWritable();
            t.reset();
            self.taskWorkCountInc( 1 );
            if( throwing ) {
               throw std::runtime_error( "mine" );
            }
         };
         t->onRead = drop;
         t->onWrite = drop;
         if( writing ) {
            t->taskWatchWritableIs( true );
         } else {
            t->scheduleTaskReadable();
         }
         if( throwing ) {
            EXPECT_THROW( turns( 3 ), std::runtime_error );
         }
         turns( 3 );
         EXPECT_TRUE( watch.expired() );
         EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
         EXPECT_EQ( root->runnableTaskCount(), 0 );
         EXPECT_FALSE( root->busy() );
      }
   }
}

TEST_F( FileDescriptorTaskTest, GoneWhileQueuedRunsNothing ) {
   for( const bool held : { false, true } ) {
      auto t = io( pair.near() );
      unsigned ran = 0;
      t->onRead = t->onWrite = [ & ]( Io& ) { ++ran; };
      t->scheduleTaskReadable();
      t->scheduleTaskWritable();
      // An owner beside the task keeps a sub-task queued; its run does nothing.
      auto reader = held ? subTask( "t:read" ) : nullptr;
      auto writer = held ? subTask( "t:write" ) : nullptr;
      auto killer = makeTask( root, TaskPriority::high, "killer", [ & ]( auto& ) { t.reset(); } );
      killer->scheduleTask();
      loop.runOneTurn();
      EXPECT_EQ( root->runnableTaskCount(), held ? 2 : 0 );
      turns( 5 );
      if( held ) {
         EXPECT_EQ( reader->taskRunCount() + writer->taskRunCount(), 2u );
      }
      reader.reset();
      writer.reset();
      killer.reset();
      EXPECT_EQ( ran, 0u );
      EXPECT_EQ( root->runnableTaskCount(), 0 );
      EXPECT_EQ( root->totalRegisteredTaskCount(), 0u );
      EXPECT_FALSE( root->busy() );
   }
}

TEST_F( FileDescriptorTaskTest, HangUpDoesNotSpinAWriter ) {
   const auto t = io( pair.near() );
   t->taskWatchReadableIs( false );
   t->taskWatchWritableIs( true );
   turns( 3 );
   pair.hangUp();
   turns( 20 );
   EXPECT_EQ( t->writes, 1u );
   t->taskWatchWritableIs( true );
   turns( 20 );
   EXPECT_EQ( t->writes, 2u ) << "the write meets the error";
   EXPECT_EQ( t->reads, 0u );
   EXPECT_EQ( reports(), 0u );
   // A reader is told; it sees the end of the data.
   t->onRead = []( Io& self ) { self.taskWatchFdDel(); };
   t->taskWatchReadableIs( true );
   turns( 20 );
   EXPECT_EQ( t->reads, 1u );
}

TEST_F( FileDescriptorTaskTest, ExceptionLeavesTheTaskUsable ) {
   const auto t = io( pair.near() );
   const Io::Body fail = []( Io& ) { throw std::runtime_error( "mine" ); };
   t->onRead = fail;
   t->onWrite = fail;
   pair.send( "a" );
   EXPECT_THROW( turns( 5 ), std::runtime_error );
   t->taskWatchReadableIs( false );
   t->taskWatchWritableIs( true );
   EXPECT_THROW( turns( 5 ), std::runtime_error );
   EXPECT_FATAL( t->taskWorkCountInc( 1 ), "No executing task" );
   t->onRead = []( Io& self ) {
      self.taskWorkCountInc( 1 );
      self.take( 1 );
   };
   t->onWrite = []( Io& self ) { self.taskWorkCountInc( 1 ); };
   t->taskWatchReadableIs( true );
   t->taskWatchWritableIs( true );
   turns( 5 );
   EXPECT_EQ( t->got, "a" );
   EXPECT_EQ( t->taskWorkCountReadableTotal() + t->taskWorkCountWritableTotal(), 2u );
}

TEST_F( FileDescriptorTaskTest, Misuse ) {
   const auto t = io( pair.near() );
   const String watched( std::to_string( pair.near() ) );
   EXPECT_FATAL( handlerOf( *t ).readFdEvent( 4711 ),
                 "Notified about 4711 watching " + watched.stdString() );
   EXPECT_FATAL( handlerOf( *t ).writeFdEvent( pair.near() ),
                 "writeFdEvent() called with taskWatchWritable off" );
   t->taskWatchWritableIs( true );
   EXPECT_FATAL( handlerOf( *t ).writeFdEvent( -1 ),
                 "Notified about -1 watching " + watched.stdString() );
   t->taskWatchReadableIs( false );
   EXPECT_FATAL( handlerOf( *t ).readFdEvent( pair.near() ),
                 "readFdEvent() called with taskWatchReadable off" );
   EXPECT_EQ( reports() + reports( "fdWritable" ), 0u );
   EXPECT_FALSE( t->taskScheduled() );
   t->scheduleTaskReadable();
   EXPECT_FATAL( turns( 1 ), "FileDescriptorTask::_taskExecuteReadable() "
                             "ReadTask should only run if taskWatchReadable" );
   EXPECT_FATAL( static_cast<_TaskBase&>( *t ).taskExecute(), "a descriptor task runs by" );
   EXPECT_FATAL( t->scheduleTask(), "Task: t cannot be scheduled" );
   EXPECT_FATAL( t->taskRunFromTest(), "Task: t cannot be run" );
   EXPECT_FATAL( t->taskShouldYield(), "No executing task" );
   EXPECT_FATAL( t->taskWorkPendingIs( 1 ), "No executing task" );
   std::shared_ptr<TaskScheduler> none;
   EXPECT_FATAL( Io( none, TaskPriority::normal, "t" ), "Need a TaskScheduler" );
   TaskSchedulerRoot unowned( "unowned" );
   EXPECT_FATAL( Io( &unowned, TaskPriority::normal, "t" ), "Need a TaskScheduler" );
}

TEST_F( FileDescriptorTaskTest, BusyWhileEitherSubTaskIs ) {
   const auto t = io( pair.near() );
   root->clearHistory();
   const auto own = [ & ] {
      std::vector<std::string> lines = historyOf( *root );
      std::erase_if( lines, []( const std::string& line ) { return !line.ends_with( " t" ); } );
      root->clearHistory();
      return lines;
   };
   t->scheduleTaskWritable();
   EXPECT_EQ( t->told, "+" );
   pair.send( "a" );
   t->scheduleTaskReadable();
   EXPECT_TRUE( t->taskScheduledReadable() && t->taskScheduledWritable() );
   EXPECT_EQ( t->told, "+" );
   loop.runOneTurn();
   EXPECT_EQ( t->told, "+" ) << "one of them is left";
   turns( 5 );
   EXPECT_EQ( t->told, "+-" );
   EXPECT_FALSE( t->taskScheduled() );
   EXPECT_THAT( own(), ElementsAre( "busy N t", "fdReadable N t", "idle N t" ) );
   // The request is used up before the run, and with it the sub-task is idle.
   t->onWrite = []( Io& self ) { EXPECT_EQ( self.told, "+-+-" ); };
   t->taskWatchWritableIs( true );
   turns( 5 );
   EXPECT_EQ( t->told, "+-+-" );
   EXPECT_THAT( own(), ElementsAre( "fdWritable N t", "busy N t", "idle N t" ) );
}

TEST_F( FileDescriptorTaskTest, SubTasksTakeNamesAndSettings ) {
   auto t = io( pair.near() );
   EXPECT_EQ( subTask( "t:read" )->taskStatsName(), "t:read" );
   t->taskStatsNameIs( "s" );
   t->taskQuantumIs( 5ms );
   t->taskSuspendedIs( true );
   t->scheduleTaskWritable();
   const auto reader = subTask( "t:read" );
   auto writer = subTask( "t:write" );
   EXPECT_EQ( reader->taskStatsName(), "s:read" );
   EXPECT_EQ( writer->taskStatsName(), "s:write" );
   EXPECT_EQ( writer->taskPriority(), TaskPriority::normal );
   EXPECT_EQ( reader->taskQuantum(), 5ms );
   EXPECT_EQ( writer->taskQuantum(), 5ms );
   EXPECT_TRUE( writer->taskSuspended() );
   EXPECT_FALSE( t->taskScheduledWritable() );
   t->taskStatsNameIs( "u" );
   t->taskQuantumIs( 6ms );
   t->taskSuspendedIs( false );
   t->taskForceYieldInTestIs( true );
   EXPECT_EQ( reader->taskStatsName(), "u:read" );
   EXPECT_EQ( writer->taskStatsName(), "u:write" );
   EXPECT_EQ( writer->taskQuantum(), 6ms );
   EXPECT_TRUE( t->taskScheduledWritable() );
   EXPECT_EQ( reader->taskTestYieldRatio(), 1 );
   EXPECT_EQ( writer->taskTestYieldRatio(), 1 );
   // One that comes later while the yield is forced keeps the quantum of new tasks.
   t = io( pair.near() );
   t->taskQuantumIs( 5ms );
   t->taskForceYieldInTestIs( true );
   t->scheduleTaskWritable();
   writer = subTask( "t:write" );
   EXPECT_EQ( writer->taskQuantum(), root->defaultTaskQuantum() );
   EXPECT_EQ( writer->taskTestYieldRatio(), 1 );
   bool yields = false;
   t->onWrite = [ & ]( Io& self ) { yields = self.taskShouldYield(); };
   turns( 2 );
   EXPECT_TRUE( yields );
   t->taskForceYieldInTestIs( false );
   EXPECT_FALSE( t->taskForceYieldInTest() );
   EXPECT_EQ( writer->taskTestYieldRatio(), 0 );
}

TEST_F( FileDescriptorTaskTest, WorkIsCountedWhereItIsDone ) {
   const auto t = io( pair.near() );
   const char text[] = "WriteTask not created by taskWatchWritableIs( true )";
   EXPECT_FATAL( t->taskWorkCountWritableInc( 1 ), text );
   EXPECT_FATAL( t->taskWorkPendingWritableIs( 1 ), text );
   EXPECT_EQ( t->taskWorkCountWritableTotal(), 0u );
   EXPECT_EQ( t->taskWorkCountWritableDecayAvg(), 0.0f );
   EXPECT_EQ( t->taskWorkCountWritableHighWaterMark(), 0u );
   EXPECT_EQ( t->taskWorkPendingWritable(), 0u );
   EXPECT_EQ( t->taskWorkPendingWritableHighWaterMark(), 0u );
   EXPECT_EQ( t->taskRunCountWritable(), 0u );
   EXPECT_FALSE( t->taskScheduledWritable() );
   EXPECT_FALSE( t->taskCurrentlyRunningWritable() );
   EXPECT_EQ( t->taskWorkCountReadableHighWaterMark(), taskStatUnset );
   t->onRead = []( Io& self ) {
      self.taskWorkCountInc( 10 );
      self.taskWorkPendingIs( 7 );
      // Of the other one, in the middle.
      self.taskWorkCountWritableInc( 100 );
   };
   t->onWrite = []( Io& self ) {
      self.taskWorkCountInc( 20 );
      self.taskWorkPendingIs( 3 );
      self.taskWorkPendingIs( 2 );
   };
   t->scheduleTaskWritable();
   t->scheduleTaskReadable();
   turns( 3 );
   t->taskWorkCountReadableInc( 20 );
   t->taskWorkPendingReadableIs( 4 );
   EXPECT_EQ( t->taskWorkCountReadableTotal(), 30u );
   EXPECT_EQ( t->taskWorkCountReadableDecayAvg(), 11.0f );
   EXPECT_EQ( t->taskWorkCountReadableHighWaterMark(), 20u );
   EXPECT_EQ( t->taskWorkPendingReadable(), 4u );
   EXPECT_EQ( t->taskWorkPendingReadableHighWaterMark(), 7u );
   EXPECT_EQ( t->taskWorkCountWritableTotal(), 120u );
   EXPECT_EQ( t->taskWorkCountWritableDecayAvg(), 28.0f );
   EXPECT_EQ( t->taskWorkCountWritableHighWaterMark(), 100u );
   t->taskWorkPendingWritableIs( 9 );
   EXPECT_EQ( t->taskWorkPendingWritable(), 9u );
   EXPECT_EQ( t->taskWorkPendingWritableHighWaterMark(), 9u );
}

TEST_F( FileDescriptorTaskTest, DescriptorThatCouldNotBeWatchedMayBeTriedAgain ) {
   const auto t = io( pair.near() );
   const int number = fcntl( pair.near(), F_DUPFD_CLOEXEC, 200 );
   ASSERT_GE( number, 200 );
   close( number );
   EXPECT_FATAL( t->taskWatchFdIs( number ),
                 hasThreadLocalSingletons() ? "flags >= 0" : "cannot be made non-blocking" );
   EXPECT_EQ( t->taskWatchFd(), -1 );
   const Pair other;
   ASSERT_EQ( dup2( other.near(), number ), number );
   t->taskWatchFdIs( number );
   other.send( "x" );
   turns( 3 );
   EXPECT_EQ( t->got, "x" );
   t->taskWatchFdDel();
   close( number );
}

TEST_F( FileDescriptorTaskTest, DirectionThatCouldNotBeWatchedMayBeTriedAgain ) {
   const int number = fcntl( pair.near(), F_DUPFD_CLOEXEC, 200 );
   ASSERT_GE( number, 200 );
   const auto t = io( -1 );
   t->taskWatchReadableIs( false );
   t->taskWatchFdIs( number );
   close( number );
   if( hasThreadLocalSingletons() ) { // the framework's loop asks when it waits
      EXPECT_FATAL( t->taskWatchReadableIs( true ), "Failed to add event fd" );
      EXPECT_FALSE( t->taskWatchReadable() );
   }
   ASSERT_EQ( dup2( pair.near(), number ), number );
   t->taskWatchReadableIs( true );
   pair.send( "x" );
   turns( 3 );
   EXPECT_EQ( t->got, "x" );
   t->taskWatchFdDel();
   close( number );
}

// The control has spent its watch on the notification whose run is dropped.
TEST_F( FileDescriptorTaskTest, WatchForWritesMovesToTheNewDescriptor ) {
   const auto t = io( pair.near() );
   t->taskWatchWritableIs( true );
   const Pair other;
   const auto urgent = makeTask( root, TaskPriority::high, "urgent", [ & ]( auto& self ) {
      if( subTask( "t:write" )->taskScheduled() ) {
         t->taskWatchFdIs( other.near() );
      } else {
         self.scheduleTask();
      }
   } );
   urgent->scheduleTask();
   turns( 20 );
   EXPECT_EQ( t->writes, 1u );
}

TEST_F( FileDescriptorTaskTest, HookThatThrowsDoesNotKeepTheOldDescriptor ) {
   class Moody : public Io {
    public:
      using Io::Io;
      void handleTaskBusy() override {
         if( throws ) {
            throw 7;
         }
      }
      bool throws = false;
   };
   const Pair other;
   const auto t = std::make_shared<Moody>( root, TaskPriority::normal, "moody" );
   t->taskWatchFdIs( pair.near() );
   const auto first =
         makeTask( root, TaskPriority::high, "first", []( auto& self ) { self.scheduleTask(); } );
   first->scheduleTask();
   pair.send( "x" );
   turns( 4 ); // queued behind the other, its watch is taken out of the kernel
   ASSERT_TRUE( t->taskScheduledReadable() );
   t->throws = true;
   EXPECT_THROW( t->taskWatchFdIs( other.near() ), int );
   t->throws = false;
   EXPECT_EQ( t->taskWatchFd(), other.near() );
   first->bodyIs( {} );
   other.send( "y" );
   turns( 5 );
   EXPECT_EQ( t->got, "y" );
}

} // namespace
