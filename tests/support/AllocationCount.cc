#include "support/AllocationCount.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<std::uint64_t> count{ 0 };

} // namespace

namespace testing_support {

std::uint64_t allocations() { return count; }

} // namespace testing_support

#ifdef OWN_ALLOCATOR

extern "C" int
__sanitizer_install_malloc_and_free_hooks( void ( *onMalloc )( void const volatile*, std::size_t ),
                                           void ( *onFree )( void const volatile* ) );

namespace {

[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
      []( void const volatile*, std::size_t ) { ++count; }, []( void const volatile* ) {} );

} // namespace

#else

void* operator new( std::size_t size ) {
   ++count;
   if( void* storage = std::malloc( size != 0 ? size : 1 ) ) {
      return storage;
   }
   throw std::bad_alloc();
}
void* operator new( std::size_t size, const std::nothrow_t& ) noexcept {
   ++count;
   return std::malloc( size != 0 ? size : 1 );
}
void operator delete( void* storage ) noexcept { std::free( storage ); }
void operator delete( void* storage, std::size_t ) noexcept { std::free( storage ); }
void operator delete( void* storage, const std::nothrow_t& ) noexcept { std::free( storage ); }

#endif
