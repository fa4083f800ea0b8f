#include <Quarn/fdtask/FileDescriptorTask.h>

#include <Quarn/platform/Factories.h>
#include <Quarn/scheduler/Task.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "debug/Handlers.h"

#include <utility>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

// -------------------------------------------------------------------------------------- sub-tasks

class FileDescriptorTask::ReadWriteTaskBase : public Task {
 public:
   // The parent goes; a run that comes later does nothing.
   void parentGone() { parent_ = nullptr; }

   // The parent is busy while one of its sub-tasks is.
   void handleTaskBusy() override {
      if( parent_ ) {
         parent_->updateTaskBusy( taskTimeNow() );
      }
   }

 protected:
   ReadWriteTaskBase( FileDescriptorTask& parent, char const* suffix )
         : Task( parent.taskScheduler(), parent.taskPriority(), parent.taskName() + suffix ),
           parent_( &parent ) {
      if( parent.taskStatsName() != parent.taskName() ) {
         taskStatsNameIs( parent.taskStatsName() + suffix );
      }
   }

   // Not owned; the parent owns this.
   FileDescriptorTask* parent_;
};

// Marks which sub-task runs the user's code.
class FileDescriptorTask::ExecutingTask {
 public:
   ExecutingTask( FileDescriptorTask& parent, ReadWriteTaskBase& task, char const* function )
         : parent_( parent ) {
      if( parent_.executingTask_ ) {
         QUARN_FAIL_AS( "FileDescriptorTask", function, "Executing task already set" );
      }
      parent_.executingTask_ = &task;
   }
   ~ExecutingTask() { parent_.executingTask_ = nullptr; }
   ExecutingTask( const ExecutingTask& ) = delete;
   ExecutingTask& operator=( const ExecutingTask& ) = delete;

 private:
   FileDescriptorTask& parent_;
};

class FileDescriptorTask::ReadTask final : public ReadWriteTaskBase {
 public:
   explicit ReadTask( FileDescriptorTask& parent ) : ReadWriteTaskBase( parent, ":read" ) {}

   // All of its counters are those of any task.
   void handleResetStats() override { ReadWriteTaskBase::handleResetStats(); }

 private:
   void taskExecute() override {
      if( !parent_ ) {
         return;
      }
      FileDescriptorTask& parent = *parent_;
      // Goes last: the user's code may drop the parent, and this may be the last reference to it.
      const std::shared_ptr<_TaskBase> hold = parent.shared_from_this();
      if( !parent.watchReadable_ ) {
         QUARN_FAIL_AS( "FileDescriptorTask", "_taskExecuteReadable",
                        "ReadTask should only run if taskWatchReadable" );
      }
      const ExecutingTask executing( parent, *this, "_taskExecuteReadable" );
      try {
         parent._resumeReads();
      } catch( ... ) {
         // With neither a watch nor a run the task would be deaf.
         scheduleTask();
         throw;
      }
      parent.taskExecuteReadable();
   }
};

class FileDescriptorTask::WriteTask final : public ReadWriteTaskBase {
 public:
   explicit WriteTask( FileDescriptorTask& parent ) : ReadWriteTaskBase( parent, ":write" ) {}

 private:
   void taskExecute() override {
      if( !parent_ ) {
         return;
      }
      FileDescriptorTask& parent = *parent_;
      // Goes last, as above.
      const std::shared_ptr<_TaskBase> hold = parent.shared_from_this();
      // One notification for each request, like the event under it.
      try {
         parent.taskWatchWritableIs( false );
      } catch( ... ) {
         // The watch in the kernel is spent.
         scheduleTask();
         throw;
      }
      const ExecutingTask executing( parent, *this, "_taskExecuteWritable" );
      parent.taskExecuteWritable();
   }
};

// ------------------------------------------------------------------------------------------- life

FileDescriptorTask::FileDescriptorTask( std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, String name )
      : _TaskBase( std::move( scheduler ), priority, std::move( name ) ) {
   _initialize();
}

