// The socket of show requests, for both ends: an abstract local one that keeps records apart.
//
// All system calls on it are here, save those of `listenAs` (ShowListener). Functions that return a
// descriptor return one that is not valid, and set errno, when they fail; every descriptor is
// closed on exec.

#pragma once

#include "tools/show/Descriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace Show {

// The next client's connection, non-blocking. EAGAIN when there is none.
Descriptor acceptClient( int listening );

// A client's end, blocking. ECONNREFUSED when there is no such agent, EAGAIN when the agent has not
// taken a waiting client for the time of `limit`, which signals do not prolong.
Descriptor connectTo( std::string_view agent, std::chrono::milliseconds limit );

// The user who connected, or who listens.
std::optional<uid_t> peerUser( int socket );

// Sends one record with one descriptor. Sets errno when it fails, to EAGAIN when that took more
// than `limit`, and raises no SIGPIPE.
bool sendRecord( int socket, std::string_view record, int fd,
                 std::chrono::milliseconds limit = std::chrono::hours( 1 ) );

struct Received {
   // None has come yet; the client has gone, or the connection is broken; here it is.
   enum class State { nothing, ended, record };

   State state = State::nothing;
   // Cut off when `tooLong`.
   std::string record;
   bool tooLong = false;
   // A copy of the first descriptor that came, and whether there are more.
   Descriptor passed;
   bool surplus = false;
};

// Looks at the first record of a connection and leaves it there, with all its descriptors: the last
// close of a stranger's file may wait, so it is left to whoever closes the connection. A record of
// no bytes is told from the end of the connection by its descriptor only.
Received peekRecord( int socket );

} // namespace Show
