// Counts what the program allocates.
//
// Linking this in puts it between the program, its libraries included, and the allocator of the C
// library, by which operator new comes as well; a sanitizer build, which has an allocator of its
// own, counts through the hooks of that one.

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

// Allocations of all threads since the start. Storage that is made larger counts anew.
std::uint64_t allocations();

// What all threads have allocated and not freed, in bytes as the allocator rounds them.
std::int64_t liveBytes();

// Those made while `body` runs.
template<typename Body>
std::uint64_t allocationsOf( const Body& body ) {
   const std::uint64_t before = allocations();
   body();
   return allocations() - before;
}

} // namespace testing_support
