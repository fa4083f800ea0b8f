// The host agent: what its parts are and how they work together.
//
//     timer --starts--> ProcessWalk (normal) --table--> UserSummary (high)
//                                            `--table--> TopList (low)
//
// The agent lives on one thread and runs that thread's event loop. It ends by disarming all it has
// armed: the loop is left when nothing is pending, so that its return proves that nothing was
// forgotten. Tables that were published by then are still worked up.

#pragma once

#include "examples/agent/AgentSignals.h"
#include "examples/agent/AgentTimer.h"
#include "examples/agent/Options.h"
#include "examples/agent/ProcessWalk.h"
#include "examples/agent/TopList.h"
#include "examples/agent/UserNames.h"
#include "examples/agent/UserSummary.h"

#include <Quarn/Debug.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <memory>
#include <string>
#include <string_view>

namespace HostAgent {

class Agent {
 public:
   // Blocks SIGINT and SIGTERM for as long as the agent lives.
   //
   // Errors: `std::system_error` when `procFolder` or the signals cannot be watched.
   explicit Agent( const Options& options, const std::string& procFolder = "/proc" );

   Agent( const Agent& ) = delete;
   Agent& operator=( const Agent& ) = delete;

   // Runs the event loop until the time is over or a signal has come. Called once.
   void run();

   // Ends the run: disarms timers and signals and gives up the walk under way. May be called from
   // any task or handler of the loop.
   void stop( std::string_view reason );

   // Why the run ended; empty before.
   const std::string& stopReason() const { return stopReason_; }

   // From the start of the run to its end, on the steady clock.
   Quarn::TaskTimeDuration runTime() const { return end_ - start_; }

   // Beats of the interval timer at which the walk before was not finished.
   std::uint64_t walksSkipped() const { return walksSkipped_; }

   const Quarn::TaskSchedulerRoot& scheduler() const { return *root_; }
   const ProcessWalk& walk() const { return *walk_; }
   const UserSummary& userSummary() const { return *userSummary_; }
   const TopList& topList() const { return *topList_; }
   UserNames& userNames() { return userNames_; }

 private:
   void _publish( const std::shared_ptr<const ProcessTable>& table );
   void _walkStart();
   void _beat();
   void _beatArm();

   Options options_;
   std::shared_ptr<Quarn::Platform::DebugHandler> debug_;
   // First to be made and last to go: signals stay blocked around everything else.
   AgentSignals signals_;
   UserNames userNames_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_;
   std::shared_ptr<UserSummary> userSummary_;
   std::shared_ptr<TopList> topList_;
   std::shared_ptr<ProcessWalk> walk_;
   AgentTimer beatTimer_;
   AgentTimer endTimer_;
   // When the next walk is due, on the clock of `Quarn::time()`.
   double nextBeat_ = 0.0;
   std::uint64_t walksSkipped_ = 0;
   Quarn::TaskTimeStamp start_;
   Quarn::TaskTimeStamp end_;
   std::string stopReason_;
};

} // namespace HostAgent
