// GLib's main loop.

#include "Peer.h"
#include "Rotation.h"
#include "TimersOf.h"
#include "Waiting.h"

// Its macros cast as C does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wpedantic"
#include <glib.h>

#include <fmt/format.h>

#include <cmath>

namespace bench::peers {

namespace {

class Loop {
 public:
   Loop() = default;
   ~Loop() {
      g_main_loop_unref( loop_ );
      g_main_context_unref( context_ );
   }
   Loop( const Loop& ) = delete;
   Loop& operator=( const Loop& ) = delete;

   void run() { g_main_loop_run( loop_ ); }
   void quit() { g_main_loop_quit( loop_ ); }
   GMainContext* context() { return context_; }

   // The loop owns the source from now on.
   GSource* attach( GSource* source ) {
      g_source_attach( source, context_ );
      g_source_unref( source );
      return source;
   }

   // Calls `function` in each turn while it returns true. As sources are by default, and unlike
   // its idle sources by default, it gives way to nothing.
   GSource* attachIdle( GSourceFunc function, gpointer argument ) {
      GSource* source = g_idle_source_new();
      g_source_set_priority( source, G_PRIORITY_DEFAULT );
      g_source_set_callback( source, function, argument, nullptr );
      return attach( source );
   }

 private:
   GMainContext* context_ = g_main_context_new();
   GMainLoop* loop_ = g_main_loop_new( context_, FALSE );
};

class GlibTurns final : public Turns {
 public:
   explicit GlibTurns( std::size_t waiting ) : rotation_( waiting ) {}

   Time run( std::int64_t units ) override {
      rotation_.begin( units );
      loop_.attachIdle( &GlibTurns::called, this );
      return timeOf( [ this ] { loop_.run(); } );
   }

 private:
   static gboolean called( gpointer argument ) {
      auto* self = static_cast<GlibTurns*>( argument );
      if( self->rotation_.next() ) {
         return G_SOURCE_CONTINUE;
      }
      self->loop_.quit();
      return G_SOURCE_REMOVE;
   }

   Loop loop_;
   Rotation rotation_;
};

class GlibTimers final : public TimersOf<GlibTimers, guint> {
 public:
   explicit GlibTimers( const Draws& draws ) : TimersOf( draws ), sources_( draws.delays.size() ) {}

   // It has timers of whole milliseconds.
   static guint delayOf( double seconds ) {
      return static_cast<guint>( std::ceil( seconds * 1e3 ) );
   }
   void add( std::size_t i, guint delay ) {
      GSource* source = g_timeout_source_new( delay );
      g_source_set_callback( source, &GlibTimers::expired, this, nullptr );
      sources_[ i ] = loop_.attach( source );
   }
   // A source can be given another time, at the price of a system call.
   void moveTo( std::size_t i, guint delay ) {
      remove( i );
      add( i, delay );
   }
   void remove( std::size_t i ) { g_source_destroy( sources_[ i ] ); }
   void run() { loop_.run(); }

 private:
   static gboolean expired( gpointer argument ) {
      auto* self = static_cast<GlibTimers*>( argument );
      ++self->fired_;
      if( self->allFired() ) {
         self->loop_.quit();
      }
      return G_SOURCE_REMOVE;
   }

   Loop loop_;
   std::vector<GSource*> sources_;
};

class GlibPlayers final : public Players {
 public:
   GlibPlayers( Game& game, Look look ) : game_( game ), waiting_( 2 * game.pairs.size() ) {
      for( const Pair& pair : game.pairs ) {
         for( unsigned end = 0; end < 2; ++end ) {
            static GSourceFuncs functions = {
                  nullptr, &GlibPlayers::check, &GlibPlayers::dispatch, nullptr, nullptr, nullptr };
            GSource* source = g_source_new( &functions, sizeof( Player ) );
            auto* player = reinterpret_cast<Player*>( source );
            player->players = this;
            player->polled = { pair.end( end ), G_IO_IN, 0 };
            player->heard = look == Look::one ? &GlibPlayers::waits : &GlibPlayers::plays;
            g_source_add_poll( source, &player->polled );
            loop_.attach( source );
         }
      }
   }

   Time play() override {
      return timeOf( [ this ] { loop_.run(); } );
   }

 private:
   // A source with its descriptor in it, which is polled for as long as `events` says so; to say so
   // with g_source_modify_unix_fd takes a system call each time.
   struct Player {
      GSource source;
      GPollFD polled;
      GlibPlayers* players;
      void ( *heard )( GlibPlayers&, Player& );
   };

   static gboolean check( GSource* source ) {
      return reinterpret_cast<Player*>( source )->polled.revents != 0;
   }
   static gboolean dispatch( GSource* source, GSourceFunc, gpointer ) {
      auto* player = reinterpret_cast<Player*>( source );
      player->heard( *player->players, *player );
      return G_SOURCE_CONTINUE;
   }
   static void plays( GlibPlayers& self, Player& player ) { self.returnByte( player.polled.fd ); }
   static void waits( GlibPlayers& self, Player& player ) {
      player.polled.events = 0;
      if( self.waiting_.empty() ) {
         self.loop_.attachIdle( &GlibPlayers::turn, &self );
      }
      self.waiting_.push( player );
   }
   static gboolean turn( gpointer argument ) {
      auto* self = static_cast<GlibPlayers*>( argument );
      Player& player = self->waiting_.pop();
      player.polled.events = G_IO_IN;
      self->returnByte( player.polled.fd );
      return self->waiting_.empty() ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
   }

   void returnByte( int fd ) {
      if( !game_.returnByte( fd ) ) {
         loop_.quit();
      }
   }

   Game& game_;
   Loop loop_;
   Waiting<Player> waiting_;
};

class GlibRequests final : public Requests {
 public:
   explicit GlibRequests( std::size_t count ) : count_( count ) {}

   Time ask() override {
      const Time time = timeOf( [ this ] {
         for( std::size_t i = 0; i < count_; ++i ) {
            loop_.attachIdle( &GlibRequests::called, this );
         }
      } );
      left_ = count_;
      loop_.run();
      return time;
   }

 private:
   static gboolean called( gpointer argument ) {
      auto* self = static_cast<GlibRequests*>( argument );
      if( --self->left_ == 0 ) {
         self->loop_.quit();
      }
      return G_SOURCE_REMOVE;
   }

   std::size_t count_;
   std::size_t left_ = 0;
   Loop loop_;
};

class Glib final : public PeerOf<GlibTurns, GlibTimers, GlibPlayers, GlibRequests> {
 public:
   char const* name() const override { return "GLib"; }
   std::string version() const override {
      return fmt::format( "GLib {}.{}.{}", glib_major_version, glib_minor_version,
                          glib_micro_version );
   }
};

} // namespace

const Peer& glib() {
   static const Glib peer;
   return peer;
}

} // namespace bench::peers

#pragma GCC diagnostic pop
