// The process: its clock, its environment, its status and its activity loop.

#pragma once

#include <Oru/Export.h>
#include <Oru/Ptr.h>
#include <Oru/SystemStatus.h>

#include <Quarn/base/String.h>

namespace Oru {

// There is one, Entity::singletonIs<System>().
class ORU_API System : public PtrInterface {
 public:
   // Seconds since 1970: the wall time of the first call, plus what the monotonic clock has
   // counted since, plus ActivityManager::virtualTimeOffset(), plus the offset of the function
   // below. It looks like Unix time and never steps with the wall clock.
   // A double of this size tells apart times a quarter of a microsecond from each other.
   //
   // Thread: any; one reading of the monotonic clock, no lock.
   static double currentTime();

   // What currentTime() adds, in seconds, asked at each call; null adds nothing. The function
   // lives as long as any thread may read the time.
   //
   // Thread: any; other threads see it soon, not at once.
   static void currentTimeOffsetFnIs( double ( *offset )() );

   // A clock of the tests, in seconds, in place of wall time and elapsed time; the offset is still
   // added. Null goes back to the real clock.
   static void clockFnIs( double ( *clock )() );

   // A variable of the environment, copied at once; empty when unset.
   //
   // Thread: while no other thread changes the environment.
   static Quarn::String getenv( Quarn::String const& name );

   // Runs the activity loop, or ends the run: ActivityManager::doRun() and doStop().
   static void doRun();
   static void doStop();

   Ptr<SystemStatus> status() const { return status_; }

 private:
   friend struct Entity;
   System();

   Ptr<SystemStatus> const status_;
};

} // namespace Oru
