// Tasks, runs, timers, descriptors, groups and counters, with memory that runs out.

#include "prove/AllocationScenarios.h"

#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/scheduler/CriticalTask.h>
#include <Quarn/testing/VirtualTimeLoop.h>
#include <Quarn/timers/TimerTask.h>

#include <array>
#include <limits>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace prove {

namespace {

using namespace Quarn;
using testing_support::FunctionTask;
using testing_support::makeTask;

// Longer than what a string keeps in place.
String longName( char const* what ) {
   return String( std::string( what ) + " of a scenario whose memory runs out" );
}

// libevent reports its own want of memory by a result.
constexpr May timerFails{ nullptr, "LibeventTimerControl::setTimeout() Failed to add event fd -1: "
                                   "Cannot allocate memory" };
constexpr May watchFails{ nullptr, "LibeventFdControl::_armRead() Failed to add event fd |"
                                   "LibeventFdControl::_armWrite() Failed to add event fd " };
// A loop has a timer of its own, and what it runs may watch descriptors.
constexpr May loopFails{ nullptr, "EvLoopBreak() Failed to add event|"
                                  "LibeventFdControl::_armWrite() Failed to add event fd " };
// What is asked for at once.
constexpr May asked{ "what is due is made active where there is no room for a timer" };
// What the record of a task that goes may come to.
constexpr May recordLost{ "the first record of a name that finds no memory is left out", nullptr,
                          nullptr };

void goodRoot( const std::shared_ptr<TaskSchedulerRoot>& root ) {
   Trial::require( !root || root->checkForTest(), "queues, list and counts disagree" );
}

// ----------------------------------------------------------------------------------------- tasks

void tasks( Trial& trial ) {
   std::shared_ptr<TaskSchedulerRoot> root;
   std::vector<std::shared_ptr<FunctionTask>> made;
   trial.call( "schedulerRootQuarn", [ & ] { root = schedulerRootQuarn(); },
               { "libevent goes on without what it can do without", "Failed to create event_base",
                 nullptr } );
   trial.invariantsAre( [ & ] { goodRoot( root ); } );
   std::uint32_t expected = 0;
   for( const TaskPriority priority :
        { TaskPriority::high, TaskPriority::normal, TaskPriority::normal } ) {
      std::shared_ptr<FunctionTask> task;
      trial.call( "Task", [ & ] { task = makeTask( root, priority, longName( "task" ) ); } );
      Trial::require( root->totalRegisteredTaskCount() == ++expected,
                      "a task that failed is still registered" );
      trial.call( "taskStatsNameIs",
                  [ & ] { task->taskStatsNameIs( longName( "statistics name" ) ); } );
      made.push_back( std::move( task ) );
   }
   trial.call( "a task by a plain pointer", [ & ] {
      const auto task = std::make_shared<FunctionTask>( root->shared_from_this(), TaskPriority::low,
                                                        longName( "short-lived" ) );
      task->includeInCompletedTaskIs( false );
   } );
   trial.call( "registerBusyCallback", [ & ] { root->registerBusyCallback( &made, [] {} ); } );
   trial.call( "taskTestYieldRatioIs", [ & ] { made[ 0 ]->taskTestYieldRatioIs( 3 ); } );
   Trial::require( root->anyTaskForcesYieldInTest(), "the forced yield is not known" );
   trial.call( "the root's ratio", [ & ] { root->taskTestYieldRatioIs( 2 ); } );
   for( const std::size_t n : { 1u, 2u } ) {
      const bool first = made[ n ]->taskShouldYield();
      Trial::require( made[ n ]->taskShouldYield() != first, "a task goes by another ratio" );
   }
   trial.call( "a task under the root's ratio", [ & ] {
      makeTask( root, TaskPriority::low, longName( "forced" ) )->includeInCompletedTaskIs( false );
   } );
   trial.call( "the root's ratio ends", [ & ] { root->taskTestYieldRatioIs( 0 ); } );
   trial.call( "taskForTest", [ & ] { root->taskForTest( longName( "task" ) ); } );
   trial.call( "queueStats", [ & ] { root->queueStats(); } );
   trial.call( "queueStatsRoot", [ & ] { root->queueStatsRoot(); } );
   trial.call( "findSchedulerForTest",
               [ & ] { root->findSchedulerForTest( root->schedulerName() ); } );
   trial.call(
         "~Task", [ & ] { made.clear(); }, recordLost );
   Trial::require( root->totalRegisteredTaskCount() == 0, "a task that is gone is registered" );
   Trial::require( !root->anyTaskForcesYieldInTest(), "a task that is gone forces yields" );
}

// ------------------------------------------------------------------------------------------ runs

void runs( Trial& trial ) {
   Quarn::Testing::VirtualTimeLoop loop;
   const std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   trial.invariantsAre( [ & ] { goodRoot( root ); } );
   unsigned plain = 0;
   unsigned keen = 0;
   const auto task =
         makeTask( root, TaskPriority::normal, longName( "task" ), [ & ]( FunctionTask& self ) {
            if( ++plain % 3 != 0 ) {
               self.scheduleTask();
            }
         } );
   const auto critical = makeTask( root, TaskPriority::critical, longName( "test" ),
                                   [ & ]( FunctionTask& ) { ++keen; } );
   unsigned told = 0;
   root->registerBusyCallback( &told, [ & ] { ++told; } );
   trial.call( "historyEntryCountIs", [ & ] { root->historyEntryCountIs( 200 ); } );
   Trial::require( root->historyEntryCount() == 200, "the capacity is another" );
   trial.call(
         "scheduleTask", [ & ] { task->scheduleTask(); }, asked );
   trial.call(
         "the loop", [ & ] { loop.runUntilIdle(); }, loopFails );
   loop.runUntilIdle();
   Trial::require( plain % 3 == 0 && plain > 0, "a run was lost" );
   trial.call(
         "scheduleTask of a critical task", [ & ] { critical->scheduleTask(); }, asked );
   trial.call( "runCriticalPriorityTasks", [ & ] { root->runCriticalPriorityTasks(); } );
   Trial::require( keen == 1, "a critical run was lost" );
   trial.call( "taskRunFromTest", [ & ] { task->taskRunFromTest(); } );
   task->unscheduleTask();
   trial.call( "suspendedIs", [ & ] { root->suspendedIs( true ); } );
   task->scheduleTask();
   trial.call(
         "the loop of a suspended root", [ & ] { loop.runUntilIdle(); }, loopFails );
   Trial::require( task->taskScheduled(), "a suspended root runs a task" );
   trial.call(
         "suspendedIs again", [ & ] { root->suspendedIs( false ); }, asked );
   // A resumption that failed half-way is the caller's to ask for again.
   root->suspendedIs( true );
   root->suspendedIs( false );
   loop.runUntilIdle();
   Trial::require( !task->taskScheduled(), "a run was lost under suspension" );
   trial.call( "the history as a string", [ & ] { root->historyRenderTextForDebugToString(); } );
   trial.call( "clearHistory", [ & ] { root->clearHistory(); } );
   root->unregisterBusyCallback( &told );
}

// ---------------------------------------------------------------------------------------- timers

class Ticker : public TimerTask {
 public:
   using TimerTask::TimerTask;
   unsigned fired = 0;
   double firedAt = 0.0;

