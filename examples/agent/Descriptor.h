// A file descriptor that closes itself.

#pragma once

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace HostAgent {

class Descriptor {
 public:
   // Takes over `fd`; a negative number, as system calls return for a failure, is no descriptor.
   explicit Descriptor( int fd ) : fd_( fd ) {}

   // Closes without touching errno.
   ~Descriptor() {
      if( fd_ >= 0 ) {
         const int error = errno;
         close( fd_ );
         errno = error;
      }
   }

   Descriptor( const Descriptor& ) = delete;
   Descriptor& operator=( const Descriptor& ) = delete;

   bool valid() const { return fd_ >= 0; }
   int get() const { return fd_; }

 private:
   int fd_;
};

} // namespace HostAgent
