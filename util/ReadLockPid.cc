#include <Quarn/base/Exception.h>
#include <Quarn/util/FileLock.h>
#include <Quarn/util/Files.h>

#include "debug/Handlers.h"
#include "util/ProcText.h"
#include "util/ProcWalk.h"

#include <cerrno>
#include <string>

#include <unistd.h>

namespace Quarn::Util {

namespace {

constexpr char sourceFile[] = "FileLockCpp";
constexpr char className[] = "FileLock";
constexpr char function[] = "readLockPid";

// Whether the descriptor has `lockFile` open and a lock on it.
bool holdsLock( Platform::DebugHandler& handler, const ProcWalk::Fd& fd, const String& lockFile ) {
   if( fd.error != 0 ) {
      QUARN_TRACE_AS( handler, 5, className, function, "stat {} failed:{}", fd.path,
                      strerror( fd.error ) );
      return false;
   }
   if( !S_ISREG( fd.file.st_mode ) ) {
      return false;
   }
   // The one byte more tells a longer name that begins with the one looked for.
   std::string target( lockFile.size() + 1, '\0' );
   const ssize_t got = ::readlink( fd.path, target.data(), target.size() );
   if( got < 0 ) {
      const int error = errno;
      QUARN_TRACE_AS( handler, 5, className, function, "readlink of file:{} failed {}", fd.path,
                      strerror( error ) );
      return false;
   }
   target.resize( static_cast<std::size_t>( got ) );
   QUARN_TRACE_AS( handler, 9, className, function, "lock {}'s file is:{}", lockFile, target );
   if( lockFile != target ) {
      return false;
   }
   const std::string info = fmt::format( "/proc/{}/fdinfo/{}", fd.pid, fd.name );
   if( ProcText::isLocked( fileRead( handler, info.c_str(), true ) ) ) {
      QUARN_TRACE_AS( handler, 5, className, function, "found owner pid:{}", fd.pid );
      return true;
   }
   QUARN_TRACE_AS( handler, 5, className, function,
                   "pid:{} file:{} is open, but not locked associated with lock", fd.pid, target );
   return false;
}

} // namespace

int readLockPid( Platform::DebugHandler& handler, const String& lockFile ) {
   const ProcWalk walk( handler, className, function );
   QUARN_TRACE( handler, 9, className, "lockName:{}", lockFile );
   const String locks = fileRead( handler, "/proc/locks", true );
   // The system tells no pid for a lock of an open file, so one of those may be anybody's.
   const bool anybody = ProcText::locksNameNobody( locks );
   return walk.find(
         [ & ]( std::string_view process ) {
            // The caller looks at itself in any case; "self" occurs in no such text.
            return anybody || process == "self" || ProcText::locksName( locks, process );
         },
         [ & ]( const ProcWalk::Fd& fd ) { return holdsLock( handler, fd, lockFile ); } );
}

} // namespace Quarn::Util
