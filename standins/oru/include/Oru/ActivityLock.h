// The lock under which activities run.

#pragma once

#include <Oru/Export.h>

#include <atomic>
#include <mutex>
#include <pthread.h>

namespace Oru {

// Recursive lock of the process: a thread that has it may acquire it again, and lets others in
// when it has released as often.
//
// fork() waits for the lock, so what it guards is whole in the child; the child's thread has it
// exactly when the forking thread had it.
class ORU_API ActivityLock {
 public:
   // The only one; never destroyed.
   static ActivityLock& lock();

   // Waits until no other thread has the lock.
   void acquire();

   // Errors: Quarn::AssertException when this thread does not have the lock.
   void release();

   bool ownedByThisThread() const {
      return owner_.load( std::memory_order_relaxed ) == pthread_self();
   }

   ActivityLock( ActivityLock const& ) = delete;
   ActivityLock& operator=( ActivityLock const& ) = delete;

 private:
   ActivityLock();
   ~ActivityLock() = default;

   std::mutex mutex_;
   // A thread only ever compares this to itself, and only it writes its own name here, so the
   // comparison needs no order. Zero names no thread.
   std::atomic<pthread_t> owner_{ 0 };
   unsigned depth_ = 0; // guarded by the mutex
};

} // namespace Oru
