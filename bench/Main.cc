// Measures what the library promises.
//
//     bench_oruquarn [--json FILE] [--rounds N] [--benchmark_filter=REGEX ...]
//
// The exit status tells whether the program could do its work, not whether goals are met: a noisy
// machine must not fail a build.

#include "Figure.h"
#include "Report.h"
#include "SlowReader.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bench {

namespace {

struct Options {
   std::string jsonFile;
   int rounds = 9;
};

// Takes "NAME VALUE" or "NAME=VALUE" from the command line, and reports whether it was there.
bool take( std::string_view name, int& at, int argc, char** argv, std::string_view& value ) {
   const std::string_view argument = argv[ at ];
   if( argument == name && at + 1 < argc ) {
      value = argv[ ++at ];
      return true;
   }
   if( argument.starts_with( name ) && argument.substr( name.size() ).starts_with( '=' ) ) {
      value = argument.substr( name.size() + 1 );
      return true;
   }
   return false;
}

// Removes our own arguments; the rest is the benchmark library's.
Options takeOptions( int& argc, char** argv ) {
   Options options;
   int kept = 1;
   for( int at = 1; at < argc; ++at ) {
      std::string_view value;
      if( take( "--json", at, argc, argv, value ) ) {
         options.jsonFile = value;
      } else if( take( "--rounds", at, argc, argv, value ) ) {
         const auto [ end, error ] =
               std::from_chars( value.data(), value.data() + value.size(), options.rounds );
         if( error != std::errc() || end != value.data() + value.size() || options.rounds < 1 ) {
            fmt::print( stderr, "--rounds takes a positive number\n" );
            std::exit( EXIT_FAILURE );
         }
      } else {
         argv[ kept++ ] = argv[ at ];
      }
   }
   argc = kept;
   argv[ argc ] = nullptr;
   return options;
}

// What one side took in a round.
struct Taken {
   Time time;
   PlainValues plain;
};

// The figure being measured. Only one figure's sides are alive, so that the memory and the timers
// of one do not weigh on the next.
class Stage {
 public:
   // The first side to be asked for measures both, and the other's share waits until it is asked
   // for.
   Taken take( const Figure& figure, bool ours ) {
      if( figure_ != &figure ) {
         clear();
         sides_ = figure.make();
         figure_ = &figure;
      }
      if( !( ours ? ours_ : floor_ ) ) {
         _measure( ours );
      }
      return *std::exchange( ours ? ours_ : floor_, std::nullopt );
   }

   void clear() {
      sides_.reset();
      figure_ = nullptr;
      ours_.reset();
      floor_.reset();
   }

 private:
   void _measure( bool oursFirst ) {
      std::vector<Time> ours;
      std::vector<Time> floor;
      for( int slice = 0; slice < figure_->slices; ++slice ) {
         if( oursFirst ) {
            ours.push_back( sides_->ours() );
            floor.push_back( sides_->floor() );
         } else {
            floor.push_back( sides_->floor() );
            ours.push_back( sides_->ours() );
         }
      }
      ours_ = { _total( std::move( ours ) ), sides_->oursPlain() };
      floor_ = { _total( std::move( floor ) ), sides_->floorPlain() };
   }

   // The mean of the middle half of the slices, times their number: a slice in which the thread was
   // taken off its processor says nothing.
   static Time _total( std::vector<Time> slices ) {
      std::ranges::sort( slices );
      const std::size_t aside = slices.size() / 4;
      Time sum{};
      for( std::size_t slice = aside; slice < slices.size() - aside; ++slice ) {
         sum += slices[ slice ];
      }
      return sum * slices.size() / ( slices.size() - 2 * aside );
   }

   Figure const* figure_ = nullptr;
   std::unique_ptr<Sides> sides_;
   std::optional<Taken> ours_;
   std::optional<Taken> floor_;
};

void registerSide( Stage& stage, const Figure& figure, bool ours, int round ) {
   const std::int64_t count = ( ours ? figure.oursCount : figure.floorCount ) * figure.slices;
   const std::string name =
         fmt::format( "{}/{}/{}", figure.name, ours ? oursName : floorName, round );
   benchmark::RegisterBenchmark( name.c_str(),
                                 [ &stage, &figure, ours, count ]( benchmark::State& state ) {
                                    while( state.KeepRunningBatch( count ) ) {
                                       const auto [ time, plain ] = stage.take( figure, ours );
                                       state.SetIterationTime( time.count() / 1e9 );
                                       state.counters.insert( plain.begin(), plain.end() );
                                    }
                                 } )
         ->Iterations( count )
         ->UseManualTime()
         ->Unit( benchmark::kNanosecond );
}

int run( int argc, char** argv ) {
   if( argc == 3 && std::string_view( argv[ 1 ] ) == SlowReader::option ) {
      return SlowReader::read( argv[ 2 ] );
   }
   const Options options = takeOptions( argc, argv );
   benchmark::Initialize( &argc, argv );
   if( benchmark::ReportUnrecognizedArguments( argc, argv ) ) {
      return EXIT_FAILURE;
   }

   std::vector<Figure> figures;
   taskFigures( figures );
   timerFigures( figures );
   timerTaskFigures( figures );
   wheelFigures( figures );
   fdFigures( figures );
   statsFigures( figures );
   filterFigures( figures );
   deliveryFigures( figures );
   pathFigures( figures );

   Stage stage;
   for( const Figure& figure : figures ) {
      for( int round = 0; round < options.rounds; ++round ) {
         // Who goes first alternates too, so that neither always finds the other's cache lines.
         const bool oursFirst = round % 2 == 0;
         registerSide( stage, figure, oursFirst, round );
         registerSide( stage, figure, !oursFirst, round );
      }
   }
   Report report( figures, options.jsonFile );
   benchmark::RunSpecifiedBenchmarks( &report );
   stage.clear();
   benchmark::Shutdown();
   if( !report.written() ) {
      fmt::print( stderr, "cannot write {}\n", options.jsonFile );
      return EXIT_FAILURE;
   }
   return EXIT_SUCCESS;
}

} // namespace

} // namespace bench

int main( int argc, char** argv ) { return bench::run( argc, argv ); }
