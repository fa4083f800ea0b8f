#include <Quarn/timers/TimerWheel.h>

#include <Quarn/platform/Factories.h>
#include <Quarn/platform/Time.h>

#include "debug/Handlers.h"
#include "timers/TimerTicks.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <memory_resource>
#include <utility>

namespace Quarn {

using Platform::timerWheelHandler;

namespace {

constexpr char sourceFile[] = "TimerWheelCpp";

constexpr double infinity = std::numeric_limits<double>::infinity();

// So many nodes of emptied buckets are kept; a burst beyond it goes back to the allocator.
constexpr std::size_t spareBucketsMax = 256;

// An event that is due, between the wheel and its bucket.
struct Due {
   double expiry;
   // In which the events came.
   std::size_t order;
   TimerWheelEvent* ev;

   friend bool operator<( const Due& a, const Due& b ) {
      return a.expiry != b.expiry ? a.expiry < b.expiry : a.order < b.order;
   }
};

// So many are sorted without memory from the allocator, and so many in one go, with 12 MB at most.
constexpr std::size_t dueNear = spareBucketsMax;
constexpr std::size_t dueMax = 262'144;
// How far ahead records are fetched; sorted, they lie anywhere.
constexpr std::size_t dueAhead = 8;

} // namespace

// ---------------------------------------------------------------------------------------- buckets

TimerWheel::TimersAtTimeout::~TimersAtTimeout() {
   if( head_ ) {
      QUARN_DIE( "TimersAtTimeout", "~TimersAtTimeout", "Destroyed while non-empty" );
   }
}

void TimerWheel::TimersAtTimeout::pushBack( ::timeout* record ) {
   if( record->pending ) {
      QUARN_FAIL( "TimersAtTimeout", "pending set to {}", fmt::ptr( record->pending ) );
   }
   // The wheel library does not look at a record that it does not hold, so the field can say which
   // bucket holds it.
   record->pending = reinterpret_cast<timeout_list*>( this );
   record->tqe.tqe_next = nullptr;
   record->tqe.tqe_prev = lastLink_;
   *lastLink_ = record;
   lastLink_ = &record->tqe.tqe_next;
}

void TimerWheel::TimersAtTimeout::unlink( ::timeout* record ) {
   if( record->pending != reinterpret_cast<timeout_list*>( this ) ) {
      QUARN_FAIL( "TimersAtTimeout", "Event {} linked to {}", fmt::ptr( record ),
                  fmt::ptr( record->pending ) );
   }
   if( record->tqe.tqe_next ) {
      record->tqe.tqe_next->tqe.tqe_prev = record->tqe.tqe_prev;
   } else {
      lastLink_ = record->tqe.tqe_prev;
   }
   *record->tqe.tqe_prev = record->tqe.tqe_next;
   record->pending = nullptr;
}

// ------------------------------------------------------------------------------------------ wheel

// A delivery that runs. A delivered timer may destroy the wheel, or start a delivery of its own,
// and destroy the wheel there.
class TimerWheel::Pass {
 public:
   // Out of line, or gcc 12 takes the address that is stored here for one that is left behind.
   [[gnu::noinline]] explicit Pass( TimerWheel& wheel ) : wheel_( &wheel ), outer_( wheel.pass_ ) {
      wheel.pass_ = this;
   }
   ~Pass() {
      if( wheel_ ) {
         wheel_->pass_ = outer_;
      }
   }
   Pass( const Pass& ) = delete;
   Pass& operator=( const Pass& ) = delete;

   bool wheelGone() const { return !wheel_; }

   // The wheel goes; tells the passes around this one too.
   void wheelGoes() {
      for( Pass* pass = this; pass; pass = pass->outer_ ) {
         pass->wheel_ = nullptr;
      }
   }

