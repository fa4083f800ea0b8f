// What the scheduler adds to a turn of the event loop.

#include "BareTurn.h"
#include "Figure.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/base/ThreadControl.h>

namespace bench {

namespace {

constexpr std::int64_t turns = 2000;
constexpr std::int64_t crowdSize = 1'000'000;
constexpr std::int64_t fewRuns = 200'000;
constexpr std::int64_t groupMembers = 1000;
constexpr std::int64_t memberRuns = 20'000;
constexpr std::int64_t criticalTasks = 1000;
constexpr std::int64_t criticalDrains = 2;

// ------------------------------------------------------------------------------------------- turn

// Runs so many times, one run a turn.
class AgainTask final : public Quarn::Task {
 public:
   explicit AgainTask(
         std::shared_ptr<Quarn::TaskSchedulerRoot> root = Quarn::schedulerRootQuarn() )
         : Task( std::move( root ), Quarn::TaskPriority::normal, "BenchAgainTask" ) {}

   // On the loop that the task's root is on.
   Time run( std::int64_t runs ) {
      left_ = runs;
      scheduleTask();
      return timed( [] { Quarn::Platform::doEventLoop(); } );
   }

 private:
   void taskExecute() override {
      if( --left_ != 0 ) {
         scheduleTask();
      }
   }

   std::int64_t left_ = 0;
};

// Counts without locked instructions, as a program on one thread asks for, while it lives.
class SingleThreadMode {
 public:
   SingleThreadMode() { Quarn::ThreadControl::threadSafePointerIs( false ); }
   ~SingleThreadMode() { Quarn::ThreadControl::threadSafePointerIs( true ); }
   SingleThreadMode( const SingleThreadMode& ) = delete;
   SingleThreadMode& operator=( const SingleThreadMode& ) = delete;
};

class TurnSides final : public Sides {
 public:
   explicit TurnSides( bool singleThread ) : singleThread_( singleThread ) {}

   Time ours() override {
      if( singleThread_ ) {
         const SingleThreadMode mode;
         return task_->run( turns );
      }
      return task_->run( turns );
   }
   Time floor() override { return bare_.run( turns ); }

 private:
   bool singleThread_;
   std::shared_ptr<AgainTask> task_ = std::make_shared<AgainTask>();
   BareTurn bare_;
};

// The process is on the framework's loop while it lives.
class FrameworkMode {
 public:
   FrameworkMode() { Quarn::hasThreadLocalSingletonsIs( false ); }
   ~FrameworkMode() { Quarn::hasThreadLocalSingletonsIs( true ); }
   FrameworkMode( const FrameworkMode& ) = delete;
   FrameworkMode& operator=( const FrameworkMode& ) = delete;
};

class FrameworkTurnSides final : public Sides {
 public:
   Time ours() override {
      const FrameworkMode mode;
      return framework_->run( turns );
   }
   // Ours as well, on libevent.
   Time floor() override { return libevent_->run( turns ); }

 private:
   static std::shared_ptr<AgainTask> onFramework() {
      const FrameworkMode mode;
      return std::make_shared<AgainTask>( Quarn::schedulerRootQuarnNonShared( "BenchRoot" ) );
   }

   std::shared_ptr<AgainTask> framework_ = onFramework();
   std::shared_ptr<AgainTask> libevent_ = std::make_shared<AgainTask>();
};

// -------------------------------------------------------------------------------------- many tasks

// Tasks of one root that are all queued, always. Suspending the root is what ends the loop: it then
// has no callback to wait for, and the tasks stay queued for the next round.
class Crowd {
 public:
   explicit Crowd( std::int64_t size )
         : root_( Quarn::schedulerRootQuarnNonShared( "BenchCrowdRoot" ) ) {
      root_->suspendedIs( true );
      members_.reserve( static_cast<std::size_t>( size ) );
      for( std::int64_t i = 0; i < size; ++i ) {
         members_.push_back( std::make_shared<Member>( *this ) );
      }
      for( const auto& member : members_ ) {
         member->scheduleTask();
      }
   }

   Time run( std::int64_t runs ) {
      left_ = runs;
      root_->suspendedIs( false );
      return timed( [] { Quarn::doLeEventLoop(); } );
   }

 private:
   class Member final : public Quarn::Task {
    public:
      explicit Member( Crowd& crowd )
            : Task( crowd.root_, Quarn::TaskPriority::normal, "BenchCrowdMemberTask" ),
              crowd_( crowd ) {}

    private:
      void taskExecute() override {
         scheduleTask();
         if( --crowd_.left_ == 0 ) {
            crowd_.root_->suspendedIs( true );
         }
      }

      Crowd& crowd_;
   };

   std::shared_ptr<Quarn::TaskSchedulerRoot> root_;
   std::vector<std::shared_ptr<Member>> members_;
   std::int64_t left_ = 0;
};

class CrowdSides final : public Sides {
 public:
   Time ours() override { return many_.run( crowdSize ); }
   Time floor() override { return few_.run( fewRuns ); }

