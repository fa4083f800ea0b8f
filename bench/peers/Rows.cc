#include "Rows.h"

#include "Looks.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include <sys/resource.h>

namespace bench::peers {

namespace {

template<typename Body>
void take( Listener& listener, std::size_t step, std::int64_t units, Body&& body ) {
   listener.begins( step, units );
   const std::int64_t before = looks();
   const Time time = body();
   listener.ends( step, units, time, looks() - before );
}

class TurnWork final : public Work {
 public:
   TurnWork( const Peer& peer, std::size_t waiting )
         : units_( static_cast<std::int64_t>( std::max<std::size_t>( waiting, 4000 ) ) ),
           turns_( peer.turns( waiting ) ) {}

   void slice( Listener& listener ) override {
      take( listener, 0, units_, [ this ] { return turns_->run( units_ ); } );
   }

 private:
   std::int64_t units_;
   std::unique_ptr<Turns> turns_;
};

// The slowest of the timers that are to expire is due after 100 ms.
constexpr std::chrono::milliseconds untilAllAreDue{ 125 };

class TimerWork final : public Work {
 public:
   TimerWork( const Peer& peer, std::size_t count )
         : cycles_( std::max<std::size_t>( 20'000 / count, 1 ) ),
           draws_( count ),
           timers_( peer.timers( draws_ ) ) {}

   void slice( Listener& listener ) override {
      const auto count = static_cast<std::int64_t>( draws_.delays.size() );
      for( std::size_t cycle = 0; cycle < cycles_; ++cycle ) {
         take( listener, 0, count, [ this ] { return timers_->start(); } );
         take( listener, 1, count / 5, [ this ] { return timers_->move(); } );
         take( listener, 2, count, [ this ] { return timers_->stop(); } );
      }
      timers_->startSoon();
      std::this_thread::sleep_for( untilAllAreDue );
      take( listener, 3, count, [ this ] { return timers_->deliver(); } );
   }

 private:
   std::size_t cycles_;
   Draws draws_;
   std::unique_ptr<Timers> timers_;
};

// Two thousand descriptors are more than the usual limit.
std::size_t withDescriptors( std::size_t pairs ) {
   rlimit limit{};
   getrlimit( RLIMIT_NOFILE, &limit );
   limit.rlim_cur = limit.rlim_max;
   setrlimit( RLIMIT_NOFILE, &limit );
   return pairs;
}

class PairWork final : public Work {
 public:
   PairWork( const Peer& peer, std::size_t pairs, Look look )
         : roundTrips_( static_cast<std::int64_t>( std::max<std::size_t>( 2 * pairs, 500 ) ) ),
           game_( withDescriptors( pairs ) ),
           players_( peer.players( game_, look ) ) {}

   void slice( Listener& listener ) override {
      game_.serve( roundTrips_ );
      take( listener, 0, roundTrips_, [ this ] { return players_->play(); } );
   }

 private:
   std::int64_t roundTrips_;
   Game game_;
   std::unique_ptr<Players> players_;
};

class RequestWork final : public Work {
 public:
   RequestWork( const Peer& peer, std::size_t count )
         : cycles_( std::max<std::size_t>( 2000 / count, 1 ) ),
           count_( count ),
           requests_( peer.requests( count ) ) {}

   void slice( Listener& listener ) override {
      for( std::size_t cycle = 0; cycle < cycles_; ++cycle ) {
         take( listener, 0, static_cast<std::int64_t>( count_ ),
               [ this ] { return requests_->ask(); } );
      }
   }

 private:
   std::size_t cycles_;
   std::size_t count_;
   std::unique_ptr<Requests> requests_;
};

// More work in a slice means fewer of them.
int passes( std::size_t n, int few, int many, int most ) {
   return n >= 1'000'000 ? few : n >= 100'000 ? many : most;
}

} // namespace

std::vector<Row> allRows() {
   const std::vector<std::size_t> sizes{ 10, 100, 1000, 10'000, 100'000, 1'000'000 };
   std::vector<Row> rows;
   const auto turns = [ & ]( std::size_t n ) {
      rows.push_back( { "turn", n, { "run" }, passes( n, 5, 7, 25 ), [ n ]( const Peer& peer ) {
                          return std::make_unique<TurnWork>( peer, n );
                       } } );
   };
   turns( 1 );
   std::ranges::for_each( sizes, turns );
   for( const std::size_t n : sizes ) {
      rows.push_back(
            { "timers",
              n,
              { "insert", "move", "cancel", "expire" },
              passes( n, 3, 5, 7 ),
              [ n ]( const Peer& peer ) { return std::make_unique<TimerWork>( peer, n ); } } );
   }
   for( const std::size_t n : std::array<std::size_t, 3>{ 1, 100, 1000 } ) {
      for( const Look look : { Look::one, Look::asItComes } ) {
         // After a look at a lone pair there is never more than one to serve.
         if( n == 1 && look == Look::one ) {
            continue;
         }
         rows.push_back( { look == Look::one ? "pairs_one" : "pairs",
                           n,
                           { "round trip" },
                           n == 1000 ? 9 : 25,
                           [ n, look ]( const Peer& peer ) {
                              return std::make_unique<PairWork>( peer, n, look );
                           } } );
      }
   }
   for( const std::size_t n : sizes ) {
      rows.push_back( { "requests", n, { "ask" }, passes( n, 5, 7, 15 ), [ n ]( const Peer& peer ) {
                          return std::make_unique<RequestWork>( peer, n );
                       } } );
   }
   return rows;
}

} // namespace bench::peers
