// The libevent flavour of the controls.

#pragma once

#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/platform/EventPriority.h>

#include "platform/ControlLife.h"

#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdint>

namespace Quarn {

class LibeventFdControl : public Platform::FdControl {
 public:
   explicit LibeventFdControl( Platform::FdEventHandler* handler );
   ~LibeventFdControl() override;

   void setReads( bool watch ) override;
   void setWrites( bool watch ) override;
   void setFd( int fd ) override;
   void delFd() override;
   int getFd() const override;
   void clearEvents() override;

 private:
   static void readable( evutil_socket_t, short, void* control );
   static void writable( evutil_socket_t, short, void* control );
   template<void ( Platform::FdEventHandler::*notification )( int )>
   void _notify();
   void _bind();
   void _deleteEvents();
   void _armRead();
   void _armWrite();

   Platform::FdEventHandler* handler_;
   std::int32_t fd_ = -1;
   bool watchReads_ = true;
   bool watchWrites_ = false;
   event readEvent_;
   event writeEvent_;
   // Of the base that both are assigned to.
   std::uint64_t generation_ = 0;
   ControlLife life_;
};

class LibeventTimerControl : public Platform::TimerControl {
 public:
   LibeventTimerControl( Platform::TimeoutHandler* handler, Platform::EventPriority priority );
   ~LibeventTimerControl() override;

   void setTimeout( double seconds ) override;
   void delTimeout() override;
   double remainingTimeout() const override;

 protected:
   // For a timer whose expiry libevent reports elsewhere than to `expired`.
   LibeventTimerControl( Platform::TimeoutHandler* handler, Platform::EventPriority priority,
                         event_callback_fn trampoline );

   // Takes note that libevent no longer has the event; the first thing a trampoline does.
   void _expires();

 private:
   static void expired( evutil_socket_t, short, void* control );
   void _assign();
   void _traceSet( double seconds ) const;
   void _traceDel() const;

   Platform::TimeoutHandler* handler_;
   Platform::EventPriority priority_;
   event_callback_fn trampoline_;
   // Whether libevent has the event. An event that it has not needs no deletion before it is added
   // again, which saves a lock and, on every run of a task, a good part of the turn.
   bool pending_ = false;
   // Whether it was added without delay; asking for that again changes nothing.
   bool pendingAtOnce_ = false;
   event event_;
   // Of the base that it is assigned to.
   std::uint64_t generation_ = 0;
   ControlLife life_;
};

// A callback is a zero-delay timeout on a timer of its own, whose handler is the control itself.
class LibeventCallbackControl final : public Platform::CallbackControl,
                                      private Platform::TimeoutHandler,
                                      private LibeventTimerControl {
 public:
   explicit LibeventCallbackControl( Platform::CallbackHandler* handler );

   void requestCallback() override;
   void cancelCallback() override;
   bool pendingCallback() const override;

 private:
   // Guards the callback handler itself, so no second guard around `timeout()` is needed.
   static void callbackExpired( evutil_socket_t, short, void* control );
   void timeout() override;

   Platform::CallbackHandler* callbackHandler_;
   ControlLife callbackLife_;
};

} // namespace Quarn
