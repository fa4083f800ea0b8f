// The calling thread's libevent base.
//
// Each thread has at most one base, made when it is first needed and kept until `leFree()` or the
// end of the thread. Everything here acts on the calling thread's base.
//
// When memory is out: libevent goes on without what it can do without; what it cannot do without is
// fatal, with its words or ours. A trace of what libevent says ends the process when its text finds
// no memory. The first use that a thread makes of its base, its root or wheel, of virtual time, and
// the first exception that leaves a task on it, note the end of the thread with the C library,
// which ends the process when it finds no memory for that ("failed to register TLS destructor").

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/EventPriority.h>

struct event;
struct event_base;

namespace Quarn {

// Makes a base with the two event priorities. The base reads the clock anew for every timer
// instead of once a turn, so that a delay counts from the moment at which it was asked for.
//
// Ownership: the caller's, until it is registered.
// Errors: fatal ("Failed to create event_base"; "libevent fatal error ..." when there are no
//         descriptors for its signals, and then what it has open by then stays open).
ORUQUARN_API event_base* leCreateBase();

// Makes `base` the thread's base. It needs two event priorities. It stays the caller's: the end of
// the thread does not free it, `leFree()` does.
//
// Errors: fatal when the thread has another base already.
ORUQUARN_API void leRegisterBase( event_base* base );

// Gives the thread a base when it has none. The end of the thread frees it, also when it is made by
// a destructor of a thread-local object.
//
// Errors: fatal when no base can be made, or when nobody could free it: by such a destructor there
//         has to be room for one more pthread_key_create(3) ("pthread_key_create() failed ...",
//         "pthread_setspecific() failed ..."). The thread has no base then.
ORUQUARN_API void leInit();

// Whether the thread has a base.
ORUQUARN_API bool leInitialized();

// Frees the thread's base, if any. Controls that live on are disarmed and may be armed again, on
// the thread's next base. Free it when the thread's root and wheels have nothing to do: a wake-up
// that they have asked for goes with the base, and they do not ask again.
//
// Errors: fatal while the base's loop runs.
ORUQUARN_API void leFree();

// Makes the thread's base usable in the child of a fork, or makes one when there is none. A child
// calls this before it runs the loop. Touching descriptors before is harmless: the library notices
// that it runs in a child and leaves the parent's watch list alone.
//
// Errors: fatal when libevent cannot set the base up again ("event_reinit failed ...", or "libevent
//         fatal error ...": then the thread gives that base up, with what it has).
ORUQUARN_API void leForkReinit();

// Sets the priority of a libevent event.
//
// Errors: fatal ("Failed to set priority ...") when the event is active or the base has too few.
ORUQUARN_API void eventPrioritySet( event* ev, Platform::EventPriority priority );

// Takes note again of whether the thread is the main one; `leRegisterBase` does so too.
ORUQUARN_API void setMainThread();

} // namespace Quarn
