#include <Oru/SystemStatus.h>

namespace Oru {

void SystemStatus::initializedIs( bool on ) {
   if( on == initialized_ ) {
      return;
   }
   initialized_ = on;
   notify( initializedAttribute, &on );
}

void SystemStatus::threadSafePointersIs( bool on ) {
   if( on == threadSafePointers_ ) {
      return;
   }
   threadSafePointers_ = on;
   notify( threadSafePointersAttribute, &on );
}

} // namespace Oru