 private:
   void taskExecute() override {
      ++fired;
      firedAt = Quarn::time();
   }
};

struct OnWheel : Platform::TimeoutHandler {
   void timeout() override { ++fired; }
   unsigned fired = 0;
};

// A timer of the wheel that is left running fires although nobody asks for it again.
void isServed( double remaining, const std::shared_ptr<TimerWheel>& wheel ) {
   constexpr double infinity = std::numeric_limits<double>::infinity();
   constexpr double rounding = 1e-6;
   Trial::require( remaining == infinity ||
                         wheel->masterExpiryForTest() <= Quarn::time() + remaining + rounding,
                   "a timer runs, and the wheel does not wake for it" );
}

void timerTasks( Trial& trial ) {
   Quarn::Testing::VirtualTimeLoop loop;
   const std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   std::array<std::shared_ptr<Ticker>, 3> tickers;
   trial.invariantsAre( [ & ] {
      goodRoot( root );
      for( const auto& ticker : tickers ) {
         if( ticker ) {
            isServed( ticker->timerRemaining(), root->timerWheelForTest() );
         }
      }
   } );
   for( auto& ticker : tickers ) {
      trial.call( "TimerTask", [ & ] {
         ticker = std::make_shared<Ticker>( root, TaskPriority::normal, longName( "ticker" ) );
      } );
   }
   const double start = loop.now();
   trial.call(
         "scheduleTaskDelay", [ & ] { tickers[ 0 ]->scheduleTaskDelay( 10.0 ); }, timerFails );
   trial.call(
         "scheduleTaskJitterUp", [ & ] { tickers[ 1 ]->scheduleTaskJitterUp( 10.0, 50 ); },
         timerFails );
   trial.call(
         "scheduleTaskLowestDelay", [ & ] { tickers[ 2 ]->scheduleTaskLowestDelay( 5.0 ); },
         timerFails );
   for( const auto& ticker : tickers ) {
      Trial::require( ticker->taskScheduled(), "a timer does not run" );
   }
   trial.call(
         "the loop in virtual time", [ & ] { loop.advance( 20.0 ); }, loopFails );
   // What a failure held up.
   loop.advance( 60.0 );
   for( const auto& ticker : tickers ) {
      Trial::require( ticker->fired == 1, "a timer was lost, or fired twice" );
      Trial::require( ticker->firedAt >= start + 5.0, "a timer was early" );
   }
   tickers[ 0 ]->scheduleTaskDelay( 10.0 );
   trial.call( "stopTimerTask", [ & ] { tickers[ 0 ]->stopTimerTask(); } );
   tickers[ 0 ]->scheduleTaskDelay( 10.0 );
   trial.call(
         "~TimerTask", [ & ] { tickers = {}; }, recordLost );
   loop.advance( 20.0 );
}

void timerWheel( Trial& trial ) {
   Quarn::Testing::VirtualTimeLoop loop;
   std::shared_ptr<TimerWheel> wheel;
   trial.call( "getTimerWheel", [ & ] { wheel = getTimerWheel(); } );
   constexpr unsigned timers = 12;
   OnWheel handler;
   std::vector<std::shared_ptr<Platform::TimerControl>> controls( timers );
   trial.invariantsAre( [ & ] {
      for( const auto& control : controls ) {
         if( control ) {
            isServed( control->remainingTimeout(), wheel );
         }
      }
   } );
   for( auto& control : controls ) {
      trial.call( "getTimerControl",
                  [ & ] { control = Platform::getTimerControl( &handler, wheel ); } );
   }
   for( unsigned i = 0; i < timers; ++i ) {
      trial.call(
            "setTimeout", [ & ] { controls[ i ]->setTimeout( 1.0 + 0.3 * ( i % 5 ) ); },
            timerFails );
   }
   trial.call(
         "the loop in virtual time", [ & ] { loop.advance( 0.5 ); }, loopFails );
   trial.call(
         "the wheel's delivery", [ & ] { loop.advance( 10.0 ); }, loopFails );
   loop.advance( 60.0 );
   Trial::require( handler.fired == timers, "a timer was lost, or fired twice" );
   for( const auto& control : controls ) {
      Trial::require( control->remainingTimeout() == std::numeric_limits<double>::infinity(),
                      "a timer that has fired still runs" );
   }
   trial.call( "~TimerControl", [ & ] { controls.clear(); } );
}

// ----------------------------------------------------------------------------------- descriptors

struct Pair {
   Pair() {
      Trial::require( socketpair( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds ) == 0,
                      "socketpair" );
   }
   ~Pair() {
      close( fds[ 0 ] );
      close( fds[ 1 ] );
   }
   Pair( const Pair& ) = delete;
   Pair& operator=( const Pair& ) = delete;
   void send() const { Trial::require( write( fds[ 1 ], "x", 1 ) == 1, "write" ); }
   int fds[ 2 ];
};

class Line : public FileDescriptorTask {
 public:
   using FileDescriptorTask::FileDescriptorTask;
   unsigned bytes = 0;
   unsigned writes = 0;

