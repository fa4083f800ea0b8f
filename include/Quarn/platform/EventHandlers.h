// What client code implements to be told of descriptors, timeouts and callbacks.
//
// A handler is called on the thread that runs the event loop. It may destroy the control that calls
// it, and itself with it. An exception that escapes is offered to the handler's hook; when the hook
// returns true it is dropped, otherwise it leaves the loop function that runs (`doLeEventLoop` and
// its kin), after which the loop may be run again and serves what is left.

#pragma once

#include <Quarn/Export.h>

namespace Quarn::Platform {

class ORUQUARN_API FdEventHandler {
 public:
   virtual ~FdEventHandler();
   virtual void readFdEvent( int fd ) = 0;
   virtual void writeFdEvent( int fd ) = 0;
   // Whether the exception in flight is dealt with. By default it is not.
   virtual bool handleFdException( int fd );
};

class ORUQUARN_API TimeoutHandler {
 public:
   virtual ~TimeoutHandler();
   virtual void timeout() = 0;
   // Whether the exception in flight is dealt with. By default it is not.
   virtual bool handleTimeoutException();
};

class ORUQUARN_API CallbackHandler {
 public:
   virtual ~CallbackHandler();
   virtual void callback() = 0;
   // Whether the exception in flight is dealt with. By default it is not.
   virtual bool handleCallbackException();
};

} // namespace Quarn::Platform