FileDescriptorTask::FileDescriptorTask( TaskScheduler* scheduler, TaskPriority priority,
                                        String name )
      : _TaskBase( scheduler ? scheduler->weak_from_this().lock() : nullptr, priority,
                   std::move( name ) ) {
   _initialize();
}

void FileDescriptorTask::_initialize() {
   if( !scheduler_ ) {
      QUARN_STREAM_FAIL( "Need a TaskScheduler" );
   }
   fdControl_ = Platform::getFdControl( this );
   readTask_ = std::make_shared<ReadTask>( *this );
   taskWatchReadableIs( true );
   taskWatchWritableIs( false );
}

FileDescriptorTask::~FileDescriptorTask() {
   if( readTask_ ) {
      readTask_->parentGone();
   }
   if( writeTask_ ) {
      writeTask_->parentGone();
   }
   writeTask_.reset();
   readTask_.reset();
   fdControl_.reset();
}

void FileDescriptorTask::taskExecute() {
   QUARN_FAIL( "FileDescriptorTask", "a descriptor task runs by its sub-tasks" );
}

void FileDescriptorTask::_checkCreateWriteTask() {
   if( writeTask_ ) {
      return;
   }
   auto task = std::make_shared<WriteTask>( *this );
   if( readTask_->taskTestYieldRatio() == 0 && task->taskQuantum_ != readTask_->taskQuantum_ ) {
      task->_quantumStore( readTask_->taskQuantum_ );
   }
   task->taskSuspendedIs( readTask_->taskSuspended() );
   writeTask_ = std::move( task );
   if( taskForceYieldInTest() ) {
      writeTask_->taskForceYieldInTestIs( true );
   }
}

// ---------------------------------------------------------------------------------------- watches

// Drops what waits for its run and then changes the descriptor, also when a hook that is told of
// the first throws.
template<typename Change>
void FileDescriptorTask::_watchFd( Change change ) {
   const std::shared_ptr<_TaskBase> self = weak_from_this().lock();
   const auto changeAndWatch = [ & ] {
      try {
         change();
         // Not before: the watch would be on the earlier descriptor, which may be closed.
         _resumeReads();
      } catch( ... ) {
         // With the number a second try would pass for one that changes nothing.
         fdControl_->delFd();
         throw;
      }
   };
   try {
      readTask_->unscheduleTask();
      if( writeTask_ ) {
         writeTask_->unscheduleTask();
      }
   } catch( ... ) {
      changeAndWatch();
      throw;
   }
   changeAndWatch();
}

// Whether nothing else is runnable, so that the queued read sub-task has its run in this very turn:
// timers, and with them the scheduler's callback, come behind descriptors. A lone busy descriptor
// thus keeps its watch in the kernel.
bool FileDescriptorTask::_runsNext() const {
   for( TaskScheduler const* s = scheduler_.get(); s; s = s->enclosing_ ) {
      // With a task running this is a loop within it, which runs no other.
      if( s->runnableTaskCount() != 1 || s->currentlyRunningTask() ) {
         return false;
      }
   }
   return true;
}

// Readiness for reading is reported in every turn while it lasts. Once nobody can act on it before
// other turns have passed, the watch in the kernel is taken away, for the price of one call, and
// `taskWatchReadable()` stays as it is.
void FileDescriptorTask::_pauseReads() {
   if( !readsPaused_ ) {
      fdControl_->setReads( false );
      readsPaused_ = true;
   }
}

void FileDescriptorTask::_resumeReads() {
   if( readsPaused_ ) {
      fdControl_->setReads( watchReadable_ );
      readsPaused_ = false;
   }
}

void FileDescriptorTask::taskWatchFdIs( int fd ) {
   if( fd == fdControl_->getFd() ) {
      return;
   }
   _watchFd( [ & ] {
      fdControl_->setFd( fd );
      if( watchWritable_ ) {
         // The control may have spent its watch on a notification whose run was just dropped.
         fdControl_->setWrites( true );
      }
   } );
}

