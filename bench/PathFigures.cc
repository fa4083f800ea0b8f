// Costs of a few nanoseconds: what runs inside the loops of tasks and on every event.

#include "Figure.h"

#include <Quarn/Debug.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/base/ThreadControl.h>

#include <benchmark/benchmark.h>

#include <array>

#include <unistd.h>
#include <x86intrin.h>

namespace bench {

namespace {

constexpr std::int64_t calls = 100'000;
constexpr std::int64_t systemCalls = 5000;

// ------------------------------------------------------------------------------------ yield check

// The quantum is out of reach: once it has passed every call looks at the clock.
class AskingTask : public Quarn::Task {
 public:
   AskingTask()
         : Task( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::normal, "BenchAskingTask" ) {
      taskQuantumIs( std::chrono::hours( 1 ) );
   }

   Time ask() {
      scheduleTask();
      Quarn::doLeEventLoop();
      return time_;
   }

 private:
   void taskExecute() override {
      time_ = timed( [ this ] {
         for( std::int64_t i = 0; i < calls; ++i ) {
            benchmark::DoNotOptimize( taskShouldYield() );
         }
      } );
   }

   Time time_{};
};

Time readCounter() {
   return timed( [] {
      for( std::int64_t i = 0; i < calls; ++i ) {
         benchmark::DoNotOptimize( __rdtsc() );
      }
   } );
}

// --------------------------------------------------------------------------------- disabled trace

constexpr unsigned short disabledLevel = 8;

// Memory is clobbered in each round, so neither side keeps a mask, or where it is, in a register
// that the other may not.
[[gnu::noinline]] Time traceDisabled( const Quarn::Platform::DebugHandler& handler ) {
   return timed( [ & ] {
      for( std::int64_t i = 0; i < calls; ++i ) {
         QUARN_FMTRACE( handler, disabledLevel, "Bench", "round {}", i );
         benchmark::ClobberMemory();
      }
   } );
}

[[gnu::cold, gnu::noinline]] void bitIsSet( std::int64_t round ) {
   benchmark::DoNotOptimize( round );
}

[[gnu::noinline]] Time testBit( unsigned short const* mask ) {
   return timed( [ & ] {
      for( std::int64_t i = 0; i < calls; ++i ) {
         if( ( __atomic_load_n( mask, __ATOMIC_RELAXED ) >> disabledLevel & 1 ) != 0 ) {
            bitIsSet( i );
         }
         benchmark::ClobberMemory();
      }
   } );
}

// ---------------------------------------------------------------------------------------- history

constexpr std::uint32_t historyEntries = 100;
// Prime to the capacity, so that a slot never gets the identifier that it held.
constexpr std::size_t names = 7;

struct HistoryRecord {
   std::int64_t when;
   void const* identifier;
   std::uint32_t type;
};
static_assert( sizeof( HistoryRecord ) == 24 );

// The same ring with nothing but bytes in it.
class RecordRing {
 public:
   void insert( const HistoryRecord& record ) {
      newest_ = ( newest_ == 0 ? historyEntries : newest_ ) - 1;
      records_[ newest_ ] = record;
   }

 private:
   std::array<HistoryRecord, historyEntries> records_{};
   std::uint32_t newest_ = 0;
};

class HistorySides final : public Sides {
 public:
   explicit HistorySides( bool singleThread ) : singleThread_( singleThread ) {
      for( std::size_t i = 0; i < names; ++i ) {
         identifiers_[ i ] =
               Quarn::String( fmt::format( "n BenchTaskWithALongName{}", i ) ).deduped();
      }
   }

   Time ours() override {
      Quarn::ThreadControl::threadSafePointerIs( !singleThread_ );
      const Time time = _rounds( [ this ]( std::int64_t i, std::size_t name ) {
         history_.insert( Quarn::TaskSchedulerHistory::time_point( std::chrono::nanoseconds( i ) ),
                          Quarn::TaskSchedulerEventType::runStart, identifiers_[ name ] );
      } );
      Quarn::ThreadControl::threadSafePointerIs( true );
      return time;
   }
   Time floor() override {
      return _rounds( [ this ]( std::int64_t i, std::size_t name ) {
         ring_.insert( { i, &identifiers_[ name ], 2 } );
      } );
   }

 private:
   template<typename Insert>
   Time _rounds( Insert insert ) {
      return timed( [ & ] {
         std::size_t name = 0;
         for( std::int64_t i = 0; i < calls; ++i ) {
            insert( i, name );
            name = name + 1 == names ? 0 : name + 1;
            benchmark::ClobberMemory();
         }
      } );
   }

   bool singleThread_;
   std::array<Quarn::String, names> identifiers_;
   Quarn::TaskSchedulerHistory history_{ historyEntries };
   RecordRing ring_;
};

// ------------------------------------------------------------------------------------ system call

Time askProcessId() {
   return timed( [] {
      for( std::int64_t i = 0; i < systemCalls; ++i ) {
         benchmark::DoNotOptimize( getpid() );
      }
   } );
}

} // namespace

void pathFigures( std::vector<Figure>& figures ) {
   figures.push_back( { "should_yield", 2.5, calls, calls,
                        [] {
                           const auto task = std::make_shared<AskingTask>();
                           return std::make_unique<PlainSides>( [ task ] { return task->ask(); },
                                                                &readCounter );
                        },
                        manySlices } );
   figures.push_back( { "trace_off", 1.1, calls, calls,
                        [] {
                           const auto handler =
                                 Quarn::Platform::getDebugHandler( "BenchTrace", false );
                           return std::make_unique<PlainSides>(
                                 [ handler ] { return traceDisabled( *handler ); },
                                 [ handler ] { return testBit( handler->levels() ); } );
                        },
                        manySlices } );
   figures.push_back( { "history_insert", 3.0, calls, calls,
                        [] { return std::make_unique<HistorySides>( false ); }, manySlices } );
   figures.push_back( { "history_insert_single_thread", std::nullopt, calls, calls,
                        [] { return std::make_unique<HistorySides>( true ); }, manySlices } );
   figures.push_back( { "getpid", std::nullopt, systemCalls, calls,
                        [] { return std::make_unique<PlainSides>( &askProcessId, &readCounter ); },
                        manySlices } );
}

} // namespace bench
