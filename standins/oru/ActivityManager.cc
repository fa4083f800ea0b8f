#include <Oru/ActivityManager.h>

#include <Oru/Entity.h>

namespace Oru {

constinit std::atomic<bool> ActivityManager::virtualTime_{ false };

Ptr<ActivityManager> ActivityManager::instance() {
   // Asked for at each change of a clock; the table of singletons would cost a lock.
   static constinit std::atomic<ActivityManager*> known{ nullptr };
   ActivityManager* manager = known.load( std::memory_order_acquire );
   if( !manager ) {
      manager = Entity::singletonIs<ActivityManager>().get();
      known.store( manager, std::memory_order_release );
   }
   return manager;
}

void ActivityManagerConfig::virtualTimeIs( bool on ) {
   ActivityManager::virtualTime_.store( on, std::memory_order_relaxed );
}

} // namespace Oru
