// Two operations on the timeouts of a base that libevent itself does not offer.
//
// Both see every event of the base that has a timeout: timers, descriptor and signal events with a
// time limit, those that the caller made itself, and libevent's own.
//
// Thread: that of the base, inside and outside a running loop. Expiries are in the base's own
// clock, as `ev_timeout` of an event holds them; `event_pending()` answers in wall time instead.

#pragma once

#include <sys/time.h>

struct event_base;

namespace Quarn::Platform {

// The earliest expiry of the base. Returns 0, or -1 when the base has no timeout; `out` is left
// alone then.
int event_base_get_first_timeout( event_base* base, timeval* out );

// Moves every timeout earlier by `delta`, which is normalised and not negative. Their order and
// their distances stay exactly as they are.
//
// Cost: a walk over all events of the base; nothing when `delta` is 0. No allocation unless the
//       base has more timeouts than it ever had in an earlier call.
void event_base_timeout_subtract_offset( event_base* base, timeval const* delta );

} // namespace Quarn::Platform