 private:
   TimerWheel* wheel_;
   Pass* outer_;
};

TimerWheel::TimerWheel( Platform::EventPriority priority )
      : masterExpiry_( infinity ),
        master_( Platform::getTimerControl( this, priority ) ) {
   wheel_ = timeouts_open( ticksPerSecond, &error_ );
   if( error_ == ENOMEM ) {
      throw std::bad_alloc();
   }
   if( error_ != 0 || !wheel_ ) {
      QUARN_FAIL( "TimerWheel", "Error code {}", error_ );
   }
   try {
      spareBuckets_.reserve( spareBucketsMax );
      _setCurrentTime( time() );
   } catch( ... ) {
      timeouts_close( wheel_ );
      throw;
   }
}

TimerWheel::~TimerWheel() {
   if( pass_ ) {
      pass_->wheelGoes();
   }
   // Before the wheel closes, so that nothing can fire into it.
   master_.reset();
   timeouts_close( wheel_ );
}

void TimerWheel::_setCurrentTime( double now ) {
   const timeout_t tick = timeToTickCeil( now );
   QUARN_TRACE_AS( timerWheelHandler, 8, "TimerWheel", "setCurrentTime",
                   "advance time to {} tick {}", now, tick );
   timeouts_update( wheel_, tick );
}

void TimerWheel::_masterIs( double delay, double expiry ) {
   master_->setTimeout( delay );
   masterExpiry_ = expiry;
}

void TimerWheel::timerStart( TimerWheelEvent* ev, double delay ) {
   if( std::isnan( delay ) ) {
      QUARN_FAIL( "TimerWheel", "invalid timer delay {}", delay );
   }
   if( delay == -infinity ) {
      delay = 0.0;
   }
   if( ev->pending ) {
      // Among many timers the neighbours that a move relinks are far from the cache; they come
      // while the clock is read, which no load overtakes.
      __builtin_prefetch( ev->tqe.tqe_next, 1 );
      __builtin_prefetch( ev->tqe.tqe_prev, 1 );
   }
   const double expiry = time() + delay;
   if( expiry == ev->expirationTime_ ) {
      return;
   }
   if( expiry == infinity ) {
      timerStop( ev );
      return;
   }
   if( ev->expirationTime_ != infinity ) {
      timerStop( ev );
   }
   ev->expirationTime_ = expiry;
   // Floor here and ceiling of "now" in processing: an event is collected no later than its tick,
   // and the exact comparison at delivery decides when it fires.
   const timeout_t ticks = timeToTickFloor( expiry );
   QUARN_TRACE( timerWheelHandler, 9, "TimerWheel", "timer {} ticks {} delay {} expiry {}",
                fmt::ptr( ev ), ticks, delay, expiry );
   timeouts_add( wheel_, ev->_record(), ticks );
   ev->_moves( TimerWheelState::notLinked, TimerWheelState::inTimerWheel );
   if( masterExpiry_ <= expiry ) {
      return;
   }
   try {
      // Not in a pass, which would deliver what is collected here instead of the next one.
      if( !pass_ ) {
         setMasterTimer();
      }
      // The buckets may hold an earlier tick but a later exact time than this event, which then
      // waits on the wheel's own list; the next pass collects both.
      if( masterExpiry_ > expiry ) {
         _masterIs( std::max( 0.0, expiry - time() ), expiry );
      }
   } catch( ... ) {
      // The event base has no memory for one more timer, and nobody would serve the event.
      timerStop( ev );
      throw;
   }
}

void TimerWheel::timerStop( TimerWheelEvent* ev ) {
   if( ev->expirationTime_ == infinity ) {
      QUARN_TRACE( timerWheelHandler, 9, "TimerWheel", "timer {} del timeout, not running",
                   fmt::ptr( ev ) );
      return;
   }
   QUARN_TRACE( timerWheelHandler, 9, "TimerWheel", "timer {} del timeout", fmt::ptr( ev ) );
   if( ev->_is( TimerWheelState::inTimerWheel ) ) [[likely]] {
      timeouts_del( wheel_, ev->_record() );
      ev->_moves( TimerWheelState::inTimerWheel, TimerWheelState::notLinked );
   } else if( ev->state() == TimerWheelState::inTimersExpiryingSoon ) {
      _timersExpiryingSoonRemove( ev );
   } else {
      QUARN_FAIL( "TimerWheel", "Not linked but expirationTime={}", ev->expirationTime_ );
   }
   ev->expirationTime_ = infinity;
}

void TimerWheel::_timersExpiryingSoonRemove( TimerWheelEvent* ev ) {
   if( ev->state() != TimerWheelState::inTimersExpiryingSoon ) {
      QUARN_FAIL_AS( "TimerWheel", "timersExpiryingSoonRemove",
                     "Removing from timersExpiryingSoon in state {}", ev->state() );
   }
   if( !ev->pending ) {
      QUARN_FAIL_AS( "TimerWheel", "timersExpiryingSoonRemove", "No timersAtTimeout" );
   }
   // The bucket stays, perhaps empty; processing removes it.
   reinterpret_cast<TimersAtTimeout*>( ev->pending )->unlink( ev->_record() );
   ev->stateIs( TimerWheelState::notLinked );
}

void TimerWheel::_bucketAdd( TimerWheelEvent* ev ) {
   // Events come out of the wheel roughly in order, so most go behind the last bucket.
   auto hint = timersExpiryingSoon_.end();
   if( !timersExpiryingSoon_.empty() &&
       timersExpiryingSoon_.rbegin()->first >= ev->expirationTime_ ) {
      hint = timersExpiryingSoon_.lower_bound( ev->expirationTime_ );
   }
   auto bucket = hint;
   if( hint == timersExpiryingSoon_.end() || hint->first != ev->expirationTime_ ) {
      if( spareBuckets_.empty() ) {
         bucket = timersExpiryingSoon_.try_emplace( hint, ev->expirationTime_ );
      } else {
         Buckets::node_type node = std::move( spareBuckets_.back() );
         spareBuckets_.pop_back();
         node.key() = ev->expirationTime_;
         bucket = timersExpiryingSoon_.insert( hint, std::move( node ) );
      }
   }
   ev->_moves( TimerWheelState::notLinked, TimerWheelState::inTimersExpiryingSoon );
   bucket->second.pushBack( ev->_record() );
}

void TimerWheel::_bucketErase( Buckets::iterator bucket ) {
   if( spareBuckets_.size() < spareBucketsMax ) {
      spareBuckets_.push_back( timersExpiryingSoon_.extract( bucket ) );
   } else {
      timersExpiryingSoon_.erase( bucket );
   }
}

// Puts the records of ticks that have come into their buckets. They come tick by tick, in no order
// within a tick; sorted, each goes behind the last, which spares the walk down a tree that is as
// large as what is due. Events of one time keep the order in which they come.
void TimerWheel::_collect() {
   while( timeouts_expired( wheel_ ) ) {
      alignas( Due ) std::array<std::byte, dueNear * sizeof( Due )> near;
      std::pmr::monotonic_buffer_resource memory( near.data(), near.size() );
      std::pmr::vector<Due> dues( &memory );
      dues.reserve( dueNear );
      try {
         while( dues.size() < dueMax && timeouts_expired( wheel_ ) ) {
            if( dues.size() == dues.capacity() ) {
               dues.reserve( 2 * dues.size() );
            }
            TimerWheelEvent* ev = TimerWheelEvent::_of( timeouts_get( wheel_ ) );
            ev->_moves( TimerWheelState::inTimerWheel, TimerWheelState::notLinked );
            dues.push_back( { ev->expirationTime_, dues.size(), ev } );
         }
      } catch( const std::bad_alloc& ) {
         // Those that are here go first, and then there is room again.
      }
      std::sort( dues.begin(), dues.end() );
      for( std::size_t i = 0; i < dues.size(); ++i ) {
         if( i + dueAhead < dues.size() ) {
            __builtin_prefetch( dues[ i + dueAhead ].ev, 1 );
         }
         try {
            _bucketAdd( dues[ i ].ev );
         } catch( ... ) {
            // Without memory for a bucket the events go back, so that none is lost.
            for( ; i < dues.size(); ++i ) {
               TimerWheelEvent* ev = dues[ i ].ev;
               timeouts_add( wheel_, ev->_record(), ev->expires );
               ev->stateIs( TimerWheelState::inTimerWheel );
            }
            throw;
         }
      }
   }
}

unsigned long TimerWheel::_processExpiredTimers() {
   const double now = time();
   _setCurrentTime( now );
   _collect();
   unsigned long count = 0;
   const Pass pass( *this );
   // A timer may come back here and erase buckets, so each round starts at the front anew.
   while( !timersExpiryingSoon_.empty() ) {
      const auto first = timersExpiryingSoon_.begin();
      if( first->first > now ) {
         QUARN_TRACE( timerWheelHandler, 9, "TimerWheel",
                      "Defer processing timers with expiry time {} > now {}", first->first, now );
         break;
      }
      if( first->second.empty() ) {
         _bucketErase( first );
         continue;
      }
      // Among many timers the next record is far from the cache; it comes while this one is served.
      if( const auto next = std::next( first ); next != timersExpiryingSoon_.end() ) {
         __builtin_prefetch( next->second.front(), 1 );
      }
      TimerWheelEvent* ev = TimerWheelEvent::_of( first->second.front() );
      first->second.unlink( ev->_record() );
      ev->_moves( TimerWheelState::inTimersExpiryingSoon, TimerWheelState::notLinked );
      QUARN_TRACE_AS( timerWheelHandler, 9, "TimerWheel", "timerExpired", "timer {} expired",
                      fmt::ptr( ev ) );
      ++count;
      ev->expirationTime_ = infinity;
      ev->timeout();
      if( pass.wheelGone() ) {
         break;
      }
   }
   return count;
}

void TimerWheel::setMasterTimer() {
   const double now = time();
   _setCurrentTime( now );
   // A timer of a tick that has come waits on the wheel's own list, where a bucket that waits for a
   // later time would hide it.
   if( !timersExpiryingSoon_.empty() && timeouts_expired( wheel_ ) ) {
      try {
         _collect();
      } catch( const std::bad_alloc& ) {
         QUARN_TRACE( timerWheelHandler, 1, "TimerWheel", "no memory, timers collected later" );
         // One of them may be due before the first bucket.
         _masterIs( 0.0, 0.0 );
         return;
      }
   }
   const auto first = std::find_if( timersExpiryingSoon_.begin(), timersExpiryingSoon_.end(),
                                    []( const auto& bucket ) { return !bucket.second.empty(); } );
   if( first != timersExpiryingSoon_.end() && std::isfinite( first->first ) ) {
      const double expiry = first->first;
      if( now < expiry ) {
         QUARN_TRACE(
               timerWheelHandler, 8, "TimerWheel",
               "has scheduled timers, firstExpiryTime={} now={}, set master timer timeout {}",
               expiry, now, expiry - now );
         _masterIs( expiry - now, expiry );
         // What is on the wheel is later than any bucket, unless the clock was set back after the
         // bucket was filled.
         if( timeouts_pending( wheel_ ) ) {
            const double delay = static_cast<double>( timeouts_timeout( wheel_ ) ) / ticksPerSecond;
            if( now + delay < expiry ) {
               _masterIs( delay, now + delay );
            }
         }
      } else {
         QUARN_TRACE( timerWheelHandler, 8, "TimerWheel",
                      "has expired timers, firstExpiryTime={} now={}, set master timer timeout 0",
                      expiry, now );
         _masterIs( 0.0, expiry );
      }
      return;
   }
   if( timeouts_expired( wheel_ ) ) {
      QUARN_TRACE( timerWheelHandler, 8, "TimerWheel",
                   "has expired timers, set master timer timeout 0" );
      _masterIs( 0.0, 0.0 );
      return;
   }
   if( !timeouts_pending( wheel_ ) ) {
      QUARN_TRACE( timerWheelHandler, 8, "TimerWheel", "has no timers, del master timer timeout" );
      master_->delTimeout();
      masterExpiry_ = infinity;
      return;
   }
   const timeout_t ticks = timeouts_timeout( wheel_ );
   const double delay = static_cast<double>( ticks ) / ticksPerSecond;
   QUARN_TRACE( timerWheelHandler, 8, "TimerWheel",
                "has scheduled timers, first timer expiry in {} ticks, set master timer timeout {}",
                ticks, delay );
   _masterIs( delay, now + delay );
}

void TimerWheel::timeout() {
   QUARN_TRACE( timerWheelHandler, 8, "TimerWheel", "master timer expired" );
   const Pass pass( *this );
   try {
      _processExpiredTimers();
   } catch( ... ) {
      // A stale master expiry would stop the wheel for good.
      if( !pass.wheelGone() ) {
         setMasterTimer();
      }
      throw;
   }
   if( !pass.wheelGone() ) {
      setMasterTimer();
   }
}

unsigned long processExpiredTimersForTaskScheduler( const std::shared_ptr<TimerWheel>& wheel ) {
   QUARN_TRACE( timerWheelHandler, 8, "Quarn", "process expired timers" );
   return wheel->_processExpiredTimers();
}

// ----------------------------------------------------------------------------------------- checks

bool TimerWheel::checkForTest( std::span<TimerWheelEvent* const> events ) const {
   bool good = timeouts_check( wheel_, stderr );
   const auto require = [ & ]( bool holds, char const* what, void const* where ) {
      if( !holds ) {
         fmt::print( stderr, "timer wheel: not so: {} at {}\n", what, where );
         good = false;
      }
   };
   std::size_t inBuckets = 0;
   for( const auto& [ expiry, bucket ] : timersExpiryingSoon_ ) {
      for( ::timeout const* record = bucket.front(); record; record = record->tqe.tqe_next ) {
         ++inBuckets;
         require( static_cast<TimerWheelEvent const&>( *record ).expirationTime_ == expiry,
                  "event in the bucket of its time", record );
         require( record->pending == reinterpret_cast<timeout_list const*>( &bucket ),
                  "event points at its bucket", record );
      }
   }
   for( TimerWheelEvent const* ev : events ) {
      const TimerWheelState state = ev->state();
      const bool linked = state != TimerWheelState::notLinked;
      const bool armed = ev->expirationTime_ != infinity;
      require( armed == linked, "armed and linked agree", ev );
      require( linked == ( ev->pending != nullptr ), "state and links agree", ev );
      require( !armed || pass_ || masterExpiry_ <= ev->expirationTime_,
               "master timer no later than event", ev );
      inBuckets -= state == TimerWheelState::inTimersExpiryingSoon ? 1 : 0;
   }
   require( inBuckets == 0, "all events in buckets are known", this );
   return good;
}

} // namespace Quarn
