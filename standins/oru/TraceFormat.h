// The layout of trace lines. Nothing here knows the environment, the clock or the descriptor.

#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace Oru {

// What a line can show.
struct TraceRecord {
   timespec when = {}; // wall clock
   std::string_view program;
   long process = 0;
   long thread = 0;
   std::string_view facility;
   unsigned level = 0;
   std::string_view file;
   int line = 0;
   std::string_view function;
   std::string_view message;
};

// The layout when TRACEFORMAT gives none.
inline constexpr std::string_view defaultTraceFormat = "%d %P[%p:%t] %f/%l %m";

// Appends the record, laid out as the format says, without a line end. What is no escape is copied
// as it stands, texts of the record with their control characters escaped.
void appendTraceRecord( std::string& out, std::string_view format, TraceRecord const& record );

// Appends the text with bytes below 0x20 and 0x7f as `\n`, `\t` or `\xNN`.
void appendEscaped( std::string& out, std::string_view text );

} // namespace Oru
