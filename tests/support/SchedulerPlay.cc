#include "support/SchedulerPlay.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/testing/Clocks.h>

#include <Oru/System.h>

#include <event2/event.h>
#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <set>

namespace testing_support {

namespace {

using namespace Quarn;
using model::Kind;
using model::Model;
using model::ms;
using std::chrono::nanoseconds;

constexpr int taskSlots = 40;
constexpr int taskCountUsual = 24;
// The first is the root.
constexpr int schedulerSlots = 8;
constexpr int depthMax = 3;
// A step that has run so many tasks lets every further body end at once, after a long time.
constexpr int runsPerStep = 150;
constexpr std::size_t operationsShown = 40;
// More than a step brings, but for rare ones.
constexpr std::uint32_t historyCapacity = 4096;
constexpr double clockStart = 1000.0;
constexpr std::int64_t steadyStart = 1'000'000 * ms;

class BodyThrew : public std::runtime_error {
 public:
   BodyThrew() : std::runtime_error( "thrown by a body" ) {}
};

// ------------------------------------------------------------------------------------- operations

enum class Do {
   // On a task.
   schedule,
   unschedule,
   suspendTask,
   delay,
   delayNs,
   lowestDelay,
   jitterUp,
   jitterUpNs,
   jitterDown,
   stopTimer,
   makeTask,
   dropTask,
   ratio,
   quantum,
   keep,
   // On a scheduler.
   makeGroup,
   dropGroup,
   suspendScheduler,
   groupQuantum,
   multipleRuns,
   groupForceYield,
   defaultQuantum,
   resetStats,
   clearStats,
   // On the root and the clocks.
   rootRatio,
   advance,
   advanceClock,
   deliver,
   runCritical,
   // In a body, on its own task.
   shouldYield,
   workDone,
   workLeft,
   // Outside of bodies: runs.
   loopTurn,
   callback,
   step,
   runFromTest,
   runAndRecord,
   groupRunFromTest,
   count,
};

constexpr char const* names[] = {
      "schedule",        "unschedule",       "suspendTask",  "delay",
      "delayNs",         "lowestDelay",      "jitterUp",     "jitterUpNs",
      "jitterDown",      "stopTimer",        "makeTask",     "dropTask",
      "ratio",           "quantum",          "keep",         "makeGroup",
      "dropGroup",       "suspendScheduler", "groupQuantum", "multipleRuns",
      "groupForceYield", "defaultQuantum",   "resetStats",   "clearStats",
      "rootRatio",       "advance",          "advanceClock", "deliver",
      "runCritical",     "shouldYield",      "workDone",     "workLeft",
      "loopTurn",        "callback",         "step",         "runFromTest",
      "runAndRecord",    "groupRunFromTest" };
static_assert( std::size( names ) == static_cast<std::size_t>( Do::count ) );

struct Operation {
   Do what = Do::loopTurn;
   int task = -1;
   int scheduler = -1;
   std::int64_t number = 0;
   double seconds = 0.0;
   unsigned priority = 0;
   Kind kind = Kind::plain;
};

std::string textOf( const Operation& op ) {
   return fmt::format( "{} task {} scheduler {} number {} seconds {} priority {}{}",
                       names[ static_cast<std::size_t>( op.what ) ], op.task, op.scheduler,
                       op.number, op.seconds, op.priority, op.kind == Kind::timer ? " timer" : "" );
}

// What is compared after each operation, also in the middle of runs: words of equal meaning on both
// sides.
using Picture = std::vector<std::uint64_t>;
constexpr std::size_t wordsOfTask = 2;
constexpr std::size_t wordsOfScheduler = 4;

std::string wordText( std::size_t word ) {
   if( word == 0 ) {
      return "whether a callback is pending";
   }
   const std::size_t n = word - 1;
   if( n < wordsOfTask * taskSlots ) {
      constexpr char const* what[] = { "status, taskScheduled() and run count",
                                       "number of handleTaskBusy()" };
      return fmt::format( "{} of task {}", what[ n % wordsOfTask ], n / wordsOfTask );
   }
   const std::size_t m = n - wordsOfTask * taskSlots;
   constexpr char const* what[] = { "runnable counts", "flags", "armed timers and parent's runs",
                                    "number of busy callbacks" };
   return fmt::format( "{} of scheduler {}", what[ m % wordsOfScheduler ], m / wordsOfScheduler );
}

std::uint64_t taskWord( std::uint64_t runs, bool scheduled, unsigned status ) {
   return std::uint64_t{ 1 } << 63 | runs << 16 | ( scheduled ? 1u << 15 : 0u ) | status;
}

// A line of the script: what the scheduler must do next.
struct Line {
   enum What { run, body, hook, operation, end, thrown } what = end;
   // Of `run`: the name of the task. Of `body` and `hook`: its slot.
   std::string name{};
   int slot = -1;
   Operation op{};
   // What the operation answered, and whether it let an exception out.
   bool answer = false;
   bool threw = false;
   Picture after{};
};

// Whoever is told of bodies.
class Player {
 public:
   virtual ~Player() = default;
   virtual void bodyRuns( int slot ) = 0;
   virtual void statsWereReset( int slot ) = 0;
   virtual void goes( int slot ) = 0;
   virtual void busyChanged( int slot ) = 0;
};

template<typename Base>
class Actor final : public Base {
 public:
   Actor( Player& player, int slot, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
          String name )
         : Base( std::move( scheduler ), priority, std::move( name ) ),
           player_( player ),
           slot_( slot ) {}
   ~Actor() override { player_.goes( slot_ ); }

   void handleTaskBusy() override { player_.busyChanged( slot_ ); }
   void handleResetStats() override { player_.statsWereReset( slot_ ); }

 private:
   void taskExecute() override { player_.bodyRuns( slot_ ); }

   Player& player_;
   int slot_;
};

// ------------------------------------------------------------------------------------- the drawing

// How lively things are; changes from time to time, so that long undisturbed runs occur too.
struct Mood {
   unsigned selfSchedulePercent = 40;
   unsigned operationsPerBody = 3;
   unsigned throwPercent = 3;
   unsigned turnPercent = 45;
   // A body takes less than this; 0 for one of a few whole lengths.
   std::int64_t bodyNs = 4 * ms;
};

class Play final : public Player, public SchedulerPlay {
 public:
   explicit Play( Draw draw );
   ~Play() override;

   bool stepOnce() override;
   bool finish() override;
   const std::string& fault() const override { return fault_; }
   void show( std::ostream& out ) const override;
   std::uint64_t operations() const override { return operations_; }
   std::uint64_t runs() const override { return runsCompared_; }
   const model::Tally& tally() const override { return model_.tally; }

