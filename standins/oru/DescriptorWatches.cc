#include "DescriptorWatches.h"

#include "Held.h"

#include <Oru/Trace.h>

#include <string>
#include <utility>

namespace Oru {

namespace {

constexpr char sourceFile[] = "DescriptorWatches";

void traceNotOpen( String const& name, int fd ) {
   // Never destroyed, as descriptors may be watched while statics are.
   static TraceHandle const& handle = *new TraceHandle( "Activity", true );
   if( handle.facility()->levelEnabled( 0 ) ) {
      formatAndWriteTraceString( handle.facilityName(), sourceFile, __LINE__, __func__,
                                 "descriptor " + std::to_string( fd ) + " of '" + name +
                                       "' is not open; not watched until it is set again",
                                 0 );
   }
}

short eventsOf( FileDescriptor const& object ) {
   return static_cast<short>( ( object.notifyOnReadable() ? POLLIN : 0 ) |
                              ( object.notifyOnWritable() ? POLLOUT : 0 ) );
}

} // namespace

DescriptorWatches::PollSet& DescriptorWatches::current( unsigned depth ) {
   while( sets_.size() <= depth ) {
      sets_.emplace_back();
   }
   PollSet& set = sets_[ depth ];
   if( isCurrent( set ) ) {
      return set;
   }
   set.version = 0; // stays stale when there is no memory
   set.entries.clear();
   set.objects.clear();
   for( FileDescriptor& object : watched_ ) {
      set.entries.push_back( { object.descriptor(), eventsOf( object ), 0 } );
      set.objects.push_back( &object );
   }
   set.version = version_;
   return set;
}

void DescriptorWatches::update( FileDescriptor& object ) noexcept {
   if( object.descriptor() < 0 || object.notOpen_ || eventsOf( object ) == 0 ) {
      end( object );
      return;
   }
   if( !object.watchHook_.is_linked() ) {
      watched_.push_back( object );
   }
   ++version_;
}

void DescriptorWatches::end( FileDescriptor& object ) noexcept {
   object.readyHook_.unlink();
   if( object.watchHook_.is_linked() ) {
      object.watchHook_.unlink();
      ++version_;
   }
}

void DescriptorWatches::collect( PollSet const& set ) {
   for( std::size_t i = 0; i < set.entries.size(); ++i ) {
      pollfd const& entry = set.entries[ i ];
      if( entry.revents == 0 ) {
         continue;
      }
      FileDescriptor& object = *set.objects[ i ];
      if( ( entry.revents & POLLNVAL ) != 0 ) {
         // Ends watches but destroys nothing, so the rest of the set may still be looked at.
         object.notOpen_ = true;
         end( object );
         if( !std::exchange( object.notOpenTraced_, true ) ) {
            traceNotOpen( object.name(), object.descriptor() );
         }
         // Whoever waits to write meets the error there, and can deal with it.
         object.readable_ = false;
         object.writable_ = object.notifyOnWritable();
         ready_.push_back( object );
         continue;
      }
      object.readable_ =
            object.notifyOnReadable() && ( entry.revents & ( POLLIN | POLLHUP | POLLERR ) ) != 0;
      object.writable_ =
            object.notifyOnWritable() && ( entry.revents & ( POLLOUT | POLLHUP | POLLERR ) ) != 0;
      ready_.push_back( object );
   }
}

// The object stays at the front for its second notification, so that whatever the first one does to
// it (another descriptor, its end, a nested run) takes it out like any other.
bool DescriptorWatches::serveOne() {
   while( !ready_.empty() ) {
      FileDescriptor& object = ready_.front();
      Ptr<FileDescriptor> const hold = held( object );
      if( std::exchange( object.readable_, false ) && object.notifyOnReadable_ ) {
         std::uint32_t const count = ++object.readableCount_;
         object.notify( FileDescriptor::readableAttribute, &count );
         return true;
      }
      if( std::exchange( object.writable_, false ) && object.notifyOnWritable_ ) {
         std::uint32_t const count = ++object.writableCount_;
         object.notify( FileDescriptor::writableAttribute, &count );
         return true;
      }
      ready_.pop_front();
   }
   return false;
}

} // namespace Oru
