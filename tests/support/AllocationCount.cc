#include "support/AllocationCount.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace {

constinit std::atomic<std::uint64_t> count{ 0 };
constinit std::atomic<std::int64_t> live{ 0 };

void comes( std::size_t size ) {
   count.fetch_add( 1, std::memory_order_relaxed );
   live.fetch_add( static_cast<std::int64_t>( size ), std::memory_order_relaxed );
}

void goes( std::size_t size ) {
   live.fetch_sub( static_cast<std::int64_t>( size ), std::memory_order_relaxed );
}

} // namespace

namespace testing_support {

std::uint64_t allocations() { return count; }
std::int64_t liveBytes() { return live; }

} // namespace testing_support

#ifdef OWN_ALLOCATOR

extern "C" {
int __sanitizer_install_malloc_and_free_hooks( void ( *onMalloc )( void const volatile*,
                                                                   std::size_t ),
                                               void ( *onFree )( void const volatile* ) );
std::size_t __sanitizer_get_allocated_size( void const volatile* storage );
}

namespace {

[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
      []( void const volatile*, std::size_t size ) { comes( size ); },
      []( void const volatile* storage ) {
         if( storage ) {
            goes( __sanitizer_get_allocated_size( storage ) );
         }
      } );

} // namespace

#else

#include <malloc.h>

// The C library's own allocator behind its public names.
extern "C" {
void* __libc_malloc( std::size_t size );
void* __libc_calloc( std::size_t count, std::size_t size );
void* __libc_realloc( void* storage, std::size_t size );
void* __libc_memalign( std::size_t alignment, std::size_t size );
void __libc_free( void* storage );
}

namespace {

// The allocator hands out up to 16 bytes more than a request needs when the rest of a chunk would
// be too small to be one. With all chunks multiples of 32 there is no such rest, and equal requests
// take equally much.
std::size_t rounded( std::size_t size ) {
   constexpr std::size_t head = sizeof( std::size_t );
   return size > PTRDIFF_MAX - 64 ? size : ( size + head + 31 ) / 32 * 32 - head;
}

void* counted( void* storage ) {
   if( storage ) {
      comes( malloc_usable_size( storage ) );
   }
   return storage;
}

} // namespace

#define INTERPOSED extern "C" __attribute__( ( visibility( "default" ) ) )

INTERPOSED void* malloc( std::size_t size ) noexcept {
   return counted( __libc_malloc( rounded( size ) ) );
}

INTERPOSED void* calloc( std::size_t number, std::size_t size ) noexcept {
   return counted( size != 0 && number > PTRDIFF_MAX / size
                         ? __libc_calloc( number, size )
                         : __libc_calloc( 1, rounded( number * size ) ) );
}

INTERPOSED void* realloc( void* storage, std::size_t size ) noexcept {
   const std::size_t before = storage ? malloc_usable_size( storage ) : 0;
   void* const moved =
         size == 0 ? __libc_realloc( storage, 0 ) : __libc_realloc( storage, rounded( size ) );
   if( moved || size == 0 ) {
      goes( before );
   }
   return counted( moved );
}

INTERPOSED void* memalign( std::size_t alignment, std::size_t size ) noexcept {
   return counted( __libc_memalign( alignment, rounded( size ) ) );
}

INTERPOSED void* aligned_alloc( std::size_t alignment, std::size_t size ) noexcept {
   return counted( __libc_memalign( alignment, rounded( size ) ) );
}

INTERPOSED int posix_memalign( void** storage, std::size_t alignment, std::size_t size ) noexcept {
   void* const found = counted( __libc_memalign( alignment, rounded( size ) ) );
   if( !found ) {
      return 12; // ENOMEM; errno itself is left alone
   }
   *storage = found;
   return 0;
}

INTERPOSED void free( void* storage ) noexcept {
   if( storage ) {
      goes( malloc_usable_size( storage ) );
   }
   __libc_free( storage );
}

#endif
