// A side of the comparison: the library, the bare floor, or a peer of the library's.
//
// Each side does the same work by its own means. What is virtual here is called once for a slice,
// never within one.

#pragma once

#include "bench/Draws.h"
#include "bench/Figure.h"
#include "bench/Game.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace bench::peers {

// How long `body` takes. Nothing that is measured here waits, so the processor time, the kernel's
// share included, is the real time less what neighbours took of it; and the real time is the
// processor time less what it costs to ask for that. The smaller of the two is nearer the truth.
template<typename Body>
Time timeOf( Body&& body ) {
   const auto processorTime = [] {
      timespec time{};
      clock_gettime( CLOCK_PROCESS_CPUTIME_ID, &time );
      return Time( std::chrono::seconds( time.tv_sec ) ) + std::chrono::nanoseconds( time.tv_nsec );
   };
   const Time begin = processorTime();
   const Time real = timed( body );
   return std::min( real, Time( processorTime() - begin ) );
}

// Units that run in turn, each once in each round.
class Turns {
 public:
   virtual ~Turns() = default;
   // Runs so many of them. The side looks at the descriptors between any two.
   virtual Time run( std::int64_t units ) = 0;
};

// As many timers as there are draws. They are stopped, or have fired, before they are started anew,
// save in `move`, which moves a fifth of those that run.
class Timers {
 public:
   virtual ~Timers() = default;
   virtual Time start() = 0;
   virtual Time move() = 0;
   virtual Time stop() = 0;
   // Starts all with the short delays; `deliver` follows when all are due.
   virtual void startSoon() = 0;
   virtual Time deliver() = 0;
};

// The players of a game, one at each end of each pair.
class Players {
 public:
   virtual ~Players() = default;
   // Runs the loop until the game, which was served, is over.
   virtual Time play() = 0;
};

// Callbacks that are asked for, all of them, and then run.
class Requests {
 public:
   virtual ~Requests() = default;
   // The time of asking alone.
   virtual Time ask() = 0;
};

// How many players may act after one look at the descriptors.
enum class Look {
   // What the side does by itself.
   asItComes,
   one,
};

class Peer {
 public:
   virtual ~Peer() = default;
   virtual char const* name() const = 0;
   // The library and its version; empty for our own.
   virtual std::string version() const = 0;
   virtual std::unique_ptr<Turns> turns( std::size_t waiting ) const = 0;
   virtual std::unique_ptr<Timers> timers( const Draws& draws ) const = 0;
   virtual std::unique_ptr<Players> players( Game& game, Look look ) const = 0;
   virtual std::unique_ptr<Requests> requests( std::size_t count ) const = 0;
};

// A peer that makes these. Players that have but one way to look are made of the game alone.
template<typename ItsTurns, typename ItsTimers, typename ItsPlayers, typename ItsRequests>
class PeerOf : public Peer {
 public:
   std::unique_ptr<Turns> turns( std::size_t waiting ) const final {
      return std::make_unique<ItsTurns>( waiting );
   }
   std::unique_ptr<Timers> timers( const Draws& draws ) const final {
      return std::make_unique<ItsTimers>( draws );
   }
   std::unique_ptr<Players> players( Game& game, [[maybe_unused]] Look look ) const final {
      if constexpr( std::is_constructible_v<ItsPlayers, Game&, Look> ) {
         return std::make_unique<ItsPlayers>( game, look );
      } else {
         return std::make_unique<ItsPlayers>( game );
      }
   }
   std::unique_ptr<Requests> requests( std::size_t count ) const final {
      return std::make_unique<ItsRequests>( count );
   }
};

const Peer& ours();
const Peer& bareFloor();
const Peer& libuv();
const Peer& asio();
const Peer& glib();
const Peer& sdEvent();
const Peer& libev();

// In the order of the tables: ours, the floor, and the peers.
std::span<Peer const* const> sides();

} // namespace bench::peers
