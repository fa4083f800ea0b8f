// Measures the library, its floor and its peers on the same work.
//
//     bench_peers --json FILE [--rows REGEX] [--passes N]
//
// Writes the figures to FILE; performance.py makes tables and plots of them. `--rows` takes some of
// the rows, which are called `turn/1000`; `--passes` takes so many slices of each side.

#include "Rows.h"
#include "SideProcess.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string_view>

#include <sys/utsname.h>
#include <unistd.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace bench::peers {

std::span<Peer const* const> sides() {
   static const std::array<Peer const*, 7> all{ &ours(), &bareFloor(), &libuv(), &asio(),
                                                &glib(), &sdEvent(),   &libev() };
   return all;
}

namespace {

struct Options {
   std::string jsonFile;
   std::string rows;
   int passes = 0;
};

[[noreturn]] void refuse( std::string_view what ) {
   fmt::print( stderr, "{}\nusage: bench_peers --json FILE [--rows REGEX] [--passes N]\n", what );
   std::exit( EXIT_FAILURE );
}

std::size_t number( std::string_view text ) {
   std::size_t value = 0;
   const auto [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), value );
   if( error != std::errc() || end != text.data() + text.size() ) {
      refuse( fmt::format( "'{}' is no number", text ) );
   }
   return value;
}

Options takeOptions( std::span<char*> arguments ) {
   Options options;
   for( std::size_t at = 0; at < arguments.size(); at += 2 ) {
      const std::string_view name = arguments[ at ];
      if( at + 1 == arguments.size() ) {
         refuse( fmt::format( "{} needs a value", name ) );
      }
      char const* value = arguments[ at + 1 ];
      if( name == "--json" ) {
         options.jsonFile = value;
      } else if( name == "--rows" ) {
         options.rows = value;
      } else if( name == "--passes" ) {
         options.passes = static_cast<int>( number( value ) );
      } else {
         refuse( fmt::format( "unknown option {}", name ) );
      }
   }
   if( options.jsonFile.empty() ) {
      refuse( "no file for the figures" );
   }
   return options;
}

// What a side's slices were found to cost in one step.
struct Cell {
   std::vector<double> ns;
   double looksPerUnit = 0;
   std::optional<double> leastNs;
};

double median( std::vector<double> values ) {
   std::ranges::sort( values );
   const std::size_t half = values.size() / 2;
   return values.size() % 2 != 0 ? values[ half ] : ( values[ half - 1 ] + values[ half ] ) / 2;
}

std::string cellJson( const Cell& cell ) {
   if( cell.leastNs ) {
      return fmt::format( R"({{"over_ns": {:.1f}}})", *cell.leastNs );
   }
   if( cell.ns.empty() ) {
      return "null";
   }
   return fmt::format( R"({{"ns": {:.2f}, "looks_per_unit": {:.5f}, "slices": [{:.2f}]}})",
                       median( cell.ns ), cell.looksPerUnit, fmt::join( cell.ns, ", " ) );
}

// Cells by step and side.
using Cells = std::vector<std::vector<Cell>>;

Cells measure( const Row& row, std::size_t rowNumber, int passes ) {
   const std::size_t steps = row.steps.size();
   const std::size_t count = sides().size();
   std::vector<std::unique_ptr<SideProcess>> processes;
   for( std::size_t side = 0; side < count; ++side ) {
      processes.push_back( std::make_unique<SideProcess>( rowNumber, side, steps ) );
   }
   Cells cells( steps, std::vector<Cell>( count ) );
   // In turns, so that what else the machine does meets all alike, and to and fro.
   for( int pass = -1; pass < passes; ++pass ) {
      for( std::size_t at = 0; at < count; ++at ) {
         const std::size_t side = pass % 2 == 0 ? at : count - 1 - at;
         const auto taken = processes[ side ]->slice();
         // The first slice finds everything cold; of a side that was ended then there is no other.
         if( pass < 0 && !processes[ side ]->overrun() ) {
            continue;
         }
         for( std::size_t step = 0; step < taken.size(); ++step ) {
            Cell& cell = cells[ step ][ side ];
            cell.looksPerUnit = cell.ns.empty()
                                      ? taken[ step ].looksPerUnit
                                      : std::min( cell.looksPerUnit, taken[ step ].looksPerUnit );
            cell.ns.push_back( taken[ step ].ns );
         }
      }
   }
   for( std::size_t side = 0; side < count; ++side ) {
      if( const auto& overrun = processes[ side ]->overrun() ) {
         cells[ overrun->step ][ side ].leastNs = overrun->leastNs;
      }
   }
   return cells;
}

