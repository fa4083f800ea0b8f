// The filter that an operator gives with a show request, to see the tasks whose names match.
//
// A filter is made for one request and remembers its answer for every name, so a task that is in
// the history many times costs one match. A pattern that cannot be used gives a filter that says
// why and passes nothing; making one never fails.
//
// Patterns come from people and names from anywhere, so one match is bounded: its stack does not
// grow with the name, and one that takes more than some ten million steps counts as none. The
// slowest patterns known take 0.7 s for that many on a busy machine, built with optimisation.
// Steps are comparisons, every fourth state of the pattern for each character, and every state for
// each lookahead that is tried. Where there is no lookahead, names of up to 2048 bytes are always
// matched to the end. Patterns with back-references need another algorithm, see match().
//
// Thread: any, one at a time; asking a const filter changes what it remembers.
//
//     const TaskNameRegex filter( "Bgp.*" );
//     if( filter.valid() && filter.match<0>( stat.taskName() ) ) { ...

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>

namespace Quarn {

class ORUQUARN_API TaskNameRegex {
 public:
   // What the filter remembers about a name.
   enum class Match : std::uint8_t {
      notTried = 0,
      matches = 1,
      doesNotMatch = 2,
   };

   // Compiles a regular expression in the ECMAScript grammar of `std::regex`, case-sensitive and in
   // the classic locale: a character is a byte.
   //
   // Errors: none thrown. An expression that does not compile, has more than 2048 bytes or 256
   //         opening parentheses or a number above 2147483647 for a repeat or a back-reference, or
   //         becomes too large when its counted repeats are written out, makes the filter invalid
   //         and is reported on standard error. So does one that finds no memory, or needs more
   //         stack than the thread has left; the largest takes 1.3 MiB. A thread whose stack the
   //         system does not tell counts as one with 4 MiB left.
   explicit TaskNameRegex( const String& pattern ) noexcept;
   ~TaskNameRegex();

   TaskNameRegex( const TaskNameRegex& ) = delete;
   TaskNameRegex& operator=( const TaskNameRegex& ) = delete;

   // Whether the expression can be used; what to tell the operator when not, else empty; and the
   // expression as it was given. They stay for the life of the filter.
   bool valid() const { return valid_; }
   const String& error() const { return error_; }
   const String& pattern() const { return pattern_; }

   // Whether the whole of `text` without its first `passedOver` bytes matches; a shorter text
   // counts as empty. `passedOver` is 0 for names and 2 for the identifiers of history events, each
   // with answers of its own. Nothing matches an invalid filter.
   //
   // An expression with back-references matches no text of more than 512 bytes, and none that would
   // need most of the thread's stack or 3 MiB of it. It is the one kind whose time can still be
   // exponential.
   //
   // Ownership: the filter shares the storage of each text that it was asked about.
   // Errors: `std::bad_alloc`; asking again tries again.
   template<std::size_t passedOver>
   bool match( const String& text ) const {
      static_assert( passedOver == 0 || passedOver == 2, "names or history identifiers" );
      return _match( text, passedOver, passedOver == 0 ? nameCache_ : identifierCache_ );
   }

 private:
   struct Expression;
   using Cache = std::unordered_map<String, Match>;

   bool _match( const String& text, std::size_t passedOver, Cache& cache ) const;
   void _errorIs( char const* what ) noexcept;

   bool valid_ = false;
   String error_;
   String pattern_;
   std::unique_ptr<const Expression> expression_;
   mutable Cache nameCache_;
   mutable Cache identifierCache_;
};

} // namespace Quarn
