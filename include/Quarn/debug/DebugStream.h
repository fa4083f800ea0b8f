// The string stream in which messages for `DebugHandler::dump` and `debugAndAssert` are built.

#pragma once

#include <Quarn/Export.h>

#include <sstream>

namespace Quarn::Platform {

// A string stream for input and output whose doubles show 12 digits.
//
// It formats by the classic locale whatever the global one is, so that a message reads the same
// in every process. Not thread-safe, like any stream.
class ORUQUARN_API DebugStream : public std::stringstream {
 public:
   DebugStream();
   ~DebugStream() override;
};

} // namespace Quarn::Platform
