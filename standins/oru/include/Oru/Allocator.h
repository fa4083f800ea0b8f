// Allocator for the maps of the framework and of those who build on it.

#pragma once

#include <Quarn/base/MemTrack.h>

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

} // namespace Oru
