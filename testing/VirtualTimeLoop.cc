#include <Quarn/testing/VirtualTimeLoop.h>

#include <Quarn/base/ThreadControl.h>
#include <Quarn/debug/Assert.h>
#include <Quarn/platform/EventBase.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/Time.h>
#include <Quarn/platform/VirtualTime.h>
#include <Quarn/timers/TimerWheel.h>

#include <Oru/ActivityManager.h>

#include <event2/event.h>

namespace Quarn::Testing {

namespace {

template<typename... Args>
[[noreturn]] void fail( int line, fmt::format_string<Args...> format, Args&&... args ) {
   fmassert( "VirtualTimeLoop", "VirtualTimeLoop", "VirtualTimeLoop", line, format,
             std::forward<Args>( args )... );
}

event_base* makeBase() {
   // The library sets libevent up when it makes its first base.
   event_base_free( leCreateBase() );
   event_config* const config = event_config_new();
   event_base* base = nullptr;
   if( config ) {
      // With the coarse clock, the next kernel tick would decide whether a timer is due.
      event_config_set_flag( config,
                             EVENT_BASE_FLAG_PRECISE_TIMER | EVENT_BASE_FLAG_NO_CACHE_TIME );
      base = event_base_new_with_config( config );
      event_config_free( config );
   }
   if( !base || event_base_priority_init( base, 2 ) != 0 ) {
      fail( __LINE__, "no event base" );
   }
   return base;
}

} // namespace

VirtualTimeLoop::Base::Base() {
   if( !isMainThread() ) {
      fail( __LINE__, "a VirtualTimeLoop belongs on the main thread" );
   }
   if( !hasThreadLocalSingletons() ) {
      return;
   }
   if( leInitialized() ) {
      fail( __LINE__, "the thread has an event base already; make the VirtualTimeLoop before what "
                      "uses the event loop, and one at a time" );
   }
   base = makeBase();
   leRegisterBase( base );
}

VirtualTimeLoop::Base::~Base() {
   if( base ) {
      leFree();
   }
}

VirtualTimeLoop::Switches::Switches()
      : fastForwardBefore( leFastForward() ),
        virtualTimeBefore( Oru::ActivityManager::instance()->virtualTime() ) {
   const bool onLibevent = hasThreadLocalSingletons();
   try {
      if( onLibevent ) {
         Oru::ActivityManagerConfig::virtualTimeIs( true );
         setLeFastForward( true );
      } else {
         Platform::setFastForward( true );
      }
   } catch( ... ) {
      // What a notifier throws; no destructor runs for this object.
      fastForward.store( fastForwardBefore, std::memory_order_relaxed );
      Oru::ActivityManagerConfig::virtualTimeIs( virtualTimeBefore );
      throw;
   }
}

VirtualTimeLoop::Switches::~Switches() {
   if( !hasThreadLocalSingletons() ) {
      Platform::setFastForward( virtualTimeBefore );
      return;
   }
   Oru::ActivityManagerConfig::virtualTimeIs( virtualTimeBefore );
   setLeFastForward( fastForwardBefore );
}

VirtualTimeLoop::VirtualTimeLoop() : root_( TaskSchedulerRoot::TaskSchedulerRootIs( "main" ) ) {
   root_->runObserverForTestIs( [ this ]( const TaskImpl& task ) {
      ++runs_;
      runLog_.push_back( task.taskName().stdString() );
   } );
   // The thread's own wheel lives longer than a base, and may take its master timer for armed on
   // one that is gone.
   getTimerWheel()->setMasterTimer();
}

VirtualTimeLoop::~VirtualTimeLoop() {
   // Nobody turns the loop any more, and a render under way holds its scheduler.
   root_->abandonRenders();
   // A task that outlives us holds the root.
   root_->runObserverForTestIs( {} );
}

void VirtualTimeLoop::advance( double seconds ) {
   Platform::doEventLoop( seconds );
   if( seconds > 0.0 ) {
      // The handlers before may have taken the rest of the time for themselves, while a wheel's
      // timer was armed for what is due by now.
      Platform::doEventLoop( 0.0 );
   }
   // Timers of the last moment have queued their tasks, whose runs take a turn each. As many as
   // wait now and no more, for a task may schedule itself for ever.
   for( std::int64_t left = root_->runnableTaskCount(); left > 0; --left ) {
      runOneTurn();
   }
}

void VirtualTimeLoop::runUntilIdle() {
   if( !base_.base ) {
      const auto manager = Oru::ActivityManager::instance();
      std::uint64_t before;
      do {
         before = manager->served();
         Platform::doEventLoop( 0.0 );
      } while( manager->served() != before );
      return;
   }
   // A turn has one event of its own, which breaks it. It becomes active together with all that is
   // ready at the start, so a turn that never had two active events has run nothing.
   do {
      event_base_get_max_events( base_.base, EVENT_BASE_COUNT_ACTIVE, 1 );
      eventLoopTimeout( 0.0 );
   } while( event_base_get_max_events( base_.base, EVENT_BASE_COUNT_ACTIVE, 0 ) > 1 );
}

bool VirtualTimeLoop::runOneTurn() {
   const std::uint64_t before = runs_;
   if( base_.base ) {
      // Its break comes behind what is due, and before the root's next callback.
      eventLoopTimeout( 0.0 );
   } else {
      Platform::doEventLoop( 0.0 );
   }
   return runs_ != before;
}

double VirtualTimeLoop::now() const { return time(); }

} // namespace Quarn::Testing
