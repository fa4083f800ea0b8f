// How far a walk over a collection of tasks has come, for printing.

#pragma once

#include <Quarn/Export.h>

#include <Oru/Ptr.h>

#include <cstdint>
#include <iosfwd>
#include <string>

namespace OruQuarn {

// Its text is "onInit", "yielding" or "finished", in this order of precedence, with the count
// behind it: "yielding, processed 12".
struct ORUQUARN_API TaskWalkCollectionProgress {
   // The walk has not started.
   bool onInit = false;
   // The walk has stopped to yield and goes on later.
   bool yielding = false;
   // How many tasks it has seen.
   std::uint32_t processed = 0;

   std::string toStdString() const;
   Oru::String toString() const;

   friend bool operator==( const TaskWalkCollectionProgress&,
                           const TaskWalkCollectionProgress& ) = default;
};

ORUQUARN_API std::ostream& operator<<( std::ostream& out,
                                       const TaskWalkCollectionProgress& progress );

} // namespace OruQuarn
