// The bare floor: the event library that the library runs on, used directly.

#include "Peer.h"
#include "Rotation.h"
#include "TimersOf.h"

#include <Quarn/LibeventFactoryCpp.h>

#include <event2/event.h>
#include <event2/event_struct.h>

namespace bench::peers {

namespace {

constexpr timeval atOnce{ 0, 0 };

// A base with the library's settings, for the callbacks of a side.
class Base {
 public:
   explicit Base( event_base* base = Quarn::leCreateBase() ) : base_( base ) {
      if( !base_ ) {
         fail( "making an event base" );
      }
   }
   ~Base() { event_base_free( base_ ); }
   Base( const Base& ) = delete;
   Base& operator=( const Base& ) = delete;

   operator event_base*() const { return base_; }

 private:
   event_base* base_;
};

// The settings of the library's bases, and a look at the descriptors after each callback.
event_base* oneCallbackALook() {
   event_config* config = event_config_new();
   event_config_set_flag( config, EVENT_BASE_FLAG_NO_CACHE_TIME );
   event_config_set_max_dispatch_interval( config, nullptr, 1, 0 );
   event_base* base = event_base_new_with_config( config );
   event_config_free( config );
   if( base && event_base_priority_init( base, 2 ) != 0 ) {
      fail( "event_base_priority_init" );
   }
   return base;
}

// A timer that fires after no time and adds itself again.
class FloorTurns final : public Turns {
 public:
   explicit FloorTurns( std::size_t waiting ) : rotation_( waiting ) {
      evtimer_assign( &event_, base_, &FloorTurns::fired, this );
   }

   Time run( std::int64_t units ) override {
      rotation_.begin( units );
      event_add( &event_, &atOnce );
      return timeOf( [ this ] { event_base_dispatch( base_ ); } );
   }

 private:
   static void fired( evutil_socket_t, short, void* argument ) {
      auto* self = static_cast<FloorTurns*>( argument );
      if( self->rotation_.next() ) {
         event_add( &self->event_, &atOnce );
      }
   }

   Base base_;
   event event_;
   Rotation rotation_;
};

class FloorTimers final : public TimersOf<FloorTimers, timeval> {
 public:
   explicit FloorTimers( const Draws& draws ) : TimersOf( draws ), events_( draws.delays.size() ) {
      for( event& ev : events_ ) {
         evtimer_assign( &ev, base_, &FloorTimers::expired, this );
      }
   }

   static timeval delayOf( double seconds ) {
      const auto whole = static_cast<time_t>( seconds );
      return { whole,
               static_cast<suseconds_t>( ( seconds - static_cast<double>( whole ) ) * 1e6 ) };
   }
   void add( std::size_t i, const timeval& delay ) { event_add( &events_[ i ], &delay ); }
   void moveTo( std::size_t i, const timeval& delay ) { event_add( &events_[ i ], &delay ); }
   void remove( std::size_t i ) { event_del( &events_[ i ] ); }
   void run() { event_base_dispatch( base_ ); }

 private:
   static void expired( evutil_socket_t, short, void* self ) {
      ++static_cast<FloorTimers*>( self )->fired_;
   }

   Base base_;
   std::vector<event> events_;
};

class FloorPlayers final : public Players {
 public:
   FloorPlayers( Game& game, Look look )
         : game_( game ),
           base_( look == Look::one ? oneCallbackALook() : Quarn::leCreateBase() ),
           events_( 2 * game.pairs.size() ) {
      for( std::size_t i = 0; i < events_.size(); ++i ) {
         event_assign( &events_[ i ], base_,
                       game.pairs[ i / 2 ].end( static_cast<unsigned>( i % 2 ) ),
                       EV_READ | EV_PERSIST, &FloorPlayers::readable, this );
         event_add( &events_[ i ], nullptr );
      }
   }

   Time play() override {
      return timeOf( [ this ] { event_base_dispatch( base_ ); } );
   }

 private:
   static void readable( evutil_socket_t fd, short, void* argument ) {
      auto* self = static_cast<FloorPlayers*>( argument );
      if( !self->game_.returnByte( fd ) ) {
         event_base_loopbreak( self->base_ );
      }
   }

   Game& game_;
   Base base_;
   std::vector<event> events_;
};

class FloorRequests final : public Requests {
 public:
   explicit FloorRequests( std::size_t count ) : events_( count ) {
      for( event& ev : events_ ) {
         evtimer_assign( &ev, base_, &FloorRequests::fired, nullptr );
      }
   }

   Time ask() override {
      const Time time = timeOf( [ this ] {
         for( event& ev : events_ ) {
            event_add( &ev, &atOnce );
         }
      } );
      event_base_dispatch( base_ );
      return time;
   }

 private:
   static void fired( evutil_socket_t, short, void* ) {}

   Base base_;
   std::vector<event> events_;
};

class Floor final : public PeerOf<FloorTurns, FloorTimers, FloorPlayers, FloorRequests> {
 public:
   char const* name() const override { return "floor"; }
   std::string version() const override { return std::string( "libevent " ) + event_get_version(); }
};

} // namespace

const Peer& bareFloor() {
   static const Floor peer;
   return peer;
}

} // namespace bench::peers
