#include "examples/agent/SingleInstance.h"

#include <Quarn/Debug.h>
#include <Quarn/base/Exception.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

namespace HostAgent {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view fallback = "/tmp";

// What is wrong with the user's folder below `parent`, which is made when it is missing; empty when
// all is well.
std::string wrongWith( const std::string& folder ) {
   if( mkdir( folder.c_str(), S_IRWXU ) == 0 ) {
      // The umask may have taken from it.
      static_cast<void>( chmod( folder.c_str(), S_IRWXU ) );
   } else if( errno != EEXIST ) {
      return Quarn::strerror( errno ).stdString();
   }
   struct stat found {};
   if( lstat( folder.c_str(), &found ) != 0 ) {
      return Quarn::strerror( errno ).stdString();
   }
   if( !S_ISDIR( found.st_mode ) ) {
      return "it is no folder";
   }
   if( found.st_uid != geteuid() ) {
      return "it belongs to another user";
   }
   return ( found.st_mode & ( S_IWGRP | S_IWOTH ) ) != 0 ? "others may write to it" : std::string();
}

// As /proc shows it, without symbolic links.
std::string ownFolder() {
   const std::string name = fmt::format( "/oruquarn-{}", geteuid() );
   char const* const runtime = std::getenv( "XDG_RUNTIME_DIR" );
   if( runtime && *runtime == '/' && wrongWith( runtime + name ).empty() ) {
      return fs::canonical( runtime + name ).string();
   }
   const std::string folder = std::string( fallback ) + name;
   if( const std::string wrong = wrongWith( folder ); !wrong.empty() ) {
      throw std::runtime_error(
            fmt::format( "no place for the lock file: {}: {} (XDG_RUNTIME_DIR can name another)",
                         folder, wrong ) );
   }
   return fs::canonical( folder ).string();
}

} // namespace

SingleInstance::SingleInstance( const std::string& agentName )
      : lock_( *Quarn::Platform::getDebugHandler( "HostAgent", false ),
               Quarn::String( ownFolder() ), Quarn::String( agentName + ".lock" ) ),
        held_( lock_.lock( false ) ) {
   if( held_ ) {
      // What cleans old files out of such folders leaves those that have this bit.
      chmod( lock_.file().c_str(), S_ISVTX | S_IRUSR | S_IWUSR );
   } else if( errno == EAGAIN ) {
      otherPid_ = Quarn::Util::readLockPid( *lock_.debugHandler(), lock_.file() );
   } else {
      throw std::runtime_error( fmt::format( "cannot open the lock file {}: {}", lockFile(),
                                             Quarn::strerror( errno ) ) );
   }
}

} // namespace HostAgent
