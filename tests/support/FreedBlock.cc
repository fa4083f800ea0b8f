#include "support/FreedBlock.h"

#include <cstdlib>
#include <new>

namespace {

constinit thread_local testing_support::FreedBlock* watched = nullptr;

} // namespace

namespace testing_support {

// The copy has its room from here on, as nothing can be allocated while a block is freed.
FreedBlock::FreedBlock( void const* block, std::size_t size ) : block_( block ), size_( size ) {
   bytes_.reserve( size );
   watched = this;
}

FreedBlock::~FreedBlock() { watched = nullptr; }

void FreedBlock::look( void const volatile* block ) {
   if( watched && watched->block_ == block ) {
      watched->bytes_.assign( const_cast<char const*>( static_cast<char const volatile*>( block ) ),
                              watched->size_ );
      watched->block_ = nullptr;
   }
}

} // namespace testing_support

#ifdef OWN_ALLOCATOR

extern "C" int
__sanitizer_install_malloc_and_free_hooks( void ( *onMalloc )( void const volatile*, std::size_t ),
                                           void ( *onFree )( void const volatile* ) );

namespace {

[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
      []( void const volatile*, std::size_t ) {}, testing_support::FreedBlock::look );

} // namespace

#else

namespace {

// How many allocations until one fails; 0 for none.
constinit thread_local unsigned failsIn = 0;

void* allocate( std::size_t size ) {
   if( failsIn != 0 && --failsIn == 0 ) {
      return nullptr;
   }
   return std::malloc( size != 0 ? size : 1 );
}

void deallocate( void* storage ) {
   testing_support::FreedBlock::look( storage );
   std::free( storage );
}

} // namespace

void testing_support::allocationFails( unsigned after ) { failsIn = after + 1; }

void* operator new( std::size_t size ) {
   if( void* storage = allocate( size ) ) {
      return storage;
   }
   throw std::bad_alloc();
}
void* operator new( std::size_t size, const std::nothrow_t& ) noexcept { return allocate( size ); }
void operator delete( void* storage ) noexcept { deallocate( storage ); }
void operator delete( void* storage, std::size_t ) noexcept { deallocate( storage ); }
void operator delete( void* storage, const std::nothrow_t& ) noexcept { deallocate( storage ); }

#endif
