// Readers of the texts under /proc.
//
// They take any bytes, read no files, trace nothing and own nothing: a result is a part of the text
// it was taken from.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Quarn::ProcText {

// The start time out of the text of a stat file.
struct StartTime {
   enum class Outcome {
      found,
      // Nothing follows the command name, or there is none.
      tooShort,
      // There are not enough fields, or the field is empty.
      noField,
   };

   // Where the start time stands among the blank-separated fields after the command name: it is
   // field 22 of the file, and number 3 is the first of those.
   static constexpr std::size_t fieldPosition = 19;

   Outcome outcome = Outcome::tooShort;
   // Clock ticks since boot, as written; empty unless found.
   std::string_view text;
   // How many fields stand before it; with `noField` at most as many as there are.
   std::size_t position = 0;
};

// `text` is the whole file without its final newline: the command name in it may hold any byte but
// NUL, newlines, blanks and ")" included, and ends at the last ")".
StartTime startTime( std::string_view text );

// The column before the path out of a line of /proc/net/unix: what is between its last two blanks.
// Empty when there are fewer.
std::string_view unixInode( std::string_view line );

// A number as `strtoul` reads it with base 10: white space and a sign may stand before it, anything
// after it, and what is no number is 0. The lower 32 bits of that.
std::uint32_t inodeNumber( std::string_view text );

// The process name out of the text of a status file, without blanks, tabs and newlines around it:
// what follows "Name:" in the first line that holds that. Empty when none does.
std::string_view title( std::string_view text );

// Whether the text of /proc/locks has a lock whose owner it does not tell. So it is with locks of
// open files, which may have several owners: the line shows -1.
bool locksNameNobody( std::string_view text );

// Whether the digits `pid` occur anywhere in the text of /proc/locks. They may belong to an inode,
// so this tells only who holds no lock.
bool locksName( std::string_view text, std::string_view pid );

// Whether the text of a file in fdinfo shows a lock that a process holds through the descriptor.
bool isLocked( std::string_view text );

// The process whose folder in /proc has this name; 0 for the other entries.
int pidOf( std::string_view entryName );

} // namespace Quarn::ProcText
