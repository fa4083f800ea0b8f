// Parsers of the text files under /proc, and the way their text is shown.
//
// The functions take any bytes: whatever is not the format gives no value. They read no files and
// allocate nothing but the result of `printable`.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace HostAgent {

// What the agent takes from a /proc/PID/stat line; proc(5) describes the fields.
struct ProcStat {
   pid_t pid = 0;
   // Between the first "(" and the last ")"; any bytes. Points into the parsed text.
   std::string_view name;
   // One letter, "R" for a running process for example.
   char state = '?';
   // Time in user and kernel mode together, in clock ticks.
   std::uint64_t cpuTicks = 0;
   // When the process started, in clock ticks since boot. Tells apart two processes that had the
   // same number one after the other.
   std::uint64_t startTicks = 0;
   std::uint64_t residentPages = 0;
};

// Parses a whole file, its final newline included. A line that was cut off anywhere gives no value,
// as do numbers that do not fit and user and kernel times whose sum does not.
std::optional<ProcStat> parseProcStat( std::string_view text );

// The load average over a minute, from the text of /proc/loadavg, its final newline included.
std::optional<double> parseLoadAverage( std::string_view text );

// The number of the process whose folder has this name; no value for the other entries of /proc.
std::optional<pid_t> parsePid( std::string_view entryName );

// The text with everything but printable ASCII as "\xHH", and backslashes doubled, so that a name
// that a user chose can neither break a line nor steer a terminal.
std::string printable( std::string_view text );

} // namespace HostAgent
