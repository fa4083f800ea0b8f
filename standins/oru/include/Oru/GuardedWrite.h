// A write that cannot kill the process.

#pragma once

#include <Oru/Export.h>

#include <cstddef>
#include <sys/types.h>

namespace Oru {

// Like write(2), with SIGPIPE held back for the calling thread and the process's handling of that
// signal untouched: the signal that a closed pipe raises is taken away, one that was pending
// before stays pending. Gives the number of bytes written, which may be fewer than asked for, or
// the negated error number (-EPIPE, -EINTR). `errno` is unchanged.
//
// Thread: any; may be used after fork and in a signal handler.
ORU_API ssize_t guardedWrite( int fd, void const* data, std::size_t size ) noexcept;

} // namespace Oru
