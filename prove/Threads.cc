// Roots of threads: many at a time, and many one after the other.
//
// First 64 threads have a root each and live at the same time. They share what the process has one
// of: deduped strings, trace facilities and their levels, the marker of critical tasks, plugins,
// snapshots of one another, and they wake one another through pipes. Built with the thread
// sanitizer the program counts its reports. Built without, it looks at what came of the work, which
// is no whole run.
//
// Then threads make roots and end, in waves of 100, in the ways in which a root can end. After
// either as many descriptors and bytes of memory are in use as before it.

#include "prove/Row.h"

#include "support/AllocationCount.h"
#include "support/Tasks.h"
#include "support/TempDir.h"

#include <Quarn/PluginCpp.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/MemTrack.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/debug/DebugHandler.h>
#include <Quarn/debug/Trace.h>
#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/platform/EventBase.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/scheduler/CriticalTask.h>
#include <Quarn/stats/TaskSchedulerPrintContext.h>
#include <Quarn/stats/TaskSchedulerSnapshot.h>
#include <Quarn/timers/TimerTask.h>
#include <Quarn/timers/TimerWheel.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#if defined( __has_feature )
#if __has_feature( thread_sanitizer )
#define RACES_ARE_SEEN 1
#endif
#elif defined( __SANITIZE_THREAD__ )
#define RACES_ARE_SEEN 1
#endif

#ifdef RACES_ARE_SEEN

namespace {

constinit std::atomic<unsigned> races{ 0 };

} // namespace

// Called by the sanitizer with each report. Hidden, it would leave the one in its library in place.
#pragma GCC visibility push( default )
extern "C" void __tsan_on_report( void* report );
extern "C" void __tsan_on_report( void* ) { races.fetch_add( 1, std::memory_order_relaxed ); }
#pragma GCC visibility pop

#endif

namespace {

using namespace Quarn;
using testing_support::FunctionTask;
using testing_support::makeTask;

constexpr unsigned liveRoots = 64;
constexpr unsigned turnsOfRoot = 100;
constexpr unsigned threadsOfWave = 100;
constexpr std::uint64_t wholeCount = 10'000;
// Longer than any of this takes on a busy machine.
constexpr double patienceSeconds = 120;

// Leaves the loop.
struct Done {};

void runUntilDone() {
   try {
      Platform::doEventLoop( patienceSeconds );
   } catch( const Done& ) {
      return;
   }
   throw std::runtime_error( "a thread's work does not end" );
}

void require( bool condition, char const* what ) {
   if( !condition ) {
      throw std::runtime_error( what );
   }
}

// What the threads have in common, and the first fault of any.
struct Common {
   explicit Common( unsigned threads ) : allHere( threads ), allDone( threads ), shots( threads ) {
      for( unsigned n = 0; n < threads; ++n ) {
         auto& ends = pipes.emplace_back();
         if( pipe2( ends.data(), O_CLOEXEC | O_NONBLOCK ) != 0 ) {
            throw std::runtime_error( fmt::format( "pipe: {}", std::strerror( errno ) ) );
         }
      }
   }
   ~Common() {
      for( const auto& ends : pipes ) {
         close( ends[ 0 ] );
         close( ends[ 1 ] );
      }
   }
   Common( const Common& ) = delete;
   Common& operator=( const Common& ) = delete;

   void faultIs( const std::string& text ) {
      const std::lock_guard guard( mutex );
      if( fault.empty() ) {
         fault = text;
      }
   }

