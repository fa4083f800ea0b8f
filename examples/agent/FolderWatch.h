// The descriptor task that counts what happens to the entries of a folder.

#pragma once

#include "examples/agent/EventLog.h"
#include "examples/agent/FolderEvents.h"

#include "tools/show/Descriptor.h"

#include <Quarn/Task.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace HostAgent {

class FolderWatch final : public Quarn::FileDescriptorTask {
 public:
   // Adds what happens to `log`, which must outlive this task.
   //
   // Errors: `std::system_error` when the folder cannot be watched.
   FolderWatch( std::shared_ptr<Quarn::TaskScheduler> scheduler, const std::string& folder,
                EventLog* log );
   ~FolderWatch() override;

   // Leaves the loop: nothing is received any more.
   void stop() { taskWatchFdDel(); }

   std::uint64_t created() const { return created_; }
   std::uint64_t removed() const { return removed_; }
   std::uint64_t written() const { return written_; }

   // How often the kernel dropped events because nobody read them in time, and reads whose bytes
   // were not the format.
   std::uint64_t overruns() const { return overruns_; }
   std::uint64_t malformed() const { return malformed_; }

   // Whether nothing is watched any more, because the folder is gone or cannot be read.
   bool ended() const { return ended_; }

 private:
   void taskExecuteReadable() override;
   void taskExecuteWritable() override;
   void _take( const FolderEvent& event );
   void _end( char const* reason );

   EventLog* log_;
   Show::Descriptor inotify_;
   std::uint64_t created_ = 0;
   std::uint64_t removed_ = 0;
   std::uint64_t written_ = 0;
   std::uint64_t overruns_ = 0;
   std::uint64_t malformed_ = 0;
   bool ended_ = false;
   // Room for some events with the longest name, of 255 bytes.
   std::array<std::byte, 16384> buffer_;
};

} // namespace HostAgent
