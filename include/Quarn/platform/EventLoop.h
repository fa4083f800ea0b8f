// Running the calling thread's event loop.
//
// One loop runs on a thread at a time. Exceptions that a handler lets out, and does not deal with
// by its hook, leave these functions; the loop may then be run again and serves what is left.
//
// Times are seconds on the event loop's monotonic clock, a coarse one (`TimerControl::setTimeout`).
// Negative counts as 0; +infinity never ends by itself.
// Errors: fatal on NaN, when a loop runs already ("event loop is already running on this thread"),
// and when libevent fails ("event loop failed ...") or has no room for the timer that ends the loop
// ("Failed to add event").

#pragma once

#include <Quarn/Export.h>

namespace Quarn {

// Runs the loop for at most `seconds`. With 0, whatever is due runs before it returns. Returns
// early only when the loop is broken.
ORUQUARN_API void eventLoopTimeout( double seconds );

// Runs the loop until nothing is left to wait for: at once when no event is pending. Armed timers,
// watched descriptors and requested callbacks are events; so is the master timer of a wheel, which
// stays armed for a while after its last timer was stopped (`TimerWheel::timerStop`).
ORUQUARN_API void doLeEventLoop();

// Runs the loop for `timeout` seconds.
ORUQUARN_API void doLeEventLoop( double timeout );

// One wait of a loop that waits for a condition: runs the loop for at most `maxTimeout` seconds
// with the framework's activity lock held (other threads that need it, to load a plugin for
// example, wait that long), then lets other threads have the lock.
ORUQUARN_API void doLeEventLoopInWaitfor( double maxTimeout );

// The same by process mode: libevent's loop with thread-local singletons, else the framework's. Of
// that there is one in the process. A handler may run it within itself, each call with its own
// limit, and is then the only one of its kind: a loop within a task runs no other task of its root,
// one within a timer of a wheel no other timer of that wheel. `doEventLoopInWaitfor` is
// `doEventLoop` there, and +infinity ends when nothing is left to wait for.
//
// Errors: on the framework's loop, Quarn::AssertException while another thread runs it.
namespace Platform {

ORUQUARN_API void doEventLoop();
ORUQUARN_API void doEventLoop( double timeout );
ORUQUARN_API void doEventLoopInWaitfor( double timeout );

} // namespace Platform

} // namespace Quarn
