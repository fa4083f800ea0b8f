// The root and the event loop together.

#include "support/Child.h"
#include "support/Fatal.h"
#include "support/Tasks.h"
#include "support/TraceCapture.h"

#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using testing::HasSubstr;
using testing::StartsWith;
using testing_support::FunctionTask;
using testing_support::makeTask;
using testing_support::TraceCapture;

TEST( RootTest, EachThreadHasItsOwn ) {
   const auto mine = schedulerRootQuarn();
   EXPECT_EQ( mine, schedulerRootQuarn() );
   EXPECT_EQ( mine->schedulerName(), "main" );
   EXPECT_EQ( mine->taskGroupCount(), 0u );
   EXPECT_EQ( mine->findSchedulerForTest( "main" ), mine );
   EXPECT_EQ( mine->findSchedulerForTest( "other" ), nullptr );
   std::weak_ptr<TaskSchedulerRoot> theirs;
   std::thread( [ & ] {
      theirs = schedulerRootQuarn();
      EXPECT_THAT( schedulerRootQuarn()->schedulerName().stdString(), StartsWith( "thread:" ) );
   } ).join();
   EXPECT_TRUE( theirs.expired() ) << "released with its thread";
   EXPECT_FATAL( mine->registerScheduler( mine.get() ), "insert failed for main" );
   TaskScheduler* notThere = nullptr;
   EXPECT_FATAL( mine->unregisterScheduler( notThere ), "delete failed for <none>" );
}

TEST( RootTest, ThreadLocalsThatOutliveTheRootStillGetOne ) {
   static std::atomic<bool> gotFresh{ false };
   struct Late {
      ~Late() {
         const auto root = schedulerRootQuarn();
         gotFresh = root.use_count() == 1;
      }
      void touch() {}
   };
   std::thread( [] {
      static thread_local Late late;
      late.touch();
      schedulerRootQuarn();
   } ).join();
   EXPECT_TRUE( gotFresh );
}

TEST( RootTest, TasksDestroyedBeforeTheirThreadEndsAreInOrder ) {
   // A thread-local owner made after the root dies before it.
   std::thread( [] {
      const auto root = schedulerRootQuarn();
      static thread_local std::shared_ptr<FunctionTask> task;
      task = makeTask( root, TaskPriority::normal, "late" );
      task->scheduleTask();
   } ).join();
}

TEST( RootTest, OneTaskPerCallbackWithEventsServedBetween ) {
   const auto root = schedulerRootQuarn();
   std::vector<std::string> log;
   struct Ticks : Platform::TimeoutHandler {
      std::function<void()> on;
      void timeout() override { on(); }
   } ticks;
   const auto timer = Platform::getTimerControl( &ticks );
   ticks.on = [ & ] { log.push_back( "timer" ); };
   int runs = 0;
   auto a = makeTask( root, TaskPriority::normal, "a", [ & ]( FunctionTask& self ) {
      log.push_back( "task" );
      if( ++runs == 1 ) {
         timer->setTimeout( 0 );
      }
      if( runs < 200 ) {
         self.scheduleTask();
      }
   } );
   a->scheduleTask();
   Platform::doEventLoop();
   EXPECT_EQ( runs, 200 );
   // The loop's clock is coarse, but the timer came in between.
   EXPECT_NE( std::find( log.begin(), log.end(), "timer" ), log.end() );
   EXPECT_NE( log.back(), "timer" );
   EXPECT_TRUE( root->checkForTest() );
}

TEST( RootTest, DueTimersReachTheirQueuesBeforeTheNextChoice ) {
   const auto root = schedulerRootQuarn();
   std::string order;
   auto high =
         makeTask( root, TaskPriority::high, "high", [ & ]( FunctionTask& ) { order += 'H'; } );
   struct Timer : TimerWheelEvent {
      std::function<void()> on;
      void timeout() override { on(); }
   } timer;
   timer.on = [ & ] { high->scheduleTask(); };
   int runs = 0;
   auto normal = makeTask( root, TaskPriority::normal, "normal", [ & ]( FunctionTask& self ) {
      order += 'N';
      if( ++runs == 1 ) {
         root->timerWheelForTest()->timerStart( &timer, 0.0 );
      }
      if( runs < 3 ) {
         self.scheduleTask();
      }
   } );
   normal->scheduleTask();
   Platform::doEventLoop();
   // The framework's loop knows no priorities: the callback, always the earliest, comes first
   // there.
   EXPECT_EQ( order, hasThreadLocalSingletons() ? "NHNN" : "NNHN" );
}

