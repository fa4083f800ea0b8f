// A naive model of schedulers, tasks, groups and timers, against which the real ones are compared.
//
// It knows the rules and nothing else: queues are plain vectors that are searched from the front,
// every count that can be counted anew is, and nothing is fast. What a body does is the caller's
// business: the model calls back for it, with its own state as of that moment, and the caller
// carries on from there. An exception that leaves a body passes through the model as it passes
// through the scheduler.
//
// Times are nanoseconds of the steady clock and seconds of the timers' clock; both stand still
// until the caller moves them.

#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace testing_support::model {

constexpr unsigned priorities = 6;
constexpr unsigned critical = 0;
constexpr unsigned high = 2;
constexpr unsigned normal = 3;
constexpr unsigned low = 4;
constexpr unsigned scavenge = 5;
constexpr std::int64_t ms = 1'000'000;
constexpr std::uint32_t unset = 0xFFFFFFFF;
constexpr double never = std::numeric_limits<double>::infinity();

enum class Kind { plain, timer, groupParent, statsReset };

struct Scheduler;

// The counters that a reset clears.
struct Counters {
   std::uint64_t runs = 0;
   std::int64_t totalRunTime = 0;
   std::int64_t longestRun = 0;
   unsigned twoQuanta = 0;
   unsigned fiveQuanta = 0;
   std::int64_t lastWait = 0;
   std::int64_t longestWait = 0;
   std::uint64_t work = 0;
   float workAverage = 0.0f;
   std::uint32_t mostWork = unset;
   std::uint32_t workLeft = 0;
   std::uint32_t mostWorkLeft = unset;
};

// What is kept of the tasks of one name that are gone.
struct Completed {
   std::uint64_t count = 0;
   Counters counters;
   // Of the one that went first.
   std::int64_t firstRun = 0;
   std::int64_t lastRun = 0;

   // Sums, maxima, and of momentary values the latest.
   void add( const Counters& more ) {
      ++count;
      const auto higher = []( std::uint32_t a, std::uint32_t b ) {
         return a == unset ? b : b == unset ? a : std::max( a, b );
      };
      counters.runs += more.runs;
      counters.totalRunTime += more.totalRunTime;
      counters.longestRun = std::max( counters.longestRun, more.longestRun );
      counters.twoQuanta += more.twoQuanta;
      counters.fiveQuanta += more.fiveQuanta;
      counters.lastWait = more.lastWait;
      counters.longestWait = std::max( counters.longestWait, more.longestWait );
      counters.work += more.work;
      counters.workAverage = more.workAverage;
      counters.mostWork = higher( counters.mostWork, more.mostWork );
      counters.workLeft = more.workLeft;
      counters.mostWorkLeft = higher( counters.mostWorkLeft, more.mostWorkLeft );
   }
};

struct Task {
   std::string name;
   Kind kind;
   Scheduler* scheduler;
   unsigned priority;
   // The caller's number for it.
   int slot = -1;
   // Of a group's parent task; null once the group is gone.
   Scheduler* group = nullptr;

   bool owned = true;
   int runsInProgress = 0;

   bool queued = false;
   std::int64_t queuedSince = 0;
   bool suspended = false;
   bool running = false;
   bool timing = false;
   double expiry = never;
   // Among timers of one time.
   std::uint64_t timerPlace = 0;
   // What its owner was told last, and how often it was told.
   bool toldBusy = false;
   unsigned busyCalls = 0;

   std::int64_t quantum = 0;
   unsigned ratio = 0;
   unsigned ratioInForce = 0;
   unsigned ratioCalls = 0;
   std::int64_t lastLookAtClock = 0;

   bool keptWhenGone = true;
   std::int64_t firstRun = 0;
   std::int64_t runStart = 0;
   Counters counters;

   bool scheduled() const { return queued || timing; }
   unsigned status() const;
};

struct Scheduler {
   std::string name;
   int slot = -1;
   // Null for the root, as is the task that runs it.
   Scheduler* parent = nullptr;
   Task* parentTask = nullptr;
   unsigned priority = 0;
   // The caller, members, groups inside, and runs under way.
   int references = 0;

