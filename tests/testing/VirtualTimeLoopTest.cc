#include <Quarn/base/ThreadControl.h>
#include <Quarn/testing/Clocks.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>

#include <Oru/ActivityManager.h>

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using Quarn::Testing::VirtualTimeLoop;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::FunctionTask;
using testing_support::makeTask;

// A timer on the thread's wheel that calls a function.
class WheelTimer : public TimerWheelEvent {
 public:
   explicit WheelTimer( std::function<void()> body ) : body_( std::move( body ) ) {}
   ~WheelTimer() override { delTimeout( getTimerWheel() ); }
   void start( double delay ) { setTimeout( getTimerWheel(), delay ); }
   void timeout() override { body_(); }

 private:
   std::function<void()> body_;
};

TEST( VirtualTimeLoopTest, HoursOfWheelTimersPassInMoments ) {
   VirtualTimeLoop loop;
   const double start = loop.now();
   const auto minute = makeTask( loop.root(), TaskPriority::normal, "minute" );
   const auto hour = makeTask( loop.root(), TaskPriority::low, "hour" );
   std::vector<double> late;
   double due = start + 3600.0;
   WheelTimer everyMinute( [ & ] {
      minute->scheduleTask();
      everyMinute.start( 60.0 );
   } );
   WheelTimer hourly( [ & ] {
      late.push_back( loop.now() - due );
      due = loop.now() + 3600.0;
      hour->scheduleTask();
      hourly.start( 3600.0 );
   } );
   everyMinute.start( 60.0 );
   hourly.start( 3600.0 );
   loop.advance( 5.5 * 3600.0 );

   EXPECT_GE( loop.now(), start + 5.5 * 3600.0 );
   ASSERT_EQ( late.size(), 5U );
   for( const double seconds : late ) {
      EXPECT_GE( seconds, 0.0 ) << "a wheel timer is never early";
   }
   EXPECT_EQ( std::count( loop.runLog().begin(), loop.runLog().end(), "hour" ), 5 );
   EXPECT_EQ( std::count( loop.runLog().begin(), loop.runLog().end(), "minute" ), 329 );
   EXPECT_EQ( loop.runLog().front(), "minute" );
}

TEST( VirtualTimeLoopTest, RunUntilIdleRunsWhatIsDueAndLeavesTimersArmed ) {
   VirtualTimeLoop loop;
   const auto last = makeTask( loop.root(), TaskPriority::low, "last" );
   int runs = 0;
   const auto chain =
         makeTask( loop.root(), TaskPriority::normal, "chain", [ & ]( FunctionTask& task ) {
            ++runs < 4 ? task.scheduleTask() : last->scheduleTask();
         } );
   bool fired = false;
   WheelTimer timer( [ & ] { fired = true; } );
   timer.start( 1e6 );
   const double offset = leVirtualTimeOffset();
   loop.runUntilIdle();
   EXPECT_THAT( loop.runLog(), IsEmpty() );
   chain->scheduleTask();
   loop.runUntilIdle();
   EXPECT_EQ( loop.runLog().size(), 5U );
   EXPECT_EQ( loop.runLog().back(), "last" );
   EXPECT_EQ( leVirtualTimeOffset(), offset );
   EXPECT_FALSE( fired );
   loop.advance( 1e6 + 1 );
   EXPECT_TRUE( fired );
}

