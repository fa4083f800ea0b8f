// Closes the connections of clients where a close that waits holds nobody up.
//
// A connection holds what was sent over it and not received, any descriptor among it, and the last
// close of some files waits: that of a socket with SO_LINGER for its peer, for as long as whoever
// sent it has said. So no connection is closed on the thread of the loop.

#pragma once

#include "tools/show/Descriptor.h"

#include <vector>

namespace HostAgent {

// Hands each connection to a thread that ends at once. The kernel closes what it had then, and does
// not linger for a thread that ends.
//
// Needs Linux 5.9.
//
// Thread: one at a time.
class ConnectionCloser {
 public:
   ConnectionCloser();
   // What is still there is left to the end of the process.
   ~ConnectionCloser();

   ConnectionCloser( const ConnectionCloser& ) = delete;
   ConnectionCloser& operator=( const ConnectionCloser& ) = delete;

   // Closes a connection, valid or not. It is kept when that cannot be done: when no thread is to
   // be had, for example.
   void close( Show::Descriptor connection ) noexcept;

   // Closes those that were kept. Whether none is left; errno says why one is.
   bool retry() noexcept;

 private:
   std::vector<Show::Descriptor> kept_;
};

} // namespace HostAgent
