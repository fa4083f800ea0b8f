// Sockets in the system's default network namespace, and local sockets bound by an abstract name.
//
// A process may run in a network namespace of its own, while tools outside of it are to reach its
// control sockets:
//
//     int sd = Quarn::Util::createAndBindSocket( handler, "my-agent" );   // "@my-agent" in ss(8)
//     listen( sd, 5 );
//
// The peer asks `createSockaddr` for the same address and gives it to connect(2).
//
// Traces are at level 2 of the caller's handler. Descriptors that are returned belong to the caller
// and stay open across exec(2) unless `type` holds SOCK_CLOEXEC. After a failure that is returned,
// `errno` is that of the call that failed.
//
// Thread: any. A network namespace belongs to a thread, so no other thread notices the switch.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/debug/DebugHandler.h>

namespace Quarn::Util {

// Makes a socket in the default network namespace and brings the thread back to its own. Where the
// system has no such namespaces, or the switch is refused (it takes CAP_SYS_ADMIN in the namespace
// and where the thread comes from), the socket is made where the thread is. The arguments are those
// of socket(2).
//
// The result is the descriptor, or -1 when there is no socket.
//
// Errors: RuntimeException, with no socket left open, when the thread could not be brought back, in
//         which case it is in the default namespace, or when the namespace's file was not closed
//         cleanly.
ORUQUARN_API int socket( Platform::DebugHandler& handler, int domain, int type, int protocol );

// Fills in the address of a local socket with an abstract name. `address` has room for a
// `sockaddr_un` of 110 bytes. The name may hold NUL bytes, and only its first 107 bytes count.
//
// The result is the length to give to bind(2) or connect(2): 3 and the bytes of the name. It ends
// the name, so "a" and "a\0" are two names; the empty name is that of a single NUL byte.
ORUQUARN_API unsigned int createSockaddr( Platform::DebugHandler& handler, void* address,
                                          const String& name );

// A local socket of records (SOCK_SEQPACKET), made by `socket` and bound to that abstract name; it
// does not listen yet. The result is the descriptor.
//
// Errors: RuntimeException when the name is taken, or in the ways of `socket`. Fatal when there is
//         no socket to be had. No descriptor stays open.
ORUQUARN_API int createAndBindSocket( Platform::DebugHandler& handler, const String& name );

// The most bytes that the system grants a socket's send buffer, 8 MiB where it does not say. It is
// read once in a process.
//
// Errors: fatal when what the system says is no number ("unable to convert string ..."), or cannot
//         be read.
ORUQUARN_API unsigned int SYSTEM_MAX_SEND_BUFFER_SIZE();

// Sets the bytes of a socket's send buffer, and gives 0. The system grants no more than
// `SYSTEM_MAX_SEND_BUFFER_SIZE()`, silently.
//
// Errors: fatal when `sd` is no socket or `size` is not above 0.
ORUQUARN_API int setSocketSendBufferSize( int sd, int size );

} // namespace Quarn::Util
