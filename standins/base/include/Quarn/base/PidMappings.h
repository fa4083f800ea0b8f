// The memory map of a process: which stretches of its addresses come from which file.
//
//     Quarn::MappingInfos const mappings = Quarn::PidMappings::populate( pid );
//     if( Quarn::MappingInfo const* found = mappings.find( address ) ) {
//        use( found->file, address - found->start );
//     }
//
// A map is a snapshot. The kernel hands it out in pieces, so a process that changes its mappings
// meanwhile may be shown with one of them missing or twice.

#pragma once

#include <Quarn/base/Export.h>
#include <Quarn/base/String.h>

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <vector>

namespace Quarn {

// One mapping, as proc(5) describes the lines of /proc/PID/maps.
struct MappingInfo {
   // The addresses from `start` up to, and without, `end`; never empty.
   std::uint64_t start = 0;
   std::uint64_t end = 0;
   // Where the mapping begins in its file, in bytes.
   std::uint64_t offset = 0;
   std::uint64_t inode = 0;
   // The device that the file is on, and 0:0 with inode 0 when there is no file.
   std::uint32_t deviceMajor = 0;
   std::uint32_t deviceMinor = 0;
   // "rwx" and "p" (private) or "s" (shared), with "-" for what is not allowed.
   char permissions[ 4 ] = { '-', '-', '-', 'p' };
   // The path as the kernel writes it: a newline in it reads "\012", and " (deleted)" follows the
   // name of a file that is gone. Empty for memory without a name; "[stack]" and the like.
   String file;

   std::uint64_t length() const { return end - start; }
   bool readable() const { return permissions[ 0 ] == 'r'; }

   // Whether the `size` bytes at `address` all lie inside.
   bool holds( std::uint64_t address, std::uint64_t size ) const {
      return address >= start && address < end && size <= end - address;
   }

   // Whether both come from one file: the same path, device and inode. Memory without a file is the
   // same as nothing.
   bool sameFile( MappingInfo const& other ) const {
      return inode != 0 && inode == other.inode && deviceMajor == other.deviceMajor &&
             deviceMinor == other.deviceMinor && file == other.file;
   }

   // The line of the map: "7f10a000-7f10c000 r--p 00002000 fe:00 4711 /usr/lib/libx.so".
   QUARN_BASE_API String text() const;
};

// The mappings of a process in the order of the map, that is of their addresses. A pointer to one
// lives as long as this object is neither changed nor destroyed.
//
// Cost:   look-ups go through all mappings.
// Thread: any number of readers.
class QUARN_BASE_API MappingInfos {
 public:
   // Reads the text of a maps file. Takes any bytes: a line that is not understood is left out and
   // counted.
   static MappingInfos parse( std::string_view text );

   std::vector<MappingInfo>::const_iterator begin() const { return mappings_.begin(); }
   std::vector<MappingInfo>::const_iterator end() const { return mappings_.end(); }
   std::size_t size() const { return mappings_.size(); }
   bool empty() const { return mappings_.empty(); }

   // How many lines were left out.
   std::size_t skippedLines() const { return skippedLines_; }

   // The mapping that holds `address`, null if there is none.
   MappingInfo const* find( std::uint64_t address ) const;

   // The mapping number `ordinal`, from 0, among those that begin at `offset` of `file`; null if
   // there are fewer. There can be several: where two segments of a shared library meet within a
   // page of the file, that page is mapped once for each.
   MappingInfo const* find( std::string_view file, std::uint64_t offset,
                            std::size_t ordinal ) const;

   // Which of those a mapping of this object is: how many before it begin at the same offset of the
   // same path.
   std::size_t ordinal( MappingInfo const& mapping ) const;

 private:
   std::vector<MappingInfo> mappings_;
   std::size_t skippedLines_ = 0;
};

struct PidMappings {
   // Reads the map of the process `pid`. It is empty when there is no such process, when the caller
   // may not look into it, and for a thread of the kernel.
   //
   // Errors: std::bad_alloc. A map whose reading fails part-way counts as unreadable.
   QUARN_BASE_API static MappingInfos populate( int pid );
};

} // namespace Quarn

// Formats like the text of the mapping.
template<>
struct fmt::formatter<Quarn::MappingInfo> : fmt::formatter<Quarn::String> {
   template<class Context>
   auto format( Quarn::MappingInfo const& mapping, Context& context ) const {
      return fmt::formatter<Quarn::String>::format( mapping.text(), context );
   }
};
