// Names for the trace facilities of files and sockets.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

namespace Quarn::Util {

// A facility name for the object at `path`: the prefix, "Temp-" for a temporary one, six characters
// that stand for the hash of the whole path, "-", and the last component of the path. Trailing "/"
// do not count. An empty path has the empty last component and the hash of the empty text.
ORUQUARN_API String traceHandleName( String prefix, const String& path, bool temporary );

} // namespace Quarn::Util
