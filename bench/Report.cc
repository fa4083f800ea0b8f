#include "Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <string_view>
#include <utility>

namespace bench {

namespace {

double median( std::vector<double> values ) {
   std::ranges::sort( values );
   const std::size_t half = values.size() / 2;
   return values.size() % 2 != 0 ? values[ half ] : ( values[ half - 1 ] + values[ half ] ) / 2;
}

std::string medianText( const std::vector<double>& values, char const* none ) {
   return values.empty() ? none : fmt::format( "{:.1f}", median( values ) );
}

std::string fullName( std::string_view figure, std::string_view plain ) {
   return fmt::format( "{}_{}", figure, plain );
}

// The lowest and the highest ratio of a single round: how far to trust the row.
std::string spread( const std::vector<double>& ours, const std::vector<double>& floor ) {
   const std::size_t rounds = std::min( ours.size(), floor.size() );
   double low = ours[ 0 ] / floor[ 0 ];
   double high = low;
   for( std::size_t round = 1; round < rounds; ++round ) {
      const double ratio = ours[ round ] / floor[ round ];
      low = std::min( low, ratio );
      high = std::max( high, ratio );
   }
   return fmt::format( "{:.3f} to {:.3f}", low, high );
}

} // namespace

Report::Report( std::span<const Figure> figures, std::string jsonFile )
      : figures_( figures ),
        jsonFile_( std::move( jsonFile ) ) {}

bool Report::ReportContext( const Context& ) { return true; }

void Report::ReportRuns( const std::vector<Run>& runs ) {
   for( const Run& run : runs ) {
      if( run.run_type != Run::RT_Iteration ) {
         continue;
      }
      const std::string_view name = run.run_name.function_name;
      const std::size_t slash = name.find( '/' );
      const std::string figure( name.substr( 0, slash ) );
      const auto [ entry, isNew ] = rounds_.try_emplace( figure );
      if( isNew ) {
         GetErrorStream() << fmt::format( "measuring {}\n", figure ) << std::flush;
      }
      Rounds& rounds = entry->second;
      const bool isOurs = name.substr( slash + 1 ).starts_with( oursName );
      ( isOurs ? rounds.ours : rounds.floor ).push_back( run.GetAdjustedRealTime() );
      for( const auto& [ plainName, value ] : run.counters ) {
         Rounds& plain = plainRounds_[ fullName( figure, plainName ) ];
         ( isOurs ? plain.ours : plain.floor ).push_back( value );
      }
   }
}

void Report::Finalize() {
   _writeTable();
   _writePlainTable();
   if( !jsonFile_.empty() ) {
      _writeJson();
   }
}

void Report::_writeTable() {
   std::ostream& out = GetOutputStream();
   out << fmt::format( "{:<28} {:>12} {:>12} {:>9} {:>7}  {:<8} {}\n", "figure", "ours ns",
                       "floor ns", "ratio", "goal", "", "ratios of single rounds" );
   for( const Figure& figure : figures_ ) {
      const auto entry = rounds_.find( figure.name );
      if( entry == rounds_.end() || figure.plainOnly ) {
         continue;
      }
      const auto& [ ours, floor ] = entry->second;
      // A filter may have left one side out; its row then has no ratio.
      if( ours.empty() || floor.empty() ) {
         const double alone = median( ours.empty() ? floor : ours );
         out << fmt::format( "{:<28} {:>12} {:>12}\n", figure.name,
                             ours.empty() ? "-" : fmt::format( "{:.2f}", alone ),
                             floor.empty() ? "-" : fmt::format( "{:.2f}", alone ) );
         continue;
      }
      const double ratio = median( ours ) / median( floor );
      char const* verdict = "";
      if( figure.goal ) {
         verdict = ratio <= *figure.goal ? "met" : "missed";
      }
      out << fmt::format( "{:<28} {:>12.2f} {:>12.2f} {:>9.3f} {:>7}  {:<8} {}\n", figure.name,
                          median( ours ), median( floor ), ratio,
                          figure.goal ? fmt::format( "{:g}", *figure.goal ) : "-", verdict,
                          spread( ours, floor ) );
   }
   out << std::flush;
}

std::vector<Report::Plain> Report::_plain() const {
   std::vector<Plain> all;
   for( const Figure& figure : figures_ ) {
      for( const PlainFigure& plain : figure.plain ) {
         const auto entry = plainRounds_.find( fullName( figure.name, plain.name ) );
         if( entry != plainRounds_.end() ) {
            all.push_back( { entry->first, plain.unit, entry->second } );
         }
      }
   }
   return all;
}

void Report::_writePlainTable() {
   const std::vector<Plain> all = _plain();
   if( all.empty() ) {
      return;
   }
   std::ostream& out = GetOutputStream();
   out << fmt::format( "\n{:<28} {:>12} {:>12}  {:<8} {}\n", "plain figure", "ours", "floor",
                       "unit", "single rounds of ours" );
   for( const auto& [ name, unit, rounds ] : all ) {
      std::string single;
      if( !rounds.ours.empty() ) {
         const auto [ low, high ] = std::ranges::minmax( rounds.ours );
         single = fmt::format( "{:.1f} to {:.1f}", low, high );
      }
      out << fmt::format( "{:<28} {:>12} {:>12}  {:<8} {}\n", name, medianText( rounds.ours, "-" ),
                          medianText( rounds.floor, "-" ), unit, single );
   }
   out << std::flush;
}

void Report::_writeJson() {
   std::ofstream file( jsonFile_ );
   char const* separator = "";
   file << "[";
   for( const Figure& figure : figures_ ) {
      const auto entry = rounds_.find( figure.name );
      if( figure.plainOnly || entry == rounds_.end() || entry->second.ours.empty() ||
          entry->second.floor.empty() ) {
         continue;
      }
      const double ours = median( entry->second.ours );
      const double floor = median( entry->second.floor );
      file << fmt::format( "{}\n  {{\"name\": \"{}\", \"ours_ns\": {:.4f}, \"floor_ns\": {:.4f}, "
                           "\"ratio\": {:.4f}, \"goal\": {}}}",
                           separator, figure.name, ours, floor, ours / floor,
                           figure.goal ? fmt::format( "{:g}", *figure.goal ) : "null" );
      separator = ",";
   }
   for( const auto& [ name, unit, rounds ] : _plain() ) {
      file << fmt::format( "{}\n  {{\"name\": \"{}\", \"unit\": \"{}\", \"ours\": {}, "
                           "\"floor\": {}}}",
                           separator, name, unit, medianText( rounds.ours, "null" ),
                           medianText( rounds.floor, "null" ) );
      separator = ",";
   }
   file << "\n]\n";
   file.close();
   written_ = file.good();
}

} // namespace bench
