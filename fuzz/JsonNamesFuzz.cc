// Snapshots of schedulers whose names are any bytes: an input is the names of the root and of a
// task, and then a list of steps that make tasks, timers and groups, run them, count their work,
// end them and take snapshots. A step is a byte and what `Play::_step()` reads behind it; a name
// stands behind its length.
//
// The document that is made of the snapshots is read by a parser of its own and must say what the
// snapshots hold, member by member and in their order. Delivered through a small pipe, on a loop
// that goes on meanwhile, it must have the same bytes.

#include "fuzz/Draws.h"
#include "fuzz/Fuzz.h"

#include "support/Tasks.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/platform/EventBase.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/testing/Clocks.h>

#include <charconv>
#include <cmath>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using std::chrono::nanoseconds;
using testing_support::makeTask;
using Shots = std::vector<std::shared_ptr<const TaskSchedulerSnapshot>>;

// So that the longest inputs end within moments under the sanitizers.
constexpr std::size_t tasksMax = 64;
constexpr std::size_t groupsMax = 12;
constexpr std::size_t shotsMax = 4;
constexpr std::size_t longNamesMax = 4;
constexpr int stepsMax = 200;

// ------------------------------------------------------------------------------ what is to be read

// The text as a document shows it: whatever is not part of valid UTF-8 becomes U+FFFD, byte by
// byte. A sequence is taken apart into its number and put together again: valid are those that
// come out as they went in.
std::string shown( std::string_view text ) {
   std::string out;
   while( !text.empty() ) {
      const auto lead = static_cast<unsigned char>( text[ 0 ] );
      if( lead < 0x80 ) {
         out += text[ 0 ];
         text.remove_prefix( 1 );
         continue;
      }
      const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
      std::uint32_t number = length == 2 ? lead & 0x1Fu : length == 3 ? lead & 0x0Fu : lead & 0x07u;
      for( std::size_t i = 1; i < std::min( length, text.size() ); ++i ) {
         number = number << 6 | ( static_cast<unsigned char>( text[ i ] ) & 0x3Fu );
      }
      const auto byte = [ & ]( std::uint32_t bits ) { return static_cast<char>( bits ); };
      const auto tail = [ & ]( int shift ) { return byte( 0x80u | ( number >> shift & 0x3Fu ) ); };
      const std::string again =
            number < 0x800 ? std::string{ byte( 0xC0u | number >> 6 ), tail( 0 ) }
            : number < 0x10000
                  ? std::string{ byte( 0xE0u | number >> 12 ), tail( 6 ), tail( 0 ) }
                  : std::string{ byte( 0xF0u | number >> 18 ), tail( 12 ), tail( 6 ), tail( 0 ) };
      const bool surrogate = number >= 0xD800 && number < 0xE000;
      if( number >= 0x80 && !surrogate && number <= 0x10FFFF &&
          text.substr( 0, length ) == again ) {
         out += again;
         text.remove_prefix( length );
      } else {
         out += "\xEF\xBF\xBD";
         text.remove_prefix( 1 );
      }
   }
   return out;
}

// A value of a document; of a number the text, as it stands there.
struct JsonValue {
   enum Kind { object, array, string, number, word };

   Kind kind = word;
   std::string text{};
   // Of an array without names.
   std::vector<std::pair<std::string, JsonValue>> members{};
};

// Reads compact documents, and ends the process at anything that is none.
class Parser {
 public:
   static JsonValue parsed( std::string_view text ) {
      Parser parser( text );
      JsonValue value = parser._value();
      FUZZ_REQUIRE( parser.text_.empty() );
      return value;
   }

 private:
   explicit Parser( std::string_view text ) : text_( text ) {}

   char _next() const {
      FUZZ_REQUIRE( !text_.empty() );
      return text_.front();
   }
   bool _takes( char c ) {
      const bool there = _next() == c;
      text_.remove_prefix( there ? 1 : 0 );
      return there;
   }
   JsonValue _value();
   JsonValue _list( JsonValue::Kind kind, char end );
   std::string _string();
   std::string _number();

   std::string_view text_;
};