   std::array<std::vector<Task*>, priorities> queue;
   std::array<std::vector<Task*>, priorities> snapshot;
   bool picksFromSnapshot = false;
   std::array<std::uint64_t, priorities> inARow{};
   std::array<std::uint64_t, priorities> picked{};
   std::array<std::uint64_t, priorities> pickedBeforeReset{};
   std::array<std::uint64_t, priorities> completed{};
   // Newest first.
   std::vector<Task*> registered;
   std::map<std::string, Completed> completedByName;

   bool hasWork = false;
   bool suspended = false;
   unsigned timers = 0;
   bool busy = false;
   unsigned busyChanges = 0;
   // Whether somebody is called for each of them.
   bool tellsBusy = false;
   bool multipleRuns = true;
   bool forceYield = false;
   std::set<Task*> forced;
   std::int64_t defaultQuantum = 20 * ms;
   std::int64_t lastRunEnd = 0;
   std::int64_t longestGap = 0;

   Task* resetTask = nullptr;
   bool resetting = false;
   std::vector<Task*> toReset;

   std::size_t runnable( unsigned priority_ ) const {
      return queue[ priority_ ].size() + snapshot[ priority_ ].size();
   }
   std::size_t runnable() const {
      std::size_t sum = 0;
      for( unsigned p = 0; p < priorities; ++p ) {
         sum += runnable( p );
      }
      return sum;
   }
   std::size_t registeredOf( unsigned priority_ ) const {
      return static_cast<std::size_t>(
            std::count_if( registered.begin(), registered.end(),
                           [ & ]( Task const* t ) { return t->priority == priority_; } ) );
   }
};

inline unsigned Task::status() const {
   bool under = false;
   for( Scheduler const* s = scheduler; s; s = s->parent ) {
      under = under || s->suspended;
   }
   return ( kind == Kind::timer ? 1u : 0u ) | ( timing ? 2u : 0u ) | ( queued ? 4u : 0u ) |
          ( running ? 8u : 0u ) | ( suspended ? 16u : 0u ) |
          ( kind == Kind::groupParent ? 32u : 0u ) | ( under ? 64u : 0u );
}

// What the history holds of something that happened.
struct Event {
   std::int64_t when;
   // As reports show it.
   char const* what;
   std::string whom;
};

// How often the rarer rules applied, so that a test can tell that it met them.
struct Tally {
   std::uint64_t waysGiven = 0;
   std::uint64_t snapshotRuns = 0;
   std::uint64_t throughSnapshot = 0;
   std::uint64_t criticalLetIn = 0;
   std::uint64_t resetSlices = 0;
   std::uint64_t tasksGoneInOwnRun = 0;
   std::uint64_t groupsGoneInOwnRun = 0;
   std::uint64_t expiredSuspended = 0;
   std::uint64_t deepestRun = 0;
};

class Model {
 public:
   Model( std::int64_t steadyNow, double clockNow ) : now( steadyNow ), clock( clockNow ) {
      root.name = "root";
      root.slot = 0;
      root.references = 1;
      root.lastRunEnd = now;
   }
   Model( const Model& ) = delete;
   Model& operator=( const Model& ) = delete;

   std::int64_t now;
   double clock;
   Scheduler root;
   // Whether the event loop will call the root.
   bool callbackPending = false;
   unsigned rootRatio = 0;
   bool runsCritical = false;
   Tally tally;
   // Oldest first. A new ratio of the root reaches the groups in any order.
   std::vector<Event> history;

   std::function<void( Task& )> onRun;
   std::function<void( Task& )> onBody;
   std::function<void( Task& )> onResetHook;
   std::function<void( Task& )> onTaskGone;
   std::function<void( Scheduler& )> onGroupGone;

   // ------------------------------------------------------------------------------ life

   Task& makeTask( Kind kind, Scheduler& s, unsigned priority, std::string name, int slot ) {
      tasks_.push_back( std::make_unique<Task>() );
      Task& t = *tasks_.back();
      t.kind = kind;
      t.scheduler = &s;
      t.priority = priority;
      t.name = std::move( name );
      t.slot = slot;
      t.quantum = s.defaultQuantum;
      if( kind != Kind::statsReset ) {
         ++s.references;
      }
      reconsiderRatio( t );
      s.registered.insert( s.registered.begin(), &t );
      _happens( "create", t );
      return t;
   }

