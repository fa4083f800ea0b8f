// sd-event, systemd's event loop.

#include "Peer.h"
#include "Rotation.h"
#include "TimersOf.h"

#include <systemd/sd-event.h>

#include <cstring>

#include <fmt/format.h>

namespace bench::peers {

namespace {

void require( int result, char const* what ) {
   if( result < 0 ) {
      fmt::print( stderr, "{}: {}\n", what, std::strerror( -result ) );
      std::abort();
   }
}

// A loop that runs until it is told to stop.
class Loop {
 public:
   Loop() { require( sd_event_new( &event_ ), "sd_event_new" ); }
   ~Loop() { sd_event_unref( event_ ); }
   Loop( const Loop& ) = delete;
   Loop& operator=( const Loop& ) = delete;

   operator sd_event*() const { return event_; }

   void run() {
      for( running_ = true; running_; ) {
         require( sd_event_run( event_, UINT64_MAX ), "sd_event_run" );
      }
   }
   void stop() { running_ = false; }

 private:
   sd_event* event_ = nullptr;
   bool running_ = false;
};

class SdTurns final : public Turns {
 public:
   explicit SdTurns( std::size_t waiting ) : rotation_( waiting ) {
      require( sd_event_add_defer( loop_, &source_, &SdTurns::called, this ),
               "sd_event_add_defer" );
      sd_event_source_set_enabled( source_, SD_EVENT_ON );
   }
   ~SdTurns() override { sd_event_source_unref( source_ ); }

   Time run( std::int64_t units ) override {
      rotation_.begin( units );
      return timeOf( [ this ] { loop_.run(); } );
   }

 private:
   static int called( sd_event_source*, void* argument ) {
      auto* self = static_cast<SdTurns*>( argument );
      if( !self->rotation_.next() ) {
         self->loop_.stop();
      }
      return 0;
   }

   Loop loop_;
   sd_event_source* source_ = nullptr;
   Rotation rotation_;
};

// The sources are made once and then switched on and off, as that is cheaper than making them.
class SdTimers final : public TimersOf<SdTimers, std::uint64_t> {
 public:
   explicit SdTimers( const Draws& draws ) : TimersOf( draws ), sources_( draws.delays.size() ) {
      for( sd_event_source*& source : sources_ ) {
         require( sd_event_add_time( loop_, &source, CLOCK_MONOTONIC, UINT64_MAX, 1,
                                     &SdTimers::expired, this ),
                  "sd_event_add_time" );
         sd_event_source_set_enabled( source, SD_EVENT_OFF );
      }
   }
   ~SdTimers() override {
      for( sd_event_source* source : sources_ ) {
         sd_event_source_unref( source );
      }
   }

   static std::uint64_t delayOf( double seconds ) {
      return static_cast<std::uint64_t>( seconds * 1e6 );
   }
   void add( std::size_t i, std::uint64_t delay ) {
      moveTo( i, delay );
      sd_event_source_set_enabled( sources_[ i ], SD_EVENT_ONESHOT );
   }
   void moveTo( std::size_t i, std::uint64_t delay ) {
      sd_event_source_set_time_relative( sources_[ i ], delay );
   }
   void remove( std::size_t i ) { sd_event_source_set_enabled( sources_[ i ], SD_EVENT_OFF ); }
   void run() { loop_.run(); }

 private:
   static int expired( sd_event_source*, std::uint64_t, void* argument ) {
      auto* self = static_cast<SdTimers*>( argument );
      ++self->fired_;
      if( self->allFired() ) {
         self->loop_.stop();
      }
      return 0;
   }

   Loop loop_;
   std::vector<sd_event_source*> sources_;
};

// It calls one source after each look by itself.
class SdPlayers final : public Players {
 public:
   explicit SdPlayers( Game& game ) : game_( game ) {
      for( const Pair& pair : game.pairs ) {
         for( unsigned end = 0; end < 2; ++end ) {
            // The loop owns it.
            require( sd_event_add_io( loop_, nullptr, pair.end( end ), EPOLLIN,
                                      &SdPlayers::readable, this ),
                     "sd_event_add_io" );
         }
      }
   }

   Time play() override {
      return timeOf( [ this ] { loop_.run(); } );
   }

 private:
   static int readable( sd_event_source*, int fd, std::uint32_t, void* argument ) {
      auto* self = static_cast<SdPlayers*>( argument );
      if( !self->game_.returnByte( fd ) ) {
         self->loop_.stop();
      }
      return 0;
   }

   Game& game_;
   Loop loop_;
};

class SdRequests final : public Requests {
 public:
   explicit SdRequests( std::size_t count ) : sources_( count ) {
      for( sd_event_source*& source : sources_ ) {
         require( sd_event_add_defer( loop_, &source, &SdRequests::called, this ),
                  "sd_event_add_defer" );
         sd_event_source_set_enabled( source, SD_EVENT_OFF );
      }
   }
   ~SdRequests() override {
      for( sd_event_source* source : sources_ ) {
         sd_event_source_unref( source );
      }
   }

   Time ask() override {
      const Time time = timeOf( [ this ] {
         for( sd_event_source* source : sources_ ) {
            sd_event_source_set_enabled( source, SD_EVENT_ONESHOT );
         }
      } );
      left_ = sources_.size();
      loop_.run();
      return time;
   }

 private:
   static int called( sd_event_source*, void* argument ) {
      auto* self = static_cast<SdRequests*>( argument );
      if( --self->left_ == 0 ) {
         self->loop_.stop();
      }
      return 0;
   }

   Loop loop_;
   std::vector<sd_event_source*> sources_;
   std::size_t left_ = 0;
};

class SdEvent final : public PeerOf<SdTurns, SdTimers, SdPlayers, SdRequests> {
 public:
   char const* name() const override { return "sd-event"; }
   std::string version() const override { return "systemd " ORUQUARN_SYSTEMD_VERSION; }
};

} // namespace

const Peer& sdEvent() {
   static const SdEvent peer;
   return peer;
}

} // namespace bench::peers
