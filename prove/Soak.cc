// Thirty days of an agent's life in virtual time: timers of seconds to hours, bursts of tasks that
// go when they have run, groups, descriptor tasks on pipes, connections that come and hang up,
// resets of the statistics, reports with and without a filter. Once a day everything that counts is
// compared with a model that follows from the calendar, and the memory in use with that of the day
// before.

#include "prove/Row.h"

#include "support/AllocationCount.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/TimerWheelCpp.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using testing_support::liveBytes;

constexpr double hour = 3600.0;
constexpr double day = 24 * hour;
// When the books are compared: away from all that is not there every minute.
constexpr double timeOfDay = 1000.9;
// In these everything has happened that happens.
constexpr std::uint64_t warmUpDays = 2;
constexpr double realSecondsMax = 60.0;
// What an expiry may lose by rounding.
constexpr double rounding = 1e-5;
constexpr unsigned burstSize = 40;
constexpr unsigned memberRuns = 3;
constexpr unsigned bytesSent = 100;
constexpr char const* workerNames[] = { "worker a", "worker b whose name does not fit in place",
                                        "worker c" };

class Fault : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

template<typename Value, typename Wanted>
void same( const std::string& what, const Value& value, const Wanted& wanted ) {
   if( value != wanted ) {
      throw Fault( fmt::format( "{}: {}, the model says {}", what, value, wanted ) );
   }
}

// Runs at fixed times: so many seconds apart, counted from the start.
class Periodic final : public TimerTask {
 public:
   Periodic( std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string itsName,
             double start, double itsPeriod, std::function<void()> act )
         : TimerTask( std::move( scheduler ), priority, String( itsName ) ),
           name( std::move( itsName ) ),
           period( itsPeriod ),
           start_( start ),
           act_( std::move( act ) ) {
      scheduleTaskDelay( _due( 1 ) - Quarn::time() );
   }

   std::uint64_t dueBy( double now ) const {
      return static_cast<std::uint64_t>( std::max( 0.0, std::floor( ( now - start_ ) / period ) ) );
   }

   const std::string name;
   const double period;
   std::uint64_t runs = 0;
   std::uint64_t runsSinceReset = 0;

 private:
   double _due( std::uint64_t n ) const { return start_ + static_cast<double>( n ) * period; }
   void handleResetStats() override {
      TimerTask::handleResetStats();
      runsSinceReset = 0;
   }
   void taskExecute() override {
      ++runs;
      ++runsSinceReset;
      if( Quarn::time() < _due( runs ) - rounding ) {
         throw Fault( name + " runs early" );
      }
      taskWorkCountInc( 2 );
      act_();
      // Missed times are made up for.
      scheduleTaskDelay( _due( runs + 1 ) - Quarn::time() );
   }

   double start_;
   std::function<void()> act_;
};

class Member final : public Task {
 public:
   Member( std::shared_ptr<TaskScheduler> group, String name )
         : Task( std::move( group ), TaskPriority::normal, std::move( name ) ) {}

   void burst() {
      left_ += memberRuns;
      scheduleTask();
   }
   std::uint64_t runs = 0;
   std::uint64_t runsSinceReset = 0;

 private:
   void handleResetStats() override { runsSinceReset = 0; }
   void taskExecute() override {
      ++runs;
      ++runsSinceReset;
      if( --left_ > 0 ) {
         scheduleTask();
      }
   }
   unsigned left_ = 0;
};

// A pipe of which this reads one end; the other is the maker's to write to and to close. When it is
// closed, `ended` is called and may destroy this.
class PipeReader final : public FileDescriptorTask {
 public:
   PipeReader( std::shared_ptr<TaskScheduler> scheduler, String name, std::function<void()> ended )
         : FileDescriptorTask( std::move( scheduler ), TaskPriority::normal, std::move( name ) ),
           ended_( std::move( ended ) ) {
      int ends[ 2 ];
      if( pipe2( ends, O_CLOEXEC | O_NONBLOCK ) != 0 ) {
         throw Fault( "no pipe" );
      }
      readEnd_ = ends[ 0 ];
      writeEnd = ends[ 1 ];
      taskWatchFdIs( readEnd_ );
   }
   ~PipeReader() override {
      taskWatchFdDel();
      close( readEnd_ );
      if( writeEnd >= 0 ) {
         close( writeEnd );
      }
   }

