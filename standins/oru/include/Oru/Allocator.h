// Allocators for the objects and maps of the framework and of those who build on it.

#pragma once

#include <Quarn/base/MemTrack.h>

#include <cstddef>
#include <new>
#include <type_traits>

namespace Oru {

// A stateless standard allocator whose memory is counted by Quarn::MemTrack under the name of
// `Unit`. A container that rebinds it to its nodes still counts them as that unit.
//
//     using Entry = std::pair<Quarn::String const, Peer>;
//     std::map<Quarn::String, Peer, std::less<>, Oru::Allocator<Entry>> peers;
//
// Thread and errors: those of Quarn::Allocator.
template<class T, class Unit = T>
struct Allocator : Quarn::Allocator<T, Unit> {
   // The base would rebind to itself, and a rebound allocator could not come back.
   template<class U>
   struct rebind {
      using other = Allocator<U, Unit>;
   };

   constexpr Allocator() noexcept = default;
   template<class U>
   constexpr Allocator( Allocator<U, Unit> const& ) noexcept {}
};

// Base of a class whose objects, made with `new`, are counted by Quarn::MemTrack under its name.
// Classes derived from that class count as it does.
//
//     class Peer : public Oru::PtrInterface, public Oru::Allocated<Peer> { ... };
//     Oru::Ptr<Peer> peer = new Peer;
template<class T>
struct Allocated {
   // Both are kept out of line: where only one is inlined, the compiler warns that memory from one
   // kind of `new` goes to another kind of `delete`.
   [[gnu::noinline]] static void* operator new( std::size_t size ) {
      static_assert( alignof( T ) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__,
                     "memory of this alignment is not to be had from plain operator new" );
      void* const memory = ::operator new( size );
      Quarn::MemTrack::of<T>().allocated( 1 );
      return memory;
   }
   [[gnu::noinline]] static void operator delete( void* memory ) noexcept {
      Quarn::MemTrack::of<T>().freed( 1 );
      ::operator delete( memory );
   }
};

} // namespace Oru
