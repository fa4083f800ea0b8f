// Watches on descriptors against poll(2), with numbers that change hands all the time.
//
// Owners watch connections through the three kinds of watches that there are. A step makes a
// connection ready or unready, moves a watch, or closes a descriptor and opens another under the
// same number, for the same owner or another one; steps are made between turns of the loop and
// within handlers, where others of the same turn still wait to be called.
//
// Two questions are asked. Of each notification: is the owner there, does it watch that number in
// that direction, and does poll find it ready? What another handler of the turn has taken from
// under it is the only excuse. Of each turn: was everybody called whose descriptor was ready before
// it and was let alone meanwhile? Controls are called in the very turn; the sub-tasks of descriptor
// tasks have their turns to come, and are waited for by `settle()`.

#pragma once

#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace prove {

class DescriptorPlay {
 public:
   struct Counts {
      std::uint64_t operations = 0;
      std::uint64_t notifications = 0;
      // Numbers that were closed and used again, within a handler.
      std::uint64_t reused = 0;
      // Of these, numbers under which another of the same turn still waited to be called.
      std::uint64_t reusedWhileDue = 0;
      std::uint64_t hangUps = 0;
      std::uint64_t bothWays = 0;
      std::uint64_t droppedInOwnHandler = 0;
      std::uint64_t thrown = 0;
      // Calls in which a descriptor was unready because another handler was faster: the oracle has
      // no opinion of these.
      std::uint64_t excused = 0;
   };

   DescriptorPlay( std::mt19937_64& random, bool framework );
   ~DescriptorPlay();
   DescriptorPlay( const DescriptorPlay& ) = delete;
   DescriptorPlay& operator=( const DescriptorPlay& ) = delete;

   // Some steps, a turn of the loop and its questions. False when something is wrong.
   bool turn();

   // Waits until everybody was called who had to be. False when somebody never is.
   bool settle();

   const Counts& counts() const { return counts_; }
   // What is wrong, and the last steps before it.
   const std::string& fault() const { return fault_; }
   std::string lastSteps() const;

 private:
   enum class Kind { control, task, taskControl };
   enum class Shape { socket, pipeReader, pipeWriter };
   enum Direction { read, write };

   // Two ends, of which owners watch the one.
   struct Connection {
      Shape shape = Shape::socket;
      int fd = -1;
      int peer = -1;
      // What its bytes say.
      std::uint32_t serial = 0;
      // How often it was made unready, by direction.
      std::array<std::uint64_t, 2> spent{};
   };

   // Who is called. Outlives its control, so that a call after that is heard of.
   struct Listener {
      Listener( DescriptorPlay& play_, unsigned owner_ ) : play( play_ ), owner( owner_ ) {}
      DescriptorPlay& play;
      unsigned owner;
      bool gone = false;
   };
   class Handler;
   class WatchTask;

   // How a watch stands in one direction.
   struct Watch {
      bool flag = false;
      // Whether a notification is to come when it is ready.
      bool armed = false;
      // Whether one may come although it is not ready, or whatever.
      bool mayBeStale = false;
      bool mayCome = false;
      std::uint64_t called = 0;
   };

   struct Owner {
      Kind kind = Kind::control;
      std::shared_ptr<Handler> handler;
      std::shared_ptr<Quarn::Platform::FdControl> control;
      std::shared_ptr<WatchTask> task;
      Connection* connection = nullptr;
      std::array<Watch, 2> watches;
      bool suspended = false;
      // Changes with each operation on the watch.
      std::uint64_t version = 0;
   };

   // A call that has to come.
   struct Due {
      unsigned owner;
      Direction direction;
      std::uint64_t version;
      std::uint64_t spent;
      std::uint64_t called;
   };

   struct Step {
      char const* what;
      unsigned owner;
      int fd;
      bool inHandler;
   };

   std::uint64_t _draw( std::uint64_t below ) { return random_() % below; }
   bool _oneIn( std::uint64_t n ) { return _draw( n ) == 0; }
   bool _fails( std::string what );
   void _note( char const* what, unsigned owner, int fd );

   void _open( Connection& connection );
   void _drain( Connection& connection );
   void _fill( Connection& connection );
   void _drainPeer( Connection& connection );
   void _peerWrites( Connection& connection );
   void _hangUp( Connection& connection );
   void _spent( Connection& connection, Direction direction );
   static bool _ready( int fd, Direction direction );

   void _make( unsigned number );
   void _drop( unsigned number );
   void _setFd( unsigned number, Connection& connection );
   void _forget( unsigned number );
   void _clear( unsigned number );
   void _setReads( unsigned number, bool watch );
   void _setWrites( unsigned number, bool watch );
   void _suspend( unsigned number, bool suspended );
   void _reopen( Connection& connection );

   void _step();
   bool _runs();
   void _called( Listener& listener, int fd, Direction direction );
   std::vector<Due> _due() const;
   bool _isOwed( const Due& due ) const;
   bool _numbersAgree();
   bool _anyDueUnder( int fd ) const;

   std::mt19937_64& random_;
   const bool framework_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_;
   std::vector<std::unique_ptr<Connection>> connections_;
   std::vector<Owner> owners_;
   std::vector<std::shared_ptr<Handler>> goneHandlers_;
   std::uint32_t serials_ = 0;
   // The owner whose handler runs, or none.
   int calledNow_ = -1;
   bool settling_ = false;
   std::vector<Due> dueInTurn_;
   Counts counts_;
   std::deque<Step> steps_;
   std::string fault_;
};

} // namespace prove
