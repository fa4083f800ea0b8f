// Records of many tasks against copies of records.

#include "Figure.h"
#include "NamedTask.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>

#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace bench {

namespace {

constexpr std::int64_t tasks = 100'000;
constexpr std::int64_t fewTasks = 1'000;

// Megabytes a second.
double rate( std::size_t bytes, Time time ) {
   return static_cast<double>( bytes ) / 1e6 / std::chrono::duration<double>( time ).count();
}

class SelectSides final : public Sides {
 public:
   SelectSides() {
      addNamedTasks( tasks_, root_, tasks, false );
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
   NamedTasks tasks_;
   Quarn::BasicVector<Quarn::TaskStat> prepared_;
   Quarn::BasicVector<Quarn::TaskStat> selected_;
   Quarn::BasicVector<Quarn::TaskStat> copied_;
};

// A snapshot of a root without groups, all of whose tasks have run.
class SnapshotSides final : public Sides {
 public:
   explicit SnapshotSides( std::int64_t count ) {
      addNamedTasks( tasks_, root_, count, false );
      root_->getTaskStats( prepared_, false );
   }

   Time ours() override {
      std::shared_ptr<const Quarn::TaskSchedulerSnapshot> snapshot;
      const Time time =
            timed( [ & ] { snapshot = root_->snapshot( {}, false, false, false, {}, 0 ); } );
      if( snapshot->tasks().size() != prepared_.size() ) {
         fmt::print( stderr, "the snapshot is not whole\n" );
         std::abort();
      }
      return time;
   }
   Time floor() override {
      Quarn::BasicVector<Quarn::TaskStat> copied;
      return timed( [ & ] {
         copied.reserve( prepared_.size() );
         for( const Quarn::TaskStat& stat : prepared_ ) {
            copied.push_back( stat );
         }
      } );
   }

 private:
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ =
         Quarn::schedulerRootQuarnNonShared( "BenchSnapshotRoot" );
   NamedTasks tasks_;
   Quarn::BasicVector<Quarn::TaskStat> prepared_;
};

// A snapshot as JSON. The floor has the records sorted and puts the tasks' members alone.
class JsonSides final : public Sides {
 public:
   explicit JsonSides( std::int64_t count ) {
      addNamedTasks( tasks_, root_, count, true );
      snapshot_ = root_->snapshot( {}, false, false, false, {}, 0 );
      sorted_ = snapshot_->tasks();
      std::ranges::stable_sort( sorted_, std::ranges::greater(),
                                &Quarn::TaskStat::taskTotalRunTime );
   }

   Time ours() override {
      std::ostringstream out;
      const auto context = Quarn::TaskScheduler::PrintContextIs( out );
      const Time time = timed( [ & ] { snapshot_->renderJson( *context ); } );
      oursRate_ = rate( out.view().size(), time );
      constexpr std::string_view begin = "\"tasks\":{\"tasks\":";
      oursArray_ = out.view().substr( out.view().find( begin ) + begin.size() );
      return time;
   }

   Time floor() override {
      rapidjson::StringBuffer text;
      const Time time = timed( [ & ] {
         rapidjson::Writer<rapidjson::StringBuffer> writer( text );
         writer.StartArray();
         for( const Quarn::TaskStat& stat : sorted_ ) {
            _put( writer, stat );
         }
         writer.EndArray();
      } );
      floorRate_ = rate( text.GetSize(), time );
      if( !oursArray_.starts_with( std::string_view( text.GetString(), text.GetSize() ) ) &&
          !oursArray_.empty() ) {
         fmt::print( stderr, "the texts differ\n" );
         std::abort();
      }
      return time;
   }

   PlainValues oursPlain() const override { return { { "rate", oursRate_ } }; }
   PlainValues floorPlain() const override { return { { "rate", floorRate_ } }; }

 private:
   using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