 private:
   void taskExecuteReadable() override {
      char buffer[ 16 ];
      const ssize_t n = read( taskWatchFd(), buffer, sizeof( buffer ) );
      bytes += n > 0 ? static_cast<unsigned>( n ) : 0;
   }
   void taskExecuteWritable() override { ++writes; }
};

struct Listener : Platform::FdEventHandler {
   void readFdEvent( int fd ) override {
      char c;
      reads += read( fd, &c, 1 ) == 1 ? 1 : 0;
   }
   void writeFdEvent( int ) override { ++writes; }
   unsigned reads = 0;
   unsigned writes = 0;
};

void descriptorTasks( Trial& trial ) {
   Quarn::Testing::VirtualTimeLoop loop;
   const std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   trial.invariantsAre( [ & ] { goodRoot( root ); } );
   const Pair first;
   const Pair second;
   std::shared_ptr<Line> line;
   trial.call( "FileDescriptorTask", [ & ] {
      line = std::make_shared<Line>( root, TaskPriority::normal, longName( "line" ) );
   } );
   trial.call( "taskStatsNameIs", [ & ] { line->taskStatsNameIs( longName( "lines" ) ); } );
   trial.call(
         "taskWatchFdIs", [ & ] { line->taskWatchFdIs( first.fds[ 0 ] ); }, watchFails );
   Trial::require( line->taskWatchFd() == first.fds[ 0 ], "watches another descriptor" );
   first.send();
   trial.call(
         "the loop", [ & ] { loop.runUntilIdle(); }, loopFails );
   loop.runUntilIdle();
   Trial::require( line->bytes == 1, "a byte was not reported" );
   trial.call(
         "taskWatchWritableIs", [ & ] { line->taskWatchWritableIs( true ); }, watchFails );
   Trial::require( line->taskWatchWritable(), "writes are not watched" );
   trial.call(
         "the loop that writes", [ & ] { loop.runUntilIdle(); }, loopFails );
   loop.runUntilIdle();
   Trial::require( line->writes == 1, "writability was not reported once" );
   trial.call(
         "taskWatchFdIs of another", [ & ] { line->taskWatchFdIs( second.fds[ 0 ] ); },
         watchFails );
   second.send();
   trial.call(
         "the loop on another", [ & ] { loop.runUntilIdle(); }, loopFails );
   loop.runUntilIdle();
   Trial::require( line->bytes == 2, "a byte of the other descriptor was not reported" );
   trial.call(
         "scheduleTaskWritable", [ & ] { line->scheduleTaskWritable(); }, asked );
   loop.runUntilIdle();
   trial.call( "taskWatchFdDel", [ & ] { line->taskWatchFdDel(); } );
   trial.call(
         "~FileDescriptorTask", [ & ] { line.reset(); }, recordLost );
}

void controls( Trial& trial ) {
   Quarn::Testing::VirtualTimeLoop loop;
   const std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   trial.invariantsAre( [ & ] { goodRoot( root ); } );
   const Pair pair;
   Listener listener;
   OnWheel timeouts;
   struct OnCall : Platform::CallbackHandler {
      void callback() override { ++calls; }
      unsigned calls = 0;
   } callbacks;
   std::shared_ptr<Platform::FdControl> fd;
   std::shared_ptr<Platform::TimerControl> timer;
   std::shared_ptr<Platform::CallbackControl> callback;
   for( const bool asTask : { false, true } ) {
      listener = {};
      timeouts.fired = 0;
      callbacks.calls = 0;
      trial.call( "getFdControl", [ & ] {
         fd = asTask ? Platform::getFdControl( &listener, root, TaskPriority::normal,
                                               longName( "descriptor" ) )
                     : Platform::getFdControl( &listener );
      } );
      trial.call( "getTimerControl", [ & ] {
         timer = asTask ? Platform::getTimerControl( &timeouts, root, TaskPriority::normal,
                                                     longName( "timer" ) )
                        : Platform::getTimerControl( &timeouts );
      } );
      trial.call( "getCallbackControl", [ & ] {
         callback = asTask ? Platform::getCallbackControl( &callbacks, root, TaskPriority::normal,
                                                           longName( "callback" ) )
                           : Platform::getCallbackControl( &callbacks );
      } );
      trial.call(
            "setFd", [ & ] { fd->setFd( pair.fds[ 0 ] ); }, watchFails );
      trial.call(
            "setWrites", [ & ] { fd->setWrites( true ); }, watchFails );
      trial.call(
            "setTimeout", [ & ] { timer->setTimeout( 2.0 ); }, timerFails );
      trial.call( "requestCallback", [ & ] { callback->requestCallback(); } );
      pair.send();
      trial.call(
            "the loop", [ & ] { loop.advance( 3.0 ); }, loopFails );
      loop.advance( 3.0 );
      Trial::require( listener.reads == 1 && listener.writes == 1, "a descriptor was not heard" );
      Trial::require( timeouts.fired == 1, "a timer was lost" );
      Trial::require( callbacks.calls == 1, "a callback was lost" );
      trial.call(
            "~Control",
            [ & ] {
               fd.reset();
               timer.reset();
               callback.reset();
            },
            recordLost );
   }
}

// ---------------------------------------------------------------------------------------- groups

void taskGroups( Trial& trial ) {
   Quarn::Testing::VirtualTimeLoop loop;
   const std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   std::shared_ptr<TaskGroup> outer;
   std::shared_ptr<TaskGroup> inner;
   trial.invariantsAre( [ & ] {
      goodRoot( root );
      Trial::require( !outer || outer->checkForTest(), "the group disagrees with itself" );
      Trial::require( !inner || inner->checkForTest(), "the inner group disagrees with itself" );
   } );
   trial.call( "TaskGroupIs", [ & ] {
      outer = TaskGroup::TaskGroupIs( longName( "outer" ), TaskPriority::low, false, root );
   } );
   trial.call( "TaskGroupIs within", [ & ] {
      inner = TaskGroup::TaskGroupIs( longName( "inner" ), TaskPriority::low, false, outer );
   } );
   Trial::require( root->taskGroupCount() == 2, "a group that failed is still known" );
   trial.call( "taskGroupForceYieldInTestIs without members",
               [ & ] { inner->taskGroupForceYieldInTestIs( true ); } );
   Trial::require( outer->anyTaskForcesYieldInTest() && root->anyTaskForcesYieldInTest(),
                   "a forced yield is not known to the groups above" );
   inner->taskGroupForceYieldInTestIs( false );
   Trial::require( !outer->anyTaskForcesYieldInTest() && !root->anyTaskForcesYieldInTest(),
                   "a forced yield is left behind" );
   unsigned ran = 0;
   std::vector<std::shared_ptr<FunctionTask>> members;
   for( const auto& group : { outer, inner, inner } ) {
      trial.call( "Task of a group", [ & ] {
         members.push_back( makeTask( group, TaskPriority::low, longName( "member" ),
                                      [ & ]( FunctionTask& ) { ++ran; } ) );
      } );
   }
   trial.call( "taskForceYieldInTestIs", [ & ] { members[ 1 ]->taskForceYieldInTestIs( true ); } );
   trial.call( "taskForceYieldInTestIs of a second",
               [ & ] { members[ 2 ]->taskForceYieldInTestIs( true ); } );
   trial.call( "taskGroupForceYieldInTestIs",
               [ & ] { inner->taskGroupForceYieldInTestIs( true ); } );
   const auto schedule = [ & ] {
      for( const auto& member : members ) {
         member->scheduleTask();
      }
   };
   trial.call( "scheduleTask", schedule, asked );
   trial.call(
         "the loop", [ & ] { loop.runUntilIdle(); }, loopFails );
   loop.runUntilIdle();
   Trial::require( ran == 3, "a member's run was lost" );
   trial.call( "taskGroupSuspendedIs", [ & ] { outer->taskGroupSuspendedIs( true ); } );
   schedule();
   trial.call(
         "the loop of a suspended group", [ & ] { loop.runUntilIdle(); }, loopFails );
   Trial::require( ran == 3, "a suspended member ran" );
   trial.call(
         "taskGroupSuspendedIs again", [ & ] { outer->taskGroupSuspendedIs( false ); }, asked );
   outer->taskGroupSuspendedIs( true );
   outer->taskGroupSuspendedIs( false );
   loop.runUntilIdle();
   Trial::require( ran == 6, "a member's run was lost under suspension" );
   trial.call( "taskGroupRunFromTest", [ & ] { inner->taskGroupRunFromTest(); } );
   loop.runUntilIdle();
   trial.call( "the end of forced yields",
               [ & ] { members[ 2 ]->taskForceYieldInTestIs( false ); } );
   trial.call( "the end of the last forced yield",
               [ & ] { members[ 1 ]->taskForceYieldInTestIs( false ); } );
   trial.call(
         "~Task of a group", [ & ] { members.clear(); }, recordLost );
   trial.call(
         "~TaskGroup", [ & ] { inner.reset(); }, recordLost );
   trial.call(
         "~TaskGroup without members", [ & ] { outer.reset(); }, recordLost );
   Trial::require( root->taskGroupCount() == 0, "a group that is gone is known" );
}

// -------------------------------------------------------------------------------------- counters

void statistics( Trial& trial ) {
   Quarn::Testing::VirtualTimeLoop loop;
   const std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   trial.invariantsAre( [ & ] { goodRoot( root ); } );
   constexpr int records = 20;
   std::uint64_t kept = 0;
   for( int i = 0; i < records; ++i ) {
      auto task = makeTask( root, TaskPriority::normal,
                            longName( ( "gone " + std::to_string( i ) ).c_str() ) );
      task->taskRunFromTest();
      trial.call(
            "~Task", [ & ] { task.reset(); }, recordLost );
      kept += trial.failedInLastCall() ? 0 : 1;
      Trial::require( root->completedTasksPerPriority( TaskPriority::normal ) >= kept,
                      "the count of completed tasks lacks one" );
   }
   const auto busy = makeTask( root, TaskPriority::normal, longName( "busy" ) );
   busy->taskRunFromTest();
   BasicVector<TaskStat> found;
   const auto fresh = [ & ] { found.clear(); };
   trial.call( "getTaskStats", [ & ] {
      fresh();
      root->getTaskStats( found, true );
   } );
   Trial::require( !found.empty(), "a registered task is not reported" );
   trial.call( "getCompletedTaskStats", [ & ] {
      fresh();
      root->getCompletedTaskStats( found, true );
   } );
   Trial::require( found.size() == root->completedTasksPerPriority( TaskPriority::normal ),
                   "records and their count disagree" );
   const TaskNameRegex filter( String( "gone 1.*" ) );
   trial.call( "getCompletedTaskStats with a filter", [ & ] {
      fresh();
      root->getCompletedTaskStats( found, true, &filter );
   } );
   trial.call( "completedTaskStatForTest",
               [ & ] { root->completedTaskStatForTest( found.front().taskName() ); } );
   trial.call(
         "resetStats", [ & ] { root->resetStats(); }, asked );
   trial.call(
         "the walk of the reset", [ & ] { loop.runUntilIdle(); }, loopFails );
   loop.runUntilIdle();
   Trial::require( !root->resetStatsInProgress() && busy->taskRunCount() == 0,
                   "the reset was lost" );
   trial.call( "clearStats", [ & ] { root->clearStats(); } );
}

// ------------------------------------------------------------------------------------ the thread

void eventBase( Trial& trial ) {
   constexpr May noBase{ "libevent goes on without what it can do without",
                         "Failed to create event_base" };
   trial.call(
         "leInit", [ & ] { leInit(); }, noBase );
   Trial::require( leInitialized(), "the thread has no base" );
   OnWheel handler;
   const auto timer = Platform::getTimerControl( &handler );
   trial.call( "setLeFastForward", [ & ] { setLeFastForward( true ); } );
   timer->setTimeout( 5.0 );
   trial.call(
         "eventLoopFastForwardToFirstTimer", [ & ] { eventLoopFastForwardToFirstTimer( 60.0 ); },
         loopFails );
   for( int i = 0; i < 3 && handler.fired == 0; ++i ) {
      eventLoopFastForwardToFirstTimer( 60.0 );
   }
   Trial::require( handler.fired == 1, "a timer was lost" );
   timer->setTimeout( 5.0 );
   const timeval delta{ 10, 0 };
   const double before = leVirtualTimeOffset();
   trial.call( "applyFastForwardDelta", [ & ] { applyFastForwardDelta( &delta ); } );
   Trial::require( leVirtualTimeOffset() == before + 10.0, "the time moved by another step" );
   trial.call(
         "doLeEventLoop", [ & ] { doLeEventLoop( 1.0 ); }, loopFails );
   doLeEventLoop( 1.0 );
   Trial::require( handler.fired == 2, "a timer was lost" );
   trial.call( "leForkReinit", [ & ] { leForkReinit(); },
               { nullptr, "fatalCallback() libevent fatal error:1",
                 "a trace of what libevent says ends the process when its text finds no memory",
                 nullptr, "the thread gives that base up, with what it has" } );
   trial.call( "leFree", [ & ] { leFree(); } );
   Trial::require( !leInitialized(), "the base is still there" );
   timer->delTimeout();
}

constexpr Scenario scenarios[] = {
      { "tasks", &tasks },
      { "runs with history", &runs },
      { "timer tasks", &timerTasks },
      { "timer wheel", &timerWheel },
      { "descriptor tasks", &descriptorTasks },
      { "controls", &controls },
      { "task groups", &taskGroups },
      { "statistics", &statistics },
      { "event base", &eventBase },
};

} // namespace

std::span<const Scenario> taskScenarios() { return scenarios; }

} // namespace prove
