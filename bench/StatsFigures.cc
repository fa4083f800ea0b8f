// Records of many tasks against copies of records.

#include "Figure.h"

#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <cstdlib>

#include <fmt/format.h>

namespace bench {

namespace {

constexpr std::int64_t tasks = 100'000;

class NamedTask final : public Quarn::Task {
 public:
   NamedTask( std::shared_ptr<Quarn::TaskScheduler> scheduler, std::int64_t number )
         : Task( std::move( scheduler ), Quarn::TaskPriority::normal,
                 Quarn::String( fmt::format( "bench-named-task-{:06}", number ) ) ) {}

 private:
   void taskExecute() override {}
};

class SelectSides final : public Sides {
 public:
   SelectSides() {
      for( std::int64_t i = 0; i < tasks; ++i ) {
         tasks_.push_back( std::make_shared<NamedTask>( root_, i ) );
         tasks_.back()->taskRunFromTest();
      }
      root_->getTaskStats( prepared_, false );
      selected_.reserve( prepared_.size() );
      copied_.reserve( prepared_.size() );
   }

   Time ours() override {
      selected_.clear();
      const Time time = timed( [ this ] { root_->getTaskStats( selected_, false ); } );
      if( selected_.size() != prepared_.size() ) {
         fmt::print( stderr, "not all tasks were selected\n" );
         std::abort();
      }
      return time;
   }
   Time floor() override {
      copied_.clear();
      return timed( [ this ] {
         for( const Quarn::TaskStat& stat : prepared_ ) {
            copied_.push_back( stat );
         }
      } );
   }

 private:
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ =
         Quarn::schedulerRootQuarnNonShared( "BenchStatsRoot" );
   std::vector<std::shared_ptr<NamedTask>> tasks_;
   Quarn::BasicVector<Quarn::TaskStat> prepared_;
   Quarn::BasicVector<Quarn::TaskStat> selected_;
   Quarn::BasicVector<Quarn::TaskStat> copied_;
};

} // namespace

void statsFigures( std::vector<Figure>& figures ) {
   figures.push_back(
         { "stats_select", 3.0, tasks, tasks, [] { return std::make_unique<SelectSides>(); }, 5 } );
}

} // namespace bench
