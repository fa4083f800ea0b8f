#include <Quarn/platform/VirtualTime.h>

#include <Quarn/platform/EventBase.h>

#include "debug/Handlers.h"
#include "platform/EventBase.h"
#include "platform/EventBaseTimeouts.h"
#include "platform/Seconds.h"
#include "platform/VirtualTime.h"

#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>

namespace Quarn {

using Platform::libeventHandler;
using Platform::threadBase;

constinit std::atomic<bool> fastForward{ false };

namespace {

constexpr char sourceFile[] = "LibeventFactoryCpp";

// Has the jump end behind the expiry: a timer of exactly now may still wait for the next reading of
// a coarse clock.
constexpr timeval extraDelay{ 0, 100 };

// In both forms, so that reading the time costs an addition.
struct Offset {
   timeval exact;
   double seconds;
};
constinit thread_local Offset offset __attribute__( ( tls_model( "initial-exec" ) ) ) = {};

double toSeconds( const timeval& t ) {
   return static_cast<double>( t.tv_sec ) + static_cast<double>( t.tv_usec ) / 1e6;
}

// With all digits, which a double loses after some years of uptime.
std::string text( const timeval& t ) { return fmt::format( "{}.{:06}", t.tv_sec, t.tv_usec ); }

// Made by the first registration, which may be a static initialiser's, and never destroyed.
std::set<void ( * )()>& notifiers() {
   static auto* const all = new std::set<void ( * )()>;
   return *all;
}

// The moment at which the base would put a timer without delay. Its clock cannot be asked: it may
// be the coarse one.
timeval baseNow() {
   event probe;
   event_assign(
         &probe, threadBase.base, -1, 0, []( evutil_socket_t, short, void* ) {}, nullptr );
   eventPrioritySet( &probe, Platform::EventPriority::eventPriorityDefault );
   const timeval atOnce{ 0, 0 };
   if( event_add( &probe, &atOnce ) != 0 ) {
      QUARN_FAIL( "Quarn", "Failed to add event" );
   }
   // `event_pending()` would translate it to wall time.
   const timeval now = probe.ev_timeout;
   event_del( &probe );
   return now;
}

} // namespace

bool leFastForward() { return fastForward.load( std::memory_order_relaxed ); }

void setLeFastForward( bool on ) {
   leInit();
   if( !threadBase.mainThread ) {
      QUARN_FAIL( "Quarn", "FastForward invoked from non-main thread" );
   }
   if( fastForward.exchange( on, std::memory_order_relaxed ) == on ) {
      return;
   }
   // A copy: a notifier may add others.
   const auto called = notifiers();
   for( const auto notifier : called ) {
      notifier();
   }
}

void leRegisterFastForwardChangeNotifier( void ( *notifier )() ) {
   if( !notifier ) {
      QUARN_FAIL( "Quarn", "notifier is null" );
   }
   notifiers().insert( notifier );
}

double leVirtualTimeOffset() { return offset.seconds; }

void applyFastForwardDelta( timeval const* delta ) {
   timeval& sum = offset.exact;
   // The offset has to stay a time as well.
   constexpr time_t most = std::numeric_limits<time_t>::max();
   if( delta->tv_sec < 0 || delta->tv_sec >= most - sum.tv_sec || delta->tv_usec < 0 ||
       delta->tv_usec > 999999 ) {
      QUARN_FAIL( "Quarn", "invalid virtual time delta {} s {} us", delta->tv_sec, delta->tv_usec );
   }
   leInit();
   Platform::event_base_timeout_subtract_offset( threadBase.base, delta );
   sum.tv_sec += delta->tv_sec;
   sum.tv_usec += delta->tv_usec;
   if( sum.tv_usec > 999999 ) {
      ++sum.tv_sec;
      sum.tv_usec -= 1000000;
   }
   offset.seconds = toSeconds( sum );
   QUARN_TRACE( libeventHandler, 2, "Quarn", "Increasing virtual time offset by {} to {}",
                text( *delta ), text( sum ) );
}

bool fastForwardDelayToFirstTimer( timeval* out ) {
   if( !leFastForward() ) {
      QUARN_FAIL( "Quarn", "Called without fast forward enabled" );
   }
   leInit();
   return Platform::delayToFirstTimer( out );
}

bool Platform::delayToFirstTimer( timeval* out ) {
   constexpr char function[] = "fastForwardDelayToFirstTimer";
   timeval first;
   if( event_base_get_first_timeout( threadBase.base, &first ) != 0 ) {
      QUARN_TRACE_AS( libeventHandler, 9, "Quarn", function, "no timers" );
      return false;
   }
   const timeval now = baseNow();
   if( !isBefore( now, first ) ) {
      QUARN_TRACE_AS( libeventHandler, 9, "Quarn", function,
                      "first timer expired at {} now {} return zero delta", text( first ),
                      text( now ) );
      *out = { 0, 0 };
      return true;
   }
   timeval delta;
   timersub( &first, &now, &delta );
   timeradd( &delta, &extraDelay, out );
   QUARN_TRACE_AS( libeventHandler, 9, "Quarn", function,
                   "first timer will at {} now {} delta {} extraDelay {} return delta {}",
                   text( first ), text( now ), text( delta ), text( extraDelay ), text( *out ) );
   return true;
}

double waitForDefaultTimeout() {
   static const double seconds = [] {
      char const* const value = std::getenv( "WAITFOR_DEFAULT" );
      try {
         if( value ) {
            return std::stod( value );
         }
      } catch( const std::logic_error& ) {
         std::fputs( "Parsing the WAITFOR_DEFAULT env. variable failed", stderr );
         std::fflush( stderr );
      }
      return std::numeric_limits<double>::infinity();
   }();
   return seconds;
}

} // namespace Quarn
