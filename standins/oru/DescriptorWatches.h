// The descriptors that the activity loop watches, and those that are ready in the turn under way.

#pragma once

#include <Oru/FileDescriptor.h>

#include <boost/intrusive/list.hpp>

#include <cstdint>
#include <deque>
#include <poll.h>
#include <vector>

namespace Oru {

// Thread: that of the activity loop.
class DescriptorWatches {
 public:
   // What poll(2) is asked, kept from turn to turn.
   struct PollSet {
      std::vector<pollfd> entries;
      std::vector<FileDescriptor*> objects; // of each entry, valid while the set is current
      std::uint64_t version = 0;
   };

   bool empty() const noexcept { return watched_.empty(); }

   // The set of the run that is `depth` runs deep, brought up to date. It stays where it is.
   PollSet& current( unsigned depth );
   bool isCurrent( PollSet const& set ) const noexcept { return set.version == version_; }

   // Begins or ends the watch of an object whose descriptor or flags have changed.
   void update( FileDescriptor& object ) noexcept;

   // Ends the watch, and what is left of its turn.
   void end( FileDescriptor& object ) noexcept;

   // Takes over what poll(2) has written into a current set. Ends the watch of what is not open.
   void collect( PollSet const& set );

   // Calls the notifiees of the first that is ready, once; false when none is left.
   bool serveOne();

   // Nothing is ready any more; what is will be found again by the next poll.
   void drop() noexcept { ready_.clear(); }

 private:
   using List = boost::intrusive::constant_time_size<false>;
   using Watched =
         boost::intrusive::list<FileDescriptor,
                                boost::intrusive::member_hook<FileDescriptor, FileDescriptor::Hook,
                                                              &FileDescriptor::watchHook_>,
                                List>;
   using Ready =
         boost::intrusive::list<FileDescriptor,
                                boost::intrusive::member_hook<FileDescriptor, FileDescriptor::Hook,
                                                              &FileDescriptor::readyHook_>,
                                List>;

   Watched watched_; // in the order in which the watches began
   Ready ready_;
   // Of the watched objects, their descriptors and flags; a set of another version is stale.
   std::uint64_t version_ = 1;
   std::deque<PollSet> sets_; // by depth; a nested run must not move those in use
};

} // namespace Oru
