// Writes a document piece by piece onto a descriptor, without blocking.

#pragma once

#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/scheduler/TaskScheduler.h>

#include <cstdint>
#include <functional>

namespace Quarn {

// `completion` is called when a piece is written, or cannot be because the reader is gone. The
// descriptor is not the task's own.
class TaskScheduler::SnapshotWriteJsonTask final : public FileDescriptorTask {
 public:
   SnapshotWriteJsonTask( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                          String name, int fd, std::function<void()> completion );

   // Errors: fatal while an earlier piece is not written, and for one of 4 GiB and more.
   void bufferIs( String buffer );
   void assertWriteComplete() const;

 private:
   void taskExecuteReadable() override;
   void taskExecuteWritable() override;
   bool _writeSome();
   bool _writeFailed( int error );
   void _complete();
   std::uint32_t _left() const { return static_cast<std::uint32_t>( buffer_.size() ) - offset_; }

   String buffer_;
   std::uint32_t offset_ = 0;
   std::function<void()> completion_;
};

} // namespace Quarn
