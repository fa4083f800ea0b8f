#include "examples/agent/ProcReader.h"

#include "examples/agent/ProcText.h"

#include "tools/show/Descriptor.h"

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace HostAgent {

namespace {

// Opening a file of a process that has ended says the first, reading one the second.
ProcReader::Step stepOfErrno() {
   return errno == ENOENT || errno == ESRCH ? ProcReader::Step::vanished
                                            : ProcReader::Step::unreadable;
}

} // namespace

ProcReader::ProcReader( const std::string& folder ) : folder_( opendir( folder.c_str() ) ) {
   if( !folder_ ) {
      throw std::system_error( errno, std::generic_category(), "cannot open " + folder );
   }
}

void ProcReader::rewind() { rewinddir( folder_.get() ); }

ProcReader::Step ProcReader::next( ProcessRecord* process ) {
   for( ;; ) {
      // The end of the list and a failure differ in errno alone.
      errno = 0;
      dirent const* entry = readdir( folder_.get() );
      if( !entry ) {
         return errno == 0 ? Step::end : Step::failed;
      }
      if( const auto pid = parsePid( entry->d_name ) ) {
         return _read( *pid, entry->d_name, process );
      }
   }
}

ProcReader::Step ProcReader::_read( pid_t pid, char const* entryName, ProcessRecord* process ) {
   const int folder = dirfd( folder_.get() );
   char path[ 32 ];
   std::snprintf( path, sizeof( path ), "%d/stat", pid );
   const Show::Descriptor file( openat( folder, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK ) );
   if( !file.valid() ) {
      return stepOfErrno();
   }
   // The folder always belongs to the effective user, while the files of a process that forbids
   // dumps belong to root. The read below fails once the process has ended; as it comes last, its
   // success proves that the number had the same process all the while.
   struct stat owner;
   if( fstatat( folder, entryName, &owner, AT_SYMLINK_NOFOLLOW ) != 0 ) {
      return stepOfErrno();
   }
   // The kernel hands out the line in one piece; less, or more than the buffer, lacks the newline.
   const ssize_t size = read( file.get(), buffer_.data(), buffer_.size() );
   if( size < 0 ) {
      return stepOfErrno();
   }
   const auto stat = parseProcStat( { buffer_.data(), static_cast<std::size_t>( size ) } );
   if( !stat || stat->pid != pid ) {
      errno = 0;
      return Step::unreadable;
   }
   process->pid = pid;
   process->uid = owner.st_uid;
   process->state = stat->state;
   process->name = Quarn::String( stat->name );
   process->startTicks = stat->startTicks;
   process->residentPages = stat->residentPages;
   process->cpuTicks = stat->cpuTicks;
   return Step::process;
}

} // namespace HostAgent
