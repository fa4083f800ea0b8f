// A row on the event library's loop and on the framework's at once, each in a process of its own.

#pragma once

#include "prove/Row.h"

#include <Quarn/base/ThreadControl.h>

#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <type_traits>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

namespace prove {

// Calls `body( framework )` here with false and in a child with true, and returns both results. A
// result is plain data that is not good until its run has ended well.
template<typename Result, typename Body>
std::pair<Result, Result> onBothLoops( const Body& body ) {
   static_assert( std::is_trivially_copyable_v<Result> );
   std::pair<Result, Result> results;
   int ends[ 2 ];
   if( pipe( ends ) != 0 ) {
      std::perror( "pipe" );
      return results;
   }
   std::fflush( nullptr );
   const pid_t child = fork();
   if( child == 0 ) {
      close( ends[ 0 ] );
      Quarn::hasThreadLocalSingletonsIs( false );
      bool sent = false;
      try {
         const Result result = body( true );
         sent = write( ends[ 1 ], &result, sizeof( result ) ) == sizeof( result );
      } catch( const std::exception& e ) {
         std::fprintf( stderr, "%s\n", e.what() );
      }
      std::_Exit( sent ? 0 : 1 );
   }
   close( ends[ 1 ] );
   results.first = body( false );
   if( read( ends[ 0 ], &results.second, sizeof( Result ) ) != sizeof( Result ) ) {
      results.second = Result();
   }
   close( ends[ 0 ] );
   int status = 0;
   waitpid( child, &status, 0 );
   if( status != 0 ) {
      std::fprintf( stderr, "the process of the framework's loop ended with status %#x\n",
                    static_cast<unsigned>( status ) );
      results.second = Result();
   }
   return results;
}

// Keeps the seeds of the two loops apart; a seed on the command line counts for both.
constexpr std::uint64_t frameworkSeeds = std::uint64_t{ 1 } << 32;

// Half of the order on each loop: `plays( count, seed, framework )`.
template<typename Result>
std::pair<Result, Result>
halfOnEachLoop( const Order& order, Result ( *plays )( std::uint64_t, std::uint64_t, bool ) ) {
   return onBothLoops<Result>( [ & ]( bool framework ) {
      return framework ? plays( order.count / 2, order.seed + frameworkSeeds, true )
                       : plays( order.count - order.count / 2, order.seed, false );
   } );
}

// The command line under which a play of this length is the first of each loop, and whole on it.
// What is said of a fault is written in one piece: the other loop's process may have one as well.
inline std::string byItself( std::uint64_t length, std::uint64_t playSeed ) {
   return fmt::format( "by itself: --count {} --seed {}", 2 * length, playSeed % frameworkSeeds );
}

inline char const* loopText( bool framework ) {
   return framework ? "the framework's loop" : "the event library's loop";
}

} // namespace prove
