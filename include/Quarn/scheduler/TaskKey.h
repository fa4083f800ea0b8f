// What identifies a task in reports.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

#include <compare>
#include <cstdint>

namespace Quarn {

// An opaque number: equal for equal tasks, unique among those alive.
class ORUQUARN_API TaskKey {
 public:
   // The key of the task at this address.
   explicit TaskKey( void const* task ) : value_( reinterpret_cast<std::uint64_t>( task ) ) {}

   std::uint64_t value() const { return value_; }
   auto operator<=>( const TaskKey& ) const = default;

   // "@" and the number in decimal.
   String toStrep() const;

 private:
   std::uint64_t value_;
};

} // namespace Quarn
