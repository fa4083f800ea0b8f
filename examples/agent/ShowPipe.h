// What the agent does with a descriptor that a stranger handed it.
//
// The pipe's flags are shared with whoever has another copy of the descriptor: one that was made
// non-blocking can be made blocking again behind the agent's back, and a write would then stop the
// whole agent. So answers go out through a descriptor of the agent's own, opened anew.

#pragma once

#include "tools/show/Descriptor.h"

#include <string_view>

namespace HostAgent {

// Whether `fd` is the write end of a pipe, named or not, and no other. Asks no file system, which
// may take its time to answer.
bool isPipeWriteEnd( int fd );

// A write end, or a read end, of the same pipe: non-blocking, and with flags of its own. Not valid,
// with errno set, when this process may not open the pipe (EACCES) or, for a write end, when its
// reader is gone (ENXIO).
Show::Descriptor pipeWriteEndOf( int fd );
Show::Descriptor pipeReadEndOf( int fd );

// Writes a line of at most 512 bytes to a pipe of any flags, when it has room at once. Never waits
// and raises no SIGPIPE that is not ignored.
void writeLineAtOnce( int fd, std::string_view line );

} // namespace HostAgent