 private:
   // Of the drawing.
   std::uint64_t _below( std::uint64_t n ) { return draw_() % n; }
   bool _chance( unsigned percent ) { return _below( 100 ) < percent; }
   double _fraction() { return static_cast<double>( draw_() >> 11 ) * 0x1p-53; }
   template<typename Container>
   auto _any( const Container& all ) -> typename Container::value_type {
      std::vector<typename Container::value_type> there;
      for( auto* each : all ) {
         if( each ) {
            there.push_back( each );
         }
      }
      return there.empty() ? nullptr : there[ _below( there.size() ) ];
   }
   double _delay();
   std::int64_t _quantum();
   Operation _draw( model::Task* self );
   Operation _drawRun();
   void _changeMood();

   // Of the model.
   void _record( Operation op );
   void _modelDoes( Line& line );
   void _modelBody( model::Task& task );
   void _modelHook( model::Task& task );
   Picture _modelPicture() const;

   // Of the scheduler.
   void bodyRuns( int slot ) override;
   void statsWereReset( int slot ) override;
   void goes( int slot ) override { real_[ at( slot ) ].task = nullptr; }
   void busyChanged( int slot ) override { ++real_[ at( slot ) ].busyCalls; }
   void _play( Line::What what, int slot );
   void _really( Line& line );
   bool _do( const Operation& op );
   Line* _next();
   bool _callbackPending() const;
   Picture _realPicture() const;
   void _compare( const Picture& expected, char const* when, const Operation& op );
   void _compareAll();
   void _compareHistory();
   void _compareStats( const model::Scheduler& expected, const TaskScheduler& found );
   template<typename Value, typename Wanted>
   void _compareValue( char const* what, const std::string& whom, Value value, Wanted wanted );
   void _compareRecord( const std::string& whom, const TaskStat& s, const model::Counters& c,
                        std::int64_t firstRun, std::int64_t lastRun );
   void _fail( const std::string& what );
   void _perform( const Operation& op );

   static std::size_t at( int slot ) { return static_cast<std::size_t>( slot ); }
   TaskScheduler* _schedulerOf( int slot ) const {
      if( slot == 0 ) {
         return root_.get();
      }
      return groups_[ at( slot ) ].lock().get();
   }
   template<typename Scheduler>
   void _countBusyCallbacks( Scheduler& scheduler, int slot ) {
      scheduler.registerBusyCallback( this, [ this, slot ] { ++busyCallbacks_[ at( slot ) ]; } );
   }

   struct Real {
      std::shared_ptr<TaskImpl> owner;
      // Null when it is gone, which may be later than its owner.
      TaskImpl* task = nullptr;
      TimerTask* timer = nullptr;
      unsigned busyCalls = 0;
   };

   Draw draw_;
   Mood mood_;
   bool calm_ = false;

   Testing::ManualSteadyClock steadyClock_{ nanoseconds( steadyStart ) };
   Testing::ManualTimerClock timerClock_{ clockStart };
   Model model_{ steadyStart, clockStart };
   std::array<model::Task*, taskSlots> tasks_{};
   std::array<model::Scheduler*, schedulerSlots> schedulers_{};
   std::array<bool, schedulerSlots> ownsGroup_{};
   int runs_ = 0;

   std::vector<Line> script_;
   std::size_t position_ = 0;

   event_base* base_ = nullptr; // none on the framework's loop
   std::shared_ptr<TaskSchedulerRoot> root_;
   std::uint64_t events_ = 0; // so far
   bool inLoop_ = false;
   std::array<Real, taskSlots> real_;
   std::array<std::shared_ptr<TaskGroup>, schedulerSlots> groupOwners_;
   std::array<std::weak_ptr<TaskGroup>, schedulerSlots> groups_;
   std::array<unsigned, schedulerSlots> busyCallbacks_{};