   void dropTask( Task& t ) {
      t.owned = false;
      if( t.runsInProgress == 0 ) {
         _taskGoes( t );
      }
   }

   Scheduler& makeGroup( Scheduler& parent, unsigned priority, std::string name, int slot ) {
      groups_.push_back( std::make_unique<Scheduler>() );
      Scheduler& g = *groups_.back();
      g.name = std::move( name );
      g.slot = slot;
      g.parent = &parent;
      ++parent.references;
      g.priority = priority;
      g.references = 1;
      g.defaultQuantum = parent.defaultQuantum;
      g.lastRunEnd = now;
      g.parentTask = &makeTask( Kind::groupParent, parent, priority, "TaskGroup;" + g.name, -1 );
      g.parentTask->group = &g;
      return g;
   }

   void dropReference( Scheduler& s ) {
      if( --s.references == 0 && &s != &root ) {
         _groupGoes( s );
      }
   }

   // ------------------------------------------------------------------------ scheduling

   void schedule( Task& t ) {
      _enqueue( t );
      if( t.timing ) {
         _stopTiming( t );
         _tellBusy( t );
      }
   }

   void unschedule( Task& t ) {
      if( t.queued ) {
         _happens( "unschedule", t );
         _dequeue( t );
      }
      _tellBusy( t );
   }

   void suspend( Task& t, bool on ) {
      if( t.suspended == on ) {
         return;
      }
      t.suspended = on;
      _happens( on ? "suspendOn" : "suspendOff", t );
      if( on ) {
         unschedule( t );
      } else if( !t.scheduled() ) {
         _enqueue( t );
      }
   }

   void suspendGroup( Scheduler& g, bool on ) {
      if( g.suspended != on ) {
         suspend( *g.parentTask, on );
         g.suspended = on;
      }
   }

   void suspendRoot( bool on ) {
      if( root.suspended == on ) {
         return;
      }
      root.suspended = on;
      _happens( on ? "schedulerSuspended" : "schedulerUnsuspended", root );
      if( !on ) {
         root.lastRunEnd = now;
         _request( root );
      }
   }

   // ---------------------------------------------------------------------------- timers

   void startTimer( Task& t, double delay, bool onlyEarlier ) {
      if( delay == 0.0 ) {
         schedule( t );
         return;
      }
      if( delay == never ) {
         stopTimer( t );
         return;
      }
      if( onlyEarlier && ( t.queued || ( t.timing && delay >= remaining( t ) ) ) ) {
         return;
      }
      if( t.queued ) {
         _happens( "unschedule", t );
         _dequeue( t );
      }
      // A start for the time that it has anyway keeps its place.
      const double expiry = clock + delay;
      if( !t.timing || expiry != t.expiry ) {
         t.timerPlace = ++timerPlaces_;
      }
      t.expiry = expiry;
      if( !t.timing ) {
         t.timing = true;
         _countTimer( *t.scheduler, true );
      }
      _happens( "timerStart", t );
      _tellBusy( t );
   }

   void stopTimer( Task& t ) {
      if( t.timing ) {
         _happens( "timerStop", t );
         _stopTiming( t );
      }
      unschedule( t );
   }

   double remaining( const Task& t ) const {
      return t.timing ? std::max( 0.0, t.expiry - clock ) : never;
   }

   // A whole number of hundredths, from 0 to 100.
   unsigned jitterStep() { return static_cast<unsigned>( rand_r( &jitterSeed_ ) ) / 21474836; }

   void deliverTimers() {
      for( ;; ) {
         Task* due = nullptr;
         for( const auto& t : tasks_ ) {
            if( t->timing && t->expiry <= clock &&
                ( !due || std::tie( t->expiry, t->timerPlace ) <
                                std::tie( due->expiry, due->timerPlace ) ) ) {
               due = t.get();
            }
         }
         if( !due ) {
            return;
         }
         tally.expiredSuspended += due->suspended ? 1 : 0;
         _enqueue( *due );
         _stopTiming( *due );
         _tellBusy( *due );
      }
   }

   // --------------------------------------------------------------------- forced yields

   void ratioIs( Task& t, unsigned ratio ) {
      if( t.ratio != ratio ) {
         if( ( t.ratio != 0 ) != ( ratio != 0 ) ) {
            _happens( ratio != 0 ? "frcYieldOn" : "frcYieldOff", t );
         }
         t.ratio = ratio;
         reconsiderRatio( t );
      }
   }

