// The socket of show requests, for both ends: an abstract local one that keeps records apart.
//
// All system calls on it are here. Functions that return a descriptor return one that is not valid,
// and set errno, when they fail; every descriptor is closed on exec.

#pragma once

#include "tools/show/Descriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace Show {

// An agent's end, non-blocking. EADDRINUSE when another process has the name.
Descriptor listenAs( std::string_view agent );

// The next client's connection, non-blocking. EAGAIN when there is none.
Descriptor acceptClient( int listening );

// A client's end, blocking. ECONNREFUSED when there is no such agent, EAGAIN when the agent has not
// taken a waiting client for the time of `limit`, which then holds for sending too.
Descriptor connectTo( std::string_view agent, std::chrono::milliseconds limit );

// The user who connected, or who listens.
std::optional<uid_t> peerUser( int socket );

// Sends one record with one descriptor. Sets errno when it fails, and raises no SIGPIPE.
bool sendRecord( int socket, std::string_view record, int fd );

struct Received {
   // None has come yet; the client has gone, or the connection is broken; here it is.
   enum class State { nothing, ended, record };

   State state = State::nothing;
   // Cut off when `tooLong`.
   std::string record;
   bool tooLong = false;
   // The first descriptor that came; what came beside it is closed and counted as surplus.
   Descriptor passed;
   bool surplus = false;
};

// Receives one record from a non-blocking connection. A record of no bytes is told from the end of
// the connection by its descriptor only.
Received receiveRecord( int socket );

} // namespace Show
