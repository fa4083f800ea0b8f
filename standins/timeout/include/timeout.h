// A hierarchical timing wheel with a C interface: a priority queue of deadlines that adds and
// removes in constant time and lets time jump any distance, forward or backward.
//
// The technique is that of G. Varghese and A. Lauck, "Hashed and Hierarchical Timing Wheels: Data
// Structures for the Efficient Implementation of a Timer Facility" (SOSP 1987; IEEE/ACM
// Transactions on Networking 5(6), 1997). This is a stand-in: another library of the same interface
// can be linked in its place. That one has to be built with TIMEOUT_DISABLE_INTERVALS,
// TIMEOUT_DISABLE_CALLBACKS and TIMEOUT_DISABLE_RELATIVE_ACCESS defined: they leave out repeating
// timers, a callback in each record and a pointer from each record to its wheel, so that a record
// has the five fields below, 40 bytes where pointers have 64 bits. Any other layout would write
// past the records of its callers.
//
// Time is a count of ticks from any origin; the wheel reads no clock and learns the time from
// `timeouts_update` alone. A tick is as long as the caller says; the wheel starts at tick 0.
//
// Ownership: the caller owns every record and keeps it in place while it is linked; the wheel
// allocates nothing after `timeouts_open`. A record is linked from `timeouts_add` until
// `timeouts_get` returns it or `timeouts_del` takes it out, and into one wheel at a time.
// Thread: none is created and nothing is locked; a wheel and its records are one thread's at a
// time.
//
//    struct timeout record;
//    struct timeouts* wheel = timeouts_open( 1000, &error );
//    timeouts_add( wheel, timeout_init( &record, TIMEOUT_ABS ), 250 );
//    timeouts_update( wheel, 250 );
//    while( ( expired = timeouts_get( wheel ) ) ) ...

#pragma once

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>

#define TIMEOUT_PUBLIC __attribute__( ( visibility( "default" ) ) )

#ifdef __cplusplus
extern "C" {
#endif

// A tick or a number of ticks. All 64 bits count: the last tick, 2^64-1, is a legal expiry.
typedef uint64_t timeout_t;

// For `timeout_init`: the time given to `timeouts_add` is an absolute tick, not a distance.
#define TIMEOUT_ABS 0x02

struct timeout_list;
struct timeouts;

// One deadline, embedded in whatever it wakes.
struct timeout {
   // As given to `timeout_init`. The library reads `TIMEOUT_ABS` and writes none of the bits; the
   // others are the caller's, at any time.
   int flags;
   // The absolute tick at which the record expires; not to be written while it is linked.
   timeout_t expires;
   // The list that the record is linked on, waiting or expired; null when it is not linked.
   struct timeout_list* pending;
   // The library's links; meaningless when `pending` is null.
   struct {
      struct timeout* tqe_next;
      struct timeout** tqe_prev;
   } tqe;
};

// Makes `record` an unlinked record with these flags and returns it. A linked record has to be
// taken out first, or its neighbours keep pointing at it.
TIMEOUT_PUBLIC struct timeout* timeout_init( struct timeout* record, int flags );

// Makes an empty wheel whose time is tick 0.
//
// Units:     `hz` is the number of ticks in a second; kept for `timeouts_hz`, never interpreted.
// Ownership: the caller's, until `timeouts_close`.
// Errors:    null and ENOMEM in `*error` when memory is short; otherwise `*error` is left alone.
TIMEOUT_PUBLIC struct timeouts* timeouts_open( timeout_t hz, int* error );

// Frees the wheel. Records still linked, waiting or expired, become unlinked (`pending` null) and
// are otherwise left as they are. Does nothing when `wheel` is null.
TIMEOUT_PUBLIC void timeouts_close( struct timeouts* wheel );

// Sets the time. Every record whose expiry is at or before `now` can be had from `timeouts_get`
// afterwards, and no other record that was waiting. The cost grows with the number of records that
// expire or change place, not with the distance.
//
// `now` may lie before the wheel's present time, as when a clock is set back: records still waiting
// keep their expiry and wait longer, records that have expired stay expired.
TIMEOUT_PUBLIC void timeouts_update( struct timeouts* wheel, timeout_t now );

// Moves the time forward by `distance` ticks, and not beyond the last tick.
TIMEOUT_PUBLIC void timeouts_step( struct timeouts* wheel, timeout_t distance );

// The `hz` given to `timeouts_open`.
TIMEOUT_PUBLIC timeout_t timeouts_hz( struct timeouts* wheel );

// Links `record` to expire at tick `time` when its `TIMEOUT_ABS` is set, and otherwise `time` ticks
// from the wheel's present time, at most at the last tick. Constant time.
//
// An expiry that is not after the present time puts the record behind those already expired.
// Adding a linked record moves it, behind those of its new tick even when the tick is the same.
//
// Ownership: `record` is initialised and linked into no other wheel; it stays in place until it is
//            unlinked or the wheel is closed.
TIMEOUT_PUBLIC void timeouts_add( struct timeouts* wheel, struct timeout* record, timeout_t time );

// Takes `record` out, waiting or expired; does nothing when it is not linked. Constant time.
TIMEOUT_PUBLIC void timeouts_del( struct timeouts* wheel, struct timeout* record );

// Unlinks and returns the first expired record, or returns null when there is none. Constant time.
//
// Records of one tick come out in the order in which they were added. Those of different ticks that
// expire in one update come in slot order: sorted while updates stay in one block of 64 ticks, and
// to a coarser grain when one leaves its block.
TIMEOUT_PUBLIC struct timeout* timeouts_get( struct timeouts* wheel );

// Whether an expired record is there for `timeouts_get`.
TIMEOUT_PUBLIC bool timeouts_expired( struct timeouts* wheel );

// Whether any record waits for its tick; those already expired do not count.
TIMEOUT_PUBLIC bool timeouts_pending( struct timeouts* wheel );

// How many ticks from the wheel's present time the next update is due: 0 when a record has expired,
// 2^64-1 when none is linked. Otherwise at least 1 and never beyond the first expiry. Exact when
// that is in the present block of 64 ticks or shares its slot with at most three records; else it
// may be early, and then an update expires nothing and brings the next answer closer. Constant
// time.
TIMEOUT_PUBLIC timeout_t timeouts_timeout( struct timeouts* wheel );

// Whether every list, bitmap and place of a record is as it should be. Writes a line to `out` for
// each thing that is not, when `out` is not null. Visits every linked record; meant for tests.
TIMEOUT_PUBLIC bool timeouts_check( struct timeouts* wheel, FILE* out );

#ifdef __cplusplus
}
#endif
