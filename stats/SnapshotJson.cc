#include "stats/SnapshotJson.h"

#include <Quarn/scheduler/TaskKey.h>
#include <Quarn/stats/TaskSchedulerSnapshot.h>

#include "debug/Handlers.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

constexpr double nsPerSecond = 1e9;

double secondsOf( std::chrono::nanoseconds time ) {
   return static_cast<double>( time.count() ) / nsPerSecond;
}

// -------------------------------------------------------------------------------------------- text

// Eight bytes at a time: whether one of them is below a blank, a quote, a backslash or above 0x7F.
bool anySpecial( std::uint64_t bytes ) {
   constexpr std::uint64_t ones = 0x0101010101010101;
   constexpr std::uint64_t highBits = 0x80 * ones;
   const auto anyBelow = [ & ]( std::uint64_t word, std::uint64_t limit ) {
      return ( word - limit * ones ) & ~word;
   };
   return ( ( bytes | anyBelow( bytes, ' ' ) | anyBelow( bytes ^ ( '"' * ones ), 1 ) |
              anyBelow( bytes ^ ( '\\' * ones ), 1 ) ) &
            highBits ) != 0;
}

// Whether the text stands in JSON as it is.
bool isPlain( std::string_view text ) {
   std::uint64_t word;
   if( text.size() >= sizeof( word ) ) {
      char const* at = text.data();
      char const* const last = at + text.size() - sizeof( word );
      for( ; at < last; at += sizeof( word ) ) {
         std::memcpy( &word, at, sizeof( word ) );
         if( anySpecial( word ) ) {
            return false;
         }
      }
      // The last eight, some of them again.
      std::memcpy( &word, last, sizeof( word ) );
      return !anySpecial( word );
   }
   return std::ranges::all_of( text, []( char c ) {
      return c >= ' ' && c != '"' && c != '\\' && static_cast<unsigned char>( c ) < 0x80;
   } );
}

// The length of the valid sequence that begins the text, or 0. By table 3-7 of the Unicode
// standard, which leaves out surrogates, what is above U+10FFFF, and forms that are longer than
// need be.
std::size_t utf8Length( std::string_view text ) {
   const auto byte = [ & ]( std::size_t i ) { return static_cast<unsigned char>( text[ i ] ); };
   const unsigned char lead = byte( 0 );
   if( lead < 0x80 ) {
      return 1;
   }
   if( lead < 0xC2 || lead > 0xF4 ) {
      return 0;
   }
   const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
   if( text.size() < length ) {
      return 0;
   }
   const unsigned char lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
   const unsigned char highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
   if( byte( 1 ) < lowest || byte( 1 ) > highest ) {
      return 0;
   }
   for( std::size_t i = 2; i < length; ++i ) {
      if( ( byte( i ) & 0xC0 ) != 0x80 ) {
         return 0;
      }
   }
   return length;
}

void put( Json::Buffer& out, std::string_view text ) {
   std::memcpy( out.Push( text.size() ), text.data(), text.size() );
}

void putString( Json::Buffer& out, std::string_view text ) {
   if( isPlain( text ) ) [[likely]] {
      char* at = out.Push( text.size() + 2 );
      *at = '"';
      std::memcpy( at + 1, text.data(), text.size() );
      at[ text.size() + 1 ] = '"';
      return;
   }
   Json::Writer<Json::Buffer> writer( out );
   Json::string( writer, text );
}

// --------------------------------------------------------------------------------------- one task

// Numbers and fixed text one after the other, in room that was made for all of them.
class Line {
 public:
   explicit Line( Json::Buffer& out ) : out_( out ), at_( out.Push( room ) ) {}
   ~Line() { out_.Pop( static_cast<std::size_t>( room - ( at_ - begin() ) ) ); }
   Line( const Line& ) = delete;
   Line& operator=( const Line& ) = delete;

   template<std::size_t size>
   Line& text( char const ( &literal )[ size ] ) {
      std::memcpy( at_, literal, size - 1 );
      at_ += size - 1;
      return *this;
   }
   Line& boolean( bool value ) { return value ? text( "true" ) : text( "false" ); }
   Line& number( std::uint64_t value ) {
      at_ = rapidjson::internal::u64toa( value, at_ );
      return *this;
   }
   Line& number( std::int64_t value ) {
      at_ = rapidjson::internal::i64toa( value, at_ );
      return *this;
   }
   Line& number( std::uint32_t value ) {
      at_ = rapidjson::internal::u32toa( value, at_ );
      return *this;
   }
   // JSON has no word for what is not finite.
   Line& number( double value ) {
      if( !std::isfinite( value ) ) {
         return text( "null" );
      }
      at_ = rapidjson::internal::dtoa( value, at_ );
      return *this;
   }

