#include <Quarn/base/MemTrack.h>

namespace Quarn {

namespace {

// Newest tracker first. Trackers are only ever added, so a walk needs no protection.
constinit std::atomic<MemTrack*> newest{ nullptr };

} // namespace

void MemTrack::_link() noexcept {
   if( linked_.exchange( true, std::memory_order_relaxed ) ) {
      return;
   }
   next_ = newest.load( std::memory_order_relaxed );
   while( !newest.compare_exchange_weak( next_, this, std::memory_order_release,
                                         std::memory_order_relaxed ) ) {
   }
}

void MemTrack::forEach( std::function<void( MemTrack const& )> visit ) {
   for( MemTrack const* tracker = newest.load( std::memory_order_acquire ); tracker != nullptr;
        tracker = tracker->next_ ) {
      visit( *tracker );
   }
}

} // namespace Quarn
