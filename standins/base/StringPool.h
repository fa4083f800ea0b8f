// The process-wide pool of deduped strings.
//
// Sixteen shards, chosen by the top bits of the hash, each with a lock of its own. The pool holds
// no reference: a block is in it from the moment it is pooled until its count drops from 1 to 0,
// and that drop happens under the lock of its shard. A look-up under the same lock therefore finds
// living blocks only, and may add a reference to one whose last holder already waits for the lock.

#pragma once

#include <Quarn/base/String.h>

#include <array>
#include <mutex>
#include <unordered_set>

namespace Quarn::Impl {

class StringPool {
 public:
   // The pool; made by the first caller and never destroyed, so that static destructors can still
   // drop strings.
   static StringPool& instance();

   // The pooled block with the text of `block`, with one more reference for the caller; that is
   // `block` itself when the pool had no such text. The caller holds a reference to `block`, whose
   // hash is known to be `hash`.
   StringBlock* pooled( StringBlock* block, std::size_t hash );

   // Drops the reference of a caller who saw the count of a pooled block at 1. True when the block
   // has left the pool and is the caller's to free; false when a look-up revived it.
   bool dropLast( StringBlock* block ) noexcept;

   // Number of blocks in all shards.
   std::size_t size();

 private:
   // Callers have the hash at hand, so the pool never computes one: it reads it from the block.
   struct Hash {
      std::size_t operator()( StringBlock const* block ) const noexcept {
         return block->hash.load( std::memory_order_relaxed );
      }
   };
   struct SameText {
      bool operator()( StringBlock const* a, StringBlock const* b ) const noexcept {
         return a == b || ( a->size == b->size &&
                            std::memcmp( a->characters(), b->characters(), a->size ) == 0 );
      }
   };
   // A cache line of its own keeps the locks of neighbours apart.
   struct alignas( 64 ) Shard {
      std::mutex lock;
      std::unordered_set<StringBlock*, Hash, SameText> blocks;
   };

   Shard& _shardOf( std::size_t hash ) {
      static_assert( shardCount == 16 );
      return shards_[ hash >> ( sizeof( hash ) * 8 - 4 ) ];
   }
   void _lockAll();
   void _unlockAll();

   static constexpr std::size_t shardCount = 16;
   std::array<Shard, shardCount> shards_;
};

} // namespace Quarn::Impl