JsonValue Parser::_value() {
   for( const std::string_view word : { "true", "false", "null" } ) {
      if( text_.starts_with( word ) ) {
         text_.remove_prefix( word.size() );
         return { .kind = JsonValue::word, .text = std::string( word ) };
      }
   }
   if( _takes( '{' ) ) {
      return _list( JsonValue::object, '}' );
   }
   if( _takes( '[' ) ) {
      return _list( JsonValue::array, ']' );
   }
   return _next() == '"' ? JsonValue{ .kind = JsonValue::string, .text = _string() }
                         : JsonValue{ .kind = JsonValue::number, .text = _number() };
}

JsonValue Parser::_list( JsonValue::Kind kind, char end ) {
   JsonValue list{ .kind = kind };
   while( !_takes( end ) ) {
      FUZZ_REQUIRE( list.members.empty() || _takes( ',' ) );
      std::string name;
      if( kind == JsonValue::object ) {
         name = _string();
         FUZZ_REQUIRE( _takes( ':' ) );
      }
      list.members.emplace_back( std::move( name ), _value() );
   }
   return list;
}

std::string Parser::_string() {
   FUZZ_REQUIRE( _takes( '"' ) );
   std::string text;
   while( !_takes( '"' ) ) {
      const char c = _next();
      FUZZ_REQUIRE( static_cast<unsigned char>( c ) >= 0x20 );
      text_.remove_prefix( 1 );
      if( c != '\\' ) {
         text += c;
         continue;
      }
      constexpr std::string_view letters = "\"\\/bfnrt";
      constexpr std::string_view meant = "\"\\/\b\f\n\r\t";
      if( _takes( 'u' ) ) {
         FUZZ_REQUIRE( text_.size() >= 4 );
         unsigned number = 0;
         char const* const end = text_.data() + 4;
         FUZZ_REQUIRE( std::from_chars( text_.data(), end, number, 16 ).ptr == end );
         // Whatever is no control character stands as it is.
         FUZZ_REQUIRE( number < 0x20 );
         text_.remove_prefix( 4 );
         text += static_cast<char>( number );
      } else {
         const std::size_t letter = letters.find( _next() );
         FUZZ_REQUIRE( letter != letters.npos );
         text_.remove_prefix( 1 );
         text += meant[ letter ];
      }
   }
   FUZZ_REQUIRE( shown( text ) == text );
   return text;
}

// Digits without a 0 in front, a fraction, an exponent.
std::string Parser::_number() {
   const std::string_view begin = text_;
   const auto digits = [ & ] {
      const std::size_t count = std::min( text_.find_first_not_of( "0123456789" ), text_.size() );
      FUZZ_REQUIRE( count > 0 );
      text_.remove_prefix( count );
      return count;
   };
   static_cast<void>( _takes( '-' ) );
   const bool zero = _next() == '0';
   FUZZ_REQUIRE( digits() == 1 || !zero );
   if( _takes( '.' ) ) {
      digits();
   }
   if( _takes( 'e' ) || _takes( 'E' ) ) {
      static_cast<void>( _takes( '-' ) || _takes( '+' ) );
      digits();
   }
   return std::string( begin.substr( 0, begin.size() - text_.size() ) );
}

template<typename Number>
bool isNumber( const JsonValue& value, Number expected ) {
   Number number{};
   char const* const end = value.text.data() + value.text.size();
   const auto read = std::from_chars( value.text.data(), end, number );
   return value.kind == JsonValue::number && read.ec == std::errc() && read.ptr == end &&
          number == expected;
}

// Takes the members of an object one after the other, in the order of the text; none may be left.
class Members {
 public:
   explicit Members( const JsonValue& object ) : members_( object.members ) {
      FUZZ_REQUIRE( object.kind == JsonValue::object );
   }
   ~Members() { FUZZ_REQUIRE( at_ == members_.size() ); }
   Members( const Members& ) = delete;
   Members& operator=( const Members& ) = delete;

   const JsonValue& take( std::string_view name ) {
      FUZZ_REQUIRE( at_ < members_.size() );
      FUZZ_REQUIRE( members_[ at_ ].first == name );
      return members_[ at_++ ].second;
   }
   void text( std::string_view name, std::string_view expected ) {
      const JsonValue& value = take( name );
      FUZZ_REQUIRE( value.kind == JsonValue::string && value.text == shown( expected ) );
   }
   void number( std::string_view name, std::uint64_t expected ) {
      FUZZ_REQUIRE( isNumber( take( name ), expected ) );
   }
   // The double that is printed is the one that is read.
   void real( std::string_view name, double expected ) {
      const JsonValue& value = take( name );
      FUZZ_REQUIRE( std::isfinite( expected )
                          ? isNumber( value, expected )
                          : value.kind == JsonValue::word && value.text == "null" );
   }
   void seconds( std::string_view name, nanoseconds expected ) {
      real( name, static_cast<double>( expected.count() ) / 1e9 );
   }
   void boolean( std::string_view name, bool expected ) {
      const JsonValue& value = take( name );
      FUZZ_REQUIRE( value.kind == JsonValue::word &&
                    value.text == ( expected ? "true" : "false" ) );
   }

