// Counts what the program allocates.
//
// Linking this in replaces the global operator new; a sanitizer build, which has an operator new of
// its own, counts through the hook of its allocator instead, and sees malloc as well.

#pragma once

#include <cstdint>

// Defined in a build whose sanitizer has an allocator of its own.
#if defined( __has_feature )
#if __has_feature( address_sanitizer ) || __has_feature( thread_sanitizer )
#define OWN_ALLOCATOR 1
#endif
#elif defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
#define OWN_ALLOCATOR 1
#endif

namespace testing_support {

// Allocations of all threads since the start.
std::uint64_t allocations();

// Those made while `body` runs.
template<typename Body>
std::uint64_t allocationsOf( const Body& body ) {
   const std::uint64_t before = allocations();
   body();
   return allocations() - before;
}

} // namespace testing_support