   int writeEnd = -1;
   std::string* text = nullptr;
   std::uint64_t bytes = 0;

 private:
   void taskExecuteReadable() override {
      char buffer[ 4096 ];
      ssize_t size;
      while( ( size = read( readEnd_, buffer, sizeof( buffer ) ) ) > 0 ) {
         bytes += static_cast<std::uint64_t>( size );
         if( text ) {
            text->append( buffer, static_cast<std::size_t>( size ) );
         }
      }
      if( size == 0 ) {
         taskWatchFdDel();
         const std::function<void()> ended = ended_;
         ended();
      }
   }
   void taskExecuteWritable() override {}

   std::function<void()> ended_;
   int readEnd_ = -1;
};

class Agent {
 public:
   Agent( Testing::VirtualTimeLoop& loop, std::uint64_t seed );
   ~Agent();

   void runTo( double sinceStart );
   // Everything against the model.
   void compare();
   std::uint64_t runs() const;
   std::uint64_t reports() const { return reports_; }

 private:
   class Worker;
   struct Completed {
      std::uint64_t count = 0;
      std::uint64_t runs = 0;
   };

   void _periodics( unsigned count, double period, char const* name );
   Periodic& _periodic( double period, std::string name, std::function<void()> act,
                        TaskPriority priority = TaskPriority::normal );
   void _burst();
   void _send();
   void _connection();
   void _groupForAWhile();
   void _reset();
   void _resetSeen();
   void _report();
   void _reportLater();
   std::uint64_t _runsInJson( const std::string& json, const std::string& name ) const;
   bool _anyDueBetween( double from, double to ) const;
   void _fillSpareBuckets();

   Testing::VirtualTimeLoop& loop_;
   const std::shared_ptr<TaskSchedulerRoot>& root_ = loop_.root();
   std::mt19937_64 random_;
   const double start_ = Quarn::time();
   std::vector<std::shared_ptr<Periodic>> periodics_;
   std::map<Worker*, std::shared_ptr<Worker>> workers_;
   std::map<std::string, Completed> completed_;
   bool resetPending_ = false;
   std::uint64_t bursts_ = 0;
   std::uint64_t workersRun_ = 0;
   // One whose statistics stay, and one whose are reset.
   std::shared_ptr<TaskGroup> groups_[ 2 ];
   std::vector<std::shared_ptr<Member>> members_[ 2 ];
   std::shared_ptr<TaskGroup> groupForAWhile_;
   std::shared_ptr<Member> memberForAWhile_;
   std::uint64_t membersForAWhile_ = 0;
   std::shared_ptr<PipeReader> reader_;
   std::uint64_t sends_ = 0;
   std::shared_ptr<PipeReader> connection_;
   std::uint64_t connections_ = 0;
   std::uint64_t hangUps_ = 0;
   std::shared_ptr<PipeReader> reportReader_;
   std::string reportText_;
   std::uint64_t reportsLater_ = 0;
   std::uint64_t reportsWritten_ = 0;
   std::uint64_t reports_ = 0;
};

// Runs once and goes, in its own run.
class Agent::Worker final : public Task {
 public:
   Worker( Agent& agent, TaskPriority priority, char const* name )
         : Task( agent.root_, priority, name ),
           agent_( agent ) {}
   ~Worker() override {
      agent_._resetSeen();
      Completed& completed = agent_.completed_[ taskName().stdString() ];
      ++completed.count;
      completed.runs += taskRunCount();
   }

 private:
   void taskExecute() override {
      ++agent_.workersRun_;
      agent_.workers_.erase( this );
   }
   Agent& agent_;
};