 private:
   const std::vector<std::pair<std::string, JsonValue>>& members_;
   std::size_t at_ = 0;
};

std::uint64_t countOf( TaskStat::time_point when ) {
   return static_cast<std::uint64_t>( when.time_since_epoch().count() );
}

void compareTask( const JsonValue& value, const TaskStat& stat, bool completed ) {
   const TaskStat::TaskStatus status = stat.taskStatus();
   Members members( value );
   members.text( "name", stat.taskName() );
   members.text( "address", TaskKey( stat.task() ).toStrep() );
   members.text( "priority", stat.taskPriority().toStrep() );
   if( status.taskIsTaskGroup() ) {
      members.text( "subScheduler", stat.taskName() + "-" + TaskKey( stat.task() ).toStrep() );
   }
   members.boolean( "onRunQueue", status.taskOnRunQueue() );
   members.boolean( "currentlyRunning", status.taskCurrentlyRunning() );
   members.boolean( "suspended", status.taskSuspended() );
   members.boolean( "schedulerSuspended", status.schedulerSuspended() );
   members.boolean( "hasTimer", status.taskTimer() );
   members.boolean( "timerRunning", status.taskTimerRunning() );
   members.number( "runCount", stat.taskRunCount() );
   members.seconds( "totalRunTime", stat.taskTotalRunTime() );
   members.number( "firstTaskRunTimestamp", countOf( stat.taskFirstRunTimestamp() ) );
   members.number( "lastTaskRunTimestamp", countOf( stat.taskLastRunTimestamp() ) );
   members.seconds( "lastSchedulingLatency", stat.taskLastSchedulingLatency() );
   members.seconds( "schedulingLatencyHighWaterMark", stat.taskSchedulingLatencyHighWaterMark() );
   members.number( "qv200", stat.taskQuantumViolation200() );
   members.number( "qv500", stat.taskQuantumViolation500() );
   const double longest = static_cast<double>( stat.taskRunTimeHighWaterMark().count() ) / 1e9;
   members.number( "maxMs", static_cast<std::uint64_t>( std::floor( longest * 1000 + 0.5 ) ) );
   if( completed ) {
      members.number( "completedCount", stat.taskCompletedCount() );
   }
   if( stat.taskWorkCountHighWaterMark() != taskStatUnset ) {
      Members work( members.take( "workCount" ) );
      work.number( "total", stat.taskWorkCountTotal() );
      work.real( "decayingAvg", double{ stat.taskWorkCountDecayAvg() } );
      work.number( "highwater", stat.taskWorkCountHighWaterMark() );
   }
   if( stat.taskWorkPendingHighWaterMark() != taskStatUnset ) {
      Members work( members.take( "workPending" ) );
      work.number( "pending", stat.taskWorkPending() );
      work.number( "highwater", stat.taskWorkPendingHighWaterMark() );
   }
}

void compareTasks( const JsonValue& value, const BasicVector<TaskStat>& stats, unsigned skipped,
                   bool completed ) {
   // The longest total run time first, else as they were.
   std::vector<TaskStat const*> order;
   for( const TaskStat& stat : stats ) {
      order.push_back( &stat );
   }
   std::ranges::stable_sort( order, std::greater(),
                             []( TaskStat const* stat ) { return stat->taskTotalRunTime(); } );
   Members members( value );
   const JsonValue& tasks = members.take( "tasks" );
   FUZZ_REQUIRE( tasks.kind == JsonValue::array && tasks.members.size() == order.size() );
   for( std::size_t n = 0; n < order.size(); ++n ) {
      compareTask( tasks.members[ n ].second, *order[ n ], completed );
   }
   members.number( "skipped", skipped );
}

