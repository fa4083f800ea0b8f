// How long the single steps take that look at every task of a scheduler, beside the quantum.
//
//     bench_steps [--json FILE]
//
// Whatever runs as one step keeps the loop from all else for as long. Each is timed with a
// thousand, ten thousand and a hundred thousand tasks of one root, and with the hundred thousand in
// a hundred groups, a group at a time, of which the slowest counts. A figure is the median of some
// rounds.

#include "bench/Figure.h"
#include "bench/NamedTask.h"
#include "bench/SlowReader.h"

#include <Quarn/LibeventFactoryCpp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace bench {

namespace {

struct Shape {
   char const* name;
   std::int64_t tasks;
   // None for a root that has the tasks itself.
   std::int64_t groups;
};

constexpr std::array shapes{
      Shape{ "1k", 1'000, 0 },
      Shape{ "10k", 10'000, 0 },
      Shape{ "100k", 100'000, 0 },
      Shape{ "a group", 100'000, 100 },
};
constexpr std::size_t largest = 2;
constexpr int rounds = 9;
constexpr char pattern[] = ".*task.*7.*";

using Scheduler = std::shared_ptr<Quarn::TaskScheduler>;

// Tasks that are gone fold into the record of one name, or each into one of its own.
class FoldingTask final : public Quarn::Task {
 public:
   FoldingTask( Scheduler scheduler, std::int64_t number, bool ownRecord )
         : Task( std::move( scheduler ), Quarn::TaskPriority::normal,
                 Quarn::String( fmt::format( "bench-folding-task-{:06}", number ) ) ) {
      if( !ownRecord ) {
         taskStatsNameIs( "bench-folding-task" );
      }
   }

 private:
   void taskExecute() override {}
};

using FoldingTasks = std::vector<std::shared_ptr<FoldingTask>>;

// A root with so many tasks that have run, half of which report work.
class Subject {
 public:
   explicit Subject( const Shape& shape ) : tasksOfEach_( shape.tasks ) {
      schedulers_.push_back( root_ );
      if( shape.groups != 0 ) {
         schedulers_.clear();
         tasksOfEach_ /= shape.groups;
      }
      for( std::int64_t group = 0; group < shape.groups; ++group ) {
         schedulers_.push_back(
               Quarn::TaskGroup::TaskGroupIs( fmt::format( "bench-group-{:02}", group ),
                                              Quarn::TaskPriority::normal, false, root_ ) );
      }
      for( const Scheduler& scheduler : schedulers_ ) {
         addNamedTasks( tasks_, scheduler, tasksOfEach_, true );
      }
   }

   Time snapshot() {
      return _slowest( [ this ]( const Scheduler& scheduler ) {
         std::shared_ptr<const Quarn::TaskSchedulerSnapshot> snapshot;
         return timed( [ & ] { snapshot = _snapshot( scheduler, {} ); } );
      } );
   }
   Time filteredSnapshot() {
      return _slowest( [ this ]( const Scheduler& scheduler ) {
         return timed( [ & ] { _snapshot( scheduler, pattern ); } );
      } );
   }
   Time filter() {
      return _slowest( []( const Scheduler& scheduler ) {
         const Quarn::TaskNameRegex filter( pattern );
         Quarn::BasicVector<Quarn::TaskStat> stats;
         return timed( [ & ] { scheduler->getTaskStats( stats, false, &filter ); } );
      } );
   }
   Time renderJson() {
      return _slowest( [ this ]( const Scheduler& scheduler ) {
         const auto snapshot = _snapshot( scheduler, {} );
         std::ostringstream out;
         return timed(
               [ & ] { snapshot->renderJson( *Quarn::TaskScheduler::PrintContextIs( out ) ); } );
      } );
   }
   // The root's report has all groups in it; a table can be had of each.
   Time renderText() {
      return _slowest( []( const Scheduler& scheduler ) {
         Quarn::BasicVector<Quarn::TaskStat> stats;
         std::ostringstream out;
         return timed( [ & ] {
            scheduler->getTaskStats( stats, false );
            Quarn::TaskSchedulerRoot::statsRenderTextTasks( out, std::move( stats ), "Task", 0,
                                                            false, false );
         } );
      } );
   }

   // The longest run of the tasks of a delivery, by the scheduler's own account.
   Time deliver() {
      std::vector<std::shared_ptr<const Quarn::TaskSchedulerSnapshot>> snapshots;
      for( const Scheduler& scheduler : schedulers_ ) {
         snapshots.push_back( _snapshot( scheduler, {} ) );
      }
      SlowReader reader( 0 );
      root_->clearStats();
      root_->snapshotRenderJsonAsync( reader.pipe(), std::move( snapshots ) );
      Quarn::doLeEventLoop();
      reader.finish();
      Quarn::BasicVector<Quarn::TaskStat> gone;
      root_->getCompletedTaskStats( gone, true );
      Time longest{};
      for( const Quarn::TaskStat& stat : gone ) {
         longest = std::max<Time>( longest, stat.taskRunTimeHighWaterMark() );
      }
      root_->clearStats();
      return longest;
   }

   // The longest run of a reset; afterwards the tasks run again, for it clears that they have.
   Time reset() {
      const Time longest = _slowest( [ this ]( const Scheduler& scheduler ) {
         scheduler->resetStats();
         Time slowest{};
         while( scheduler->resetStatsInProgress() ) {
            slowest = std::max( slowest, timed( [ this ] {
                                   root_->_handleSchedulerRun( Quarn::TaskPriority::scavenge );
                                } ) );
         }
         return slowest;
      } );
      for( const auto& task : tasks_ ) {
         task->taskRunFromTest();
      }
      return longest;
   }

   // The last run of a reset lets go of the records of tasks that are gone.
   Time clearCompleted() {
      return _slowest( [ this ]( const Scheduler& scheduler ) {
         _addFolding( scheduler, true ).clear();
         return timed( [ & ] { scheduler->clearStats(); } );
      } );
   }

   // All in one go.
   Time fold( bool ownRecord ) {
      return _slowest( [ this, ownRecord ]( const Scheduler& scheduler ) {
         FoldingTasks tasks = _addFolding( scheduler, ownRecord );
         const Time time = timed( [ & ] { tasks.clear(); } );
         scheduler->clearStats();
         return time;
      } );
   }
   // The longest of one task.
   Time foldOne() {
      return _slowest( [ this ]( const Scheduler& scheduler ) {
         FoldingTasks tasks = _addFolding( scheduler, true );
         Time longest{};
         while( !tasks.empty() ) {
            longest = std::max( longest, timed( [ & ] { tasks.back().reset(); } ) );
            tasks.pop_back();
         }
         scheduler->clearStats();
         return longest;
      } );
   }

 private:
   template<typename Take>
   Time _slowest( const Take& take ) {
      Time slowest{};
      for( const Scheduler& scheduler : schedulers_ ) {
         slowest = std::max<Time>( slowest, take( scheduler ) );
      }
      return slowest;
   }
   std::shared_ptr<const Quarn::TaskSchedulerSnapshot> _snapshot( const Scheduler& scheduler,
                                                                  Quarn::String filter ) const {
      return scheduler->snapshot( {}, false, true, true, std::move( filter ), 0 );
   }
   FoldingTasks _addFolding( const Scheduler& scheduler, bool ownRecord ) const {
      FoldingTasks tasks;
      for( std::int64_t number = 0; number < tasksOfEach_; ++number ) {
         tasks.push_back( std::make_shared<FoldingTask>( scheduler, number, ownRecord ) );
         tasks.back()->taskRunFromTest();
      }
      return tasks;
   }

   std::int64_t tasksOfEach_;
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ =
         Quarn::schedulerRootQuarnNonShared( "BenchStepsRoot" );
   std::vector<Scheduler> schedulers_;
   NamedTasks tasks_;
};

struct Step {
   char const* name;
   Time ( *take )( Subject& );
};

constexpr std::array steps{
      Step{ "snapshot", []( Subject& subject ) { return subject.snapshot(); } },
      Step{ "snapshot with a filter",
            []( Subject& subject ) { return subject.filteredSnapshot(); } },
      Step{ "`getTaskStats` with a filter", []( Subject& subject ) { return subject.filter(); } },
      Step{ "`renderJson`", []( Subject& subject ) { return subject.renderJson(); } },
      Step{ "longest run of a delivery", []( Subject& subject ) { return subject.deliver(); } },
      Step{ "text table", []( Subject& subject ) { return subject.renderText(); } },
      Step{ "longest run of a reset", []( Subject& subject ) { return subject.reset(); } },
      Step{ "`clearStats` with as many completed names",
            []( Subject& subject ) { return subject.clearCompleted(); } },
      Step{ "all tasks fold into one name",
            []( Subject& subject ) { return subject.fold( false ); } },
      Step{ "all tasks fold, a name each",
            []( Subject& subject ) { return subject.fold( true ); } },
      Step{ "longest fold of one task", []( Subject& subject ) { return subject.foldOne(); } },
};

double inMilliseconds( Time time ) {
   return std::chrono::duration<double, std::milli>( time ).count();
}

// Milliseconds, for each shape.
using Medians = std::array<double, shapes.size()>;

std::array<Medians, steps.size()> measured() {
   std::array<Medians, steps.size()> medians;
   for( std::size_t shape = 0; shape < shapes.size(); ++shape ) {
      Subject subject( shapes[ shape ] );
      for( std::size_t step = 0; step < steps.size(); ++step ) {
         std::vector<double> times;
         times.reserve( rounds );
         for( int round = 0; round < rounds; ++round ) {
            times.push_back( inMilliseconds( steps[ step ].take( subject ) ) );
         }
         std::ranges::sort( times );
         medians[ step ][ shape ] = times[ rounds / 2 ];
      }
   }
   return medians;
}

bool write( std::string_view file, const std::array<Medians, steps.size()>& medians,
            double quantum ) {
   std::FILE* out = std::fopen( std::string( file ).c_str(), "w" );
   if( !out ) {
      return false;
   }
   fmt::print( out, "[" );
   for( std::size_t step = 0; step < steps.size(); ++step ) {
      fmt::print( out, "{}\n  {{\"step\": \"{}\", \"ms\": {{", step == 0 ? "" : ",",
                  steps[ step ].name );
      for( std::size_t shape = 0; shape < shapes.size(); ++shape ) {
         fmt::print( out, "{}\"{}\": {:.3f}", shape == 0 ? "" : ", ", shapes[ shape ].name,
                     medians[ step ][ shape ] );
      }
      fmt::print( out, "}}, \"quanta\": {:.2f}}}", medians[ step ][ largest ] / quantum );
   }
   fmt::print( out, "\n]\n" );
   return std::fclose( out ) == 0;
}

int run( int argc, char** argv ) {
   if( argc == 3 && std::string_view( argv[ 1 ] ) == SlowReader::option ) {
      return SlowReader::read( argv[ 2 ] );
   }
   if( argc != 1 && ( argc != 3 || std::string_view( argv[ 1 ] ) != "--json" ) ) {
      fmt::print( stderr, "usage: {} [--json FILE]\n", argv[ 0 ] );
      return 2;
   }
   const auto medians = measured();
   const double quantum = inMilliseconds(
         Quarn::schedulerRootQuarnNonShared( "BenchQuantumRoot" )->defaultTaskQuantum() );
   fmt::print( "{:44}", "step, ms" );
   for( const Shape& shape : shapes ) {
      fmt::print( "{:>10}", shape.name );
   }
   fmt::print( "{:>10}\n", "quanta" );
   for( std::size_t step = 0; step < steps.size(); ++step ) {
      fmt::print( "{:44}", steps[ step ].name );
      for( const double median : medians[ step ] ) {
         fmt::print( "{:>10.3f}", median );
      }
      fmt::print( "{:>10.2f}\n", medians[ step ][ largest ] / quantum );
   }
   if( argc == 3 && !write( argv[ 2 ], medians, quantum ) ) {
      fmt::print( stderr, "cannot write {}\n", argv[ 2 ] );
      return EXIT_FAILURE;
   }
   return EXIT_SUCCESS;
}

} // namespace

} // namespace bench

int main( int argc, char** argv ) { return bench::run( argc, argv ); }
