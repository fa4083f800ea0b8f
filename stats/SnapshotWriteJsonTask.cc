#include "stats/SnapshotWriteJsonTask.h"

#include <Quarn/base/Exception.h>

#include "debug/Handlers.h"

#include <Oru/GuardedWrite.h>

#include <cerrno>
#include <limits>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

TaskScheduler::SnapshotWriteJsonTask::SnapshotWriteJsonTask(
      std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name, int fd,
      std::function<void()> completion )
      : FileDescriptorTask( std::move( scheduler ), priority, std::move( name ) ),
        completion_( std::move( completion ) ) {
   // The end of a pipe whose reader is gone is reported readable, again and again.
   taskWatchReadableIs( false );
   taskWatchFdIs( fd );
}

void TaskScheduler::SnapshotWriteJsonTask::assertWriteComplete() const {
   if( offset_ != buffer_.size() ) {
      QUARN_STREAM_FAIL( "Previous write not complete, at offset " << offset_ << " of "
                                                                   << buffer_.size() );
   }
}

void TaskScheduler::SnapshotWriteJsonTask::bufferIs( String buffer ) {
   assertWriteComplete();
   if( buffer.size() > std::numeric_limits<std::uint32_t>::max() ) {
      QUARN_STREAM_FAIL( "Write of " << buffer.size() << " bytes is too large" );
   }
   buffer_ = std::move( buffer );
   offset_ = 0;
   QUARN_TRACE_AS( taskSchedulerHandler, 3, "SnapshotRenderJsonTask", "writeOstrToFileDescriptor",
                   "Request write to fd {} of {} bytes", taskWatchFd(), buffer_.size() );
   taskWatchWritableIs( true );
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteReadable() {
   QUARN_STREAM_FAIL( "We never register for readable events" );
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteWritable() {
   while( offset_ != buffer_.size() ) {
      if( offset_ > buffer_.size() ) {
         QUARN_STREAM_FAIL( "invalid offset " << offset_ << " size " << buffer_.size() );
      }
      if( !_writeSome() ) {
         return;
      }
   }
   QUARN_TRACE( taskSchedulerHandler, 3, "SnapshotWriteJsonTask", "Completed writing to fd {}",
                taskWatchFd() );
   _complete();
}

void TaskScheduler::SnapshotWriteJsonTask::_complete() {
   assertWriteComplete();
   taskWorkPendingWritableIs( 0 );
   buffer_ = String();
   offset_ = 0;
   completion_();
}

// Whether to go on in this run.
bool TaskScheduler::SnapshotWriteJsonTask::_writeSome() {
   const int fd = taskWatchFd();
   const ssize_t written = Oru::guardedWrite( fd, buffer_.data() + offset_, _left() );
   if( written < 0 ) {
      return _writeFailed( static_cast<int>( -written ) );
   }
   if( written == 0 ) {
      QUARN_TRACE_AS( taskSchedulerHandler, 3, "SnapshotWriteJsonTask", "taskExecuteWritable",
                      "Writing to fd {} at offset {} of {} got {}", fd, offset_, buffer_.size(),
                      "nothing written" );
      taskWorkPendingWritableIs( _left() );
      scheduleTaskWritable();
      return false;
   }
   const bool yielding = taskShouldYield();
   QUARN_TRACE_AS( taskSchedulerHandler, 3, "SnapshotWriteJsonTask", "taskExecuteWritable",
                   "Writing to fd {} at offset {} of {} wrote {} bytes of {} remaining{}", fd,
                   offset_, buffer_.size(), written, _left(), yielding ? " yielding" : "" );
   offset_ += static_cast<std::uint32_t>( written );
   taskWorkCountWritableInc( static_cast<unsigned long>( written ) );
   if( yielding ) {
      taskWorkPendingWritableIs( _left() );
      scheduleTaskWritable();
   }
   return !yielding;
}

bool TaskScheduler::SnapshotWriteJsonTask::_writeFailed( int error ) {
   const int fd = taskWatchFd();
   if( error == EAGAIN || error == EINTR ) {
      QUARN_TRACE_AS( taskSchedulerHandler, 3, "SnapshotWriteJsonTask", "taskExecuteWritable",
                      "Writing to fd {} at offset {} of {} got {}", fd, offset_, buffer_.size(),
                      strerror( error ) );
      taskWorkPendingWritableIs( _left() );
      if( error == EAGAIN ) {
         taskWatchWritableIs( true );
      } else {
         scheduleTaskWritable();
      }
      return false;
   }
   const std::uint32_t failedAt = std::exchange( offset_, offset_ + _left() );
   if( error == EBADF || error == EPIPE ) {
      QUARN_TRACE_AS( taskSchedulerHandler, 2, "SnapshotWriteJsonTask", "taskExecuteWritable",
                      "Writing to fd {} at offset {} of {} failed {}", fd, failedAt, buffer_.size(),
                      strerror( error ) );
      return true;
   }
   // Once the assertion leaves, the document goes on to its end, where the descriptor is closed.
   struct Completion {
      ~Completion() {
         try {
            task._complete();
         } catch( ... ) {
            // One exception is under way already.
            QUARN_TRACE_AS( taskSchedulerHandler, 0, "SnapshotWriteJsonTask", "taskExecuteWritable",
                            "a busy callback throws while the write to fd {} fails",
                            task.taskWatchFd() );
         }
      }
      SnapshotWriteJsonTask& task;
   };
   [[maybe_unused]] const Completion completion{ *this };
   QUARN_STREAM_FAIL_AS( "taskExecuteWritable", "Write to fd " << fd << " failed "
                                                               << strerror( error ) << "(" << error
                                                               << ")" );
   return false;
}

} // namespace Quarn