int FileDescriptorTask::taskWatchFd() const { return fdControl_->getFd(); }

void FileDescriptorTask::taskWatchFdDel() {
   _watchFd( [ & ] { fdControl_->delFd(); } );
}

void FileDescriptorTask::taskWatchReadableIs( bool watch ) {
   if( watch == watchReadable_ ) {
      return;
   }
   watchReadable_ = watch;
   const bool paused = std::exchange( readsPaused_, false );
   try {
      fdControl_->setReads( watch );
   } catch( ... ) {
      // Or a second try would pass for one that changes nothing.
      watchReadable_ = !watch;
      readsPaused_ = paused;
      throw;
   }
   if( !watch ) {
      readTask_->unscheduleTask();
   }
}

void FileDescriptorTask::taskWatchWritableIs( bool watch ) {
   if( watch == watchWritable_ ) {
      return;
   }
   _checkCreateWriteTask();
   watchWritable_ = watch;
   try {
      fdControl_->setWrites( watch );
   } catch( ... ) {
      watchWritable_ = !watch;
      throw;
   }
   if( !watch ) {
      writeTask_->unscheduleTask();
   }
}

// ---------------------------------------------------------------------------------- notifications

void FileDescriptorTask::_requireWatched( int fd ) const {
   if( fd != fdControl_->getFd() ) {
      QUARN_STREAM_FAIL( "Notified about " << fd << " watching " << fdControl_->getFd() );
   }
}

void FileDescriptorTask::readFdEvent( int fd ) {
   if( !watchReadable_ ) {
      QUARN_STREAM_FAIL( "readFdEvent() called with taskWatchReadable off" );
   }
   _requireWatched( fd );
   scheduler_->historyEvent( taskTimeNow(), TaskSchedulerEventType::fdReadable, this );
   const unsigned status = readTask_->taskStatus();
   constexpr unsigned queued = 4;
   constexpr unsigned suspended = 16 | 64;
   if( ( status & suspended ) != 0 || ( ( status & queued ) != 0 && !_runsNext() ) ) {
      _pauseReads();
   }
   // Last: what is told of it may destroy this task.
   readTask_->scheduleTask();
}

void FileDescriptorTask::writeFdEvent( int fd ) {
   if( !watchWritable_ ) {
      QUARN_STREAM_FAIL( "writeFdEvent() called with taskWatchWritable off" );
   }
   _requireWatched( fd );
   scheduler_->historyEvent( taskTimeNow(), TaskSchedulerEventType::fdWritable, this );
   writeTask_->scheduleTask();
}

void FileDescriptorTask::scheduleTaskReadable() { readTask_->scheduleTask(); }

void FileDescriptorTask::scheduleTaskWritable() {
   _checkCreateWriteTask();
   writeTask_->scheduleTask();
}

// --------------------------------------------------------------------------------------- settings

void FileDescriptorTask::taskStatsNameIs( String name ) {
   taskStatsName_ = name.deduped();
   readTask_->taskStatsNameIs( name + ":read" );
   if( writeTask_ ) {
      writeTask_->taskStatsNameIs( name + ":write" );
   }
}

void FileDescriptorTask::taskQuantumIs( TaskTimeDuration quantum ) {
   readTask_->taskQuantumIs( quantum );
   if( writeTask_ ) {
      writeTask_->taskQuantumIs( quantum );
   }
}

void FileDescriptorTask::taskSuspendedIs( bool suspended ) {
   // A hook of the sub-tasks may destroy this task.
   const std::shared_ptr<_TaskBase> self = weak_from_this().lock();
   readTask_->taskSuspendedIs( suspended );
   if( !watchReadable_ ) {
      // Unsuspending queues a task; a run without the watch is an error.
      readTask_->unscheduleTask();
   }
   if( writeTask_ ) {
      writeTask_->taskSuspendedIs( suspended );
   }
}