void compareHistory( const JsonValue& value, const TaskSchedulerSnapshot::History& history ) {
   Members members( value );
   members.number( "historyEntryCount", history.capacity );
   members.number( "historyEventCount", history.events.size() );
   const JsonValue& events = members.take( "history" );
   FUZZ_REQUIRE( events.kind == JsonValue::array &&
                 events.members.size() == history.events.size() );
   for( std::size_t n = 0; n < history.events.size(); ++n ) {
      const TaskSchedulerHistory::Event& expected = history.events[ n ];
      Members event( events.members[ n ].second );
      event.number( "nsSinceBoot", countOf( expected.timestamp() ) );
      event.text( "eventType", expected.eventTypeDisplay() );
      event.text( "eventId", expected.eventIdentifier() );
   }
}

void compare( const JsonValue& value, const TaskSchedulerSnapshot& shot ) {
   Members members( value );
   members.text( "schedulerName", shot.schedulerName() );
   if( shot.displayOrder() != TaskSchedulerSnapshot::noDisplayOrder ) {
      members.number( "displayOrder", shot.displayOrder() );
   }
   members.text( "generalError", shot.generalError() );
   members.boolean( "isRootScheduler", shot.isRootScheduler() );
   members.text( "taskNameRegex", shot.taskNameRegex() );
   members.text( "taskNameRegexError", shot.taskNameRegexError() );
   {
      Members priorities( members.take( "priorityStats" ) );
      for( const auto& [ priority, stats ] : shot.priorityStats() ) {
         Members counts( priorities.take( priority.toStrep() ) );
         counts.number( "runnableTasks", stats.runnable );
         counts.number( "idleTasks", stats.idle );
         counts.number( "completedTasks", stats.completed );
         counts.number( "totalRunCount", stats.total );
      }
   }
   members.seconds( "maxSchedulerSlip", shot.maxSchedulerSlip() );
   compareTasks( members.take( "tasks" ), shot.tasks(), shot.skippedTasks(), false );
   compareTasks( members.take( "completedTasks" ), shot.completedTasks(),
                 shot.skippedCompletedTasks(), true );
   {
      Members subs( members.take( "subSchedulers" ) );
      for( const auto& [ key, sub ] : shot.subSchedulers() ) {
         compare( subs.take( shown( key ) ), sub );
      }
   }
   if( shot.isRootScheduler() && shot.history() ) {
      compareHistory( members.take( "history" ), *shot.history() );
   }
}

// --------------------------------------------------------------------------------------- the steps

// A base of its own for the thread, and clocks that stand still.
struct Surroundings {
   Surroundings() {
      leFree();
      leRegisterBase( leCreateBase() );
   }
   ~Surroundings() { leFree(); }
   Surroundings( const Surroundings& ) = delete;
   Surroundings& operator=( const Surroundings& ) = delete;

   Testing::ManualSteadyClock steadyClock;
   Testing::ManualTimerClock timerClock;
};

class Play {
 public:
   explicit Play( std::string_view bytes );
   void run();
   const Shots& shots() const { return shots_; }
   TaskSchedulerRoot& root() { return *root_; }

 private:
   class Timer final : public TimerTask {
    public:
      using TimerTask::TimerTask;

    private:
      void taskExecute() override {}
   };

   std::string _name();
   std::uint64_t _large();
   TaskPriority _priorityIn( const TaskScheduler& scheduler );
   const std::shared_ptr<TaskScheduler>& _anyScheduler() {
      return schedulers_[ input_.byte() % schedulers_.size() ];
   }
   std::shared_ptr<TaskImpl>& _anyTask() { return tasks_[ input_.byte() % tasks_.size() ]; }
   void _add( std::shared_ptr<TaskImpl> task );
   void _makeGroup();
   void _ends();
   void _shoot( unsigned flags, const std::string& name, const std::string& filter );
   void _step( unsigned kind );

   Surroundings surroundings_;
   Fuzz::Draws input_;
   std::size_t longNames_ = 0;
   std::shared_ptr<TaskSchedulerRoot> root_;
   std::vector<std::shared_ptr<TaskScheduler>> schedulers_;
   std::vector<std::shared_ptr<TaskImpl>> tasks_;
   Shots shots_;
   // Of all that live, by the address of their task.
   std::map<TaskImpl const*, std::string> names_;
};

