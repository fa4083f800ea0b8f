// The task that keeps the summary for each user.

#pragma once

#include "examples/agent/ProcessTable.h"
#include "examples/agent/UserNames.h"

#include <Quarn/Task.h>

#include <memory>
#include <optional>
#include <vector>

namespace HostAgent {

// What the processes of one user come to. Sums that do not fit stay at the largest number.
struct UserTotals {
   uid_t uid = 0;
   std::uint64_t processes = 0;
   std::uint64_t cpuTicksSincePrevious = 0;
   std::uint64_t residentPages = 0;
};

// The totals of every user with a process, the busiest first; among equally busy ones that with the
// most resident memory, then the lowest number.
std::vector<UserTotals> summarizeUsers( const ProcessTable& table );

class UserSummary final : public Quarn::Task {
 public:
   // `names` is filled while the task runs and must outlive it.
   UserSummary( std::shared_ptr<Quarn::TaskScheduler> scheduler, UserNames* names );

   // Hands in the table of a walk and schedules the task. A table that it has not come to yet is
   // dropped for the newer one.
   void tableIs( std::shared_ptr<const ProcessTable> table );

   // Of the last table, which covers `interval` (no value for a first walk).
   const std::vector<UserTotals>& users() const { return users_; }
   std::optional<Quarn::TaskTimeDuration> interval() const { return interval_; }

 private:
   void taskExecute() override;

   UserNames* names_;
   std::shared_ptr<const ProcessTable> table_;
   std::vector<UserTotals> users_;
   std::optional<Quarn::TaskTimeDuration> interval_;
};

} // namespace HostAgent
