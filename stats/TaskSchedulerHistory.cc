#include <Quarn/stats/TaskSchedulerHistory.h>

#include <Quarn/stats/TaskNameRegex.h>

#include "debug/Handlers.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <utility>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

constexpr char const* displays[] = {
      "schedule",
      "unschedule",
      "run start",
      "run end",
      "timerStart",
      "timerStop",
      "suspendOn",
      "suspendOff",
      "scheduleSus",
      "frcYieldOn",
      "frcYieldOff",
      "idle",
      "busy",
      "create",
      "delete",
      "fdReadable",
      "fdWritable",
      "schedulerBusy",
      "schedulerIdle",
      "schedulerHasRunnableTasks",
      "schedulerHasNoRunnableTasks",
      "schedulerSuspended",
      "schedulerUnsuspended",
      "schedulerRunIgnoredWhileSuspended",
      "schedulerVirtualTimeOn",
      "schedulerVirtualTimeOff",
      "schedulerTestYieldRatioOn",
      "schedulerTestYieldRatioOff",
      "schedulerRunCriticalStart",
      "schedulerRunCriticalEnd",
};

constexpr auto lastTaskEvent = static_cast<unsigned>( TaskSchedulerEventType::fdWritable );
constexpr auto lastEvent = static_cast<unsigned>( TaskSchedulerEventType::schedulerRunCriticalEnd );
static_assert( std::size( displays ) == lastEvent + 1 );

} // namespace

bool eventNeedTask( TaskSchedulerEventType type ) {
   const auto value = static_cast<unsigned>( type );
   if( value > lastEvent ) {
      QUARN_STREAM_FAIL( "unexpected eventType=" << value );
   }
   return value <= lastTaskEvent;
}

char const* eventTypeDisplay( TaskSchedulerEventType type ) {
   const auto value = static_cast<unsigned>( type );
   if( value > lastEvent ) {
      QUARN_STREAM_FAIL( "unexpected eventType " << value );
   }
   return displays[ value ];
}

const String& TaskSchedulerHistory::Event::eventIdentifier() const {
   if( !identifier_.isInPlace() && !identifier_.isDeduped() ) {
      QUARN_STREAM_FAIL( "EventType: " << eventTypeDisplay() << " identifier " << identifier_
                                       << " is neither short string optimized nor deduped" );
   }
   return identifier_;
}

TaskSchedulerHistory::TaskSchedulerHistory( std::uint32_t capacity ) : events_( capacity ) {}

TaskSchedulerHistory::~TaskSchedulerHistory() = default;

const TaskSchedulerHistory::Event& TaskSchedulerHistory::event( std::uint32_t age ) const {
   const std::uint64_t position = std::uint64_t{ newest_ } + age;
   return events_[ position < capacity() ? position : position - capacity() ];
}

std::uint32_t TaskSchedulerHistory::capacityIs( std::uint32_t newCapacity ) {
   const std::uint32_t oldCapacity = capacity();
   if( newCapacity == oldCapacity ) {
      return oldCapacity;
   }
   std::vector<Event, Allocator<Event>> newEvents( newCapacity );
   const std::uint32_t kept = std::min( size_, newCapacity );
   for( std::uint32_t age = 0; age < kept; ++age ) {
      newEvents[ age ] = event( age );
   }
   events_.swap( newEvents );
   newest_ = 0;
   size_ = kept;
   return oldCapacity;
}

void TaskSchedulerHistory::clear() {
   for( std::uint32_t age = 0; age < size_; ++age ) {
      const std::uint64_t position = std::uint64_t{ newest_ } + age;
      events_[ position < capacity() ? position : position - capacity() ] = Event();
   }
   size_ = 0;
}

void TaskSchedulerHistory::renderText( std::ostream& out, TaskNameRegex const* filter ) const {
   fmt::memory_buffer line;
   // In one piece each, whatever the stream does with the pieces that it gets.
   const auto write = [ & ] {
      out.write( line.data(), static_cast<std::streamsize>( line.size() ) );
      line.clear();
   };
   fmt::format_to( std::back_inserter( line ),
                   "Last {} scheduler events, absolute timestamp and relative to last event",
                   size_ );
   const std::size_t width = line.size();
   fmt::format_to( std::back_inserter( line ), "\n{:-<{}}\n", "", width );
   write();
   for( std::uint32_t age = 0; age < size_; ++age ) {
      const Event& e = event( age );
      // The identifiers of tasks have a tag in front that no expression is meant for.
      if( filter &&
          !( eventNeedTask( e.eventType() ) && filter->match<2>( e.eventIdentifier() ) ) ) {
         continue;
      }
      const auto sinceNewest = event( 0 ).timestamp() - e.timestamp();
      fmt::format_to( std::back_inserter( line ), "{:>22} ns since boot {:>10} us {:<12} {}\n",
                      e.timestamp().time_since_epoch().count(), sinceNewest.count() / 1000,
                      e.eventTypeDisplay(), e.eventIdentifier() );
      write();
      out.flush();
   }
}

} // namespace Quarn
