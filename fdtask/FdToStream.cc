#include <Quarn/fdtask/FdToStream.h>

#include "debug/Handlers.h"

#include <Oru/GuardedWrite.h>

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <cerrno>
#include <ios>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";
constexpr std::streamsize bufferSize = 4096;

// The sink of Boost tries each chunk once: a signal or a short write would lose the rest of it.
class Sink : public boost::iostreams::file_descriptor_sink {
 public:
   using file_descriptor_sink::file_descriptor_sink;

   std::streamsize write( char const* bytes, std::streamsize size ) {
      while( written_ < size ) {
         written_ += _writeSome( bytes + written_, static_cast<std::size_t>( size - written_ ) );
      }
      written_ = 0;
      return size;
   }

 private:
   std::streamsize _writeSome( char const* bytes, std::size_t size ) const {
      ssize_t n;
      do {
         n = Oru::guardedWrite( handle(), bytes, size );
      } while( n == -EINTR );
      if( n <= 0 ) {
         const int error = n == 0 ? EIO : static_cast<int>( -n );
         throw std::ios_base::failure( "failed writing",
                                       std::error_code( error, std::generic_category() ) );
      }
      return n;
   }

   // How much of the chunk at hand is out. After an exception the buffer keeps the chunk and brings
   // it again, with more behind it.
   std::streamsize written_ = 0;
};

// Copies share the descriptor; the last one closes it.
Sink sinkOnto( int fd, bool closeInTheEnd ) {
   using namespace boost::iostreams;
   try {
      return Sink( fd, closeInTheEnd ? close_handle : never_close_handle );
   } catch( ... ) {
      if( closeInTheEnd ) {
         close( fd );
      }
      throw;
   }
}

} // namespace

class FdToStream::Buffer final : public boost::iostreams::stream_buffer<Sink> {};

FdToStream::FdToStream( int fd, bool closeOnDestroy ) : std::ostream( nullptr ) {
   // Before the check and what wants more memory: a descriptor that passes to the stream is closed
   // if anything fails.
   const Sink sink = sinkOnto( fd, closeOnDestroy );
   buffer_ = std::make_unique<Buffer>();
   buffer_->open( sink, bufferSize );
   // No flags at all count as every flag.
   const int flags = fcntl( fd, F_GETFL );
   if( ( flags & O_NONBLOCK ) != 0 ) {
      QUARN_STREAM_FAIL( "FileDescriptor " << fd << " flags 0x" << std::hex << flags
                                           << " is non-blocking, not supported" );
   }
   rdbuf( buffer_.get() );
}

FdToStream::~FdToStream() = default;

} // namespace Quarn
