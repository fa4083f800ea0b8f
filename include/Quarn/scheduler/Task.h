// The plain task: applications derive from it, give it a name and a priority, and implement
// `taskExecute()`.
//
//     class Sweep : public Quarn::Task {
//      public:
//        Sweep() : Task( Quarn::schedulerRootQuarn(), Quarn::TaskPriority::low, "sweep" ) {}
//      private:
//        void taskExecute() override {
//           while( sweepSome() ) {
//              if( taskShouldYield() ) {
//                 scheduleTask();
//                 return;
//              }
//           }
//        }
//     };
//     auto sweep = std::make_shared<Sweep>();
//     sweep->scheduleTask();

#pragma once

#include <Quarn/scheduler/TaskImpl.h>

namespace Quarn {

class ORUQUARN_API Task : public TaskImpl {
 public:
   Task( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name );

   // Shares ownership of the scheduler. One whose owners are gone, or null, counts as none, which
   // fails ("Need a TaskScheduler").
   Task( TaskScheduler* scheduler, TaskPriority priority, String name );

   ~Task() override;

   bool taskScheduled() const override;
   void scheduleTask() override;
   void taskRunFromTest() override;
   unsigned taskStatus() const override;
};

} // namespace Quarn