   std::latch allHere;
   std::latch allDone;
   const String name{ "a name of more than fifteen bytes that all threads use" };
   std::vector<std::array<int, 2>> pipes;
   std::mutex mutex;
   std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> shots;
   std::string fault;
   std::atomic<std::uint64_t> runs{ 0 };
   std::atomic<std::uint64_t> criticalRuns{ 0 };
   std::atomic<std::uint64_t> bytes{ 0 };
   std::atomic<Platform::Plugin*> plugin{ nullptr };
};

// Whether the check of the marker, if there is one at this moment, fails on this thread.
bool isRefused() {
   void ( *const check )() = __atomic_load_n( &assertNotRunningCriticalTaskFn, __ATOMIC_RELAXED );
   if( !check ) {
      return false;
   }
   try {
      check();
   } catch( const AssertException& ) {
      return true;
   }
   return false;
}

class BytesTask final : public FileDescriptorTask {
 public:
   BytesTask( const std::shared_ptr<TaskScheduler>& scheduler, String name,
              std::function<void( unsigned )> come )
         : FileDescriptorTask( scheduler, TaskPriority::normal, std::move( name ) ),
           come_( std::move( come ) ) {}

 private:
   void taskExecuteReadable() override {
      std::array<char, 64> bytes;
      const ssize_t got = read( taskWatchFd(), bytes.data(), bytes.size() );
      if( got > 0 ) {
         come_( static_cast<unsigned>( got ) );
      }
   }
   void taskExecuteWritable() override {}

   std::function<void( unsigned )> come_;
};

class BeatTask final : public TimerTask {
 public:
   BeatTask( const std::shared_ptr<TaskScheduler>& scheduler, String name,
             std::function<void()> body )
         : TimerTask( scheduler, TaskPriority::normal, std::move( name ) ),
           body_( std::move( body ) ) {}

 private:
   void taskExecute() override { body_(); }

   std::function<void()> body_;
};

// One of the roots that live at the same time.
class LiveRoot {
 public:
   LiveRoot( Common& common, unsigned index );
   void work() {
      // At once, while nothing has put the threads in an order yet.
      _plugins();
      runUntilDone();
   }

 private:
   void _turn();
   void _strings();
   void _traces();
   void _plugins();
   void _snapshots();
   void _endsWhenAllHasCome();

