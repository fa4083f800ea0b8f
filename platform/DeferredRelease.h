// Keeps an object alive to the end of the loop turn that runs.

#pragma once

#include <memory>

namespace Quarn::Platform {

// Holds `object` until the exception that is about to leave its callback has been dealt with: until
// the running loop function returns, the next call of `releaseDeferred()`, or the end of the
// thread. Never throws; when memory is short the object is leaked instead.
void releaseLater( std::shared_ptr<void> object ) noexcept;

// Asked on every turn, so it must not cost the guard of a dynamic thread-local.
extern constinit thread_local bool anyDeferred __attribute__( ( tls_model( "initial-exec" ) ) );

void releaseAllDeferred() noexcept;

// Lets go of what this thread deferred. Destroys objects, so nothing of theirs is used afterwards.
inline void releaseDeferred() noexcept {
   if( anyDeferred ) [[unlikely]] {
      releaseAllDeferred();
   }
}

} // namespace Quarn::Platform
