#include <Quarn/platform/EventLoop.h>

#include <Quarn/debug/Loco.h>
#include <Quarn/platform/EventBase.h>

#include "debug/Handlers.h"
#include "platform/DeferredRelease.h"
#include "platform/EventBase.h"
#include "platform/Seconds.h"

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

// Runs the base until it is broken or has nothing to wait for.
void dispatch() {
   Platform::releaseDeferred();
   const int rc = event_base_dispatch( threadBase.base );
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

 private:
   static void fired( evutil_socket_t, short, void* argument ) {
      auto* self = static_cast<EvLoopBreak*>( argument );
      if( !self->due_ ) {
         self->due_ = true;
         event_active( &self->event_, EV_TIMEOUT, 0 );
         return;
      }
      event_base_loopbreak( event_get_base( &self->event_ ) );
      event_del( &self->event_ );
   }

   event event_;
   const std::uint64_t generation_ = threadBase.generation;
   bool due_ = false;
};

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
   dispatch();
}

void doLeEventLoop( double timeout ) {
   QUARN_TRACE( libeventHandler, 5, "Quarn", "timeout {}", timeout );
   leInit();
   eventLoopTimeout( timeout );
}

void doLeEventLoopInWaitfor( double maxTimeout ) {
   QUARN_TRACE( libeventHandler, 5, "Quarn", "maxTimeout {}", maxTimeout );
   leInit();
   {
      const Platform::Loco::Guard guard;
      eventLoopTimeout( maxTimeout );
   }
   // Lets a thread that waits for the lock have it.
   usleep( 1 );
}

} // namespace Quarn