 private:
   Crowd many_{ crowdSize };
   Crowd few_{ 10 };
};

// ------------------------------------------------------------------------------------------ groups

// Members of one group that are all queued, always. Suspending the group ends the loop.
class GroupSides final : public Sides {
 public:
   GroupSides() {
      group_->taskGroupQuantumIs( std::chrono::milliseconds( 20 ) );
      group_->taskGroupSuspendedIs( true );
      for( std::int64_t i = 0; i < groupMembers; ++i ) {
         members_.push_back( std::make_shared<Member>( *this ) );
         members_.back()->scheduleTask();
      }
   }

   Time ours() override {
      left_ = memberRuns;
      group_->taskGroupSuspendedIs( false );
      return timed( [] { Quarn::doLeEventLoop(); } );
   }
   Time floor() override { return plain_->run( turns ); }

 private:
   class Member final : public Quarn::Task {
    public:
      explicit Member( GroupSides& sides )
            : Task( sides.group_, Quarn::TaskPriority::normal, "BenchGroupMemberTask" ),
              sides_( sides ) {}

    private:
      void taskExecute() override {
         scheduleTask();
         if( --sides_.left_ == 0 ) {
            sides_.group_->taskGroupSuspendedIs( true );
         }
      }

      GroupSides& sides_;
   };

   std::shared_ptr<Quarn::TaskGroup> group_ = Quarn::TaskGroup::TaskGroupIs(
         "BenchGroup", Quarn::TaskPriority::normal, false, Quarn::schedulerRootQuarn() );
   std::vector<std::shared_ptr<Member>> members_;
   std::int64_t left_ = 0;
   std::shared_ptr<AgainTask> plain_ = std::make_shared<AgainTask>();
};

// ---------------------------------------------------------------------------------- critical tasks

class IdleTask final : public Quarn::Task {
 public:
   IdleTask( Quarn::TaskPriority priority, Quarn::String name )
         : Task( Quarn::schedulerRootQuarn(), priority, std::move( name ) ) {}

 private:
   void taskExecute() override {}
};

class CriticalSides final : public Sides {
 public:
   CriticalSides() {
      for( std::int64_t i = 0; i < criticalTasks; ++i ) {
         tasks_.push_back( std::make_shared<IdleTask>( Quarn::TaskPriority::critical,
                                                       "BenchCriticalTestTask" ) );
      }
   }

   Time ours() override {
      Time total{};
      for( std::int64_t drain = 0; drain < criticalDrains; ++drain ) {
         for( const auto& task : tasks_ ) {
            task->scheduleTask();
         }
         total += timed( [ this ] { root_->runCriticalPriorityTasks(); } );
         // The callback that was asked for finds the root idle.
         Quarn::doLeEventLoop();
      }
      return total;
   }
   Time floor() override { return bare_.run( turns ); }

 private:
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ = Quarn::schedulerRootQuarn();
   std::vector<std::shared_ptr<IdleTask>> tasks_;
   BareTurn bare_;
};

// --------------------------------------------------------------------------------- without a loop

class PickRunSides final : public Sides {
 public:
   Time ours() override {
      const Time time = timed( [ this ] {
         for( std::int64_t run = 0; run < turns; ++run ) {
            task_->scheduleTask();
            root_->handleSchedulerRun();
         }
      } );
      Quarn::doLeEventLoop();
      return time;
   }
   Time floor() override { return bare_.run( turns ); }

 private:
   std::shared_ptr<Quarn::TaskSchedulerRoot> root_ = Quarn::schedulerRootQuarn();
   std::shared_ptr<IdleTask> task_ =
         std::make_shared<IdleTask>( Quarn::TaskPriority::normal, "BenchPickRunTask" );
   BareTurn bare_;
};

} // namespace

void taskFigures( std::vector<Figure>& figures ) {
   figures.push_back( { "turn", 1.55, turns, turns,
                        [] { return std::make_unique<TurnSides>( false ); }, manySlices } );
   figures.push_back(
         { "turn_1m", 1.15, crowdSize, fewRuns, [] { return std::make_unique<CrowdSides>(); } } );
   figures.push_back( { "group_member", 0.6, memberRuns, turns,
                        [] { return std::make_unique<GroupSides>(); }, manySlices } );
   figures.push_back( { "critical_drain", 0.55, criticalTasks * criticalDrains, turns,
                        [] { return std::make_unique<CriticalSides>(); }, manySlices } );
   figures.push_back( { "turn_single_thread", std::nullopt, turns, turns,
                        [] { return std::make_unique<TurnSides>( true ); }, manySlices } );
   figures.push_back( { "turn_framework", std::nullopt, turns, turns,
                        [] { return std::make_unique<FrameworkTurnSides>(); }, manySlices } );
   figures.push_back( { "schedule_pick_run", std::nullopt, turns, turns,
                        [] { return std::make_unique<PickRunSides>(); }, manySlices } );
}

} // namespace bench
