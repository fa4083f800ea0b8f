// Tasks with a name each, for reports of many.

#pragma once

#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace bench {

class NamedTask final : public Quarn::Task {
 public:
   NamedTask( std::shared_ptr<Quarn::TaskScheduler> scheduler, std::int64_t number )
         : Task( std::move( scheduler ), Quarn::TaskPriority::normal,
                 Quarn::String( fmt::format( "bench-named-task-{:06}", number ) ) ) {}

 private:
   void taskExecute() override {}
};

using NamedTasks = std::vector<std::shared_ptr<NamedTask>>;

// Adds tasks that have run; with `work`, half of them report some.
inline void addNamedTasks( NamedTasks& tasks,
                           const std::shared_ptr<Quarn::TaskScheduler>& scheduler,
                           std::int64_t count, bool work ) {
   for( std::int64_t i = 0; i < count; ++i ) {
      const auto number = static_cast<std::int64_t>( tasks.size() );
      NamedTask& task = *tasks.emplace_back( std::make_shared<NamedTask>( scheduler, number ) );
      task.taskRunFromTest();
      if( work && number % 2 == 0 ) {
         task.taskWorkCountInc( static_cast<unsigned long>( number ) );
         task.taskWorkCountInc( 7 );
         task.taskWorkPendingIs( 3 );
      }
   }
}

} // namespace bench