TEST( VirtualTimeLoopTest, RunUntilIdleFollowsDescriptorsThatTasksMakeReady ) {
   // Each byte that arrives has the task write to the next pipe.
   constexpr int length = 5;
   struct Link : Platform::FdEventHandler {
      void readFdEvent( int fd ) override {
         char byte;
         EXPECT_EQ( read( fd, &byte, 1 ), 1 );
         arrived();
      }
      void writeFdEvent( int ) override {}
      ~Link() override {
         control.reset();
         close( ends[ 0 ] );
         close( ends[ 1 ] );
      }
      std::function<void()> arrived;
      std::shared_ptr<Platform::FdControl> control = Platform::getFdControl( this );
      int ends[ 2 ] = { -1, -1 };
   };
   VirtualTimeLoop loop;
   std::vector<std::unique_ptr<Link>> links;
   int arrivals = 0;
   for( int n = 0; n < length; ++n ) {
      links.push_back( std::make_unique<Link>() );
      Link& link = *links.back();
      ASSERT_EQ( pipe2( link.ends, O_CLOEXEC | O_NONBLOCK ), 0 );
      link.arrived = [ &, n ] {
         if( ++arrivals < length ) {
            ASSERT_EQ( write( links[ static_cast<std::size_t>( n ) + 1 ]->ends[ 1 ], "x", 1 ), 1 );
         }
      };
      link.control->setFd( link.ends[ 0 ] );
   }
   const auto task = makeTask( loop.root(), TaskPriority::normal, "writer", [ & ]( FunctionTask& ) {
      ASSERT_EQ( write( links[ 0 ]->ends[ 1 ], "x", 1 ), 1 );
   } );
   task->scheduleTask();
   loop.runUntilIdle();
   EXPECT_EQ( arrivals, length );
}

TEST( VirtualTimeLoopTest, AdvanceRunsAllThatIsDueAtItsEnd ) {
   VirtualTimeLoop loop;
   std::vector<std::shared_ptr<FunctionTask>> tasks;
   for( char const* name : { "a", "b", "c" } ) {
      tasks.push_back( makeTask( loop.root(), TaskPriority::normal, name ) );
      tasks.back()->scheduleTask();
   }
   loop.advance( 0.0 );
   EXPECT_THAT( loop.runLog(), ElementsAre( "a", "b", "c" ) );
   loop.clearRunLog();
   WheelTimer first( [ & ] { tasks[ 0 ]->scheduleTask(); } );
   WheelTimer second( [ & ] { tasks[ 1 ]->scheduleTask(); } );
   first.start( 60.0 );
   second.start( 60.0 );
   loop.advance( 60.0 );
   EXPECT_THAT( loop.runLog(), ElementsAre( "a", "b" ) );
   loop.clearRunLog();
   if( hasThreadLocalSingletons() ) {
      // A handler takes all the time that is left, and more.
      WheelTimer slow( [] {
         const timeval hour{ 3600, 0 };
         applyFastForwardDelta( &hour );
      } );
      slow.start( 60.0 );
      second.start( 120.0 );
      loop.advance( 180.0 );
      EXPECT_THAT( loop.runLog(), ElementsAre( "b" ) );
   }
   // One that never ends keeps nobody.
   tasks[ 0 ]->bodyIs( []( FunctionTask& task ) { task.scheduleTask(); } );
   tasks[ 0 ]->scheduleTask();
   loop.advance( 0.0 );
}

TEST( VirtualTimeLoopTest, OneTurnRunsOneTask ) {
   VirtualTimeLoop loop;
   EXPECT_FALSE( loop.runOneTurn() );
   std::vector<std::shared_ptr<FunctionTask>> tasks;
   for( char const* name : { "a", "b", "c" } ) {
      tasks.push_back( makeTask( loop.root(), TaskPriority::normal, name ) );
      tasks.back()->scheduleTask();
   }
   const std::vector<std::string> expected{ "a", "b", "c" };
   for( std::size_t n = 1; n <= expected.size(); ++n ) {
      ASSERT_TRUE( loop.runOneTurn() );
      EXPECT_EQ( loop.runLog(),
                 std::vector( expected.begin(), expected.begin() + static_cast<long>( n ) ) );
   }
   EXPECT_FALSE( loop.runOneTurn() );
   loop.clearRunLog();
   EXPECT_THAT( loop.runLog(), IsEmpty() );
   tasks[ 1 ]->bodyIs( [ & ]( FunctionTask& ) { loop.clearRunLog(); } );
   tasks[ 1 ]->scheduleTask();
   EXPECT_TRUE( loop.runOneTurn() ) << "also when the task empties the log";
}