 private:
   // The fixed text of a task is below 600 bytes, and its numbers have below 400 digits.
   static constexpr std::ptrdiff_t room = 1024;
   char const* begin() const { return out_.stack_.End<char>() - room; }

   Json::Buffer& out_;
   char* at_;
};

void putTask( Json::Buffer& out, const TaskStat& stat, bool completed ) {
   const TaskStat::TaskStatus status = stat.taskStatus();
   put( out, "{\"name\":" );
   putString( out, stat.taskName() );
   put( out, ",\"address\":" );
   putString( out, TaskKey( stat.task() ).toStrep() );
   put( out, ",\"priority\":" );
   putString( out, stat.taskPriority().toStrep() );
   if( status.taskIsTaskGroup() ) {
      put( out, ",\"subScheduler\":" );
      putString( out, subSchedulerKey( stat ) );
   }
   Line line( out );
   line.text( ",\"onRunQueue\":" ).boolean( status.taskOnRunQueue() );
   line.text( ",\"currentlyRunning\":" ).boolean( status.taskCurrentlyRunning() );
   line.text( ",\"suspended\":" ).boolean( status.taskSuspended() );
   line.text( ",\"schedulerSuspended\":" ).boolean( status.schedulerSuspended() );
   line.text( ",\"hasTimer\":" ).boolean( status.taskTimer() );
   line.text( ",\"timerRunning\":" ).boolean( status.taskTimerRunning() );
   line.text( ",\"runCount\":" ).number( stat.taskRunCount() );
   line.text( ",\"totalRunTime\":" ).number( secondsOf( stat.taskTotalRunTime() ) );
   const auto stamp = []( TaskStat::time_point when ) {
      return static_cast<std::uint64_t>( when.time_since_epoch().count() );
   };
   line.text( ",\"firstTaskRunTimestamp\":" ).number( stamp( stat.taskFirstRunTimestamp() ) );
   line.text( ",\"lastTaskRunTimestamp\":" ).number( stamp( stat.taskLastRunTimestamp() ) );
   line.text( ",\"lastSchedulingLatency\":" )
         .number( secondsOf( stat.taskLastSchedulingLatency() ) );
   line.text( ",\"schedulingLatencyHighWaterMark\":" )
         .number( secondsOf( stat.taskSchedulingLatencyHighWaterMark() ) );
   line.text( ",\"qv200\":" ).number( stat.taskQuantumViolation200() );
   line.text( ",\"qv500\":" ).number( stat.taskQuantumViolation500() );
   line.text( ",\"maxMs\":" )
         .number( std::int64_t{
               std::llround( secondsOf( stat.taskRunTimeHighWaterMark() ) * 1000 ) } );
   if( completed ) {
      line.text( ",\"completedCount\":" ).number( stat.taskCompletedCount() );
   }
   // A task that never reported work has neither member, which tells it from one that reported 0.
   if( stat.taskWorkCountHighWaterMark() != taskStatUnset ) {
      line.text( ",\"workCount\":{\"total\":" ).number( stat.taskWorkCountTotal() );
      line.text( ",\"decayingAvg\":" ).number( double{ stat.taskWorkCountDecayAvg() } );
      line.text( ",\"highwater\":" ).number( stat.taskWorkCountHighWaterMark() ).text( "}" );
   }
   if( stat.taskWorkPendingHighWaterMark() != taskStatUnset ) {
      line.text( ",\"workPending\":{\"pending\":" ).number( stat.taskWorkPending() );
      line.text( ",\"highwater\":" ).number( stat.taskWorkPendingHighWaterMark() ).text( "}" );
   }
   line.text( "}" );
}

// A record's place in the report: that of the largest total run time first, and equal ones in their
// order. It carries the time, for records by the hundred thousand do not stay in the cache.
struct Place {
   TaskStat::duration time;
   TaskStat const* stat;

   bool operator<( const Place& other ) const {
      return time != other.time ? time > other.time : stat < other.stat;
   }
};

