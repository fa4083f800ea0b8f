// A forked copy of this process.

#pragma once

#include <functional>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

// Runs `body` in a child, which hands over the text that the body returns and then stays until this
// object dies. The body may execute another program instead; the text is then empty, and standard
// input of the program ends when this object dies. Of several the youngest dies first.
class Child {
 public:
   explicit Child( const std::function<std::string()>& body ) {
      int hold[ 2 ];
      int report[ 2 ];
      if( pipe2( hold, O_CLOEXEC ) != 0 || pipe2( report, O_CLOEXEC ) != 0 ) {
         return;
      }
      pid_ = fork();
      if( pid_ == 0 ) {
         dup2( hold[ 0 ], STDIN_FILENO );
         close( hold[ 1 ] );
         const std::string text = body();
         const bool sent = write( report[ 1 ], text.data(), text.size() ) ==
                           static_cast<ssize_t>( text.size() );
         close( report[ 1 ] );
         char byte;
         _exit( read( STDIN_FILENO, &byte, 1 ) == 0 && sent ? 0 : 1 );
      }
      close( hold[ 0 ] );
      close( report[ 1 ] );
      hold_ = hold[ 1 ];
      char buffer[ 256 ];
      ssize_t got;
      while( ( got = read( report[ 0 ], buffer, sizeof( buffer ) ) ) > 0 ) {
         said_.append( buffer, static_cast<std::size_t>( got ) );
      }
      close( report[ 0 ] );
   }

   ~Child() {
      close( hold_ );
      waitpid( pid_, nullptr, 0 );
   }
   Child( const Child& ) = delete;
   Child& operator=( const Child& ) = delete;

   int pid() const { return pid_; }
   const std::string& said() const { return said_; }

 private:
   pid_t pid_ = -1;
   int hold_ = -1;
   std::string said_;
};

} // namespace testing_support