   static void _string( Writer& writer, std::string_view key, std::string_view value ) {
      _key( writer, key );
      writer.String( value.data(), static_cast<rapidjson::SizeType>( value.size() ) );
   }
   static void _key( Writer& writer, std::string_view key ) {
      writer.Key( key.data(), static_cast<rapidjson::SizeType>( key.size() ) );
   }
   static void _bool( Writer& writer, std::string_view key, bool value ) {
      _key( writer, key );
      writer.Bool( value );
   }
   static void _number( Writer& writer, std::string_view key, std::uint64_t value ) {
      _key( writer, key );
      writer.Uint64( value );
   }
   static void _seconds( Writer& writer, std::string_view key, std::chrono::nanoseconds value ) {
      _key( writer, key );
      writer.Double( static_cast<double>( value.count() ) / 1e9 );
   }
   static void _put( Writer& writer, const Quarn::TaskStat& stat ) {
      const auto stamp = []( Quarn::TaskStat::time_point when ) {
         return static_cast<std::uint64_t>( when.time_since_epoch().count() );
      };
      const Quarn::TaskStat::TaskStatus status = stat.taskStatus();
      writer.StartObject();
      _string( writer, "name", stat.taskName() );
      _string( writer, "address", Quarn::TaskKey( stat.task() ).toStrep() );
      _string( writer, "priority", stat.taskPriority().toStrep() );
      _bool( writer, "onRunQueue", status.taskOnRunQueue() );
      _bool( writer, "currentlyRunning", status.taskCurrentlyRunning() );
      _bool( writer, "suspended", status.taskSuspended() );
      _bool( writer, "schedulerSuspended", status.schedulerSuspended() );
      _bool( writer, "hasTimer", status.taskTimer() );
      _bool( writer, "timerRunning", status.taskTimerRunning() );
      _number( writer, "runCount", stat.taskRunCount() );
      _seconds( writer, "totalRunTime", stat.taskTotalRunTime() );
      _number( writer, "firstTaskRunTimestamp", stamp( stat.taskFirstRunTimestamp() ) );
      _number( writer, "lastTaskRunTimestamp", stamp( stat.taskLastRunTimestamp() ) );
      _seconds( writer, "lastSchedulingLatency", stat.taskLastSchedulingLatency() );
      _seconds( writer, "schedulingLatencyHighWaterMark",
                stat.taskSchedulingLatencyHighWaterMark() );
      _number( writer, "qv200", stat.taskQuantumViolation200() );
      _number( writer, "qv500", stat.taskQuantumViolation500() );
      _number(
            writer, "maxMs",
            static_cast<std::uint64_t>( std::llround(
                  static_cast<double>( stat.taskRunTimeHighWaterMark().count() ) / 1e9 * 1000 ) ) );
      if( stat.taskWorkCountHighWaterMark() != Quarn::taskStatUnset ) {
         _key( writer, "workCount" );
         writer.StartObject();
         _number( writer, "total", stat.taskWorkCountTotal() );
         _key( writer, "decayingAvg" );
         writer.Double( double{ stat.taskWorkCountDecayAvg() } );
         _number( writer, "highwater", stat.taskWorkCountHighWaterMark() );
         writer.EndObject();
      }
      if( stat.taskWorkPendingHighWaterMark() != Quarn::taskStatUnset ) {
         _key( writer, "workPending" );
         writer.StartObject();
         _number( writer, "pending", stat.taskWorkPending() );
         _number( writer, "highwater", stat.taskWorkPendingHighWaterMark() );
         writer.EndObject();
      }
      writer.EndObject();
   }

   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ =
         Quarn::schedulerRootQuarnNonShared( "BenchJsonRoot" );
   NamedTasks tasks_;
   std::shared_ptr<const Quarn::TaskSchedulerSnapshot> snapshot_;
   Quarn::BasicVector<Quarn::TaskStat> sorted_;
   std::string oursArray_;
   double oursRate_ = 0;
   double floorRate_ = 0;
};

// The rows of the text report. The floor has them sorted and knows the width of the names.
class TextSides final : public Sides {
 public:
   explicit TextSides( std::int64_t count ) {
      std::mt19937_64 random( 42 );
      const auto upTo = [ & ]( std::uint64_t end ) { return random() % end; };
      const auto time = [ & ]( std::uint64_t end ) {
         return std::chrono::nanoseconds( upTo( end ) );
      };
      prepared_.reserve( static_cast<std::size_t>( count ) );
      for( std::int64_t i = 0; i < count; ++i ) {
         Quarn::TaskStat stat( Quarn::String( fmt::format( "bench-named-task-{:06}", i ) ), nullptr,
                               Quarn::TaskPriority::normal );
         stat.taskRunInc( upTo( 1'000'000 ) );
         stat.taskTotalRunTimeInc( time( 100'000'000'000 ) );
         stat.taskLastSchedulingLatencyIs( time( 1'000'000'000 ) );
         stat.taskSchedulingLatencyHighWaterMarkIs( time( 10'000'000'000 ) );
         stat.taskRunTimeHighWaterMarkIs( time( 50'000'000 ) );
         // Half of the tasks report work.
         if( i % 2 == 0 ) {
            stat.taskWorkCountTotalInc( upTo( 1'000'000 ) );
            stat.taskWorkCountDecayAvgIs( static_cast<float>( upTo( 10'000 ) ) / 7 );
            stat.taskWorkCountHighWaterMarkIs( static_cast<std::uint32_t>( upTo( 1'000 ) ) );
            stat.taskWorkPendingHighWaterMarkIs( static_cast<std::uint32_t>( upTo( 1'000 ) ) );
         }
         prepared_.push_back( std::move( stat ) );
      }
      sorted_ = prepared_;
      std::ranges::stable_sort( sorted_, std::ranges::greater(),
                                &Quarn::TaskStat::taskTotalRunTime );
   }

   Time ours() override {
      std::ostringstream out;
      const Time time = timed( [ & ] {
         Quarn::TaskSchedulerRoot::statsRenderTextTasks( out, prepared_, "TaskName", 0, false,
                                                         false );
      } );
      const std::string_view text = out.view();
      oursRate_ = rate( text.size(), time );
      // The floor has neither header nor rule.
      oursRows_ = text.substr( text.find( '\n', text.find( '\n' ) + 1 ) + 1 );
      return time;
   }

   Time floor() override {
      fmt::memory_buffer rows;
      const Time time = timed( [ & ] {
         for( const Quarn::TaskStat& stat : sorted_ ) {
            _row( rows, stat );
         }
      } );
      floorRate_ = rate( rows.size(), time );
      if( !oursRows_.empty() && oursRows_ != fmt::to_string( rows ) ) {
         fmt::print( stderr, "the texts differ\n" );
         std::abort();
      }
      return time;
   }

   PlainValues oursPlain() const override { return { { "rate", oursRate_ } }; }
   PlainValues floorPlain() const override { return { { "rate", floorRate_ } }; }

 private:
   static double _seconds( std::chrono::nanoseconds time ) {
      return static_cast<double>( time.count() ) / 1e9;
   }

   static void _row( fmt::memory_buffer& rows, const Quarn::TaskStat& stat ) {
      const bool work = stat.taskWorkCountHighWaterMark() != Quarn::taskStatUnset;
      const bool pending = stat.taskWorkPendingHighWaterMark() != Quarn::taskStatUnset;
      const auto number = []( bool set, std::uint64_t n ) {
         return set ? fmt::to_string( n ) : std::string( "-" );
      };
      fmt::format_to(
            std::back_inserter( rows ),
            "{:s}{:s} {:2s} {:>10d} {:>13.3f} {:>6.3f} {:>7.3f} {:>4d} {:>4d} {:>5d} {:>10s} "
            "{:>8s} {:>6s} {:>9s} {:>10s}\n",
            stat.taskName(), "", stat.taskStatusString(), stat.taskRunCount(),
            _seconds( stat.taskTotalRunTime() ), _seconds( stat.taskLastSchedulingLatency() ),
            _seconds( stat.taskSchedulingLatencyHighWaterMark() ), stat.taskQuantumViolation200(),
            stat.taskQuantumViolation500(),
            std::lround( _seconds( stat.taskRunTimeHighWaterMark() ) * 1000 ),
            number( work, stat.taskWorkCountTotal() ),
            work ? fmt::format( "{:6.1f}", stat.taskWorkCountDecayAvg() ) : std::string( "-" ),
            number( work, stat.taskWorkCountHighWaterMark() ),
            number( pending, stat.taskWorkPending() ),
            number( pending, stat.taskWorkPendingHighWaterMark() ) );
   }

   Quarn::BasicVector<Quarn::TaskStat> prepared_;
   Quarn::BasicVector<Quarn::TaskStat> sorted_;
   std::string oursRows_;
   double oursRate_ = 0;
   double floorRate_ = 0;
};

} // namespace

void statsFigures( std::vector<Figure>& figures ) {
   figures.push_back(
         { "stats_select", 3.0, tasks, tasks, [] { return std::make_unique<SelectSides>(); }, 5 } );
   figures.push_back( { "snapshot", 3.0, tasks, tasks,
                        [] { return std::make_unique<SnapshotSides>( tasks ); }, 5 } );
   figures.push_back( { "json_render",
                        1.25,
                        tasks,
                        tasks,
                        [] { return std::make_unique<JsonSides>( tasks ); },
                        1,
                        { { "rate", "MB/s" } } } );
   figures.push_back( { "text_render",
                        1.3,
                        tasks,
                        tasks,
                        [] { return std::make_unique<TextSides>( tasks ); },
                        1,
                        { { "rate", "MB/s" } } } );
   // These stay in the caches.
   figures.push_back( { "snapshot_1k", std::nullopt, fewTasks, fewTasks,
                        [] { return std::make_unique<SnapshotSides>( fewTasks ); }, manySlices } );
   figures.push_back( { "json_render_1k", std::nullopt, fewTasks, fewTasks,
                        [] { return std::make_unique<JsonSides>( fewTasks ); }, manySlices } );
   figures.push_back( { "text_render_1k", std::nullopt, fewTasks, fewTasks,
                        [] { return std::make_unique<TextSides>( fewTasks ); }, manySlices } );
}

} // namespace bench
