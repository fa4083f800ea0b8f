// Commands of fcntl() that system headers hide from programs built for the bare standard.

#pragma once

#include <Quarn/base/Export.h>

namespace Quarn {

// F_OFD_SETLK: takes or drops a lock that belongs to the open file description, not to the process,
// without waiting. The lock goes when the last descriptor of that description is closed.
QUARN_BASE_API int cmd_F_OFD_SETLK();

} // namespace Quarn
