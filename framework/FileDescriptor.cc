#include <OruQuarn/FileDescriptor.h>

#include <Quarn/base/Exception.h>

#include "debug/Handlers.h"
#include "platform/ThreadEnd.h"

namespace OruQuarn {

using Quarn::Platform::oruQuarnHandler;

namespace {

constexpr char sourceFile[] = "FileDescriptor";

} // namespace

FileDescriptor::FileDescriptor( Quarn::Platform::FdEventHandler* handler ) : handler_( handler ) {
   if( !handler ) {
      QUARN_FAIL( "FileDescriptor", "handler is null" );
   }
   descriptor_ = new Oru::FileDescriptor( "PlatformFd" );
   notifiee_ = new Notifiee( *this );
   notifiee_->notifierIs( descriptor_ );
   notifiee_->isRegisteredNotifieeIs( true );
   QUARN_TRACE( oruQuarnHandler, 5, "FileDescriptor", "done, ref:{}", notifiee_->references() );
}

FileDescriptor::~FileDescriptor() {
   QUARN_TRACE_AS( oruQuarnHandler, 5, "FileDescriptor", "orphan", "fd:{}",
                   descriptor_->descriptor() );
   // Before all else, so that no notification finds a control that is half gone.
   notifiee_->owner_ = nullptr;
   FileDescriptor::delFd();
   notifiee_ = nullptr;
   descriptor_ = nullptr;
}

void FileDescriptor::setReads( bool watch ) {
   QUARN_TRACE( oruQuarnHandler, 5, "FileDescriptor", "{}", watch );
   descriptor_->notifyOnReadableIs( watch );
}

void FileDescriptor::setWrites( bool watch ) {
   QUARN_TRACE( oruQuarnHandler, 5, "FileDescriptor", "{}", watch );
   descriptor_->notifyOnWritableIs( watch );
}

void FileDescriptor::setFd( int fd ) {
   QUARN_TRACE( oruQuarnHandler, 5, "FileDescriptor", "registering fd:{}", fd );
   descriptor_->nonBlockingIs( true );
   try {
      descriptor_->descriptorIs( fd );
   } catch( const Quarn::AssertException& e ) {
      // The watch on an earlier descriptor goes with the failure, as in the libevent flavour.
      clearEvents();
      QUARN_FAIL( "FileDescriptor", "{}", e.what() );
   }
   notifiee_->fd_ = fd;
}

void FileDescriptor::clearEvents() {
   QUARN_TRACE( oruQuarnHandler, 5, "FileDescriptor", "fd:{}", descriptor_->descriptor() );
   descriptor_->descriptorIs( -1 );
}

void FileDescriptor::delFd() {
   QUARN_TRACE( oruQuarnHandler, 5, "FileDescriptor", "deleting fd:{}", descriptor_->descriptor() );
   FileDescriptor::clearEvents();
}

int FileDescriptor::getFd() const { return descriptor_->descriptor(); }

// --------------------------------------------------------------------------------- notifications

FileDescriptor::Notifiee::Notifiee( FileDescriptor& owner )
      : owner_( &owner ),
        fd_( owner.descriptor_->descriptor() ) {}

FileDescriptor::Notifiee::~Notifiee() {
   QUARN_TRACE_AS( oruQuarnHandler, 5, "FileDescriptor", "~Notifiee", "fd:{}", fd_ );
}

void FileDescriptor::Notifiee::onAttribute( Oru::AttributeId id, void const* value ) {
   // The handler may destroy the control, which lets go of this.
   const Oru::Ptr<Notifiee> hold = this;
   switch( id ) {
   case Oru::FileDescriptor::readableAttribute:
      _onReadableCount();
      break;
   case Oru::FileDescriptor::writableAttribute:
      _onWritableCount();
      break;
   default:
      NotifieeConst::onAttribute( id, value );
   }
}

void FileDescriptor::Notifiee::_onReadableCount() {
   if( !owner_ ) {
      QUARN_TRACE_AS( oruQuarnHandler, 5, "FileDescriptor", "onReadableCount",
                      "fd:{} ignoring orphan", fd_ );
      return;
   }
   const std::uint32_t count = owner_->descriptor_->readableCount();
   QUARN_TRACE_AS( oruQuarnHandler, 5, "FileDescriptor", "onReadableCount",
                   "fd:{} readableCount:{}", fd_, count );
   if( count == owner_->readableCount_ ) {
      return;
   }
   owner_->readableCount_ = count;
   _callHandler(
         []( Quarn::Platform::FdEventHandler& handler, int fd ) { handler.readFdEvent( fd ); } );
}

void FileDescriptor::Notifiee::_onWritableCount() {
   if( !owner_ ) {
      QUARN_TRACE_AS( oruQuarnHandler, 5, "FileDescriptor", "onWritableCount",
                      "fd:{} ignoring orphan", fd_ );
      return;
   }
   const std::uint32_t count = owner_->descriptor_->writableCount();
   QUARN_TRACE_AS( oruQuarnHandler, 5, "FileDescriptor", "onWritableCount",
                   "fd:{} writableCount:{}", fd_, count );
   if( count == owner_->writableCount_ ) {
      return;
   }
   // One notification for each request. Off before the call, in which the handler may ask again.
   owner_->setWrites( false );
   owner_->writableCount_ = count;
   _callHandler(
         []( Quarn::Platform::FdEventHandler& handler, int fd ) { handler.writeFdEvent( fd ); } );
}

// After a normal return nothing of the control or its handler is touched: they may be gone.
template<typename Call>
void FileDescriptor::Notifiee::_callHandler( Call call ) {
   Quarn::Platform::FdEventHandler& handler = *owner_->handler_;
   try {
      call( handler, owner_->getFd() );
   } catch( ... ) {
      // Without its control the handler may be gone too, and is not asked.
      if( Quarn::threadEnds() || !owner_ || !handler.handleFdException( fd_ ) ) {
         throw;
      }
      QUARN_TRACE_AS( oruQuarnHandler, 9, "FileDescriptor", "onAttribute",
                      "Fd notification exception was handled" );
   }
}

} // namespace OruQuarn
