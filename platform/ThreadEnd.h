// Telling the end of a thread from an exception.

#pragma once

#include <exception>

namespace Quarn {

// Whether what is caught is the end of the thread (pthread_exit, pthread_cancel), which unwinds the
// stack as an exception does, and which nothing may hold up. For `catch( ... )`: the end is no C++
// exception, so none is current; to catch it by its type, abi::__forced_unwind, binds a reference
// to nothing, which the sanitizer of undefined behaviour reports.
inline bool threadEnds() { return !std::current_exception(); }

} // namespace Quarn