// Has the processor get a record that will be wanted soon.
void fetch( const TaskStat& stat ) {
   constexpr std::size_t cacheLine = 64;
   auto const* bytes = reinterpret_cast<char const*>( &stat );
   for( std::size_t at = 0; at < sizeof( stat ); at += cacheLine ) {
      __builtin_prefetch( bytes + at );
   }
}

std::vector<Place> sorted( const BasicVector<TaskStat>& stats ) {
   std::vector<Place> order;
   order.reserve( stats.size() );
   for( const TaskStat& stat : stats ) {
      order.push_back( { stat.taskTotalRunTime(), &stat } );
   }
   std::ranges::sort( order, std::less() );
   return order;
}

// ----------------------------------------------------------------------------- parts of a snapshot

// A task takes some 600 bytes, and a value should grow in one piece, by and large.
constexpr std::size_t roomOfTask = 800;

std::size_t recordCount( const TaskSchedulerSnapshot& snapshot ) {
   std::size_t count = snapshot.tasks().size() + snapshot.completedTasks().size();
   for( const auto& entry : snapshot.subSchedulers() ) {
      count += recordCount( entry.second );
   }
   return count;
}

void renderPriorityStats( Json::Writer<Json::Buffer>& writer, const TaskQueueStatsMap& all ) {
   writer.StartObject();
   for( TaskPriority p = TaskPriority::critical; p < TaskPriority::oneBeyondLast; ++p ) {
      const auto entry = all.find( p );
      const TaskQueueStats stats = entry == all.end() ? TaskQueueStats() : entry->second;
      Json::key( writer, p.toStrep() );
      writer.StartObject();
      Json::key( writer, "runnableTasks" );
      writer.Uint64( stats.runnable );
      Json::key( writer, "idleTasks" );
      writer.Uint64( stats.idle );
      Json::key( writer, "completedTasks" );
      writer.Uint64( stats.completed );
      Json::key( writer, "totalRunCount" );
      writer.Uint64( stats.total );
      writer.EndObject();
   }
   writer.EndObject();
}

void renderHistory( Json::Writer<Json::Buffer>& writer,
                    const TaskSchedulerSnapshot::History& history ) {
   writer.StartObject();
   Json::key( writer, "historyEntryCount" );
   writer.Uint( history.capacity );
   Json::key( writer, "historyEventCount" );
   writer.Uint64( history.events.size() );
   Json::key( writer, "history" );
   writer.StartArray();
   for( const TaskSchedulerHistory::Event& event : history.events ) {
      writer.StartObject();
      Json::key( writer, "nsSinceBoot" );
      writer.Uint64( static_cast<std::uint64_t>( event.timestamp().time_since_epoch().count() ) );
      Json::key( writer, "eventType" );
      Json::string( writer, event.eventTypeDisplay() );
      Json::key( writer, "eventId" );
      Json::string( writer, event.eventIdentifier() );
      writer.EndObject();
   }
   writer.EndArray();
   writer.EndObject();
}

void renderTasks( Json::Value& value, const BasicVector<TaskStat>& stats, unsigned skipped,
                  bool completed ) {
   value.writer.StartObject();
   Json::key( value.writer, "tasks" );
   value.writer.StartArray();
   const std::vector<Place> order = sorted( stats );
   for( std::size_t i = 0; i < order.size(); ++i ) {
      // The records lie in another order than they are written.
      constexpr std::size_t ahead = 8;
      if( i + ahead < order.size() ) {
         fetch( *order[ i + ahead ].stat );
      }
      value.writer.RawValue( "", 0, rapidjson::kObjectType );
      putTask( value.text, *order[ i ].stat, completed );
   }
   value.writer.EndArray();
   Json::key( value.writer, "skipped" );
   value.writer.Uint( skipped );
   value.writer.EndObject();
}

} // namespace

std::string_view Json::validUtf8( std::string_view text, std::string& storage ) {
   if( isPlain( text ) ) {
      return text;
   }
   constexpr std::string_view replacement = "\xEF\xBF\xBD";
   bool replaced = false;
   std::size_t kept = 0;
   for( std::size_t at = 0; at < text.size(); ) {
      const std::size_t length = utf8Length( text.substr( at ) );
      if( length == 0 ) {
         replaced = true;
         storage.append( text, kept, at - kept ).append( replacement );
         kept = at + 1;
      }
      at += std::max<std::size_t>( length, 1 );
   }
   if( !replaced ) {
      return text;
   }
   return storage.append( text, kept );
}

