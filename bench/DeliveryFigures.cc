// What the delivery of a large snapshot does to the rest of the program: how long it keeps the loop
// from other work, and how much memory it takes.

#include "Figure.h"
#include "NamedTask.h"
#include "SlowReader.h"

#include <Quarn/LibeventFactoryCpp.h>

#include <algorithm>
#include <fstream>
#include <string_view>

#include <malloc.h>

namespace bench {

namespace {

constexpr std::int64_t tasks = 100'000;
constexpr std::int64_t groupCount = 100;
constexpr std::chrono::milliseconds idle{ 500 };
// Less than any task takes in the document.
constexpr std::int64_t leastBytesOfTask = 400;

using Snapshots = std::vector<std::shared_ptr<const Quarn::TaskSchedulerSnapshot>>;

// A timer that starts itself again, and how late it was at worst.
class LateTimer final : public Quarn::Platform::TimeoutHandler {
 public:
   LateTimer() { _start(); }

   // It fires once more, so that nothing before this is overlooked.
   void stop() { stopped_ = true; }
   void stopAfter( std::chrono::milliseconds time ) {
      stopAt_ = std::chrono::steady_clock::now() + time;
   }
   double latestMs() const { return std::chrono::duration<double, std::milli>( latest_ ).count(); }

 private:
   static constexpr std::chrono::milliseconds period{ 5 };

   void _start() {
      due_ = std::chrono::steady_clock::now() + period;
      control_->setTimeout( std::chrono::duration<double>( period ).count() );
   }
   void timeout() override {
      const auto now = std::chrono::steady_clock::now();
      latest_ = std::max<Time>( latest_, now - due_ );
      if( !stopped_ && now < stopAt_ ) {
         _start();
      }
   }

   std::shared_ptr<Quarn::Platform::TimerControl> control_ =
         Quarn::Platform::getLeTimerControl( this );
   std::chrono::steady_clock::time_point due_;
   std::chrono::steady_clock::time_point stopAt_ = std::chrono::steady_clock::time_point::max();
   Time latest_{};
   bool stopped_ = false;
};

// The memory in use, by what the kernel counts as resident: large blocks of the allocator are
// mapped anew and given back at once, so that there is little in it that nobody uses.
class ResidentPeak {
 public:
   // The present level is where the peak starts from. Memory that was freed goes back first.
   ResidentPeak() {
      malloc_trim( 0 );
      std::ofstream reset( "/proc/self/clear_refs" );
      constexpr int peak = 5;
      reset << peak << std::flush;
      known_ = reset.good();
      level_ = _kilobytes( "VmRSS:" );
   }

   // Nothing where the kernel does not let the peak be reset.
   std::optional<double> megabytes() const {
      if( !known_ ) {
         return std::nullopt;
      }
      return ( _kilobytes( "VmHWM:" ) - level_ ) * 1024 / 1e6;
   }

 private:
   static double _kilobytes( std::string_view key ) {
      std::ifstream status( "/proc/self/status" );
      for( std::string word; status >> word; ) {
         if( word == key ) {
            double value = 0;
            status >> value;
            return value;
         }
      }
      return 0;
   }

   bool known_ = false;
   double level_ = 0;
};

enum class Shape {
   // One scheduler has all tasks.
   flat,
   // They are in groups, and each group has a snapshot.
   groups,
   // They are in groups, and the root's one snapshot has those of the groups in it.
   nested,
};

class DeliverySides final : public Sides {
 public:
   explicit DeliverySides( Shape shape ) : shape_( shape ) {
      if( shape == Shape::flat ) {
         addNamedTasks( tasks_, root_, tasks, true );
         return;
      }
      for( std::int64_t i = 0; i < groupCount; ++i ) {
         groups_.push_back( Quarn::TaskGroup::TaskGroupIs(
               fmt::format( "bench-group-{:02}", i ), Quarn::TaskPriority::normal, false, root_ ) );
         addNamedTasks( tasks_, groups_.back(), tasks / groupCount, true );
      }
   }

   Time ours() override {
      SlowReader reader( tasks * leastBytesOfTask );
      Snapshots snapshots = _snapshots();
      const ResidentPeak peak;
      LateTimer timer;
      root_->snapshotRenderJsonAsync( reader.pipe(), std::move( snapshots ),
                                      [ & ] { timer.stop(); } );
      const Time time = timed( [] { Quarn::doLeEventLoop(); } );
      reader.finish();
      plain_.clear();
      plain_[ "pause" ] = timer.latestMs();
      if( const auto megabytes = peak.megabytes() ) {
         plain_[ "memory" ] = *megabytes;
      }
      return time;
   }
   // Nothing is delivered.
   Time floor() override {
      LateTimer timer;
      timer.stopAfter( idle );
      const Time time = timed( [] { Quarn::doLeEventLoop(); } );
      idlePause_ = timer.latestMs();
      return time;
   }
   PlainValues oursPlain() const override { return plain_; }
   PlainValues floorPlain() const override { return { { "pause", idlePause_ } }; }

 private:
   Snapshots _snapshots() const {
      if( shape_ != Shape::groups ) {
         return { root_->snapshot( {}, false, false, false, {}, 0 ) };
      }
      Snapshots snapshots;
      for( const auto& group : groups_ ) {
         snapshots.push_back( group->snapshot( {}, false, false, false, {}, 0 ) );
      }
      return snapshots;
   }

   Shape shape_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ =
         Quarn::schedulerRootQuarnNonShared( "BenchDeliveryRoot" );
   std::vector<std::shared_ptr<Quarn::TaskGroup>> groups_;
   NamedTasks tasks_;
   PlainValues plain_;
   double idlePause_ = 0;
};

} // namespace

void deliveryFigures( std::vector<Figure>& figures ) {
   const auto add = [ & ]( char const* name, Shape shape ) {
      figures.push_back( { name,
                           std::nullopt,
                           1,
                           1,
                           [ shape ] { return std::make_unique<DeliverySides>( shape ); },
                           1,
                           { { "pause", "ms" }, { "memory", "MB" } },
                           true } );
   };
   add( "json_delivery", Shape::flat );
   add( "json_delivery_groups", Shape::groups );
   add( "json_delivery_nested", Shape::nested );
}

} // namespace bench
