// Runs a part of a test in a forked child.

#pragma once

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

// What a child gives when it ends, 0 to 255; -1 when it did not end by itself.
inline int resultOf( pid_t child ) {
   int status = -1;
   while( waitpid( child, &status, 0 ) < 0 && errno == EINTR ) {
   }
   return WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
}

// What the function gives in a forked child; -1 when the child did not end by itself.
template<class Body>
int inChild( Body const& body ) {
   pid_t const child = fork();
   if( child == 0 ) {
      alarm( 30 ); // a lock that stays taken ends the child
      _exit( body() );
   }
   return resultOf( child );
}
