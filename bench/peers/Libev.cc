// libev.
//
// It also has functions of the names of libevent's, which would stand in for those. So it is loaded
// where nobody else finds it.

#include "Peer.h"
#include "Rotation.h"
#include "TimersOf.h"
#include "Waiting.h"

// Its macros cast as C does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wpedantic"
#include <ev.h>

#include <dlfcn.h>

#include <fmt/format.h>

namespace bench::peers {

namespace {

// A function of libev's.
class Found {
 public:
   explicit Found( char const* name ) {
      static void* const library = dlopen( "libev.so.4", RTLD_NOW | RTLD_LOCAL );
      address_ = library ? dlsym( library, name ) : nullptr;
      if( !address_ ) {
         fail( "loading libev.so.4" );
      }
   }

   template<typename Function>
   operator Function*() const {
      return reinterpret_cast<Function*>( address_ );
   }

 private:
   void* address_;
};

struct Functions {
   decltype( ::ev_loop_new )* loopNew = Found( "ev_loop_new" );
   decltype( ::ev_run )* run = Found( "ev_run" );
   decltype( ::ev_break )* breakLoop = Found( "ev_break" );
   decltype( ::ev_now_update )* nowUpdate = Found( "ev_now_update" );
   decltype( ::ev_idle_start )* idleStart = Found( "ev_idle_start" );
   decltype( ::ev_idle_stop )* idleStop = Found( "ev_idle_stop" );
   decltype( ::ev_timer_start )* timerStart = Found( "ev_timer_start" );
   decltype( ::ev_timer_again )* timerAgain = Found( "ev_timer_again" );
   decltype( ::ev_timer_stop )* timerStop = Found( "ev_timer_stop" );
   decltype( ::ev_io_start )* ioStart = Found( "ev_io_start" );
   decltype( ::ev_io_stop )* ioStop = Found( "ev_io_stop" );
   decltype( ::ev_version_major )* versionMajor = Found( "ev_version_major" );
   decltype( ::ev_version_minor )* versionMinor = Found( "ev_version_minor" );
   decltype( ::ev_loop_destroy )* loopDestroy = Found( "ev_loop_destroy" );
};

const Functions ev;

class Loop {
 public:
   Loop() : loop_( ev.loopNew( EVBACKEND_EPOLL ) ) {
      if( !loop_ ) {
         fail( "ev_loop_new" );
      }
   }
   ~Loop() { ev.loopDestroy( loop_ ); }
   Loop( const Loop& ) = delete;
   Loop& operator=( const Loop& ) = delete;

   operator struct ev_loop *() const { return loop_; }

 private:
   struct ev_loop* loop_;
};

class EvTurns final : public Turns {
 public:
   explicit EvTurns( std::size_t waiting ) : rotation_( waiting ) {
      ev_idle_init( &idle_, &EvTurns::called );
      idle_.data = this;
   }

   Time run( std::int64_t units ) override {
      rotation_.begin( units );
      ev.idleStart( loop_, &idle_ );
      return timeOf( [ this ] { ev.run( loop_, 0 ); } );
   }

 private:
   static void called( struct ev_loop* loop, ev_idle* idle, int ) {
      if( !static_cast<EvTurns*>( idle->data )->rotation_.next() ) {
         ev.idleStop( loop, idle );
      }
   }

   Loop loop_;
   ev_idle idle_;
   Rotation rotation_;
};

class EvTimers final : public TimersOf<EvTimers, double> {
 public:
   explicit EvTimers( const Draws& draws ) : TimersOf( draws ), timers_( draws.delays.size() ) {
      for( ev_timer& timer : timers_ ) {
         ev_init( &timer, &EvTimers::expired );
         timer.data = this;
      }
   }

