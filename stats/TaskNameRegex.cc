#include <Quarn/stats/TaskNameRegex.h>

#include "debug/Handlers.h"

// Matching recurses once for each state that takes no character, and a counted repeat writes its
// operand out: with the 100000 states that are usual, `(a?){9999}` needs megabytes of stack. This
// many still hold every pattern of the allowed length. The build sets the limit for this file; the
// templates below read it, which are our own through the traits class, so that other users of
// <regex> keep theirs.
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

#include <algorithm>
#include <charconv>
#include <exception>
#include <iostream>
#include <iterator>
#include <limits>
#include <locale>
#include <stdexcept>

#include <pthread.h>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

// Compiling recurses as well. Up to 470 bytes of stack a character were seen; a thread that has
// less left than the figures here refuses the pattern.
constexpr std::size_t maxPatternSize = 2048;
constexpr std::size_t stackPerCharacter = 640;
constexpr std::size_t stackForRest = 48u << 10;
constexpr std::ptrdiff_t maxGroups = 256;
constexpr std::size_t maxBacktrackedSize = 512;
constexpr std::uint32_t maxSteps = 1u << 24;
// A text of this size cannot use up the steps unless there is a lookahead, which starts anew at
// every position: each state is tried once for each character.
constexpr std::size_t alwaysInBudget = maxSteps / _GLIBCXX_REGEX_STATE_LIMIT;
// Matching takes three quarters of it at most, which are fewer calls than the 65536 that the thread
// sanitizer can follow.
constexpr std::size_t maxStack = 4u << 20;

struct Traits : std::regex_traits<char> {};
using Regex = std::basic_regex<char, Traits>;

struct GaveUp {};

std::uintptr_t frame() { return reinterpret_cast<std::uintptr_t>( __builtin_frame_address( 0 ) ); }

// What is left for one match. One lives on a thread at a time.
class Budget {
 public:
   Budget() { current = this; }
   ~Budget() { current = nullptr; }
   Budget( const Budget& ) = delete;
   Budget& operator=( const Budget& ) = delete;

   // That of the match under way on this thread.
   static thread_local Budget* current;

   void spend( std::uint32_t cost ) { steps = cost < steps ? steps - cost : 0; }

   std::uint32_t steps = maxSteps;
   // What going on to the next character costs. Known with the first comparison, when 0: the table
   // of the match, and of lookaheads at the very front, are all that was paid for by then.
   std::uint32_t advance = 0;
   std::uintptr_t lowestFrame = 0;
};

thread_local Budget* Budget::current = nullptr;

// Steps through a text on a budget. The matcher compares its position with the end before it takes
// a character, at whatever depth it is, and each comparison is a step. Two things that it does may
// take far longer than the comparisons between them:
//
// - For the match, and anew for each lookahead that it comes by, it makes a table with a position
//   for each state of the expression. Positions that point nowhere are steps, too.
// - From one character to the next it may visit all states. Four of them are a step; when it
//   backtracks, which has no such bound, a character is one.
class Cursor {
 public:
   using iterator_category = std::bidirectional_iterator_tag;
   using value_type = char;
   using difference_type = std::ptrdiff_t;
   using pointer = char const*;
   using reference = const char&;

   // Never throws; the next comparison does.
   Cursor() noexcept {
      if( Budget* const budget = Budget::current ) {
         budget->spend( 1 );
      }
   }
   Cursor( char const* at, Budget* budget ) noexcept : at_( at ), budget_( budget ) {}

   reference operator*() const { return *at_; }
   Cursor& operator++() {
      ++at_;
      if( budget_ ) {
         budget_->spend( budget_->advance );
      }
      return *this;
   }
   Cursor operator++( int ) { return Cursor( at_++, budget_ ); }
   Cursor& operator--() {
      --at_;
      return *this;
   }
   Cursor operator--( int ) { return Cursor( at_--, budget_ ); }

   bool operator==( const Cursor& other ) const {
      if( budget_ ) {
         if( budget_->steps == 0 || frame() < budget_->lowestFrame ) [[unlikely]] {
            throw GaveUp();
         }
         if( budget_->advance == 0 ) {
            budget_->advance = 1 + ( maxSteps - budget_->steps ) / 4;
         }
         budget_->spend( 1 );
      }
      return at_ == other.at_;
   }

 private:
   char const* at_ = nullptr;
   Budget* budget_ = nullptr;
};

// The end of the thread's stack; 0 when unknown. Asked once: for the first thread of a process the
// system library reads it from a file.
std::uintptr_t stackEnd() {
   thread_local std::uintptr_t end = 0;
   if( end == 0 ) {
      pthread_attr_t attributes;
      if( pthread_getattr_np( pthread_self(), &attributes ) == 0 ) {
         void* lowest = nullptr;
         std::size_t size = 0;
         if( pthread_attr_getstack( &attributes, &lowest, &size ) == 0 ) {
            end = reinterpret_cast<std::uintptr_t>( lowest );
         }
         pthread_attr_destroy( &attributes );
      }
   }
   return end;
}

// What the thread has left, or `maxStack` when that is unknown, as it is on a stack that the
// program switched to.
std::size_t stackLeft() {
   const std::uintptr_t here = frame();
   const std::uintptr_t end = stackEnd();
   return end != 0 && end < here ? std::min( here - end, maxStack ) : maxStack;
}