Agent::Agent( Testing::VirtualTimeLoop& loop, std::uint64_t seed )
      : loop_( loop ),
        random_( seed ) {
   _fillSpareBuckets();
   for( int n = 0; n < 2; ++n ) {
      groups_[ n ] = TaskGroup::TaskGroupIs( String( fmt::format( "group {}", n ) ),
                                             TaskPriority::normal, false, root_ );
      for( int m = 0; m < 5; ++m ) {
         members_[ n ].push_back( std::make_shared<Member>(
               groups_[ n ], String( fmt::format( "member {} of group {}", m, n ) ) ) );
      }
   }
   reader_ = std::make_shared<PipeReader>( root_, "reader of what is sent", [] {} );
   _periodics( 1, 5.0, "beat" );
   _periodics( 3, 10.0, "poll" );
   _periodics( 16, 60.0, "sample" );
   _periodics( 8, 900.0, "walk" );
   _periodics( 4, 4 * hour, "tidy" );
   _periodic(
         300.0, "burst", [ this ] { _burst(); }, TaskPriority::high );
   _periodic( 30.0, "send", [ this ] { _send(); } );
   _periodic( hour, "connection", [ this ] { _connection(); } );
   _periodic( 2 * hour, "group for a while", [ this ] { _groupForAWhile(); } );
   _periodic(
         6 * hour, "reset", [ this ] { _reset(); }, TaskPriority::low );
   _periodic( hour, "report", [ this ] { _report(); } );
   _periodic( 3 * hour, "report later", [ this ] { _reportLater(); } );
}

Agent::~Agent() {
   periodics_.clear();
   workers_.clear();
}

// The wheel keeps the nodes of as many expiries as were ever due together, up to a limit; how many
// meet depends on how busy the machine is. All at once, they stay as many from here on.
void Agent::_fillSpareBuckets() {
   struct Event final : TimerWheelEvent {
      void timeout() override {}
   };
   std::vector<Event> events( 1000 );
   for( std::size_t n = 0; n < events.size(); ++n ) {
      root_->timerWheelForTest()->timerStart( &events[ n ], 1e-6 * static_cast<double>( n + 1 ) );
   }
   loop_.advance( 1.0 );
}

Periodic& Agent::_periodic( double period, std::string name, std::function<void()> act,
                            TaskPriority priority ) {
   // Before the books of a second are compared.
   const double phase = static_cast<double>( random_() % 32 ) / 64;
   periodics_.push_back( std::make_shared<Periodic>( root_, priority, std::move( name ),
                                                     start_ + phase, period, std::move( act ) ) );
   return *periodics_.back();
}

void Agent::_periodics( unsigned count, double period, char const* name ) {
   for( unsigned n = 0; n < count; ++n ) {
      _periodic(
            period, fmt::format( "{} {}", name, n ), [] {},
            TaskPriority( static_cast<std::uint8_t>( 1 + random_() % 5 ) ) );
   }
}

void Agent::_burst() {
   ++bursts_;
   for( unsigned n = 0; n < burstSize; ++n ) {
      const TaskPriority priority( static_cast<std::uint8_t>( 1 + n % 5 ) );
      const auto worker = std::make_shared<Worker>( *this, priority,
                                                    workerNames[ n % std::size( workerNames ) ] );
      workers_[ worker.get() ] = worker;
      worker->scheduleTask();
   }
   for( auto& members : members_ ) {
      for( const auto& member : members ) {
         member->burst();
      }
   }
}

void Agent::_send() {
   ++sends_;
   const std::string text( bytesSent, 'x' );
   if( write( reader_->writeEnd, text.data(), text.size() ) != bytesSent ) {
      throw Fault( "the pipe takes no more" );
   }
}

// Somebody connects, says something and hangs up.
void Agent::_connection() {
   ++connections_;
   connection_ = std::make_shared<PipeReader>( root_, "connection", [ this ] {
      ++hangUps_;
      same( "bytes of a connection", connection_->bytes, 5u );
      connection_.reset();
   } );
   if( write( connection_->writeEnd, "hello", 5 ) != 5 ) {
      throw Fault( "the connection takes nothing" );
   }
   close( std::exchange( connection_->writeEnd, -1 ) );
}

void Agent::_groupForAWhile() {
   if( memberForAWhile_ ) {
      same( "runs of a member for a while", memberForAWhile_->runs, memberRuns );
   }
   memberForAWhile_.reset();
   groupForAWhile_ =
         TaskGroup::TaskGroupIs( "group for a while", TaskPriority::normal, false, groups_[ 0 ] );
   memberForAWhile_ = std::make_shared<Member>( groupForAWhile_, "member for a while" );
   memberForAWhile_->burst();
   ++membersForAWhile_;
}

