// The agent's end of the socket of show requests. Apart from the rest of it, for clients do without
// the library.

#pragma once

#include "tools/show/Descriptor.h"

#include <string_view>

namespace Show {

// So many clients may wait to be accepted; Linux lets one more in.
constexpr int waitingMax = 16;

// A socket that listens under the agent's name, a valid one, non-blocking and closed on exec. It is
// in the system's default network namespace where the process may enter that, else in the thread's.
//
// Errors: an exception whose text is the reason; `std::runtime_error` "another agent has the name
//         '...'".
Descriptor listenAs( std::string_view agent );

} // namespace Show
