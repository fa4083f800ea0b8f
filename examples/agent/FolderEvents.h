// What the kernel says about a watched folder, taken from the bytes of an inotify descriptor.
//
// inotify(7) describes the format. The parser takes any bytes and reads nothing but them.

#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace HostAgent {

struct FolderEvent {
   enum class Kind {
      created, // an entry was made, or moved in
      removed, // an entry was removed, or moved out
      written, // a file that was open for writing was closed
      overrun, // events before this one were dropped
      ended,   // the folder itself is gone: nothing comes any more
   };

   Kind kind;
   // Of the entry; empty for `overrun` and `ended`. Any bytes but NUL and "/". Points into the
   // parsed bytes.
   std::string_view name;
};

struct FolderEvents {
   std::vector<FolderEvent> events;
   // Whether parsing ended at a length that lies.
   bool malformed = false;
};

// Parses what one read has brought. Events of other kinds are passed over.
FolderEvents parseFolderEvents( std::span<const std::byte> bytes );

} // namespace HostAgent
