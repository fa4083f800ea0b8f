#include <Quarn/timers/TimerWheelEvent.h>

#include <Quarn/platform/Time.h>
#include <Quarn/timers/TimerWheel.h>

#include "debug/Handlers.h"

#include <algorithm>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TimerWheelCpp";

} // namespace

char const* timerWheelStateToString( TimerWheelState state ) {
   switch( state ) {
   case TimerWheelState::notLinked:
      return "notLinked";
   case TimerWheelState::inTimerWheel:
      return "inTimerWheel";
   case TimerWheelState::inTimersExpiryingSoon:
      return "inTimersExpiryingSoon";
   }
   return "unknownState";
}

static_assert( ( ( 4 | 8 | 16 ) & TIMEOUT_ABS ) == 0 );

TimerWheelEvent::TimerWheelEvent() { timeout_init( this, TIMEOUT_ABS | stateBits[ 0 ] ); }

TimerWheelEvent::~TimerWheelEvent() {
   if( ( flags & stateMask ) != stateBits[ 0 ] ) {
      const TimerWheelState linked = ( flags & stateMask ) == stateBits[ 1 ]
                                           ? TimerWheelState::inTimerWheel
                                           : TimerWheelState::inTimersExpiryingSoon;
      QUARN_DIE( "TimerWheelEvent", "~TimerWheelEvent", "TimerWheelEvent {} destroyed while {}",
                 fmt::ptr( this ), linked );
   }
}

void TimerWheelEvent::setTimeout( const std::shared_ptr<TimerWheel>& wheel, double delay ) {
   if( !wheel ) {
      QUARN_FAIL( "TimerWheelEvent", "wheel is null" );
   }
   wheel->timerStart( this, delay );
}

void TimerWheelEvent::delTimeout( const std::shared_ptr<TimerWheel>& wheel ) {
   if( !wheel ) {
      QUARN_FAIL( "TimerWheelEvent", "wheel is null" );
   }
   wheel->timerStop( this );
}

double TimerWheelEvent::remainingTimeout() const {
   if( expirationTime_ == std::numeric_limits<double>::infinity() ) {
      return expirationTime_;
   }
   return std::max( 0.0, expirationTime_ - time() );
}

TimerWheelState TimerWheelEvent::state() const {
   const int bits = flags & stateMask;
   switch( bits ) {
   case stateBits[ 0 ]:
      return TimerWheelState::notLinked;
   case stateBits[ 1 ]:
      return TimerWheelState::inTimerWheel;
   case stateBits[ 2 ]:
      return TimerWheelState::inTimersExpiryingSoon;
   default:
      break;
   }
   if( ( bits & ( bits - 1 ) ) == 0 && bits != 0 ) {
      QUARN_FAIL( "TimerWheelEvent", "Invalid flag combination {}", bits );
   }
   QUARN_FAIL( "TimerWheelEvent", "None or multiple of our flags set {}", bits );
}

void TimerWheelEvent::stateIs( TimerWheelState newState ) {
   const auto index = static_cast<unsigned>( newState );
   if( index >= std::size( stateBits ) ) {
      QUARN_FAIL( "TimerWheelEvent", "invalid state {}", index );
   }
   const TimerWheelState oldState = state();
   if( newState == oldState ) {
      return;
   }
   if( newState != TimerWheelState::notLinked && oldState != TimerWheelState::notLinked ) {
      QUARN_FAIL( "TimerWheelEvent", "State change {} -> {} must go via {}", oldState, newState,
                  TimerWheelState::notLinked );
   }
   flags = ( flags & ~stateMask ) | stateBits[ index ];
}

} // namespace Quarn