TEST( VirtualTimeLoopTest, LogHasTheMembersOfTaskGroups ) {
   VirtualTimeLoop loop;
   const auto group = TaskGroup::TaskGroupIs( "group", TaskPriority::normal, false, loop.root() );
   // However slow the machine is.
   group->taskGroupQuantumIs( std::chrono::hours( 1 ) );
   const auto again = [ & ]( FunctionTask& task ) {
      if( task.taskRunCount() < 2 ) {
         task.scheduleTask();
      }
   };
   const auto x = makeTask( group, TaskPriority::normal, "x", again );
   const auto y = makeTask( group, TaskPriority::normal, "y", again );
   x->scheduleTask();
   y->scheduleTask();
   EXPECT_TRUE( loop.runOneTurn() );
   EXPECT_THAT( loop.runLog(), ElementsAre( "TaskGroup;group", "x", "y" ) )
         << "each member once in a run of the group";
   loop.clearRunLog();
   loop.runUntilIdle();
   EXPECT_THAT( loop.runLog(), ElementsAre( "TaskGroup;group", "x", "y" ) );
}

// Some hours of periodic tasks that wake others. Expiries are a whole number of minutes and some
// seconds of the timer's own after the start, so no two come close to each other.
std::vector<std::string> scenario( unsigned seed ) {
   struct Periodic {
      std::shared_ptr<FunctionTask> task;
      double period;
      double due;
      std::unique_ptr<WheelTimer> timer;
   };
   VirtualTimeLoop loop;
   std::mt19937 random( seed );
   std::vector<Periodic> all( 8 );
   const double start = loop.now();
   for( std::size_t n = 0; n < all.size(); ++n ) {
      Periodic& mine = all[ n ];
      mine.task = makeTask( loop.root(), n % 2 ? TaskPriority::normal : TaskPriority::low,
                            String( fmt::format( "t{}", n ) ) );
      mine.period = 60.0 * static_cast<double>( 1 + random() % 10 );
      mine.due = start + mine.period + 5.0 * static_cast<double>( n );
      mine.timer = std::make_unique<WheelTimer>( [ & ] {
         all[ random() % all.size() ].task->scheduleTask();
         mine.task->scheduleTask();
         mine.due += mine.period;
         mine.timer->start( mine.due - loop.now() );
      } );
      mine.timer->start( mine.due - loop.now() );
   }
   loop.advance( 6 * 3600.0 + 50.0 );
   return loop.runLog();
}

TEST( VirtualTimeLoopTest, TwoRunsOfOneScenarioGiveTheSameLog ) {
   const auto first = scenario( 7 );
   EXPECT_GT( first.size(), 300U );
   EXPECT_EQ( scenario( 7 ), first );
   EXPECT_NE( scenario( 8 ), first );
}

TEST( VirtualTimeLoopTest, TeardownPutsEverythingBackAndLeavesRoomForAnother ) {
   const bool onLibevent = hasThreadLocalSingletons();
   for( int round = 0; round < 3; ++round ) {
      EXPECT_FALSE( leInitialized() );
      EXPECT_FALSE( leFastForward() );
      EXPECT_FALSE( Oru::ActivityManager::instance()->virtualTime() );
      VirtualTimeLoop loop;
      EXPECT_EQ( leFastForward(), onLibevent );
      EXPECT_TRUE( Oru::ActivityManager::instance()->virtualTime() );
      EXPECT_TRUE( loop.root()->virtualTime() );
      EXPECT_NE( loop.root(), schedulerRootQuarn() );
      const auto task = makeTask( loop.root(), TaskPriority::normal, "task" );
      WheelTimer timer( [ & ] { task->scheduleTask(); } );
      timer.start( 1000.0 );
      loop.advance( 1001.0 );
      EXPECT_THAT( loop.runLog(), ElementsAre( "task" ) );
      // The wheel goes to the next loop with its master timer set for this.
      timer.start( 10.0 );
   }
   EXPECT_FALSE( leInitialized() );
   // In real time again, ahead of it.
   EXPECT_GT( onLibevent ? leVirtualTimeOffset() : Oru::ActivityManager::virtualTimeOffset(),
              3000.0 );
   setLeFastForward( true );
   Oru::ActivityManagerConfig::virtualTimeIs( true );
   leFree();
   { const VirtualTimeLoop loop; }
   EXPECT_TRUE( leFastForward() );
   EXPECT_TRUE( Oru::ActivityManager::instance()->virtualTime() );
   setLeFastForward( false );
   leFree();
}

