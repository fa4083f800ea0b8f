// The task that walks over all processes, in as many runs as it takes.

#pragma once

#include "examples/agent/ProcReader.h"
#include "examples/agent/ProcessTable.h"

#include <Quarn/Debug.h>
#include <Quarn/Task.h>

#include <functional>
#include <memory>
#include <string>

namespace HostAgent {

// Each run reads at least one process and goes on until it should yield; the next run goes on where
// it stopped.
class ProcessWalk final : public Quarn::Task {
 public:
   using Publish = std::function<void( std::shared_ptr<const ProcessTable> )>;

   // `publish` is called from a run, with the table of every walk that came to its end. The task is
   // of priority low; a task group that it joins has the same.
   //
   // Errors: `std::system_error` when the folder cannot be opened.
   ProcessWalk( std::shared_ptr<Quarn::TaskScheduler> scheduler, const std::string& procFolder,
                Publish publish );

   // Starts a walk; false, with nothing done, when one is under way.
   bool walkStart();

   // Gives up the walk under way, if any. What it read is dropped.
   void walkStop();

   bool walking() const { return table_ != nullptr; }

   // Walks that came to their end, that were given up by `walkStop`, and that ended because the
   // list of processes could not be read.
   std::uint64_t walksDone() const { return walksDone_; }
   std::uint64_t walksStopped() const { return walksStopped_; }
   std::uint64_t walksFailed() const { return walksFailed_; }

   // Over the walks that came to their end: processes read, gone before they were, and skipped.
   std::uint64_t processesSeen() const { return processesSeen_; }
   std::uint64_t processesVanished() const { return processesVanished_; }
   std::uint64_t processesUnreadable() const { return processesUnreadable_; }

 private:
   void taskExecute() override;
   ProcReader::Step _readOne();
   void _walkEnd();
   void _walkFailed();

   std::shared_ptr<Quarn::Platform::DebugHandler> debug_;
   Publish publish_;
   ProcReader reader_;
   ProcessRecord record_;
   // The table being filled, null between walks, and that of the last walk.
   std::shared_ptr<ProcessTable> table_;
   std::shared_ptr<const ProcessTable> previous_;
   std::uint64_t walksDone_ = 0;
   std::uint64_t walksStopped_ = 0;
   std::uint64_t walksFailed_ = 0;
   std::uint64_t processesSeen_ = 0;
   std::uint64_t processesVanished_ = 0;
   std::uint64_t processesUnreadable_ = 0;
};

} // namespace HostAgent
