// Anything that can sit on a timer wheel.

#pragma once

#include <Quarn/Export.h>

#include <fmt/format.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string_view>

#include <timeout.h>

namespace Quarn {

class TimerWheel;

// Where an event is. Every move passes through `notLinked`.
enum class TimerWheelState : std::uint8_t {
   notLinked = 0,
   inTimerWheel = 1,
   // Its tick has come, its exact time may not have.
   inTimersExpiryingSoon = 2,
};

// The name of the value; "unknownState" for any other.
ORUQUARN_API char const* timerWheelStateToString( TimerWheelState state );

// A timer: derive from it, implement `timeout()`, and start it on a wheel.
//
// It lives in place while it runs and is stopped before it is destroyed. It does not keep the wheel
// alive: the wheel must outlive the timer's run.
//
// Thread: that of the wheel.
class ORUQUARN_API TimerWheelEvent : private ::timeout {
 public:
   // Called once when the time has come, never before. The event is stopped by then and may be
   // started again, or destroyed, from here.
   virtual void timeout() = 0;

   // Errors: an event that still runs ends the process ("TimerWheelEvent ... destroyed while ...").
   virtual ~TimerWheelEvent();

   TimerWheelEvent( const TimerWheelEvent& ) = delete;
   TimerWheelEvent& operator=( const TimerWheelEvent& ) = delete;

   // `TimerWheel::timerStart` and `TimerWheel::timerStop` on `wheel`. An event that runs must be
   // moved and stopped on the wheel on which it was started.
   //
   // Errors: fatal when the wheel is null.
   void setTimeout( const std::shared_ptr<TimerWheel>& wheel, double delay );
   void delTimeout( const std::shared_ptr<TimerWheel>& wheel );

   // Seconds until the event fires: 0 when overdue, +infinity when it does not run.
   double remainingTimeout() const;

   // When it fires, in seconds on the clock of `Quarn::time()`; +infinity when it does not run.
   double expirationTime() const { return expirationTime_; }

   // Where the event is.
   //
   // Errors: fatal when the record's flags were overwritten.
   TimerWheelState state() const;

   // For the wheel and for tests.
   //
   // Errors: fatal for an unknown state, and when both the present and the new one are linked.
   void stateIs( TimerWheelState state );

 protected:
   TimerWheelEvent();

 private:
   friend class TimerWheel;

   // The state is kept in three bits of the record's flags, beside the wheel library's own; the
   // state is the index of its bit.
   static constexpr int stateBits[] = { 4, 8, 16 };
   static constexpr int stateMask = 4 | 8 | 16;

   static constexpr int _bitOf( TimerWheelState state ) {
      return stateBits[ static_cast<unsigned>( state ) ];
   }
   // Whether `state()` is this one, for the wheel, which touches many events.
   bool _is( TimerWheelState state ) const { return ( flags & stateMask ) == _bitOf( state ); }
   // `stateIs`, for a move that the wheel knows to be in order.
   void _moves( TimerWheelState from, TimerWheelState to ) {
      if( !_is( from ) ) [[unlikely]] {
         stateIs( to );
      } else {
         flags ^= _bitOf( from ) | _bitOf( to );
      }
   }

   // The record that the wheel library holds, and the event of one. By reference, since a cast of
   // pointers would look for null, which neither ever is.
   ::timeout* _record() { return &static_cast<::timeout&>( *this ); }
   static TimerWheelEvent* _of( ::timeout* record ) {
      return &static_cast<TimerWheelEvent&>( *record );
   }

   double expirationTime_ = std::numeric_limits<double>::infinity();
};

} // namespace Quarn

template<>
struct fmt::formatter<Quarn::TimerWheelState> : fmt::formatter<std::string_view> {
   template<typename Context>
   auto format( Quarn::TimerWheelState state, Context& context ) const {
      return fmt::formatter<std::string_view>::format( Quarn::timerWheelStateToString( state ),
                                                       context );
   }
};
