// The filter for names of tasks: the first line of an input is the expression, each further line,
// cut after 16 bytes, a name.
//
// The C++ library's own matcher, which tries one alternative after the other, is the second reader.
// It may take exponential time, so it gives up after some steps, and has no say then. Expressions
// with back-references may do so here too; only whether they are valid is compared.

#include "fuzz/Fuzz.h"

#include <Quarn/stats/TaskNameRegex.h>

// The filter's limit, so that the same expressions are too large.
static_assert( _GLIBCXX_REGEX_STATE_LIMIT == 8192 );

// GCC 12 under the address sanitizer does not see that only states that have a matcher move it.
#if defined( __GNUC__ ) && !defined( __clang__ )
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#else
#include <regex>
#endif

#include <ctime>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>

namespace {

constexpr std::size_t nameSizeMax = 16;
constexpr int namesMax = 8;
// Another type than char's own, so that no other user of <regex> shares the templates.
struct Traits : std::regex_traits<char> {};
using Regex = std::basic_regex<char, Traits>;

struct GaveUp {};

std::uintptr_t frame() { return reinterpret_cast<std::uintptr_t>( __builtin_frame_address( 0 ) ); }

// What one match of the second reader may take.
struct Limit {
   int steps = 20'000;
   std::uintptr_t lowestFrame = frame() - ( 1u << 20 );
};

// A position in a name. The matcher compares positions wherever it is, however deep.
class Cursor {
 public:
   using iterator_category = std::bidirectional_iterator_tag;
   using value_type = char;
   using difference_type = std::ptrdiff_t;
   using pointer = char const*;
   using reference = const char&;

   Cursor() = default;
   Cursor( char const* at, Limit* limit ) : at_( at ), limit_( limit ) {}

   reference operator*() const { return *at_; }
   Cursor& operator++() {
      ++at_;
      return *this;
   }
   Cursor operator++( int ) { return Cursor( at_++, limit_ ); }
   Cursor& operator--() {
      --at_;
      return *this;
   }
   Cursor operator--( int ) { return Cursor( at_--, limit_ ); }
   bool operator==( const Cursor& other ) const {
      if( limit_ && ( --limit_->steps <= 0 || frame() < limit_->lowestFrame ) ) {
         throw GaveUp();
      }
      return at_ == other.at_;
   }

 private:
   char const* at_ = nullptr;
   Limit* limit_ = nullptr;
};

struct Reference {
   explicit Reference( std::string_view pattern ) {
      using namespace std::regex_constants;
      try {
         regex.assign( pattern.data(), pattern.size(), ECMAScript );
      } catch( const std::regex_error& e ) {
         error = e.what();
         return;
      }
      try {
         Regex( pattern.data(), pattern.size(), ECMAScript | __polynomial );
      } catch( const std::regex_error& ) {
         hasBackReferences = true;
      }
   }

   std::optional<bool> matches( std::string_view name ) const {
      Limit limit;
      try {
         return std::regex_match( Cursor( name.data(), &limit ),
                                  Cursor( name.data() + name.size(), &limit ), regex );
      } catch( const GaveUp& ) {
         return std::nullopt;
      }
   }

   Regex regex;
   std::string error;
   bool hasBackReferences = false;
};

// What the filter says on standard error is kept from it.
class CapturedErrors {
 public:
   CapturedErrors() : before_( std::cerr.rdbuf( text_.rdbuf() ) ) {}
   ~CapturedErrors() { std::cerr.rdbuf( before_ ); }
   CapturedErrors( const CapturedErrors& ) = delete;
   CapturedErrors& operator=( const CapturedErrors& ) = delete;

   std::string text() const { return text_.str(); }

 private:
   std::ostringstream text_;
   std::streambuf* before_;
};

// Ten digits in a row, as 2147483648 has.
bool hasLongNumber( std::string_view pattern ) {
   std::size_t digits = 0;
   return std::ranges::any_of( pattern, [ & ]( char c ) {
      digits = c >= '0' && c <= '9' ? digits + 1 : 0;
      return digits == 10;
   } );
}

double cpuSeconds() {
   timespec now;
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &now );
   return static_cast<double>( now.tv_sec ) + static_cast<double>( now.tv_nsec ) * 1e-9;
}

// The longest that a name of 16 bytes may take; lookaheads are bounded by their steps alone. Under
// the address sanitizer it is some 30 ms for the slowest expressions known. Without optimisation,
// and under the thread sanitizer, the same takes several times as long.
#if defined( __OPTIMIZE__ ) && !defined( __SANITIZE_THREAD__ )
constexpr double secondsMax = 0.05;
#else
constexpr double secondsMax = 0.5;
#endif

// The least of a few times, each with a filter that has not seen the name: whatever else goes on
// may slow one of them down.
double secondsOfMatch( const std::string& pattern, const std::string& name ) {
   double least = 2 * secondsMax;
   for( int tries = 0; tries < 4 && least > secondsMax; ++tries ) {
      const Quarn::TaskNameRegex filter( pattern );
      const double begin = cpuSeconds();
      filter.match<0>( name );
      least = std::min( least, cpuSeconds() - begin );
   }
   return least;
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   std::string_view text = Fuzz::asText( data, size );
   const std::string pattern( Fuzz::takeLine( text ) );

   const CapturedErrors errors;
   const Quarn::TaskNameRegex filter( pattern );
   FUZZ_REQUIRE( filter.pattern() == pattern );
   FUZZ_REQUIRE( filter.valid() == filter.error().empty() );
   FUZZ_REQUIRE( filter.valid() == errors.text().empty() );
   if( pattern.size() > 2048 || std::count( pattern.begin(), pattern.end(), '(' ) > 256 ) {
      FUZZ_REQUIRE( !filter.valid() );
      return 0;
   }
   if( filter.error() == "Regular expression has a number that is too large." ) {
      FUZZ_REQUIRE( hasLongNumber( pattern ) );
      return 0;
   }
   const Reference reference( pattern );
   FUZZ_REQUIRE( filter.error() == reference.error );
   if( reference.hasBackReferences ) {
      return 0;
   }

   const bool looksAhead =
         pattern.find( "(?=" ) != pattern.npos || pattern.find( "(?!" ) != pattern.npos;
   for( int names = 0; names < namesMax && !text.empty(); ++names ) {
      const std::string name( Fuzz::takeLine( text ).substr( 0, nameSizeMax ) );
      const double begin = cpuSeconds();
      const bool passes = filter.match<0>( name );
      FUZZ_REQUIRE( looksAhead || cpuSeconds() - begin < secondsMax ||
                    secondsOfMatch( pattern, name ) < secondsMax );
      FUZZ_REQUIRE( filter.match<0>( name ) == passes );
      FUZZ_REQUIRE( filter.match<2>( "N " + name ) == passes );
      if( !filter.valid() ) {
         FUZZ_REQUIRE( !passes );
      } else if( const auto expected = reference.matches( name ) ) {
         FUZZ_REQUIRE( passes == *expected );
      }
   }
   return 0;
}
