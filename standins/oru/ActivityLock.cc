#include <Oru/ActivityLock.h>

#include <Quarn/base/Exception.h>

namespace Oru {

ActivityLock::ActivityLock() {
   // The forking thread takes the lock across the fork and both processes let it go; what it had
   // before it still has, in both. A failure (no memory) leaves a lock that works without fork.
   pthread_atfork( [] { lock().acquire(); }, [] { lock().release(); }, [] { lock().release(); } );
}

ActivityLock& ActivityLock::lock() {
   static ActivityLock& theLock = *new ActivityLock;
   return theLock;
}

void ActivityLock::acquire() {
   if( !ownedByThisThread() ) {
      mutex_.lock();
      owner_.store( pthread_self(), std::memory_order_relaxed );
   }
   ++depth_;
}

void ActivityLock::release() {
   if( !ownedByThisThread() ) {
      Quarn::AssertException::throwException(
            "activity lock released by a thread that does not have it" );
   }
   if( --depth_ == 0 ) {
      // While the mutex is still held: afterwards the field is the next owner's.
      owner_.store( 0, std::memory_order_relaxed );
      mutex_.unlock();
   }
}

} // namespace Oru