TEST( VirtualTimeLoopTest, TaskThatOutlivesTheLoopIsHarmless ) {
   std::shared_ptr<FunctionTask> task;
   {
      VirtualTimeLoop loop;
      task = makeTask( loop.root(), TaskPriority::normal, "survivor" );
      task->scheduleTask();
      loop.runUntilIdle();
   }
   VirtualTimeLoop next;
   task->scheduleTask();
   next.runUntilIdle();
   EXPECT_EQ( task->taskRunCount(), 2U );
   EXPECT_THAT( next.runLog(), IsEmpty() );
   task.reset();
}

TEST( VirtualTimeLoopTest, ExceptionOfATaskLeavesTheLoopUsable ) {
   VirtualTimeLoop loop;
   const auto thrower = makeTask( loop.root(), TaskPriority::normal, "thrower",
                                  []( FunctionTask& ) { throw std::runtime_error( "out" ); } );
   const auto other = makeTask( loop.root(), TaskPriority::low, "other" );
   const auto runs = std::vector<std::function<void()>>{ [ & ] { loop.advance( 10.0 ); },
                                                         [ & ] { loop.runUntilIdle(); },
                                                         [ & ] { loop.runOneTurn(); } };
   for( const auto& run : runs ) {
      loop.clearRunLog();
      thrower->scheduleTask();
      other->scheduleTask();
      EXPECT_THROW( run(), std::runtime_error );
      EXPECT_THAT( loop.runLog(), ElementsAre( "thrower" ) );
      run();
      EXPECT_THAT( loop.runLog(), ElementsAre( "thrower", "other" ) );
   }
}

TEST( VirtualTimeLoopTest, RefusesTheWrongPlace ) {
   std::thread( [] {
      EXPECT_FATAL( VirtualTimeLoop{}, "a VirtualTimeLoop belongs on the main thread" );
      EXPECT_FALSE( leInitialized() );
   } ).join();
   if( !hasThreadLocalSingletons() ) {
      return;
   }
   const VirtualTimeLoop loop;
   EXPECT_FATAL( VirtualTimeLoop{}, "the thread has an event base already" );
   EXPECT_TRUE( leFastForward() ) << "a refused loop changes nothing";
}

TEST( ManualClocksTest, StandStillUntilTheyAreMoved ) {
   {
      Testing::ManualSteadyClock steady( std::chrono::seconds( 5 ) );
      Testing::ManualTimerClock timer( 1000.0 );
      EXPECT_EQ( taskTimeNow().time_since_epoch(), std::chrono::seconds( 5 ) );
      const std::uint64_t ticks = Rdtsc::read();
      steady.advance( std::chrono::nanoseconds( 7 ) );
      EXPECT_EQ( Rdtsc::read(), ticks + 7 );
      EXPECT_EQ( taskTimeNow().time_since_epoch().count(), 5'000'000'007 );
      EXPECT_EQ( steady.reads(), 2U );
      timer.advance( 0.5 );
      EXPECT_EQ( time(), 1000.5 );
      timer.set( 3.0 );
      EXPECT_EQ( time(), timer.now() );
   }
   EXPECT_GT( time(), 1e9 );
   EXPECT_NE( taskTimeNow().time_since_epoch().count(), 5'000'000'007 );
}

} // namespace
