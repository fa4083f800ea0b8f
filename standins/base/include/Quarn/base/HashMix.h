// A running hash of bytes for tables and for the identity of values; not meant against attackers.
//
// The algorithm is FNV-1a by Glenn Fowler, Landon Curt Noll and Kiem-Phong Vo, in its 32-bit and
// 64-bit forms, primes included. The usual seeds are 0x811c9dc5 and 0xcbf29ce484222325.

#pragma once

#include <concepts>
#include <cstddef>
#include <span>

namespace Quarn::Impl {

// Hash state of type `T`, which is unsigned int (32 bits) or unsigned long (64 bits). Mixing two
// pieces in turn gives the hash of the pieces joined.
template<class T>
struct HashMix {
   static_assert( std::same_as<T, unsigned int> || std::same_as<T, unsigned long> );
   static_assert( sizeof( T ) == 4 || sizeof( T ) == 8 );

   // Starts from `seed`, the hash of no bytes.
   constexpr explicit HashMix( T seed ) noexcept : value_( seed ) {}

   // Mixes in `size` bytes in order; `bytes` may be null when `size` is 0.
   HashMix& mix( void const* bytes, std::size_t size ) noexcept {
      for( unsigned char const byte :
           std::span( static_cast<unsigned char const*>( bytes ), size ) ) {
         value_ = ( value_ ^ byte ) * prime;
      }
      return *this;
   }

   // The hash of everything mixed so far.
   constexpr T value() const noexcept { return value_; }

 private:
   static constexpr T prime = static_cast<T>( sizeof( T ) == 4 ? 0x01000193UL : 0x100000001b3UL );

   T value_;
};

} // namespace Quarn::Impl