std::string machineJson() {
   utsname system{};
   uname( &system );
   std::string_view kernel = system.release;
   kernel = kernel.substr( 0, kernel.find( '.', kernel.find( '.' ) + 1 ) );
   std::ifstream processor( "/proc/cpuinfo" );
   bool isVirtual = false;
   for( std::string word; processor >> word; ) {
      isVirtual = isVirtual || word == "hypervisor";
   }
   std::vector<std::string> versions;
   for( Peer const* side : sides() ) {
      if( !side->version().empty() ) {
         versions.push_back( fmt::format( "\"{}\"", side->version() ) );
      }
   }
   double load = 0;
   getloadavg( &load, 1 );
   return fmt::format( R"({{"cores": {}, "virtual": {}, "system": "{} {}", "compiler": "{}", )"
                       R"("load": {:.1f}, "versions": [{}]}})",
                       sysconf( _SC_NPROCESSORS_ONLN ), isVirtual, system.sysname, kernel,
#ifdef __clang__
                       "clang " __clang_version__,
#else
                       "gcc " __VERSION__,
#endif
                       load, fmt::join( versions, ", " ) );
}

int compare( const Options& options ) {
   const std::vector<Row> rows = allRows();
   const std::regex wanted( options.rows );
   std::ofstream out( options.jsonFile );
   std::vector<std::string> names;
   for( Peer const* side : sides() ) {
      names.push_back( fmt::format( "\"{}\"", side->name() ) );
   }
   out << fmt::format( "{{\n\"machine\": {},\n\"sides\": [{}],\n\"rows\": [", machineJson(),
                       fmt::join( names, ", " ) );
   char const* separator = "\n";
   for( std::size_t at = 0; at < rows.size(); ++at ) {
      const Row& row = rows[ at ];
      const std::string name = fmt::format( "{}/{}", row.name, row.n );
      if( !options.rows.empty() && !std::regex_search( name, wanted ) ) {
         continue;
      }
      fmt::print( stderr, "{}\n", name );
      const Cells cells = measure( row, at, options.passes > 0 ? options.passes : row.passes );
      for( std::size_t step = 0; step < row.steps.size(); ++step ) {
         out << separator
             << fmt::format( R"({{"row": "{}", "n": {}, "step": "{}", "sides": {{)", row.name,
                             row.n, row.steps[ step ] );
         for( std::size_t side = 0; side < sides().size(); ++side ) {
            out << fmt::format( "{}\n   \"{}\": {}", side != 0 ? "," : "", sides()[ side ]->name(),
                                cellJson( cells[ step ][ side ] ) );
         }
         out << "}}";
         separator = ",\n";
      }
   }
   out << "\n]\n}\n";
   out.close();
   if( !out ) {
      fmt::print( stderr, "cannot write {}\n", options.jsonFile );
      return EXIT_FAILURE;
   }
   return EXIT_SUCCESS;
}

int run( std::span<char*> arguments ) {
   if( arguments.size() == 3 && std::string_view( arguments[ 0 ] ) == SideProcess::option ) {
      const std::vector<Row> rows = allRows();
      const std::size_t row = number( arguments[ 1 ] );
      const std::size_t side = number( arguments[ 2 ] );
      if( row >= rows.size() || side >= sides().size() ) {
         refuse( "there is no such row or side" );
      }
      return SideProcess::serve( rows[ row ], *sides()[ side ] );
   }
   return compare( takeOptions( arguments ) );
}

} // namespace

} // namespace bench::peers

int main( int argc, char** argv ) {
   return bench::peers::run( { argv + 1, static_cast<std::size_t>( argc - 1 ) } );
}
