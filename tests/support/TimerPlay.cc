#include "support/TimerPlay.h"

#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/Clocks.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <exception>
#include <iterator>
#include <limits>
#include <map>
#include <utility>
#include <vector>

namespace testing_support {

namespace {

using namespace Quarn;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr int depthMax = 3;

struct TimerThrew {};

enum class Do { start, stop, replace, clockIs, setMaster, pass, rawPass, fires, count };

constexpr char const* names[] = { "start", "stop",        "replace",  "clock",
                                  "set",   "timeout() {", "pass() {", "fires" };
static_assert( std::size( names ) == static_cast<std::size_t>( Do::count ) );

class Play final : public TimerPlay {
 public:
   Play( const Setting& setting, Draw draw );
   ~Play() override;

   bool stepOnce() override;
   bool finish() override;
   const std::string& fault() const override { return fault_; }
   void show( std::ostream& out ) const override;
   const Counts& counts() const override { return counts_; }

 private:
   struct Timer;
   using Order = std::multimap<double, Timer*>;

   // What the next deliveries have to do with a timer that runs.
   enum class Seen {
      // Started since the last collection: not before the next.
      no,
      // By this pass or a later one.
      maybe,
      yes
   };

   struct Timer final : TimerWheelEvent {
      Timer( Play& itsPlay, unsigned itsNumber ) : play( itsPlay ), number( itsNumber ) {}
      void timeout() override { play._fires( *this ); }

      Play& play;
      unsigned number;
      bool armed = false;
      Seen seen = Seen::no;
      Order::iterator place{};
      // When it was started: between which pass and the next change of the clock, and in what
      // order.
      std::uint64_t epoch = 0;
      std::uint64_t sequence = 0;
   };

   static Platform::DebugHandler& _trace() {
      static const std::shared_ptr<Platform::DebugHandler> handler =
            Platform::getDebugHandler( "QuarnTimerWheel", false );
      return *handler;
   }
   std::uint64_t _below( std::uint64_t n ) { return draw_() % n; }
   double _fraction() { return static_cast<double>( draw_() >> 11 ) * 0x1p-53; }
   Timer& _any() { return *timers_[ _below( timers_.size() ) ]; }
   double _delay();
   double _nextClock();

   void _draws( bool inside );
   void _start( Timer& timer, double delay );
   void _stop( Timer& timer );
   void _replace( unsigned number );
   void _clockIs( double now );
   void _setMaster();
   void _pass( bool raw );
   void _fires( Timer& timer );

   Order& _orderOf( Seen seen ) { return seen == Seen::yes ? due_ : fresh_; }
   void _disarm( Timer& timer );
   void _arm( Timer& timer, double expiry );
   void _collectionAt( double now );
   void _compareOne( const Timer& timer );
   void _compareMaster();
   void _compareAll();
   bool _near( double expiry ) const {
      return std::abs( expiry - clock_.now() ) < 1e4 || clock_.now() > 1e10;
   }
   void _did( Do what, unsigned timer, double value );
   void _fail( const std::string& what );

   Setting setting_;
   Draw draw_;
   Testing::ManualTimerClock clock_;
   std::shared_ptr<TimerWheel> wheel_;
   std::vector<std::unique_ptr<Timer>> timers_;
   // Those that the passes must deliver, and those that only the next one has to.
   Order due_;
   Order fresh_;
   struct UnderWay {
      double now;
      unsigned long delivered;
   };
   // The passes under way, the innermost last.
   std::vector<UnderWay> passes_;
   double home_;
   double lastDelivered_ = -infinity;
   std::uint64_t epochs_ = 0;
   // 0 while the wheel does not know yet what the clock says.
   std::uint64_t epoch_ = 0;
   std::uint64_t sequence_ = 0;
   std::uint64_t lastTieEpoch_ = 0;
   std::uint64_t lastTieSequence_ = 0;
   unsigned firedInStep_ = 0;
   // Timers that fire do nothing more.
   bool finishing_ = false;
   std::uint64_t steps_ = 0;
   Counts counts_;
   std::string fault_;

