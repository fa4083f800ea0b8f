// libuv.

#include "Peer.h"
#include "Rotation.h"
#include "TimersOf.h"
#include "Waiting.h"

#include <cmath>

#include <uv.h>

namespace bench::peers {

namespace {

// A loop of a side's own. It lives as long as the process, as handles may not be freed before the
// loop has closed them.
uv_loop_t* makeLoop() {
   auto* loop = new uv_loop_t;
   if( uv_loop_init( loop ) != 0 ) {
      fail( "uv_loop_init" );
   }
   return loop;
}

class UvTurns final : public Turns {
 public:
   explicit UvTurns( std::size_t waiting ) : rotation_( waiting ) {
      uv_idle_init( loop_, &idle_ );
      idle_.data = this;
   }

   Time run( std::int64_t units ) override {
      rotation_.begin( units );
      uv_idle_start( &idle_, &UvTurns::called );
      return timeOf( [ this ] { uv_run( loop_, UV_RUN_DEFAULT ); } );
   }

 private:
   static void called( uv_idle_t* idle ) {
      if( !static_cast<UvTurns*>( idle->data )->rotation_.next() ) {
         uv_idle_stop( idle );
      }
   }

   uv_loop_t* loop_ = makeLoop();
   uv_idle_t idle_;
   Rotation rotation_;
};

class UvTimers final : public TimersOf<UvTimers, std::uint64_t> {
 public:
   explicit UvTimers( const Draws& draws ) : TimersOf( draws ), timers_( draws.delays.size() ) {
      for( uv_timer_t& timer : timers_ ) {
         uv_timer_init( loop_, &timer );
         timer.data = this;
      }
   }

   // It has timers of whole milliseconds.
   static std::uint64_t delayOf( double seconds ) {
      return static_cast<std::uint64_t>( std::ceil( seconds * 1e3 ) );
   }
   void refreshClock() { uv_update_time( loop_ ); }
   void add( std::size_t i, std::uint64_t delay ) {
      uv_timer_start( &timers_[ i ], &UvTimers::expired, delay, 0 );
   }
   void moveTo( std::size_t i, std::uint64_t delay ) { add( i, delay ); }
   void remove( std::size_t i ) { uv_timer_stop( &timers_[ i ] ); }
   void run() { uv_run( loop_, UV_RUN_DEFAULT ); }

 private:
   static void expired( uv_timer_t* timer ) { ++static_cast<UvTimers*>( timer->data )->fired_; }

   uv_loop_t* loop_ = makeLoop();
   std::vector<uv_timer_t> timers_;
};

class UvPlayers final : public Players {
 public:
   UvPlayers( Game& game, Look look )
         : game_( game ),
           players_( 2 * game.pairs.size() ),
           waiting_( players_.size() ) {
      uv_idle_init( loop_, &idle_ );
      idle_.data = this;
      for( std::size_t i = 0; i < players_.size(); ++i ) {
         Player& player = players_[ i ];
         player.fd = game.pairs[ i / 2 ].end( static_cast<unsigned>( i % 2 ) );
         uv_poll_init( loop_, &player.poll, player.fd );
         player.poll.data = this;
         player.heard = look == Look::one ? &UvPlayers::waits : &UvPlayers::plays;
         uv_poll_start( &player.poll, UV_READABLE, player.heard );
      }
   }

   Time play() override {
      return timeOf( [ this ] { uv_run( loop_, UV_RUN_DEFAULT ); } );
   }

 private:
   struct Player {
      // First, so that a handle is its player.
      uv_poll_t poll;
      uv_poll_cb heard;
      int fd;
   };

   static void plays( uv_poll_t* poll, int, int ) {
      static_cast<UvPlayers*>( poll->data )->returnByte( reinterpret_cast<Player*>( poll )->fd );
   }
   static void waits( uv_poll_t* poll, int, int ) {
      auto* self = static_cast<UvPlayers*>( poll->data );
      uv_poll_stop( poll );
      if( self->waiting_.empty() ) {
         uv_idle_start( &self->idle_, &UvPlayers::turn );
      }
      self->waiting_.push( *reinterpret_cast<Player*>( poll ) );
   }
   static void turn( uv_idle_t* idle ) {
      auto* self = static_cast<UvPlayers*>( idle->data );
      Player& player = self->waiting_.pop();
      if( self->waiting_.empty() ) {
         uv_idle_stop( idle );
      }
      uv_poll_start( &player.poll, UV_READABLE, player.heard );
      self->returnByte( player.fd );
   }

   void returnByte( int fd ) {
      if( !game_.returnByte( fd ) ) {
         uv_stop( loop_ );
      }
   }

   Game& game_;
   uv_loop_t* loop_ = makeLoop();
   uv_idle_t idle_;
   std::vector<Player> players_;
   Waiting<Player> waiting_;
};

class UvRequests final : public Requests {
 public:
   explicit UvRequests( std::size_t count ) : idles_( count ) {
      for( uv_idle_t& idle : idles_ ) {
         uv_idle_init( loop_, &idle );
      }
   }

   Time ask() override {
      const Time time = timeOf( [ this ] {
         for( uv_idle_t& idle : idles_ ) {
            uv_idle_start( &idle, &UvRequests::called );
         }
      } );
      uv_run( loop_, UV_RUN_DEFAULT );
      return time;
   }

 private:
   static void called( uv_idle_t* idle ) { uv_idle_stop( idle ); }

   uv_loop_t* loop_ = makeLoop();
   std::vector<uv_idle_t> idles_;
};

class Libuv final : public PeerOf<UvTurns, UvTimers, UvPlayers, UvRequests> {
 public:
   char const* name() const override { return "libuv"; }
   std::string version() const override { return std::string( "libuv " ) + uv_version_string(); }
};

} // namespace

const Peer& libuv() {
   static const Libuv peer;
   return peer;
}

} // namespace bench::peers
