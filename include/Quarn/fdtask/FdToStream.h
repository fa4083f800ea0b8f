// A standard output stream onto a descriptor.
//
//     Quarn::FdToStream out( fd, false );
//     root->statsRenderTextForDebug( out );
//     if( !out.flush() ) { ... the reader is gone, or the disk is full
//
// A write waits for as long as the reader takes: it goes on after a signal has interrupted it, and
// after the descriptor has taken a part. That is why the descriptor must be a blocking one; to
// write without ever blocking is for a descriptor task.

#pragma once

#include <Quarn/Export.h>

#include <memory>
#include <ostream>

namespace Quarn {

// Output is buffered, 4096 bytes of it.
//
// Errors: those of a write set the stream's bad bit, a reader that is gone among them: SIGPIPE is
//         not raised. What the stream holds then is kept, and goes out from where it stopped when
//         the state is cleared and the next flush succeeds. The destructor flushes too, and has no
//         way to tell of an error.
// Thread: any, one at a time.
class ORUQUARN_API FdToStream : public std::ostream {
 public:
   // Ownership: with `closeOnDestroy` the descriptor passes to the stream, which closes it, also
   //            when this constructor fails. Without, it stays the caller's and open.
   // Errors:    fatal for a descriptor in non-blocking mode, and for one whose flags cannot be read
   //            ("FileDescriptor ... is non-blocking, not supported").
   FdToStream( int fd, bool closeOnDestroy );

   // Writes what is buffered, and closes the descriptor when it is the stream's.
   ~FdToStream() override;

 private:
   class Buffer;

   std::unique_ptr<Buffer> buffer_;
};

} // namespace Quarn
