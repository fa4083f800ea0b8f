// One byte that goes to and fro on socket pairs: descriptor tasks against bare read events.

#include "Figure.h"
#include "Game.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <sys/resource.h>

namespace bench {

namespace {

// Round trips in a slice, with one pair, a hundred and a thousand.
constexpr std::int64_t lone = 1000;
constexpr std::int64_t hundred = 5000;
constexpr std::int64_t thousand = 20'000;

class TaskGame {
 public:
   explicit TaskGame( std::size_t pairs ) : game_( pairs ) {
      for( const Pair& pair : game_.pairs ) {
         for( unsigned end = 0; end < 2; ++end ) {
            players_.push_back( std::make_shared<Player>( *this, pair.end( end ) ) );
         }
      }
   }

   Time play( std::int64_t roundTrips ) {
      for( const auto& player : players_ ) {
         player->joins();
      }
      game_.serve( roundTrips );
      // It ends when nobody watches any more.
      return timed( [] { Quarn::doLeEventLoop(); } );
   }

 private:
   class Player final : public Quarn::FileDescriptorTask {
    public:
      Player( TaskGame& game, int fd )
            : FileDescriptorTask( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal,
                                  "BenchPlayerTask" ),
              game_( game ),
              fd_( fd ) {}
      void joins() { taskWatchFdIs( fd_ ); }

    private:
      void taskExecuteReadable() override {
         if( !game_.game_.returnByte( fd_ ) ) {
            for( const auto& player : game_.players_ ) {
               player->taskWatchFdDel();
            }
         }
      }
      void taskExecuteWritable() override {}

      TaskGame& game_;
      int fd_;
   };

   Game game_;
   std::vector<std::shared_ptr<Player>> players_;
};

class BareGame {
 public:
   explicit BareGame( std::size_t pairs )
         : base_( Quarn::leCreateBase() ),
           game_( pairs ),
           players_( 2 * pairs ) {
      for( std::size_t i = 0; i < players_.size(); ++i ) {
         players_[ i ].game = this;
         event_assign( &players_[ i ].readable, base_,
                       game_.pairs[ i / 2 ].end( static_cast<unsigned>( i % 2 ) ),
                       EV_READ | EV_PERSIST, &BareGame::readable, &players_[ i ] );
      }
   }
   ~BareGame() { event_base_free( base_ ); }
   BareGame( const BareGame& ) = delete;
   BareGame& operator=( const BareGame& ) = delete;

   Time play( std::int64_t roundTrips ) {
      for( Player& player : players_ ) {
         event_add( &player.readable, nullptr );
      }
      game_.serve( roundTrips );
      return timed( [ this ] { event_base_dispatch( base_ ); } );
   }

 private:
   struct Player {
      BareGame* game = nullptr;
      event readable;
   };

   static void readable( evutil_socket_t fd, short, void* argument ) {
      BareGame& self = *static_cast<Player*>( argument )->game;
      if( !self.game_.returnByte( fd ) ) {
         for( Player& player : self.players_ ) {
            event_del( &player.readable );
         }
      }
   }

   event_base* base_;
   Game game_;
   std::vector<Player> players_;
};

class PingPongSides final : public Sides {
 public:
   PingPongSides( std::size_t pairs, std::int64_t roundTrips )
         : roundTrips_( roundTrips ),
           tasks_( pairs ),
           bare_( pairs ) {}

   Time ours() override { return tasks_.play( roundTrips_ ); }
   Time floor() override { return bare_.play( roundTrips_ ); }

 private:
   std::int64_t roundTrips_;
   TaskGame tasks_;
   BareGame bare_;
};

class ScaleSides final : public Sides {
 public:
   ScaleSides( std::int64_t manyTrips, std::int64_t fewTrips )
         : manyTrips_( manyTrips ),
           fewTrips_( fewTrips ) {}

   Time ours() override { return many_.play( manyTrips_ ); }
   Time floor() override { return few_.play( fewTrips_ ); }

 private:
   // The limit first: two thousand descriptors are more than the usual one.
   struct DescriptorLimit {
      DescriptorLimit() {
         rlimit limit{};
         getrlimit( RLIMIT_NOFILE, &limit );
         limit.rlim_cur = limit.rlim_max;
         setrlimit( RLIMIT_NOFILE, &limit );
      }
   };

   std::int64_t manyTrips_;
   std::int64_t fewTrips_;
   DescriptorLimit limit_;
   TaskGame many_{ 1000 };
   TaskGame few_{ 100 };
};

} // namespace

void fdFigures( std::vector<Figure>& figures ) {
   figures.push_back( { "fd_pingpong_1", 1.25, lone, lone,
                        [] { return std::make_unique<PingPongSides>( 1, lone ); }, manySlices } );
   figures.push_back( { "fd_pingpong_100", 2.6, hundred, hundred,
                        [] { return std::make_unique<PingPongSides>( 100, hundred ); }, 10 } );
   figures.push_back( { "fd_scale", 1.3, thousand, hundred,
                        [] { return std::make_unique<ScaleSides>( thousand, hundred ); }, 10 } );
}

} // namespace bench
