// The host agent: what its parts are and how they work together.
//
//     WalkTimer (normal) --starts--> ProcessWalk --table--> UserSummary (high)
//                                               `--table--> TopList (low)
//     LoadTimer takes a LoadSample
//     LinkWatch, FolderWatch (normal) tell the EventLog what the kernel tells them
//     NamesTimer (scavenge) forgets the names of users
//     ShowServer, ShowSession (normal) tell clients what the scheduler is doing
//     EndTimer (normal) ends the run
//
// ProcessWalk and LoadTimer are the members of the task group "samples", of priority low: sampling
// as a whole gets 50 ms at a time, of which the walk takes 10 ms before it lets the other in.
//
// The agent lives on one thread and runs that thread's event loop. It ends by disarming all it has
// armed: the loop is left when nothing is pending, so that its return proves that nothing was
// forgotten. Tables that were published by then are still worked up. Only an answer to a client
// that cannot be thrown away is left behind.

#pragma once

#include "examples/agent/AgentSignals.h"
#include "examples/agent/EventLog.h"
#include "examples/agent/FastForward.h"
#include "examples/agent/FolderWatch.h"
#include "examples/agent/LinkWatch.h"
#include "examples/agent/LoadSample.h"
#include "examples/agent/Options.h"
#include "examples/agent/ProcessWalk.h"
#include "examples/agent/SampleTimer.h"
#include "examples/agent/ShowServer.h"
#include "examples/agent/TopList.h"
#include "examples/agent/UserNames.h"
#include "examples/agent/UserSummary.h"
#include "examples/agent/WorkCounters.h"

#include <Quarn/Debug.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace HostAgent {

class Agent {
 public:
   // Blocks SIGINT and SIGTERM for as long as the agent lives. With `fastForwardHours` the thread's
   // event loop runs on virtual time as long, and the thread must be the main one.
   //
   // Errors: `std::system_error` when the processes, the folder or the signals cannot be watched.
   explicit Agent( const Options& options, const std::string& procFolder = "/proc" );

   Agent( const Agent& ) = delete;
   Agent& operator=( const Agent& ) = delete;

   // Runs the event loop until the time is over or a signal has come. Called once.
   void run();

   // Ends the run: disarms timers, descriptors and signals and gives up the walk under way. May be
   // called from any task or handler of the loop.
   //
   // An answer that cannot be thrown away, since its pipe cannot be opened, holds the loop for
   // `lastAnswerSeconds` more; it is left as it is then.
   void stop( std::string_view reason );
   static constexpr double lastAnswerSeconds = 2.0;

   // Why the run ended; empty before.
   const std::string& stopReason() const { return stopReason_; }

   // Whether the run is one of virtual time.
   bool fastForward() const { return fastForward_.has_value(); }

   // From the start of the run to when it was ended: on the steady clock, and on that of timers,
   // which is ahead of it under virtual time.
   Quarn::TaskTimeDuration runTime() const { return end_ - start_; }
   Quarn::TaskTimeDuration timerTime() const;

   // Beats of the walk's timer at which the walk before was not finished.
   std::uint64_t walksSkipped() const { return walksSkipped_; }

   const Options& options() const { return options_; }
   const Quarn::TaskSchedulerRoot& scheduler() const { return *root_; }
   const Quarn::TaskGroup& samples() const { return *samples_; }
   const ProcessWalk& walk() const { return *walk_; }
   const LoadSample& load() const { return load_; }
   const UserSummary& userSummary() const { return *userSummary_; }
   const TopList& topList() const { return *topList_; }
   const LinkWatch& linkWatch() const { return *linkWatch_; }
   const EventLog& eventLog() const { return eventLog_; }
   const WorkCounters& counters() const { return counters_; }
   UserNames& userNames() { return userNames_; }

   // Null under virtual time, whose jumps would use up the time that clients are given.
   ShowServer const* showServer() const { return showServer_.get(); }
   // Why show requests are not answered; empty when they are, and when nobody is to ask.
   std::string showRefusal() const { return showServer_ ? showServer_->refusal() : std::string(); }

   // Null when no folder is watched.
   FolderWatch const* folderWatch() const { return folderWatch_.get(); }

   std::array<SampleTimer const*, 3> timers() const {
      return { walkTimer_.get(), loadTimer_.get(), namesTimer_.get() };
   }

 private:
   class EndTimer;

   void _publish( const std::shared_ptr<const ProcessTable>& table );
   void _loadBeat();
   void _walkBeat();
   bool _answering();

   Options options_;
   std::shared_ptr<Quarn::Platform::DebugHandler> debug_;
   // First to be made and last to go: signals stay blocked around everything else, and no task sees
   // a change of clocks.
   AgentSignals signals_;
   std::optional<FastForward> fastForward_;
   UserNames userNames_;
   WorkCounters counters_;
   EventLog eventLog_;
   LoadSample load_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_;
   std::shared_ptr<Quarn::TaskGroup> samples_;
   std::shared_ptr<UserSummary> userSummary_;
   std::shared_ptr<TopList> topList_;
   std::shared_ptr<ProcessWalk> walk_;
   std::shared_ptr<SampleTimer> walkTimer_;
   std::shared_ptr<SampleTimer> loadTimer_;
   std::shared_ptr<SampleTimer> namesTimer_;
   std::shared_ptr<LinkWatch> linkWatch_;
   std::shared_ptr<FolderWatch> folderWatch_;
   std::shared_ptr<ShowServer> showServer_;
   // Null once it has done its work.
   std::shared_ptr<EndTimer> endTimer_;
   std::uint64_t walksSkipped_ = 0;
   Quarn::TaskTimeStamp start_;
   Quarn::TaskTimeStamp end_;
   double timerStart_ = 0.0;
   double timerEnd_ = 0.0;
   std::string stopReason_;
};

} // namespace HostAgent