Play::Play( std::string_view bytes ) : input_( bytes ) {
   root_ = TaskSchedulerRoot::TaskSchedulerRootIs( _name() );
   schedulers_.push_back( root_ );
   _add( makeTask( root_, TaskPriority::normal, _name() ) );
}

// Lengths from 240 on stand for a few bytes over and over, up to some thousand.
std::string Play::_name() {
   const std::size_t length = input_.byte();
   if( length < 240 || ++longNames_ > longNamesMax ) {
      return input_.bytes( length );
   }
   const std::string part = input_.bytes( length - 239 );
   std::string name;
   for( int n = 0; n < 300; ++n ) {
      name += part;
   }
   return name;
}

// All magnitudes.
std::uint64_t Play::_large() {
   const unsigned shift = input_.byte() % 57;
   return std::uint64_t{ input_.byte() } << shift;
}

TaskPriority Play::_priorityIn( const TaskScheduler& scheduler ) {
   const auto drawn =
         static_cast<std::uint8_t>( 1 + input_.byte() % ( TaskPriority::oneBeyondLast - 1 ) );
   auto const* group = dynamic_cast<TaskGroup const*>( &scheduler );
   return group ? group->priority() : TaskPriority( drawn );
}

void Play::_add( std::shared_ptr<TaskImpl> task ) {
   if( tasks_.size() < tasksMax ) {
      names_[ task.get() ] = task->taskName().stdString();
      tasks_.push_back( std::move( task ) );
   }
}

void Play::_makeGroup() {
   const auto parent = _anyScheduler();
   const TaskPriority priority = _priorityIn( *parent );
   const std::string name = _name();
   if( schedulers_.size() < groupsMax ) {
      schedulers_.push_back( TaskGroup::TaskGroupIs( name, priority, false, parent ) );
   }
}

void Play::_ends() {
   if( tasks_.size() > 1 ) {
      auto& task = _anyTask();
      names_.erase( task.get() );
      task = std::move( tasks_.back() );
      tasks_.pop_back();
   }
}

void Play::_shoot( unsigned flags, const std::string& name, const std::string& filter ) {
   const auto scheduler = flags & 8 ? _anyScheduler() : schedulers_.front();
   const std::uint32_t order = flags & 16 ? TaskSchedulerSnapshot::noDisplayOrder : flags;
   auto shot = scheduler->snapshot( name, flags & 1, flags & 2, flags & 4, filter, order );
   FUZZ_REQUIRE( shot->schedulerName() == ( name.empty() ? scheduler->schedulerName() : name ) );
   FUZZ_REQUIRE( shot->taskNameRegex() == filter );
   if( shots_.size() < shotsMax ) {
      shots_.push_back( std::move( shot ) );
   }
}

// An expression that repeats no more than once takes no long time on any name.
std::string tamed( std::string expression ) {
   bool repeats = false;
   std::erase_if( expression, [ & ]( char c ) {
      return ( c == '*' || c == '+' || c == '{' ) && std::exchange( repeats, true );
   } );
   return expression.substr( 0, 64 );
}

