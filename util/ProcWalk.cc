#include "util/ProcWalk.h"

#include <Quarn/base/Exception.h>

#include "debug/Handlers.h"
#include "util/ProcText.h"

#include <cerrno>

#include <unistd.h>

namespace Quarn::Util {

namespace {

constexpr char sourceFile[] = "UtilCpp";

} // namespace

ProcWalk::ProcWalk( Platform::DebugHandler& handler, char const* className, char const* function )
      : handler_( handler ),
        className_( className ),
        function_( function ),
        proc_( handler, "/proc", nullptr ) {
   if( !proc_.isOpen() ) {
      Impl::assertAt( handler, QUARN_SOURCE_AT( className, function ), "Couldn't open /proc" );
   }
}

int ProcWalk::find( const Wanted& wanted, const Visit& visit ) const {
   while( dirent const* const entry = _nextEntry( proc_ ) ) {
      const std::string_view process = entry->d_name;
      const int pid = process == "self" ? ::getpid() : ProcText::pidOf( process );
      if( pid != 0 && wanted( process ) && _visitProcess( process, pid, visit ) ) {
         return pid;
      }
   }
   return 0;
}

// What cannot be read to its end, as the folder of a process that is gone, ends here; /proc itself
// does so on a system that is out of memory, and the walk has then found nobody.
dirent const* ProcWalk::_nextEntry( const DirNode& node ) const {
   try {
      return node.readEntry();
   } catch( const RuntimeException& e ) {
      QUARN_TRACE_AS( handler_, 5, className_, function_, "{}", e.what() );
      return nullptr;
   }
}

bool ProcWalk::_visitProcess( std::string_view process, int pid, const Visit& visit ) const {
   const DirNode fds( handler_, String( fmt::format( "/proc/{}/fd", process ) ), nullptr );
   if( !fds.isOpen() ) {
      return false;
   }
   while( dirent const* const entry = _nextEntry( fds ) ) {
      const String path( fmt::format( "{}/{}", fds.path(), entry->d_name ) );
      QUARN_TRACE_AS( handler_, 9, className_, function_, "reading entry {}", path );
      struct stat file = {};
      const int error = ::stat( path.c_str(), &file ) == 0 ? 0 : errno;
      if( visit( Fd{ pid, entry->d_name, path.c_str(), file, error } ) ) {
         return true;
      }
   }
   return false;
}

} // namespace Quarn::Util
