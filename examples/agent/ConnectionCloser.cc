#include "examples/agent/ConnectionCloser.h"

#include <cerrno>
#include <limits>
#include <new>
#include <semaphore>
#include <system_error>
#include <thread>
#include <utility>

#include <linux/close_range.h>
#include <unistd.h>

namespace HostAgent {

namespace {

// More than a server has at a time. Those beyond stay open, like the ones that are kept at the end.
constexpr std::size_t keptMax = 64;

// Gives the calling thread a table of descriptors of its own, with this one in it and no other.
bool descriptorTableIs( unsigned fd ) {
   return close_range( fd + 1, std::numeric_limits<unsigned>::max(), CLOSE_RANGE_UNSHARE ) == 0 &&
          ( fd == 0 || close_range( 0, fd - 1, 0 ) == 0 );
}

// Whether it is closed; else it is as it was, and errno is set.
bool closeApart( Show::Descriptor& connection ) noexcept {
   std::binary_semaphore taken( 0 );
   std::binary_semaphore closedHere( 0 );
   int error = 0;
   try {
      std::thread last( [ & ] {
         error = descriptorTableIs( static_cast<unsigned>( connection.get() ) ) ? 0 : errno;
         taken.release();
         closedHere.acquire();
      } );
      taken.acquire();
      if( error == 0 ) {
         // Not the last one, so this does not wait.
         connection.reset();
      }
      closedHere.release();
      // Does not wait for the kernel to close what the thread had.
      last.join();
   } catch( const std::system_error& failure ) {
      error = failure.code().value();
   } catch( const std::bad_alloc& ) {
      error = ENOMEM;
   }
   errno = error;
   return error == 0;
}

} // namespace

ConnectionCloser::ConnectionCloser() { kept_.reserve( keptMax ); }

// The end of the process does not linger either.
ConnectionCloser::~ConnectionCloser() {
   for( Show::Descriptor& connection : kept_ ) {
      connection.release();
   }
}

void ConnectionCloser::close( Show::Descriptor connection ) noexcept {
   if( !connection.valid() || closeApart( connection ) ) {
      return;
   }
   if( kept_.size() < keptMax ) {
      kept_.push_back( std::move( connection ) );
   } else {
      connection.release();
   }
}

bool ConnectionCloser::retry() noexcept {
   while( !kept_.empty() && closeApart( kept_.back() ) ) {
      kept_.pop_back();
   }
   return kept_.empty();
}

} // namespace HostAgent
