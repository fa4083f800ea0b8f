// One client of the show socket, from its connection to the end of its answer.
//
//     waits for the record -- text, history --> writes the answer into the pipe
//                          `- json -----------> the scheduler renders and writes it
//
// The connection is closed as soon as the record is known; nothing is ever written to it.

#pragma once

#include "examples/agent/ConnectionCloser.h"

#include "tools/show/ShowRequest.h"
#include "tools/show/ShowSocket.h"

#include <Quarn/Debug.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <functional>
#include <memory>
#include <string_view>

namespace HostAgent {

class ShowSession final : public Quarn::FileDescriptorTask {
 public:
   // How a session went; those of clients that left before they asked are none of the first three.
   enum class Outcome { answered, refused, givenUp, nothing };

   // Takes over the connection, which `closer` closes. `ended` is called once, as the last thing
   // the session does; it may destroy the session.
   ShowSession( std::shared_ptr<Quarn::TaskSchedulerRoot> root, Show::Descriptor client,
                std::shared_ptr<ConnectionCloser> closer,
                std::function<void( ShowSession&, Outcome )> ended );
   ~ShowSession() override;

   // Whether the client has sent its record.
   bool asked() const { return step_ != Step::waiting; }

   // Takes the record, if it has come by now, and answers it. Returns whether it had, or the client
   // was gone: the session may have ended then. False when the client has asked before.
   bool takeRecord();

   // Ends the session at once, where that can be done. The scheduler keeps the descriptor of a JSON
   // document until all of it is written, so the session then reads the pipe empty itself, in the
   // client's place, and ends with the document. Nothing happens while the pipe cannot be opened;
   // calling this again tries again.
   void giveUp();

 private:
   enum class Step { waiting, writing, rendering, draining, over };

   void taskExecuteReadable() override;
   void taskExecuteWritable() override;
   void _takeRequest( const Show::Received& received );
   void _answer( const Show::Request& request );
   void _answerText( const Show::Request& request );
   void _answerJson( const Show::Request& request );
   void _drainSome();
   void _refuse( std::string_view reason );
   void _end( Outcome outcome );

   std::shared_ptr<Quarn::Platform::DebugHandler> debug_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_;
   std::function<void( ShowSession&, Outcome )> ended_;
   Step step_ = Step::waiting;
   Show::Descriptor client_;
   std::shared_ptr<ConnectionCloser> closer_;
   // The write end that came with the request, later the agent's own; while a document is
   // delivered the read end that empties the pipe, if that was necessary.
   Show::Descriptor pipe_;
   // The scheduler's descriptor while it delivers a document: not to be closed here.
   int rendering_ = -1;
   // That could not be opened anew. Traced once, however often it is tried.
   bool stuck_ = false;
   Quarn::String text_;
   std::size_t written_ = 0;
};

} // namespace HostAgent
