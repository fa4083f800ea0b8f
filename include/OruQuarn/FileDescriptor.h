// The descriptor control on a framework descriptor. What differs from the libevent flavour is told
// in `platform/Controls.h`.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>

#include <Oru/Allocator.h>
#include <Oru/FileDescriptor.h>
#include <Oru/Ptr.h>

#include <cstdint>

namespace OruQuarn {

// What `Platform::getFdControl` makes without thread-local singletons.
//
// Ownership: of its framework objects; the handler is held without ownership and outlives it.
// Thread:    that of the framework's loop.
class ORUQUARN_API FileDescriptor : public Quarn::Platform::FdControl {
 public:
   class Notifiee;

   // Errors: fatal when the handler is null.
   explicit FileDescriptor( Quarn::Platform::FdEventHandler* handler );
   ~FileDescriptor() override;

   FileDescriptor( const FileDescriptor& ) = delete;
   FileDescriptor& operator=( const FileDescriptor& ) = delete;

   void setReads( bool watch ) override;
   void setWrites( bool watch ) override;

   // Errors: fatal when the descriptor cannot be made non-blocking; none is watched then.
   void setFd( int fd ) override;
   void delFd() override;
   int getFd() const override;
   void clearEvents() override;

 private:
   Quarn::Platform::FdEventHandler* handler_;
   Oru::Ptr<Oru::FileDescriptor> descriptor_;
   Oru::Ptr<Notifiee> notifiee_;
   // A count that was seen before is not reported again.
   std::uint32_t readableCount_ = 0;
   std::uint32_t writableCount_ = 0;
};

// Turns the framework's counts into notifications of the handler. Knows its control until that is
// destroyed; the framework may hold it longer, and then it does nothing.
class ORUQUARN_API FileDescriptor::Notifiee final : public Oru::PtrInterface::NotifieeConst,
                                                    public Oru::Allocated<Notifiee> {
 public:
   explicit Notifiee( FileDescriptor& owner );
   ~Notifiee() override;

   void onAttribute( Oru::AttributeId id, void const* value ) override;

 private:
   friend class FileDescriptor;
   void _onReadableCount();
   void _onWritableCount();
   template<typename Call>
   void _callHandler( Call call );

   FileDescriptor* owner_;
   std::int32_t fd_;
};

} // namespace OruQuarn