TEST( RootTest, RequestsWhileSuspendedAreIgnoredAndMadeUpFor ) {
   const auto root = schedulerRootQuarn();
   const auto handler = Platform::getDebugHandler( "TaskScheduler", false );
   handler->enabledIs( 8, true );
   int runs = 0;
   auto a = makeTask( root, TaskPriority::normal, "a", [ & ]( FunctionTask& ) { ++runs; } );
   TraceCapture capture;
   root->suspendedIs( true );
   a->scheduleTask();
   EXPECT_THAT( capture.text(),
                HasSubstr( "main ignore requestSchedulerRun, scheduler is suspended" ) );
   Platform::doEventLoop(); // nothing pending: returns at once
   EXPECT_EQ( runs, 0 );
   root->suspendedIs( false );
   Platform::doEventLoop();
   EXPECT_EQ( runs, 1 );
}

TEST( RootTest, LoopRethrowsAndTheRestRunsInTheNext ) {
   const auto root = schedulerRootQuarn();
   std::string order;
   const auto add = [ & ]( char c, bool throws ) {
      return makeTask( root, TaskPriority::normal, String( &c, 1 ),
                       [ &order, c, throws ]( FunctionTask& ) {
                          order += c;
                          if( throws ) {
                             throw std::runtime_error( "thrown" );
                          }
                       } );
   };
   const std::shared_ptr<FunctionTask> tasks[] = { add( 'a', false ), add( 'b', true ),
                                                   add( 'c', false ), add( 'd', true ),
                                                   add( 'e', false ) };
   for( const auto& task : tasks ) {
      task->scheduleTask();
   }
   EXPECT_THROW( Platform::doEventLoop(), std::runtime_error );
   EXPECT_EQ( order, "ab" );
   EXPECT_THROW( Platform::doEventLoop(), std::runtime_error );
   Platform::doEventLoop();
   EXPECT_EQ( order, "abcde" );
   EXPECT_FALSE( root->busy() );
   EXPECT_TRUE( root->checkForTest() );
}

TEST( RootTest, RootMayDieInItsOwnCallback ) {
   for( const bool throws : { false, true } ) {
      auto root = schedulerRootQuarnNonShared( "own" );
      const std::weak_ptr<TaskSchedulerRoot> weak = root;
      std::shared_ptr<FunctionTask> a;
      a = makeTask( root, TaskPriority::normal, "a", [ & ]( FunctionTask& ) {
         a.reset();
         root.reset();
         if( throws ) {
            throw std::runtime_error( "thrown" );
         }
      } );
      a->scheduleTask();
      if( throws ) {
         EXPECT_THROW( Platform::doEventLoop(), std::runtime_error );
      } else {
         Platform::doEventLoop();
      }
      EXPECT_TRUE( weak.expired() );
   }
}

