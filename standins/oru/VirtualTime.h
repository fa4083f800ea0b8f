// How far virtual time has put the clock forward.

#pragma once

#include <atomic>

namespace Oru {

// In seconds; only grows. Not a member of the manager: a name that other shared objects see would
// cost each reading of the time a second load, and so would one that only might be seen.
//
// Written by the thread that runs the activity loop.
[[gnu::visibility( "hidden" )]] extern constinit std::atomic<double> virtualTimeOffset;

} // namespace Oru
