// An open directory, and the names in it.
//
//     Quarn::DirNode node( handler, "/var/log", nullptr );
//     while( dirent const* entry = node.readEntry() ) {
//        fmt::print( "{}/{}\n", node.path(), entry->d_name );
//     }
//
// A directory that cannot be opened is no error: the node is then not open, which the trace tells
// at level 9 for what is to be expected (it is missing, not permitted, no directory) and at level 1
// otherwise. The trace's class is "DirNode".
//
// Thread: one at a time; `readEntry`, `rewind` and `findFiles` are const but share one position.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/debug/Debuggable.h>

#include <memory>
#include <vector>

#include <dirent.h>

namespace Quarn {

class ORUQUARN_API DirNode : public Debuggable {
 public:
   // A node without a path that is not open.
   explicit DirNode( Platform::DebugHandler& handler );

   // Opens the directory. The node keeps `parent`, which may be empty, alive.
   DirNode( Platform::DebugHandler& handler, const String& path, std::shared_ptr<DirNode> parent );

   // Closes the directory, then lets go of the parent.
   ~DirNode();

   // The copy and the original share the open stream. Only one of them may be destroyed, be opened
   // again or be given a path while it is open; moving leaves the original not open.
   DirNode( const DirNode& other );
   DirNode( DirNode&& other ) noexcept;
   DirNode& operator=( const DirNode& ) = delete;
   DirNode& operator=( DirNode&& ) = delete;

   // Gives the node another path and opens that.
   void pathIs( const String& path );
   const String& path() const { return path_; }

   // Opens the directory anew, from its start. `errno` tells why it is not open afterwards.
   void openDir();
   bool isOpen() const { return stream_ != nullptr; }

   // The next entry in the order of the file system, "." and ".." included; null at the end and
   // when the directory is not open.
   //
   // Ownership: the stream's; valid until the next call on it.
   // Errors:    `RuntimeException` when the system cannot read the directory.
   dirent const* readEntry() const;

   // Goes back to the first entry, and sees what was added and removed since.
   //
   // Errors: `RuntimeException` when the directory is not open.
   void rewind() const;

   // The regular files and symbolic links whose name ends with `extension`, in the order of the
   // file system. The extension is plain text: "log" finds "catalog" too, and the empty one
   // everything. A file that cannot be looked at is left out. The node's position is at the end
   // afterwards.
   //
   // Errors: `RuntimeException` when the directory is not open or cannot be read.
   std::vector<String> findFiles( const String& extension ) const;

 private:
   void _closeStream( char const* function );

   DIR* stream_ = nullptr;
   std::shared_ptr<DirNode> parent_;
   String path_;
};

} // namespace Quarn
