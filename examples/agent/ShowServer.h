// The show socket: where operators ask the running agent what its scheduler is doing.
//
// tools/show has the grammar of requests and answers, and the name of the socket.

#pragma once

#include "examples/agent/ShowSession.h"

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace HostAgent {

class ShowServer final : public Quarn::FileDescriptorTask {
 public:
   // Each session may hold a report of all tasks, of tens of megabytes when there are a hundred
   // thousand; clients beyond these wait in the kernel's queue. One more may be that of a user who
   // is going to be refused, so that such users do not keep out those who are not.
   static constexpr std::size_t sessionsMax = 4;
   // How long a client may take to ask and to read.
   static constexpr double patienceSeconds = 30.0;

   // Listens under the agent's name, a valid one.
   //
   // Errors: none thrown. Without the socket nothing is answered, and `refusal()` says why.
   ShowServer( std::shared_ptr<Quarn::TaskSchedulerRoot> root, const std::string& name,
               double patience = patienceSeconds );
   ~ShowServer() override;

   // Leaves the loop and gives every session up. A JSON document under way still takes the turns of
   // the loop that it needs to be thrown away.
   void stop();

   // Why nothing is answered, empty while all is well.
   const std::string& refusal() const { return refusal_; }

   std::size_t sessions() const { return sessions_.size(); }
   std::uint64_t answered() const { return answered_; }
   std::uint64_t refused() const { return refused_; }
   std::uint64_t givenUp() const { return givenUp_; }

 private:
   class Patience;

   struct Entry {
      std::shared_ptr<ShowSession> session;
      // On the clock of timers.
      double deadline;
   };

   void taskExecuteReadable() override;
   void taskExecuteWritable() override;
   void _admit( Show::Descriptor client );
   void _ended( ShowSession& session, ShowSession::Outcome outcome );
   void _giveUpOverdue();
   std::size_t _count( bool trusted ) const;

   std::shared_ptr<Quarn::Platform::DebugHandler> debug_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_;
   double patience_;
   std::shared_ptr<Patience> timer_;
   Show::Descriptor listening_;
   std::string refusal_;
   // That of the earliest deadline first.
   std::list<Entry> sessions_;
   std::uint64_t answered_ = 0;
   std::uint64_t refused_ = 0;
   std::uint64_t givenUp_ = 0;
};

} // namespace HostAgent
