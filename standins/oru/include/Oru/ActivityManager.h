// What the framework knows about the mode the process runs in.

#pragma once

#include <Oru/Export.h>
#include <Oru/Ptr.h>

#include <atomic>

namespace Oru {

// Thread: any.
class ORU_API ActivityManager : public PtrInterface {
 public:
   // The only one, also Entity::singletonIs<ActivityManager>().
   static Ptr<ActivityManager> instance();

   // Whether waits for timers are skipped by moving the clock's offset instead; off at start.
   bool virtualTime() const { return virtualTime_.load( std::memory_order_relaxed ); }

 private:
   friend struct Entity;
   friend struct ActivityManagerConfig;
   ActivityManager() = default;

   static std::atomic<bool> virtualTime_;
};

// Sets the mode, before or after there is a manager.
struct ORU_API ActivityManagerConfig {
   static void virtualTimeIs( bool on );
};

} // namespace Oru
