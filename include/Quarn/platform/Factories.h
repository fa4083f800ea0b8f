// Where controls come from.
//
// The forms named `get...Control` look at the process mode: with thread-local singletons (the usual
// case) they make libevent controls on the calling thread's base, else controls on the objects of
// the framework. The forms named `getLe...Control` make libevent controls in either mode. A thread
// without a base gets one (`leInit`).
//
// Ownership: the caller's, by shared pointer. The handler is held without ownership and must
// outlive the control. Errors: fatal when the handler is null.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/platform/EventPriority.h>

#include <memory>

namespace Quarn {

class String;
class TaskPriority;
class TaskScheduler;
class TimerWheel;

namespace Platform {

ORUQUARN_API std::shared_ptr<FdControl> getFdControl( FdEventHandler* handler );
// Without a priority, `eventPriorityDefault`.
ORUQUARN_API std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler );
ORUQUARN_API std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler,
                                                            EventPriority priority );
ORUQUARN_API std::shared_ptr<CallbackControl> getCallbackControl( CallbackHandler* handler );

// A timer on `wheel`, which it shares ownership of. It never fires early. It must be disarmed
// before it is destroyed.
ORUQUARN_API std::shared_ptr<TimerControl> getTimerControl( TimeoutHandler* handler,
                                                            std::shared_ptr<TimerWheel> wheel );

// Controls that run the notification as a task of that scheduler, priority and name; see
// `platform/TaskControls.h`.
//
// Errors: also those of making a task.
ORUQUARN_API std::shared_ptr<FdControl> getFdControl( FdEventHandler* handler,
                                                      std::shared_ptr<TaskScheduler> scheduler,
                                                      TaskPriority priority, String name );
ORUQUARN_API std::shared_ptr<TimerControl>
getTimerControl( TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                 TaskPriority priority, String name );
ORUQUARN_API std::shared_ptr<CallbackControl>
getCallbackControl( CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                    TaskPriority priority, String name );

ORUQUARN_API std::shared_ptr<FdControl> getLeFdControl( FdEventHandler* handler );
ORUQUARN_API std::shared_ptr<TimerControl> getLeTimerControl( TimeoutHandler* handler );
ORUQUARN_API std::shared_ptr<TimerControl> getLeTimerControl( TimeoutHandler* handler,
                                                              EventPriority priority );
ORUQUARN_API std::shared_ptr<CallbackControl> getLeCallbackControl( CallbackHandler* handler );

} // namespace Platform

} // namespace Quarn