   void rootRatioIs( unsigned ratio ) {
      if( rootRatio == ratio ) {
         return;
      }
      rootRatio = ratio;
      _happens( ratio != 0 ? "schedulerTestYieldRatioOn" : "schedulerTestYieldRatioOff", root );
      for( const auto& t : tasks_ ) {
         reconsiderRatio( *t );
      }
   }

   void reconsiderRatio( Task& t ) {
      const unsigned wanted = t.ratio != 0 ? t.ratio : rootRatio;
      const unsigned before = t.ratioInForce;
      if( wanted != before ) {
         t.ratioInForce = wanted;
         t.ratioCalls = 0;
      }
      if( ( wanted != 0 ) != ( before != 0 ) ) {
         _forced( *t.scheduler, t, wanted != 0 );
      }
   }

   void groupForceYieldIs( Scheduler& g, bool on ) {
      if( g.forceYield == on ) {
         return;
      }
      g.forceYield = on;
      _forced( *g.parent, *g.parentTask, on );
      if( !on && g.parentTask->ratioInForce != 0 ) {
         _forced( *g.parent, *g.parentTask, true );
      }
   }

   bool shouldYield( Task& t ) {
      if( t.scheduler->suspended ) {
         return true;
      }
      if( t.ratioInForce != 0 ) {
         t.ratioCalls = ( t.ratioCalls + 1 ) % 256;
         return t.ratioCalls % t.ratioInForce == 0;
      }
      if( now >= t.lastLookAtClock && now < t.lastLookAtClock + ms / 2 ) {
         return false;
      }
      const bool over = now - t.runStart >= t.quantum;
      t.lastLookAtClock = over ? 0 : now;
      return over;
   }

   // ------------------------------------------------------------------------ statistics

   static void workDone( Task& t, std::uint64_t units ) {
      Counters& c = t.counters;
      c.work += units;
      const bool first = c.mostWork == unset;
      c.workAverage = first ? static_cast<float>( units )
                            : ( 9.0f * c.workAverage + static_cast<float>( units ) ) / 10.0f;
      c.mostWork = first ? static_cast<std::uint32_t>( units )
                         : std::max( c.mostWork, static_cast<std::uint32_t>( units ) );
   }

   static void workLeft( Task& t, std::uint32_t units ) {
      Counters& c = t.counters;
      c.workLeft = units;
      c.mostWorkLeft = c.mostWorkLeft == unset ? units : std::max( c.mostWorkLeft, units );
   }

   void resetStats( Scheduler& s ) {
      if( !s.resetTask ) {
         s.resetTask = &makeTask( Kind::statsReset, s, s.parent ? s.priority : normal,
                                  s.name + ";ResetStats", -1 );
      }
      _enqueue( *s.resetTask );
      s.resetting = true;
      s.toReset = s.registered;
   }

   static void clearStats( Scheduler& s ) {
      s.pickedBeforeReset = s.picked;
      s.longestGap = 0;
      s.completed = {};
      s.completedByName.clear();
   }

   // ------------------------------------------------------------------------------ runs

   // What the event loop does when it calls the root.
   void loopTurn() {
      if( callbackPending ) {
         callbackPending = false;
         step( root, scavenge );
      }
   }

   bool step( Scheduler& s, unsigned maxPriority ) {
      s.longestGap = std::max( s.longestGap, now - s.lastRunEnd );
      if( root.suspended ) {
         _happens( "schedulerRunIgnoredWhileSuspended", s );
         return false;
      }
      Task* t = _pick( s, critical, maxPriority );
      if( !t ) {
         if( maxPriority == scavenge ) {
            _workIs( s, false );
         }
         return false;
      }
      try {
         s.lastRunEnd = _run( *t );
      } catch( ... ) {
         s.lastRunEnd = now;
         _request( s );
         throw;
      }
      _request( s );
      return true;
   }

   // The step of a scheduler that somebody else calls.
   bool heldStep( Scheduler& s, unsigned maxPriority ) {
      return _holding( s, [ & ] { return step( s, maxPriority ); } );
   }

