// How urgent a task is.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <iosfwd>

namespace Quarn {

// A value of one byte; the lower, the more urgent. Only `critical` to `scavenge` have run queues,
// `oneBeyondLast` ends loops and sizes arrays.
//
//     for( TaskPriority p = TaskPriority::critical; p < TaskPriority::oneBeyondLast; ++p )
class ORUQUARN_API TaskPriority {
 public:
   enum Value : std::uint8_t {
      critical = 0, // keep-alive work, for authorized names
      absolute = 1,
      high = 2,
      normal = 3,
      low = 4,
      scavenge = 5, // only when nothing else is runnable
      oneBeyondLast = 6,
   };

   constexpr TaskPriority( Value value ) : value_( value ) {}
   // Any byte is taken; those above 6 fail when they are shown or used.
   constexpr explicit TaskPriority( std::uint8_t value ) : value_( value ) {}

   constexpr std::uint8_t value() const { return value_; }
   constexpr bool operator==( const TaskPriority& ) const = default;
   constexpr auto operator<=>( const TaskPriority& ) const = default;
   constexpr TaskPriority& operator++() {
      ++value_;
      return *this;
   }
   // The priority one step less urgent.
   constexpr TaskPriority next() const {
      return TaskPriority( static_cast<std::uint8_t>( value_ + 1 ) );
   }

   // "critical" to "scavenge", and "oneBeyondLast".
   //
   // Errors: fatal above 6 ("unexpected priority value ...").
   String toStrep() const;

   // One of "CAHNLS-".
   //
   // Errors: fatal above 6 ("unexpected priority ...").
   char oneChar() const;
   String oneCharString() const;

   // The text of `toStrep()`, or the number above 6: for traces, which must not fail.
   String traceText() const;

 private:
   std::uint8_t value_;
};

// Writes the text of `toStrep()`.
ORUQUARN_API std::ostream& operator<<( std::ostream& out, TaskPriority priority );

} // namespace Quarn

template<>
struct fmt::formatter<Quarn::TaskPriority> : fmt::formatter<std::string_view> {
   template<typename Context>
   auto format( Quarn::TaskPriority priority, Context& context ) const {
      return fmt::formatter<std::string_view>::format( priority.traceText(), context );
   }
};
