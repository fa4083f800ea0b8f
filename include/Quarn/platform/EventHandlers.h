// What client code implements to be told of descriptors, timeouts and callbacks.
//
// A handler is called on the thread that runs the event loop. It may destroy the control that calls
// it, and itself with it. An exception that escapes is offered to the handler's hook; when the hook
// returns true it is dropped, otherwise it leaves the loop function that runs (`doLeEventLoop` and
// its kin), after which the loop may be run again and serves what is left. A program that
// dispatches the base by itself gets the exception through libevent's frames; that base is then
// only good for freeing.

#pragma once

#include <Quarn/Export.h>

namespace Quarn::Platform {

// Of an `FdControl`.
class ORUQUARN_API FdEventHandler {
 public:
   virtual ~FdEventHandler();
   // The descriptor has become readable, or writable, or its peer has gone.
   virtual void readFdEvent( int fd ) = 0;
   virtual void writeFdEvent( int fd ) = 0;
   // Whether the exception in flight is dealt with. By default it is not.
   virtual bool handleFdException( int fd );
};

// Of a `TimerControl`.
class ORUQUARN_API TimeoutHandler {
 public:
   virtual ~TimeoutHandler();
   // The time has come; the timer is no longer armed.
   virtual void timeout() = 0;
   // Whether the exception in flight is dealt with. By default it is not.
   virtual bool handleTimeoutException();
};

// Of a `CallbackControl`.
class ORUQUARN_API CallbackHandler {
 public:
   virtual ~CallbackHandler();
   // The callback that was asked for.
   virtual void callback() = 0;
   // Whether the exception in flight is dealt with. By default it is not.
   virtual bool handleCallbackException();
};

} // namespace Quarn::Platform
