// How an answer looks on a terminal.
//
// Names of tasks may hold any bytes. On a terminal those that could steer it are replaced by "?",
// one for each byte, so that columns stay where they are.

#pragma once

#include <string>
#include <string_view>

namespace OruQuarnShow {

// The text on one line, for messages about what the user typed.
std::string printable( std::string_view text );

// The lines of a report without control characters (line feeds stay), including those of two bytes
// and what is not valid UTF-8.
std::string harmless( std::string_view text );

// A harmless text report with colours: headings bold, tasks that overran their quantum severely
// red, those that did so moderately yellow, and those that run or are queued green. Other reports
// get a bold first line.
std::string coloured( std::string_view text );

// A text report without the explanation of its columns.
std::string withoutLegend( std::string_view text );

} // namespace OruQuarnShow
