// Keeps an object alive to the end of the loop turn that runs.

#pragma once

#include <memory>

namespace Quarn::Platform {

// Holds `object` until the exception that is about to leave its callback has been dealt with: until
// the running loop function returns, the next call of `releaseDeferred()`, or the end of the
// thread. Never throws; when memory is short the object is leaked instead.
void releaseLater( std::shared_ptr<void> object ) noexcept;

// Lets go of what this thread deferred. Destroys objects, so nothing of theirs is used afterwards.
void releaseDeferred() noexcept;

} // namespace Quarn::Platform
