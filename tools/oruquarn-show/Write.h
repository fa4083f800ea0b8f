// Writing to standard output.

#pragma once

#include <string_view>

namespace OruQuarnShow {

// Writes all of it. Waits where there is no room, also when whoever started the program made the
// output non-blocking; signals that the program survives do not end the wait. False, with errno
// set, when it cannot be written.
bool writeAll( std::string_view text );

} // namespace OruQuarnShow
