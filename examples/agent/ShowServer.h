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
   // thousand; clients beyond these wait in the kernel's queue. Only the user of the agent and root
   // get a session: what comes from others is closed unread.
   static constexpr std::size_t sessionsMax = 4;

   // How many seconds a client may take to ask; then to read, from its coming; and to read while
   // all places are taken and somebody waits for one. A record that is there unread when the first
   // is over, for the agent was held up, is answered all the same; the time to read begins then.
   struct Patience {
      double toAsk = 2.0;
      double toRead = 30.0;
      double toReadWhenFull = 3.0;
   };

   // Listens under the agent's name, a valid one.
   //
   // Errors: none thrown. Without the socket nothing is answered, and `refusal()` says why.
   ShowServer( std::shared_ptr<Quarn::TaskSchedulerRoot> root, const std::string& name );
   ShowServer( std::shared_ptr<Quarn::TaskSchedulerRoot> root, const std::string& name,
               const Patience& patience );
   ~ShowServer() override;

   // Counts what is answered at `counter` too, unless it is null. It outlives the server.
   void answeredCounterIs( unsigned long* counter ) { answeredCounter_ = counter; }

   // Leaves the loop and gives every session up. A JSON document under way still takes the turns of
   // the loop that it needs to be thrown away, and stays when its pipe cannot be opened; calling
   // this again tries again.
   void stop();

   // Why nothing is answered, empty while all is well.
   const std::string& refusal() const { return refusal_; }

   std::size_t sessions() const { return sessions_.size(); }
   // Requests by how they went. A JSON document counts as answered when all of it is delivered, or
   // dropped because the reader is gone: the scheduler does not tell one from the other.
   std::uint64_t answered() const { return answered_; }
   std::uint64_t refused() const { return refused_; }
   std::uint64_t givenUp() const { return givenUp_; }

 private:
   class Look;

   struct Entry {
      std::shared_ptr<ShowSession> session;
      // When it came, or its time was last over, on the clock of timers.
      double since;
   };

   void taskExecuteReadable() override;
   void taskExecuteWritable() override;
   void _admit( Show::Descriptor client );
   void _watch();
   void _leave();
   double _deadline( const Entry& entry ) const;
   void _ended( ShowSession& session, ShowSession::Outcome outcome );
   void _giveUpOverdue();

   std::shared_ptr<Quarn::Platform::DebugHandler> debug_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_;
   Patience patience_;
   std::shared_ptr<Look> look_;
   std::shared_ptr<ConnectionCloser> closer_;
   Show::Descriptor listening_;
   // Somebody waits for a place.
   bool full_ = false;
   std::string refusal_;
   // The oldest first.
   std::list<Entry> sessions_;
   std::uint64_t answered_ = 0;
   unsigned long* answeredCounter_ = nullptr;
   std::uint64_t refused_ = 0;
   std::uint64_t givenUp_ = 0;
};

} // namespace HostAgent
