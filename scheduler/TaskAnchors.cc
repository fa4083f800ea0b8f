#include "scheduler/TaskAnchors.h"

#include "debug/Handlers.h"

#include <utility>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

CurrentlyRunningTaskAnchor::CurrentlyRunningTaskAnchor( TaskScheduler& scheduler, TaskImpl& task )
      : scheduler_( scheduler ),
        task_( &task ),
        magic_( &task.taskMagicNumber_ ) {
   if( scheduler_.currentlyRunningTask_ ) {
      QUARN_STREAM_FAIL( "currentlyRunningTask_ is not NULL " << scheduler_.currentlyRunningTask_ );
   }
   hold_ = task.shared_from_this();
   scheduler_.currentlyRunningTask_ = task_;
}

CurrentlyRunningTaskAnchor::~CurrentlyRunningTaskAnchor() {
   if( task_ ) {
      _clear();
   }
}

void CurrentlyRunningTaskAnchor::_clear() {
   TaskImpl* task = std::exchange( task_, nullptr );
   // A task that was destroyed in its own run has no flag left to clear.
   if( *magic_ == TaskImpl::magicConstructed ) {
      task->taskCurrentlyRunning_ = false;
   }
   if( scheduler_.currentlyRunningTask_ != task ) {
      QUARN_STREAM_FAIL_AS( "~CurrentlyRunningTaskAnchor", "currentlyRunningTask_ != task_ "
                                                                 << scheduler_.currentlyRunningTask_
                                                                 << " != " << task );
   }
   scheduler_.currentlyRunningTask_ = nullptr;
}

void CurrentlyRunningTaskAnchor::release() {
   _clear();
   hold_.reset();
}

PreserveCurrentlyRunningTaskAnchor::PreserveCurrentlyRunningTaskAnchor( TaskScheduler& scheduler )
      : scheduler_( &scheduler ),
        task_( std::exchange( scheduler.currentlyRunningTask_, nullptr ) ),
        virtualRunStartTime_( scheduler.virtualRunStartTime_ ) {}

PreserveCurrentlyRunningTaskAnchor::~PreserveCurrentlyRunningTaskAnchor() {
   if( scheduler_ ) {
      release();
   }
}

void PreserveCurrentlyRunningTaskAnchor::release() {
   TaskScheduler& scheduler = *std::exchange( scheduler_, nullptr );
   if( scheduler.currentlyRunningTask_ ) {
      QUARN_STREAM_FAIL_AS( "~PreserveCurrentlyRunningTaskAnchor",
                            "currentlyRunningTask_ is not NULL "
                                  << scheduler.currentlyRunningTask_ );
   }
   scheduler.currentlyRunningTask_ = task_;
   scheduler.virtualRunStartTime_ = virtualRunStartTime_;
}

} // namespace Quarn
