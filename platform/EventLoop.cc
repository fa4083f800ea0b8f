#include <Quarn/platform/EventLoop.h>

#include <Quarn/debug/Loco.h>
#include <Quarn/platform/EventBase.h>
#include <Quarn/platform/Time.h>
#include <Quarn/platform/VirtualTime.h>

#include "debug/Handlers.h"
#include "platform/DeferredRelease.h"
#include "platform/EventBase.h"
#include "platform/Seconds.h"
#include "platform/VirtualTime.h"

#include <event2/event.h>
#include <event2/event_struct.h>

#include <unistd.h>

namespace Quarn {

using Platform::libeventHandler;
using Platform::threadBase;

namespace {

constexpr char sourceFile[] = "LibeventFactoryCpp";

// Marks this thread's loop as running; libevent refuses a second one on the same base, and a wait
// loop around that refusal would spin.
class LoopMark {
 public:
   LoopMark() {
      if( threadBase.loopRunning ) {
         QUARN_FAIL( "Quarn", "event loop is already running on this thread" );
      }
      threadBase.loopRunning = true;
   }
   ~LoopMark() { threadBase.loopRunning = false; }
   LoopMark( const LoopMark& ) = delete;
   LoopMark& operator=( const LoopMark& ) = delete;
};

// Runs the base until it is broken or has nothing to wait for; `flags` are those of
// `event_base_loop()`.
void dispatch( int flags = 0 ) {
   Platform::releaseDeferred();
   const int rc = event_base_loop( threadBase.base, flags );
   const std::exception_ptr escaped = Platform::takeEscaped();
   Platform::releaseDeferred();
   if( escaped ) {
      std::rethrow_exception( escaped );
   }
   if( rc < 0 ) {
      QUARN_FAIL( "Quarn", "event loop failed: {}", rc );
   }
}

// Breaks the running loop after a while.
//
// Two stages: when its time has come the timer makes itself active again, which puts it behind
// every event that is due by then, and breaks the loop when it is called the second time. Without
// that it could overtake timers of the same moment, which libevent keeps in no order.
class EvLoopBreak {
 public:
   explicit EvLoopBreak( double seconds ) {
      QUARN_TRACE( libeventHandler, 5, "EvLoopBreak", "timeout {}", seconds );
      QUARN_TRACE( libeventHandler, 8, "EvLoopBreak", "{} timeout {}", fmt::ptr( this ), seconds );
      const timeval delay = Platform::secondsToTimeval( seconds );
      event_assign( &event_, threadBase.base, -1, 0, &EvLoopBreak::fired, this );
      eventPrioritySet( &event_, Platform::EventPriority::eventPriorityDefault );
      if( event_add( &event_, &delay ) != 0 ) {
         QUARN_FAIL( "EvLoopBreak", "Failed to add event" );
      }
   }

   ~EvLoopBreak() {
      if( Platform::onCurrentBase( generation_ ) ) {
         QUARN_TRACE( libeventHandler, 8, nullptr, "~EvLoopBreak" );
         event_del( &event_ );
      }
   }

   EvLoopBreak( const EvLoopBreak& ) = delete;
   EvLoopBreak& operator=( const EvLoopBreak& ) = delete;

   bool hasBroken() const { return hasBroken_; }

 private:
   static void fired( evutil_socket_t, short, void* argument ) {
      auto* self = static_cast<EvLoopBreak*>( argument );
      if( !self->due_ ) {
         self->due_ = true;
         event_active( &self->event_, EV_TIMEOUT, 0 );
         return;
      }
      self->hasBroken_ = true;
      event_base_loopbreak( event_get_base( &self->event_ ) );
      event_del( &self->event_ );
   }

   event event_;
   const std::uint64_t generation_ = threadBase.generation;
   bool due_ = false;
   bool hasBroken_ = false;
};

// From here on a time limit counts as none: a jump by it would leave the calendar.
constexpr double noLimit = 1e15;

// A step in fast-forward, on a thread that has a base. Returns whether a handler broke the loop.
// `flagsOfWait` go to a wait that has no timer to jump to.
bool fastForwardStep( double maxTimeout, int flagsOfWait ) {
   QUARN_TRACE_AS( libeventHandler, 5, "Quarn", "eventLoopFastForwardToFirstTimer", "maxTimeout {}",
                   maxTimeout );
   const LoopMark mark;
   const timeval max = Platform::secondsToTimeval( maxTimeout );
   timeval jump;
   const bool hasTimer = Platform::delayToFirstTimer( &jump );
   if( !hasTimer && maxTimeout >= noLimit ) {
      dispatch( EVLOOP_ONCE | flagsOfWait );
      return event_base_got_break( threadBase.base ) || event_base_got_exit( threadBase.base );
   }
   if( !hasTimer || !Platform::isBefore( jump, max ) ) {
      jump = max;
   }
   applyFastForwardDelta( &jump );
   const EvLoopBreak loopBreak( 0.0 );
   dispatch();
   return !loopBreak.hasBroken() || event_base_got_exit( threadBase.base );
}

} // namespace

void eventLoopTimeout( double seconds ) {
   leInit();
   const LoopMark mark;
   const EvLoopBreak loopBreak( seconds );
   dispatch();
}

void doLeEventLoop() {
   leInit();
   const LoopMark mark;
   timeval delay;
   if( leFastForward() && Platform::delayToFirstTimer( &delay ) ) {
      applyFastForwardDelta( &delay );
   }
   dispatch();
}

void doLeEventLoop( double timeout ) {
   QUARN_TRACE( libeventHandler, 5, "Quarn", "timeout {}", timeout );
   leInit();
   if( !leFastForward() ) {
      eventLoopTimeout( timeout );
      return;
   }
   double now = time();
   const double end = now + timeout;
   do {
      if( !leFastForward() ) {
         // A handler has switched it off; the rest passes in real time.
         eventLoopTimeout( end - now );
         return;
      }
      // Without a limit and without events the loop waits, as it does in real time.
      if( fastForwardStep( end - now, EVLOOP_NO_EXIT_ON_EMPTY ) ) {
         return;
      }
      now = time();
   } while( now < end );
}

void eventLoopFastForwardToFirstTimer( double maxTimeout ) {
   if( !leFastForward() ) {
      QUARN_TRACE( libeventHandler, 5, "Quarn", "maxTimeout {}", maxTimeout );
      QUARN_FAIL( "Quarn", "Called without fastForward enabled" );
   }
   leInit();
   fastForwardStep( maxTimeout, 0 );
}

void doLeEventLoopInWaitfor( double maxTimeout ) {
   QUARN_TRACE( libeventHandler, 5, "Quarn", "maxTimeout {}", maxTimeout );
   leInit();
   if( leFastForward() ) {
      fastForwardStep( maxTimeout, EVLOOP_NO_EXIT_ON_EMPTY );
      return;
   }
   {
      const Platform::Loco::Guard guard;
      eventLoopTimeout( maxTimeout );
   }
   // Lets a thread that waits for the lock have it.
   usleep( 1 );
}

} // namespace Quarn
