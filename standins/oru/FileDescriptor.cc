#include <Oru/FileDescriptor.h>

#include "DescriptorWatches.h"

#include <Oru/ActivityManager.h>

#include <Quarn/base/Exception.h>

#include <cerrno>
#include <fcntl.h>
#include <string>

namespace Oru {

namespace {

void setNonBlocking( String const& name, int fd ) {
   int const flags = fcntl( fd, F_GETFL );
   if( flags < 0 || fcntl( fd, F_SETFL, flags | O_NONBLOCK ) < 0 ) {
      int const error = errno;
      Quarn::AssertException::throwException(
            "descriptor " + std::to_string( fd ) + " of '" + name +
            "' cannot be made non-blocking: " + Quarn::strerror( error ) );
   }
}

} // namespace

FileDescriptor::FileDescriptor( String const& name )
      : name_( name ),
        watches_( *ActivityManager::instance()->watches_ ) {}

FileDescriptor::~FileDescriptor() { watches_.end( *this ); }

void FileDescriptor::descriptorIs( int fd ) {
   if( nonBlocking_ && fd >= 0 ) {
      setNonBlocking( name_, fd );
   }
   // Also for the same number, which may stand for another file by now.
   watches_.end( *this );
   descriptor_ = fd;
   notOpen_ = false;
   notOpenTraced_ = false;
   watches_.update( *this );
}

void FileDescriptor::nonBlockingIs( bool on ) {
   if( on && !nonBlocking_ && descriptor_ >= 0 ) {
      setNonBlocking( name_, descriptor_ );
   }
   nonBlocking_ = on;
}

void FileDescriptor::notifyOnReadableIs( bool on ) {
   if( on != notifyOnReadable_ ) {
      notifyOnReadable_ = on;
      if( on ) {
         notOpen_ = false;
      }
      watches_.update( *this );
   }
}

void FileDescriptor::notifyOnWritableIs( bool on ) {
   if( on != notifyOnWritable_ ) {
      notifyOnWritable_ = on;
      if( on ) {
         notOpen_ = false;
      }
      watches_.update( *this );
   }
}

} // namespace Oru
