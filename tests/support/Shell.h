// A program from the outside.

#pragma once

#include <cstdio>
#include <string>
#include <utility>

#include <sys/wait.h>

// What a shell command leaves: its exit code, -1 when a signal ended it, and what it wrote to
// standard output.
inline std::pair<int, std::string> shell( const std::string& command ) {
   FILE* pipe = popen( command.c_str(), "r" );
   if( !pipe ) {
      return { -1, {} };
   }
   std::string text;
   char buffer[ 4096 ];
   while( const std::size_t size = fread( buffer, 1, sizeof( buffer ), pipe ) ) {
      text.append( buffer, size );
   }
   const int status = pclose( pipe );
   return { WIFEXITED( status ) ? WEXITSTATUS( status ) : -1, text };
}