// Takes a number off the front of the text, if there is one; whether it does not fit an `int`.
bool takeHugeNumber( std::string_view& text ) {
   unsigned number = 0;
   const auto [ end, error ] =
         std::from_chars( text.data(), text.data() + text.size(), number, 10 );
   text.remove_prefix( static_cast<std::size_t>( end - text.data() ) );
   return error == std::errc::result_out_of_range || number > std::numeric_limits<int>::max();
}

// Whether a counted repeat or a back-reference has such a number: the compiler of <regex> does not
// look, and goes on with another one. A brace in a set of characters is taken for a repeat, too.
bool hasHugeNumber( std::string_view pattern ) {
   while( !pattern.empty() ) {
      const char c = pattern.front();
      pattern.remove_prefix( 1 );
      if( c == '{' ) {
         std::string_view counts = pattern;
         if( takeHugeNumber( counts ) ) {
            return true;
         }
         if( counts.starts_with( ',' ) ) {
            counts.remove_prefix( 1 );
            if( takeHugeNumber( counts ) ) {
               return true;
            }
         }
      } else if( c == '\\' && !pattern.empty() ) {
         // `\0` is a character, whatever digits follow.
         std::string_view group = pattern;
         if( group.front() != '0' && takeHugeNumber( group ) ) {
            return true;
         }
         pattern.remove_prefix( 1 );
      }
   }
   return false;
}

Regex compile( std::string_view pattern, std::regex_constants::syntax_option_type flags ) {
   Regex regex;
   // Before the pattern: the constructor takes the global locale, and imbuing later empties it.
   regex.imbue( std::locale::classic() );
   regex.assign( pattern.data(), pattern.size(), flags );
   return regex;
}

} // namespace

// libstdc++ matches in one of two ways. Backtracking recurses for each character and can take
// exponential time. The other way walks all alternatives abreast, in constant stack and polynomial
// time with the same answers, but knows no back-references.
struct TaskNameRegex::Expression {
   explicit Expression( std::string_view pattern ) {
      if( pattern.size() > maxPatternSize ||
          std::count( pattern.begin(), pattern.end(), '(' ) > maxGroups ||
          pattern.size() * stackPerCharacter + stackForRest > stackLeft() ) {
         throw std::length_error( "Regular expression is too long or too deeply nested." );
      }
      if( hasHugeNumber( pattern ) ) {
         throw std::length_error( "Regular expression has a number that is too large." );
      }
      // Compiled as the backtracking form first, which alone says whether the pattern is valid.
      using namespace std::regex_constants;
      regex = compile( pattern, ECMAScript );
      try {
         regex = compile( pattern, ECMAScript | nosubs | __polynomial );
      } catch( const std::regex_error& ) {
         backtracks = true;
      }
      looksAhead = pattern.find( "(?=" ) != pattern.npos || pattern.find( "(?!" ) != pattern.npos;
   }

   bool matches( std::string_view text ) const {
      if( backtracks && text.size() > maxBacktrackedSize ) {
         return false;
      }
      if( !backtracks && !looksAhead && text.size() <= alwaysInBudget ) {
         return std::regex_match( text.data(), text.data() + text.size(), regex );
      }
      Budget budget;
      if( backtracks ) {
         // The last quarter is for the states between two checks.
         budget.lowestFrame = frame() - stackLeft() / 4 * 3;
         budget.advance = 1;
      }
      try {
         return std::regex_match( Cursor( text.data(), &budget ),
                                  Cursor( text.data() + text.size(), &budget ), regex );
      } catch( const GaveUp& ) {
         return false;
      }
   }

   Regex regex;
   bool backtracks = false;
   bool looksAhead = false;
};

TaskNameRegex::TaskNameRegex( const String& pattern ) noexcept : pattern_( pattern ) {
   try {
      expression_ = std::make_unique<const Expression>( pattern_ );
      valid_ = true;
   } catch( const std::exception& e ) {
      _errorIs( e.what() );
   }
}

TaskNameRegex::~TaskNameRegex() = default;

void TaskNameRegex::_errorIs( char const* what ) noexcept {
   try {
      error_ = what;
      // In one piece, so that lines of several threads do not mix.
      std::cerr << "'show agent task scheduler match REGEX' supplied with invalid regular "
                   "expression '" +
                         pattern_ + "' raised exception: " + error_ + "\n";
   } catch( ... ) {
      // Users tell an invalid filter by its text, so there is one even when memory is short; this
      // one fits in place.
      if( error_.empty() ) {
         error_ = "Out of memory";
      }
   }
}

bool TaskNameRegex::_match( const String& text, std::size_t passedOver, Cache& cache ) const {
   if( !valid_ ) {
      return false;
   }
   // By large steps: rehashing looks at the storage of every name.
   if( cache.size() >= cache.bucket_count() ) {
      cache.rehash( cache.size() * 8 );
   }
   Match& known = cache[ text ];
   switch( known ) {
   case Match::notTried: {
      const std::string_view all = text;
      const bool matches = expression_->matches( all.substr( std::min( passedOver, all.size() ) ) );
      known = matches ? Match::matches : Match::doesNotMatch;
      return matches;
   }
   case Match::matches:
      return true;
   case Match::doesNotMatch:
      return false;
   }
   QUARN_STREAM_FAIL_AS( "match", "unexpected regexMatch" );
}

} // namespace Quarn
