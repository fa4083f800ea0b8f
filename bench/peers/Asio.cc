// Boost.Asio.

#include "Peer.h"
#include "Rotation.h"
#include "TimersOf.h"
#include "Waiting.h"

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/basic_stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/version.hpp>

#include <chrono>
#include <deque>

#include <fmt/format.h>

namespace bench::peers {

namespace {

namespace asio = boost::asio;
using Executor = asio::io_context::executor_type;
using boost::system::error_code;

// The cheapest there is: nothing is locked, as a program with one thread may ask for, and executors
// are those of the context itself.
class Loop {
 public:
   asio::io_context context{ BOOST_ASIO_CONCURRENCY_HINT_UNSAFE };
   // A context looks at descriptors from when there is the first that could be looked at.
   asio::posix::basic_stream_descriptor<Executor> first{ context.get_executor() };

   void run() {
      context.restart();
      context.run();
   }
};

class AsioTurns final : public Turns {
 public:
   explicit AsioTurns( std::size_t waiting ) : rotation_( waiting ) {}

   Time run( std::int64_t units ) override {
      rotation_.begin( units );
      post();
      return timeOf( [ this ] { loop_.run(); } );
   }

 private:
   void post() {
      asio::post( loop_.context, [ this ] {
         if( rotation_.next() ) {
            post();
         }
      } );
   }

   Loop loop_;
   Rotation rotation_;
};

class AsioTimers final : public TimersOf<AsioTimers, std::chrono::nanoseconds> {
 public:
   explicit AsioTimers( const Draws& draws ) : TimersOf( draws ) {
      for( std::size_t i = 0; i < draws.delays.size(); ++i ) {
         timers_.emplace_back( loop_.context.get_executor() );
      }
   }

   static std::chrono::nanoseconds delayOf( double seconds ) {
      return std::chrono::nanoseconds( static_cast<std::int64_t>( seconds * 1e9 ) );
   }
   void add( std::size_t i, std::chrono::nanoseconds delay ) {
      timers_[ i ].expires_after( delay );
      timers_[ i ].async_wait( [ this ]( const error_code& error ) {
         if( !error ) {
            ++fired_;
         }
      } );
   }
   // Another time cancels the wait, and a new one follows.
   void moveTo( std::size_t i, std::chrono::nanoseconds delay ) { add( i, delay ); }
   void remove( std::size_t i ) { timers_[ i ].cancel(); }
   // The waits that were cancelled are told so, each.
   void settle() {
      loop_.context.restart();
      loop_.context.poll();
   }
   void run() { loop_.run(); }

 private:
   using Timer = asio::basic_waitable_timer<std::chrono::steady_clock,
                                            asio::wait_traits<std::chrono::steady_clock>, Executor>;

   Loop loop_;
   std::deque<Timer> timers_;
};

class AsioPlayers final : public Players {
 public:
   AsioPlayers( Game& game, Look look )
         : game_( game ),
           look_( look ),
           waiting_( 2 * game.pairs.size() ) {
      for( const Pair& pair : game.pairs ) {
         for( unsigned end = 0; end < 2; ++end ) {
            listen( players_.emplace_back( loop_.context.get_executor(), pair.end( end ) ) );
         }
      }
   }
   // The descriptors are the game's.
   ~AsioPlayers() override {
      for( Player& player : players_ ) {
         player.release();
      }
   }

   Time play() override {
      return timeOf( [ this ] { loop_.run(); } );
   }

 private:
   using Player = asio::posix::basic_stream_descriptor<Executor>;

   // Each wait is for one readiness: a player that waits for its turn is not asked about.
   void listen( Player& player ) {
      player.async_wait( Player::wait_read, [ this, &player ]( const error_code& error ) {
         if( error ) {
            return;
         }
         if( look_ == Look::asItComes ) {
            plays( player );
            return;
         }
         if( waiting_.empty() ) {
            turn();
         }
         waiting_.push( player );
      } );
   }

   void turn() {
      asio::post( loop_.context, [ this ] {
         Player& player = waiting_.pop();
         if( !waiting_.empty() ) {
            turn();
         }
         plays( player );
      } );
   }

   void plays( Player& player ) {
      if( !game_.returnByte( player.native_handle() ) ) {
         loop_.context.stop();
      }
      listen( player );
   }

   Game& game_;
   Look look_;
   Loop loop_;
   Waiting<Player> waiting_;
   std::deque<Player> players_;
};

class AsioRequests final : public Requests {
 public:
   explicit AsioRequests( std::size_t count ) : count_( count ) {}

   Time ask() override {
      const Time time = timeOf( [ this ] {
         for( std::size_t i = 0; i < count_; ++i ) {
            asio::post( loop_.context, [ this ] { ++called_; } );
         }
      } );
      loop_.run();
      return time;
   }

 private:
   std::size_t count_;
   std::size_t called_ = 0;
   Loop loop_;
};

class Asio final : public PeerOf<AsioTurns, AsioTimers, AsioPlayers, AsioRequests> {
 public:
   char const* name() const override { return "Asio"; }
   std::string version() const override {
      return fmt::format( "Boost.Asio {}.{}.{}", BOOST_VERSION / 100000, BOOST_VERSION / 100 % 1000,
                          BOOST_VERSION % 100 );
   }
};

} // namespace

const Peer& asio() {
   static const Asio peer;
   return peer;
}

} // namespace bench::peers
