// What the framework knows about the state of the process.

#pragma once

#include <Oru/Export.h>
#include <Oru/Ptr.h>

namespace Oru {

// Made with System; System::status() gives it.
//
// Thread: that of the activity loop, or the only one.
class ORU_API SystemStatus : public PtrInterface {
 public:
   // Notifiees hear of each change of an attribute; the value is the new one, a bool.
   static constexpr AttributeId initializedAttribute = 258;
   static constexpr AttributeId threadSafePointersAttribute = 259;

   // Whether the process has come up, for those who wait for it; starts false.
   bool initialized() const { return initialized_; }
   void initializedIs( bool on );

   // Whether pointers are to be counted in one indivisible step; starts true. Who counts watches
   // this: VFPtrInterface does not by itself.
   bool threadSafePointers() const { return threadSafePointers_; }
   void threadSafePointersIs( bool on );

 private:
   bool initialized_ = false;
   bool threadSafePointers_ = true;
};

} // namespace Oru
