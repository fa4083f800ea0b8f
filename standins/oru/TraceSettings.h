// The language of the TRACE variable. Nothing here knows the environment or the facilities.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Oru {

// Bit N stands for level N.
using LevelMask = std::uint16_t;

// One item of TRACE.
struct TraceItem {
   std::string text;    // as given, without the blanks around it
   std::string pattern; // of facility names
   LevelMask levels = 0;
   bool clear = false; // whether the levels are cleared, not set
};

struct TraceSettings {
   std::vector<TraceItem> items;
   std::vector<std::string> ignored; // items that could not be read, as given
};

// What a list of items does to one mask; the two have no level in common.
struct LevelChange {
   LevelMask set = 0;
   LevelMask clear = 0;
};

// Reads the whole variable. Any text is fit: what is no item ends up in `ignored`.
TraceSettings parseTraceSettings( std::string_view text );

// What the items, applied from left to right, do to the facility of that name.
LevelChange levelChange( std::vector<TraceItem> const& items, std::string_view name );

// Whether the pattern matches the whole name: `*` any run of characters, `?` one, all else itself.
// At most pattern length times name length steps.
bool wildcardMatches( std::string_view pattern, std::string_view name );

// The mask as levels of an item: `0-8`, `=3`, `0-1+=5`; `-` when empty.
std::string levelsText( LevelMask levels );

} // namespace Oru