   struct Did {
      Do what = Do::count;
      unsigned timer = 0;
      double value = 0.0;
      double clock = 0.0;
   };
   std::array<Did, 48> did_{};
   std::size_t didCount_ = 0;
};

Play::Play( const Setting& setting, Draw draw )
      : setting_( setting ),
        draw_( std::move( draw ) ),
        clock_( setting.clockStart ),
        wheel_( getTimerWheelForTaskScheduler( Platform::EventPriority::eventPriorityDefault ) ),
        home_( setting.clockStart ) {
   // Says of every timer beyond the last tick that it is.
   _trace().enabledIs( 0, false );
   for( unsigned n = 0; n < setting_.timers; ++n ) {
      timers_.push_back( std::make_unique<Timer>( *this, n ) );
   }
}

Play::~Play() {
   for( const auto& timer : timers_ ) {
      wheel_->timerStop( timer.get() );
   }
   _trace().enabledIs( 0, true );
}

void Play::_did( Do what, unsigned timer, double value ) {
   did_[ didCount_++ % did_.size() ] = { what, timer, value, clock_.now() };
}

void Play::show( std::ostream& out ) const {
   out << "step " << steps_ << ", the last operations:";
   for( std::size_t n = didCount_ > did_.size() ? didCount_ - did_.size() : 0; n < didCount_;
        ++n ) {
      const Did& did = did_[ n % did_.size() ];
      out << fmt::format( "\n   at {:.9f}: {} timer {} {}", did.clock,
                          names[ static_cast<std::size_t>( did.what ) ], did.timer, did.value );
   }
   out << '\n';
}

void Play::_fail( const std::string& what ) {
   if( fault_.empty() ) {
      fault_ = what;
   }
}

// ------------------------------------------------------------------------------------- the drawing

// Ties, what is no time at all, what is within a tick, and what lies beyond any tick.
double Play::_delay() {
   static constexpr double table[] = { 0.0,  0.0001, 0.004, 0.0099,   0.01, 0.0101,
                                       0.25, 1.0,    63.99, 640.0,    1e5,  1e9,
                                       2e17, 1e300,  -0.5,  -infinity };
   const std::uint64_t kind = _below( 32 );
   if( kind < std::size( table ) ) {
      return table[ kind ];
   }
   if( kind == 16 ) {
      return infinity;
   }
   // Whole hundredths of a coarse grid meet each other again and again.
   return kind < 22 ? 0.25 * static_cast<double>( _below( 8 ) ) : 2.0 * _fraction();
}

double Play::_nextClock() {
   const double now = clock_.now();
   switch( _below( 64 ) ) {
   case 0:
   case 1:
   case 2:
      // Not before the beginning of time, which stands for "at once".
      return std::max( 1.0, now - 2000.0 * _fraction() );
   case 3:
   case 4:
      return now + 700.0 * _fraction();
   case 5:
      return now + 1e6 * _fraction();
   case 6:
      return _below( 8 ) == 0 ? now + 3e9 * _fraction() : now;
   case 7:
      return _below( 16 ) == 0 ? 3e17 : now;
   case 8:
   case 9:
      // After a look into the future everything is to be as before.
      return home_ + 100.0 * _fraction();
   default:
      break;
   }
   // To the moment at which a timer is due, or just before it.
   Order const& order = due_.empty() || ( !fresh_.empty() && _below( 2 ) == 0 ) ? fresh_ : due_;
   if( _below( 2 ) == 0 && !order.empty() && _near( order.begin()->first ) ) {
      const double due = order.begin()->first;
      return std::max( now, _below( 4 ) == 0 ? std::nextafter( due, -infinity ) : due );
   }
   return now + 0.02 * _fraction();
}

void Play::_draws( bool inside ) {
   const std::uint64_t kind = _below( inside ? 14 : 16 );
   switch( kind ) {
   case 0:
      _stop( _any() );
      break;
   case 1:
      _replace( static_cast<unsigned>( _below( timers_.size() ) ) );
      break;
   case 2:
      _clockIs( _nextClock() );
      break;
   case 3:
      _setMaster();
      break;
   case 4:
      if( passes_.size() < depthMax ) {
         _pass( _below( 2 ) == 0 );
      }
      break;
   case 14:
   case 15:
      _clockIs( _nextClock() );
      _pass( kind == 15 && _below( 4 ) == 0 );
      break;
   default:
      _start( _any(), _delay() );
      break;
   }
}

// -------------------------------------------------------------------------------------- operations

void Play::_disarm( Timer& timer ) {
   if( timer.armed ) {
      _orderOf( timer.seen ).erase( timer.place );
      timer.armed = false;
   }
}

void Play::_arm( Timer& timer, double expiry ) {
   timer.seen = Seen::no;
   timer.place = fresh_.emplace( expiry, &timer );
   timer.armed = true;
   timer.epoch = epoch_;
   timer.sequence = ++sequence_;
}

void Play::_start( Timer& timer, double delay ) {
   _did( Do::start, timer.number, delay );
   ++counts_.operations;
   counts_.restartsInside += passes_.empty() ? 0 : 1;
   counts_.farAhead += delay >= 2e17 && delay != infinity ? 1 : 0;
   const double expiry = clock_.now() + ( delay == -infinity ? 0.0 : delay );
   wheel_->timerStart( &timer, delay );
   // Started for the time it has, it keeps its place.
   if( !timer.armed || timer.place->first != expiry ) {
      _disarm( timer );
      if( expiry != infinity ) {
         _arm( timer, expiry );
      }
   }
   _compareOne( timer );
}

void Play::_stop( Timer& timer ) {
   _did( Do::stop, timer.number, 0.0 );
   ++counts_.operations;
   wheel_->timerStop( &timer );
   _disarm( timer );
   _compareOne( timer );
}

void Play::_replace( unsigned number ) {
   Timer& old = *timers_[ number ];
   _stop( old );
   _did( Do::replace, number, 0.0 );
   ++counts_.operations;
   timers_[ number ] = std::make_unique<Timer>( *this, number );
}

void Play::_clockIs( double now ) {
   _did( Do::clockIs, 0, now );
   ++counts_.operations;
   counts_.clockBack += now < clock_.now() ? 1 : 0;
   clock_.set( now );
   epoch_ = 0;
}

void Play::_setMaster() {
   _did( Do::setMaster, 0, 0.0 );
   ++counts_.operations;
   wheel_->setMasterTimer();
   epoch_ = 0;
   // It may have collected what was started since.
   for( const auto& entry : fresh_ ) {
      entry.second->seen = Seen::maybe;
   }
}

// A pass at `now` begins: from here on everything that has come by then is its own.
void Play::_collectionAt( double now ) {
   const auto end = passes_.size() > 1 ? fresh_.upper_bound( now ) : fresh_.end();
   for( auto entry = fresh_.begin(); entry != end; ) {
      Timer& timer = *entry->second;
      auto node = fresh_.extract( entry++ );
      timer.seen = Seen::yes;
      timer.place = due_.insert( std::move( node ) );
   }
   for( const auto& entry : fresh_ ) {
      entry.second->seen = Seen::maybe;
   }
}

void Play::_pass( bool raw ) {
   const double now = clock_.now();
   _did( raw ? Do::rawPass : Do::pass, 0, 0.0 );
   ++counts_.operations;
   counts_.nestedPasses += passes_.empty() ? 0 : 1;
   passes_.push_back( { now, 0 } );
   _collectionAt( now );
   lastDelivered_ = -infinity;
   lastTieEpoch_ = 0;
   bool threw = false;
   try {
      if( raw ) {
         const unsigned long delivered = wheel_->_processExpiredTimers();
         if( delivered != passes_.back().delivered ) {
            _fail( fmt::format( "a pass says {} timers, {} were delivered", delivered,
                                passes_.back().delivered ) );
         }
      } else {
         wheel_->timeout();
      }
   } catch( const TimerThrew& ) {
      threw = true;
      ++counts_.throughPasses;
   }
   passes_.pop_back();
   lastDelivered_ = -infinity;
   lastTieEpoch_ = 0;
   if( !threw && !due_.empty() && due_.begin()->first <= now ) {
      _fail( fmt::format( "timer {}, due at {:.9f}, is not delivered by the pass at {:.9f}",
                          due_.begin()->second->number, due_.begin()->first, now ) );
   }
   if( passes_.empty() ) {
      epoch_ = clock_.now() == now ? ++epochs_ : 0;
   } else {
      epoch_ = 0;
      for( const auto& entry : fresh_ ) {
         entry.second->seen = Seen::maybe;
      }
      if( threw && _below( 2 ) == 0 ) {
         throw TimerThrew();
      }
   }
}

void Play::_fires( Timer& timer ) {
   _did( Do::fires, timer.number, 0.0 );
   ++counts_.delivered;
   ++firedInStep_;
   if( !timer.armed || passes_.empty() ) {
      _fail( fmt::format( "timer {} fires, and does not run", timer.number ) );
      return;
   }
   const double expiry = timer.place->first;
   const double passNow = passes_.back().now;
   ++passes_.back().delivered;
   if( expiry > passNow ) {
      _fail( fmt::format( "timer {}, due at {:.9f}, fires at {:.9f}", timer.number, expiry,
                          passNow ) );
   }
   if( timer.seen == Seen::no ) {
      _fail( fmt::format( "timer {} fires in the pass in which it was started", timer.number ) );
   }
   if( !due_.empty() && due_.begin()->first < expiry ) {
      _fail( fmt::format( "timer {}, due at {:.9f}, fires before timer {}, due at {:.9f}",
                          timer.number, expiry, due_.begin()->second->number,
                          due_.begin()->first ) );
   }
   if( timer.expirationTime() != infinity || timer.state() != TimerWheelState::notLinked ) {
      _fail( fmt::format( "timer {} still runs while it fires", timer.number ) );
   }
   if( expiry == lastDelivered_ ) {
      ++counts_.ties;
      // Under one clock, those of one time fire as they were started.
      if( timer.epoch != 0 && timer.epoch == lastTieEpoch_ && timer.sequence < lastTieSequence_ ) {
         _fail( fmt::format( "timer {} fires after one that was started later, both due at {:.9f}",
                             timer.number, expiry ) );
      }
   }
   lastDelivered_ = expiry;
   lastTieEpoch_ = timer.epoch;
   lastTieSequence_ = timer.sequence;
   _disarm( timer );
   if( finishing_ || !fault_.empty() || firedInStep_ > 2 * timers_.size() + 100 ) {
      return;
   }
   const std::uint64_t kind = _below( 16 );
   if( kind < 5 ) {
      _start( timer, kind == 0 ? 0.0 : _delay() );
   } else if( kind < 8 ) {
      for( std::uint64_t n = 1 + _below( 3 ); n > 0; --n ) {
         _draws( true );
      }
   } else if( kind == 8 && _below( 4 ) == 0 ) {
      throw TimerThrew();
   }
}

// -------------------------------------------------------------------------------------- comparison

void Play::_compareOne( const Timer& timer ) {
   const double expiry = timer.armed ? timer.place->first : infinity;
   const double remaining = timer.armed ? std::max( 0.0, expiry - clock_.now() ) : infinity;
   if( timer.expirationTime() != expiry || timer.remainingTimeout() != remaining ||
       ( timer.state() != TimerWheelState::notLinked ) != timer.armed ) {
      _fail( fmt::format( "timer {} is {}, due at {:.9f} in {}; the model says {:.9f} in {}",
                          timer.number, timer.state(), timer.expirationTime(),
                          timer.remainingTimeout(), expiry, remaining ) );
   }
   counts_.waitedInTick += timer.state() == TimerWheelState::inTimersExpiryingSoon ? 1 : 0;
}

void Play::_compareAll() {
   std::vector<TimerWheelEvent*> events;
   events.reserve( timers_.size() );
   for( const auto& timer : timers_ ) {
      events.push_back( timer.get() );
      _compareOne( *timer );
   }
   if( !wheel_->checkForTest( events ) ) {
      _fail( "checkForTest()" );
   }
}

// The loop wakes the wheel in time for whatever is first.
void Play::_compareMaster() {
   for( Order const* order : { &due_, &fresh_ } ) {
      if( !order->empty() && wheel_->masterExpiryForTest() > order->begin()->first ) {
         _fail( fmt::format( "the master timer is set for {:.9f}, timer {} is due at {:.9f}",
                             wheel_->masterExpiryForTest(), order->begin()->second->number,
                             order->begin()->first ) );
      }
   }
}

bool Play::stepOnce() {
   ++steps_;
   firedInStep_ = 0;
   try {
      _draws( false );
   } catch( const std::exception& e ) {
      _fail( e.what() );
   }
   _compareMaster();
   if( fault_.empty() && steps_ % setting_.checkEvery == 0 ) {
      _compareAll();
   }
   return fault_.empty();
}

bool Play::finish() {
   finishing_ = true;
   try {
      _compareAll();
      // Some when they are due, one time after the other, and the rest at the latest of all.
      constexpr int single = 100;
      for( int n = 0; n <= single && fault_.empty() && !( due_.empty() && fresh_.empty() ); ++n ) {
         double first = infinity;
         double last = clock_.now();
         for( Order const* order : { &due_, &fresh_ } ) {
            if( !order->empty() ) {
               first = std::min( first, order->begin()->first );
               last = std::max( last, order->rbegin()->first );
            }
         }
         _clockIs( n < single ? std::max( clock_.now(), first ) : last );
         _pass( false );
         _compareMaster();
      }
      if( !due_.empty() || !fresh_.empty() ) {
         _fail( "timers still run when all have come due" );
      }
      _compareAll();
   } catch( const std::exception& e ) {
      _fail( e.what() );
   }
   return fault_.empty();
}

} // namespace

bool TimerPlay::hasExtendedPrecision() {
   const volatile long double one = 1;
   return one + std::numeric_limits<long double>::epsilon() != one;
}

std::unique_ptr<TimerPlay> TimerPlay::make( const Setting& setting, Draw draw ) {
   return std::make_unique<Play>( setting, std::move( draw ) );
}

} // namespace testing_support
