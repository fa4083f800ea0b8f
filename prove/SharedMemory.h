// Memory that a program of the proof shares with the children that it forks.

#pragma once

#include <sys/mman.h>

#include <type_traits>

namespace prove {

// An object of zeros, mapped until the process ends; null, with `errno` set, when there is no
// memory.
template<typename Type>
Type* sharedMemory() {
   static_assert( std::is_trivially_copyable_v<Type> );
   void* const memory =
         mmap( nullptr, sizeof( Type ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   return memory == MAP_FAILED ? nullptr : static_cast<Type*>( memory );
}

} // namespace prove
