// Bytes that go to and fro on socket pairs.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

namespace bench {

[[noreturn]] inline void fail( char const* what ) {
   fmt::print( stderr, "{} failed\n", what );
   std::abort();
}

// A socket pair.
class Pair {
 public:
   Pair() {
      if( socketpair( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_.data() ) !=
          0 ) {
         fail( "socketpair" );
      }
   }
   ~Pair() {
      close( ends_[ 0 ] );
      close( ends_[ 1 ] );
   }
   Pair( const Pair& ) = delete;
   Pair& operator=( const Pair& ) = delete;

   int end( unsigned which ) const { return ends_[ which ]; }
   void serve() const {
      if( write( ends_[ 0 ], "x", 1 ) != 1 ) {
         fail( "write" );
      }
   }

 private:
   std::array<int, 2> ends_{};
};

// Pairs that play at once, and how many returns are left for all of them. What comes back after the
// last is taken in and not returned.
struct Game {
   explicit Game( std::size_t count ) : pairs( count ) {}

   // What either side does with a byte that has come: the same calls. False for the very last.
   bool returnByte( int fd ) {
      char byte = 0;
      if( read( fd, &byte, 1 ) != 1 ) {
         fail( "read" );
      }
      if( --left >= 0 && write( fd, &byte, 1 ) != 1 ) {
         fail( "write" );
      }
      return left > -static_cast<std::int64_t>( pairs.size() );
   }

   void serve( std::int64_t roundTrips ) {
      left = 2 * roundTrips - static_cast<std::int64_t>( pairs.size() );
      for( const Pair& pair : pairs ) {
         pair.serve();
      }
   }

   std::vector<Pair> pairs;
   std::int64_t left = 0;
};

} // namespace bench
