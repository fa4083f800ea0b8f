#include "support/TraceCapture.h"

#include <cstdio>

#include <sys/mman.h>
#include <unistd.h>

namespace testing_support {

TraceCapture::TraceCapture()
      : file_( memfd_create( "stderr", MFD_CLOEXEC ) ),
        saved_( dup( STDERR_FILENO ) ) {
   std::fflush( stderr );
   dup2( file_, STDERR_FILENO );
}

TraceCapture::~TraceCapture() {
   std::fflush( stderr );
   dup2( saved_, STDERR_FILENO );
   close( saved_ );
   close( file_ );
}

std::string TraceCapture::text() const {
   std::fflush( stderr );
   std::string all( static_cast<std::size_t>( lseek( file_, 0, SEEK_END ) ), '\0' );
   const ssize_t got = pread( file_, all.data(), all.size(), 0 );
   all.resize( got < 0 ? 0 : static_cast<std::size_t>( got ) );
   return all;
}

unsigned TraceCapture::count( const std::string& needle ) const {
   const std::string all = text();
   unsigned n = 0;
   for( std::size_t at = all.find( needle ); at != std::string::npos;
        at = all.find( needle, at + needle.size() ) ) {
      ++n;
   }
   return n;
}

} // namespace testing_support
