// The filter of show requests against bare matches of the same expression.

#include "Figure.h"

#include <Quarn/TaskSchedulerCpp.h>

#include <cstdlib>
#include <locale>
#include <regex>

#include <fmt/format.h>

namespace bench {

namespace {

constexpr std::int64_t names = 100'000;
constexpr char pattern[] = ".*Task.*7.*";

// The form that the filter matches by.
std::regex compiled() {
   using namespace std::regex_constants;
   std::regex regex;
   regex.imbue( std::locale::classic() );
   regex.assign( pattern, ECMAScript | nosubs | __polynomial );
   return regex;
}

class FilterSides final : public Sides {
 public:
   FilterSides() {
      names_.reserve( names );
      for( std::int64_t i = 0; i < names; ++i ) {
         names_.emplace_back( fmt::format( "BenchNamedTask-{:09}", i ) );
      }
   }

   // The filter remembers its answers, so each slice has a new one.
   Time ours() override {
      const Quarn::TaskNameRegex filter( pattern );
      return _matching( [ & ]( const Quarn::String& name ) { return filter.match<0>( name ); } );
   }
   Time floor() override {
      return _matching( [ this ]( const Quarn::String& name ) {
         return std::regex_match( name.data(), name.data() + name.size(), regex_ );
      } );
   }

 private:
   template<typename Matches>
   Time _matching( const Matches& matches ) {
      std::int64_t found = 0;
      const Time time = timed( [ & ] {
         for( const Quarn::String& name : names_ ) {
            found += matches( name );
         }
      } );
      // The numbers of at most five digits without a 7 are 9 to the power of 5.
      constexpr std::int64_t without = std::int64_t{ 9 } * 9 * 9 * 9 * 9;
      if( found != names - without ) {
         fmt::print( stderr, "{} of {} names matched\n", found, names );
         std::abort();
      }
      return time;
   }

   std::vector<Quarn::String> names_;
   std::regex regex_ = compiled();
};

} // namespace

void filterFigures( std::vector<Figure>& figures ) {
   figures.push_back(
         { "filter_match", 1.3, names, names, [] { return std::make_unique<FilterSides>(); } } );
}

} // namespace bench
