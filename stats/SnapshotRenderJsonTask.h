// Renders snapshots one a run, and has each piece written before the next.

#pragma once

#include <Quarn/scheduler/Task.h>
#include <Quarn/scheduler/TaskScheduler.h>
#include <Quarn/stats/TaskSchedulerPrintContext.h>

#include "stats/SnapshotJson.h"

#include <functional>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace Quarn {

// Makes a descriptor non-blocking. The setting is that of the open file, which others may share, so
// it is taken back at the end, if it was not there before.
//
// Several of one thread may be on the same open file, by duplicates of a descriptor: the last one
// takes it back. A forked child, which shares the file with its parent, does not.
class NonBlockingMode {
 public:
   // Errors: fatal when the flags cannot be read or set ("flags >= 0", "result == 0").
   explicit NonBlockingMode( int fd );
   NonBlockingMode( NonBlockingMode&& other ) noexcept;
   ~NonBlockingMode() { undo(); }
   NonBlockingMode& operator=( NonBlockingMode&& ) = delete;

   void undo();

 private:
   void _unlink();

   int fd_; // -1 once it is undone
   pid_t pid_;
   bool changed_ = false;
   // Those of the thread that are in force.
   NonBlockingMode* next_ = nullptr;
   static constinit thread_local NonBlockingMode* first_;
};

// Its scheduler holds it, and it holds its scheduler, until `cleanUp` is called or it is abandoned.
// The descriptor becomes its own with the first run: destroyed before that, it leaves it open, and
// the mode is undone.
class TaskScheduler::SnapshotRenderJsonTask final : public Task {
 public:
   using Snapshots = std::vector<std::shared_ptr<const TaskSchedulerSnapshot>>;

   SnapshotRenderJsonTask( std::shared_ptr<TaskScheduler> scheduler, NonBlockingMode mode, int fd,
                           Snapshots snapshots, std::function<void()> completion,
                           std::function<void( SnapshotRenderJsonTask& )> cleanUp );

   // What the writer tells of the piece it was given.
   //
   // Errors: fatal when there was none.
   void writeComplete();

   // Closes the descriptor and lets go of all that is held; nobody is told.
   void abandon() noexcept;

 private:
   void taskExecute() override;
   void _step();
   void writeOstrToFileDescriptor();
   void _finish();
   void _close();

   bool done_ = false;
   bool waitingForWrite_ = false;
   int fd_;
   unsigned next_ = 0;
   Snapshots snapshots_;
   Json::TextBuffer text_;
   std::ostream ostr_{ &text_ };
   TaskSchedulerPrintContext context_{ ostr_ };
   NonBlockingMode mode_;
   // Null once the descriptor is closed.
   std::shared_ptr<SnapshotWriteJsonTask> writeTask_;
   std::function<void()> completion_;
   std::function<void( SnapshotRenderJsonTask& )> cleanUp_;
};

} // namespace Quarn
