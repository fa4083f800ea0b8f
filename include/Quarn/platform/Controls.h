// The controls through which client code arms and disarms its notifications.
//
// A control comes from a factory (`platform/Factories.h`), holds its handler without owning it (the
// handler outlives the control), and is used on the thread that made it. Destroying it disarms it.
//
// There are two flavours: on libevent, which the comments below describe, and on the objects of the
// framework in a process without thread-local singletons. They differ in this:
//
//                                           libevent               framework
//     clearEvents()                         keeps the number       forgets it: getFd() is -1, and
//                                                                  flags alone watch nothing
//     setFd() after a write notification    watches writes again   does not: setWrites( true ) does
//     setFd( -1 )                           fatal                  watches nothing
//     regular files                         writable, unreadable   always both
//     a number closed and used again        not heard              heard
//     a number closed while watched         not heard              not heard, traced once
//     timers                                a kernel tick early    never early
//     remainingTimeout()                    from an old reading    exact
//     callbacks and timers of one turn      in no promised order   callbacks first, then by time

#pragma once

#include <Quarn/Export.h>

namespace Quarn::Platform {

// Watches one descriptor. Reads are watched from the start, writes are not; the flags may be set
// before the descriptor and take effect with it.
//
// The descriptor stays the caller's. Forget it here (`delFd`) before closing it: the kernel drops a
// closed descriptor from its watch list silently, and a new descriptor that gets the same number
// would be taken for the old one and never be heard of. One of which there are duplicates is even
// reported on, for as long as they are open.
class ORUQUARN_API FdControl {
 public:
   virtual ~FdControl();

   // Read readiness is reported for as long as it lasts.
   virtual void setReads( bool watch ) = 0;

   // Write readiness is reported once for each `setWrites( true )`, and once more for a descriptor
   // that is set while the flag stands.
   virtual void setWrites( bool watch ) = 0;

   // Watches `fd` from now on and makes it non-blocking. A descriptor that cannot be polled, such
   // as a regular file, counts as always writable; its reads are never reported.
   //
   // Errors: fatal when the descriptor's flags cannot be read or set, and when there is no room for
   //         the watch ("Failed to add event fd ..."), which the flags may meet too: that flag is
   //         off then. A descriptor that could not be set is forgotten.
   virtual void setFd( int fd ) = 0;

   // Forgets the descriptor.
   virtual void delFd() = 0;

   // The descriptor, or -1.
   virtual int getFd() const = 0;

   // Stops watching until a flag or the descriptor is set again; the descriptor is kept.
   virtual void clearEvents() = 0;
};

// A one-shot timer.
class ORUQUARN_API TimerControl {
 public:
   virtual ~TimerControl();

   // Fires once, `seconds` from now, on the event loop's own clock; a timer that runs is moved.
   // Negative delays count as 0, which fires at the next turn; +infinity disarms.
   //
   // The loop reads a coarse clock, which is behind by up to a tick of the kernel (4 ms at 250 Hz),
   // and by more where the machine is late with a tick. A timer may fire as much early; one that
   // must not is kept in a `TimerWheel`.
   //
   // Errors: fatal on NaN ("invalid timeout ..."), and when there is no room for one more timer
   //         ("Failed to add event fd -1 ..."). What is due is made active where there is no room
   //         for a timer, so that neither a delay of 0 nor a callback is refused.
   virtual void setTimeout( double seconds ) = 0;

   // Disarms; does nothing to a timer that is not armed.
   virtual void delTimeout() = 0;

   // Seconds until the timer fires: 0 when overdue, +infinity when it is not armed. For showing
   // only: the loop computes it from a wall clock that it reads every few seconds.
   virtual double remainingTimeout() const = 0;
};

// Asks to be called back soon.
class ORUQUARN_API CallbackControl {
 public:
   virtual ~CallbackControl();

   // Calls the handler once, in a later turn of the loop. Requests before that turn are one.
   // Callbacks of different controls run in no promised order.
   virtual void requestCallback() = 0;
   // Takes the request back.
   virtual void cancelCallback() = 0;

   // Whether a request waits for its turn.
   virtual bool pendingCallback() const = 0;
};

} // namespace Quarn::Platform
