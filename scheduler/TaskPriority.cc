#include <Quarn/scheduler/TaskPriority.h>

#include "debug/Handlers.h"

#include <iterator>
#include <ostream>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "Task";

constexpr char const* texts[] = { "critical", "absolute", "high",         "normal",
                                  "low",      "scavenge", "oneBeyondLast" };
constexpr char characters[] = "CAHNLS-";

static_assert( std::size( texts ) == TaskPriority::oneBeyondLast + 1 );
static_assert( std::size( characters ) - 1 == TaskPriority::oneBeyondLast + 1 );

} // namespace

String TaskPriority::toStrep() const {
   if( value_ > oneBeyondLast ) {
      QUARN_STREAM_FAIL( "unexpected priority value " << unsigned{ value_ } );
   }
   return texts[ value_ ];
}

char TaskPriority::oneChar() const {
   if( value_ > oneBeyondLast ) {
      QUARN_STREAM_FAIL( "unexpected priority " << unsigned{ value_ } );
   }
   return characters[ value_ ];
}

String TaskPriority::oneCharString() const {
   const char c = oneChar();
   return String( &c, 1 );
}

String TaskPriority::traceText() const {
   if( value_ > oneBeyondLast ) {
      return fmt::format( "{}", value_ );
   }
   return texts[ value_ ];
}

std::ostream& operator<<( std::ostream& out, TaskPriority priority ) {
   return out << priority.toStrep();
}

} // namespace Quarn