void Agent::_reset() {
   _resetSeen();
   root_->resetStats();
   resetPending_ = true;
   groups_[ 1 ]->resetStats();
}

// A reset forgets what has completed at its end.
void Agent::_resetSeen() {
   if( resetPending_ && !root_->TaskScheduler::resetStatsInProgress() ) {
      resetPending_ = false;
      completed_.clear();
   }
}

std::uint64_t Agent::_runsInJson( const std::string& json, const std::string& name ) const {
   const std::size_t entry = json.find( fmt::format( "\"name\":\"{}\"", name ) );
   constexpr std::string_view key = "\"runCount\":";
   const std::size_t value = entry == std::string::npos ? entry : json.find( key, entry );
   if( value == std::string::npos ) {
      throw Fault( "the report does not show " + name );
   }
   return std::strtoull( json.c_str() + value + key.size(), nullptr, 10 );
}

void Agent::_report() {
   ++reports_;
   const std::string all = root_->statsRenderJsonToString( true, true, true ).stdString();
   for( const auto& periodic : periodics_ ) {
      same( "runs in the report of " + periodic->name, _runsInJson( all, periodic->name ),
            periodic->runsSinceReset );
   }
   const std::string some =
         root_->statsRenderJsonToString( true, false, false, "^sample [0-4]$" ).stdString();
   std::size_t shown = 0;
   for( std::size_t at = 0; ( at = some.find( "\"name\":\"", at ) ) != std::string::npos; ++at ) {
      ++shown;
   }
   same( "tasks that the filter lets pass", shown, 5u );
   std::ostringstream text;
   root_->statsRenderTextForDebug( text );
   root_->historyRenderTextForDebug( text );
   for( const auto& periodic : periodics_ ) {
      if( periodic->runsSinceReset > 0 && text.str().find( periodic->name ) == std::string::npos ) {
         throw Fault( "the text does not show " + periodic->name );
      }
   }
}

// The same document without blocking, through a pipe that a task reads.
void Agent::_reportLater() {
   ++reportsLater_;
   const auto snapshot = root_->snapshot( {}, true, true, true, {}, 0 );
   reportText_.clear();
   reportReader_ = std::make_shared<PipeReader>( root_, "reader of the report", [ this ] {
      ++reportsWritten_;
      for( const auto& periodic : periodics_ ) {
         (void)_runsInJson( reportText_, periodic->name );
      }
      std::string().swap( reportText_ );
      reportReader_.reset();
   } );
   reportReader_->text = &reportText_;
   root_->snapshotRenderJsonAsync( std::exchange( reportReader_->writeEnd, -1 ), snapshot );
}

bool Agent::_anyDueBetween( double from, double to ) const {
   return std::any_of( periodics_.begin(), periodics_.end(), [ & ]( const auto& periodic ) {
      return periodic->dueBy( from - rounding ) != periodic->dueBy( to + rounding );
   } );
}

void Agent::runTo( double sinceStart ) {
   loop_.advance( start_ + sinceStart - Quarn::time() );
   // Real time goes on beneath virtual time: until nothing falls due while the rest is run.
   double before;
   do {
      before = Quarn::time();
      loop_.runUntilIdle();
   } while( _anyDueBetween( before, Quarn::time() ) );
}

std::uint64_t Agent::runs() const {
   std::uint64_t sum = workersRun_;
   for( const auto& periodic : periodics_ ) {
      sum += periodic->runs;
   }
   for( const auto& members : members_ ) {
      for( const auto& member : members ) {
         sum += member->runs;
      }
   }
   return sum + sends_ + hangUps_;
}

