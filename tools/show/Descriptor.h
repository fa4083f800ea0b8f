// A file descriptor that closes itself.

#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace Show {

class Descriptor {
 public:
   Descriptor() = default;

   // Takes over `fd`; a negative number, as system calls return for a failure, is no descriptor.
   explicit Descriptor( int fd ) : fd_( fd ) {}

   Descriptor( Descriptor&& other ) noexcept : fd_( other.release() ) {}
   Descriptor& operator=( Descriptor&& other ) noexcept {
      if( this != &other ) {
         reset();
         fd_ = other.release();
      }
      return *this;
   }

   ~Descriptor() { reset(); }

   bool valid() const { return fd_ >= 0; }
   int get() const { return fd_; }

   // Gives the descriptor away.
   int release() { return std::exchange( fd_, -1 ); }

   // Closes without touching errno.
   void reset() {
      if( const int fd = release(); fd >= 0 ) {
         const int error = errno;
         close( fd );
         errno = error;
      }
   }

 private:
   int fd_ = -1;
};

// A standard descriptor that the caller left closed would be given to the next file opened, which
// would then receive what is printed. Writing to these stand-ins fails instead. To be called first
// of all.
inline void reserveStandardDescriptors() {
   for( int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd ) {
      if( fcntl( fd, F_GETFD ) < 0 ) {
         // The lowest free number is taken, which is this one.
         (void)open( "/dev/null", O_RDONLY );
      }
   }
}

} // namespace Show
