// The walk over the descriptors of all processes, by which owners of locks and sockets are found.

#pragma once

#include <Quarn/debug/DebugHandler.h>
#include <Quarn/util/DirNode.h>

#include <functional>
#include <string_view>

#include <sys/stat.h>

namespace Quarn::Util {

// Goes through /proc in the order of the directory. The entry "self" stands for the calling process
// and comes before the numbers; entries that are no process are passed over.
//
// A process that ends meanwhile, or that the caller may not look into, is passed over too.
class ProcWalk {
 public:
   // An entry of a process's fd folder; "." and ".." are among them. Valid during a visit.
   struct Fd {
      int pid;
      std::string_view name;
      char const* path;
      // The file behind the descriptor, when `error`, the errno of looking at it, is 0.
      struct stat const& file;
      int error;
   };

   // Whether to look into the process with this name in /proc.
   using Wanted = std::function<bool( std::string_view process )>;
   // Whether the walk is at its end.
   using Visit = std::function<bool( const Fd& fd )>;

   // Opens /proc. The walk traces as class `className` and function `function`, which are literals.
   //
   // Errors: fatal when /proc cannot be opened.
   ProcWalk( Platform::DebugHandler& handler, char const* className, char const* function );

   // Visits the descriptors of all wanted processes until a visit returns true, and returns the
   // process of that one; 0 when none did.
   int find( const Wanted& wanted, const Visit& visit ) const;

 private:
   dirent const* _nextEntry( const DirNode& node ) const;
   bool _visitProcess( std::string_view process, int pid, const Visit& visit ) const;

   Platform::DebugHandler& handler_;
   char const* className_;
   char const* function_;
   DirNode proc_;
};

} // namespace Quarn::Util
