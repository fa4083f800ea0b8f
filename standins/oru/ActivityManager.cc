#include <Oru/ActivityManager.h>

#include "ClockQueues.h"
#include "DescriptorWatches.h"
#include "VirtualTime.h"

#include <Oru/ActivityLock.h>
#include <Oru/Entity.h>
#include <Oru/System.h>

#include <Quarn/base/Exception.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <poll.h>
#include <utility>

namespace Oru {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// The only one, for the function after a fork; null until it is made.
constinit ActivityManager* theManager = nullptr;

// Rounded up, so that a wait is not over before its time and then asked for again. Long ones are
// cut to a day, which is then evaluated again.
timespec timespecOf( double seconds ) {
   constexpr double longest = 24 * 60 * 60;
   if( !( seconds > 0 ) ) {
      return {};
   }
   double const capped = std::min( seconds, longest );
   double const whole = std::floor( capped );
   timespec wait = {};
   wait.tv_sec = static_cast<time_t>( whole );
   wait.tv_nsec = static_cast<long>( std::ceil( ( capped - whole ) * 1e9 ) );
   if( wait.tv_nsec >= 1'000'000'000 ) {
      ++wait.tv_sec;
      wait.tv_nsec -= 1'000'000'000;
   }
   return wait;
}

// Puts the clock forward by about that much. A step may be lost beside the sum that it goes into;
// it grows until the time moves, or the loop would ask for it for ever.
void skip( double now, double seconds ) {
   double step = seconds;
   while( step < infinity ) {
      virtualTimeOffset.store( virtualTimeOffset.load( std::memory_order_relaxed ) + step,
                               std::memory_order_relaxed );
      if( System::currentTime() > now ) {
         return;
      }
      step *= 2;
   }
}

class Locked {
 public:
   Locked() { ActivityLock::lock().acquire(); }
   ~Locked() { ActivityLock::lock().release(); }
   Locked( Locked const& ) = delete;
   Locked& operator=( Locked const& ) = delete;
};

// Lets go of the lock as often as the runs have taken it.
class LetOthersIn {
 public:
   explicit LetOthersIn( unsigned levels ) : levels_( levels ) {
      for( unsigned i = 0; i < levels_; ++i ) {
         ActivityLock::lock().release();
      }
   }
   ~LetOthersIn() {
      for( unsigned i = 0; i < levels_; ++i ) {
         ActivityLock::lock().acquire();
      }
   }
   LetOthersIn( LetOthersIn const& ) = delete;
   LetOthersIn& operator=( LetOthersIn const& ) = delete;

 private:
   unsigned const levels_;
};

} // namespace

constinit std::atomic<double> virtualTimeOffset{ 0 };
constinit std::atomic<bool> ActivityManager::virtualTime_{ false };

// One call of doRun().
class ActivityManager::Run {
 public:
   explicit Run( ActivityManager& manager )
         : manager_( manager ),
           watches_( *manager.watches_ ),
           queues_( *manager.clock_->queues_ ),
           outer_( manager.run_ ),
           depth_( outer_ ? outer_->depth_ + 1 : 0 ) {
      manager_._checkThread();
      _dropRest();
      manager_.run_ = this;
      manager_.runner_.store( pthread_self(), std::memory_order_relaxed );
   }

   ~Run() {
      manager_.run_ = outer_;
      if( !outer_ ) {
         manager_.runner_.store( 0, std::memory_order_relaxed );
      }
   }

   Run( Run const& ) = delete;
   Run& operator=( Run const& ) = delete;

   void untilDone( double seconds );
   void stop() { stopped_ = true; }

 private:
   // What is left of a turn, however it ends.
   class Rest {
    public:
      explicit Rest( Run& run ) : run_( run ) {}
      ~Rest() { run_._dropRest(); }
      Rest( Rest const& ) = delete;
      Rest& operator=( Rest const& ) = delete;

    private:
      Run& run_;
   };

   double _turn( double end );
   int _poll( DescriptorWatches::PollSet& set, double seconds );
   void _serve( DescriptorWatches::PollSet const* ready, double now );

   void _dropRest() noexcept {
      watches_.drop();
      queues_.putBack();
   }

   Locked const locked_; // first: all else is read under it
   ActivityManager& manager_;
   DescriptorWatches& watches_;
   Clock::Queues& queues_;
   Run* const outer_;
   unsigned const depth_;
   bool stopped_ = false;
};

void ActivityManager::Run::untilDone( double seconds ) {
   double const end = System::currentTime() + seconds;
   for( ;; ) {
      // The time of the turn and not the present one: when the run ends, all deadlines up to its
      // end were served, however long the notifications took.
      double const now = _turn( end );
      bool const endless = end == infinity;
      if( stopped_ || now >= end ||
          ( endless && watches_.empty() && queues_.next() == infinity ) ) {
         return;
      }
   }
}

