#include "StringPool.h"

#include <memory>
#include <new>
#include <pthread.h>

namespace Quarn::Impl {

namespace {

// Made while the library is loaded: a child that is forked in the middle of it would have it half
// made for ever.
[[maybe_unused]] StringPool const& madeAtLoad = StringPool::instance();

} // namespace

StringPool& StringPool::instance() {
   static StringPool* const pool = [] {
      auto made = std::make_unique<StringPool>();
      // fork() copies locks as they are. Holding them all across it means that none was taken by a
      // thread that the child does not have, and that no set is copied half changed.
      if( ::pthread_atfork( [] { instance()._lockAll(); }, [] { instance()._unlockAll(); },
                            [] { instance()._unlockAll(); } ) != 0 ) {
         throw std::bad_alloc();
      }
      return made.release();
   }();
   return *pool;
}

StringBlock* StringPool::pooled( StringBlock* block, std::size_t hash ) {
   Shard& shard = _shardOf( hash );
   std::lock_guard const guard( shard.lock );
   auto const [ place, added ] = shard.blocks.insert( block );
   if( added ) {
      block->pooled.store( true, std::memory_order_relaxed );
   }
   ( *place )->count.increment();
   return *place;
}

bool StringPool::dropLast( StringBlock* block ) noexcept {
   Shard& shard = _shardOf( block->hash.load( std::memory_order_relaxed ) );
   std::lock_guard const guard( shard.lock );
   if( !block->count.decrement() ) {
      return false;
   }
   shard.blocks.erase( block );
   return true;
}

std::size_t StringPool::size() {
   std::size_t sum = 0;
   for( Shard& shard : shards_ ) {
      std::lock_guard const guard( shard.lock );
      sum += shard.blocks.size();
   }
   return sum;
}

void StringPool::_lockAll() {
   for( Shard& shard : shards_ ) {
      shard.lock.lock();
   }
}

void StringPool::_unlockAll() {
   for( auto shard = shards_.rbegin(); shard != shards_.rend(); ++shard ) {
      shard->lock.unlock();
   }
}

std::size_t stringPoolSizeForTest() { return StringPool::instance().size(); }

} // namespace Quarn::Impl