   void runCriticalTasks() {
      _happens( "schedulerRunCriticalStart", root );
      deliverTimers();
      while( step( root, critical ) && !root.suspended ) {
      }
      _happens( "schedulerRunCriticalEnd", root );
   }

   // A run outside the loop; with `record`, one that the scheduler takes note of.
   void runFromTest( Task& t, bool record ) {
      Scheduler& s = *t.scheduler;
      ++t.runsInProgress;
      try {
         _holding( s, [ & ] {
            if( t.timing && !record ) {
               _stopTiming( t );
            }
            if( t.queued ) {
               unschedule( t );
            }
            if( record ) {
               s.longestGap = std::max( s.longestGap, now - s.lastRunEnd );
            }
            const std::int64_t end = _run( t );
            if( record ) {
               s.lastRunEnd = end;
            }
            return true;
         } );
      } catch( ... ) {
         _runEnds( t );
         throw;
      }
      _runEnds( t );
   }

 private:
   [[noreturn]] static void _impossible( char const* what ) { throw std::logic_error( what ); }

   void _happens( char const* what, const Task& t ) {
      history.push_back( { now, what, std::string{ "CAHNLS"[ t.priority ], ' ' } + t.name } );
   }
   void _happens( char const* what, const Scheduler& s ) {
      history.push_back( { now, what, s.name } );
   }

   template<typename Call>
   bool _holding( Scheduler& s, Call call ) {
      ++s.references;
      bool result = false;
      try {
         result = call();
      } catch( ... ) {
         dropReference( s );
         throw;
      }
      dropReference( s );
      return result;
   }

   void _taskGoes( Task& t ) {
      Scheduler& s = *t.scheduler;
      if( t.kind == Kind::timer ) {
         stopTimer( t );
      }
      ratioIs( t, 0 );
      if( t.ratioInForce != 0 ) {
         t.ratioInForce = 0;
         _forced( s, t, false );
      }
      unschedule( t );
      if( t.keptWhenGone ) {
         ++s.completed[ t.priority ];
         Completed& record = s.completedByName[ t.name ];
         if( record.count == 0 ) {
            record.firstRun = t.firstRun;
            record.lastRun = t.runStart;
         }
         record.add( t.counters );
      }
      std::erase( s.registered, &t );
      std::erase( s.toReset, &t );
      _happens( "delete", t );
      onTaskGone( t );
      const bool referred = t.kind != Kind::statsReset;
      std::erase_if( tasks_, [ & ]( const auto& owner ) { return owner.get() == &t; } );
      if( referred ) {
         dropReference( s );
      }
   }

   void _groupGoes( Scheduler& g ) {
      g.parentTask->group = nullptr;
      g.resetting = false;
      if( g.resetTask ) {
         _taskGoes( *std::exchange( g.resetTask, nullptr ) );
      }
      if( !g.registered.empty() || g.timers != 0 ) {
         _impossible( "a group went before its members" );
      }
      Scheduler& parent = *g.parent;
      if( g.forceYield ) {
         _forced( parent, *g.parentTask, false );
      }
      onGroupGone( g );
      Task& parentTask = *g.parentTask;
      std::erase_if( groups_, [ & ]( const auto& owner ) { return owner.get() == &g; } );
      dropTask( parentTask );
      dropReference( parent );
   }

   void _enqueue( Task& t ) {
      if( t.queued ) {
         return;
      }
      if( t.suspended ) {
         _happens( "scheduleSus", t );
         return;
      }
      _happens( "schedule", t );
      t.queued = true;
      t.queuedSince = now;
      t.scheduler->queue[ t.priority ].push_back( &t );
      _workIs( *t.scheduler, true );
      _tellBusy( t );
   }

   void _dequeue( Task& t ) {
      std::erase( t.scheduler->queue[ t.priority ], &t );
      std::erase( t.scheduler->snapshot[ t.priority ], &t );
      t.queued = false;
      t.counters.lastWait = now - t.queuedSince;
      t.counters.longestWait = std::max( t.counters.longestWait, t.counters.lastWait );
   }

   void _tellBusy( Task& t ) {
      if( t.scheduled() != t.toldBusy ) {
         t.toldBusy = !t.toldBusy;
         _happens( t.toldBusy ? "busy" : "idle", t );
         ++t.busyCalls;
      }
   }

