#include "platform/EventBaseTimeouts.h"

#include "debug/Handlers.h"

#include <event2/event.h>
#include <event2/event_struct.h>

#include <new>
#include <vector>

// What follows knows how 2.1 lays out an event and what it keeps in `ev_timeout`.
static_assert( LIBEVENT_VERSION_NUMBER >= 0x02010000 && LIBEVENT_VERSION_NUMBER < 0x02020000 );

namespace Quarn::Platform {

namespace {

constexpr char sourceFile[] = "LibeventFactoryCpp";

// An event on a common-timeout queue keeps a mark and the number of its queue above the
// microseconds, which need 20 bits.
constexpr suseconds_t microsecondsMask = 0xfffff;
constexpr suseconds_t commonTimeoutMask = 0xf0000000;
constexpr suseconds_t commonTimeoutMark = 0x50000000;

constexpr suseconds_t microsecondsInSecond = 1'000'000;

bool hasTimeout( const event& ev ) { return ( ev.ev_evcallback.evcb_flags & EVLIST_TIMEOUT ) != 0; }

// Whether the event is at the top of the heap, hence the earliest of the base. Events on a
// common-timeout queue are not on the heap; an event of libevent's own stands there for the queue.
bool isHeapTop( const event& ev ) {
   return hasTimeout( ev ) && ( ev.ev_timeout.tv_usec & commonTimeoutMask ) != commonTimeoutMark &&
          ev.ev_timeout_pos.min_heap_idx == 0;
}

// The library that is loaded may be another than the one whose header was compiled.
void requireKnownLibevent() {
   static const ev_uint32_t loaded = event_get_version_number();
   if( loaded < 0x02010000 || loaded >= 0x02020000 ) [[unlikely]] {
      QUARN_FAIL( "Quarn", "virtual time does not know libevent {}", event_get_version() );
   }
}

using Events = std::vector<event*>;

// The events of one walk; kept for its memory.
constinit thread_local bool scratchGone = false;

struct Scratch {
   Events events;
   ~Scratch() { scratchGone = true; }
};
thread_local Scratch scratch;

void subtract( timeval& expiry, const timeval& delta ) {
   const suseconds_t queue = expiry.tv_usec & ~microsecondsMask;
   suseconds_t microseconds = ( expiry.tv_usec & microsecondsMask ) - delta.tv_usec;
   expiry.tv_sec -= delta.tv_sec;
   if( microseconds < 0 ) {
      microseconds += microsecondsInSecond;
      --expiry.tv_sec;
   }
   expiry.tv_usec = microseconds | queue;
}

void subtractFromAll( event_base* base, const timeval& delta, Events& events ) {
   events.clear();
   // The walk holds the lock of the base, so no exception may leave it; and libevent forbids to
   // touch events meanwhile.
   const int stopped = event_base_foreach_event(
         base,
         []( event_base const*, event const* ev, void* argument ) {
            if( !hasTimeout( *ev ) ) {
               return 0;
            }
            try {
               static_cast<Events*>( argument )->push_back( const_cast<event*>( ev ) );
               return 0;
            } catch( const std::bad_alloc& ) {
               return -1;
            }
         },
         &events );
   if( stopped != 0 ) {
      throw std::bad_alloc();
   }
   // All of them, or the heap would no longer be one. Taking an event off and adding it again is no
   // way: its distance would count from a new reading of the clock, and events of the same moment
   // would change places.
   for( event* ev : events ) {
      subtract( ev->ev_timeout, delta );
   }
}

} // namespace

int event_base_get_first_timeout( event_base* base, timeval* out ) {
   requireKnownLibevent();
   const auto found = []( event_base const*, event const* ev, void* argument ) {
      if( !isHeapTop( *ev ) ) {
         return 0;
      }
      *static_cast<timeval*>( argument ) = ev->ev_timeout;
      return 1;
   };
   return event_base_foreach_event( base, found, out ) == 1 ? 0 : -1;
}

void event_base_timeout_subtract_offset( event_base* base, timeval const* delta ) {
   requireKnownLibevent();
   if( delta->tv_sec == 0 && delta->tv_usec == 0 ) {
      return;
   }
   if( scratchGone ) {
      // The destructor of another thread-local still runs a loop.
      Events events;
      subtractFromAll( base, *delta, events );
      return;
   }
   subtractFromAll( base, *delta, scratch.events );
}

} // namespace Quarn::Platform
