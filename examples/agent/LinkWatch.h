// The descriptor task that listens to the kernel's news about network interfaces.

#pragma once

#include "examples/agent/EventLog.h"
#include "examples/agent/LinkTable.h"

#include "tools/show/Descriptor.h"

#include <Quarn/Debug.h>
#include <Quarn/Task.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace HostAgent {

// Asks for the list of all links when it is made, and again whenever the kernel had to drop news
// because nobody read them in time.
class LinkWatch final : public Quarn::FileDescriptorTask {
 public:
   // Adds what happens to `log`, which must outlive this task.
   //
   // Errors: none thrown. Where the socket is refused nothing is watched, and `refusal()` says why.
   LinkWatch( std::shared_ptr<Quarn::TaskScheduler> scheduler, EventLog* log );
   ~LinkWatch() override;

   // Leaves the loop: nothing is received any more.
   void stop() { taskWatchFdDel(); }

   // Why nothing is watched, empty while all is well.
   const std::string& refusal() const { return refusal_; }

   const LinkTable& links() const { return links_; }

   // How often the kernel dropped news, and parts that were not the format.
   std::uint64_t overruns() const { return overruns_; }
   std::uint64_t malformed() const { return malformed_; }

 private:
   enum class Step { taken, empty, failed };

   void taskExecuteReadable() override;
   void taskExecuteWritable() override;
   bool _open();
   Step _readOne();
   void _take( const LinkMessage& message );
   void _listAsk();
   void _listEnd();
   void _refusedBy( int error );

   std::shared_ptr<Quarn::Platform::DebugHandler> debug_;
   Show::Descriptor socket_;
   EventLog* log_;
   LinkTable links_;
   std::string refusal_;
   // A list is on its way; it will be too old, or has a gap.
   bool listing_ = false;
   bool listAgain_ = false;
   std::uint64_t overruns_ = 0;
   std::uint64_t malformed_ = 0;
   // The kernel makes lists in pieces of up to this size.
   std::array<std::byte, 32768> buffer_;
};

} // namespace HostAgent
