// The reference count of all shared objects of the library.
//
// While the thread-safe-pointer mode is on, changes are atomic read-modify-writes; while it is off,
// and as long as the process has never had a second thread, which the C library tells, they are a
// plain load, an addition and a store on the same variable. Switching between the two while a
// single thread runs is safe at any count. There is no check for overflow: the count is bounded by
// the memory that four thousand million references would take.

#pragma once

#include <Quarn/base/Export.h>
#include <Quarn/base/ThreadControl.h>

#include <atomic>
#include <cstdint>

#if __has_include( <sys/single_threaded.h> )
#include <sys/single_threaded.h>
#define QUARN_BASE_ONE_THREAD ( __libc_single_threaded != 0 )
#else
#define QUARN_BASE_ONE_THREAD false
#endif

namespace Quarn::Impl {

// A 32-bit count without an owner of its own: whoever sees it reach zero frees the object.
class RefCount {
 public:
   // Starts with `initial` references.
   constexpr explicit RefCount( std::uint32_t initial = 0 ) noexcept : count_( initial ) {}

   RefCount( RefCount const& ) = delete;
   RefCount& operator=( RefCount const& ) = delete;

   // The count at some moment during the call. A result of 1 seen by the holder of a reference is
   // final, and everything earlier holders did to the object has then happened.
   std::uint32_t value() const noexcept { return count_.load( std::memory_order_acquire ); }

   // Adds a reference. The caller holds one already, or a lock that keeps the last one alive.
   void increment() noexcept {
      if( _shared() ) {
         count_.fetch_add( 1, std::memory_order_relaxed );
      } else {
         count_.store( count_.load( std::memory_order_relaxed ) + 1, std::memory_order_relaxed );
      }
   }

   // Drops a reference; true when it was the last, and the object is then the caller's alone.
   [[nodiscard]] bool decrement() noexcept {
      if( _shared() ) {
         return count_.fetch_sub( 1, std::memory_order_acq_rel ) == 1;
      }
      std::uint32_t const left = count_.load( std::memory_order_relaxed ) - 1;
      count_.store( left, std::memory_order_relaxed );
      return left == 0;
   }

   // Drops a reference unless it is the last. False leaves the count at 1: the caller still holds
   // that reference, and decides about the object under whatever lock guards look-ups of it.
   [[nodiscard]] bool decrementUnlessLast() noexcept {
      std::uint32_t seen = count_.load( std::memory_order_acquire );
      if( !_shared() ) {
         if( seen == 1 ) {
            return false;
         }
         count_.store( seen - 1, std::memory_order_relaxed );
         return true;
      }
      while( seen != 1 ) {
         if( count_.compare_exchange_weak( seen, seen - 1, std::memory_order_release,
                                           std::memory_order_acquire ) ) {
            return true;
         }
      }
      return false;
   }

 private:
   // Whether another thread may change the count at the same time.
   static bool _shared() noexcept {
      return !QUARN_BASE_ONE_THREAD && ThreadControl::threadSafePointer();
   }

   std::atomic<std::uint32_t> count_;
};

} // namespace Quarn::Impl

#undef QUARN_BASE_ONE_THREAD
