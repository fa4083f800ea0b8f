// Virtual time: event loops that jump to their next timer instead of sleeping.
//
// While fast-forward is on, a loop that would sleep moves its thread's virtual-time offset ahead,
// and every timeout of its base as much earlier, so that the first timer is due at once. Hours of
// timers run in moments. `Quarn::time()` includes the offset, so everything that reads the time
// there agrees with the timers. Real time keeps counting beneath: the offset is ahead of it and
// never goes back, also when fast-forward is switched off again.
//
// There is one switch for the libevent mode, process-wide and held here, and one for the framework
// mode, held by the framework's activity manager.
//
//     Quarn::setLeFastForward( true );
//     Quarn::doLeEventLoop( 3600.0 ); // an hour of timers
//
// `doLeEventLoop()` without a limit jumps once, to the first timer, and then runs in real time.
// Descriptors are looked at after a jump, not before it: data that is there already is read at the
// time of the next timer.
//
// Seconds are taken as everywhere in the loop: negative counts as 0, NaN is fatal ("invalid timeout
// ...").

#pragma once

#include <Quarn/Export.h>

#include <atomic>

#include <sys/time.h>

namespace Quarn {

// The process-wide switch of the libevent mode; read it through `leFastForward()`.
extern ORUQUARN_API std::atomic<bool> fastForward;

// Whether loops jump to their next timer instead of sleeping. Off at first. Any thread.
ORUQUARN_API bool leFastForward();

// Sets the switch, for the loops of all threads, and calls every notifier when it changed. The
// thread gets a base when it has none.
//
// Thread: the main one.
// Errors: fatal on another thread ("FastForward invoked from non-main thread"). What a notifier
//         throws; the switch is set then and the remaining notifiers are not called.
ORUQUARN_API void setLeFastForward( bool on );

// Adds a function that is called whenever the switch of the libevent mode has changed. It is held
// once however often it is added, and never removed; the order of calls is not specified. A
// notifier may add others, which are called from the next change on.
//
// Thread: at start-up; nothing is locked.
// Errors: fatal on null ("notifier is null").
ORUQUARN_API void leRegisterFastForwardChangeNotifier( void ( *notifier )() );

// Seconds by which the calling thread's virtual time is ahead of real time. Only grows.
ORUQUARN_API double leVirtualTimeOffset();

// Moves the calling thread's virtual time ahead by `delta`, and every timeout of its base as much
// earlier. Does not look at the switch, and runs nothing.
//
// Cost:   a walk over all events of the base.
// Errors: fatal when `delta` is negative, its microseconds are not below a million, or the offset
//         would leave what a time can hold ("invalid virtual time delta ...").
ORUQUARN_API void applyFastForwardDelta( timeval const* delta );

// How far virtual time has to move until the base's first timer is due: 0 when it is already, else
// the distance and 100 us more. Returns false, and leaves `out` alone, when the base has no timer.
//
// Every timeout of the base is a timer here, time limits of descriptor events included.
//
// Errors: fatal while fast-forward is off ("Called without fast forward enabled").
ORUQUARN_API bool fastForwardDelayToFirstTimer( timeval* out );

// One step of a loop in fast-forward: jumps to the first timer, or by `maxTimeout` seconds when
// that is less or there is no timer, and then runs what is due. Work that is runnable counts as a
// timer that is due, so it holds virtual time back.
//
// With +infinity (1e15 and more) and no timer it does not jump: it waits until a descriptor or a
// signal has something to run, and returns at once when the base has no events at all.
//
// Errors: fatal while fast-forward is off ("Called without fastForward enabled") and when a loop
//         runs already. What a handler throws.
ORUQUARN_API void eventLoopFastForwardToFirstTimer( double maxTimeout );

// How long a wait for a condition lasts at most when its caller does not say: the number at the
// beginning of the environment variable WAITFOR_DEFAULT, in seconds, else +infinity. The text is
// read as `std::stod` reads it, so "inf" and "nan" are numbers; one that begins with none leaves
// +infinity and a line on standard error. The environment is looked at once, by the first call.
//
// Thread: any, for the first call while none changes the environment.
ORUQUARN_API double waitForDefaultTimeout();

// The switch of the framework mode.
namespace Platform {

// Whether the framework's clock jumps to the next timer.
//
// Errors: fatal with thread-local singletons ("ThreadLocal fastForward invoked from non-main
//         thread"), which `leFastForward()` is for.
ORUQUARN_API bool fastForward();

// Sets the switch, and calls every notifier when it changed. A loop that waits looks at it when the
// wait is over.
//
// Thread: any, one at a time.
// Errors: as above; what a notifier throws.
ORUQUARN_API void setFastForward( bool on );

// `leRegisterFastForwardChangeNotifier` for the switch of the framework mode; the two keep separate
// notifiers.
ORUQUARN_API void registerFastForwardChangeNotifier( void ( *notifier )() );

} // namespace Platform

} // namespace Quarn