void Agent::compare() {
   const double now = Quarn::time();
   std::map<std::string, std::uint64_t> due;
   for( const auto& periodic : periodics_ ) {
      due[ periodic->name ] = periodic->dueBy( now );
      same( "runs of " + periodic->name, periodic->runs, periodic->dueBy( now ) );
      same( "run count of " + periodic->name, periodic->taskRunCount(), periodic->runsSinceReset );
      same( "work of " + periodic->name, periodic->getStats().taskWorkCountTotal(),
            2 * periodic->runsSinceReset );
   }
   same( "workers", workersRun_, due[ "burst" ] * burstSize );
   same( "workers that are left", workers_.size(), 0u );
   for( int n = 0; n < 2; ++n ) {
      std::uint64_t runs = 0;
      for( const auto& member : members_[ n ] ) {
         runs += member->runs;
         same( "runs of a member", member->runs, due[ "burst" ] * memberRuns );
         same( "run count of a member", member->taskRunCount(), member->runsSinceReset );
      }
      if( n == 0 ) {
         // Beside the members runs the group within: in virtual time once for each run of its
         // member. The run that the last of these asks for is taken back, for nothing is left, and
         // does not count.
         const std::uint64_t within = due[ "group for a while" ] * memberRuns;
         same( "runs of group 0", groups_[ n ]->runTaskCount( TaskPriority::normal ),
               runs + within );
      }
   }
   same( "bytes sent", reader_->bytes, due[ "send" ] * bytesSent );
   same( "connections that hung up", hangUps_, due[ "connection" ] );
   same( "reports written later", reportsWritten_, due[ "report later" ] );
   _resetSeen();
   same( "reset under way", root_->resetStatsInProgress(), false );
   BasicVector<TaskStat> stats;
   root_->getCompletedTaskStats( stats, true );
   std::map<std::string, Completed> told;
   for( const TaskStat& stat : stats ) {
      const std::string name( std::string_view( stat.taskName() ) );
      if( name.starts_with( "worker" ) ) {
         same( "records of completed " + name, told.count( name ), 0u );
         told[ name ] = { stat.taskCompletedCount(), stat.taskRunCount() };
      }
   }
   // Every name has completed since the last reset, with the bursts of this day.
   same( "names of completed workers", completed_.size(), std::size( workerNames ) );
   for( const auto& [ name, completed ] : completed_ ) {
      same( "completed " + name, told[ name ].count, completed.count );
      same( "runs of completed " + name, told[ name ].runs, completed.runs );
   }
   same( "names in records of completed workers", told.size(), completed_.size() );
   if( !root_->checkForTest() || !groups_[ 0 ]->checkForTest() || !groups_[ 1 ]->checkForTest() ) {
      throw Fault( "checkForTest()" );
   }
}

prove::Outcome soak( const prove::Order& order ) {
   const auto begin = std::chrono::steady_clock::now();
   Testing::VirtualTimeLoop loop;
   // The log would grow.
   loop.root()->runObserverForTestIs( {} );
   Agent agent( loop, order.seed );
   std::vector<std::int64_t> live;
   live.reserve( order.count );
   double today = 0.0;
   try {
      for( ; live.size() < order.count; today += day ) {
         agent.runTo( today + day + timeOfDay );
         agent.compare();
         live.push_back( liveBytes() );
      }
   } catch( const Fault& fault ) {
      return { false, fmt::format( "day {}: {}", live.size() + 1, fault.what() ) };
   }
   const double seconds =
         std::chrono::duration<double>( std::chrono::steady_clock::now() - begin ).count();
   std::int64_t most = 0;
   if( live.size() > warmUpDays ) {
      const auto steady = live.begin() + warmUpDays;
      const auto [ low, high ] = std::minmax_element( steady, live.end() );
      most = *high - *low;
   }
   if( most != 0 ) {
      for( std::size_t n = 0; n < live.size(); ++n ) {
         std::cerr << "day " << n + 1 << ": " << live[ n ] << " bytes\n";
      }
   }
   // Nothing at all would be memory that is not counted.
   return { most == 0 && live.back() > 0 && seconds < realSecondsMax,
            fmt::format( "{} days in {:.1f} s, {} runs and {} reports as the model says, memory of "
                         "a day differs by {} of {} bytes",
                         order.count, seconds, agent.runs(), agent.reports(), most, live.back() ) };
}

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow(
         argc, argv, { 11, "soak", "memory slope 0, counters equal the model, under a minute", 30 },
         soak );
}