// --------------------------------------------------------------------------------------- snapshots

void TaskSchedulerSnapshot::renderJson( TaskSchedulerPrintContext& context ) const noexcept {
   TaskSchedulerPrintContext::Impl& impl = *context.impl_;
   if( impl.closed ) {
      QUARN_DIE( "TaskSchedulerSnapshot", "renderJson", "JSON already closed" );
   }
   impl.member( schedulerName_, recordCount( *this ) * roomOfTask,
                [ & ]( Json::Value& ) { renderJsonImpl( context ); } );
}

void TaskSchedulerSnapshot::renderJsonImpl( TaskSchedulerPrintContext& context ) const {
   Json::Writer<Json::Buffer>& writer = context.impl_->value->writer;
   writer.StartObject();
   Json::key( writer, "schedulerName" );
   Json::string( writer, schedulerName_ );
   if( displayOrder_ != noDisplayOrder ) {
      Json::key( writer, "displayOrder" );
      writer.Uint( displayOrder_ );
   }
   Json::key( writer, "generalError" );
   Json::string( writer, generalError_ );
   Json::key( writer, "isRootScheduler" );
   writer.Bool( isRootScheduler_ );
   Json::key( writer, "taskNameRegex" );
   Json::string( writer, taskNameRegex_ );
   Json::key( writer, "taskNameRegexError" );
   Json::string( writer, taskNameRegexError_ );
   Json::key( writer, "priorityStats" );
   renderPriorityStats( writer, priorityStats_ );
   Json::key( writer, "maxSchedulerSlip" );
   writer.Double( secondsOf( maxSchedulerSlip_ ) );
   renderJsonTasks( context, tasks_, "tasks", skippedTasks_, false );
   renderJsonTasks( context, completedTasks_, "completedTasks", skippedCompletedTasks_, true );
   Json::key( writer, "subSchedulers" );
   writer.StartObject();
   for( const auto& [ subKey, sub ] : subSchedulers_ ) {
      Json::key( writer, subKey );
      sub.renderJsonImpl( context );
   }
   writer.EndObject();
   if( isRootScheduler_ && history_ ) {
      Json::key( writer, "history" );
      renderHistory( writer, *history_ );
   }
   writer.EndObject();
}

void TaskSchedulerSnapshot::renderJsonTasks( TaskSchedulerPrintContext& context,
                                             const BasicVector<TaskStat>& stats, String key,
                                             unsigned skipped, bool completed ) const {
   TaskSchedulerPrintContext::Impl& impl = *context.impl_;
   if( impl.closed ) {
      QUARN_FAIL( "TaskSchedulerSnapshot", "JSON already closed" );
   }
   if( impl.value ) {
      Json::key( impl.value->writer, key );
      renderTasks( *impl.value, stats, skipped, completed );
   } else {
      impl.member( key, stats.size() * roomOfTask, [ & ]( Json::Value& value ) {
         renderTasks( value, stats, skipped, completed );
      } );
   }
}

// ------------------------------------------------------------------------- straight from the live

void TaskScheduler::statsRenderJson( std::ostream& out, bool includeNoRuns, bool includeCompleted,
                                     bool includeHistory, String taskNameRegex ) const {
   const auto shot = snapshot( {}, includeNoRuns, includeCompleted, includeHistory,
                               std::move( taskNameRegex ), 0 );
   TaskSchedulerPrintContext context( out );
   shot->renderJson( context );
   context.closeJson();
}

String TaskScheduler::statsRenderJsonToString( bool includeNoRuns, bool includeCompleted,
                                               bool includeHistory, String taskNameRegex ) const {
   Json::TextBuffer buffer;
   std::ostream out( &buffer );
   statsRenderJson( out, includeNoRuns, includeCompleted, includeHistory,
                    std::move( taskNameRegex ) );
   if( !out ) {
      throw std::bad_alloc();
   }
   return String( buffer.text() );
}

void TaskScheduler::statsRenderJsonToBlockingFdForTest( int fd, bool includeNoRuns,
                                                        bool includeCompleted, bool includeHistory,
                                                        String taskNameRegex ) const {
   const auto shot = snapshot( {}, includeNoRuns, includeCompleted, includeHistory,
                               std::move( taskNameRegex ), 0 );
   const auto context = PrintContextIs( fd, false );
   shot->renderJson( *context );
   context->closeJson();
}

} // namespace Quarn
