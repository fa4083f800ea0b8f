// Reads the processes under a /proc folder one by one.
//
// The reader keeps the folder open, and with it the place in the list, so that a caller may stop
// after any process and go on later. A process costs four system calls and no allocation.

#pragma once

#include "examples/agent/ProcessTable.h"

#include <array>
#include <memory>
#include <string>

#include <dirent.h>

namespace HostAgent {

class ProcReader {
 public:
   enum class Step {
      process,    // a process was read
      vanished,   // a process was listed and ended before it was read
      unreadable, // a process could not be read or its text is not the format
      end,        // the list is at its end
      failed,     // the list itself cannot be read
   };

   // Errors: `std::system_error` when the folder cannot be opened.
   explicit ProcReader( const std::string& folder );

   // Goes to the front of the list, as it is from now on.
   void rewind();

   // Reads the next process into `process`, which is changed only by `Step::process`. After
   // `unreadable` and `failed` errno says why; it is 0 for a text that is not the format.
   Step next( ProcessRecord* process );

 private:
   struct DirCloser {
      void operator()( DIR* folder ) const { closedir( folder ); }
   };

   Step _read( pid_t pid, char const* entryName, ProcessRecord* process );

   std::unique_ptr<DIR, DirCloser> folder_;
   // The longest line, of about 50 numbers of 64 bits and a name of 64 bytes, is far below that.
   std::array<char, 4096> buffer_;
};

} // namespace HostAgent