   void _request( Scheduler& s ) {
      if( s.parentTask ) {
         _enqueue( *s.parentTask );
      } else if( !s.suspended ) {
         callbackPending = true;
      }
   }

   void _workIs( Scheduler& s, bool work ) {
      if( s.hasWork == work ) {
         return;
      }
      s.hasWork = work;
      _happens( work ? "schedulerHasRunnableTasks" : "schedulerHasNoRunnableTasks", s );
      if( work ) {
         s.lastRunEnd = now;
         _request( s );
      }
      _updateBusy( s );
   }

   void _updateBusy( Scheduler& s ) {
      const bool busy = s.hasWork || s.timers > 0;
      if( busy != s.busy ) {
         s.busy = busy;
         _happens( busy ? "schedulerBusy" : "schedulerIdle", s );
         ++s.busyChanges;
      }
   }

   // A group with timers counts as one timer of its parent, which whoever is told of the group's
   // first finds counted.
   void _countTimer( Scheduler& s, bool more ) {
      if( !more && s.timers == 0 ) {
         _impossible( "fewer timers than none" );
      }
      const bool had = s.timers > 0;
      s.timers = more ? s.timers + 1 : s.timers - 1;
      if( had != ( s.timers > 0 ) ) {
         const bool parentFirst = more && s.tellsBusy;
         if( !parentFirst ) {
            _updateBusy( s );
         }
         if( s.parent ) {
            _countTimer( *s.parent, more );
         }
         if( parentFirst ) {
            _updateBusy( s );
         }
      }
   }

   void _stopTiming( Task& t ) {
      t.timing = false;
      t.expiry = never;
      _countTimer( *t.scheduler, false );
   }

   // A group with a member that is forced to yield has its parent task yield each time.
   void _forced( Scheduler& s, Task& t, bool on ) {
      const bool had = !s.forced.empty();
      if( on ) {
         s.forced.insert( &t );
      } else {
         s.forced.erase( &t );
      }
      if( had == !s.forced.empty() || !s.parentTask ) {
         return;
      }
      ratioIs( *s.parentTask, had ? 0 : 1 );
      if( s.forceYield ) {
         _forced( *s.parent, *s.parentTask, true );
      }
   }

   static std::uint64_t _weight( unsigned priority ) {
      return priority == high ? 64 : priority == normal ? 8 : priority == low ? 1 : 0;
   }

   static bool _givesWay( const Scheduler& s, unsigned priority ) {
      if( priority != high && priority != normal ) {
         return false;
      }
      std::uint64_t below = 0;
      for( unsigned p = priority + 1; p <= low; ++p ) {
         below += s.runnable( p ) * _weight( p );
      }
      return s.inARow[ priority ] * below > s.runnable( priority ) * _weight( priority ) &&
             below > 0;
   }

   Task* _pick( Scheduler& s, unsigned from, unsigned to ) {
      for( unsigned p = from; p <= to; ++p ) {
         const std::vector<Task*>& queue = s.picksFromSnapshot ? s.snapshot[ p ] : s.queue[ p ];
         if( queue.empty() ) {
            s.inARow[ p ] = 0;
            continue;
         }
         if( _givesWay( s, p ) ) {
            if( Task* lower = _pick( s, p + 1, to ) ) {
               ++tally.waysGiven;
               s.inARow[ p ] = 0;
               return lower;
            }
         }
         Task* t = queue.front();
         ++s.inARow[ p ];
         ++s.picked[ p ];
         _dequeue( *t );
         return t;
      }
      return nullptr;
   }

   std::int64_t _run( Task& t ) {
      const std::int64_t start = now;
      _happens( "run start", t );
      ++t.runsInProgress;
      ++depth_;
      tally.deepestRun = std::max( tally.deepestRun, depth_ );
      onRun( t );
      t.runStart = start;
      t.firstRun = t.firstRun == 0 ? start : t.firstRun;
      ++t.counters.runs;
      t.running = true;
      const bool outerCritical = runsCritical;
      runsCritical = runsCritical || t.priority == critical;
      try {
         switch( t.kind ) {
         case Kind::groupParent:
            _runGroup( t );
            break;
         case Kind::statsReset:
            _resetWalk( t );
            break;
         case Kind::plain:
         case Kind::timer:
            onBody( t );
         }
      } catch( ... ) {
         runsCritical = outerCritical;
         t.running = false;
         --depth_;
         _runEnds( t );
         throw;
      }
      runsCritical = outerCritical;
      t.running = false;
      --depth_;
      const std::int64_t end = now;
      const std::int64_t used = end - start;
      t.counters.totalRunTime += used;
      t.counters.longestRun = std::max( t.counters.longestRun, used );
      if( used >= 5 * t.quantum ) {
         ++t.counters.fiveQuanta;
      } else if( used >= 2 * t.quantum ) {
         ++t.counters.twoQuanta;
      }
      _happens( "run end", t );
      _tellBusy( t );
      _runEnds( t );
      return end;
   }

