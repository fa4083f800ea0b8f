#include "tools/oruquarn-show/Write.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace OruQuarnShow {

bool writeAll( std::string_view text ) {
   while( !text.empty() ) {
      const ssize_t size = write( STDOUT_FILENO, text.data(), text.size() );
      if( size >= 0 ) {
         text.remove_prefix( static_cast<std::size_t>( size ) );
      } else if( errno == EAGAIN ) {
         pollfd room{ STDOUT_FILENO, POLLOUT, 0 };
         poll( &room, 1, -1 );
      } else if( errno != EINTR ) {
         return false;
      }
   }
   return true;
}

} // namespace OruQuarnShow
