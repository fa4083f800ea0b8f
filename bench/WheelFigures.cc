// The timing wheel alone against a balanced tree that is keyed by expiry.

#include "Draws.h"
#include "Figure.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <timeout.h>

#include <cstdlib>
#include <map>

namespace bench {

namespace {

constexpr timeout_t ticksPerSecond = 100;
// Some tick of these years, as the timer wheel has them.
constexpr timeout_t beginning = 175'000'000'000;
constexpr timeout_t last = beginning + 3600 * ticksPerSecond;

void requireExpired( std::size_t expired, std::size_t count ) {
   if( expired != count ) {
      fmt::print( stderr, "{} of {} records expired\n", expired, count );
      std::abort();
   }
}

std::vector<timeout_t> ticksOf( const std::vector<double>& delays ) {
   std::vector<timeout_t> ticks;
   ticks.reserve( delays.size() );
   for( const double seconds : delays ) {
      ticks.push_back( beginning + static_cast<timeout_t>( seconds * ticksPerSecond ) );
   }
   return ticks;
}

class WheelRecords {
 public:
   explicit WheelRecords( const Draws& draws, const std::vector<timeout_t>& ticks )
         : draws_( draws ),
           ticks_( ticks ),
           records_( ticks.size() ) {
      for( ::timeout& record : records_ ) {
         timeout_init( &record, TIMEOUT_ABS );
      }
   }

   Time insert() {
      int error = 0;
      wheel_.reset( timeouts_open( ticksPerSecond, &error ) );
      timeouts_update( wheel_.get(), beginning );
      return timed( [ this ] {
         for( std::size_t i = 0; i < records_.size(); ++i ) {
            timeouts_add( wheel_.get(), &records_[ i ], ticks_[ i ] );
         }
      } );
   }
   Time remove() {
      return timed( [ this ] {
         for( const std::size_t i : draws_.stopOrder ) {
            timeouts_del( wheel_.get(), &records_[ i ] );
         }
      } );
   }
   // Time passes in steps of so many ticks.
   Time expire( timeout_t step ) {
      std::size_t expired = 0;
      const Time time = timed( [ & ] {
         for( timeout_t now = beginning; now < last; ) {
            now += step;
            timeouts_update( wheel_.get(), now );
            while( ::timeout* record = timeouts_get( wheel_.get() ) ) {
               benchmark::DoNotOptimize( record );
               ++expired;
            }
         }
      } );
      requireExpired( expired, records_.size() );
      return time;
   }

 private:
   struct Close {
      void operator()( timeouts* wheel ) const { timeouts_close( wheel ); }
   };

   const Draws& draws_;
   const std::vector<timeout_t>& ticks_;
   std::vector<::timeout> records_;
   // Closed before the records go, which it may still hold.
   std::unique_ptr<timeouts, Close> wheel_;
};

class TreeRecords {
 public:
   explicit TreeRecords( const Draws& draws, const std::vector<timeout_t>& ticks )
         : draws_( draws ),
           ticks_( ticks ),
           records_( ticks.size() ),
           places_( ticks.size() ) {}

   Time insert() {
      tree_.clear();
      return timed( [ this ] {
         for( std::size_t i = 0; i < records_.size(); ++i ) {
            places_[ i ] = tree_.emplace( ticks_[ i ], &records_[ i ] );
         }
      } );
   }
   Time remove() {
      return timed( [ this ] {
         for( const std::size_t i : draws_.stopOrder ) {
            tree_.erase( places_[ i ] );
         }
      } );
   }
   Time expire( timeout_t step ) {
      std::size_t expired = 0;
      const Time time = timed( [ & ] {
         for( timeout_t now = beginning; now < last; ) {
            now += step;
            while( !tree_.empty() && tree_.begin()->first <= now ) {
               ::timeout* record = tree_.begin()->second;
               tree_.erase( tree_.begin() );
               benchmark::DoNotOptimize( record );
               ++expired;
            }
         }
      } );
      requireExpired( expired, records_.size() );
      return time;
   }

 private:
   using Tree = std::multimap<std::uint64_t, ::timeout*>;

   const Draws& draws_;
   const std::vector<timeout_t>& ticks_;
   std::vector<::timeout> records_;
   std::vector<Tree::iterator> places_;
   Tree tree_;
};

enum class Step { insert, remove, expire };

class WheelSides final : public Sides {
 public:
   WheelSides( Step step, bool soon, timeout_t ticks )
         : step_( step ),
           passing_( ticks ),
           draws_( million ),
           ticks_( ticksOf( soon ? draws_.soonDelays : draws_.delays ) ) {}

   Time ours() override { return _life( wheel_ ); }
   Time floor() override { return _life( tree_ ); }

 private:
   template<typename Records>
   Time _life( Records& records ) {
      const Time inserted = records.insert();
      switch( step_ ) {
      case Step::insert:
         records.remove();
         return inserted;
      case Step::remove:
         return records.remove();
      default:
         return records.expire( passing_ );
      }
   }

   Step step_;
   timeout_t passing_;
   Draws draws_;
   std::vector<timeout_t> ticks_;
   WheelRecords wheel_{ draws_, ticks_ };
   TreeRecords tree_{ draws_, ticks_ };
};

Figure wheelFigure( std::string name, std::optional<double> goal, Step step, bool soon = false,
                    timeout_t passing = 0 ) {
   const auto count = static_cast<std::int64_t>( million );
   return { std::move( name ), goal, count, count,
            [ = ] { return std::make_unique<WheelSides>( step, soon, passing ); } };
}

} // namespace

void wheelFigures( std::vector<Figure>& figures ) {
   figures.push_back( wheelFigure( "wheel_insert", 0.03, Step::insert ) );
   figures.push_back( wheelFigure( "wheel_remove", 0.1, Step::remove ) );
   figures.push_back( wheelFigure( "wheel_expire", 2.5, Step::expire, false, 1 ) );
   figures.push_back( wheelFigure( "wheel_expire_at_once", std::nullopt, Step::expire, false,
                                   last - beginning ) );
   figures.push_back(
         wheelFigure( "wheel_expire_soon", std::nullopt, Step::expire, true, last - beginning ) );
}

} // namespace bench
