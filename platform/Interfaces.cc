// The interfaces' key functions, so that each class has its table in this library alone.

#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>

namespace Quarn::Platform {

FdEventHandler::~FdEventHandler() = default;
bool FdEventHandler::handleFdException( int ) { return false; }

TimeoutHandler::~TimeoutHandler() = default;
bool TimeoutHandler::handleTimeoutException() { return false; }

CallbackHandler::~CallbackHandler() = default;
bool CallbackHandler::handleCallbackException() { return false; }

FdControl::~FdControl() = default;
TimerControl::~TimerControl() = default;
CallbackControl::~CallbackControl() = default;

} // namespace Quarn::Platform
