// Looks at what the program frees, and lets allocations fail.
//
// Linking this in replaces the global operator new and delete; a sanitizer build, which has its
// own, looks through the hook of its allocator, and there no allocation can be made to fail.

#pragma once

#include "support/AllocationCount.h"

#include <cstddef>
#include <string>

namespace testing_support {

// What a block holds at the moment when this thread frees it. One at a time.
class FreedBlock {
 public:
   // `size` is that of the block at most.
   FreedBlock( void const* block, std::size_t size );
   ~FreedBlock();
   FreedBlock( const FreedBlock& ) = delete;
   FreedBlock& operator=( const FreedBlock& ) = delete;

   // Its bytes, empty until it was freed.
   const std::string& bytes() const { return bytes_; }

   // Called with each block that is freed.
   static void look( void const volatile* block );

 private:
   void const volatile* block_;
   std::size_t size_;
   std::string bytes_;
};

#ifndef OWN_ALLOCATOR
// Makes an allocation of this thread fail: the next one, or when `after` is above 0 the one that
// comes so many later.
void allocationFails( unsigned after );
#endif

} // namespace testing_support
