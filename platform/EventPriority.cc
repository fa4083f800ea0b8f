#include <Quarn/platform/EventPriority.h>

namespace Quarn::Platform {

String toString( EventPriority priority ) {
   switch( priority ) {
   case EventPriority::eventPriorityStrictHigh:
      return "eventPriorityStrictHigh";
   case EventPriority::eventPriorityDefault:
      return "eventPriorityDefault";
   }
   return String( fmt::format( "Invalid EventPriority={}", static_cast<unsigned>( priority ) ) );
}

} // namespace Quarn::Platform
