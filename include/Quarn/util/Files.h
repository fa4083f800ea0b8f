// Files and directories: the system's calls with this library's traces.
//
// A function says by its result whether it worked, and traces why not on the handler that the
// caller gives (`mkpath` and `trimpath` on "QuarnUtil"). Three throw instead: `fileWrite`,
// `fileSizeHelper` and `getCwd`. After a failure `errno` is that of the call that failed, whatever
// was traced since.
//
// Paths are taken as the system takes them, relative ones from the current directory; a null one is
// the empty path. A FIFO without a peer blocks `touch` and `fileRead`.
//
// Thread: `mkpath`, `touch`, `fileWrite` (and `FileLock::lock`) set the umask of the process to 0
//         for the length of one system call, one thread at a time, so that the modes below are what
//         a file gets. Another thread that makes a file by other means in that moment gets no umask
//         either, and nor does a child that it starts without fork(2), as by popen(3). Everything
//         else may be called by any thread at any time.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/debug/DebugHandler.h>

#include <string_view>

namespace Quarn::Util {

// Makes the directory `path`, and before it those of its parents that are missing, all with `mode`
// and no umask. A directory below parents that had to be made has its mode set once more, also one
// that is there by then: "new/.." sets that of the directory in which "new" was missing.
//
// Returns 0 when the path exists afterwards (as what is not looked at), -1 otherwise. A path that
// is missing and has no parent in it, such as the empty one, fails with ENOENT.
ORUQUARN_API int mkpath( char const* path, unsigned int mode );

// Removes the empty directories that `trailing` names from the end of `absolute`, the deepest
// first: "/a/b/x/y" and "x/y" remove "/a/b/x/y" and "/a/b/x". One that is missing is passed over.
// The text is compared and not the components: "/a/bx/y" with "x/y" removes "/a/bx/y" and "/a/bx".
//
// Returns 0, or -1 when one cannot be removed; those below it are gone.
//
// Errors: fatal when one of the two is empty, and when `absolute` does not begin with "/", is not
//         longer than `trailing` or does not end with it.
ORUQUARN_API int trimpath( char const* absolute, std::string_view trailing );

// Makes the file with mode 0666 when it is missing. An existing one stays as it is, its times too.
//
// Returns whether it could be opened for writing, and closed.
ORUQUARN_API bool touch( Platform::DebugHandler& handler, char const* path );

// Makes the file (mode 0666) or empties it, and writes `data` with one call. A write that takes
// part of the data, as on a full disk or above 2 GiB, is traced and counts as success.
//
// Errors: `RuntimeException` unless `noThrow`. Its text is `data` itself, so what must not reach a
//         log is better written with `noThrow`.
ORUQUARN_API void fileWrite( Platform::DebugHandler& handler, char const* path,
                             std::string_view data, bool noThrow );

// The bytes of the file up to the first NUL, empty when it cannot be read. At level 5 the trace
// shows them. With `traceFailure` a file that cannot be opened or read is traced too.
ORUQUARN_API String fileRead( Platform::DebugHandler& handler, char const* path,
                              bool traceFailure );

// Whether something is there under this path, behind symbolic links, and can be looked at.
ORUQUARN_API bool fileExists( Platform::DebugHandler& handler, char const* path );

// Unlinks the file. Returns true when it is gone, also when it was not there.
ORUQUARN_API bool fileRemove( Platform::DebugHandler& handler, char const* path );

// Size in bytes of the file, 0 when it cannot be looked at.
ORUQUARN_API unsigned long fileSize( Platform::DebugHandler& handler, char const* path );
ORUQUARN_API unsigned long fileSize( Platform::DebugHandler& handler, int fd );

// Cuts or extends the open file `fd` to `length` bytes and returns what `ftruncate` does; `path`
// is only for the trace.
ORUQUARN_API int truncate( Platform::DebugHandler& handler, char const* path, int fd,
                           unsigned long length );

// `entries` times `entrySize` plus `extra`: the size of a file of records behind a header.
//
// Errors: `RuntimeException` when that needs more than 64 bits.
ORUQUARN_API unsigned long fileSizeHelper( unsigned long entries, unsigned long entrySize,
                                           unsigned long extra );

// The current directory.
//
// Errors: `RuntimeException` when it has none (it was removed) or its path is longer than 4095
// bytes.
ORUQUARN_API String getCwd( Platform::DebugHandler& handler );

} // namespace Quarn::Util