   static double delayOf( double seconds ) { return seconds; }
   void refreshClock() { ev.nowUpdate( loop_ ); }
   void add( std::size_t i, double delay ) {
      ev_timer_set( &timers_[ i ], delay, 0. );
      ev.timerStart( loop_, &timers_[ i ] );
   }
   // Moves it in the heap, as libev recommends; the timer would repeat after that.
   void moveTo( std::size_t i, double delay ) {
      timers_[ i ].repeat = delay;
      ev.timerAgain( loop_, &timers_[ i ] );
   }
   void remove( std::size_t i ) { ev.timerStop( loop_, &timers_[ i ] ); }
   void run() { ev.run( loop_, 0 ); }

 private:
   static void expired( struct ev_loop*, ev_timer* timer, int ) {
      ++static_cast<EvTimers*>( timer->data )->fired_;
   }

   Loop loop_;
   std::vector<ev_timer> timers_;
};

class EvPlayers final : public Players {
 public:
   EvPlayers( Game& game, Look look )
         : game_( game ),
           players_( 2 * game.pairs.size() ),
           waiting_( players_.size() ) {
      ev_idle_init( &idle_, &EvPlayers::turn );
      // Else it would be called only in turns that found no descriptor ready.
      ev_set_priority( &idle_, EV_MAXPRI );
      idle_.data = this;
      for( std::size_t i = 0; i < players_.size(); ++i ) {
         ev_io& player = players_[ i ];
         ev_io_init( &player, look == Look::one ? &EvPlayers::waits : &EvPlayers::plays,
                     game.pairs[ i / 2 ].end( static_cast<unsigned>( i % 2 ) ), EV_READ );
         player.data = this;
         ev.ioStart( loop_, &player );
      }
   }

   Time play() override {
      return timeOf( [ this ] { ev.run( loop_, 0 ); } );
   }

 private:
   static void plays( struct ev_loop*, ev_io* player, int ) {
      static_cast<EvPlayers*>( player->data )->returnByte( player->fd );
   }
   static void waits( struct ev_loop* loop, ev_io* player, int ) {
      auto* self = static_cast<EvPlayers*>( player->data );
      ev.ioStop( loop, player );
      if( self->waiting_.empty() ) {
         ev.idleStart( loop, &self->idle_ );
      }
      self->waiting_.push( *player );
   }
   static void turn( struct ev_loop* loop, ev_idle* idle, int ) {
      auto* self = static_cast<EvPlayers*>( idle->data );
      ev_io& player = self->waiting_.pop();
      if( self->waiting_.empty() ) {
         ev.idleStop( loop, idle );
      }
      ev.ioStart( loop, &player );
      self->returnByte( player.fd );
   }

   void returnByte( int fd ) {
      if( !game_.returnByte( fd ) ) {
         ev.breakLoop( loop_, EVBREAK_ALL );
      }
   }

   Game& game_;
   Loop loop_;
   ev_idle idle_;
   std::vector<ev_io> players_;
   Waiting<ev_io> waiting_;
};

class EvRequests final : public Requests {
 public:
   explicit EvRequests( std::size_t count ) : idles_( count ) {
      for( ev_idle& idle : idles_ ) {
         ev_idle_init( &idle, &EvRequests::called );
      }
   }

   Time ask() override {
      const Time time = timeOf( [ this ] {
         for( ev_idle& idle : idles_ ) {
            ev.idleStart( loop_, &idle );
         }
      } );
      ev.run( loop_, 0 );
      return time;
   }

 private:
   static void called( struct ev_loop* loop, ev_idle* idle, int ) { ev.idleStop( loop, idle ); }

   Loop loop_;
   std::vector<ev_idle> idles_;
};

class Libev final : public PeerOf<EvTurns, EvTimers, EvPlayers, EvRequests> {
 public:
   char const* name() const override { return "libev"; }
   std::string version() const override {
      return fmt::format( "libev {}.{}", ev.versionMajor(), ev.versionMinor() );
   }
};

} // namespace

const Peer& libev() {
   static const Libev peer;
   return peer;
}

} // namespace bench::peers

#pragma GCC diagnostic pop
