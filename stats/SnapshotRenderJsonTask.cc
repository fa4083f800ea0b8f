#include "stats/SnapshotRenderJsonTask.h"

#include <Quarn/base/MemTrack.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>
#include <Quarn/stats/TaskSchedulerSnapshot.h>

#include "debug/Handlers.h"
#include "stats/SnapshotWriteJsonTask.h"

#include <algorithm>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Quarn {

using Platform::taskSchedulerHandler;

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

// Whether the descriptors stand for one open file. Where the kernel does not tell, one inode will
// do: then a mode may stay longer than need be.
bool sameOpenFile( int left, int right ) {
   constexpr int compareFiles = 0; // KCMP_FILE
   const pid_t self = getpid();
   const long order = syscall( SYS_kcmp, self, self, compareFiles, left, right );
   if( order >= 0 ) {
      return order == 0;
   }
   struct stat a;
   struct stat b;
   return fstat( left, &a ) == 0 && fstat( right, &b ) == 0 && a.st_dev == b.st_dev &&
          a.st_ino == b.st_ino;
}

} // namespace

constinit thread_local NonBlockingMode* NonBlockingMode::first_ = nullptr;

NonBlockingMode::NonBlockingMode( int fd ) : fd_( fd ), pid_( getpid() ) {
   const int flags = fcntl( fd, F_GETFL );
   if( flags < 0 ) {
      QUARN_FAIL_AS( "TaskScheduler", "snapshotRenderJsonAsync", "flags >= 0" );
   }
   if( ( flags & O_NONBLOCK ) == 0 ) {
      const int result = fcntl( fd, F_SETFL, flags | O_NONBLOCK );
      if( result != 0 ) {
         QUARN_FAIL_AS( "TaskScheduler", "snapshotRenderJsonAsync", "result == 0" );
      }
      changed_ = true;
   }
   next_ = std::exchange( first_, this );
}

NonBlockingMode::NonBlockingMode( NonBlockingMode&& other ) noexcept
      : fd_( std::exchange( other.fd_, -1 ) ),
        pid_( other.pid_ ),
        changed_( std::exchange( other.changed_, false ) ) {
   other._unlink();
   next_ = std::exchange( first_, this );
}

// Does nothing to one that is not linked.
void NonBlockingMode::_unlink() {
   for( NonBlockingMode** at = &first_; *at; at = &( *at )->next_ ) {
      if( *at == this ) {
         *at = next_;
         return;
      }
   }
}

void NonBlockingMode::undo() {
   _unlink();
   const int fd = std::exchange( fd_, -1 );
   if( fd < 0 || !std::exchange( changed_, false ) || pid_ != getpid() ) {
      return;
   }
   for( NonBlockingMode* other = first_; other; other = other->next_ ) {
      if( sameOpenFile( fd, other->fd_ ) ) {
         other->changed_ = true;
         return;
      }
   }
   // Somebody may have closed the descriptor; then there is nothing to undo.
   if( const int flags = fcntl( fd, F_GETFL ); flags >= 0 ) {
      fcntl( fd, F_SETFL, flags & ~O_NONBLOCK );
   }
}

// --------------------------------------------------------------------------------------- the task

TaskScheduler::SnapshotRenderJsonTask::SnapshotRenderJsonTask(
      std::shared_ptr<TaskScheduler> scheduler, NonBlockingMode mode, int fd, Snapshots snapshots,
      std::function<void()> completion, std::function<void( SnapshotRenderJsonTask& )> cleanUp )
      : Task( scheduler, scheduler->_statsTaskPriority(),
              fmt::format( "{}-fd:{}", "TaskSchedulerRenderJson", fd ) ),
        fd_( fd ),
        snapshots_( std::move( snapshots ) ),
        mode_( std::move( mode ) ),
        completion_( std::move( completion ) ),
        cleanUp_( std::move( cleanUp ) ) {
   if( !context_.impl_->out ) {
      // No memory for the beginning of the document: better told while the descriptor is the
      // caller's.
      throw std::bad_alloc();
   }
   writeTask_ = std::allocate_shared<SnapshotWriteJsonTask>(
         Allocator<SnapshotWriteJsonTask>(), std::move( scheduler ), taskPriority(),
         taskName() + ":FdWrite", fd, [ this ] { writeComplete(); } );
   writeTask_->taskStatsNameIs( fmt::format( "{}{}", taskStatsName(), ":FdWrite" ) );
}

void TaskScheduler::SnapshotRenderJsonTask::taskExecute() {
   if( waitingForWrite_ ) {
      QUARN_STREAM_FAIL( "Executing before previous write completed." );
   }
   if( done_ ) {
      _finish();
      return;
   }
   try {
      _step();
   } catch( ... ) {
      // Out of memory, say. The reader learns of it by a document that ends too early.
      _finish();
      throw;
   }
}

