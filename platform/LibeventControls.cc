#include "platform/LibeventControls.h"

#include <Quarn/base/Exception.h>
#include <Quarn/base/MemTrack.h>
#include <Quarn/platform/EventBase.h>
#include <Quarn/platform/Factories.h>

#include "debug/Handlers.h"
#include "platform/EventBase.h"
#include "platform/Seconds.h"
#include "platform/ThreadEnd.h"

#include <cerrno>
#include <cmath>
#include <limits>

#include <fcntl.h>
#include <sys/time.h>

namespace Quarn {

using Platform::libeventHandler;
using Platform::onCurrentBase;
using Platform::threadBase;

namespace {

constexpr char sourceFile[] = "LibeventFactoryCpp";

// Calls a handler under the exception rule. `ask` is the handler's hook; it is not asked when the
// control is gone, for the handler may be gone with it. After a normal return nothing of control or
// handler is touched.
template<typename Call, typename Ask>
void callHandler( ControlLife& life, Call call, Ask ask ) {
   ControlLife::Watch watch( life );
   try {
      try {
         call();
      } catch( ... ) {
         if( threadEnds() || !watch.alive() || !ask() ) {
            throw;
         }
      }
   } catch( ... ) {
      if( threadEnds() ) {
         throw;
      }
      Platform::escapeFromCallback();
   }
}

void requireHandler( void const* handler, char const* className ) {
   if( !handler ) {
      QUARN_FAIL( className, "handler is null" );
   }
}

void assign( event& ev, int fd, short flags, event_callback_fn callback, void* argument,
             Platform::EventPriority priority ) {
   if( event_assign( &ev, threadBase.base, fd, flags, callback, argument ) != 0 ) {
      QUARN_FAIL( "Quarn", "Failed to assign event fd {}", fd );
   }
   eventPrioritySet( &ev, priority );
}

} // namespace

// ------------------------------------------------------------------------------------ descriptors

LibeventFdControl::LibeventFdControl( Platform::FdEventHandler* handler ) : handler_( handler ) {
   requireHandler( handler, "LibeventFdControl" );
   _bind();
}

void LibeventFdControl::_bind() {
   leInit();
   if( !onCurrentBase( generation_ ) ) {
      assign( readEvent_, -1, 0, nullptr, nullptr, Platform::EventPriority::eventPriorityDefault );
      assign( writeEvent_, -1, 0, nullptr, nullptr, Platform::EventPriority::eventPriorityDefault );
      generation_ = threadBase.generation;
   }
   Platform::baseAfterFork();
}

LibeventFdControl::~LibeventFdControl() {
   try {
      _deleteEvents();
   } catch( const std::exception& e ) {
      // Only a child whose base cannot be set up again comes here; its events are left to the end
      // of the process.
      QUARN_TRACE( libeventHandler, 0, "LibeventFdControl", "fd {}: {}", fd_, e.what() );
   }
}

void LibeventFdControl::setFd( int fd ) {
   fd_ = fd;
   const int flags = fcntl( fd, F_GETFL );
   if( flags < 0 ) {
      // Neither the watch on an earlier descriptor nor the number stays: the one would report under
      // the other, and a later descriptor of that number would be taken for watched.
      delFd();
      QUARN_FAIL( "LibeventFdControl", "flags >= 0" );
   }
   const int result = fcntl( fd, F_SETFL, flags | O_NONBLOCK );
   if( result != 0 ) {
      delFd();
      QUARN_FAIL( "LibeventFdControl", "result == 0" );
   }
   try {
      _bind();
      if( watchReads_ ) {
         _armRead();
      }
      if( watchWrites_ ) {
         _armWrite();
      }
   } catch( ... ) {
      delFd();
      throw;
   }
}

void LibeventFdControl::setReads( bool watch ) {
   if( fd_ >= 0 ) {
      _bind();
   }
   watchReads_ = watch;
   if( fd_ < 0 ) {
      return;
   }
   if( watch ) {
      try {
         _armRead();
      } catch( ... ) {
         watchReads_ = false; // nor does the next descriptor get a watch that nobody has
         throw;
      }
   } else {
      event_del( &readEvent_ );
   }
}

void LibeventFdControl::setWrites( bool watch ) {
   if( fd_ >= 0 ) {
      _bind();
   }
   watchWrites_ = watch;
   if( fd_ < 0 ) {
      return;
   }
   if( watch ) {
      try {
         _armWrite();
      } catch( ... ) {
         watchWrites_ = false;
         throw;
      }
   } else {
      event_del( &writeEvent_ );
   }
}

void LibeventFdControl::delFd() {
   fd_ = -1; // even where there is no base to take the watch off
   clearEvents();
}

int LibeventFdControl::getFd() const { return fd_; }

void LibeventFdControl::clearEvents() { _deleteEvents(); }

void LibeventFdControl::_deleteEvents() {
   Platform::baseAfterFork();
   if( onCurrentBase( generation_ ) ) {
      event_del( &readEvent_ );
      event_del( &writeEvent_ );
   }
}

void LibeventFdControl::_armRead() {
   event_del( &readEvent_ );
   assign( readEvent_, fd_, EV_READ | EV_PERSIST, &LibeventFdControl::readable, this,
           Platform::EventPriority::eventPriorityDefault );
   if( event_add( &readEvent_, nullptr ) == 0 ) {
      return;
   }
   const int error = errno;
   if( error == EPERM ) {
      // The kernel cannot poll it (a regular file). Reporting it readable for ever would spin.
      QUARN_TRACE( libeventHandler, 0, "LibeventFdControl",
                   "fd {} cannot be polled, its reads are not reported", fd_ );
      return;
   }
   QUARN_FAIL( "LibeventFdControl", "Failed to add event fd {}: {}", fd_, strerror( error ) );
}

void LibeventFdControl::_armWrite() {
   event_del( &writeEvent_ );
   // Not persistent: one writable notification, then the owner asks again.
   assign( writeEvent_, fd_, EV_WRITE, &LibeventFdControl::writable, this,
           Platform::EventPriority::eventPriorityDefault );
   if( event_add( &writeEvent_, nullptr ) == 0 ) {
      return;
   }
   const int error = errno;
   if( error == EPERM || error == EBADF ) {
      // A regular file is always ready. For a closed descriptor the write then meets the error,
      // where its owner can deal with it.
      event_active( &writeEvent_, EV_WRITE, 0 );
      return;
   }
   QUARN_FAIL( "LibeventFdControl", "Failed to add event fd {}: {}", fd_, strerror( error ) );
}

template<void ( Platform::FdEventHandler::*notification )( int )>
void LibeventFdControl::_notify() {
   Platform::FdEventHandler* handler = handler_;
   const int fd = getFd();
   callHandler(
         life_, [ & ] { ( handler->*notification )( fd ); },
         [ & ] { return handler->handleFdException( fd ); } );
}

void LibeventFdControl::readable( evutil_socket_t, short, void* control ) {
   static_cast<LibeventFdControl*>( control )->_notify<&Platform::FdEventHandler::readFdEvent>();
}

void LibeventFdControl::writable( evutil_socket_t, short, void* control ) {
   static_cast<LibeventFdControl*>( control )->_notify<&Platform::FdEventHandler::writeFdEvent>();
}

// ----------------------------------------------------------------------------------------- timers

LibeventTimerControl::LibeventTimerControl( Platform::TimeoutHandler* handler,
                                            Platform::EventPriority priority )
      : LibeventTimerControl( handler, priority, &LibeventTimerControl::expired ) {}

LibeventTimerControl::LibeventTimerControl( Platform::TimeoutHandler* handler,
                                            Platform::EventPriority priority,
                                            event_callback_fn trampoline )
      : handler_( handler ),
        priority_( priority ),
        trampoline_( trampoline ) {
   requireHandler( handler, "LibeventTimerControl" );
   leInit();
   _assign();
}

LibeventTimerControl::~LibeventTimerControl() {
   if( onCurrentBase( generation_ ) ) {
      event_del( &event_ );
   }
}

void LibeventTimerControl::_assign() {
   pending_ = false;
   assign( event_, -1, 0, trampoline_, this, priority_ );
   generation_ = threadBase.generation;
}

void LibeventTimerControl::setTimeout( double seconds ) {
   if( seconds == std::numeric_limits<double>::infinity() ) {
      delTimeout();
      return;
   }
   const timeval delay = Platform::secondsToTimeval( seconds );
   const bool atOnce = delay.tv_sec == 0 && delay.tv_usec == 0;
   if( atOnce && pending_ && pendingAtOnce_ && onCurrentBase( generation_ ) ) {
      // Due already, so moving it to now changes nothing; requests for a callback come in numbers.
      _traceDel();
      _traceSet( seconds );
      return;
   }
   delTimeout();
   _traceSet( seconds );
   leInit();
   // An idle event that is already assigned to this base is as good as a fresh one.
   if( !onCurrentBase( generation_ ) ) {
      _assign();
   }
   if( event_add( &event_, &delay ) != 0 ) {
      if( !atOnce ) {
         QUARN_FAIL( "LibeventTimerControl", "Failed to add event fd {}: {}", -1,
                     strerror( errno ) );
      }
      // There is no memory for one more timer. What is due needs none, and a scheduler's request
      // for its run must not fail.
      event_active( &event_, EV_TIMEOUT, 0 );
   }
   pending_ = true;
   pendingAtOnce_ = atOnce;
}

void LibeventTimerControl::_traceSet( double seconds ) const {
   QUARN_TRACE_AS( libeventHandler, 9, "LibeventTimerControl", "setTimeout",
                   "Timer {} set timeout {}", fmt::ptr( this ), seconds );
}

void LibeventTimerControl::_traceDel() const {
   QUARN_TRACE_AS( libeventHandler, 9, "LibeventTimerControl", "delTimeout", "Timer {} del timeout",
                   fmt::ptr( this ) );
}

void LibeventTimerControl::delTimeout() {
   _traceDel();
   if( pending_ && onCurrentBase( generation_ ) ) {
      event_del( &event_ );
   }
   pending_ = false;
}

double LibeventTimerControl::remainingTimeout() const {
   timeval expiry{};
   if( !onCurrentBase( generation_ ) || !event_pending( &event_, EV_TIMEOUT, &expiry ) ) {
      return std::numeric_limits<double>::infinity();
   }
   timeval now{};
   gettimeofday( &now, nullptr );
   if( !Platform::isBefore( now, expiry ) ) {
      return 0.0;
   }
   timeval left{};
   timersub( &expiry, &now, &left );
   return static_cast<double>( left.tv_sec ) + static_cast<double>( left.tv_usec ) / 1e6;
}

void LibeventTimerControl::_expires() {
   pending_ = false;
   QUARN_TRACE_AS( libeventHandler, 9, "LibeventTimerControl", "expired", "Timer {} expired",
                   fmt::ptr( this ) );
}

void LibeventTimerControl::expired( evutil_socket_t, short, void* argument ) {
   auto* control = static_cast<LibeventTimerControl*>( argument );
   Platform::TimeoutHandler* handler = control->handler_;
   control->_expires();
   callHandler(
         control->life_, [ & ] { handler->timeout(); },
         [ & ] {
            const bool handled = handler->handleTimeoutException();
            if( handled ) {
               QUARN_TRACE_AS( libeventHandler, 9, "LibeventTimerControl", "expired",
                               "Timeout notification exception was handled" );
            }
            return handled;
         } );
}

// -------------------------------------------------------------------------------------- callbacks

LibeventCallbackControl::LibeventCallbackControl( Platform::CallbackHandler* handler )
      : LibeventTimerControl( this, Platform::EventPriority::eventPriorityDefault,
                              &LibeventCallbackControl::callbackExpired ),
        callbackHandler_( handler ) {
   requireHandler( handler, "LibeventCallbackControl" );
}

void LibeventCallbackControl::requestCallback() {
   QUARN_TRACE( libeventHandler, 9, "LibeventCallbackControl", "Callback {} request",
                fmt::ptr( this ) );
   setTimeout( 0.0 );
}

void LibeventCallbackControl::cancelCallback() {
   QUARN_TRACE( libeventHandler, 9, "LibeventCallbackControl", "Callback {} cancel",
                fmt::ptr( this ) );
   delTimeout();
}

bool LibeventCallbackControl::pendingCallback() const {
   return std::isfinite( remainingTimeout() );
}

void LibeventCallbackControl::callbackExpired( evutil_socket_t, short, void* argument ) {
   // The argument is what the timer's base class gave libevent.
   auto* control =
         static_cast<LibeventCallbackControl*>( static_cast<LibeventTimerControl*>( argument ) );
   control->_expires();
   control->LibeventCallbackControl::timeout();
}

void LibeventCallbackControl::timeout() {
   Platform::CallbackHandler* handler = callbackHandler_;
   QUARN_TRACE( libeventHandler, 9, "LibeventCallbackControl", "Callback {} execute",
                fmt::ptr( this ) );
   callHandler(
         callbackLife_, [ & ] { handler->callback(); },
         [ & ] {
            const bool handled = handler->handleCallbackException();
            if( handled ) {
               QUARN_TRACE_AS( libeventHandler, 9, "LibeventCallbackControl", "timeout",
                               "Callback notification exception was handled" );
            }
            return handled;
         } );
}

// -------------------------------------------------------------------------------------- factories

namespace Platform {

std::shared_ptr<FdControl> getLeFdControl( FdEventHandler* handler ) {
   return std::allocate_shared<LibeventFdControl>( Allocator<LibeventFdControl>(), handler );
}

std::shared_ptr<TimerControl> getLeTimerControl( TimeoutHandler* handler ) {
   return getLeTimerControl( handler, EventPriority::eventPriorityDefault );
}

std::shared_ptr<TimerControl> getLeTimerControl( TimeoutHandler* handler, EventPriority priority ) {
   return std::allocate_shared<LibeventTimerControl>( Allocator<LibeventTimerControl>(), handler,
                                                      priority );
}

std::shared_ptr<CallbackControl> getLeCallbackControl( CallbackHandler* handler ) {
   return std::allocate_shared<LibeventCallbackControl>( Allocator<LibeventCallbackControl>(),
                                                         handler );
}

} // namespace Platform

} // namespace Quarn