   void _runEnds( Task& t ) {
      if( --t.runsInProgress == 0 && !t.owned ) {
         ++( t.kind == Kind::groupParent ? tally.groupsGoneInOwnRun : tally.tasksGoneInOwnRun );
         _taskGoes( t );
      }
   }

   void _runGroup( Task& t ) {
      if( t.group ) {
         Scheduler& g = *t.group;
         _holding( g, [ & ] {
            _runMembers( t, g );
            return true;
         } );
      }
   }

   void _runMembers( Task& t, Scheduler& g ) {
      const bool multipleRuns = g.multipleRuns;
      if( !multipleRuns ) {
         g.snapshot.swap( g.queue );
         g.picksFromSnapshot = true;
         ++tally.snapshotRuns;
         if( g.queue != decltype( g.queue ){} ) {
            _impossible( "a snapshot was left over" );
         }
      }
      const auto putBack = [ & ] {
         for( unsigned p = 0; p < priorities && !multipleRuns; ++p ) {
            g.queue[ p ].insert( g.queue[ p ].begin(), g.snapshot[ p ].begin(),
                                 g.snapshot[ p ].end() );
            g.snapshot[ p ].clear();
         }
         g.picksFromSnapshot = false;
      };
      std::uint64_t ran = 0;
      try {
         const bool letsCriticalIn = t.quantum > 20 * ms;
         std::int64_t deadline = now + 20 * ms;
         while( g.hasWork && !g.suspended && step( g, scavenge ) ) {
            ++ran;
            if( shouldYield( t ) ) {
               break;
            }
            if( letsCriticalIn && now > deadline ) {
               ++tally.criticalLetIn;
               runCriticalTasks();
               deadline = now + 10 * ms;
            }
         }
      } catch( ... ) {
         tally.throughSnapshot += multipleRuns ? 0 : 1;
         putBack();
         throw;
      }
      putBack();
      workDone( t, ran );
      workLeft( t, static_cast<std::uint32_t>( g.runnable() ) );
      if( t.suspended ) {
         return;
      }
      if( g.runnable() == 0 ) {
         _workIs( g, false );
         if( t.queued ) {
            unschedule( t );
         }
      } else if( !multipleRuns || ran == 0 ) {
         _enqueue( t );
         _workIs( g, true );
      } else if( !t.queued || !g.hasWork ) {
         _impossible( "a group with runnable members rests" );
      }
   }

   void _resetWalk( Task& t ) {
      Scheduler& s = *t.scheduler;
      if( !s.resetting ) {
         return;
      }
      std::uint64_t cleared = 0;
      while( !s.toReset.empty() ) {
         if( cleared > 0 && shouldYield( t ) ) {
            ++tally.resetSlices;
            workDone( t, cleared );
            _enqueue( t );
            return;
         }
         Task& next = *s.toReset.front();
         s.toReset.erase( s.toReset.begin() );
         next.counters = Counters();
         next.firstRun = next.running ? next.runStart : 0;
         next.runStart = next.firstRun;
         ++cleared;
         if( next.kind == Kind::plain || next.kind == Kind::timer ) {
            try {
               onResetHook( next );
            } catch( ... ) {
               _enqueue( t );
               throw;
            }
         }
      }
      workDone( t, cleared );
      s.resetting = false;
      clearStats( s );
   }

   std::vector<std::unique_ptr<Task>> tasks_;
   std::vector<std::unique_ptr<Scheduler>> groups_;
   unsigned jitterSeed_ = 0;
   std::uint64_t depth_ = 0;
   std::uint64_t timerPlaces_ = 0;
};

} // namespace testing_support::model