void Play::_step( unsigned kind ) {
   switch( kind ) {
   case 0:
   case 1: {
      const auto scheduler = _anyScheduler();
      const TaskPriority priority = _priorityIn( *scheduler );
      _add( makeTask( scheduler, priority, _name() ) );
      break;
   }
   case 2: {
      const auto scheduler = _anyScheduler();
      const TaskPriority priority = _priorityIn( *scheduler );
      _add( std::make_shared<Timer>( scheduler, priority, _name() ) );
      break;
   }
   case 3:
      _makeGroup();
      break;
   case 4:
      _ends();
      break;
   case 5:
      _anyTask()->taskStatsNameIs( _name() );
      break;
   case 6: {
      // A body that takes a while, and tells of its work.
      const nanoseconds length( _large() % 100'000'000'000 );
      const auto task = std::dynamic_pointer_cast<testing_support::FunctionTask>( _anyTask() );
      if( task ) {
         task->bodyIs( [ this, length ]( auto& self ) {
            surroundings_.steadyClock.advance( length );
            self.taskWorkCountInc( static_cast<unsigned long>( length.count() ) );
         } );
      }
      break;
   }
   case 7:
      _anyTask()->taskRunAndRecordFromTest();
      break;
   case 8:
      if( const auto timer = std::dynamic_pointer_cast<TimerTask>( _anyTask() ) ) {
         timer->scheduleTaskDelay( 1.0 + input_.byte() );
      } else {
         _anyTask()->scheduleTask();
      }
      break;
   case 9:
      root_->_handleSchedulerRun( TaskPriority::scavenge );
      break;
   case 10:
      _anyTask()->taskSuspendedIs( input_.byte() % 2 == 0 );
      break;
   case 11:
      _anyScheduler()->suspendedIs( input_.byte() % 2 == 0 );
      break;
   case 12: {
      auto& task = *_anyTask();
      task.taskWorkCountInc( _large() );
      task.taskWorkPendingIs( static_cast<unsigned>( _large() ) );
      break;
   }
   case 13:
      surroundings_.steadyClock.advance( nanoseconds( _large() % 100'000'000'000 ) );
      break;
   case 14:
      root_->historyEntryCountIs( input_.byte() % 64 );
      break;
   default: {
      const unsigned flags = input_.byte();
      const std::string name = _name();
      _shoot( flags, name, flags & 32 ? tamed( _name() ) : "" );
      break;
   }
   }
}

std::map<TaskImpl const*, std::string> namesIn( const TaskSchedulerSnapshot& shot ) {
   std::map<TaskImpl const*, std::string> names;
   for( const TaskStat& stat : shot.tasks() ) {
      if( !stat.taskStatus().taskIsTaskGroup() ) {
         names[ stat.task() ] = stat.taskName().stdString();
      }
   }
   for( const auto& entry : shot.subSchedulers() ) {
      names.merge( namesIn( entry.second ) );
   }
   return names;
}

void Play::run() {
   for( int steps = 0; steps < stepsMax && !input_.ended(); ++steps ) {
      _step( input_.byte() % 16 );
   }
   auto whole = root_->snapshot( {}, true, true, true, {}, 0 );
   FUZZ_REQUIRE( namesIn( *whole ) == names_ );
   shots_.push_back( std::move( whole ) );
}

// ------------------------------------------------------------------------------------ the delivery

// In no more bytes than expected, lest a delivery that repeats itself never ends.
std::string delivered( TaskSchedulerRoot& root, const Shots& shots, std::size_t sizeMax ) {
   int fds[ 2 ];
   FUZZ_REQUIRE( pipe2( fds, O_CLOEXEC ) == 0 );
   fcntl( fds[ 0 ], F_SETFL, O_NONBLOCK );
   fcntl( fds[ 1 ], F_SETPIPE_SZ, 4096 );
   // A suspended root would never get to it.
   root.suspendedIs( false );
   bool done = false;
   root.snapshotRenderJsonAsync( fds[ 1 ], shots, [ & ] { done = true; } );
   std::string text;
   std::string piece( 65536, '\0' );
   const auto take = [ & ] {
      ssize_t got;
      while( ( got = read( fds[ 0 ], piece.data(), piece.size() ) ) > 0 ) {
         text.append( piece, 0, static_cast<std::size_t>( got ) );
         FUZZ_REQUIRE( text.size() <= sizeMax );
      }
   };
   while( !done ) {
      Platform::doEventLoop( 0.0 );
      take();
   }
   take();
   close( fds[ 0 ] );
   return text;
}

// What the filter says on standard error of expressions that are none.
class QuietErrors {
 public:
   QuietErrors() : before_( std::cerr.rdbuf( nullptr ) ) {}
   ~QuietErrors() {
      std::cerr.rdbuf( before_ );
      std::cerr.clear();
   }
   QuietErrors( const QuietErrors& ) = delete;
   QuietErrors& operator=( const QuietErrors& ) = delete;

 private:
   std::streambuf* before_;
};

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   const QuietErrors quiet;
   Play play( Fuzz::asText( data, size ) );
   play.run();

   std::ostringstream out;
   const auto context = TaskScheduler::PrintContextIs( out );
   for( const auto& shot : play.shots() ) {
      shot->renderJson( *context );
   }
   context->closeJson();
   const std::string text = out.str();

   const JsonValue document = Parser::parsed( text );
   {
      Members top( document );
      Members schedulers( top.take( "schedulers" ) );
      for( const auto& shot : play.shots() ) {
         compare( schedulers.take( shown( shot->schedulerName() ) ), *shot );
      }
   }
   FUZZ_REQUIRE( delivered( play.root(), play.shots(), text.size() ) == text );
   return 0;
}