TEST( RootTest, ThreadsRunTheirRootsSideBySide ) {
   if( !hasThreadLocalSingletons() ) {
      GTEST_SKIP() << "the framework has one loop in the process";
   }
   std::atomic<int> total{ 0 };
   std::vector<std::thread> threads;
   threads.reserve( 2 );
   for( int t = 0; t < 2; ++t ) {
      threads.emplace_back( [ & ] {
         const auto root = schedulerRootQuarn();
         // Both threads share names, handlers, the marker and the trackers.
         int runs = 0;
         auto critical = makeTask( root, TaskPriority::critical, "a critical test task",
                                   [ & ]( FunctionTask& ) { ++total; } );
         auto a = makeTask( root, TaskPriority::normal, "a name that is shared by the threads",
                            [ & ]( FunctionTask& self ) {
                               critical->scheduleTask();
                               if( ++runs < 200 ) {
                                  self.scheduleTask();
                               }
                               auto brief = makeTask( root, TaskPriority::low,
                                                      "a brief task with a long name" );
                               brief->scheduleTask();
                               root->runCriticalPriorityTasks();
                            } );
         struct Timer : TimerWheelEvent {
            void timeout() override { ++fired; }
            int fired = 0;
         } timer;
         timer.setTimeout( getTimerWheel(), 0.001 );
         a->scheduleTask();
         Platform::doEventLoop();
         EXPECT_EQ( timer.fired, 1 );
         EXPECT_TRUE( root->checkForTest() );
      } );
   }
   const auto handler = Platform::getDebugHandler( "TaskScheduler", false );
   for( int n = 0; n < 100; ++n ) {
      handler->enabledIs( 12, n % 2 == 0 );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( total, 400 );
   EXPECT_EQ( assertNotRunningCriticalTaskFn, nullptr );
}

TEST( RootTest, CriticalMarkIsOfEachThreadAndOutlastsThoseOfOthers ) {
   const auto isCritical = [] {
      void ( *const hook )() = std::atomic_ref( assertNotRunningCriticalTaskFn ).load();
      try {
         if( hook ) {
            hook();
         }
      } catch( const AssertException& ) {
         return true;
      }
      return false;
   };
   const auto run = []( std::function<void()> body ) {
      const auto root = schedulerRootQuarn();
      const auto task =
            makeTask( root, TaskPriority::critical, "test", [ & ]( FunctionTask& ) { body(); } );
      task->scheduleTask();
      root->runCriticalPriorityTasks();
   };
   run( [ & ] {
      EXPECT_TRUE( isCritical() );
      std::thread( [ & ] {
         EXPECT_FALSE( isCritical() );
         run( [ & ] { EXPECT_TRUE( isCritical() ); } );
         EXPECT_FALSE( isCritical() );
      } ).join();
      EXPECT_TRUE( isCritical() );
      const testing_support::Child child( [ & ] { return isCritical() ? "critical" : ""; } );
      EXPECT_EQ( child.said(), "critical" );
   } );
   EXPECT_EQ( assertNotRunningCriticalTaskFn, nullptr );
}

TEST( RootTest, ForkedChildRunsItsCopyAndTheParentItsOwn ) {
   const auto root = schedulerRootQuarn();
   int runs = 0;
   auto a = makeTask( root, TaskPriority::normal, "a", [ & ]( FunctionTask& ) { ++runs; } );
   a->scheduleTask();
   const pid_t child = fork();
   if( child == 0 ) {
      if( hasThreadLocalSingletons() ) {
         leForkReinit();
      }
      Platform::doEventLoop();
      a->scheduleTask();
      Platform::doEventLoop();
      // The thread check is of the process that made the root.
      std::thread( [ & ] { a->scheduleTask(); } ).join();
      a->unscheduleTask();
      _exit( runs == 2 && root->checkForTest() ? 0 : 1 );
   }
   int status = -1;
   ASSERT_EQ( waitpid( child, &status, 0 ), child );
   EXPECT_EQ( status, 0 );
   EXPECT_EQ( runs, 0 );
   Platform::doEventLoop();
   EXPECT_EQ( runs, 1 );
}

TEST( RootTest, HistoryIsSizedAndCleared ) {
   const auto root = schedulerRootQuarn();
   EXPECT_EQ( root->historyEntryCount(), 100u );
   auto a = makeTask( root, TaskPriority::normal, "a" );
   for( int n = 0; n < 75; ++n ) {
      a->scheduleTask();
      a->unscheduleTask();
   }
   EXPECT_EQ( root->historyEventCount(), 100u );
   const std::string text = root->historyRenderTextForDebugToString().stdString();
   EXPECT_THAT( text, StartsWith( "Last 100 scheduler events, absolute timestamp and relative to "
                                  "last event\n------------------------------------------------"
                                  "------------------------\n" ) );
   EXPECT_EQ( std::count( text.begin(), text.end(), '\n' ), 102 );
   EXPECT_EQ( root->historyEntryCountIs( 10 ), 100u );
   EXPECT_EQ( root->historyEventCount(), 10u );
   Platform::getDebugHandler( "TaskScheduler", false )->enabledIs( 2, true );
   TraceCapture capture;
   root->clearHistory();
   EXPECT_THAT( capture.text(), HasSubstr( "main history cleared" ) );
   root->historyRenderTextForDebugStdErr();
   EXPECT_THAT( capture.text(), HasSubstr( "Last 0 scheduler events" ) );
}

} // namespace
