// A descriptor watched by the activity loop.
//
//     Oru::Ptr<Oru::FileDescriptor> link = new Oru::FileDescriptor( "Link" );
//     watch->notifierIs( link );        // onAttribute( readableAttribute, ... )
//     link->nonBlockingIs( true );
//     link->descriptorIs( fd );
//
// Watching is level-triggered: while the descriptor is readable (writable), each turn of the loop
// counts once more and notifies. Nothing is kept in the kernel, so a descriptor may be closed,
// reused or inherited through fork() at any time; regular files are always ready, as poll(2) says.
//
// Thread: that of the activity loop.

#pragma once

#include <Oru/Allocator.h>
#include <Oru/Export.h>
#include <Oru/Ptr.h>

#include <boost/intrusive/list_hook.hpp>

#include <cstdint>

namespace Oru {

class DescriptorWatches;

class ORU_API FileDescriptor : public PtrInterface, public Allocated<FileDescriptor> {
 public:
   // What notifiees hear; the value is the count, a std::uint32_t.
   static constexpr AttributeId readableAttribute = 259;
   static constexpr AttributeId writableAttribute = 260;

   // Watches nothing yet. The name is for traces.
   explicit FileDescriptor( String const& name );
   ~FileDescriptor() override;

   String name() const { return name_; }

   // The descriptor to watch, -1 for none. Not owned: it is neither closed nor otherwise touched,
   // but for the non-blocking mode. Setting the same number again looks at it afresh, behind the
   // others: what the loop found out about the one before is not notified any more.
   //
   // A number that turns out to be no open descriptor is traced once (facility Activity, level 0),
   // notified as writable where that is looked for, so that the writer meets the error, and then
   // not watched until this is called again or one of the two is asked for anew.
   //
   // Errors: Quarn::AssertException when the mode cannot be set, with the descriptor of before.
   void descriptorIs( int fd );
   int descriptor() const { return descriptor_; }

   // Whether descriptors are put into non-blocking mode: the present one at once, later ones when
   // they are set. False leaves their mode as it is. Starts false.
   void nonBlockingIs( bool on );
   bool nonBlocking() const { return nonBlocking_; }

   // Whether readiness is looked for; starts true for reading and false for writing. A hang-up or
   // an error of the descriptor is readable and writable, whichever is looked for.
   void notifyOnReadableIs( bool on );
   bool notifyOnReadable() const { return notifyOnReadable_; }
   void notifyOnWritableIs( bool on );
   bool notifyOnWritable() const { return notifyOnWritable_; }

   // How often it was found ready, modulo 2^32; the first time makes 1. The counts go on when the
   // descriptor changes.
   std::uint32_t readableCount() const { return readableCount_; }
   std::uint32_t writableCount() const { return writableCount_; }

 private:
   friend class DescriptorWatches;
   using Hook = boost::intrusive::list_member_hook<
         boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

   String const name_;
   DescriptorWatches& watches_;
   Hook watchHook_; // linked while it is watched
   Hook readyHook_; // linked from the poll to the last notification of the turn
   int descriptor_ = -1;
   bool notOpen_ = false; // as the poll said of this descriptor
   bool notOpenTraced_ = false;
   // What is left to notify in this turn.
   bool readable_ = false;
   bool writable_ = false;
   bool nonBlocking_ = false;
   bool notifyOnReadable_ = true;
   bool notifyOnWritable_ = false;
   std::uint32_t readableCount_ = 0;
   std::uint32_t writableCount_ = 0;
};

} // namespace Oru
