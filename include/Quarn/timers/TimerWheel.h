// The timer wheel: any number of timers on one timer of the event loop.
//
// Timers sit in a hierarchical timing wheel with ticks of 10 ms. The wheel keeps one control of the
// event loop, the master timer, set to its earliest expiry. When the master fires, the timers whose
// tick has come are collected into buckets of equal expiry, and those whose exact time has come are
// delivered, earliest first. A timer is never delivered early, and late by no more than the event
// loop is.
//
//     class Beat : public Quarn::TimerWheelEvent { void timeout() override; };
//     Beat beat;
//     beat.setTimeout( Quarn::getTimerWheel(), 0.25 );
//
// Units:     seconds, on the clock of `Quarn::time()`.
// Cost:      start and stop take constant time and allocate nothing.
// Ownership: the wheel links events and owns none.
// Thread:    one; nothing is locked.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/platform/EventPriority.h>
#include <Quarn/timers/TimerWheelEvent.h>

#include <Oru/Allocator.h>

#include <map>
#include <memory>
#include <span>
#include <vector>

namespace Quarn {

class ORUQUARN_API TimerWheel : private Platform::TimeoutHandler {
 public:
   // `priority` is that of the master timer.
   //
   // Errors: std::bad_alloc.
   explicit TimerWheel( Platform::EventPriority priority );

   // Errors: timers whose tick has come and that are not stopped end the process.
   ~TimerWheel() override;

   TimerWheel( const TimerWheel& ) = delete;
   TimerWheel& operator=( const TimerWheel& ) = delete;

   // Has `ev` fire once, `delay` seconds from now; an event that runs is moved. With 0 or less it
   // fires in the next pass, with +infinity never (it is stopped).
   //
   // Errors: fatal on NaN, and when there is no room for the master timer ("Failed to add event fd
   //         -1 ...").
   void timerStart( TimerWheelEvent* ev, double delay );

   // Does nothing to an event that does not run.
   //
   // The master timer is left as it is, which makes stopping cheap: it wakes the loop once for
   // nothing, and until then `doLeEventLoop()` without a limit does not find itself without events.
   // A program that waits for that calls `setMasterTimer()` after its last stop.
   void timerStop( TimerWheelEvent* ev );

   // Sets the master timer to the earliest expiry, or disarms it when nothing runs.
   void setMasterTimer();

   // The master timer has fired: delivers what is due. An exception from a delivered timer ends the
   // pass; the rest follows in the next one.
   void timeout() override;

   // Delivers what is due, without touching the master timer, and returns how many timers that
   // were. A timer may start, stop and destroy others meanwhile, and may come back here.
   unsigned long _processExpiredTimers();

   // For which time the master timer is set: 0 for at once, +infinity for not at all.
   double masterExpiryForTest() const { return masterExpiry_; }

   // Whether the wheel's structures agree with each other and with `events`, which are all that are
   // on it. Says on standard error what does not.
   bool checkForTest( std::span<TimerWheelEvent* const> events ) const;

 private:
   friend class TimerWheelEvent;

   // The events of one exact expiration time, first come first. While an event is here its record
   // is not in the wheel, and the record's links belong to this list.
   class TimersAtTimeout {
    public:
      TimersAtTimeout() = default;
      ~TimersAtTimeout();
      TimersAtTimeout( const TimersAtTimeout& ) = delete;
      TimersAtTimeout& operator=( const TimersAtTimeout& ) = delete;

      bool empty() const { return !head_; }
      ::timeout* front() const { return head_; }
      void pushBack( ::timeout* record );
      void unlink( ::timeout* record );

    private:
      ::timeout* head_ = nullptr;
      ::timeout** lastLink_ = &head_;
   };
   using Buckets = std::map<double, TimersAtTimeout, std::less<>,
                            Oru::Allocator<std::pair<const double, TimersAtTimeout>>>;
   class Pass;

   void _setCurrentTime( double now );
   void _masterIs( double delay, double expiry );
   void _collect();
   void _bucketAdd( TimerWheelEvent* ev );
   void _bucketErase( Buckets::iterator bucket );
   void _timersExpiryingSoonRemove( TimerWheelEvent* ev );

   int error_ = 0;
   double masterExpiry_;
   std::shared_ptr<Platform::TimerControl> master_;
   struct timeouts* wheel_ = nullptr;
   Buckets timersExpiryingSoon_;
   // Nodes of buckets that are gone, for the next ones.
   std::vector<Buckets::node_type> spareBuckets_;
   // The innermost pass that runs; it learns from here that the wheel was destroyed under it.
   Pass* pass_ = nullptr;
};

// The wheel for timers of the calling thread, made when it is first asked for. It goes when the
// thread ends and nobody else holds it; timers must be stopped by then. Without thread-local
// singletons there is one for the process, for the thread that runs the framework's loop, until
// exit.
ORUQUARN_API std::shared_ptr<TimerWheel> getTimerWheel();

// A wheel of its own for a scheduler.
ORUQUARN_API std::shared_ptr<TimerWheel>
getTimerWheelForTaskScheduler( Platform::EventPriority priority );

// Delivers what is due on `wheel` and returns how many timers that were. The master timer is left
// as it is.
ORUQUARN_API unsigned long
processExpiredTimersForTaskScheduler( const std::shared_ptr<TimerWheel>& wheel );

// The tick in which `seconds` ends (ceiling) or lies (floor), as the wheel computes it.
ORUQUARN_API timeout_t timeToTickCeilForTest( double seconds );
ORUQUARN_API timeout_t timeToTickFloorForTest( double seconds );

} // namespace Quarn