// Waits and serves; gives the time of the turn.
double ActivityManager::Run::_turn( double end ) {
   DescriptorWatches::PollSet& set = watches_.current( depth_ );
   bool const skipWaits = manager_.virtualTime();
   double const target = std::min( queues_.next(), end );
   bool const look = target < infinity ? skipWaits : watches_.empty();
   int const ready = _poll( set, look ? 0 : target - System::currentTime() );

   double now = System::currentTime();
   // Another thread may have changed what is watched during the wait; then nothing is known.
   bool const current = watches_.isCurrent( set );
   if( skipWaits && ready == 0 && current ) {
      double const next = std::min( queues_.next(), end );
      if( now < next && next < infinity ) {
         skip( now, next - now );
         now = System::currentTime();
      }
   }
   _serve( ready != 0 && current ? &set : nullptr, now );
   return now;
}

// How many are ready.
int ActivityManager::Run::_poll( DescriptorWatches::PollSet& set, double seconds ) {
   timespec const wait = timespecOf( seconds );
   int ready;
   int error = 0;
   {
      LetOthersIn const letOthersIn( depth_ + 1 );
      ready = ppoll( set.entries.data(), set.entries.size(), seconds == infinity ? nullptr : &wait,
                     nullptr );
      if( ready < 0 ) {
         error = errno;
      }
   }
   if( error == EINTR ) {
      return 0;
   }
   if( error != 0 ) {
      Quarn::RuntimeException::throwException( "activity loop cannot wait for " +
                                               std::to_string( set.entries.size() ) +
                                               " descriptors: " + Quarn::strerror( error ) );
   }
   return ready;
}

// A nested run takes over what is left, so the loops find nothing more after one.
void ActivityManager::Run::_serve( DescriptorWatches::PollSet const* ready, double now ) {
   Rest const rest( *this );
   queues_.collect( now );
   if( ready ) {
      watches_.collect( *ready );
   }
   while( !stopped_ && watches_.serveOne() ) {
      ++manager_.served_;
   }
   while( !stopped_ && queues_.serveOne( now ) ) {
      ++manager_.served_;
   }
}

ActivityManager::ActivityManager()
      : clock_( new Clock ),
        watches_( std::make_unique<DescriptorWatches>() ) {
   // The lock comes first: a fork waits for it before the runs are looked at.
   ActivityLock::lock();
   theManager = this;
   pthread_atfork( nullptr, nullptr, [] { theManager->_forgetRunsOfLostThread(); } );
}

ActivityManager::~ActivityManager() = default;

// In a forked child. When another thread forked, the one that ran the loop was waiting, with
// nothing left to serve, and is not in the child.
void ActivityManager::_forgetRunsOfLostThread() {
   if( runner_.load( std::memory_order_relaxed ) != pthread_self() ) {
      run_ = nullptr;
      runner_.store( 0, std::memory_order_relaxed );
   }
}

Ptr<ActivityManager> ActivityManager::instance() {
   // Asked for at each change of a clock; the table of singletons would cost a lock.
   static constinit std::atomic<ActivityManager*> known{ nullptr };
   ActivityManager* manager = known.load( std::memory_order_acquire );
   if( !manager ) {
      manager = Entity::singletonIs<ActivityManager>().get();
      known.store( manager, std::memory_order_release );
   }
   return manager;
}

double ActivityManager::virtualTimeOffset() {
   return Oru::virtualTimeOffset.load( std::memory_order_relaxed );
}

void ActivityManager::executionTimeIs( double seconds ) {
   _checkThread();
   if( std::isnan( seconds ) ) {
      Quarn::AssertException::throwException( "execution time is not a number" );
   }
   executionTime_ = std::max( seconds, 0.0 );
}

void ActivityManager::_checkThread() const {
   pthread_t const runner = runner_.load( std::memory_order_relaxed );
   if( runner != 0 && runner != pthread_self() ) {
      Quarn::AssertException::throwException( "activity loop runs on another thread already" );
   }
}

void ActivityManager::doRun() {
   // Looked at before the lock as well: whoever waits for it while the loop waits for him, would
   // wait for ever.
   _checkThread();
   Run run( *this );
   run.untilDone( std::exchange( executionTime_, infinity ) );
}

void ActivityManager::doStop() {
   if( run_ ) {
      run_->stop();
   }
}

void ActivityManagerConfig::virtualTimeIs( bool on ) {
   ActivityManager::virtualTime_.store( on, std::memory_order_relaxed );
}

} // namespace Oru
