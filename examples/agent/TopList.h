// The task that keeps the list of the busiest processes.

#pragma once

#include "examples/agent/ProcessTable.h"

#include <Quarn/Task.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace HostAgent {

// The `count` busiest processes, the busiest first: by ticks since the previous walk, then by
// resident memory, the more first; then by number, the lower first.
std::vector<ProcessRecord> topProcesses( const ProcessTable& table, std::size_t count );

class TopList final : public Quarn::Task {
 public:
   TopList( std::shared_ptr<Quarn::TaskScheduler> scheduler, std::size_t count );

   // Hands in the table of a walk and schedules the task. A table that it has not come to yet is
   // dropped for the newer one.
   void tableIs( std::shared_ptr<const ProcessTable> table );

   // Of the last table, which covers `interval` (no value for a first walk).
   const std::vector<ProcessRecord>& processes() const { return processes_; }
   std::optional<Quarn::TaskTimeDuration> interval() const { return interval_; }

 private:
   void taskExecute() override;

   std::size_t count_;
   std::shared_ptr<const ProcessTable> table_;
   std::vector<ProcessRecord> processes_;
   std::optional<Quarn::TaskTimeDuration> interval_;
};

} // namespace HostAgent
