// Memory that runs out at a chosen allocation.
//
// Linking this in replaces malloc and its kin in the whole process, the libraries under this one
// included; a sanitizer build, whose allocator stays, replaces the global operator new alone.
// Allocations are counted, and can fail, while the thread that asked for it is `armed`.

#pragma once

#include <cstdint>

namespace testing_support::memory {

// Has the `n`-th armed allocation fail, from 1; with `lasting` all that follow it, too, until the
// memory is disarmed. 0 for none. Starts to count anew.
void failAt( std::uint64_t n, bool lasting );

// Armed for its lifetime.
class Armed {
 public:
   Armed();
   ~Armed();
   Armed( const Armed& ) = delete;
   Armed& operator=( const Armed& ) = delete;
};

// Ends the armed state from wherever it is.
void disarm();

// No allocation fails from now on.
void failNoMore();

// Called when an allocation fails, unarmed; null for nobody.
void watcherIs( void ( *watcher )() );

// Armed allocations since `failAt`, and whether one of them failed.
std::uint64_t counted();
bool hasFailed();

// Blocks that are allocated and not given back; always 0 where malloc is not replaced.
std::int64_t blocksInUse();

} // namespace testing_support::memory