void FileDescriptorTask::taskForceYieldInTestIs( bool force ) {
   for( TaskImpl* task : { static_cast<TaskImpl*>( readTask_.get() ),
                           static_cast<TaskImpl*>( writeTask_.get() ) } ) {
      if( task && ( task->taskTestYieldRatio() != 0 ) != force ) {
         task->taskForceYieldInTestIs( force );
      }
   }
}

bool FileDescriptorTask::taskForceYieldInTest() const {
   return readTask_->taskTestYieldRatio() != 0;
}

// ------------------------------------------------------------------------------------------- state

bool FileDescriptorTask::taskScheduled() const {
   return taskScheduledReadable() || taskScheduledWritable();
}

bool FileDescriptorTask::taskScheduledReadable() const { return readTask_->taskScheduled(); }

bool FileDescriptorTask::taskScheduledWritable() const {
   return writeTask_ && writeTask_->taskScheduled();
}

bool FileDescriptorTask::taskCurrentlyRunningReadable() const {
   return readTask_->taskCurrentlyRunning();
}

bool FileDescriptorTask::taskCurrentlyRunningWritable() const {
   return writeTask_ && writeTask_->taskCurrentlyRunning();
}

// -------------------------------------------------------------------------------------- statistics

TaskImpl& FileDescriptorTask::_executing() const {
   if( !executingTask_ ) {
      QUARN_FAIL_AS( "FileDescriptorTask", "executingTask", "No executing task" );
   }
   return *executingTask_;
}

FileDescriptorTask::WriteTask& FileDescriptorTask::_writeTask() const {
   if( !writeTask_ ) {
      QUARN_FAIL_AS( "FileDescriptorTask", "writeTask",
                     "WriteTask not created by taskWatchWritableIs( true )" );
   }
   return *writeTask_;
}

bool FileDescriptorTask::taskShouldYield() const { return _executing().taskShouldYield(); }

void FileDescriptorTask::taskWorkCountInc( unsigned long units ) {
   _executing().taskWorkCountInc( units );
}

void FileDescriptorTask::taskWorkPendingIs( unsigned int units ) {
   _executing().taskWorkPendingIs( units );
}

void FileDescriptorTask::taskWorkCountReadableInc( unsigned long units ) {
   readTask_->taskWorkCountInc( units );
}

void FileDescriptorTask::taskWorkPendingReadableIs( unsigned int units ) {
   readTask_->taskWorkPendingIs( units );
}

void FileDescriptorTask::taskWorkCountWritableInc( unsigned long units ) {
   _writeTask().taskWorkCountInc( units );
}

void FileDescriptorTask::taskWorkPendingWritableIs( unsigned int units ) {
   _writeTask().taskWorkPendingIs( units );
}

std::uint64_t FileDescriptorTask::taskWorkCountReadableTotal() const {
   return readTask_->workCountTotal_;
}

float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
   return readTask_->workCountDecayAvg_;
}

std::uint32_t FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
   return readTask_->workCountHighWaterMark_;
}

std::uint32_t FileDescriptorTask::taskWorkPendingReadable() const {
   return readTask_->workPending_;
}

std::uint32_t FileDescriptorTask::taskWorkPendingReadableHighWaterMark() const {
   return readTask_->workPendingHighWaterMark_;
}

std::uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const {
   return writeTask_ ? writeTask_->workCountTotal_ : 0;
}

float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
   return writeTask_ ? writeTask_->workCountDecayAvg_ : 0.0f;
}

std::uint32_t FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
   return writeTask_ ? writeTask_->workCountHighWaterMark_ : 0;
}

std::uint32_t FileDescriptorTask::taskWorkPendingWritable() const {
   return writeTask_ ? writeTask_->workPending_ : 0;
}

std::uint32_t FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
   return writeTask_ ? writeTask_->workPendingHighWaterMark_ : 0;
}

std::uint64_t FileDescriptorTask::taskRunCount() const { return readTask_->taskRunCount(); }

std::uint64_t FileDescriptorTask::taskRunCountWritable() const {
   return writeTask_ ? writeTask_->taskRunCount() : 0;
}

} // namespace Quarn
