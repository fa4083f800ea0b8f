// The calls of this program's libraries come here first, as the dynamic linker finds the program's
// own functions before those of the C library. All sides pay for it alike, a nanosecond or two.

#include "Looks.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>

namespace bench::peers {

namespace {

std::int64_t count = 0;

// The function of that name in the C library.
template<typename Function>
Function* next( Function*, char const* name ) {
   return reinterpret_cast<Function*>( dlsym( RTLD_NEXT, name ) );
}

} // namespace

std::int64_t looks() { return count; }

} // namespace bench::peers

using bench::peers::count;
using bench::peers::next;

#define ORUQUARN_COUNTED __attribute__( ( visibility( "default" ) ) )

extern "C" {

ORUQUARN_COUNTED int epoll_wait( int fd, epoll_event* events, int max, int timeout ) {
   static auto* const real = next( &epoll_wait, "epoll_wait" );
   ++count;
   return real( fd, events, max, timeout );
}

ORUQUARN_COUNTED int epoll_pwait( int fd, epoll_event* events, int max, int timeout,
                                  const sigset_t* mask ) {
   static auto* const real = next( &epoll_pwait, "epoll_pwait" );
   ++count;
   return real( fd, events, max, timeout, mask );
}

ORUQUARN_COUNTED int epoll_pwait2( int fd, epoll_event* events, int max, const timespec* timeout,
                                   const sigset_t* mask ) {
   static auto* const real = next( &epoll_pwait2, "epoll_pwait2" );
   ++count;
   return real( fd, events, max, timeout, mask );
}

ORUQUARN_COUNTED int poll( pollfd* fds, nfds_t n, int timeout ) {
   static auto* const real = next( &poll, "poll" );
   ++count;
   return real( fds, n, timeout );
}

ORUQUARN_COUNTED int ppoll( pollfd* fds, nfds_t n, const timespec* timeout, const sigset_t* mask ) {
   static auto* const real = next( &ppoll, "ppoll" );
   ++count;
   return real( fds, n, timeout, mask );
}

} // extern "C"