   Common& common_;
   const unsigned index_;
   const std::shared_ptr<TaskSchedulerRoot> root_ = schedulerRootQuarn();
   const std::shared_ptr<Platform::DebugHandler> levels_ =
         Platform::getDebugHandler( "ProveThreads", true );
   std::shared_ptr<FunctionTask> critical_;
   std::shared_ptr<FunctionTask> task_;
   std::shared_ptr<BytesTask> bytesTask_;
   std::shared_ptr<BeatTask> beat_;
   unsigned turns_ = 0;
   unsigned criticalRuns_ = 0;
   unsigned bytes_ = 0;
   unsigned beats_ = 0;
};

LiveRoot::LiveRoot( Common& common, unsigned index ) : common_( common ), index_( index ) {
   critical_ = makeTask( root_, TaskPriority::critical, "a critical task of the test",
                         [ this ]( FunctionTask& ) {
                            require( isRefused(), "the marker does not hold on its thread" );
                            ++criticalRuns_;
                            common_.criticalRuns.fetch_add( 1, std::memory_order_relaxed );
                         } );
   task_ = makeTask( root_, TaskPriority::normal, common_.name,
                     [ this ]( FunctionTask& ) { _turn(); } );
   bytesTask_ = std::make_shared<BytesTask>( root_, common_.name, [ this ]( unsigned got ) {
      bytes_ += got;
      common_.bytes.fetch_add( got, std::memory_order_relaxed );
      _endsWhenAllHasCome();
   } );
   bytesTask_->taskWatchFdIs( common_.pipes[ index_ ][ 0 ] );
   beat_ = std::make_shared<BeatTask>( root_, common_.name, [ this ] {
      ++beats_;
      _endsWhenAllHasCome();
   } );
   task_->scheduleTask();
   beat_->scheduleTaskDelay( 0.001 );
}

void LiveRoot::_endsWhenAllHasCome() {
   if( turns_ == turnsOfRoot && bytes_ == turnsOfRoot && beats_ == 1 ) {
      require( criticalRuns_ == turnsOfRoot, "critical tasks did not run" );
      throw Done();
   }
}

void LiveRoot::_turn() {
   ++turns_;
   common_.runs.fetch_add( 1, std::memory_order_relaxed );
   require( !isRefused(), "the marker holds on another thread" );
   critical_->scheduleTask();
   root_->runCriticalPriorityTasks();
   _strings();
   _traces();
   if( turns_ % 8 == 1 ) {
      _plugins();
      _snapshots();
   }
   const char byte = 'b';
   require( write( common_.pipes[ ( index_ + 1 ) % common_.pipes.size() ][ 1 ], &byte, 1 ) == 1,
            "write" );
   if( turns_ < turnsOfRoot ) {
      task_->scheduleTask();
   }
   _endsWhenAllHasCome();
}

// Few different texts, so that the pool finds, adds and forgets the same ones on all threads.
void LiveRoot::_strings() {
   const String text = common_.name + fmt::format( ", number {}", turns_ % 5 ).c_str();
   const String first = text.deduped();
   const String second = String( text.stdString().c_str() ).deduped();
   require( first == second && first.data() == second.data(), "equal texts are kept twice" );
   const auto brief = makeTask( root_, TaskPriority::low, first );
   brief->scheduleTask();
}

void LiveRoot::_traces() {
   const auto level = static_cast<unsigned short>( turns_ % 8 );
   levels_->enabledIs( level, ( turns_ + index_ ) % 2 == 0 );
   const auto other = Platform::getDebugHandler( "ProveThreads", index_ % 2 == 0 );
   if( other->levelEnabled( level ) && turns_ % 32 == 0 ) {
      QUARN_FMTRACE( *other, level, "LiveRoot", "turn {} of {}", turns_, common_.name );
   }
   Platform::getDebugHandler( "TaskScheduler", false )->enabledIs( 12, turns_ % 2 == 0 );
}

void LiveRoot::_plugins() {
   Platform::Plugin* const mine =
         Platform::loadPlugin( ( index_ + turns_ / 8 ) % 2 == 0 ? "TestGood" : "TestNested" );
   require( mine, "a plugin does not load" );
   Platform::Plugin* const good = Platform::loadPlugin( "TestGood" );
   Platform::Plugin* known = nullptr;
   require( common_.plugin.compare_exchange_strong( known, good ) || known == good,
            "a plugin is there twice" );
}

// Publishes one of this root, and renders that of another.
void LiveRoot::_snapshots() {
   auto shot = root_->snapshot( common_.name, true, true, true, {}, 0 );
   {
      const std::lock_guard guard( common_.mutex );
      common_.shots[ index_ ] = shot;
      shot = common_.shots[ ( index_ * 7 + turns_ ) % common_.shots.size() ];
   }
   if( shot ) {
      std::ostringstream out;
      const auto context = TaskScheduler::PrintContextIs( out );
      shot->renderJson( *context );
      context->closeJson();
      require( out.str().find( "a critical task of the test" ) != std::string::npos,
               "a snapshot of another thread is not whole" );
   }
   std::uint64_t inUse = 0;
   MemTrack::forEach( [ & ]( const MemTrack& tracker ) { inUse += tracker.inUse(); } );
   require( inUse != 0, "nothing is in use" );
}

std::string liveTogether() {
   Common common( liveRoots );
   std::vector<std::thread> threads;
   for( unsigned n = 0; n < liveRoots; ++n ) {
      threads.emplace_back( [ &common, n ] {
         // Counted down also by a thread that fails, or the others would wait for ever.
         std::unique_ptr<LiveRoot> root;
         try {
            root = std::make_unique<LiveRoot>( common, n );
         } catch( const std::exception& e ) {
            common.faultIs( e.what() );
         }
         common.allHere.arrive_and_wait();
         try {
            if( root ) {
               root->work();
            }
         } catch( const std::exception& e ) {
            common.faultIs( e.what() );
         }
         common.allDone.arrive_and_wait();
      } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   constexpr std::uint64_t all = std::uint64_t{ liveRoots } * turnsOfRoot;
   if( common.fault.empty() &&
       ( common.runs != all || common.criticalRuns != all || common.bytes != all ) ) {
      common.fault =
            fmt::format( "{} runs, {} critical ones and {} bytes instead of {}", common.runs.load(),
                         common.criticalRuns.load(), common.bytes.load(), all );
   }
   if( common.fault.empty() && assertNotRunningCriticalTaskFn ) {
      common.fault = "the marker of critical tasks is left set";
   }
   return common.fault;
}

// --------------------------------------------------------------------------------------------
// waves

// How a root, and the base under it, come to their end.
enum class End { withThread, baseFreed, wantedOnceMore, tasksWithThread, notAlone };
constexpr unsigned ends = 5;

// Asks for a root when the thread's own is gone.
struct Late {
   ~Late() { schedulerRootQuarn()->requestSchedulerRun(); }
   void touch() {}
};

struct Pipe {
   Pipe() { require( pipe2( descriptors.data(), O_CLOEXEC ) == 0, "pipe" ); }
   ~Pipe() {
      close( descriptors[ 0 ] );
      close( descriptors[ 1 ] );
   }
   Pipe( const Pipe& ) = delete;
   Pipe& operator=( const Pipe& ) = delete;

   std::array<int, 2> descriptors;
};

// The work of a thread, whose root is gone when it has ended. It waits for all to have done theirs.
void briefLife( End end, std::latch& allDone, std::weak_ptr<TaskSchedulerRoot>& watched ) {
   // Not to be waited for by the others when something fails.
   struct Meeting {
      void wait() {
         attended = true;
         latch.arrive_and_wait();
      }
      ~Meeting() {
         if( !attended ) {
            latch.count_down();
         }
      }
      std::latch& latch;
      bool attended = false;
   } meeting{ allDone };
   if( end == End::wantedOnceMore ) {
      static thread_local Late late;
      late.touch();
   }
   const auto root = schedulerRootQuarn();
   watched = root;
   static thread_local std::shared_ptr<FunctionTask> endsWithThread;
   const std::shared_ptr<TaskSchedulerRoot> another =
         end == End::notAlone ? schedulerRootQuarnNonShared( "another root" ) : root;
   const Pipe pipe;
   unsigned left = 3;
   const auto comes = [ & ] {
      if( --left == 0 ) {
         throw Done();
      }
   };
   const auto task = makeTask( another, TaskPriority::normal, "a task that has a long name",
                               [ & ]( FunctionTask& ) { comes(); } );
   const auto beat = std::make_shared<BeatTask>( root, "a timer that has a long name", comes );
   const auto bytes = std::make_shared<BytesTask>( root, "a reader that has a long name",
                                                   [ & ]( unsigned ) { comes(); } );
   bytes->taskWatchFdIs( pipe.descriptors[ 0 ] );
   task->scheduleTask();
   beat->scheduleTaskDelay( 0.0 );
   require( write( pipe.descriptors[ 1 ], "b", 1 ) == 1, "write" );
   runUntilDone();
   meeting.wait();
   if( end == End::tasksWithThread ) {
      endsWithThread = makeTask( root, TaskPriority::low, "a task that ends with its thread" );
      endsWithThread->scheduleTask();
   } else if( end == End::baseFreed ) {
      bytes->taskWatchFdDel();
      leFree();
   }
}

// Threads that live and end side by side, and the first fault of any.
std::string wave( unsigned threads, std::mt19937_64& random ) {
   std::vector<std::weak_ptr<TaskSchedulerRoot>> watched( threads );
   std::vector<std::string> faults( threads );
   std::latch allDone( threads );
   std::vector<std::thread> running;
   running.reserve( threads );
   for( unsigned n = 0; n < threads; ++n ) {
      const auto end = static_cast<End>( random() % ends );
      running.emplace_back( [ &, n, end ] {
         try {
            briefLife( end, allDone, watched[ n ] );
         } catch( const std::exception& e ) {
            faults[ n ] = e.what();
         }
      } );
   }
   for( std::thread& thread : running ) {
      thread.join();
   }
   for( unsigned n = 0; n < threads; ++n ) {
      if( !faults[ n ].empty() ) {
         return faults[ n ];
      }
      if( !watched[ n ].expired() ) {
         return "a root outlives its thread";
      }
   }
   return {};
}

// What the process has in use.
struct InUse {
   std::int64_t descriptors = testing_support::openDescriptors();
   std::int64_t bytes = testing_support::liveBytes();

   InUse operator-( const InUse& before ) const {
      return { descriptors - before.descriptors, bytes - before.bytes };
   }
   bool nothing() const { return descriptors == 0 && bytes == 0; }
   std::string text() const {
      return fmt::format( "{} descriptors and {} bytes more", descriptors, bytes );
   }
};

prove::Outcome run( const prove::Order& order ) {
   if( !hasThreadLocalSingletons() ) {
      return { false, "the framework has one loop in the process" };
   }
#ifdef RACES_ARE_SEEN
   // A sanitizer that is linked in whole has no name that could be looked up.
   void* const called = dlsym( RTLD_DEFAULT, "__tsan_on_report" );
   if( called && called != reinterpret_cast<void*>( &__tsan_on_report ) ) {
      return { false, "the sanitizer's reports would not be counted" };
   }
#endif
   if( testing_support::liveBytes() <= 0 ) {
      return { false, "memory is not counted" };
   }
   std::mt19937_64 random( order.seed );
   std::string fault;
   const auto waves = [ & ]( std::uint64_t count ) {
      for( std::uint64_t done = 0; fault.empty() && done < count; ) {
         const auto threads =
               static_cast<unsigned>( std::min<std::uint64_t>( threadsOfWave, count - done ) );
         fault = wave( threads, random );
         done += threads;
      }
   };
   const auto live = [ & ] {
      if( fault.empty() ) {
         fault = liveTogether();
      }
   };
   // What the process makes once and keeps in memory is made here. The descriptors of the first
   // roots that live together count already.
   waves( threadsOfWave );
   const std::int64_t descriptors = testing_support::openDescriptors();
   live();
   waves( threadsOfWave );
   const InUse before{ descriptors };
   live();
   const InUse afterLive;
   waves( order.count );
   const InUse afterWaves;
   if( !fault.empty() ) {
      return { false, fault };
   }
#ifdef RACES_ARE_SEEN
   const std::string seen = fmt::format( "{} races", races.load() );
   const bool noRaces = races == 0;
#else
   const std::string seen = "races not looked for";
   const bool noRaces = order.count < wholeCount;
#endif
   const InUse ofLive = afterLive - before;
   const InUse ofWaves = afterWaves - afterLive;
   return { noRaces && ofLive.nothing() && ofWaves.nothing(),
            fmt::format( "{}; {} live roots: {}; {} roots made and gone: {}", seen, liveRoots,
                         ofLive.text(), order.count, ofWaves.text() ) };
}

// The loader reads where plugins are when the program starts.
void startsWherePluginsAre( char** argv ) {
   char const* const folders = std::getenv( "LD_LIBRARY_PATH" );
   const std::string before = folders ? folders : "";
   if( before.find( PROVE_PLUGINS ) == std::string::npos ) {
      setenv( "LD_LIBRARY_PATH", ( PROVE_PLUGINS ":" + before ).c_str(), 1 );
      execv( "/proc/self/exe", argv );
      std::perror( "execv" );
   }
}

} // namespace

int main( int argc, char** argv ) {
   startsWherePluginsAre( argv );
   return prove::runRow(
         argc, argv,
         { 3, "threads",
           "0 races; 64 live roots, and 10,000 made and gone: descriptors and memory back to the "
           "start",
           wholeCount },
         run );
}