   bool failed_ = false;
   std::string fault_;
   std::uint64_t steps_ = 0;
   std::uint64_t operations_ = 0;
   std::uint64_t runsCompared_ = 0;
   std::deque<std::string> lastOperations_;
};

// A bit for each scheduler slot whose busy changes are counted by a callback; the others take the
// way without callbacks.
constexpr bool countsBusyCallbacks( int slot ) { return slot % 3 != 1; }

// Reaches what the root asks for its runs, to see whether it has asked, and its history.
template<auto callback, auto history>
struct MembersOf {
   friend const Platform::CallbackControl& callbackOf( const TaskSchedulerRoot& root ) {
      return *( root.*callback );
   }
   friend TaskSchedulerHistory& ringOf( const TaskSchedulerRoot& root ) {
      return *( root.*history );
   }
};
const Platform::CallbackControl& callbackOf( const TaskSchedulerRoot& root );
TaskSchedulerHistory& ringOf( const TaskSchedulerRoot& root );
template struct MembersOf<&TaskSchedulerRoot::callbackControl_, &TaskSchedulerRoot::history_>;

Play::Play( Draw draw ) : draw_( std::move( draw ) ) {
   // Whatever an earlier case of this process has left.
   leFree();
   if( hasThreadLocalSingletons() ) {
      base_ = leCreateBase();
      leRegisterBase( base_ );
   }
   root_ = TaskSchedulerRoot::TaskSchedulerRootIs( "root" );
   root_->requestSchedulerRun();
   model_.callbackPending = true;
   root_->clearHistory();
   root_->historyEntryCountIs( historyCapacity );
   root_->runObserverForTestIs( [ this ]( const TaskImpl& task ) {
      if( inLoop_ ) {
         // One turn is one step.
         if( base_ ) {
            event_base_loopbreak( base_ );
         } else {
            Oru::System::doStop();
         }
      }
      Line const* line = _next();
      if( line && ( line->what != Line::run ||
                    std::string_view( task.taskName() ) != std::string_view( line->name ) ) ) {
         _fail( fmt::format( "{} runs", taskText( &task ) ) );
      }
   } );
   _countBusyCallbacks( *root_, 0 );
   model_.root.tellsBusy = true;
   schedulers_[ 0 ] = &model_.root;
   model_.onRun = [ this ]( model::Task& task ) {
      ++runs_;
      script_.push_back( { .what = Line::run, .name = task.name } );
   };
   model_.onBody = [ this ]( model::Task& task ) { _modelBody( task ); };
   model_.onResetHook = [ this ]( model::Task& task ) { _modelHook( task ); };
   model_.onTaskGone = [ this ]( model::Task& task ) {
      if( task.slot >= 0 ) {
         tasks_[ at( task.slot ) ] = nullptr;
      }
   };
   model_.onGroupGone = [ this ]( model::Scheduler& group ) {
      schedulers_[ at( group.slot ) ] = nullptr;
   };
}

Play::~Play() {
   for( Real& real : real_ ) {
      real.owner.reset();
   }
   for( auto& owner : groupOwners_ ) {
      owner.reset();
   }
   root_.reset();
   leFree();
}

double Play::_delay() {
   constexpr double ranges[] = { 0.02, 0.5, 20.0, 3000.0 };
   switch( _below( 24 ) ) {
   case 0:
      return 0.0;
   case 1:
      return model::never;
   case 2:
      return -_fraction();
   default:
      return ranges[ _below( 4 ) ] * _fraction();
   }
}

std::int64_t Play::_quantum() {
   constexpr std::int64_t quanta[] = { 1, ms, 5 * ms, 20 * ms, 20 * ms + 1, 60 * ms, 200 * ms };
   return quanta[ _below( std::size( quanta ) ) ];
}

void Play::_changeMood() {
   constexpr unsigned selfSchedule[] = { 10, 40, 70, 100 };
   constexpr unsigned turns[] = { 40, 60, 95, 100 };
   constexpr std::int64_t bodies[] = { 0, 0, 2000, ms, 8 * ms, 60 * ms };
   mood_.selfSchedulePercent = selfSchedule[ _below( 4 ) ];
   mood_.operationsPerBody = static_cast<unsigned>( _below( 4 ) );
   mood_.throwPercent = _chance( 50 ) ? 4 : 0;
   mood_.turnPercent = turns[ _below( 4 ) ];
   mood_.bodyNs = bodies[ _below( std::size( bodies ) ) ];
}

// An operation that is allowed in the model's present state; the weights keep all kinds of tasks
// and groups in being.
Operation Play::_draw( model::Task* self ) {
   for( ;; ) {
      Operation op;
      model::Task* task = self && _chance( 25 ) ? self : _any( tasks_ );
      model::Scheduler* scheduler = _any( schedulers_ );
      op.task = task ? task->slot : -1;
      op.scheduler = scheduler->slot;
      const bool isGroup = scheduler->parent;
      const bool isTimer = task && task->kind == Kind::timer;
      const std::uint64_t kind = _below( 1000 );
      std::uint64_t upTo = 0;
      const auto draws = [ & ]( Do what, unsigned weight ) {
         op.what = what;
         upTo += weight;
         return kind < upTo;
      };
      if( draws( Do::schedule, 300 ) || draws( Do::unschedule, 40 ) ) {
         if( task ) {
            return op;
         }
      } else if( draws( Do::suspendTask, 60 ) ) {
         // Tasks spend less time suspended than not.
         op.number = task && !task->suspended && _chance( 50 );
         if( task ) {
            return op;
         }
      } else if( draws( Do::delay, 70 ) || draws( Do::lowestDelay, 30 ) ) {
         op.seconds = _delay();
         if( op.what == Do::lowestDelay && task && task->timing && op.seconds < 0.0 ) {
            // No earlier than it is due.
            op.seconds = model_.remaining( *task );
         }
         if( isTimer && !( op.what == Do::lowestDelay && op.seconds == model::never ) ) {
            return op;
         }
      } else if( draws( Do::delayNs, 20 ) ) {
         op.number = static_cast<std::int64_t>( _below( 3'000'000'000 ) );
         if( isTimer ) {
            return op;
         }
      } else if( draws( Do::jitterUp, 15 ) || draws( Do::jitterDown, 15 ) ) {
         op.seconds = 30.0 * _fraction();
         op.number = static_cast<std::int64_t>( _below( 101 ) );
         if( isTimer ) {
            return op;
         }
      } else if( draws( Do::jitterUpNs, 15 ) ) {
         op.seconds = static_cast<double>( _below( 5'000'000'000 ) );
         op.number = static_cast<std::int64_t>( _below( 101 ) );
         if( isTimer ) {
            return op;
         }
      } else if( draws( Do::stopTimer, 25 ) ) {
         if( isTimer ) {
            return op;
         }
      } else if( draws( Do::makeTask, 60 ) ) {
         const auto count = std::count_if( tasks_.begin(), tasks_.end(),
                                           []( auto const* t ) { return t != nullptr; } );
         const auto free = std::find( tasks_.begin(), tasks_.end(), nullptr );
         if( free != tasks_.end() && ( count < taskCountUsual || _chance( 20 ) ) ) {
            op.task = static_cast<int>( free - tasks_.begin() );
            op.kind = _chance( 40 ) ? Kind::timer : Kind::plain;
            op.priority = isGroup ? scheduler->priority
                                  : static_cast<unsigned>( _below( model::priorities ) );
            return op;
         }
      } else if( draws( Do::dropTask, 35 ) ) {
         if( task && task->owned ) {
            return op;
         }
      } else if( draws( Do::ratio, 30 ) ) {
         op.number = _chance( 60 ) ? 0 : static_cast<std::int64_t>( 1 + _below( 4 ) );
         if( task ) {
            return op;
         }
      } else if( draws( Do::quantum, 10 ) || draws( Do::defaultQuantum, 4 ) ) {
         op.number = _quantum();
         if( task || op.what == Do::defaultQuantum ) {
            return op;
         }
      } else if( draws( Do::keep, 6 ) ) {
         op.number = _chance( 50 );
         if( task ) {
            return op;
         }
      } else if( draws( Do::makeGroup, 12 ) ) {
         const auto free = std::find( schedulers_.begin(), schedulers_.end(), nullptr );
         int depth = 0;
         for( model::Scheduler const* s = scheduler; s->parent; s = s->parent ) {
            ++depth;
         }
         if( free != schedulers_.end() && depth < depthMax ) {
            op.number = free - schedulers_.begin();
            op.priority = isGroup ? scheduler->priority
                                  : static_cast<unsigned>( 1 + _below( model::priorities - 1 ) );
            return op;
         }
      } else if( draws( Do::dropGroup, 6 ) ) {
         if( isGroup && ownsGroup_[ at( scheduler->slot ) ] ) {
            return op;
         }
      } else if( draws( Do::suspendScheduler, 24 ) ) {
         op.number = !scheduler->suspended && _chance( isGroup ? 40 : 15 );
         return op;
      } else if( draws( Do::groupQuantum, 15 ) ) {
         op.number = _quantum();
         if( isGroup ) {
            return op;
         }
      } else if( draws( Do::multipleRuns, 20 ) || draws( Do::groupForceYield, 8 ) ) {
         op.number = _chance( 50 );
         if( isGroup ) {
            return op;
         }
      } else if( draws( Do::resetStats, 6 ) || draws( Do::clearStats, 2 ) ) {
         return op;
      } else if( draws( Do::rootRatio, 4 ) ) {
         op.number = _chance( 80 ) ? 0 : static_cast<std::int64_t>( 1 + _below( 5 ) );
         return op;
      } else if( draws( Do::advance, 40 ) ) {
         op.number = static_cast<std::int64_t>( _below( 8 * ms ) );
         return op;
      } else if( draws( Do::advanceClock, 40 ) ) {
         constexpr double ranges[] = { 0.02, 0.5, 20.0, 500.0 };
         op.seconds = ranges[ _below( 4 ) ] * _fraction();
         return op;
      } else if( draws( Do::deliver, 20 ) || draws( Do::runCritical, 8 ) ) {
         if( op.what == Do::deliver || !model_.runsCritical ) {
            return op;
         }
      } else if( draws( Do::shouldYield, 50 ) ) {
         // A task that never ran may ask too.
         if( task && ( task->running || task->counters.runs == 0 ) ) {
            return op;
         }
      } else {
         op.what = _chance( 50 ) ? Do::workDone : Do::workLeft;
         op.number = static_cast<std::int64_t>( _below( 1000 ) );
         if( task ) {
            return op;
         }
      }
   }
}

Operation Play::_drawRun() {
   Operation op;
   switch( _below( 20 ) ) {
   case 0:
   case 1:
      op.what = Do::callback;
      return op;
   case 2:
      op.what = Do::step;
      op.scheduler = _any( schedulers_ )->slot;
      op.priority = static_cast<unsigned>( _below( model::priorities ) );
      return op;
   case 3:
      op.what = Do::runCritical;
      return op;
   case 4:
      if( model::Task* task = _any( tasks_ ) ) {
         op.what = _chance( 50 ) ? Do::runFromTest : Do::runAndRecord;
         op.task = task->slot;
         return op;
      }
      break;
   case 5:
      op.what = Do::groupRunFromTest;
      op.scheduler = _any( schedulers_ )->slot;
      if( op.scheduler != 0 ) {
         return op;
      }
      break;
   default:
      break;
   }
   op.what = Do::loopTurn;
   return op;
}

// ---------------------------------------------------------------------------- the model's side

void Play::_record( Operation op ) {
   script_.push_back( { .what = Line::operation, .op = op } );
   const std::size_t index = script_.size() - 1;
   try {
      // The script may grow, and move, under the operation.
      Line line = script_[ index ];
      _modelDoes( line );
      script_[ index ].answer = line.answer;
   } catch( const BodyThrew& ) {
      script_[ index ].threw = true;
      script_[ index ].after = _modelPicture();
      throw;
   }
   script_[ index ].after = _modelPicture();
}

void Play::_modelDoes( Line& line ) {
   const Operation& op = line.op;
   // Of an operation that is on no task, or no scheduler, the first; that one is not looked at.
   model::Task* const task = tasks_[ at( std::max( op.task, 0 ) ) ];
   model::Scheduler* const scheduler = schedulers_[ at( std::max( op.scheduler, 0 ) ) ];
   const bool on = op.number != 0;
   switch( op.what ) {
   case Do::schedule:
      model_.schedule( *task );
      break;
   case Do::unschedule:
      model_.unschedule( *task );
      break;
   case Do::suspendTask:
      model_.suspend( *task, on );
      break;
   case Do::delay:
      model_.startTimer( *task, op.seconds, false );
      break;
   case Do::delayNs:
      model_.startTimer( *task, static_cast<double>( op.number ) / 1e9, false );
      break;
   case Do::lowestDelay:
      model_.startTimer( *task, op.seconds, true );
      break;
   case Do::jitterUp:
   case Do::jitterDown: {
      const double part =
            model_.jitterStep() * ( static_cast<double>( op.number ) * op.seconds ) / 10000;
      model_.startTimer( *task,
                         op.what == Do::jitterUp ? op.seconds + part
                                                 : op.seconds - std::min( part, op.seconds ),
                         false );
      break;
   }
   case Do::jitterUpNs: {
      const auto ns = static_cast<std::int64_t>( op.seconds );
      const std::int64_t part = model_.jitterStep() * ( op.number * ns ) / 10000;
      model_.startTimer( *task, static_cast<double>( ns + part ) / 1e9, false );
      break;
   }
   case Do::stopTimer:
      model_.stopTimer( *task );
      break;
   case Do::makeTask:
      tasks_[ at( op.task ) ] = &model_.makeTask( op.kind, *scheduler, op.priority,
                                                  fmt::format( "test{}", op.task ), op.task );
      break;
   case Do::dropTask:
      model_.dropTask( *task );
      break;
   case Do::ratio:
      model_.ratioIs( *task, static_cast<unsigned>( op.number ) );
      break;
   case Do::quantum:
      task->quantum = op.number;
      break;
   case Do::keep:
      task->keptWhenGone = on;
      break;
   case Do::makeGroup: {
      const auto slot = static_cast<int>( op.number );
      schedulers_[ at( slot ) ] =
            &model_.makeGroup( *scheduler, op.priority, fmt::format( "group{}", slot ), slot );
      schedulers_[ at( slot ) ]->tellsBusy = countsBusyCallbacks( slot );
      ownsGroup_[ at( slot ) ] = true;
      break;
   }
   case Do::dropGroup:
      ownsGroup_[ at( op.scheduler ) ] = false;
      model_.dropReference( *scheduler );
      break;
   case Do::suspendScheduler:
      if( scheduler->parent ) {
         model_.suspendGroup( *scheduler, on );
      } else {
         model_.suspendRoot( on );
      }
      break;
   case Do::groupQuantum:
      scheduler->parentTask->quantum = op.number;
      break;
   case Do::multipleRuns:
      scheduler->multipleRuns = on;
      break;
   case Do::groupForceYield:
      model_.groupForceYieldIs( *scheduler, on );
      break;
   case Do::defaultQuantum:
      scheduler->defaultQuantum = op.number;
      break;
   case Do::resetStats:
      model_.resetStats( *scheduler );
      break;
   case Do::clearStats:
      Model::clearStats( *scheduler );
      break;
   case Do::rootRatio:
      model_.rootRatioIs( static_cast<unsigned>( op.number ) );
      break;
   case Do::advance:
      model_.now += op.number;
      break;
   case Do::advanceClock:
      model_.clock += op.seconds;
      break;
   case Do::deliver:
      model_.deliverTimers();
      break;
   case Do::runCritical:
      model_.runCriticalTasks();
      break;
   case Do::shouldYield:
      line.answer = model_.shouldYield( *task );
      break;
   case Do::workDone:
      Model::workDone( *task, static_cast<std::uint64_t>( op.number ) );
      break;
   case Do::workLeft:
      Model::workLeft( *task, static_cast<std::uint32_t>( op.number ) );
      break;
   case Do::loopTurn:
      model_.deliverTimers();
      model_.loopTurn();
      break;
   case Do::callback:
      model_.step( model_.root, model::scavenge );
      break;
   case Do::step:
      line.answer = model_.heldStep( *scheduler, op.priority );
      break;
   case Do::runFromTest:
      model_.runFromTest( *task, false );
      break;
   case Do::runAndRecord:
      model_.runFromTest( *task, true );
      break;
   case Do::groupRunFromTest:
      model_.runFromTest( *scheduler->parentTask, false );
      break;
   case Do::count:
      break;
   }
}

void Play::_modelBody( model::Task& task ) {
   script_.push_back( { .what = Line::body, .slot = task.slot } );
   const bool tired = calm_ || runs_ > runsPerStep;
   // Whole lengths meet the ends of quanta exactly.
   constexpr std::int64_t lengths[] = { 0, 3 * ms / 10, ms, 5 * ms, 10 * ms };
   const std::int64_t length =
         mood_.bodyNs > 0
               ? static_cast<std::int64_t>( _below( static_cast<std::uint64_t>( mood_.bodyNs ) ) )
               : lengths[ _chance( 50 ) ? 1 : _below( std::size( lengths ) ) ];
   _record( { .what = Do::advance, .number = tired ? 50 * ms : length } );
   if( !tired ) {
      const unsigned count = mood_.operationsPerBody == 0
                                   ? ( _chance( 2 ) ? 1 : 0 )
                                   : static_cast<unsigned>( _below( mood_.operationsPerBody + 1 ) );
      for( unsigned n = 0; n < count; ++n ) {
         _record( _draw( &task ) );
      }
      if( _chance( mood_.selfSchedulePercent ) ) {
         _record( { .what = Do::schedule, .task = task.slot } );
      }
      if( _chance( mood_.throwPercent ) ) {
         script_.push_back( { .what = Line::thrown } );
         throw BodyThrew();
      }
   }
   script_.push_back( { .what = Line::end } );
}

void Play::_modelHook( model::Task& task ) {
   script_.push_back( { .what = Line::hook, .slot = task.slot } );
   if( !calm_ && runs_ <= runsPerStep && _chance( 20 ) ) {
      _record( _draw( &task ) );
      if( _chance( mood_.throwPercent ) ) {
         script_.push_back( { .what = Line::thrown } );
         throw BodyThrew();
      }
   }
   script_.push_back( { .what = Line::end } );
}

Picture Play::_modelPicture() const {
   Picture words{ model_.callbackPending };
   for( model::Task const* t : tasks_ ) {
      words.push_back( t ? taskWord( t->counters.runs, t->scheduled(), t->status() ) : 0 );
      words.push_back( t ? t->busyCalls : 0 );
   }
   for( model::Scheduler const* s : schedulers_ ) {
      if( !s ) {
         words.insert( words.end(), wordsOfScheduler, 0 );
         continue;
      }
      std::uint64_t runnable = 1;
      for( unsigned p = 0; p < model::priorities; ++p ) {
         runnable = runnable << 8 | s->runnable( p );
      }
      words.push_back( runnable );
      words.push_back( ( s->hasWork ? 1u : 0u ) | ( s->busy ? 2u : 0u ) |
                       ( s->suspended ? 4u : 0u ) | ( s->forced.empty() ? 0u : 8u ) |
                       ( s->resetting ? 16u : 0u ) |
                       ( s->parentTask && s->parentTask->queued ? 32u : 0u ) );
      words.push_back( std::uint64_t{ s->timers } << 32 |
                       ( s->parentTask ? s->parentTask->counters.runs : 0 ) );
      words.push_back( countsBusyCallbacks( s->slot ) ? s->busyChanges : 0 );
   }
   return words;
}

// ------------------------------------------------------------------------ the scheduler's side

void Play::_fail( const std::string& what ) {
   if( failed_ ) {
      return;
   }
   failed_ = true;
   std::string script;
   const std::size_t end = std::min( position_, script_.size() );
   for( std::size_t n = end > operationsShown ? end - operationsShown : 0; n < end; ++n ) {
      constexpr char const* whats[] = { "run", "body of task", "reset hook of task",
                                        "",    "end",          "throws" };
      const Line& line = script_[ n ];
      script += fmt::format( "\n   {} {}", whats[ line.what ],
                             line.what == Line::operation ? textOf( line.op )
                             : line.what == Line::run     ? line.name
                             : line.slot >= 0             ? std::to_string( line.slot )
                                                          : "" );
   }
   fault_ = what + "\nthe script of this step, up to where it went wrong:" + script;
}

Line* Play::_next() {
   if( failed_ ) {
      return nullptr;
   }
   if( position_ == script_.size() ) {
      _fail( "more happens than the model says" );
      return nullptr;
   }
   Line& line = script_[ position_++ ];
   operations_ += line.what == Line::operation ? 1 : 0;
   runsCompared_ += line.what == Line::run ? 1 : 0;
   return &line;
}

void Play::bodyRuns( int slot ) { _play( Line::body, slot ); }

void Play::statsWereReset( int slot ) { _play( Line::hook, slot ); }

void Play::_play( Line::What what, int slot ) {
   Line const* begin = _next();
   if( begin && ( begin->what != what || begin->slot != slot ) ) {
      _fail( fmt::format( "{} of task {}", what == Line::body ? "body" : "reset", slot ) );
   }
   while( Line* line = _next() ) {
      if( line->what == Line::end ) {
         return;
      }
      if( line->what == Line::thrown ) {
         throw BodyThrew();
      }
      if( line->what != Line::operation ) {
         _fail( "the model runs a task here, the scheduler does not" );
         return;
      }
      _really( *line );
   }
}

void Play::_really( Line& line ) {
   const Operation op = line.op;
   bool threw = false;
   bool answer = false;
   try {
      answer = _do( op );
   } catch( const BodyThrew& ) {
      threw = true;
   }
   if( !failed_ && threw != line.threw ) {
      _fail( threw ? "an exception the model does not know" : "no exception" );
   }
   if( !failed_ && !threw && answer != line.answer ) {
      _fail( fmt::format( "{} answers {}", textOf( op ), answer ) );
   }
   _compare( line.after, "after", op );
   if( threw ) {
      throw BodyThrew();
   }
}

bool Play::_do( const Operation& op ) {
   // As above.
   TaskImpl* const task = real_[ at( std::max( op.task, 0 ) ) ].task;
   TimerTask* const timer = real_[ at( std::max( op.task, 0 ) ) ].timer;
   TaskScheduler* const scheduler = _schedulerOf( std::max( op.scheduler, 0 ) );
   const auto group = [ scheduler ]() -> TaskGroup& {
      return static_cast<TaskGroup&>( *scheduler );
   };
   const bool on = op.number != 0;
   const auto percent = static_cast<std::uint8_t>( op.number );
   switch( op.what ) {
   case Do::schedule:
      task->scheduleTask();
      break;
   case Do::unschedule:
      task->unscheduleTask();
      break;
   case Do::suspendTask:
      task->taskSuspendedIs( on );
      break;
   case Do::delay:
      timer->scheduleTaskDelay( op.seconds );
      break;
   case Do::delayNs:
      timer->scheduleTaskDelay( nanoseconds( op.number ) );
      break;
   case Do::lowestDelay:
      timer->scheduleTaskLowestDelay( op.seconds );
      break;
   case Do::jitterUp:
      timer->scheduleTaskJitterUp( op.seconds, percent );
      break;
   case Do::jitterUpNs:
      timer->scheduleTaskJitterUp( nanoseconds( static_cast<std::int64_t>( op.seconds ) ),
                                   percent );
      break;
   case Do::jitterDown:
      timer->scheduleTaskJitterDown( op.seconds, percent );
      break;
   case Do::stopTimer:
      timer->stopTimerTask();
      break;
   case Do::makeTask: {
      Real& real = real_[ at( op.task ) ];
      const TaskPriority priority( static_cast<std::uint8_t>( op.priority ) );
      const String name( fmt::format( "test{}", op.task ) );
      real.busyCalls = 0;
      if( op.kind == Kind::timer ) {
         auto made = std::make_shared<Actor<TimerTask>>(
               *this, op.task, scheduler->shared_from_this(), priority, name );
         real.timer = made.get();
         real.owner = made;
      } else {
         real.timer = nullptr;
         real.owner = std::make_shared<Actor<Task>>( *this, op.task, scheduler->shared_from_this(),
                                                     priority, name );
      }
      real.task = real.owner.get();
      break;
   }
   case Do::dropTask: {
      const std::shared_ptr<TaskImpl> last = std::move( real_[ at( op.task ) ].owner );
      break;
   }
   case Do::ratio:
      task->taskTestYieldRatioIs( static_cast<unsigned char>( op.number ) );
      break;
   case Do::quantum:
      task->taskQuantumIs( nanoseconds( op.number ) );
      break;
   case Do::keep:
      task->includeInCompletedTaskIs( on );
      break;
   case Do::makeGroup: {
      const auto slot = static_cast<int>( op.number );
      groupOwners_[ at( slot ) ] =
            TaskGroup::TaskGroupIs( String( fmt::format( "group{}", slot ) ),
                                    TaskPriority( static_cast<std::uint8_t>( op.priority ) ), false,
                                    scheduler->shared_from_this() );
      groups_[ at( slot ) ] = groupOwners_[ at( slot ) ];
      busyCallbacks_[ at( slot ) ] = 0;
      if( countsBusyCallbacks( slot ) ) {
         _countBusyCallbacks( *groupOwners_[ at( slot ) ], slot );
      }
      break;
   }
   case Do::dropGroup: {
      const std::shared_ptr<TaskGroup> last = std::move( groupOwners_[ at( op.scheduler ) ] );
      break;
   }
   case Do::suspendScheduler:
      scheduler->suspendedIs( on );
      break;
   case Do::groupQuantum:
      group().taskGroupQuantumIs( nanoseconds( op.number ) );
      break;
   case Do::multipleRuns:
      group().tasksPermittedMultipleRunsIs( on );
      break;
   case Do::groupForceYield:
      group().taskGroupForceYieldInTestIs( on );
      break;
   case Do::defaultQuantum:
      scheduler->defaultTaskQuantumIs( nanoseconds( op.number ) );
      break;
   case Do::resetStats:
      scheduler->resetStats();
      break;
   case Do::clearStats:
      scheduler->clearStats();
      break;
   case Do::rootRatio:
      root_->taskTestYieldRatioIs( static_cast<unsigned char>( op.number ) );
      break;
   case Do::advance:
      steadyClock_.advance( nanoseconds( op.number ) );
      break;
   case Do::advanceClock:
      timerClock_.advance( op.seconds );
      break;
   case Do::deliver:
      processExpiredTimersForTaskScheduler( root_->timerWheelForTest() );
      break;
   case Do::runCritical:
      // By way of any scheduler.
      ( scheduler ? scheduler : root_.get() )->runCriticalPriorityTasks();
      break;
   case Do::shouldYield:
      return task->taskShouldYield();
   case Do::workDone:
      task->taskWorkCountInc( static_cast<unsigned long>( op.number ) );
      break;
   case Do::workLeft:
      task->taskWorkPendingIs( static_cast<unsigned>( op.number ) );
      break;
   case Do::loopTurn: {
      // The loop's own clock runs on, so what is due by the manual one is delivered here and the
      // wheel's master timer finds nothing.
      processExpiredTimersForTaskScheduler( root_->timerWheelForTest() );
      inLoop_ = true;
      try {
         Platform::doEventLoop( 0.0 );
      } catch( ... ) {
         inLoop_ = false;
         throw;
      }
      inLoop_ = false;
      break;
   }
   case Do::callback:
      root_->handleSchedulerRun();
      break;
   case Do::step:
      return scheduler->_handleSchedulerRun(
            TaskPriority( static_cast<std::uint8_t>( op.priority ) ) );
   case Do::runFromTest:
      task->taskRunFromTest();
      break;
   case Do::runAndRecord:
      task->taskRunAndRecordFromTest();
      break;
   case Do::groupRunFromTest:
      group().taskGroupRunFromTest();
      break;
   case Do::count:
      break;
   }
   return false;
}

bool Play::_callbackPending() const { return callbackOf( *root_ ).pendingCallback(); }

Picture Play::_realPicture() const {
   Picture words{ _callbackPending() };
   for( const Real& r : real_ ) {
      words.push_back( r.task ? taskWord( r.task->taskRunCount(), r.task->taskScheduled(),
                                          r.task->taskStatus() )
                              : 0 );
      words.push_back( r.task ? r.busyCalls : 0 );
   }
   for( int slot = 0; slot < schedulerSlots; ++slot ) {
      const std::shared_ptr<TaskGroup> group = groups_[ at( slot ) ].lock();
      TaskScheduler const* s = slot == 0 ? root_.get() : static_cast<TaskScheduler*>( group.get() );
      if( !s ) {
         words.insert( words.end(), wordsOfScheduler, 0 );
         continue;
      }
      std::uint64_t runnable = 1;
      for( TaskPriority p = TaskPriority::critical; p <= TaskPriority::scavenge; ++p ) {
         runnable = runnable << 8 | static_cast<std::uint64_t>( s->runnableTaskCount( p ) );
      }
      words.push_back( runnable );
      words.push_back( ( s->schedulerHasRunnableTasks() ? 1u : 0u ) | ( s->busy() ? 2u : 0u ) |
                       ( s->suspended() ? 4u : 0u ) | ( s->anyTaskForcesYieldInTest() ? 8u : 0u ) |
                       ( s->TaskScheduler::resetStatsInProgress() ? 16u : 0u ) |
                       ( group && group->parentTaskScheduled() ? 32u : 0u ) );
      words.push_back( std::uint64_t{ s->timerRunningCount() } << 32 |
                       ( group ? group->parentTaskRunCount() : 0 ) );
      words.push_back( countsBusyCallbacks( slot ) ? busyCallbacks_[ at( slot ) ] : 0 );
   }
   return words;
}

void Play::_compare( const Picture& expected, char const* when, const Operation& op ) {
   if( failed_ ) {
      return;
   }
   const Picture found = _realPicture();
   for( std::size_t n = 0; n < found.size(); ++n ) {
      if( found[ n ] != expected[ n ] ) {
         _fail( fmt::format( "{} {}: {} is {:#x}, the model says {:#x}", when, textOf( op ),
                             wordText( n ), found[ n ], expected[ n ] ) );
         return;
      }
   }
}

bool isRatio( const model::Event& event ) {
   return std::string_view( event.what ).starts_with( "schedulerTestYieldRatio" );
}

// A new ratio of the root reaches the groups in any order, and their parent tasks may be forced and
// freed again on the way; what remains is in one order then.
void settleRatios( std::vector<model::Event>& events ) {
   const auto less = []( const model::Event& a, const model::Event& b ) { return a.whom < b.whom; };
   std::vector<model::Event> settled;
   for( auto event = events.begin(); event != events.end(); ) {
      settled.push_back( *event );
      if( !isRatio( *event++ ) ) {
         continue;
      }
      std::set<model::Event, decltype( less )> forced( less );
      for( ; event != events.end() && std::string_view( event->what ).starts_with( "frcYield" );
           ++event ) {
         const auto [ place, isNew ] = forced.insert( *event );
         if( !isNew ) {
            forced.erase( place );
         }
      }
      settled.insert( settled.end(), forced.begin(), forced.end() );
   }
   events = std::move( settled );
}

bool same( const model::Event& a, const model::Event& b ) {
   return a.when == b.when && a.whom == b.whom && std::string_view( a.what ) == b.what;
}

std::string linesOf( const std::vector<model::Event>& events ) {
   std::string text;
   for( const model::Event& e : events ) {
      text += fmt::format( "\n   {} {} {}", e.when, e.what, e.whom );
   }
   return text;
}

template<typename Value, typename Wanted>
void Play::_compareValue( char const* what, const std::string& whom, Value value, Wanted wanted ) {
   if( value != wanted ) {
      _fail( fmt::format( "{} of {}: {}, the model says {}", what, whom, value, wanted ) );
   }
}

void Play::_compareRecord( const std::string& whom, const TaskStat& s, const model::Counters& c,
                           std::int64_t firstRun, std::int64_t lastRun ) {
   const auto check = [ & ]( char const* what, auto value, auto wanted ) {
      _compareValue( what, whom, value, wanted );
   };
   check( "runs", s.taskRunCount(), c.runs );
   check( "run time", s.taskTotalRunTime().count(), c.totalRunTime );
   check( "longest run", s.taskRunTimeHighWaterMark().count(), c.longestRun );
   check( "first run", s.taskFirstRunTimestamp().time_since_epoch().count(), firstRun );
   check( "last run", s.taskLastRunTimestamp().time_since_epoch().count(), lastRun );
   check( "moderate violations", s.taskQuantumViolation200(), c.twoQuanta );
   check( "severe violations", s.taskQuantumViolation500(), c.fiveQuanta );
   check( "last wait", s.taskLastSchedulingLatency().count(), c.lastWait );
   check( "longest wait", s.taskSchedulingLatencyHighWaterMark().count(), c.longestWait );
   check( "work", s.taskWorkCountTotal(), c.work );
   check( "work average", s.taskWorkCountDecayAvg(), c.workAverage );
   check( "most work", s.taskWorkCountHighWaterMark(), c.mostWork );
   check( "work left", s.taskWorkPending(), c.workLeft );
   check( "most work left", s.taskWorkPendingHighWaterMark(), c.mostWorkLeft );
}

void Play::_compareStats( const model::Scheduler& expected, const TaskScheduler& found ) {
   for( const auto& [ priority, stats ] : found.queueStats() ) {
      const unsigned p = priority.value();
      const std::uint64_t runnable = expected.runnable( p );
      const TaskQueueStats wanted{ runnable, expected.registeredOf( p ) - runnable,
                                   expected.completed[ p ],
                                   expected.picked[ p ] - expected.pickedBeforeReset[ p ] };
      if( stats != wanted || found.runTaskCount( priority ) != expected.picked[ p ] ||
          found.tasksPerPriority( priority ) != expected.registeredOf( p ) ||
          found.completedTasksPerPriority( priority ) != expected.completed[ p ] ) {
         _fail( fmt::format(
               "{} {}: runnable {} idle {} completed {} total {} runs {}, the model says {} {} {} "
               "{} {}",
               expected.name, priority, stats.runnable, stats.idle, stats.completed, stats.total,
               found.runTaskCount( priority ), wanted.runnable, wanted.idle, wanted.completed,
               wanted.total, expected.picked[ p ] ) );
      }
   }
   if( found.maxRunGap().count() != expected.longestGap ) {
      _fail( fmt::format( "{}: longest gap {}, the model says {}", expected.name,
                          found.maxRunGap().count(), expected.longestGap ) );
   }
   BasicVector<TaskStat> stats;
   found.getTaskStats( stats, true );
   if( stats.size() != expected.registered.size() ) {
      _fail( fmt::format( "{}: {} tasks registered, the model says {}", expected.name, stats.size(),
                          expected.registered.size() ) );
      return;
   }
   for( std::size_t n = 0; n < stats.size(); ++n ) {
      const TaskStat& s = stats[ n ];
      const model::Task& t = *expected.registered[ n ];
      _compareValue( "name", t.name, std::string( std::string_view( s.taskName() ) ), t.name );
      _compareValue( "status", t.name, unsigned{ s.taskStatus().bits() }, t.status() );
      _compareRecord( t.name, s, t.counters, t.firstRun, t.runStart );
   }
   BasicVector<TaskStat> completed;
   found.getCompletedTaskStats( completed, true );
   std::set<std::string> seen;
   for( const TaskStat& s : completed ) {
      const std::string name( std::string_view( s.taskName() ) );
      const auto record = expected.completedByName.find( name );
      if( record == expected.completedByName.end() || !seen.insert( name ).second ) {
         _fail( fmt::format( "{}: a record of {}, which is gone", expected.name, name ) );
         return;
      }
      _compareValue( "count", "completed " + name, s.taskCompletedCount(), record->second.count );
      _compareRecord( "completed " + name, s, record->second.counters, record->second.firstRun,
                      record->second.lastRun );
   }
   if( seen.size() != expected.completedByName.size() ) {
      _fail( fmt::format( "{}: {} records of completed tasks, the model says {}", expected.name,
                          seen.size(), expected.completedByName.size() ) );
   }
}

// What the step has left in the history.
void Play::_compareHistory() {
   const TaskSchedulerHistory& found = ringOf( *root_ );
   std::vector<model::Event>& expected = model_.history;
   const bool ratios = std::any_of( expected.begin(), expected.end(), isRatio );
   if( ratios ) {
      events_ = found.size();
   } else {
      events_ += expected.size();
   }
   if( found.size() != std::min<std::uint64_t>( events_, historyCapacity ) ) {
      _fail( fmt::format( "history of {} events after {}", found.size(), events_ ) );
      return;
   }
   if( ratios && found.size() == historyCapacity ) {
      return; // what is missing may be one of a pair
   }
   std::vector<model::Event> events;
   for( auto age = ratios ? found.size()
                          : static_cast<std::uint32_t>(
                                  std::min<std::size_t>( expected.size(), historyCapacity ) );
        age > 0; --age ) {
      const TaskSchedulerHistory::Event& event = found.event( age - 1 );
      events.push_back( { event.timestamp().time_since_epoch().count(), event.eventTypeDisplay(),
                          std::string( std::string_view( event.eventIdentifier() ) ) } );
   }
   if( ratios ) {
      settleRatios( events );
      settleRatios( expected );
   } else {
      expected.erase( expected.begin(),
                      expected.end() - static_cast<std::ptrdiff_t>( events.size() ) );
   }
   if( !std::equal( events.begin(), events.end(), expected.begin(), expected.end(), same ) ) {
      _fail( "history:" + linesOf( events ) + "\nthe model says:" + linesOf( expected ) );
   }
}

// Between steps, when nothing runs.
void Play::_compareAll() {
   _compareHistory();
   int count = 0;
   for( model::Scheduler const* expected : schedulers_ ) {
      if( failed_ || !expected ) {
         continue;
      }
      ++count;
      const TaskScheduler& found = *_schedulerOf( expected->slot );
      if( !found.checkForTest() ) {
         _fail( fmt::format( "{}: checkForTest()", expected->name ) );
      }
      if( found.currentlyRunningTask() ) {
         _fail( fmt::format( "{}: something still runs", expected->name ) );
      }
      // Nothing runnable waits for ever, whatever the model thinks: each link of the chain from a
      // queue to the loop is there unless something on it is suspended.
      if( found.runnableTaskCount() > 0 && !found.suspended() &&
          !( expected->slot == 0
                   ? _callbackPending()
                   : static_cast<const TaskGroup&>( found ).parentTaskScheduled() ) ) {
         _fail( fmt::format( "{}: runnable tasks, and nobody asked for a run", expected->name ) );
      }
      // They take long, and stay until the next time but for what is reset.
      if( calm_ || ( steps_ + at( expected->slot ) ) % 4 == 0 ) {
         _compareStats( *expected, found );
      }
   }
   if( static_cast<int>( root_->taskGroupCount() ) != count - 1 ) {
      _fail( "number of groups" );
   }
   for( model::Task const* t : tasks_ ) {
      if( !failed_ && t && t->kind == Kind::timer ) {
         const TimerTask& timer = *real_[ at( t->slot ) ].timer;
         if( timer.timerRemaining() != model_.remaining( *t ) ||
             timer.currentExpirationTime() != ( t->queued ? model_.clock : t->expiry ) ) {
            _fail( fmt::format( "{}: remaining {}, due {}, the model says {}, {}", t->name,
                                timer.timerRemaining(), timer.currentExpirationTime(),
                                model_.remaining( *t ), t->expiry ) );
         }
      }
   }
}

// ------------------------------------------------------------------------------------------- steps

void Play::_perform( const Operation& op ) {
   lastOperations_.push_back( textOf( op ) );
   if( lastOperations_.size() > operationsShown ) {
      lastOperations_.pop_front();
   }
   script_.clear();
   model_.history.clear();
   position_ = 0;
   runs_ = 0;
   try {
      _record( op );
   } catch( const BodyThrew& ) {
      // The scheduler will let it out as well.
   }
   if( std::any_of( model_.history.begin(), model_.history.end(), isRatio ) ) {
      // How much of it there will be is open.
      root_->clearHistory();
   }
   try {
      _really( *_next() );
   } catch( const BodyThrew& ) {
   } catch( const std::exception& e ) {
      _fail( fmt::format( "{} fails: {}", textOf( op ), e.what() ) );
   }
   if( !failed_ && position_ != script_.size() ) {
      ++position_;
      _fail( "the last line of the script does not happen" );
   }
   if( !failed_ ) {
      _compareAll();
   }
}

bool Play::stepOnce() {
   if( steps_++ % 700 == 0 ) {
      _changeMood();
   }
   if( model_.root.suspended && _chance( 25 ) ) {
      _perform( { .what = Do::suspendScheduler, .scheduler = 0, .number = 0 } );
   } else {
      _perform( _chance( mood_.turnPercent ) ? _drawRun() : _draw( nullptr ) );
   }
   return !failed_;
}

bool Play::finish() {
   calm_ = true;
   _perform( { .what = Do::rootRatio, .number = 0 } );
   for( int slot = 0; slot < schedulerSlots; ++slot ) {
      if( schedulers_[ at( slot ) ] ) {
         _perform( { .what = Do::suspendScheduler, .scheduler = slot, .number = 0 } );
      }
   }
   _perform( { .what = Do::advanceClock, .seconds = 1e6 } );
   for( int turn = 0; turn < 1000 && !failed_; ++turn ) {
      _perform( { .what = Do::loopTurn } );
      if( !_callbackPending() ) {
         break;
      }
   }
   for( int slot = 0; slot < schedulerSlots && !failed_; ++slot ) {
      if( TaskScheduler const* scheduler = _schedulerOf( slot ) ) {
         if( scheduler->busy() || scheduler->runnableTaskCount() != 0 ) {
            _fail( fmt::format( "scheduler {} does not come to rest", slot ) );
         }
      }
   }
   for( int slot = 0; slot < taskSlots && !failed_; ++slot ) {
      if( tasks_[ at( slot ) ] ) {
         _perform( { .what = Do::dropTask, .task = slot } );
      }
   }
   for( int slot = 1; slot < schedulerSlots && !failed_; ++slot ) {
      if( schedulers_[ at( slot ) ] && ownsGroup_[ at( slot ) ] ) {
         _perform( { .what = Do::dropGroup, .scheduler = slot } );
      }
   }
   if( failed_ ) {
      return false;
   }
   const auto isGone = []( const auto& group ) { return group.expired(); };
   if( !std::all_of( groups_.begin(), groups_.end(), isGone ) || root_->taskGroupCount() != 0 ) {
      _fail( "a group outlives its tasks and its owner" );
   }
   const std::weak_ptr<TaskSchedulerRoot> root = root_;
   root_.reset();
   if( !root.expired() ) {
      _fail( "the root outlives its tasks, its groups and its owner" );
   }
   return !failed_;
}

void Play::show( std::ostream& out ) const {
   out << "step " << steps_ << ", the last operations from outside:";
   for( const std::string& text : lastOperations_ ) {
      out << "\n   " << text;
   }
   out << '\n';
}

} // namespace

std::unique_ptr<SchedulerPlay> SchedulerPlay::make( Draw draw ) {
   return std::make_unique<Play>( std::move( draw ) );
}

} // namespace testing_support
