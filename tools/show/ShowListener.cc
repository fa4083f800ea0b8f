#include "tools/show/ShowListener.h"

#include "tools/show/ShowRequest.h"

#include <Quarn/base/Exception.h>
#include <Quarn/debug/DebugHandler.h>
#include <Quarn/util/Socket.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/socket.h>

namespace Show {

namespace {

Descriptor bindAs( std::string_view agent ) {
   const auto debug = Quarn::Platform::getDebugHandler( "HostAgent", false );
   try {
      return Descriptor(
            Quarn::Util::createAndBindSocket( *debug, Quarn::String( socketName( agent ) ) ) );
   } catch( const Quarn::RuntimeException& error ) {
      // The exception has the reason as a text only.
      const Quarn::String taken = Quarn::strerror( EADDRINUSE );
      if( std::string_view( error.what() ).ends_with( taken ) ) {
         throw std::runtime_error( "another agent has the name '" + std::string( agent ) + "'" );
      }
      throw;
   }
}

} // namespace

Descriptor listenAs( std::string_view agent ) {
   Descriptor listening = bindAs( agent );
   const int fd = listening.get();
   if( fcntl( fd, F_SETFD, FD_CLOEXEC ) != 0 || fcntl( fd, F_SETFL, O_NONBLOCK ) != 0 ||
       listen( fd, waitingMax ) != 0 ) {
      throw std::system_error( errno, std::generic_category(), "cannot listen" );
   }
   return listening;
}

} // namespace Show
