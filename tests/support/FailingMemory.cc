#include "support/FailingMemory.h"

#include "support/AllocationCount.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include <dlfcn.h>

namespace testing_support::memory {

namespace {

constinit thread_local bool armed = false;
constinit std::uint64_t number = 0;
constinit std::uint64_t failing = 0;
constinit bool failingOnwards = false;
constinit bool failed = false;
constinit std::atomic<std::int64_t> blocks{ 0 };
using Watcher = void ( * )();
constinit Watcher toldOfFailure = nullptr;

// Whether the allocation that is asked for now fails.
bool fails() {
   if( !armed ) {
      return false;
   }
   ++number;
   if( failing == 0 || number < failing || ( number > failing && !failingOnwards ) ) {
      return false;
   }
   failed = true;
   if( toldOfFailure ) {
      armed = false;
      toldOfFailure();
      armed = true;
   }
   errno = ENOMEM;
   return true;
}

} // namespace

void failAt( std::uint64_t n, bool lasting ) {
   number = 0;
   failing = n;
   failingOnwards = lasting;
   failed = false;
}

void watcherIs( void ( *watcher )() ) { toldOfFailure = watcher; }

void failNoMore() { failing = 0; }

Armed::Armed() { armed = true; }

Armed::~Armed() { armed = false; }

void disarm() { armed = false; }

std::uint64_t counted() { return number; }

bool hasFailed() { return failed; }

std::int64_t blocksInUse() { return blocks.load( std::memory_order_relaxed ); }

} // namespace testing_support::memory

#ifdef OWN_ALLOCATOR

namespace {

void* allocated( std::size_t size ) {
   return testing_support::memory::fails() ? nullptr : std::malloc( size != 0 ? size : 1 );
}

} // namespace

void* operator new( std::size_t size ) {
   if( void* storage = allocated( size ) ) {
      return storage;
   }
   throw std::bad_alloc();
}
void* operator new( std::size_t size, const std::nothrow_t& ) noexcept { return allocated( size ); }
void operator delete( void* storage ) noexcept { std::free( storage ); }
void operator delete( void* storage, std::size_t ) noexcept { std::free( storage ); }
void operator delete( void* storage, const std::nothrow_t& ) noexcept { std::free( storage ); }

#else

// The C library's own, under the names that it keeps for those who replace malloc.
extern "C" {

void* __libc_malloc( std::size_t size );
void* __libc_calloc( std::size_t number, std::size_t size );
void* __libc_realloc( void* storage, std::size_t size );
void* __libc_memalign( std::size_t alignment, std::size_t size );
void __libc_free( void* storage );

} // extern "C"

namespace {

void* counted( void* storage ) {
   if( storage ) {
      testing_support::memory::blocks.fetch_add( 1, std::memory_order_relaxed );
   }
   return storage;
}

void* aligned( std::size_t alignment, std::size_t size ) {
   return testing_support::memory::fails() ? nullptr
                                           : counted( __libc_memalign( alignment, size ) );
}

} // namespace

// Everybody's, in a program whose own functions are hidden.
#pragma GCC visibility push( default )

extern "C" {

void* malloc( std::size_t size ) {
   return testing_support::memory::fails() ? nullptr : counted( __libc_malloc( size ) );
}

void* calloc( std::size_t number, std::size_t size ) {
   return testing_support::memory::fails() ? nullptr : counted( __libc_calloc( number, size ) );
}

void* realloc( void* storage, std::size_t size ) {
   if( testing_support::memory::fails() ) {
      return nullptr;
   }
   void* const moved = __libc_realloc( storage, size );
   return storage ? moved : counted( moved );
}

void* memalign( std::size_t alignment, std::size_t size ) { return aligned( alignment, size ); }

void* aligned_alloc( std::size_t alignment, std::size_t size ) {
   return aligned( alignment, size );
}

int posix_memalign( void** storage, std::size_t alignment, std::size_t size ) {
   *storage = aligned( alignment, size );
   return *storage ? 0 : ENOMEM;
}

// Notes the destructor of a thread-local object for as long as the thread lives, and that is no
// block that was lost.
int __cxa_thread_atexit_impl( void ( *destructor )( void* ), void* object, void* library ) {
   using Function = int ( * )( void ( * )( void* ), void*, void* );
   static const auto real =
         reinterpret_cast<Function>( dlsym( RTLD_NEXT, "__cxa_thread_atexit_impl" ) );
   testing_support::memory::blocks.fetch_sub( 1, std::memory_order_relaxed );
   return real( destructor, object, library );
}

void free( void* storage ) {
   if( storage ) {
      testing_support::memory::blocks.fetch_sub( 1, std::memory_order_relaxed );
   }
   __libc_free( storage );
}

} // extern "C"

#pragma GCC visibility pop

#endif
