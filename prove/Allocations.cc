// Allocations on the hot path, counted by a hook under everything that allocates: the library, the
// event library, the framework. Each kind of run is repeated a million times after a short warm-up,
// in which rings and heaps fill, on both loops, each in a process of its own.

#include "prove/BothLoops.h"
#include "prove/Row.h"

#include "support/AllocationCount.h"

#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/Clocks.h>

#include <fmt/format.h>

#include <array>
#include <iostream>
#include <iterator>
#include <memory>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using Quarn::Testing::ManualTimerClock;
using testing_support::allocations;

constexpr std::uint64_t warmUp = 2'000;
// No name fits in place.
constexpr char const* longName = "a test task whose name does not fit in place";

// Runs so many of its kind, and says whether as many took place.
using Runs = std::function<bool( std::uint64_t )>;

class Repeating : public TimerTask {
 public:
   Repeating( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, double delay )
         : TimerTask( std::move( scheduler ), priority, longName ),
           delay_( delay ) {}

   void leftIs( std::uint64_t left ) {
      left_ = left;
      scheduleTaskDelay( delay_ );
   }
   std::uint64_t left() const { return left_; }

 private:
   void taskExecute() override {
      taskWorkCountInc( 3 );
      taskWorkPendingIs( 4 );
      if( --left_ > 0 ) {
         scheduleTaskDelay( delay_ );
      }
   }

   double delay_;
   std::uint64_t left_ = 0;
};

std::shared_ptr<Repeating> repeating( std::shared_ptr<TaskScheduler> scheduler,
                                      TaskPriority priority, double delay = 0.0 ) {
   return std::make_shared<Repeating>( std::move( scheduler ), priority, delay );
}

template<typename Condition>
void loopWhile( const Condition& condition ) {
   while( condition() ) {
      Platform::doEventLoop( 0.0 );
   }
}

// ------------------------------------------------------------------------------------------- kinds

Runs scheduleAndRun() {
   const std::shared_ptr<Repeating> task = repeating( schedulerRootQuarn(), TaskPriority::normal );
   return [ task ]( std::uint64_t count ) {
      const std::uint64_t before = task->taskRunCount();
      task->leftIs( count );
      loopWhile( [ & ] { return task->taskScheduled(); } );
      return task->taskRunCount() - before == count;
   };
}

struct Event final : TimerWheelEvent {
   void timeout() override { ++fired; }
   std::uint64_t fired = 0;
};

