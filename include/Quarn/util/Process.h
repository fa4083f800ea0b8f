// Facts about this process and others, read from /proc, and a few switches of the process.
//
// The readers give an empty text or 0 for what cannot be read (the process is gone, or belongs to
// somebody else) and trace why, with class "Quarn::Util", on the handler that the caller gives or,
// in the forms without one, on "QuarnUtil". A process can end, and its number be taken by another
// one, between the answer and its use; the start time tells such two apart.
//
// Thread: any, at any time.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/debug/DebugHandler.h>

namespace Quarn::Util {

// The first argument that the process was started with, by custom the path of its program, and no
// more of its command line. Empty for threads of the kernel and for zombies.
ORUQUARN_API String readPidCmdline( Platform::DebugHandler& handler, int pid );

// The name of the process (of its main thread), at most 15 bytes, with newlines and backslashes in
// it escaped by the kernel and white space around it removed. `pid` 0 is the caller.
//
// Failures are traced at level 1, or at level 5 when `quiet`; an empty name always at level 1.
ORUQUARN_API String readProcTitle( Platform::DebugHandler& handler, int pid, bool quiet );
ORUQUARN_API String readProcTitle( int pid, bool quiet );

// When the process started, in clock ticks since boot (`sysconf( _SC_CLK_TCK )` in a second), as
// decimal digits.
ORUQUARN_API String readProcStartTime( Platform::DebugHandler& handler, int pid );
ORUQUARN_API String readProcStartTime( int pid );

// A process that has the local socket `socketName` open; 0 when there is none. When several have,
// the first in the order of /proc, and the caller before all others.
//
// The name is looked for in the lines of /proc/net/unix, which shows an abstract name with "@" in
// place of its NUL bytes, and the first line that holds it anywhere is taken: a longer name may
// come first, a connection that waits for its accept(2) has the name too and gives 0, and a name
// with blanks in it gives 0 or a wrong process. Sockets of other network namespaces do not stand
// there. Of the process only the inode number is compared, which a file might share.
//
// Errors: fatal when /proc cannot be opened.
ORUQUARN_API int readSocketPid( Platform::DebugHandler& handler, const String& socketName );

// The mangled name of the dynamic type of an object in the process `otherPid`, given the pointer to
// its virtual table (the first eight bytes of the object). Looked up in this process's copy of the
// library that the table is in; nothing of the other process is read but its memory map.
//
// Only for processes that are trusted: the library that they have mapped there is loaded here when
// it is not already, which runs its constructors. It stays loaded. A pointer that is not one to a
// virtual table may give a wrong name. A class whose type information the linker has put elsewhere,
// as with one of a library that the program itself asks for by `typeid` or catches, has none.
//
// Ownership: the name is the library's and valid until the process ends.
// Errors:    null, with the reason in `error`, which is left alone on success.
ORUQUARN_API char const* typenameFromVptr( int otherPid, void const* vptr, String& error );

// Has core dumps of this process include shared mappings of files, from now on and for children.
//
// Does nothing but trace at level 1 when the setting cannot be opened or written.
// Errors: fatal when the setting cannot be read.
ORUQUARN_API void includeShmemInCore();

// Marks a place in the logs: one line with the process, the thread, the handler's name and `text`,
// as a trace at level 1 and, whatever is enabled, in the system log (local5, debug). In a child
// that was forked while another thread wrote to the system log, syslog(3) may wait for ever.
ORUQUARN_API void emitCanaryLog( Platform::DebugHandler& handler, const String& text );

// The eight bytes of `magic` as a text, the least significant first, up to the first that is 0.
ORUQUARN_API String decodeMagic( unsigned long magic );

// The address of a symbol in the program or in a library loaded with it, null when there is none.
//
// Errors: fatal when the program itself cannot be opened ("dlopen() failed ...").
ORUQUARN_API void* resolveSym( Platform::DebugHandler& handler, char const* symbol );

// Why the last `resolveSym` in this process, on whatever thread, found nothing; empty when it found
// something.
ORUQUARN_API String resolveSymError();

} // namespace Quarn::Util
