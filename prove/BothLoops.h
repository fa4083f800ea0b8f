// A row on the event library's loop and on the framework's at once, each in a process of its own.

#pragma once

#include <Quarn/base/ThreadControl.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
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

inline char const* loopText( bool framework ) {
   return framework ? "the framework's loop" : "the event library's loop";
}

} // namespace prove