// A start, a move, a start that is stopped, and an expiry each.
Runs wheelTimers() {
   struct Wheel {
      ~Wheel() {
         for( Event& event : events ) {
            wheel->timerStop( &event );
         }
      }
      ManualTimerClock clock;
      std::shared_ptr<TimerWheel> wheel =
            getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault );
      std::vector<Event> events = std::vector<Event>( 128 );
   };
   auto all = std::make_shared<Wheel>();
   return [ all ]( std::uint64_t count ) {
      std::uint64_t expired = 0;
      for( std::uint64_t n = 0; n < count; ++n ) {
         Event& event = all->events[ n % 64 ];
         Event& stopped = all->events[ 64 + n % 64 ];
         const std::uint64_t before = event.fired;
         all->wheel->timerStart( &event, 0.001 * static_cast<double>( n % 5'000 ) + 1.0 );
         all->wheel->timerStart( &stopped, 3600.0 );
         all->wheel->timerStart( &event, 0.001 * static_cast<double>( n % 50 ) + 0.001 );
         all->wheel->timerStop( &stopped );
         all->clock.advance( 0.06 );
         all->wheel->timeout();
         expired += event.fired - before;
      }
      return expired == count;
   };
}

// A timer task starts, is moved, expires, joins the queue and runs; another is stopped each time.
Runs timerTasks() {
   struct Tasks {
      ManualTimerClock clock;
      std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
      std::shared_ptr<Repeating> runs = repeating( root, TaskPriority::normal, 0.5 );
      std::shared_ptr<Repeating> stops = repeating( root, TaskPriority::low, 5.0 );
   };
   auto all = std::make_shared<Tasks>();
   return [ all ]( std::uint64_t count ) {
      const std::uint64_t before = all->runs->taskRunCount();
      all->runs->leftIs( count );
      for( std::uint64_t n = 0; n < count; ++n ) {
         all->runs->scheduleTaskJitterUp( 0.3, 50 );
         all->stops->leftIs( 1 );
         all->clock.advance( 0.5 );
         all->stops->stopTimerTask();
         processExpiredTimersForTaskScheduler( all->root->timerWheelForTest() );
         all->root->handleSchedulerRun();
      }
      return all->runs->taskRunCount() - before == count;
   };
}

// Sends a byte to the other end of its pair for each that comes, and has itself told that it may.
class Returner final : public FileDescriptorTask {
 public:
   Returner( int fd, std::uint64_t& left, bool asks )
         : FileDescriptorTask( schedulerRootQuarn(), TaskPriority::normal, longName ),
           left_( left ),
           asks_( asks ) {
      taskWatchFdIs( fd );
   }

 private:
   void taskExecuteReadable() override {
      char byte = 0;
      if( read( taskWatchFd(), &byte, 1 ) == 1 ) {
         taskWorkCountInc( 1 );
         if( --left_ == 0 ) {
            return;
         }
         if( asks_ ) {
            taskWatchWritableIs( true );
         } else {
            taskExecuteWritable();
         }
      }
   }
   void taskExecuteWritable() override {
      if( write( taskWatchFd(), "x", 1 ) != 1 ) {
         left_ = 0;
      }
   }

   std::uint64_t& left_;
   bool asks_;
};

Runs descriptorTask( bool asks ) {
   struct Pair {
      explicit Pair( bool asks ) {
         if( socketpair( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends ) == 0 ) {
            one = std::make_shared<Returner>( ends[ 0 ], left, asks );
            other = std::make_shared<Returner>( ends[ 1 ], left, asks );
         }
      }
      ~Pair() {
         one.reset();
         other.reset();
         close( ends[ 0 ] );
         close( ends[ 1 ] );
      }
      int ends[ 2 ] = { -1, -1 };
      std::uint64_t left = 0;
      std::shared_ptr<Returner> one;
      std::shared_ptr<Returner> other;
   };
   auto pair = std::make_shared<Pair>( asks );
   return [ pair ]( std::uint64_t count ) {
      const auto runs = [ & ] {
         return pair->one->taskWorkCountReadableTotal() + pair->other->taskWorkCountReadableTotal();
      };
      const std::uint64_t before = runs();
      pair->left = count;
      if( write( pair->ends[ 0 ], "x", 1 ) != 1 ) {
         return false;
      }
      loopWhile( [ & ] {
         return pair->left > 0 || pair->one->taskScheduled() || pair->other->taskScheduled();
      } );
      return runs() - before == count;
   };
}

Runs groupMembers( bool multipleRuns ) {
   struct Group {
      std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
      std::shared_ptr<TaskGroup> outer = TaskGroup::TaskGroupIs(
            "a group whose name does not fit in place", TaskPriority::normal, false, root );
      std::shared_ptr<TaskGroup> inner =
            TaskGroup::TaskGroupIs( "inner", TaskPriority::normal, false, outer );
      std::shared_ptr<Repeating> members[ 4 ] = {
            repeating( outer, TaskPriority::normal ), repeating( outer, TaskPriority::normal ),
            repeating( inner, TaskPriority::normal ), repeating( inner, TaskPriority::normal ) };
   };
   auto all = std::make_shared<Group>();
   all->outer->tasksPermittedMultipleRunsIs( multipleRuns );
   all->inner->tasksPermittedMultipleRunsIs( multipleRuns );
   return [ all ]( std::uint64_t count ) {
      std::uint64_t ran = 0;
      for( const auto& member : all->members ) {
         ran -= member->taskRunCount();
         member->leftIs( ( count + 3 ) / 4 );
      }
      while( all->outer->busy() ) {
         all->root->handleSchedulerRun();
      }
      for( const auto& member : all->members ) {
         ran += member->taskRunCount();
      }
      return ran == ( count + 3 ) / 4 * 4;
   };
}

// With and without room, and of more identifiers than the ring has places.
Runs history() {
   struct Histories {
      TaskSchedulerHistory ring{ 100 };
      TaskSchedulerHistory none{ 0 };
      std::array<String, 301> identifiers;
   };
   auto all = std::make_shared<Histories>();
   for( std::size_t n = 0; n < all->identifiers.size(); ++n ) {
      all->identifiers[ n ] = String( fmt::format( "{} {}", longName, n ) ).deduped();
   }
   return [ all ]( std::uint64_t count ) {
      for( std::uint64_t n = 0; n < count; ++n ) {
         const auto type = static_cast<TaskSchedulerEventType>( n % 17 );
         const String& identifier = all->identifiers[ n % all->identifiers.size() ];
         const TaskSchedulerHistory::time_point now{ std::chrono::nanoseconds( n ) };
         all->ring.insert( now, type, identifier );
         all->none.insert( now, type, identifier );
      }
      return all->ring.size() == 100 && all->none.size() == 0;
   };
}

Runs criticalDrain() {
   struct Tasks {
      std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
      std::shared_ptr<Repeating> first = repeating( root, TaskPriority::critical );
      std::shared_ptr<Repeating> second = repeating( root, TaskPriority::critical );
   };
   auto all = std::make_shared<Tasks>();
   return [ all ]( std::uint64_t count ) {
      const std::uint64_t before = all->first->taskRunCount() + all->second->taskRunCount();
      for( std::uint64_t n = 0; n < count; ++n ) {
         all->first->leftIs( 1 );
         all->second->leftIs( 1 );
         all->root->runCriticalPriorityTasks();
      }
      return all->first->taskRunCount() + all->second->taskRunCount() - before == 2 * count;
   };
}

Runs callbacks() {
   struct Handler : Platform::CallbackHandler {
      void callback() override {
         ++calls;
         if( --left > 0 ) {
            control->requestCallback();
         }
      }
      std::uint64_t calls = 0;
      std::uint64_t left = 0;
      std::shared_ptr<Platform::CallbackControl> control = Platform::getCallbackControl( this );
   };
   auto handler = std::make_shared<Handler>();
   return [ handler ]( std::uint64_t count ) {
      const std::uint64_t before = handler->calls;
      handler->left = count;
      handler->control->requestCallback();
      loopWhile( [ & ] { return handler->left > 0; } );
      return handler->calls - before == count;
   };
}

// The loop's own timers: one is moved and fires each time.
Runs timerControls() {
   struct Handler : Platform::TimeoutHandler {
      void timeout() override {
         ++calls;
         if( --left > 0 ) {
            start();
         }
      }
      void start() const {
         control->setTimeout( 3600.0 );
         control->setTimeout( 0.0 );
      }
      std::uint64_t calls = 0;
      std::uint64_t left = 0;
      std::shared_ptr<Platform::TimerControl> control = Platform::getTimerControl( this );
   };
   auto handler = std::make_shared<Handler>();
   return [ handler ]( std::uint64_t count ) {
      const std::uint64_t before = handler->calls;
      handler->left = count;
      handler->start();
      loopWhile( [ & ] { return handler->left > 0; } );
      return handler->calls - before == count;
   };
}

// Controls at both ends of a pair, each of which asks to write when it has read a byte.
Runs descriptorControls() {
   struct Handler : Platform::FdEventHandler {
      void readFdEvent( int fd ) override {
         char byte = 0;
         if( left > 0 && read( fd, &byte, 1 ) == 1 && --left > 0 ) {
            controls[ fd == ends[ 0 ] ? 0 : 1 ]->setWrites( true );
         }
      }
      void writeFdEvent( int fd ) override {
         // The framework's tells of it until it is told not to.
         controls[ fd == ends[ 0 ] ? 0 : 1 ]->setWrites( false );
         failed = write( fd, "x", 1 ) != 1 || failed;
      }
      Handler() {
         if( socketpair( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends ) == 0 ) {
            for( const int end : { 0, 1 } ) {
               controls[ end ] = Platform::getFdControl( this );
               controls[ end ]->setFd( ends[ end ] );
            }
         }
      }
      ~Handler() override {
         for( const int end : { 0, 1 } ) {
            controls[ end ].reset();
            close( ends[ end ] );
         }
      }
      Handler( const Handler& ) = delete;
      Handler& operator=( const Handler& ) = delete;

      int ends[ 2 ] = { -1, -1 };
      std::uint64_t left = 0;
      bool failed = false;
      std::shared_ptr<Platform::FdControl> controls[ 2 ];
   };
   auto handler = std::make_shared<Handler>();
   return [ handler ]( std::uint64_t count ) {
      handler->left = count;
      if( write( handler->ends[ 0 ], "x", 1 ) != 1 ) {
         return false;
      }
      loopWhile( [ & ] { return handler->left > 0 && !handler->failed; } );
      return handler->left == 0;
   };
}

// A scheduler that tells several others, with more than fits in a function object, when it becomes
// busy and idle.
Runs busyCallbacks() {
   struct Told {
      std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
      std::shared_ptr<Repeating> task = repeating( root, TaskPriority::normal );
      std::uint64_t calls = 0;
      char keys[ 5 ] = {};
   };
   auto all = std::make_shared<Told>();
   for( char& key : all->keys ) {
      std::array<std::uint64_t, 8> much{ 1 };
      all->root->registerBusyCallback( &key,
                                       [ told = all.get(), much ] { told->calls += much[ 0 ]; } );
   }
   return [ all ]( std::uint64_t count ) {
      const std::uint64_t before = all->calls;
      for( std::uint64_t n = 0; n < count; ++n ) {
         all->task->leftIs( 1 );
         all->root->handleSchedulerRun();
         all->root->handleSchedulerRun();
      }
      return all->calls - before == 2 * std::size( all->keys ) * count;
   };
}

Runs suspensions() {
   struct Suspended {
      std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
      std::shared_ptr<Repeating> task = repeating( root, TaskPriority::normal );
   };
   auto all = std::make_shared<Suspended>();
   return [ all ]( std::uint64_t count ) {
      const std::uint64_t before = all->task->taskRunCount();
      for( std::uint64_t n = 0; n < count; ++n ) {
         all->task->taskSuspendedIs( true );
         all->task->leftIs( 1 );
         all->task->taskSuspendedIs( false );
         all->root->handleSchedulerRun();
      }
      return all->task->taskRunCount() - before == count;
   };
}

Runs disabledTrace() {
   const auto handler = Platform::getDebugHandler( "ProveAllocations", false );
   return [ handler ]( std::uint64_t count ) {
      std::uint64_t formatted = 0;
      const auto text = [ & ] {
         ++formatted;
         return std::string( longName );
      };
      for( std::uint64_t n = 0; n < count; ++n ) {
         QUARN_FMTRACE( *handler, 9, "Prove", "run {} of {}", n, text() );
      }
      return formatted == 0;
   };
}

struct Kind {
   char const* name;
   Runs ( *make )();
};

constexpr Kind kinds[] = {
      { "schedule and run", scheduleAndRun },
      { "wheel timer", wheelTimers },
      { "timer task", timerTasks },
      { "descriptor task", [] { return descriptorTask( false ); } },
      { "descriptor task that asks to write", [] { return descriptorTask( true ); } },
      { "group member", [] { return groupMembers( true ); } },
      { "group member, once a run", [] { return groupMembers( false ); } },
      { "history", history },
      { "critical drain", criticalDrain },
      { "callback", callbacks },
      { "timer control", timerControls },
      { "descriptor control", descriptorControls },
      { "busy callback", busyCallbacks },
      { "suspension", suspensions },
      { "disabled trace", disabledTrace },
};

struct Result {
   bool good = false;
   std::uint64_t allocations = 0;
   std::uint64_t missing = 0;
};

Result measure( std::uint64_t count, bool framework ) {
   Result result;
   for( const Kind& kind : kinds ) {
      const Runs runs = kind.make();
      bool all = runs( warmUp );
      const std::uint64_t before = allocations();
      all = runs( count ) && all;
      const std::uint64_t made = allocations() - before;
      result.allocations += made;
      result.missing += all ? 0 : 1;
      if( made != 0 || !all ) {
         std::cerr << kind.name << " on " << prove::loopText( framework ) << ": " << made
                   << " allocations in " << count << " runs"
                   << ( all ? "" : ", not all of which took place" ) << std::endl;
      }
   }
   result.good = true;
   return result;
}

prove::Outcome run( const prove::Order& order ) {
   // The hook itself, or none would be counted of anything.
   const std::uint64_t before = allocations();
   const auto seen = std::make_unique<std::array<char, 100>>();
   if( !seen || allocations() == before ) {
      return { false, "the hook does not count" };
   }
   const auto [ first, second ] = prove::onBothLoops<Result>(
         [ & ]( bool framework ) { return measure( order.count, framework ); } );
   if( !first.good || !second.good || first.missing + second.missing != 0 ) {
      return { false, "not all runs took place" };
   }
   const std::uint64_t made = first.allocations + second.allocations;
   return { made == 0, fmt::format( "{} allocations in {} runs of each of {} kinds on two loops",
                                    made, order.count, std::size( kinds ) ) };
}

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow( argc, argv, { 9, "allocations", "0 on the hot path", 1'000'000 }, run );
}