void TaskScheduler::SnapshotRenderJsonTask::_step() {
   if( next_ < snapshots_.size() ) {
      snapshots_[ next_ ]->renderJson( context_ );
      ++next_;
      writeOstrToFileDescriptor();
      taskWorkCountInc( 1 );
      taskWorkPendingIs( static_cast<unsigned>( snapshots_.size() ) - next_ );
      return;
   }
   taskWorkPendingIs( 0 );
   context_.closeJson();
   writeOstrToFileDescriptor();
   snapshots_ = {};
   done_ = true;
}

void TaskScheduler::SnapshotRenderJsonTask::writeOstrToFileDescriptor() {
   if( !ostr_ ) {
      throw std::bad_alloc();
   }
   waitingForWrite_ = true;
   String piece( text_.text() );
   // Before anything else wants memory.
   text_.clear();
   writeTask_->bufferIs( std::move( piece ) );
}

void TaskScheduler::SnapshotRenderJsonTask::writeComplete() {
   if( !waitingForWrite_ ) {
      QUARN_STREAM_FAIL( "Notified about an unexpected write complete" );
   }
   waitingForWrite_ = false;
   scheduleTask();
}

void TaskScheduler::SnapshotRenderJsonTask::_close() {
   if( !writeTask_ ) {
      return;
   }
   struct Closer {
      ~Closer() {
         task.writeTask_.reset();
         task.mode_.undo();
         close( task.fd_ );
      }
      SnapshotRenderJsonTask& task;
   };
   // Also when the next step throws.
   const Closer closer{ *this };
   // The event loop forgets the number before somebody else can get it.
   writeTask_->taskWatchFdDel();
}

void TaskScheduler::SnapshotRenderJsonTask::_finish() {
   const std::function<void()> completion = std::move( completion_ );
   struct CleanUp {
      ~CleanUp() { task.cleanUp_( task ); }
      SnapshotRenderJsonTask& task;
   };
   // Also when closing or the completion throws. The run still holds this task.
   const CleanUp cleanUp{ *this };
   _close();
   if( completion ) {
      completion();
   }
}

void TaskScheduler::SnapshotRenderJsonTask::abandon() noexcept {
   // The descriptor is closed whatever the first step does.
   const auto trace = [ this ]( const std::exception& e ) {
      QUARN_TRACE_AS( taskSchedulerHandler, 0, "SnapshotRenderJsonTask", "abandon",
                      "abandoning the render onto fd {}: {}", fd_, e.what() );
   };
   try {
      unscheduleTask();
   } catch( const std::exception& e ) {
      trace( e );
   }
   try {
      _close();
   } catch( const std::exception& e ) {
      trace( e );
   }
   snapshots_ = {};
   completion_ = nullptr;
}

// ---------------------------------------------------------------------------------- the scheduler

void TaskScheduler::snapshotRenderJsonAsync(
      int fd, std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots,
      std::function<void()> done ) {
   NonBlockingMode mode( fd );
   root_->sanityCheckCurrentRunningThread();
   if( std::ranges::find( snapshots, nullptr ) != snapshots.end() ) {
      QUARN_STREAM_FAIL( "snapshot is null" );
   }
   const auto task = std::allocate_shared<SnapshotRenderJsonTask>(
         Allocator<SnapshotRenderJsonTask>(), shared_from_this(), std::move( mode ), fd,
         std::move( snapshots ), std::move( done ), [ this ]( SnapshotRenderJsonTask& finished ) {
            // The task holds this scheduler for longer than the call.
            snapshotRenderJsonTasks_.erase(
                  std::static_pointer_cast<SnapshotRenderJsonTask>( finished.shared_from_this() ) );
         } );
   snapshotRenderJsonTasks_.insert( task );
   try {
      task->scheduleTask();
   } catch( ... ) {
      snapshotRenderJsonTasks_.erase( task );
      throw;
   }
}

void TaskScheduler::snapshotRenderJsonAsync(
      int fd, std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots ) {
   snapshotRenderJsonAsync( fd, std::move( snapshots ), [] {} );
}

void TaskScheduler::snapshotRenderJsonAsync(
      int fd, std::shared_ptr<const TaskSchedulerSnapshot> snapshot ) {
   snapshotRenderJsonAsync( fd, std::vector{ std::move( snapshot ) } );
}

void TaskScheduler::_abandonRenders() {
   const auto tasks = std::exchange( snapshotRenderJsonTasks_, {} );
   for( const auto& task : tasks ) {
      task->abandon();
   }
}

void TaskSchedulerRoot::abandonRenders() {
   // A group may go with its last render, and leaves the set of schedulers then.
   std::vector<std::shared_ptr<TaskScheduler>> held;
   for( TaskScheduler* scheduler : schedulers_ ) {
      if( auto owner = scheduler->weak_from_this().lock() ) {
         held.push_back( std::move( owner ) );
      }
   }
   for( const auto& scheduler : held ) {
      scheduler->_abandonRenders();
   }
}

} // namespace Quarn
