// The hook through which the lower libraries read the time of day.
//
// They cannot name the virtual clock, which is built above them; the code that owns it installs a
// function here at load time.

#pragma once

#include <Quarn/base/Export.h>

namespace Quarn::Impl {

// Installs the function that timeIndirect() calls; null restores the wall clock.
//
// Thread: any; calls that are under way may still use the previous function.
QUARN_BASE_API void timeIndirectFnIs( double ( *fn )() );

// Seconds since the start of 1970 by the installed function, by default the system's wall clock,
// which can be set back.
//
// Thread: any that the installed function allows.
QUARN_BASE_API double timeIndirect();

} // namespace Quarn::Impl
