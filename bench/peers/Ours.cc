// The library, as its users have it: tasks of the thread's root and timers of its wheel.

#include "Peer.h"
#include "TimersOf.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>

#include <event2/event.h>

#include <deque>

namespace bench::peers {

namespace {

// The thread's base; a program that makes it itself can break its loop.
event_base* threadBase() {
   static event_base* const base = [] {
      event_base* made = Quarn::leCreateBase();
      Quarn::leRegisterBase( made );
      return made;
   }();
   return base;
}

// Tasks that are all queued, always.
class OurTurns final : public Turns {
 public:
   explicit OurTurns( std::size_t waiting ) {
      members_.reserve( waiting );
      for( std::size_t i = 0; i < waiting; ++i ) {
         members_.push_back( std::make_shared<Member>( *this ) );
         members_.back()->scheduleTask();
      }
   }

   Time run( std::int64_t units ) override {
      left_ = units;
      return timeOf( [] { Quarn::doLeEventLoop(); } );
   }

 private:
   class Member final : public Quarn::Task {
    public:
      explicit Member( OurTurns& turns )
            : Task( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal, "BenchMemberTask" ),
              turns_( turns ) {}

    private:
      void taskExecute() override {
         scheduleTask();
         if( --turns_.left_ == 0 ) {
            event_base_loopbreak( turns_.base_ );
         }
      }

      OurTurns& turns_;
   };

   event_base* base_ = threadBase();
   std::vector<std::shared_ptr<Member>> members_;
   std::int64_t left_ = 0;
};

class OurTimers final : public TimersOf<OurTimers, double> {
 public:
   explicit OurTimers( const Draws& draws ) : TimersOf( draws ) {
      for( std::size_t i = 0; i < draws.delays.size(); ++i ) {
         events_.emplace_back( fired_ );
      }
   }

   static double delayOf( double seconds ) { return seconds; }
   void add( std::size_t i, double delay ) { events_[ i ].setTimeout( wheel_, delay ); }
   void moveTo( std::size_t i, double delay ) { events_[ i ].setTimeout( wheel_, delay ); }
   void remove( std::size_t i ) { events_[ i ].delTimeout( wheel_ ); }
   // Stopping leaves the master timer as it is, and the next loop would wait for it.
   void stopped() { wheel_->setMasterTimer(); }
   void run() { Quarn::doLeEventLoop(); }

 private:
   class Event final : public Quarn::TimerWheelEvent {
    public:
      explicit Event( std::size_t& fired ) : fired_( fired ) {}
      void timeout() override { ++fired_; }

    private:
      std::size_t& fired_;
   };

   event_base* base_ = threadBase();
   std::shared_ptr<Quarn::TimerWheel> wheel_ = Quarn::getTimerWheel();
   // They stay where they are made.
   std::deque<Event> events_;
};

class OurPlayers final : public Players {
 public:
   explicit OurPlayers( Game& game ) : game_( game ) {
      for( const Pair& pair : game.pairs ) {
         for( unsigned end = 0; end < 2; ++end ) {
            players_.push_back( std::make_shared<Player>( *this, pair.end( end ) ) );
         }
      }
   }

   Time play() override {
      return timeOf( [] { Quarn::doLeEventLoop(); } );
   }

 private:
   class Player final : public Quarn::FileDescriptorTask {
    public:
      Player( OurPlayers& players, int fd )
            : FileDescriptorTask( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal,
                                  "BenchPlayerTask" ),
              players_( players ),
              fd_( fd ) {
         taskWatchFdIs( fd );
      }

    private:
      void taskExecuteReadable() override {
         if( !players_.game_.returnByte( fd_ ) ) {
            event_base_loopbreak( players_.base_ );
         }
      }
      void taskExecuteWritable() override {}

      OurPlayers& players_;
      int fd_;
   };

   Game& game_;
   event_base* base_ = threadBase();
   std::vector<std::shared_ptr<Player>> players_;
};

class OurRequests final : public Requests {
 public:
   explicit OurRequests( std::size_t count ) {
      for( std::size_t i = 0; i < count; ++i ) {
         tasks_.push_back( std::make_shared<IdleTask>() );
      }
   }

   Time ask() override {
      const Time time = timeOf( [ this ] {
         for( const auto& task : tasks_ ) {
            task->scheduleTask();
         }
      } );
      Quarn::doLeEventLoop();
      return time;
   }

 private:
   class IdleTask final : public Quarn::Task {
    public:
      IdleTask()
            : Task( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal, "BenchIdleTask" ) {}

    private:
      void taskExecute() override {}
   };

   std::vector<std::shared_ptr<IdleTask>> tasks_;
};

class Ours final : public PeerOf<OurTurns, OurTimers, OurPlayers, OurRequests> {
 public:
   char const* name() const override { return "ours"; }
   std::string version() const override { return {}; }
   // One task runs after each look, always.
};

} // namespace

const Peer& ours() {
   static const Ours peer;
   return peer;
}

} // namespace bench::peers
